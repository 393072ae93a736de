// domains_world: what the tests of domains share: the directories that a device has before its first domain,
// start scripts, and what a program of a domain must have. A take-down signals by group on the whole machine:
// domains 5 to 7 are used by nobody but these cases.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "wex.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_test.h"
#include "wex_vsd.h"

using namespace wex_test;

inline int device_answer = 0;  // of the platform call below, in this program and its children
inline void (*device_work)() = [] {};
inline constexpr char kDeviceCalls[] = "/data/calls";

inline void append(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
  close(fd);
}

// The device's own part of a domain's start, in place of the port for plain Linux boxes. Not inline: the
// library calls it.
extern "C" int fs_set_vsd_envs(int vsd, int old_pid) {
  append(kDeviceCalls, std::to_string(vsd) + " " + std::to_string(old_pid) + "\n");
  device_work();
  errno = EPROTO;
  return device_answer;
}

inline std::string path_of(const char* text, int vsd) {
  return replace_matches(text, "%d", std::to_string(vsd));
}

inline std::vector<pid_t> processes_of(int vsd) {
  std::vector<pid_t> found;
  for (const pid_t pid : processes_inside()) {
    if (get_vsdid(pid) == vsd && is_alive(pid)) {
      found.push_back(pid);
    }
  }
  return found;
}

inline bool value_is(const Facts& facts, const std::string& key, const std::string& value) {
  const auto found = facts.find(key);
  return found != facts.end() && found->second == std::vector<std::string>{value};
}

inline bool has_variable(const Facts& facts, const std::string& variable) {
  const auto found = facts.find("env");
  return found != facts.end() && std::count(found->second.begin(), found->second.end(), variable) == 1;
}

inline bool names_variable(const Facts& facts, const std::string& name) {
  const auto found = facts.find("env");
  return found != facts.end() &&
         std::any_of(found->second.begin(), found->second.end(), [&](const std::string& text) {
           return text.compare(0, name.size() + 1, name + "=") == 0;
         });
}

struct Domains : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    device_answer = 0;
    device_work = [] {};
    g_wex_dbg_level[WEX_DBG_PUB] = 0;
    for (const char* path : {"/qx_cfg/vsd", "/ovix/vsd", "/data/.ovix/vsd", "/etc/vsd", "/tmp/vsd",
                             "/data/var/run/vsd", "/etc/rc.d/rc.vsd"}) {
      make_dirs(path);
    }
    for (const char* device : {kLsmDevice, kMapIpcDevice}) {
      write_file(device, "", 0600);
    }
  }
  void TearDown() override {
    g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
    for (const char* path : {"/data/calls", "/data/trace", "/sbin/wex_app"}) {
      remove_tree(path);
    }
    for (const std::string& name : list_dir("/data")) {
      if (name.compare(0, 6, "facts.") == 0) {
        remove_tree("/data/" + name);
      }
    }
    WexWorld::TearDown();
  }

  static void script(const std::string& name, const std::string& text) {
    write_file(kStartScripts + name, "#!/bin/sh\n" + text + "\n", 0755);
  }
  // A start script that leaves a service behind, which tells its facts under the domain's number.
  static void service_script(const std::string& options) {
    script("20service", std::string(actor_binary()) + " --facts=/data/facts.$(basename $TMPDIR) --tag=$1 " +
                            options + " --hold &");
  }
  static Facts facts_of(int vsd) {
    const std::string path = "/data/facts." + std::to_string(vsd);
    EXPECT_TRUE(eventually([&] { return exists(path); })) << path;
    return read_facts(path);
  }
  static std::optional<int> wex(std::vector<std::string> words) {
    words.insert(words.begin(), Daemon::binary());
    return run(words);
  }
};

inline void expect_in_domain(const Facts& facts, int vsd) {
  EXPECT_TRUE(value_is(facts, "group", std::to_string(3000 + 100 * vsd)));
  EXPECT_TRUE(value_is(facts, "cwd", path_of("/data/var/run/vsd/%d", vsd)));
  EXPECT_TRUE(has_variable(facts, path_of("QX_CFG_DIR=/qx_cfg/vsd/%d", vsd)));
  EXPECT_TRUE(has_variable(facts, path_of("OVIX_DIR=/ovix/vsd/%d", vsd)));
  EXPECT_TRUE(has_variable(facts, path_of("DATA_OVIX_DIR=/data/.ovix/vsd/%d", vsd)));
  EXPECT_TRUE(has_variable(facts, path_of("TMPDIR=/tmp/vsd/%d", vsd)));
}

// A starter leaves behind what a service must not have: an open file, signals that are ignored or blocked.
inline constexpr char kBadStarter[] =
    "exec 7</etc/passwd; trap '' TERM PIPE CHLD; exec env --block-signal=USR1,ALRM ";

inline void expect_clean_start(const Facts& facts) {
  const auto ignored = facts.find("signal_ignored");
  for (const std::string& number : ignored == facts.end() ? std::vector<std::string>{} : ignored->second) {
    EXPECT_GE(SIGQUIT, std::stoi(number)) << number << "; a script's shell itself adds SIGINT and SIGQUIT";
  }
  EXPECT_TRUE(value_is(facts, "SigBlk", "0000000000000000"));
  EXPECT_FALSE(value_is(facts, "session", std::to_string(getsid(0)))) << "the starter's session";
  for (const std::string& fd : facts.at("fd")) {
    EXPECT_GT(3, std::stoi(fd)) << fd;
  }
}

// odd_files: what may lie at the names of files that the daemon reads and writes, and a course of its work
// with it.
#pragma once

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <functional>
#include <optional>

#include "control_client.h"
#include "figures.h"
#include "leak_gate.h"
#include "restart_policy.h"

namespace odd_files {

using namespace wex_test;
using policy::Service;

// ---- What lies there --------------------------------------------------------------------------------------

inline std::string noise(size_t size) {
  std::string bytes(size, '\0');
  uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

inline void make_huge(const std::string& path) {
  write_file(path, "1 1\n" + std::string(200000, 'x') + "\n");
  ASSERT_EQ(0, truncate(path.c_str(), 8 << 20)) << path;
}

inline void make_socket(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  strcpy(address.sun_path, path.c_str());
  const unique_fd made(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, bind(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address)) << path;
}

struct oddity {
  const char* name;
  void (*make)(const std::string& path);
  bool stays;  // cannot be removed or renamed: not at names that the daemon must have for itself
};

inline const oddity kOddities[] = {
    {"Empty", [](const std::string& path) { write_file(path, ""); }, false},
    {"Huge", make_huge, false},
    {"Binary", [](const std::string& path) { write_file(path, noise(5000)); }, false},
    {"Directory", [](const std::string& path) { make_dirs(path + "/d"); }, false},
    {"Fifo", [](const std::string& path) { EXPECT_EQ(0, mkfifo(path.c_str(), 0666)) << path; }, false},
    {"Socket", make_socket, false},
    {"EndlessDevice",
     [](const std::string& path) {
       EXPECT_EQ(0, mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 5))) << path;
     },
     false},
    {"LinkLoop", [](const std::string& path) { EXPECT_EQ(0, symlink(path.c_str(), path.c_str())) << path; },
     false},
    {"LinkToNothing",
     [](const std::string& path) { EXPECT_EQ(0, symlink("/tmp/nowhere", path.c_str())) << path; }, false},
    {"Unreadable",  // every read of it fails with EIO
     [](const std::string& path) {
       write_file(path, "");
       EXPECT_EQ(0, mount("/proc/self/mem", path.c_str(), nullptr, MS_BIND, nullptr)) << path;
     },
     true},
};

// ---- Where it lies ----------------------------------------------------------------------------------------

// Not among them: what has a meaning by being there (take-down markers, the fork-failure file), and event
// logs: a program whose restart cannot be written there is not restarted while an operator wants it written.
struct place {
  std::string path;
  bool own;  // the daemon's own: it makes room for itself
};

inline const std::vector<place>& places() {
  static const std::vector<place> all = {
      {"/data/.ovix/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", false},
      {kDebugTime, false},
      {kBurstConfig, false},
      {std::string(kThirdPartDir) + "/odd", false},
      {kThirdPartList, true},
      {std::string(kCommandMap) + "/actor", false},
      {kRebootSwitch, false},
      {kExemptThreads, false},
      {std::string(policy::db_file("odd", 99999001)), false},
      {"/tmp/vsd/0/wex/99999002", false},
      {"/tmp/vsd/3", false},
      {kNotifyCount, true},
      {kNotifyLog, true},
      {kRunningLog1, true},
      {kRunningLog2, true},
      {kRebootLog, true},
      {kHistory, true},
      {kHung, true},
      {kLockFile, true},
      {kControlSocket, true},
      {kAliveTableFile, true},
      {kStatusTable, true},
      {WEX_SEM_KEY_FILE, true},
  };
  return all;
}

// ---- The course -------------------------------------------------------------------------------------------

const leaves_behind kSets(kSemaphores, "", 100, "a set whose key file is not the daemon's is left alone");

struct OddFiles : WexWorld {
  void TearDown() override {
    daemon.kill_now();
    take_away();
    sweep_aside();
    WexWorld::TearDown();
  }
  // What the daemon has moved out of its way.
  static void sweep_aside() {
    for (const std::string directory : {"/tmp", "/data", "/dev/shm", "/ovix/vsd/0/utils/wex"}) {
      for (const std::string& name : list_dir(directory)) {
        if (name.rfind("aside-", 0) == 0) {
          remove_tree(directory + "/" + name);
        }
      }
    }
  }

  void put(const oddity& what, const place& where) {
    make_dirs(where.path.substr(0, where.path.rfind('/')));
    remove_tree(where.path);
    what.make(where.path);
    put_.push_back(where.path);
    mounted_ = mounted_ || what.stays;
  }
  void take_away() {
    for (const std::string& path : put_) {
      if (mounted_) {
        umount2(path.c_str(), MNT_DETACH);
      }
      remove_tree(path);
    }
    put_.clear();
    mounted_ = false;
  }

  // A start, a restart, a restart by script, a crash that is counted, a second daemon, and an end in good
  // order. Whether all of it went as always.
  bool all_goes_on() {
    write_file(kNoReboot, "");
    const bool well = daemon.start() && restarts("plain", SIGKILL) && restarts("crashing", SIGSEGV) &&
                      restarts_by_script() && next_daemon_knows_it() && ended_by(daemon.stop(), SIGINT);
    daemon.kill_now();
    end_services();
    return well;
  }

  Daemon daemon;

 private:
  // Those that the daemon has started are not children of this process.
  static void end_services() {
    for (const pid_t pid : processes_inside()) {
      if (program_of(pid) == actor_binary()) {
        ASSERT_GT(pid, 0);
        send_signal(pid, SIGKILL);
        EXPECT_TRUE(eventually([pid] { return !is_alive(pid); }, 20s));
      }
    }
  }
  static bool restarts(const std::string& tag, int signal) {
    Service service(tag);
    if (!service.start()) {
      return false;
    }
    service.end(signal);
    return service.comes_back(30s);
  }
  // Where the command map cannot be used, a shell tries in vain, and nobody else is harmed.
  static bool restarts_by_script() {
    Service service("script", "--register=SHELL");
    if (!service.start()) {
      return false;
    }
    service.end();
    return restarts("beside", SIGKILL);
  }
  bool next_daemon_knows_it() {
    Service service("kept");
    if (!service.start()) {
      return false;
    }
    daemon.kill_now();
    service.end();
    return daemon.start() && service.comes_back(30s);
  }

  std::vector<std::string> put_;
  bool mounted_ = false;
};

inline bool fits(const oddity& what, const place& where) {
  return !what.stays || !where.own;
}

}  // namespace odd_files

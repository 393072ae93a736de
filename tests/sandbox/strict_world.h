// What the tests of strict mode share: a device on which not everybody is root, and what its users try.
#pragma once

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "control_client.h"
#include "status_reader.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace strict_world {

using namespace wex_test;
using words = std::vector<std::string>;

inline constexpr uid_t kUser = 1234;
inline constexpr gid_t kUsersGroup = 1235;
inline constexpr uid_t kOther = 1236;

// Takes this process to a user for good.
inline bool become(uid_t user) {
  return setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0;
}

// Does `work` as a user, in a process of its own. What it returned.
inline bool as_user(const std::function<bool()>& work, uid_t user = kUser) {
  const child worker([&] { return become(user) && work(); });
  return worker.ready();
}

// An actor's words as a user with two supplementary groups.
inline words users_words(const words& options, uid_t user = kUser) {
  const std::string name = std::to_string(user);
  words all = {"setpriv", "--reuid=" + name, "--regid=" + std::to_string(kUsersGroup), "--groups=77,3001"};
  const words program = actor_words(options);
  all.insert(all.end(), program.begin(), program.end());
  return all;
}

// The four ids of a line of /proc/PID/status, parted by one blank.
inline std::string ids_of(pid_t pid, const std::string& field) {
  std::string text = status_field(pid, field);
  for (char& letter : text) {
    letter = letter == '\t' ? ' ' : letter;
  }
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

inline std::string uid_of(pid_t pid) {
  const std::string ids = ids_of(pid, "Uid");
  return ids.substr(0, ids.find(' '));
}

inline std::string text(int64_t number) {
  return std::to_string(number);
}

struct Strict : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    write_file(kStrictFile, "");
  }
  // The daemon first: it would start again what ends, and that might be on its way when the case is over.
  void TearDown() override {
    daemon.kill_now();
    processes.clear();
    WexWorld::TearDown();
  }
  Process& process() { return processes.emplace_back(); }
  void start() {
    ASSERT_TRUE(daemon.start());
    mark_console();
  }
  static std::string running_log() { return read_file(kRunningLog1) + read_file(kRunningLog2); }
  static bool log_says(const std::string& what) {
    return eventually([&] { return running_log().find(what) != std::string::npos; }, 20s);
  }
  static bool is_registered(pid_t pid) { return StatusReader().slot_of(pid).has_value(); }

  // A service of the user's, or of root's, that is registered when this returns.
  static bool start_service(Process* service, const words& options, uid_t user = kUser) {
    words all = options;
    all.insert(all.end(), {"--register=RESTART", "--confirm", "--hold"});
    return service->start(user == 0 ? actor_words(all) : users_words(all, user)) &&
           eventually([&] { return is_registered(service->pid()); }, 20s);
  }
  static words service_words(const words& options) {
    words all = options;
    all.insert(all.end(), {"--register=RESTART", "--confirm", "--hold"});
    return all;
  }

  Daemon daemon;

 private:
  std::deque<Process> processes;
};

}  // namespace strict_world

// What the tests of the control channel share: a client without the library, and the daemon it talks to.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "raw_client.h"
#include "wex.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace control_client {

using namespace wex_test;

inline wex_reg_info body_of(int32_t pid) {
  wex_reg_info body = {};
  body.pid = pid;
  return body;
}

inline wex_cons_info harmless() {
  return {7, 0};
}

inline size_t descriptors_of(pid_t pid) {
  return list_dir("/proc/" + std::to_string(pid) + "/fd").size();
}

// The kernel's id of the thread with this name (its first 15 characters); "" when there is none.
inline std::string thread_of(pid_t pid, const std::string& name) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
  for (const std::string& tid : list_dir(tasks)) {
    if (read_file(tasks + tid + "/comm") == name + "\n") {
      return tid;
    }
  }
  return "";
}

inline std::string target_of(pid_t pid, const std::string& fd) {
  char target[256] = {};
  const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + fd;
  return readlink(link.c_str(), target, sizeof target - 1) > 0 ? target : "";
}

// What the descriptors of a process lead to.
inline std::vector<std::string> open_files_of(pid_t pid) {
  std::vector<std::string> targets;
  for (const std::string& fd : list_dir("/proc/" + std::to_string(pid) + "/fd")) {
    targets.push_back(target_of(pid, fd));
  }
  return targets;
}

// Those of them that a program it started would have too.
inline std::vector<std::string> inheritable_files_of(pid_t pid) {
  const std::string directory = "/proc/" + std::to_string(pid) + "/fdinfo";
  std::vector<std::string> targets;
  for (const std::string& fd : list_dir(directory)) {
    const std::string info = read_file(directory + "/" + fd);
    const size_t at = info.find("flags:\t");
    if (at != std::string::npos && (strtol(info.c_str() + at + 7, nullptr, 8) & O_CLOEXEC) == 0) {
      targets.push_back(target_of(pid, fd));
    }
  }
  return targets;
}

inline std::string dispatched(uint32_t type, int result) {
  return "]wex_dispatch_domain_msg type:" + std::to_string(type) + " err:" + std::to_string(result) + "\n";
}

struct ControlChannel : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    ASSERT_FALSE(HasFatalFailure());
  }
  void TearDown() override {
    daemon.kill_now();
    WexWorld::TearDown();
  }
  void start() {
    ASSERT_TRUE(daemon.start());
    mark_console();
  }
  // The traced daemon's server stands still when this returns: the signal alone stops it some time later.
  void stop_traced() {
    const std::string server = thread_of(daemon.pid(), "wex_process_dom") + " ";
    daemon.send(SIGSTOP);
    ASSERT_TRUE(eventually([&] {
      const std::vector<std::string> lines = lines_of(Daemon::trace());
      return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.compare(0, server.size(), server) == 0 &&
               line.find("--- stopped by SIGSTOP") != std::string::npos;
      });
    })) << Daemon::trace();
  }
  // The daemon serves others, at once.
  static bool serves() {
    const raw_client other;
    return other.connected() && other.send_body(WEX_CONS_MSG, harmless()) && other.acknowledged();
  }
  static std::string running_log() { return read_file(kRunningLog1) + read_file(kRunningLog2); }
  // Without an error. What the daemon's C library calls that is its own: glibc, musl.
  static bool server_ended(const std::string& result) {
    return contains_match(running_log(), "Thread \"wex_process_domain\" exit, wex will be restart\\. res=" +
                                             result + ", (Success|No error information)\\(0\\)\r\n");
  }

  Daemon daemon;
};

}  // namespace control_client

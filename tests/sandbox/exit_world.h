// exit_world: what the tests of exits share: a service that registers itself, and its database file.
#pragma once

#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "wex_test.h"

using namespace wex_test;
using texts = std::vector<std::string>;

inline constexpr char kDbDir[] = "/tmp/vsd/0/wex/db";
inline constexpr char kReady[] = "/tmp/wex/ready";
// A request is answered before it is handled: only the answer to a second one says that the first is done.
inline const texts kService = {"--register=RESTART", "--confirm", "--ready=/tmp/wex/ready", "--hold"};

inline std::string text(long number) {
  return std::to_string(number);
}
inline std::string db_path(pid_t pid) {
  return std::string(kDbDir) + "/actor." + text(pid);
}

struct ExitHandling : WexWorld {};

// Starts a service; true once it is registered.
inline bool start_service(Process* service, const texts& options = kService) {
  unlink(kReady);
  return service->start(actor_words(options)) &&
         eventually([&] { return read_file(kReady) == text(service->pid()) + "\n"; });
}

// A service was registered, and has been killed: the pid it had.
inline pid_t killed_service(const texts& options = kService) {
  Process service;
  EXPECT_TRUE(start_service(&service, options)) << read_console();
  const pid_t pid = service.pid();
  service.kill_now();
  return pid;
}

// The service in its next life, once it is registered; 0 when it does not come.
inline pid_t next_life(pid_t before) {
  const pid_t next = wait_for_actor(kService, before);
  const bool ready = next > 0 && eventually([&] { return read_file(kReady) == text(next) + "\n"; });
  EXPECT_TRUE(ready) << read_console();
  return ready ? next : 0;
}

// Kills the service, and ends three of its next lives as `end` does, which gets their pid and number. Another
// one follows.
inline void live_and_end(Process* service, const std::function<void(pid_t, int)>& end) {
  pid_t pid = service->pid();
  service->kill_now();
  for (int life = 0; life < 3; ++life) {
    const pid_t next = next_life(pid);
    ASSERT_GT(next, 0);
    end(next, life);
    pid = next;
  }
  EXPECT_GT(wait_for_actor(kService, pid), 0);
}

inline size_t starts(const std::string& path) {
  return lines_of(read_file(path)).size();
}

inline size_t count_in(const std::string& where, const std::string& what) {
  size_t count = 0;
  for (size_t at = where.find(what); at != std::string::npos; at = where.find(what, at + 1)) {
    ++count;
  }
  return count;
}

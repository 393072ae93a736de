// What tests of starting programs share: a registry, domains and records, real forks; only the clock and the
// device's system log belong to the test.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "chain_lock.h"
#include "system_log_calls.h"
#include "text_buffer.h"
#include "wex_chain.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_proc_child.h"
#include "wex_test.h"
#include "wex_utils.h"

namespace proc_world {
inline int32_t g_now = 1000;
inline int g_platform_result = 0;
inline void (*g_platform_work)() = nullptr;
}  // namespace proc_world

// At link level.
extern "C" int32_t wex_clock_now(void) {
  return proc_world::g_now;
}

extern "C" int fs_set_vsd_envs(int /*vsd*/, int /*old_pid*/) {
  if (proc_world::g_platform_work != nullptr) {
    proc_world::g_platform_work();
  }
  return proc_world::g_platform_result;
}

namespace proc_world {

using namespace wex_test;
using texts = std::vector<std::string>;

inline std::string domain_dir(int domain) {
  return "/tmp/vsd/" + std::to_string(domain) + "/wex";
}
inline std::string run_dir(int domain) {
  return "/data/var/run/vsd/" + std::to_string(domain);
}

inline void make_domain(int domain) {
  make_dirs(domain_dir(domain) + "/db");
  make_dirs(run_dir(domain));
}

struct ProcWorld : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    if (HasFatalFailure()) {
      return;
    }
    g_now = 1000;
    g_platform_result = 0;
    g_platform_work = nullptr;
    g_system_log.clear();
    make_dirs("/tmp/wex");
    make_dirs("/etc/wex");
    wex_parse_dbg_file();
    wex_init_chains(&wex_chains);
    signal(SIGALRM, SIG_IGN);
  }
  void TearDown() override {
    alarm(0);
    g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
    WexWorld::TearDown();
  }
};

inline std::unique_ptr<wex_pid> record_of(const std::string& command, int32_t pid = 0,
                                          int32_t action = RESPAWN) {
  auto rec = std::make_unique<wex_pid>();
  memset(static_cast<void*>(rec.get()), 0, sizeof *rec);
  rec->pid = pid;
  rec->action = action;
  wex_copy_text(rec->process, sizeof rec->process, command.c_str());
  return rec;
}

struct spawned {
  int32_t result;
  int32_t out_pid;
};

inline spawned spawn(wex_pid* rec, int32_t (*spawner)(wex_pid*, int32_t*) = wex_spawn) {
  chain_lock hold(wex_chains);
  spawned got = {0, 12345};
  got.result = spawner(rec, &got.out_pid);
  return got;
}

// Runs `body` in a child; what it returned, or -1 when it did not end by itself.
inline int in_child(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int ended(int32_t pid) {
  int status = -1;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace proc_world

// What tests of postponed restarts and of lost exits share: a registry, with a clock that the test sets.
// Nobody waits 301 s here.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>

#include "chain_lock.h"
#include "registry_files.h"
#include "verify_chain.h"
#include "wex_chain.h"
#include "wex_clock.h"
#include "wex_core_delay.h"
#include "wex_core_exit.h"
#include "wex_core_netlink.h"
#include "wex_core_stop.h"
#include "wex_core_upkeep.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_signals_reaper.h"
#include "wex_utils.h"

namespace delay_world {

using namespace registry;

inline std::atomic<int32_t> g_now{1000};
inline std::atomic<int> g_asked{0};

constexpr char kProgram[] = "/bin/sleep 1000";

inline std::string file_of(int32_t pid) {
  return db_file(0, "sleep", pid);
}

// Another process that keeps a database file locked.
class lock_keeper {
 public:
  explicit lock_keeper(int32_t pid)
      : keeper_([pid] { return wex_db_create(0, pid, RESPAWN, kProgram) == 0; }) {
    EXPECT_TRUE(keeper_.ready());
    EXPECT_TRUE(is_locked_for_others(file_of(pid)));
  }
  void let_go() { keeper_.end(); }

 private:
  service keeper_;
};

class Delay : public RegistryWorld {
 protected:
  void SetUp() override {
    RegistryWorld::SetUp();
    make_dirs("/tmp/wex");
    for (const char* path : {kDebugTime, kThirdPartList, kRebootLog}) {
      unlink(path);
    }
    ASSERT_EQ(0, wex_init_chains(&wex_chains));
    ASSERT_EQ(0, wex_init_chains(&wex_alive_chains));
    ASSERT_EQ(0, wex_init_chains(&wex_chains_delay));
    g_now = 1000;
    wex_monitor_read_until = INT32_MAX;
    wex_exit_flag = 0;
    wex_delay_ended = false;
  }

  void TearDown() override {
    stop_thread();
    {
      chain_lock hold(wex_chains);
      record_walk walk(wex_chains);
      while (const wex_pid* const rec = walk.next()) {
        if (rec->pid > 1 && waitpid(rec->pid, nullptr, WNOHANG) == 0) {
          wex_test::send_signal(rec->pid, SIGKILL);
          waitpid(rec->pid, nullptr, 0);
        }
      }
    }
    for (wex_chains_t* chain : {&wex_chains, &wex_chains_delay, &wex_alive_chains}) {
      EXPECT_TRUE(chain_is_sound(*chain));
      wex_destroy_chains(chain);
    }
    wex_chld_handler(SIGCHLD);
    RegistryWorld::TearDown();
  }

  static wex_pid* add(int32_t pid, uint64_t start_time = 1) {
    wex_pid* const rec = wex_new_record();
    rec->pid = pid;
    rec->action = RESPAWN;
    rec->start_time = start_time;  // nobody started so early: the process is known to be gone
    snprintf(rec->process, sizeof rec->process, "%s", kProgram);
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, rec);
    return rec;
  }

  static int32_t count(wex_chains_t& chain) {
    const chain_lock hold(chain);
    return chain.count;
  }

  static int32_t present_pid(const wex_pid* rec) {
    chain_lock hold(wex_chains);
    return rec->pid;
  }

  // What is gone counts as lost then.
  static void sweep_twice() {
    wex_sweep_lost_exits();
    g_now = g_now + kSweepConfirmSec;
    wex_sweep_lost_exits();
  }

  void start_thread() {
    ASSERT_EQ(0, pthread_create(&thread_, nullptr, wex_delay_restart, nullptr));
    running_ = true;
  }

  // Without the wake-up descriptor the thread sees the flag at its next pass.
  void stop_thread() {
    if (running_) {
      wex_exit_flag = 1;
      EXPECT_TRUE(eventually([] { return wex_delay_ended.load(); }, 5s));
      running_ = false;
    }
  }

  pthread_t thread_;
  bool running_ = false;
};

}  // namespace delay_world

extern "C" int32_t wex_clock_now(void) {
  ++delay_world::g_asked;
  return delay_world::g_now;
}

// parked_world: a registry with programs that wait for the end of their self-check, a clock that the test
// sets, and small facts about processes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "chain_lock.h"
#include "system_log_calls.h"
#include "verify_chain.h"
#include "wex_chain.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_test.h"
#include "wex_utils.h"

namespace parked {

using namespace std::chrono_literals;

inline std::atomic<int32_t> g_now{1000};

using namespace wex_test;

// A child that has ended and been reaped: nobody has its pid now.
inline int32_t dead_pid() {
  return child::reaped();
}

// A child that has ended and is a zombie when this returns.
inline pid_t zombie() {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  siginfo_t info = {};
  waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
  return child;
}

inline std::string db_file(int32_t pid, const char* process, int32_t vsd = 0) {
  char name[kPathSize];
  wex_get_db_file_name(vsd, pid, process, name, sizeof name);
  return name;
}

class Parked : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* dir : {"/tmp/wex", "/tmp/vsd", "/tmp/vsd/0", "/tmp/vsd/0/wex", "/tmp/vsd/0/wex/db",
                            "/data", "/etc/wex", "/etc/cmdmap"}) {
      mkdir(dir, 0777);
    }
    ASSERT_EQ(0, wex_init_chains(&wex_chains));
    ASSERT_EQ(0, wex_init_chains(&wex_alive_chains));
    ASSERT_EQ(0, wex_init_chains(&wex_chains_delay));
    g_now = 1000;
    g_system_log.clear();
    alarm(0);
  }

  void TearDown() override {
    alarm(0);
    {
      chain_lock hold(wex_chains);
      record_walk walk(wex_chains);
      while (const wex_pid* const rec = walk.next()) {
        if (rec->pid > 1 && waitpid(rec->pid, nullptr, WNOHANG) == 0) {  // a child of ours that lives
          send_signal(rec->pid, SIGKILL);
        }
      }
    }
    EXPECT_TRUE(chain_is_sound(wex_chains));
    wex_destroy_chains(&wex_chains);
    EXPECT_EQ(0, wex_chains.count);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
  }

  // A record as parking leaves it: its process is dead, its database file is there.
  static wex_pid* park_at(int32_t check_start, const char* process = "/bin/sleep 1000",
                          int32_t action = RESPAWN) {
    wex_pid* const rec = wex_new_record();
    rec->pid = dead_pid();
    rec->action = action;
    rec->flags = WEX_FLAG_WAITING;
    rec->alarm_wait_flag = 1;
    rec->check_start = check_start;
    rec->check_count = 5;
    snprintf(rec->process, sizeof rec->process, "%s", process);
    write_file(db_file(rec->pid, process), std::to_string(rec->pid) + "\n2\n" + process);
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, rec);
    return rec;
  }

  static std::string reboot_reasons() { return read_file(kRebootLog); }
};

}  // namespace parked

// The clock as these cases want it. One source file of a test program includes this header.
extern "C" int32_t wex_clock_now(void) {
  return parked::g_now;
}

// hand_over_world: what the tests of hand-overs to a pid that is kept share: listed programs that run as
// detached processes, and records that wait for them.
#pragma once

#include "event_world.h"
#include "exit_world.h"
#include "leak_gate.h"
#include "wex_chain_user_sets.h"
#include "wex_core_restart.h"
#include "wex_core_sweep_request.h"
#include "wex_strict.h"

namespace hand_over_world {

using namespace event_world;
using exit_world::died;
using exit_world::holds;
using exit_world::missed;
using exit_world::reap;
using exit_world::registered;
using exit_world::unfound;

inline constexpr uint64_t kSomeStart = 4711;  // of a process that has ended long ago
inline constexpr pid_t kNoChild = 5000000;    // above every pid there is

// Of a process that has lived for a while.
inline uint64_t later_ns() {
  return now_ns() + 1000000000;
}

inline std::string path_of_sleep() {
  char path[kPathSize] = "";  // as /proc names it
  EXPECT_NE(nullptr, realpath("/bin/sleep", path));
  return path;
}

// Strict mode asks whose a registration is.
inline void be_roots(wex_pid* rec) {
  rec->user = wex_number_user({});
  wex_hold_user(rec);
}

inline wex_pid* keeper_of(pid_t pid) {
  wex_pid* const rec = wex_new_record();
  rec->pid = pid;
  rec->action = RESPAWN;
  rec->start_time = kSomeStart;
  rec->exit_seen = 1;
  rec->alarm_wait_flag = 1;
  snprintf(rec->process, sizeof rec->process, "/bin/sleep 2000");
  chain_lock hold(wex_chains);
  __wex_add_record(&wex_chains, rec);
  return rec;
}

// A listed program that runs as a process whose pid the registration of another one keeps.
struct detached {
  explicit detached(const std::string& seconds) : program(path_of_sleep() + " " + seconds) {
    write_file(kThirdPartList, read_file(kThirdPartList) + program + " WEX_RESTART\n");
    before_ns = now_ns();
    EXPECT_TRUE(process.start({path_of_sleep(), seconds}));
    wex_pid rec = {};
    snprintf(rec.process, sizeof rec.process, "%s", program.c_str());
    be_roots(&rec);
    int32_t found = 0;
    EXPECT_TRUE(eventually([&] { return wex_find_running(rec.process, &found, &rec); }));
    own_pid = process.pid();
    EXPECT_EQ(own_pid, found);
    wex_release_user(&rec);
    keeper = keeper_of(own_pid);
  }
  pid_t pid() const { return own_pid; }  // also when it has gone
  // Not listed any more, so that nobody looks for the process of its next start for seconds.
  void unlist() const {
    std::string list = read_file(kThirdPartList);
    const size_t at = list.find(program);
    ASSERT_NE(std::string::npos, at);
    write_file(kThirdPartList, list.erase(at, list.find('\n', at) + 1 - at));
  }
  void die() {
    process.kill_now();
    unlist();
  }
  // A zombie when this returns.
  void end(int signal) const {
    siginfo_t info = {};
    send_signal(pid(), signal);
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(pid()), &info, WEXITED | WNOWAIT));
    unlist();
  }

  std::string program;
  uint64_t before_ns = 0;
  Process process;
  pid_t own_pid = 0;
  wex_pid* keeper = nullptr;
};

class HandOver : public Event {
 protected:
  void SetUp() override {
    Event::SetUp();
    unlink(kThirdPartList);
  }
  void TearDown() override {
    wex_set_strict({});
    unlink(kThirdPartList);
    Event::TearDown();
  }

  static void be_strict() {
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
  }
  static bool waits(const wex_pid* rec, int32_t pid) {
    chain_lock hold(wex_chains);
    return rec->pid == pid && rec->start_time == kStartOfNobody && rec->exit_seen == 0 &&
           wex_status_waits(rec);
  }
  static void drop(wex_pid* rec) {
    chain_lock hold(wex_chains);
    __wex_drop_record(&wex_chains, rec);
  }
  // When all that waits now is due.
  static void sweep_when_due() { sweep_at({g_now + kHandOverAgainSec + kSweepConfirmSec}); }
  static void sweep_soon() { sweep_at({g_now + kSweepConfirmSec}); }
  // Its first process has ended, and its second has the kept pid.
  static wex_pid* awaiting(const detached& next) {
    wex_pid* const rec = died(park_at(900, next.program.c_str()));
    const int32_t pid = rec->pid;
    wex_handle_netlink_exit(pid, 9, 0);
    EXPECT_TRUE(waits(rec, pid));
    return rec;
  }
  static void expect_started(const wex_pid* rec, int32_t before) {
    chain_lock hold(wex_chains);
    EXPECT_NE(before, rec->pid);
    EXPECT_TRUE(wex_record_lives(rec));
  }
  static bool any_file_of(const char* program) {
    return system(("ls /tmp/vsd/0/wex/db | grep -q '^" + std::string(program) + "'").c_str()) == 0;
  }

  static void expect_programs_without_pid_to_wait() {
    detached one("4711");
    detached two("4712");
    wex_pid* const first = unfound(one.program.c_str(), kNoChild);
    wex_pid* const second = unfound(two.program.c_str(), kNoChild + 1);
    be_roots(first);
    be_roots(second);
    reap(kNoChild, 9);
    ASSERT_TRUE(holds(one.program.c_str()));
    ASSERT_TRUE(waits(first, -1));
    reap(kNoChild + 1, 9);
    ASSERT_TRUE(waits(second, -1));
    sweep_when_due();
    EXPECT_TRUE(waits(first, -1) && waits(second, -1));
    EXPECT_FALSE(any_file_of("sleep"));
    one.end(SIGKILL);
    wex_take_exit_event(exit_of(one.pid(), kDumped, later_ns()));
    sweep_soon();
    expect_started(first, -1);
    EXPECT_NE(0, first->crash_time);
    EXPECT_EQ(0, second->crash_time);
    EXPECT_TRUE(waits(second, -1));
    two.die();
    sweep_when_due();
    expect_started(second, -1);
    EXPECT_EQ(4, wex_chains.count);
  }
};

}  // namespace hand_over_world

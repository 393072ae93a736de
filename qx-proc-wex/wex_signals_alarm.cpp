// wex_signals_alarm: the thread that does the work of SIGALRM and SIGCHLD.
//
// The alarm restarts programs whose self-check wait is over. That takes locks, memory and forks, none of
// which a signal handler may touch: the chains' mutexes are recursive, so a handler would not even wait but
// walk into the critical section of the thread it interrupted.
#define WEX_MODULE "wex_signals"
#include "wex_signals_alarm.h"

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "chain_lock.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_clock.h"
#include "wex_core_exit.h"
#include "wex_core_restart.h"
#include "wex_core_takedown.h"
#include "wex_dbg.h"
#include "wex_proc.h"
#include "wex_signals.h"
#include "wex_signals_reaper.h"
#include "wex_status_image.h"
#include "wex_utils_settings.h"

namespace {

std::atomic<bool> g_stop{false};
pthread_t g_thread;  // these two are the main thread's alone
bool g_started = false;

int64_t deadline_of(const wex_pid* rec, int32_t wait) {
  return static_cast<int64_t>(wait) + rec->check_start;
}

// A parked program that somebody started again is dropped.
bool drop_if_running(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  const wex_pid* const other = wex_proc_is_running(rec);
  if (other == nullptr) {
    return false;
  }
  wex_dbg(WEX_DBG_PUB, "%s--> %s/%d is running!\n", "wex_alrm_handler", other->process, rec->pid);
  wex_status_tell(WEX_STATUS_EV_HANDED_OVER, rec, {0, other->pid});
  __wex_drop_registration(rec);
  return true;
}

void end_wait(wex_pid* rec, int32_t now) {
  wex_status_tell(WEX_STATUS_EV_TRIED_AGAIN, rec);
  rec->flags &= ~static_cast<uint32_t>(WEX_FLAG_WAITING);
  rec->check_count = 0;
  rec->alarm_wait_flag = 0;
  rec->check_start = 0;
  if (wex_reboot_is_due(rec, now)) {
    wex_reboot_for(rec);
  } else if (rec->reboot_allow > 0) {
    rec->reboot_allow = 0;
  }
  ++rec->reboot_allow;
  rec->reboot_ref_time = now;
}

// Restarts what is due. The latest deadline of what still waits, or 0: one alarm is pending at a time, and
// those that fall before it are handled late.
int64_t restart_due(int32_t now, int32_t wait) WEX_TSA(requires_capability(wex_chains)) {
  int64_t next = 0;
  record_walk walk(wex_chains);
  while (wex_pid* const rec = walk.next()) {
    if ((rec->flags & WEX_FLAG_WAITING) == 0) {
      continue;
    }
    const int64_t deadline = deadline_of(rec, wait);
    if (deadline < now && (__wex_dropped_with_domain(rec) || drop_if_running(rec))) {
      continue;
    }
    const wex_action* const action = wex_find_action(rec->action);
    if (action == nullptr) {
      continue;
    }
    if (deadline < now) {
      end_wait(rec, now);
      if (__wex_start_again(&wex_chains, rec, *action, kAfterWait) > 0) {
        wex_log_restarted(rec, *action, kAfterWait, __LINE__);
      }
    } else if (next < deadline) {
      next = deadline;
    }
  }
  return next;
}

extern "C" void* run_alarm_thread(void* /*unused*/) {
  prctl(PR_SET_NAME, "wex_alarm");
  wex_status_thread_is(kStatusAlarm);
  while (!g_stop.load()) {
    wex_status_idle(kStatusAlarm);
    if (!wex_await_signal()) {
      continue;
    }
    wex_status_busy(kStatusAlarm);
    if (wex_take_child_signal()) {
      wex_reap_at_leisure(g_stop);
      wex_handle_missed_exits();
    }
    if (wex_take_alarm_signal() && !g_stop.load()) {
      wex_alrm_handler(SIGALRM);
    }
  }
  // The next daemon would not know a third-part program that has no database file because it was not found.
  wex_chld_handler(SIGCHLD);
  wex_handle_missed_exits();
  return nullptr;
}

}  // namespace

int wex_start_alarm_thread() {
  wex_wake_reaper();  // the rebuild may have started programs that it did not find
  const int error = pthread_create(&g_thread, nullptr, run_alarm_thread, nullptr);
  g_started = error == 0;
  return error;
}

void wex_stop_alarm_thread() {
  alarm(0);
  g_stop.store(true);
  wex_wake_alarm_thread();
  if (g_started) {
    pthread_join(g_thread, nullptr);
    g_started = false;
  }
}

extern "C" void wex_alrm_handler(int /*signal*/) {
  const int32_t wait = debug_time();
  if (wait < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: get disable time fail: %s\n", __func__, strerror(errno));
  }
  // Held until the alarm is armed: a program that is parked meanwhile keeps the earlier of the two deadlines,
  // and can only do so when this one is already pending.
  chain_lock hold(wex_chains);
  const int32_t now = wex_clock_now();
  const int64_t next = restart_due(now, wait);
  if (next != 0) {
    alarm(next - now > 1 ? static_cast<unsigned>(next - now) : 1);
  }
}

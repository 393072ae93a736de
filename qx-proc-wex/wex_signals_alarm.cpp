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
#include "wex_chain.h"
#include "wex_clock.h"
#include "wex_core_exit.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_takedown.h"
#include "wex_dbg.h"
#include "wex_pidfile.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_signals.h"
#include "wex_signals_reaper.h"
#include "wex_utils_settings.h"

namespace {

struct self_check_kind {
  int32_t action;
  int32_t (*spawn)(wex_pid* rec, int32_t* out_pid);
  const char* mnemonic;
};
constexpr self_check_kind kKinds[] = {
    {RESPAWN, wex_spawn, "HA_SELF_CHECK_INFO"},
    {SHELL_RESTART, wex_shell_spawn, "HA_SCRIPT_SELF_CHECK_INFO"},
};

std::atomic<bool> g_stop{false};
pthread_t g_thread;
bool g_started = false;

const self_check_kind* kind_of(const wex_pid* rec) {
  for (const self_check_kind& kind : kKinds) {
    if (kind.action == rec->action) {
      return &kind;
    }
  }
  return nullptr;
}

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
  wex_db_destroy(rec);
  __wex_drop_record(&wex_chains, rec);
  return true;
}

void end_wait(wex_pid* rec, int32_t now) {
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

void restart_parked(wex_pid* rec, const self_check_kind& kind) WEX_TSA(requires_capability(wex_chains)) {
  const spawn_guard guard;
  int32_t new_pid = -1;
  const int32_t result = kind.spawn(rec, &new_pid);
  if (result < 1) {
    rec->restart_failed = result == 0 ? 1 : 0;
    return;
  }
  __wex_adopt_pid(&wex_chains, rec, new_pid);
  const char* const name = wex_program_name(rec);
  printk_syslog_ext(5, "HA", kind.mnemonic, 1, "Self-checking OK: %d times and new id %s/%d.\n",
                    rec->check_count, name, new_pid);
  wex_dbg(WEX_DBG_PUB, "%s Self-checking OK: %d times and new id %s/%d.\n", kind.mnemonic, rec->check_count,
          name, new_pid);
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
    const self_check_kind* const kind = kind_of(rec);
    if (kind == nullptr) {
      continue;
    }
    if (deadline < now) {
      end_wait(rec, now);
      restart_parked(rec, *kind);
    } else if (next < deadline) {
      next = deadline;
    }
  }
  return next;
}

extern "C" void* run_alarm_thread(void* /*unused*/) {
  prctl(PR_SET_NAME, "wex_alarm");
  while (!g_stop.load()) {
    if (!wex_await_signal()) {
      continue;
    }
    if (wex_take_child_signal()) {
      wex_chld_handler(SIGCHLD);
      wex_handle_missed_exits();
    }
    if (wex_take_alarm_signal() && !g_stop.load()) {
      wex_alrm_handler(SIGALRM);
    }
  }
  // A program that was missed in the last moment may have no database file that the next daemon would find.
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

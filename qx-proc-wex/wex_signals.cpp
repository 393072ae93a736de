// wex_signals: dispositions, the reaper and the alarm.
//
// The alarm restarts programs whose self-check wait is over. That takes locks, memory and forks, none of
// which a signal handler may touch: the chains' mutexes are recursive, so a handler would not even wait but
// walk into the critical section of the thread it interrupted. The handlers therefore only post a semaphore
// for wex_alarm.
#define WEX_MODULE "wex_signals"
#include "wex_signals.h"

#include <semaphore.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "chain_lock.h"
#include "priority_mutex.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_core.h"
#include "wex_core_third_part.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_pidfile.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_utils.h"

namespace {

constexpr int kLastSignal = 128;

sem_t g_wake;
std::atomic<bool> g_wake_exists{false};  // the rebuild may ask for the reaper before
std::atomic<bool> g_alarm_due{false};
std::atomic<bool> g_child_due{false};
std::atomic<bool> g_stop{false};
pthread_t g_thread;
bool g_started = false;

// Recursive: the exit handler holds it until the new pid is in its record, the spawner inside it too. The
// reaper runs at normal priority and holds it as well, hence the inheritance.
pthread_mutex_t g_spawn_mutex;
pthread_once_t g_spawn_once = PTHREAD_ONCE_INIT;

void create_spawn_mutex() {
  create_priority_mutex(&g_spawn_mutex, PTHREAD_MUTEX_RECURSIVE);
}

extern "C" void wake_for_alarm(int /*signal*/) {
  const int cause = errno;
  g_alarm_due.store(true);
  sem_post(&g_wake);
  errno = cause;
}

extern "C" void wake_for_child(int /*signal*/) {
  wex_wake_reaper();
}

extern "C" void* run_alarm_thread(void* /*unused*/) {
  prctl(PR_SET_NAME, "wex_alarm");
  while (!g_stop.load()) {
    if (sem_wait(&g_wake) != 0) {
      continue;
    }
    if (g_child_due.exchange(false)) {
      wex_chld_handler(SIGCHLD);
      wex_handle_missed_exits();
    }
    if (g_alarm_due.exchange(false) && !g_stop.load()) {
      wex_alrm_handler(SIGALRM);
    }
  }
  // A program that was missed in the last moment may have no database file that the next daemon would find.
  wex_chld_handler(SIGCHLD);
  wex_handle_missed_exits();
  return nullptr;
}

int install(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  return sigaction(signal, &action, nullptr);
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

void restart_parked(wex_pid* rec, const wex_action& action) WEX_TSA(requires_capability(wex_chains)) {
  const spawn_guard guard;
  int32_t new_pid = -1;
  const int32_t result = wex_spawn_as(action, rec, &new_pid);
  if (result < 1) {
    rec->restart_failed = result == 0 ? 1 : 0;
    return;
  }
  __wex_adopt_pid(&wex_chains, rec, new_pid);
  const char* const name = wex_program_name(rec);
  printk_syslog_ext(5, "HA", action.done, 1, "Self-checking OK: %d times and new id %s/%d.\n",
                    rec->check_count, name, new_pid);
  wex_dbg(WEX_DBG_PUB, "%s Self-checking OK: %d times and new id %s/%d.\n", action.done, rec->check_count,
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
    const wex_action* const action = wex_find_action(rec->action);
    if (action == nullptr) {
      continue;
    }
    if (deadline < now) {
      end_wait(rec, now);
      restart_parked(rec, *action);
    } else if (next < deadline) {
      next = deadline;
    }
  }
  return next;
}

// Reaps one child that has ended. As waitpid() for any child without blocking.
pid_t reap_one() {
  // Looked at first: as a zombie it still tells when it started, which with its pid says who it was.
  siginfo_t next = {};
  const bool told = waitid(P_ALL, 0, &next, WEXITED | WNOHANG | WNOWAIT) == 0 && next.si_pid > 0;
  const uint64_t start_time = told ? wex_look_at(next.si_pid).start_time : 0;
  errno = 0;  // an older ECHILD would end the caller's loop with zombies left
  int status = 0;
  const pid_t child = waitpid(told ? next.si_pid : -1, &status, WNOHANG);
  if (child > 0) {
    wex_note_child_end(child, start_time, status);
  }
  return child;
}

}  // namespace

void wex_wake_reaper() {
  const int cause = errno;
  g_child_due.store(true);
  if (g_wake_exists.load()) {
    sem_post(&g_wake);
  }
  errno = cause;
}

spawn_guard::spawn_guard() noexcept {
  pthread_once(&g_spawn_once, create_spawn_mutex);
  pthread_mutex_lock(&g_spawn_mutex);
}

spawn_guard::~spawn_guard() {
  const int cause = errno;
  pthread_mutex_unlock(&g_spawn_mutex);
  errno = cause;
}

int wex_start_alarm_thread() {
  wex_wake_reaper();  // the rebuild may have started programs that it did not find
  const int error = pthread_create(&g_thread, nullptr, run_alarm_thread, nullptr);
  g_started = error == 0;
  return error;
}

void wex_stop_alarm_thread() {
  alarm(0);
  g_stop.store(true);
  sem_post(&g_wake);
  if (g_started) {
    pthread_join(g_thread, nullptr);
    g_started = false;
  }
}

extern "C" {

int wex_setup_signals(void) {
  sem_init(&g_wake, 0, 0);
  g_wake_exists.store(true);
  for (int signal = 0; signal <= kLastSignal; ++signal) {
    if (signal != SIGCHLD) {     // ignored for a moment only, it would cost the status of a child
      install(signal, SIG_IGN);  // through the library, which needs some signals for itself
    }
  }
  install(SIGINT, SIG_DFL);
  install(SIGALRM, wake_for_alarm);
  return install(SIGCHLD, wake_for_child);
}

void wex_chld_handler(int /*signal*/) {
  const int cause = errno;
  const spawn_guard not_while_spawning;
  pid_t child;
  do {
    child = reap_one();
  } while (child != 0 && errno != ECHILD);
  errno = cause;
}

void wex_alrm_handler(int /*signal*/) {
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

}  // extern "C"

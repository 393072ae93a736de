// wex_signals: what the daemon does with signals.
//
// The installed handlers note which signal came and post a semaphore for wex_alarm. They take no lock: the
// thread that a handler interrupts may hold it.
#include "wex_signals.h"

#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <cerrno>

#include "request_flag.h"

namespace {

constexpr int kLastSignal = 128;

sem_t g_wake;                            // made once, before any thread runs
std::atomic<bool> g_wake_exists{false};  // the rebuild may ask for the reaper before
request_flag g_alarm_due;
request_flag g_child_due;

extern "C" void wake_for_alarm(int /*signal*/) {
  const int cause = errno;
  g_alarm_due.raise();
  sem_post(&g_wake);
  errno = cause;
}

extern "C" void wake_for_child(int /*signal*/) {
  wex_wake_reaper();
}

int install(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  return sigaction(signal, &action, nullptr);
}

}  // namespace

void wex_wake_reaper() {
  const int cause = errno;
  if (g_child_due.raise() && g_wake_exists.load()) {
    sem_post(&g_wake);  // once for all children that end before the thread has looked
  }
  errno = cause;
}

void wex_wake_alarm_thread() {
  sem_post(&g_wake);
}

bool wex_await_signal() {
  return sem_wait(&g_wake) == 0;
}

bool wex_take_child_signal() {
  return g_child_due.take();
}

bool wex_take_alarm_signal() {
  return g_alarm_due.take();
}

extern "C" int wex_setup_signals(void) {
  sem_init(&g_wake, 0, 1);  // one look at first: the flag may have been raised before there was the semaphore
  g_wake_exists.store(true);
  for (int signal = 0; signal <= kLastSignal; ++signal) {
    if (signal != SIGCHLD) {     // ignored for a moment only, it would cost the status of a child
      install(signal, SIG_IGN);  // through sigaction(), which leaves the C library's own signals alone
    }
  }
  install(SIGINT, SIG_DFL);
  install(SIGALRM, wake_for_alarm);
  return install(SIGCHLD, wake_for_child);
}

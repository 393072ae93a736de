// wex_signals: dispositions, the reaper and the alarm.
//
// The installed handlers of SIGALRM and SIGCHLD only wake the thread wex_alarm, which does the work: no lock
// is ever taken in signal context.
#pragma once

#include <pthread.h>

extern "C" {

// Ignores everything but SIGINT (default), SIGALRM and SIGCHLD. The result of the last installation.
int wex_setup_signals(void);

// The alarm's work: restarts parked programs whose wait is over, arms the next alarm. Ordinary threads only.
void wex_alrm_handler(int signal);

// Reaps every child that has ended; waits for spawns in progress. Ordinary threads only.
void wex_chld_handler(int signal);
}

// Makes the alarm thread reap and handle the exits that were missed, also before it has been started.
void wex_wake_reaper();

// Starts the thread that does the handlers' work. 0, or an error number.
int wex_start_alarm_thread();

// Cancels the alarm and joins that thread.
void wex_stop_alarm_thread();

// Keeps the reaper away from fork until the new pid is in its record: a reaped pid may be reused. Recursive.
class spawn_guard {
 public:
  spawn_guard() noexcept;
  ~spawn_guard();
  spawn_guard(const spawn_guard&) = delete;
  spawn_guard& operator=(const spawn_guard&) = delete;
};

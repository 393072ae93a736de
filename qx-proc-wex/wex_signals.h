// wex_signals: what the daemon does with signals.
//
// The installed handlers of SIGALRM and SIGCHLD only wake the thread wex_alarm, which does the work: no lock
// is ever taken in signal context.
#pragma once

// Ignores everything but SIGINT (default), SIGALRM and SIGCHLD. The result of the last installation.
extern "C" int wex_setup_signals(void);

// Makes the alarm thread reap and handle the exits that were missed, also before it has been started.
void wex_wake_reaper();

// Makes the alarm thread look at its stop flag.
void wex_wake_alarm_thread();

// Waits until one of these functions or handlers wakes the alarm thread; false when a signal handler
// interrupted the wait. The other two say which signal came, once each. Alarm thread only.
bool wex_await_signal();
bool wex_take_child_signal();
bool wex_take_alarm_signal();

// wex_signals_alarm: the thread that does the work of SIGALRM and SIGCHLD.
#pragma once

// The alarm's work: restarts parked programs whose wait is over, arms the next alarm. Ordinary threads only.
extern "C" void wex_alrm_handler(int signal);

// Starts the thread that does the handlers' work. 0, or an error number.
int wex_start_alarm_thread();

// Cancels the alarm and joins that thread.
void wex_stop_alarm_thread();

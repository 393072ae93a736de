// wex_core_notify: the watchdog of registered threads.
#pragma once

#include "wex.h"

// The watchdog's thread; the argument is ignored.
extern "C" void* wex_notifer_run(void* unused);

// 0 when the registered thread is still the same living thread, else not 0.
extern "C" int wex_check_pid_exist(wex_pid* rec);

// One look of the watchdog at every registered thread: removes those that are gone, counts the silent ones,
// aborts the process of the first that is hung. To be called every 60 s.
void wex_scan_alive_chains();

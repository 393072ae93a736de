// wex_core_upkeep: the work of the delay thread.
#pragma once

#include <atomic>

// The delay thread; the argument is ignored.
extern "C" void* wex_delay_restart(void* unused);

// Looks for registered processes that vanished although no exit was seen and hands them to the exit handler.
// Delay thread only; others ask for it.
void wex_sweep_lost_exits();

// The delay thread has left its loop and touches nothing any more.
extern std::atomic<bool> wex_delay_ended;

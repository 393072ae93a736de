// wex_signals_reaper: takes the statuses of children that have ended.
#pragma once

#include <atomic>

// Reaps every child that has ended; waits for spawns in progress. Ordinary threads only.
extern "C" void wex_chld_handler(int signal);

// The same; how many there were.
int wex_reap_ended();

// As wex_chld_handler() a little later, and only while no program is being started, but for at most about a
// second's delay: a zombie tells the exit monitor with one call that its process has ended, while many end
// they are reaped together, and a restart need not wait for the guard. At once with `hurry`. wex_alarm only.
void wex_reap_at_leisure(const std::atomic<bool>& hurry);

// wex_signals_reaper: takes the statuses of children that have ended.
#pragma once

#include <atomic>
#include <cstdint>

// Reaps every child that has ended; waits for spawns in progress. Ordinary threads only.
extern "C" void wex_chld_handler(int signal);

// Reaps this one, whose start time is known. False when it is no child of ours, or not all of its threads
// have ended. With wex_chains held or not.
bool wex_reap(int32_t child, uint64_t start_time);

// As wex_chld_handler() a little later, and only while no program is being started, but for at most about a
// second's delay: what is registered is reaped by the exit monitor, the others may wait, and a restart need
// not wait for the guard. At once with `hurry`. wex_alarm only.
void wex_reap_at_leisure(const std::atomic<bool>& hurry);

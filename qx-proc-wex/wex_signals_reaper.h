// wex_signals_reaper: takes the statuses of children that have ended.
#pragma once

// Reaps every child that has ended; waits for spawns in progress. Ordinary threads only.
extern "C" void wex_chld_handler(int signal);

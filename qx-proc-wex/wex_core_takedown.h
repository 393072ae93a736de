// wex_core_takedown: what the daemon makes of a domain that is being taken down by the command line.
#pragma once

#include "wex_chain.h"

// Whether a domain is being taken down: no exit is followed by a restart then, wherever. Never waits. Any
// thread.
bool wex_take_down_under_way();

// Writes the take-downs that have begun or ended since the last call to the running log. Delay thread only:
// the others must not wait for a disk, and of two writers each could log a change that the other has logged.
void wex_log_take_downs();

// Sleeps `milliseconds`, less when the stop flag is raised, with wex_chains held by the caller. The delay
// thread, which waits for that chain meanwhile, cannot see a take-down begin and end: it is noted here.
void wex_wait_with_registry(int64_t milliseconds);

// Whether somebody does so. Any thread.
bool wex_registry_waits();

// For a record that is about to be restarted: when its domain is being taken down, the record and its
// database file are removed, and the result is true.
bool __wex_dropped_with_domain(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Removes the records, with their database files, of all programs that have no process and whose domain is
// being taken down. Once a pass of the delay thread.
void wex_drop_domains_taken_down();

// What comes before every exit is handled: while a domain is taken down, the record and the database file of
// `pid` go and nothing is to be restarted. True when that is so. `start_time` is that of the process that has
// ended, 0 when it is not known: a later process of the same pid keeps its record. Called with no chain held.
bool wex_drop_taken_down(int32_t pid, uint64_t start_time)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// wex_core_third_part: how children ended: those that were started for third-part programs and whose program
// was not found, and those whose exit may turn out to be lost.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "wex_core_spawn_guard.h"

// A start whose program was not found and whose child has ended.
struct missed_exit {
  uint32_t start;   // the record's `missed_start`
  uint32_t status;  // kernel wait status
  bool forked;      // false: there was no child, and the status is that of the exit before
};

// Remembers that `child` was started and no process of its program was found. Without a child (below 1: none
// could be forked) the start counts as ended at once, with `status`. The number of the start, never 0. Caller
// holds the spawn guard since before the fork.
uint32_t wex_remember_start(pid_t child, uint32_t status) WEX_TSA(requires_capability(wex_spawn_mutex));

// The reaper's: `child`, which started at `start_time` (clock ticks since boot, 0: unknown), has ended with
// this wait status. Caller holds the spawn guard.
void wex_note_child_end(pid_t child, uint64_t start_time, int status)
    WEX_TSA(requires_capability(wex_spawn_mutex));

// The wait status of a child that has ended, 0 when it is not known: not a child, or too long ago.
uint32_t wex_status_of_ended(pid_t child, uint64_t start_time);

// The number of the latest start, 0 when there was none.
uint32_t wex_last_start();

// Takes a start that has ended, no later one than `last`. False when there is none.
bool wex_take_ended_start(uint32_t last, missed_exit* missed);

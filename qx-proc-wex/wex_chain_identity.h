// wex_chain_identity: is the process that has a record's pid now the record's own?
//
// A pid alone says nothing: the kernel gives it to somebody else as soon as it is free. Start time and the
// time of the reported exit tell. Pure decisions here, apart from what reads the clocks.
#pragma once

#include <cstdint>

#include "wex_utils.h"

enum class exit_verdict {
  exited,    // nobody has the pid, or a stranger
  runs,      // the record's own process goes on: only a thread of it has ended
  ask_again  // cannot be told yet: its threads may still take over, or /proc could not be read
};

// What the exit that the kernel reported at `exit_tick` means for a record whose process started at
// `known_start`, given what stands in /proc now. Times are clock ticks since boot, 0 = unknown.
exit_verdict wex_judge_exit(const process_look& now, uint64_t known_start, uint64_t exit_tick);

// True when nobody has the pid that was looked at, or a process that is dead.
bool wex_surely_dead(const process_look& now);

enum class presence { present, absent, unknown };

// Whether the process that started at `known_start` (0: any) is still there. One that has begun to exit is,
// for dumping core may take it long, and so is one of which only the main thread has ended.
presence wex_judge_presence(const process_look& now, uint64_t known_start);

// The tick since boot of an event that the kernel stamped with `event_ns`; 0 when that cannot be told.
// `shift_ns` is what this process's monotonic clock is ahead of the kernel's (a time namespace),
// `boot_offset_ns` what its boot clock is ahead of its monotonic clock (time spent suspended).
uint64_t wex_event_tick(uint64_t event_ns, int64_t shift_ns, int64_t boot_offset_ns, long ticks_per_second);

// What is left of `least_delay_ns`, the shortest time that an event took from its stamp to its reader: the
// shift of a time namespace, or 0 when it is only that delay.
int64_t wex_clock_shift(int64_t least_delay_ns);

// How much the boot clock is ahead of the monotonic clock now.
int64_t wex_boot_offset_ns();

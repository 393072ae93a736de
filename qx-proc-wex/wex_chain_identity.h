// wex_chain_identity: is the process that has a record's pid now the record's own?
//
// A pid alone says nothing: the kernel gives it to somebody else as soon as it is free. Start time and the
// time of the reported exit tell. Pure decisions here, apart from what reads the clocks.
//
// Which question to ask about the life of a process, and what each answers for a process that is
//
//                       gone    zombie  zombie with  exiting,  another's,  not to be  looks
//                                       threads      not dead  pid reused  read
//   wex_pid_exists      no      yes     yes          yes       yes         yes        1 kill(pid, 0)
//   wex_looks_alive     no      no      no           yes       yes         no         1 at /proc
//   process_life        no      no      no           yes       yes         no         1 kill, 1 to 3 at /proc
//   wex_proc_lives      no      no      no           no        no (a)      no         1 at /proc
//   wex_record_lives    no      no      no           no        no          no         1 at /proc (b)
//   wex_surely_dead     yes     yes     no           no        no          no         none: judges one
//   wex_judge_presence  absent  absent  present      present   absent (a)  unknown    none: judges one
//   wex_judge_exit      exited  exited  ask again    (c)       exited (d)  ask again  none: judges one
//   wex_check_pid_exist a thread's record: as process_life, but no when thread group or command line differ
//
//   (a) yes, or present, when no start time is given
//   (b) no without a look when the record has no pid or start time
//   (c) exited, or ask again when it has other threads
//   (d) but runs, or as the columns before, when it started before the exit that the kernel reported, and the
//       record's start time is not known or an execution changes it (before Linux 3.17)
//
// All return at once but process_life and wex_check_pid_exist, which sleep 10 ms after each look that shows
// no living process: 30 ms for one that is dead, or cannot be read, and still has its pid. What is only to be
// known for certain (a second start, a drop) is asked of those that tell "not to be read" from "dead".
//
// Three more ask no process: wex_proc_is_running() and __wex_runs_elsewhere() look for another registration
// of the same program, wex_proc_is_exit() for the lock on its database file.
#pragma once

#include <cstdint>

#include "wex_utils.h"

enum class exit_verdict {
  exited,    // no process has the pid, or another one
  runs,      // the record's own process goes on: only a thread of it has ended
  ask_again  // cannot be told yet: its threads may still take over, or /proc could not be read
};

// What the exit that the kernel reported at `exit_tick` means for a record whose process started at
// `known_start`, given what stands in /proc now. Times are clock ticks since boot, 0 = unknown.
exit_verdict wex_judge_exit(const process_look& now, uint64_t known_start, uint64_t exit_tick);

// True when nobody has the pid that was looked at, or a process that is dead.
bool wex_surely_dead(const process_look& now);

// A record's process was seen alive at `seen_ns` (0: never), and a process was born with the same pid at
// `birth_ns`, both in nanoseconds of the monotonic clock. True when the two are not the same: nobody is seen
// before his birth. The times may differ a little, but a pid is not free and taken again that soon.
bool wex_is_anothers_birth(int64_t seen_ns, int64_t birth_ns);

enum class presence { present, absent, unknown };

// Whether the process that started at `known_start` (0: any) is still there. One that has begun to exit is,
// for dumping core may take it long, and so is one of which only the main thread has ended.
presence wex_judge_presence(const process_look& now, uint64_t known_start);

// The tick since boot of an event that the kernel stamped with `event_ns`; 0 when that cannot be told.
// `shift_ns` is what this process's monotonic clock is ahead of the kernel's (a time namespace),
// `boot_offset_ns` what its boot clock is ahead of its monotonic clock (time spent suspended).
uint64_t wex_event_tick(uint64_t event_ns, int64_t shift_ns, int64_t boot_offset_ns, long ticks_per_second);

// What this process's monotonic clock is ahead of the kernel's (a time namespace), in nanoseconds, when that
// is known to be from `least_ns` to `most_ns`: 0 where it may be 0, else the least, by which events seem
// early rather than late.
int64_t wex_clock_shift(int64_t least_ns, int64_t most_ns);

// When a process with this start time began, in milliseconds of the monotonic clock; 0 when it is not known,
// or was before that clock began.
int64_t wex_start_on_clock_ms(uint64_t start_time);

// True when a process with this start time began surely after the wall clock showed `written_ns`. A wall
// clock that was set ahead meanwhile makes all processes seem younger than files, so this alone proves
// nothing.
bool wex_started_after(uint64_t start_time, int64_t written_ns);

// True when the process began surely after the file was written.
bool wex_began_after_file(const process_look& process, const char* path);

// True when a process that runs `command` surely is not of the registration that names `registered`, as far
// as that can be told by command lines; a long one may have been cut when it was written to its file.
bool wex_is_other_command(const char* command, const char* registered);

// How much the boot clock is ahead of the monotonic clock now.
int64_t wex_boot_offset_ns();

// wex_core_restart: a record's program is started again, and the record follows its new process.
#pragma once

#include "wex_action.h"
#include "wex_chain.h"

// What differs between a restart after an exit, after a self-check wait, and at the start of the daemon.
struct restart_case {
  const char* module;      // the module that diagnostics name
  bool needs_process;      // a start without a process leaves the record its pid and file; else the file is
                           // removed and the pid is -1
  bool may_postpone_next;  // the next exit is postponed again, though this one was forced
  bool logs_exit;  // the system log has a line of its own after exit code 0, and diagnostics name the exit
};
inline constexpr restart_case kAfterExit = {"wex_core", true, true, true};
inline constexpr restart_case kAfterWait = {"wex_signals", true, false, false};
inline constexpr restart_case kAtStart = {"wex_chain", false, false, false};

// Starts the record's program, or its script, and either has the record adopt the new pid or marks its
// restart as failed. Neither happens where a process is needed and the spawner gave -1: then the record was
// parked, or the daemon ends. The result of the spawner.
int32_t __wex_start_again(wex_chains_t* chain, wex_pid* rec, const wex_action& action,
                          const restart_case& after) WEX_TSA(requires_capability(chain, wex_chains));

// The record's process has ended, and its program runs as the process `found`. When that one cannot be
// registered yet (__wex_pid_is_kept), true: the record, with its database file if it has one, becomes a lost
// one, so that the sweep has its exit handled again soon. Its pid is left to whoever has registered with it,
// or does. A newcomer of the program takes its place meanwhile.
bool __wex_await_hand_over(wex_pid* rec, int32_t found) WEX_TSA(requires_capability(wex_chains));

struct awaited_exit {
  int32_t pid;
  uint32_t code;
  uint64_t tick;    // since the boot
  int64_t time_ns;  // of the monotonic clock
};

// The kernel has reported this exit. True when it is that of a process to which a record waits to be handed
// over, and nobody else's: that of the one which had the pid before may still be to come. Unless the process
// goes on, the record knows the exit code from now on, and is handled soon.
bool __wex_take_awaited_exit(const awaited_exit& exit, bool another_is_to_come)
    WEX_TSA(requires_capability(wex_chains));

// The process that the record waits for, if it does, has ended. Only an exit that happened until that time of
// the monotonic clock tells the cause.
void __wex_note_awaited_gone(wex_pid* rec, int64_t ended_by_ns) WEX_TSA(requires_capability(wex_chains));

// A process was born with this pid at this time of the monotonic clock, in nanoseconds. That which a record
// waits for, and which had the pid before, had ended by then, of an unknown cause.
void __wex_note_awaited_birth(int32_t pid, int64_t time_ns) WEX_TSA(requires_capability(wex_chains));

// Tells the system log of a restart that found its process, and the diagnostics, in the name of the caller's
// module and line.
void wex_log_restarted(wex_pid* rec, const wex_action& action, const restart_case& after, int line);

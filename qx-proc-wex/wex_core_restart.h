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

// The record's process has ended, and its program runs as a process that cannot be registered yet
// (__wex_pid_is_kept): the record, with its database file, becomes a lost one, so that the sweep has its exit
// handled again soon. A newcomer of the program takes its place meanwhile. False, and nothing is done, when
// the record has no number by which the sweep could find it.
bool __wex_await_hand_over(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Tells the system log of a restart that found its process, and the diagnostics, in the name of the caller's
// module and line.
void wex_log_restarted(wex_pid* rec, const wex_action& action, const restart_case& after, int line);

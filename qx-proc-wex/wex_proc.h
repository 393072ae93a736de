// wex_proc: starting and restarting the program, or the restart script, of a record.
#pragma once

#include "wex.h"
#include "wex_action.h"
#include "wex_lock_order.h"

extern "C" {

// Starts the record's program (RESPAWN) or its restart script (SHELL_RESTART) in place of the process
// rec->pid. The new pid (> 0); 0 when a third-part program was started but its process was not found; -1
// when the record was parked for its self-check. *out_pid is the new pid, or -1. Repeats a failed fork every
// 5 s.
int32_t wex_spawn(wex_pid* rec, int32_t* out_pid) WEX_TSA(requires_capability(wex_chains));
int32_t wex_shell_spawn(wex_pid* rec, int32_t* out_pid) WEX_TSA(requires_capability(wex_chains));

// Looks for a process whose command line is `command`, up to tries + 1 times with growing pauses. 1 and its
// pid, else 0 or negative. Trims trailing blanks of `command`.
int wex_proc_to_pid(char* command, int32_t* out_pid, int tries);

// 1 when a line of `list_path` contains `command` (its last word goes to `word`), else 0.
int wex_proc_in_wexdb2(const char* list_path, const char* command, char* word, size_t size);

// Scheduling of the calling thread: SCHED_FIFO at `priority`, or normal time-sharing. 0, or -1.
int wex_set_priority(int priority);
int wex_reset_priority(void);
}

// wex_spawn(), or wex_shell_spawn().
int32_t wex_spawn_as(const wex_action& action, wex_pid* rec, int32_t* out_pid)
    WEX_TSA(requires_capability(wex_chains));

// True when a program that goes to, or comes out of, a self-check wait at `now` has done so too soon after
// the last time: the device is to be restarted.
bool wex_reboot_is_due(const wex_pid* rec, int32_t now);

// Restarts the device because the record's program cannot be kept running.
void wex_reboot_for(const wex_pid* rec);

// Looks through /proc, past processes that end meanwhile: true and the pid of a process whose
// command line is `command`, or false; in strict mode only of one that runs as the user of `rec`, or of
// `child`, which was started for the record, and may have given up its rights. Trims trailing blanks of
// `command`.
bool wex_find_running(char* command, int32_t* out_pid, const wex_pid* rec, int32_t child = 0);

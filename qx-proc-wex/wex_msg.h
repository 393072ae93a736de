// wex_msg: the daemon's handlers of control messages.
#pragma once

#include "wex.h"

extern "C" {

// Types 1 and 2: a new record in wex_chains; a second registration of a pid changes nothing. 0, or -1 when
// the process's command line cannot be read.
int wex_process_restart(const wex_reg_info* body);
int wex_process_shell_restart(const wex_reg_info* body, const char* script);

// Types 3 and 4: a record in wex_alive_chains; only a reset renews an existing one. 0, or -1.
int wex_notifier_start(const wex_reg_info* body);
int wex_notifier_reset(const wex_reg_info* body);

// Type 5: drops what the cancellation names. 0.
int wex_process_cons_msg(const wex_cons_info* body);
}

// Registers a third-part program in process, as if it had sent the message itself: database file, flag file
// and record. `type` is a keyword of reg_third_part_process_exit_action. 0, or -1.
//
// `memory` is a record that has left its chain: it becomes the new one, or is freed. Null: memory is waited
// for, which whoever holds wex_chains must not do.
int wex_register_third_part(int32_t pid, const char* type, wex_pid* memory);

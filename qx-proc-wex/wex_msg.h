// wex_msg: the daemon's handlers of control messages.
#pragma once

#include <sys/types.h>

#include "wex.h"
#include "wex_action.h"
#include "wex_chain_user.h"
#include "wex_lock_order.h"

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

// The same when `speaker` says it. Root may say it of everybody; so may everybody without strict mode, in
// which nobody else speaks. A user may say it of his own processes and threads, and only that many are
// registered for him. -1 also when it is refused: nothing is changed then. A user's process is his when its
// real user is him; a registration is his when its process was.
int wex_register_process_by(uid_t speaker, const wex_reg_info& body, const wex_action& action,
                            const char* script);
int wex_register_thread_by(uid_t speaker, const wex_reg_info& body, bool renews);
int wex_cancel_by(uid_t speaker, const wex_cons_info& body);

// Registers a third-part program in process, as if it had sent the message itself: database file, flag file
// and record. `type` is a keyword of reg_third_part_process_exit_action. 0, or -1.
//
// `memory` is a record that has left its chain: it becomes the new one, or is freed. Null: memory is waited
// for, which whoever holds wex_chains must not do.
int wex_register_third_part(int32_t pid, const char* type, wex_pid* memory);

// The same for a process that was found in the list after the look `before`. In strict mode -1 also when its
// user is another one by now: it has executed a set-user-id program meanwhile, or given up its rights.
int wex_register_listed(int32_t pid, const char* type, wex_pid* memory, const process_user& before);

// A listed program gets no record, and no file, as long as its pid is that of another
// registration which waits for its restart: 0, and true here until it is forgotten. It is to be tried again.
bool wex_listed_left_out();
void wex_forget_listed_left_out();

// Whether a registration of another process keeps this pid, which a process with the command line of the
// registration `of` has by now, so that it cannot be registered. In strict mode some leave it to a newcomer.
// `*start_time` is that of the process.
bool __wex_pid_is_kept(int32_t pid, const wex_pid* of, uint64_t* start_time)
    WEX_TSA(requires_capability(wex_chains));

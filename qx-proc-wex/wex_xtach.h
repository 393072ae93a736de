// wex_xtach: what the registration calls of a client and the daemon's own registrations have in common.
#pragma once

#include "wex.h"

// The first step of reg_process_exit_action: fills pid, domain and command line of a registration, all else
// zero, and prints that. False, printed as well, when the command line cannot be read; pid and domain are set
// all the same.
bool wex_begin_registration(int32_t pid, uint32_t type, wex_reg_info* body);

// Has `make` (wex_mk_pidfile or wex_mk_pidfile_held) make the database file of a described registration, and
// prints when it could not.
void wex_make_database_file(const wex_reg_info& body, uint32_t type,
                            int (*make)(const wex_reg_info* body, uint32_t kind));

// Message type named by an action keyword (a prefix is enough), 0 for another text.
uint32_t wex_action_type(const char* action);

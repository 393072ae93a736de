// wex_xtach: what the registration calls of a client and the daemon's own registrations have in common.
#pragma once

#include "wex.h"

// Domain of a process for a registration: 0 when it belongs to none or cannot be read.
int32_t wex_domain_of(int32_t pid);

// Fills pid, domain and command line of a registration, all else zero. False when the command line cannot be
// read; pid and domain are set all the same.
bool wex_describe_process(int32_t pid, wex_reg_info* body);

// Message type named by an action keyword (a prefix is enough), 0 for another text.
uint32_t wex_action_type(const char* action);

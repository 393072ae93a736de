// wex_core_quota: how many registrations a user may have, and with which pause (strict mode).
#pragma once

#include "wex_chain.h"

// Whether the chain may take this record, of which rec->user is set: root's always, a user's while he has
// fewer than he may have. Without strict mode true.
bool __wex_has_room(const wex_chains_t* chain, const wex_pid* rec) WEX_TSA(requires_capability(chain));

// Notes that the user had no room for this record.
void wex_refuse_registration(const wex_pid* rec);

// The pause before a restart that this record, of which rec->user is set, gets of what its program wants.
int32_t wex_allowed_delay(const wex_pid* rec, int32_t wanted);

// wex_chain_names: which registrations may be of one program, found without a walk through all records.
//
// At each exit, and for each newcomer, the registry is asked whether the program is registered twice. Hardly
// ever it is, so the answer must not cost a look at every record.
#pragma once

#include "wex_lock_order.h"

// Enters a record of wex_chains that is being added, and takes one out. Its command line must not change in
// between, but for blanks at its end.
void __wex_enter_name(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));
void __wex_remove_name(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// After a change of the command line of a record that may be entered.
void __wex_change_name(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Forgets all that are entered.
void __wex_clear_names() WEX_TSA(requires_capability(wex_chains));

// False when no record but `except` (null: none) has this command line. True says only that there may be one.
bool __wex_name_may_be_taken(const char* command, const wex_pid* except)
    WEX_TSA(requires_capability(wex_chains));

// wex_core_claim: the daemon's names, whatever lies there when it starts.
#pragma once

// Takes the lock of the one daemon, whatever lies at its name or at its directory's. The descriptor, or -1
// when the start is refused, which is printed and written to the running log; `after_command` only when it is
// not another wex that runs. Before any thread does.
int wex_claim_lock(bool after_command);

// Takes away what lies at `path`, a constant: what is empty is removed, anything else renamed within its
// directory. wex_tell_moved() writes a running-log line for each. Start, then the server thread.
bool wex_make_room(const char* path);
void wex_tell_moved();

// The same for what is no file at the name of the alive table.
void wex_clear_table_name();

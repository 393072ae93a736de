// wex_core_claim: takes the lock file and the other names that the daemon needs at its start, and makes room
// where something else has one of them.
#pragma once

// Takes the lock of the one daemon, whatever lies at its name or at its directory's. The descriptor, or -1
// when the start is refused, which is printed and written to the running log; `after_command` only when it is
// not another wex that runs. Before any thread does.
int wex_claim_lock(bool after_command);

// Takes away what lies at `path`, a constant: what is empty is removed, anything else renamed within its
// directory. wex_log_moved_names() writes a running-log line for each. Called by the main thread at the
// start, then by the server thread only.
bool wex_make_room(const char* path);
void wex_log_moved_names();

// Does so with what lies at the name of the alive table and is not a regular file.
void wex_clear_table_name();

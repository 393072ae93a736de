// wex_core_clients: which user each connection of the control socket belongs to, and how many he may have
// (strict mode).
//
// The control server's thread alone; `slot` is the number of a connection in its table. Without strict mode
// nothing here makes a system call, and everybody counts as root.
#pragma once

#include <sys/types.h>

#include <cstddef>

// A new connection. False when it is to be closed: its user has as many as he may have, which is noted.
bool wex_admit_client(size_t slot, int sd);

// The connection was closed.
void wex_client_left(size_t slot);

// The user who speaks through the connection.
uid_t wex_speaker(size_t slot);

// What is to be done about a connection for which the table has no room.
enum class full_table { end, turn_away, drop };

// The slot that is to be dropped for it goes to `slot`. Users make room for root, who ends the daemon only
// when all connections are his.
full_table wex_make_room_for_client(int sd, size_t* slot);

// wex_core_clients: which user each connection of the control socket belongs to.
//
// The kernel tells who made the connection, not who uses it: a service that gives its rights up afterwards
// goes on as who it was, as it would with any file that it has opened.
#define WEX_MODULE "wex_core"
#include "wex_core_clients.h"

#include <sys/socket.h>

#include "wex_core_refusal.h"
#include "wex_limits.h"
#include "wex_strict.h"

namespace {

constexpr uid_t kRoot = 0;
constexpr uid_t kNobody = static_cast<uid_t>(-1);  // no process has this id

// The user of each connection plus one; 0 for a slot that is free.
uint32_t g_users[kMaxClients];

// One whose user the kernel does not tell may speak for nobody.
uid_t user_behind(int sd) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  return getsockopt(sd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : kNobody;
}

uid_t user_in(size_t slot) {
  return g_users[slot] - 1;
}

bool is_users(size_t slot) {
  return g_users[slot] != 0 && user_in(slot) != kRoot;
}

int32_t connections_of(uid_t user) {
  int32_t count = 0;
  for (size_t slot = 0; slot < kMaxClients; ++slot) {
    count += g_users[slot] != 0 && user_in(slot) == user ? 1 : 0;
  }
  return count;
}

}  // namespace

bool wex_admit_client(size_t slot, int sd) {
  const strict_settings& strict = wex_strict();
  if (!strict.on) {
    return true;
  }
  const uid_t user = user_behind(sd);
  if (user != kRoot && (user == kNobody || connections_of(user) >= strict.connections)) {
    wex_refuse(user, refusal::too_many_connections);
    return false;
  }
  g_users[slot] = user + 1;
  return true;
}

void wex_client_left(size_t slot) {
  if (wex_strict().on) {
    g_users[slot] = 0;
  }
}

uid_t wex_speaker(size_t slot) {
  return wex_strict().on ? user_in(slot) : kRoot;
}

full_table wex_make_room_for_client(int sd, size_t* slot) {
  if (!wex_strict().on) {
    return full_table::end;
  }
  const uid_t newcomer = user_behind(sd);
  if (newcomer != kRoot) {
    wex_refuse(newcomer, refusal::too_many_connections);
    return full_table::turn_away;
  }
  for (size_t at = kMaxClients; at > 0; --at) {
    if (is_users(at - 1)) {
      wex_refuse(user_in(at - 1), refusal::too_many_connections);
      *slot = at - 1;
      return full_table::drop;
    }
  }
  return full_table::end;
}

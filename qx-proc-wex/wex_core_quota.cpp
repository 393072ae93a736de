// wex_core_quota: how many registrations a user may have, and with which pause.
//
// They are counted when one more is wanted: that is seldom, and a number of its own for each user would have
// to be right wherever a record comes and goes.
#include "wex_core_quota.h"

#include <algorithm>

#include "wex_chain_user.h"
#include "wex_core_refusal.h"
#include "wex_strict.h"

bool __wex_has_room(const wex_chains_t* chain, const wex_pid* rec) {
  uid_t uid = 0;
  if (!wex_strict().on || (wex_uid_of(rec, &uid) && uid == 0)) {
    return true;
  }
  int32_t count = 0;
  record_walk walk(*chain);
  while (const wex_pid* const other = walk.next()) {
    count += wex_same_user(other, rec) ? 1 : 0;
  }
  return count < wex_strict().registrations;
}

void wex_refuse_registration(const wex_pid* rec) {
  uid_t uid = 0;
  if (wex_uid_of(rec, &uid)) {
    wex_refuse(uid, refusal::too_many_registrations);
  }
}

int32_t wex_allowed_delay(const wex_pid* rec, int32_t wanted) {
  return wex_is_users(rec) ? std::min(wanted, wex_strict().restart_delay) : wanted;
}

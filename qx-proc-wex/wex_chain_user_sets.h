// wex_chain_user_sets: the different sets of ids that registered processes have (strict mode).
//
// The same ones come again and again, so a record holds the number of a set. A set stays while a record in a
// chain has its number; any other makes room when that is needed, the one that was asked for least recently
// first. A number that has lost its set is never given to another one in the time that a record may live
// outside of a chain: it then is of an unknown user.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "wex.h"
#include "wex_limits.h"

struct wex_user {
  uid_t uid;
  gid_t gid;
  int32_t group_count;           // kTooManyGroups when there are more than can be kept
  gid_t groups[kUserGroupsMax];  // supplementary groups
};

inline constexpr int32_t kTooManyGroups = kUserGroupsMax + 1;
inline constexpr int32_t kUnknownUser = 0;

// The number of this set. kUnknownUser when it has too many groups, or no room is left: neither for its user,
// who has so many at most, nor, unless that is root, for all users together.
int32_t wex_number_user(const wex_user& user);

// The set of a record's number, or null for kUnknownUser. Of a record of a chain, while the chain is held, or
// of one that no other thread can push out.
const wex_user* wex_user_of(const wex_pid* rec);

// The user alone, of any record. False for kUnknownUser. Any thread.
bool wex_uid_of(const wex_pid* rec, uid_t* uid);

// A record with this set has come into a chain, or leaves it.
void wex_hold_user(const wex_pid* rec);
void wex_release_user(const wex_pid* rec);

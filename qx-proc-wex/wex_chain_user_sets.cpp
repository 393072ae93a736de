// wex_chain_user_sets: the different sets of ids that registered processes have.
//
// g_mutex guards the sets. The memory of one is never given back, only used for another one.
#include "wex_chain_user_sets.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "mutex_lock.h"
#include "priority_mutex.h"

namespace {

constexpr int32_t kLastGeneration = INT32_MAX / kUserSets - 1;

struct kept_set {
  int32_t generation;  // its number is generation * kUserSets + place + 1
  int32_t records;     // that have it, in chains
  uint64_t asked_for;  // when it was last, counted in such questions
  wex_user user;
};

priority_mutex g_mutex;
kept_set* g_sets[kUserSets] WEX_TSA(guarded_by(g_mutex));
int32_t g_set_count WEX_TSA(guarded_by(g_mutex)) = 0;
uint64_t g_questions WEX_TSA(guarded_by(g_mutex)) = 0;

bool is_same(const wex_user& one, const wex_user& other) {
  const size_t size =
      offsetof(wex_user, groups) + static_cast<size_t>(one.group_count) * sizeof one.groups[0];
  return one.group_count == other.group_count && memcmp(&one, &other, size) == 0;
}

int32_t number_at(int32_t place) WEX_TSA(requires_capability(g_mutex)) {
  return g_sets[place]->generation * kUserSets + place + 1;
}

// The place of this set, or -1.
int32_t find_same(const wex_user& user) WEX_TSA(requires_capability(g_mutex)) {
  int32_t place = g_set_count - 1;
  while (place >= 0 && !is_same(user, g_sets[place]->user)) {
    --place;
  }
  return place;
}

// The set of this number, or null.
kept_set* find(int32_t number) WEX_TSA(requires_capability(g_mutex)) {
  const int32_t place = (number - 1) % kUserSets;
  return number > 0 && place < g_set_count && number_at(place) == number ? g_sets[place] : nullptr;
}

// Whether one more set of this user may be kept. Each has his share, and root's is left over by all others.
bool may_have_one_more(uid_t uid) WEX_TSA(requires_capability(g_mutex)) {
  int32_t his = 0;
  int32_t users = 0;
  for (int32_t place = 0; place < g_set_count; ++place) {
    const kept_set& one = *g_sets[place];
    his += one.records > 0 && one.user.uid == uid ? 1 : 0;
    users += one.records > 0 && one.user.uid != 0 ? 1 : 0;
  }
  return uid == 0 || (his < kSetsOfUser && users < kUserSets - kSetsOfUser);
}

// The set that no record has and that was asked for least recently. Its place, or -1.
int32_t find_unused() WEX_TSA(requires_capability(g_mutex)) {
  int32_t found = -1;
  for (int32_t place = 0; place < g_set_count; ++place) {
    const kept_set& one = *g_sets[place];
    if (one.records == 0 && (found < 0 || one.asked_for < g_sets[found]->asked_for)) {
      found = place;
    }
  }
  return found;
}

// A place for one more set, or -1.
int32_t make_place() WEX_TSA(requires_capability(g_mutex)) {
  if (g_set_count < kUserSets) {
    g_sets[g_set_count] = static_cast<kept_set*>(calloc(1, sizeof(kept_set)));
    return g_sets[g_set_count] != nullptr ? g_set_count++ : find_unused();
  }
  const int32_t place = find_unused();
  if (place >= 0) {
    kept_set& one = *g_sets[place];
    one.generation = one.generation < kLastGeneration ? one.generation + 1 : 0;
  }
  return place;
}

}  // namespace

int32_t wex_number_user(const wex_user& user) {
  const mutex_lock hold(g_mutex);
  ++g_questions;
  int32_t place = find_same(user);
  const bool in_use = place >= 0 && g_sets[place]->records > 0;
  if (user.group_count > kUserGroupsMax || (!in_use && !may_have_one_more(user.uid))) {
    return kUnknownUser;
  }
  if (place < 0 && (place = make_place()) < 0) {
    return kUnknownUser;
  }
  g_sets[place]->user = user;
  g_sets[place]->asked_for = g_questions;
  return number_at(place);
}

const wex_user* wex_user_of(const wex_pid* rec) {
  if (rec->user == kUnknownUser) {
    return nullptr;
  }
  const mutex_lock hold(g_mutex);
  const kept_set* const one = find(rec->user);
  return one != nullptr ? &one->user : nullptr;
}

bool wex_uid_of(const wex_pid* rec, uid_t* uid) {
  if (rec->user == kUnknownUser) {
    return false;
  }
  const mutex_lock hold(g_mutex);
  const kept_set* const one = find(rec->user);
  if (one != nullptr) {
    *uid = one->user.uid;
  }
  return one != nullptr;
}

void wex_hold_user(const wex_pid* rec) {
  if (rec->user == kUnknownUser) {
    return;
  }
  const mutex_lock hold(g_mutex);
  if (kept_set* const one = find(rec->user)) {
    ++one->records;
  }
}

void wex_release_user(const wex_pid* rec) {
  if (rec->user == kUnknownUser) {
    return;
  }
  const mutex_lock hold(g_mutex);
  if (kept_set* const one = find(rec->user)) {
    --one->records;
  }
}

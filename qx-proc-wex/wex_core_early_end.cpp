// wex_core_early_end: how processes ended whose registration was still under way.
//
// The end may be noted after the registration has failed, because the kernel takes a process's command line
// away before it reports the end. The database file of such a process is found a minute later at most, so the
// last few newcomers are remembered.
#include "wex_core_early_end.h"

#include <algorithm>
#include <iterator>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "wex_chain_user.h"
#include "wex_clock.h"
#include "wex_core_filter.h"
#include "wex_limits.h"
#include "wex_utils.h"

namespace {

constexpr uid_t kRoot = 0;
constexpr int kNowhere = -1;

struct newcomer {
  int32_t pid;  // 0 = none
  uint32_t exit_code;
  bool ended;           // and its end was reported
  uid_t speaker;        // who registers it
  uint64_t start_time;  // 0 without strict mode
  uint64_t number;      // the greater, the later
  int32_t since;
};

priority_mutex g_mutex;
newcomer g_newcomers[kNewcomers] WEX_TSA(guarded_by(g_mutex)) = {};
uint64_t g_number WEX_TSA(guarded_by(g_mutex)) = 0;  // of the last one

// The last newcomer of this pid; in strict mode that which started then, unless one of the times is not
// known, and which this user may have named, unless he is null.
newcomer* find_newcomer(int32_t pid, uint64_t start_time, const uid_t* user = nullptr)
    WEX_TSA(requires_capability(g_mutex)) {
  newcomer* last = nullptr;
  for (newcomer& entry : g_newcomers) {
    const bool then = start_time == 0 || entry.start_time == 0 || entry.start_time == start_time;
    const bool his = user == nullptr || entry.speaker == kRoot || entry.speaker == *user;
    if (entry.pid == pid && then && his && (last == nullptr || entry.number > last->number)) {
      last = &entry;
    }
  }
  return last;
}

// The newcomer that has been there longest, of those that are meant; null when there is none.
template <typename Meant>
newcomer* find_oldest(const Meant& meant) WEX_TSA(requires_capability(g_mutex)) {
  newcomer* oldest = nullptr;
  for (newcomer& entry : g_newcomers) {
    if (entry.pid != 0 && meant(entry) && (oldest == nullptr || entry.number < oldest->number)) {
      oldest = &entry;
    }
  }
  return oldest;
}

int count_of(uid_t speaker) WEX_TSA(requires_capability(g_mutex)) {
  return static_cast<int>(
      std::count_if(std::begin(g_newcomers), std::end(g_newcomers),
                    [speaker](const newcomer& entry) { return entry.pid != 0 && entry.speaker == speaker; }));
}

// The user who has most newcomers, when they are at least two more than this one has; else this one.
uid_t find_greedy(uid_t speaker) WEX_TSA(requires_capability(g_mutex)) {
  uid_t greedy = speaker;
  int most = count_of(speaker) + 1;
  for (const newcomer& entry : g_newcomers) {
    const int his = entry.pid != 0 && entry.speaker != kRoot ? count_of(entry.speaker) : 0;
    if (his > most) {
      greedy = entry.speaker;
      most = his;
    }
  }
  return greedy;
}

// What a user must give up for one more: one of root's that nobody asks for any more, one of his own, or of a
// user who has more. Null when there is none: root's never make room for a user's.
newcomer* make_room_for_user(uid_t speaker) WEX_TSA(requires_capability(g_mutex)) {
  const int32_t now = wex_clock_now();
  newcomer* const over =
      find_oldest([now](const newcomer& entry) { return int64_t{now} - entry.since > kNewcomerKeepSec; });
  if (over != nullptr) {
    return over;
  }
  const uid_t whose = find_greedy(speaker);
  return find_oldest([whose](const newcomer& entry) { return entry.speaker == whose; });
}

// Of root's, users' make room first.
newcomer* find_room(uid_t speaker) WEX_TSA(requires_capability(g_mutex)) {
  if (newcomer* const unused = find_newcomer(0, 0)) {
    return unused;
  }
  if (speaker != kRoot) {
    return make_room_for_user(speaker);
  }
  newcomer* const users = find_oldest([](const newcomer& entry) { return entry.speaker != kRoot; });
  return users != nullptr ? users : find_oldest([](const newcomer&) { return true; });
}

// The number of the place that the newcomer has from now on, or kNowhere.
int take_place(int32_t pid, uid_t speaker, uint64_t start_time) {
  const mutex_lock hold(g_mutex);
  newcomer* const known = find_newcomer(pid, start_time);
  if (known != nullptr && known->start_time != 0) {
    known->speaker = std::min(known->speaker, speaker);  // once root has named it, it is root's
    known->since = wex_clock_now();
    return static_cast<int>(known - g_newcomers);
  }
  newcomer* const entry = known != nullptr ? known : find_room(speaker);
  if (entry == nullptr) {
    return kNowhere;
  }
  *entry = {pid, 0, false, speaker, start_time, ++g_number, wex_clock_now()};
  return static_cast<int>(entry - g_newcomers);
}

}  // namespace

void wex_expect_newcomer(int32_t pid, uid_t speaker) {
  if (pid < 1 || !wex_pid_exists(pid)) {
    return;  // its end has been reported, or never will be
  }
  const int place = take_place(pid, speaker, wex_strict_start_of(pid));
  if (place != kNowhere) {
    wex_pass_exits_of_newcomer(pid, place);
  }
}

void __wex_note_early_end(int32_t pid, uint32_t exit_code, uint64_t exit_tick) {
  const mutex_lock hold(g_mutex);
  for (newcomer& entry : g_newcomers) {
    // Whoever gets the pid after its end is another process, which strict mode keeps apart, also when it is
    // expected before that end is reported.
    const bool later = exit_tick != 0 && entry.start_time > exit_tick + kStartTickSlack;
    if (entry.pid == pid && !later && (!entry.ended || entry.start_time == 0)) {
      entry.exit_code = exit_code;
      entry.ended = true;
    }
  }
}

void wex_forget_newcomer(int32_t pid, uint64_t start_time, uid_t speaker) {
  const mutex_lock hold(g_mutex);
  newcomer* const entry = find_newcomer(pid, start_time);
  if (entry != nullptr && start_time != 0 && entry->speaker == speaker) {
    *entry = {};
  }
}

uint32_t __wex_take_early_end(int32_t pid, uint64_t start_time, uid_t user) {
  const mutex_lock hold(g_mutex);
  newcomer* const entry = find_newcomer(pid, start_time, &user);
  if (entry == nullptr) {
    return 0;
  }
  const uint32_t exit_code = entry->exit_code;
  *entry = {};
  return exit_code;
}

// wex_core_third_part: how children ended, where the kernel's event does not tell it.
//
// After a restart a third-part program is looked for by its command line, for 5.5 s at the most. When it is
// not found the record keeps the pid of a dead process. The exit of the child that was started would then be
// that of an unregistered process, and the program would stay down for ever. So the child is remembered until
// the reaper has its status, and its end counts as one more exit of the record.
//
// Any other child is remembered when it has ended: when its exit event was lost, the status that the reaper
// got takes the event's place. The two have tables of their own, because many short-lived children must not
// push out a program that is still to be restarted.
//
// wex_spawn_mutex guards both tables: a child is remembered before it can be reaped.
#define WEX_MODULE "wex_core"
#include "wex_core_third_part.h"

#include "wex_core_spawn_guard.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_signals.h"

namespace {

struct start {
  uint32_t number;  // 0: unused
  pid_t child;
  uint32_t status;
  bool ended;
};

start g_starts[kStartsKept] WEX_TSA(guarded_by(wex_spawn_mutex));
uint32_t g_last_number WEX_TSA(guarded_by(wex_spawn_mutex)) = 0;

// A ring as well: a lost exit is found within a minute or two.
struct end {
  uint64_t start_time;
  pid_t child;
  uint32_t status;
};
end g_ends[kEndsKept] WEX_TSA(guarded_by(wex_spawn_mutex));
unsigned g_ends_noted WEX_TSA(guarded_by(wex_spawn_mutex)) = 0;

bool is_older(const start& one, const start& other) WEX_TSA(requires_capability(wex_spawn_mutex)) {
  // Differences, because the numbers begin again at 0 after 2^32 starts.
  return g_last_number - one.number > g_last_number - other.number;
}

// An unused entry. When there is none, because so many children live on without having been found, the oldest
// entry is taken, and its program stays down.
start* take_entry() WEX_TSA(requires_capability(wex_spawn_mutex)) {
  start* oldest = &g_starts[0];
  for (start& one : g_starts) {
    if (one.number == 0) {
      return &one;
    }
    if (is_older(one, *oldest)) {
      oldest = &one;
    }
  }
  wex_dbg(WEX_DBG_PUB, "%s: no room, child %d is forgotten\n", "wex_remember_start",
          static_cast<int>(oldest->child));
  return oldest;
}

}  // namespace

uint32_t wex_remember_start(pid_t child, uint32_t status) {
  if (++g_last_number == 0) {
    ++g_last_number;
  }
  const bool ended = child < 1;
  *take_entry() = {g_last_number, child, status, ended};
  if (ended) {
    wex_wake_reaper();
  }
  return g_last_number;
}

void wex_note_child_end(pid_t child, uint64_t start_time, int status) {
  for (start& one : g_starts) {
    if (one.number != 0 && !one.ended && one.child == child) {
      one.status = static_cast<uint32_t>(status);
      one.ended = true;
    }
  }
  g_ends[g_ends_noted++ % kEndsKept] = {start_time, child, static_cast<uint32_t>(status)};
}

uint32_t wex_status_of_ended(pid_t child, uint64_t start_time) {
  const spawn_guard guard;
  for (const end& one : g_ends) {
    if (start_time != 0 && one.start_time == start_time && one.child == child) {
      return one.status;
    }
  }
  return 0;
}

uint32_t wex_last_start() {
  const spawn_guard guard;
  return g_last_number;
}

bool wex_take_ended_start(uint32_t last, missed_exit* missed) {
  const spawn_guard guard;
  for (start& one : g_starts) {
    if (one.number != 0 && one.ended && last - one.number <= UINT32_MAX / 2) {
      *missed = {one.number, one.status, one.child > 0};
      one = {};
      return true;
    }
  }
  return false;
}

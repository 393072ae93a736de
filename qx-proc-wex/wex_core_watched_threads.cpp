// wex_core_watched_threads: what the status table gets by looking every few seconds: how many threads of each
// registered process are watched, the fewest misses that one of them has left, and registrations that found
// no slot.
//
// Not done by the watchdog, which must not wait for the registry: an exit may keep that for a long time.
#include "wex_core_watched_threads.h"

#include <algorithm>

#include "chain_lock.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_core_delay.h"
#include "wex_limits.h"
#include "wex_status_image.h"
#include "wex_utils_settings.h"

namespace {

// By slot; delay thread only.
struct watched {
  int32_t threads;
  int32_t fewest_misses;
};
constexpr int32_t kNobodyWaits = 0;  // in place of the self-check wait: no registration gets a slot now
watched g_watched[WEX_STATUS_SLOTS + 1];
int32_t g_counted_end =
    0;  // behind the last entry that is not zero: memory that is never written costs nothing

void count_thread(const wex_pid* thread) WEX_TSA(requires_capability(wex_chains)) {
  const wex_pid* const rec = __wex_find_pid(&wex_chains, thread->ppid);
  if (rec == nullptr || rec->status_slot == 0) {
    return;
  }
  watched& seen = g_watched[rec->status_slot];
  const int32_t left = std::max(thread->notify_info[WEX_CUR_CNT], 0);
  seen.fewest_misses = seen.threads == 0 ? left : std::min(seen.fewest_misses, left);
  ++seen.threads;
  g_counted_end = std::max(g_counted_end, rec->status_slot + 1);
}

// False while somebody has the chain of threads: the registry, which is held here, is not kept from others
// for that. Clang cannot follow a lock that may not be had.
bool count_threads() WEX_TSA(no_thread_safety_analysis) {
  if (pthread_mutex_trylock(&wex_alive_chains.mutex) != 0) {
    return false;
  }
  std::fill_n(g_watched, g_counted_end, watched{});
  g_counted_end = 0;
  record_walk walk(wex_alive_chains);
  while (const wex_pid* const thread = walk.next()) {
    count_thread(thread);
  }
  pthread_mutex_unlock(&wex_alive_chains.mutex);
  return true;
}

// A restart under way keeps the registry, so a record whose exit was handled has no process coming.
wex_status_state state_of(const wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  if (rec->alarm_wait_flag == 1) {
    return WEX_STATUS_PARKED;
  }
  if (__wex_waits_for_restart(rec)) {
    return WEX_STATUS_WAITING;
  }
  return rec->restart_failed != 0 || rec->exit_seen != 0 ? WEX_STATUS_DOWN : WEX_STATUS_RUNNING;
}

// What the record itself knows of its state. The record has whole seconds.
status_times times_of(const wex_pid* rec, wex_status_state state, int32_t self_check_sec)
    WEX_TSA(requires_capability(wex_chains)) {
  status_times times;
  if (state == WEX_STATUS_PARKED) {
    times.since = int64_t{rec->check_start} * 1000;
    times.until = times.since + int64_t{self_check_sec} * 1000;
  } else if (state == WEX_STATUS_WAITING) {
    times.since = __wex_waits_since(rec) * 1000;
    times.until = times.since + int64_t{kForceRestartSec} * 1000;
  } else if (state == WEX_STATUS_RUNNING) {
    times.since = times.started = wex_start_on_clock_ms(rec->start_time);
  } else {
    times.since = int64_t{rec->restart_failed} * 1000;
  }
  return times;
}

// Registrations that found no slot get those that have become free, unless nobody waited for one just now.
void show_hidden(int32_t self_check_sec) WEX_TSA(requires_capability(wex_chains)) {
  uint32_t troubles = 0;
  record_walk walk(wex_chains);
  while (wex_pid* const rec = walk.next()) {
    if (rec->status_slot != 0) {
      continue;
    }
    const wex_status_state state = state_of(rec);
    if (self_check_sec != kNobodyWaits && wex_status_has_room()) {
      wex_status_show_later(rec, state, times_of(rec, state, self_check_sec));
    } else {
      troubles += state != WEX_STATUS_RUNNING ? 1 : 0;
    }
  }
  wex_status_hidden_troubles(troubles);
}

void show(int32_t self_check_sec) WEX_TSA(requires_capability(wex_chains)) {
  show_hidden(self_check_sec);
  if (!count_threads()) {
    return;
  }
  record_walk walk(wex_chains);
  while (const wex_pid* const rec = walk.next()) {
    if (rec->status_slot != 0) {
      const watched& seen = g_watched[rec->status_slot];
      wex_status_watched(rec, seen.threads, seen.threads == 0 ? -1 : seen.fewest_misses);
    }
  }
}

}  // namespace

// Clang cannot follow a lock that may not be had.
void wex_show_watched_threads() WEX_TSA(no_thread_safety_analysis) {
  // It reads a file, so nothing is held yet.
  const int32_t self_check_sec = wex_status_slot_is_awaited() ? debug_time() : kNobodyWaits;
  if (pthread_mutex_trylock(&wex_chains.mutex) == 0) {
    show(self_check_sec);
    pthread_mutex_unlock(&wex_chains.mutex);
  }
}

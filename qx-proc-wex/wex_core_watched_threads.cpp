// wex_core_watched_threads: for the status table, how many threads of each registered process are watched,
// and the fewest misses that one of them has left.
//
// Not done by the watchdog, which must not wait for the registry: an exit may keep that for a long time.
#include "wex_core_watched_threads.h"

#include <algorithm>
#include <iterator>

#include "chain_lock.h"
#include "wex_chain.h"
#include "wex_status_image.h"

namespace {

// By slot; delay thread only.
struct watched {
  int32_t threads;
  int32_t fewest_misses;
};
watched g_watched[WEX_STATUS_SLOTS + 1];

void count_threads() WEX_TSA(requires_capability(wex_chains)) {
  std::fill(std::begin(g_watched), std::end(g_watched), watched{0, -1});
  chain_lock hold(wex_alive_chains);
  record_walk walk(wex_alive_chains);
  while (const wex_pid* const thread = walk.next()) {
    const wex_pid* const rec = __wex_find_pid(&wex_chains, thread->ppid);
    if (rec == nullptr || rec->status_slot == 0) {
      continue;
    }
    watched& seen = g_watched[rec->status_slot];
    const int32_t left = std::max(thread->notify_info[WEX_CUR_CNT], 0);
    seen.fewest_misses = seen.threads == 0 ? left : std::min(seen.fewest_misses, left);
    ++seen.threads;
  }
}

void show() WEX_TSA(requires_capability(wex_chains)) {
  count_threads();
  record_walk walk(wex_chains);
  while (const wex_pid* const rec = walk.next()) {
    if (rec->status_slot != 0) {
      wex_status_watched(rec, g_watched[rec->status_slot].threads, g_watched[rec->status_slot].fewest_misses);
    }
  }
}

}  // namespace

// Clang cannot follow a lock that may not be had.
void wex_show_watched_threads() WEX_TSA(no_thread_safety_analysis) {
  if (pthread_mutex_trylock(&wex_chains.mutex) == 0) {
    show();
    pthread_mutex_unlock(&wex_chains.mutex);
  }
}

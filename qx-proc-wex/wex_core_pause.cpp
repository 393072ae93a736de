// wex_core_pause: the pauses that users' programs want before their restarts.
#include "wex_core_pause.h"

#include <algorithm>
#include <atomic>

#include "wex_chain_user.h"
#include "wex_clock.h"
#include "wex_core_stop.h"
#include "wex_status_image.h"
#include "wex_strict.h"

namespace {

// So that a daemon without pauses does not walk its registry once a second.
std::atomic<bool> g_any{false};

bool daemon_ends() {
  return wex_exit_flag.load() != 0;
}

// What __wex_find_ended_pause() has handed out, whatever becomes of it.
constexpr int32_t kPauseOver = -1;

// More than the whole seconds that were asked for: the first one may have been nearly over.
bool has_lasted(const wex_pid* rec) {
  return daemon_ends() || int64_t{wex_clock_now()} - rec->delay_start > rec->restart_delay;
}

}  // namespace

bool wex_begin_pause(wex_pid* rec) {
  if (!wex_is_users(rec) || daemon_ends()) {
    return false;
  }
  rec->missed_start = 0;                            // the end of that child is the one that brought the pause
  rec->delay_start = std::max(wex_clock_now(), 1);  // 0 would be none
  wex_status_unlocked_pause(rec);
  g_any.store(true);
  return true;
}

bool wex_pause_is_over(wex_pid* rec) {
  const bool over = rec->delay_start != 0;
  rec->delay_start = 0;
  return over;
}

bool wex_any_pause() {
  return g_any.load() || (wex_strict().on && daemon_ends());
}

wex_pid* __wex_find_ended_pause() {
  bool any = false;
  record_walk walk(wex_chains);
  while (wex_pid* const rec = walk.next()) {
    if (rec->delay_start > 0 && has_lasted(rec)) {
      rec->delay_start = kPauseOver;
      return rec;
    }
    any = any || rec->delay_start > 0;
  }
  g_any.store(any);
  return nullptr;
}

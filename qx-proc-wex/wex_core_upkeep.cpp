// wex_core_upkeep: the delay thread, which does the periodic work.
//
// It hands postponed restarts to the exit handler and writes what other threads noted for the running log.
// Once a minute it looks for registered processes that vanished without an exit event (the kernel may drop
// events when memory is short or the socket full, and says so at most once), compares the database files with
// the registry, and checks that the daemon still has its socket, its lock file and its directory.
#define WEX_MODULE "wex_core"
#include "wex_core_upkeep.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "chain_lock.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_clock.h"
#include "wex_core_crash.h"
#include "wex_core_delay.h"
#include "wex_core_exit.h"
#include "wex_core_files.h"
#include "wex_core_filter.h"
#include "wex_core_long_delay.h"
#include "wex_core_netlink.h"
#include "wex_core_refusal.h"
#include "wex_core_stop.h"
#include "wex_core_strict.h"
#include "wex_core_sweep_request.h"
#include "wex_core_takedown.h"
#include "wex_core_third_part.h"
#include "wex_core_watched_names.h"
#include "wex_core_watched_threads.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"

std::atomic<bool> wex_delay_ended{false};

namespace {

// One that has given its pid up before its end was handled still waits for that, and one whose start found no
// process may wait for a hand-over.
bool has_end_to_come(const wex_pid* rec) {
  return rec->pid > 0 || rec->pid < -1 || rec->start_time == kStartOfNobody;
}

// True when a vanished process of this record would mean a lost exit.
bool expects_exit(const wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  return rec->exit_seen == 0 && rec->alarm_wait_flag != 1 && has_end_to_come(rec) &&
         !__wex_waits_for_restart(rec);
}

struct lost_exit {
  int32_t pid;
  int32_t process;  // whose exit it is
  uint64_t start_time;
};

void count_crash(const lost_exit& lost, uint32_t status) {
  {
    chain_lock hold(wex_chains);
    wex_pid* const rec = __wex_find_ended(lost.pid, lost.start_time);
    if (rec == nullptr || !WCOREDUMP(status != 0 ? status : rec->known_code)) {
      return;
    }
    __wex_note_crash(rec);
  }
  wex_judge_crashes();
}

// The status of a child is known from the reaper; what else is known stands in the record. Of any other
// process the cause is unknown: 0.
void hand_over(const lost_exit& lost) {
  wex_dbg(WEX_DBG_PUB, "%s: exit of pid %d was lost\n", "wex_sweep_lost_exits", lost.pid);
  if (wex_drop_taken_down(lost.pid, lost.start_time)) {
    return;
  }
  const uint32_t status = wex_status_of_ended(lost.process, lost.start_time);
  count_crash(lost, status);
  wex_handle_lost_exit(lost.pid, status, lost.start_time);
}

enum class verdict { present, suspected, lost };

// Finds out whose thread was registered, when /proc could not be read at that time. False while it is
// unknown.
bool knows_process(wex_pid* rec) {
  if (rec->thread_of < 0) {
    rec->thread_of = wex_get_ppid_form_pid(rec->pid);
    wex_note_start(rec);
    wex_status_refresh(rec);
  }
  return rec->thread_of >= 0;
}

// An exit counts as lost only when the process has been gone for a while and the monitor has read everything
// that the kernel reported until then: the real event, with the real exit code, must always come first.
verdict judge(wex_pid* rec, int32_t now) WEX_TSA(requires_capability(wex_chains)) {
  if (!expects_exit(rec) || !knows_process(rec)) {
    return verdict::present;
  }
  const presence seen = wex_judge_presence(wex_look_at(wex_process_of(rec)), rec->start_time);
  if (seen != presence::absent) {
    rec->gone_since = 0;
    if (seen == presence::unknown) {
      return verdict::suspected;
    }
    rec->ended_by_ns = 0;
    return verdict::present;
  }
  wex_note_found_ended(rec);
  if (rec->gone_since == 0) {
    rec->gone_since = now != 0 ? now : 1;
  }
  const bool confirmed = static_cast<int64_t>(now) - rec->gone_since >= kSweepConfirmSec &&
                         wex_monitor_read_until.load(std::memory_order_acquire) - 1 > rec->gone_since;
  return confirmed ? verdict::lost : verdict::suspected;
}

void hand_back_ready_restart() {
  ready_restart ready = {};
  if (wex_take_ready_restart(&ready)) {
    wex_dbg(WEX_DBG_PUB, "pid:%d, exit_signal:0x%x, force_restart:%d\n", ready.pid, ready.exit_signal,
            ready.force_restart);
    wex_hand_back_restart(ready);
  }
}

}  // namespace

void wex_sweep_lost_exits() {
  lost_exit lost[kLostAtOnce];
  int count = 0;
  {
    const int32_t now = wex_clock_now();
    chain_lock hold(wex_chains);
    bool any_thread = false;
    record_walk walk(wex_chains);
    while (wex_pid* const rec = walk.next()) {
      const verdict found = judge(rec, now);
      any_thread = any_thread || (rec->thread_of > 0 && wex_get_ppid_form_pid(rec->pid) == rec->thread_of);
      if (found == verdict::lost && count < kLostAtOnce) {
        lost[count++] = {rec->pid, wex_process_of(rec), rec->start_time};
      } else if (found != verdict::present) {
        wex_request_sweep();
      }
    }
    wex_pass_thread_ends(thread_ends_for::registrations, any_thread);
    __wex_tidy_filter();
  }
  for (int i = 0; i < count; ++i) {
    hand_over(lost[i]);
  }
}

extern "C" void* wex_delay_restart(void* /*unused*/) {
  pthread_detach(pthread_self());
  prctl(PR_SET_NAME, "wex_delay_restart");
  int32_t last_sweep = wex_clock_now();
  int32_t last_look = last_sweep;
  int32_t last_files = last_sweep;
  int32_t last_watched = last_sweep;
  wex_status_thread_is(kStatusDelay);
  while (wex_exit_flag.load(std::memory_order_relaxed) == 0) {
    wex_status_busy(kStatusDelay);
    wex_drop_domains_taken_down();
    hand_back_ready_restart();
    wex_restart_paused();
    wex_log_long_delays();
    wex_log_take_downs();
    wex_log_refusals();
    wex_log_ignored_names();
    const int32_t now = wex_clock_now();
    if (static_cast<int64_t>(now) - last_files >= kSweepEverySec) {
      last_files = now;
      wex_look_at_files();
    }
    if (wex_take_sweep_request() || static_cast<int64_t>(now) - last_sweep >= kSweepEverySec) {
      last_sweep = now;
      wex_sweep_lost_exits();
    }
    if (static_cast<int64_t>(now) - last_look >= kNamesEverySec) {
      last_look = now;
      wex_check_names();
    }
    if (static_cast<int64_t>(now) - last_watched >= kWatchedEverySec) {
      last_watched = now;
      wex_show_watched_threads();
    }
    wex_status_idle(kStatusDelay);
    wex_wait_exit(kDelayPassMs);
  }
  wex_restart_paused();  // all of them: the next daemon knows no program without a database file
  wex_delay_ended.store(true, std::memory_order_release);
  return nullptr;
}

// wex_core_delay: restarts that wait, and exits that got lost.
//
// A process may be reported dead while its database file is still locked; a restart then would make a second
// instance. So a copy of its record waits in wex_chains_delay until the lock is gone, 301 s at the most. The
// same thread looks once a minute for registered processes that vanished without an exit event: the kernel
// may drop events when memory is short or the socket full, and says so at most once. And it looks whether the
// daemon still has its socket, its lock file and its directory.
#define WEX_MODULE "wex_core"
#include "wex_core.h"
#include "wex_core_filter.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cstring>

#include "chain_lock.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_core_third_part.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_pidfile.h"
#include "wex_utils.h"

std::atomic<int32_t> wex_monitor_read_until{0};
std::atomic<bool> wex_delay_ended{false};

namespace {

std::atomic<bool> g_sweep_wanted{false};
std::atomic<wex_pid*> g_reserved{nullptr};  // set with nothing held, taken with wex_chains held

struct ready_restart {
  int32_t pid;
  uint32_t exit_signal;
  int32_t force_restart;
};

// Only the rebuild comes without a reservation, and nobody waits for the registry then.
wex_pid* take_record() WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const reserved = g_reserved.exchange(nullptr);
  return reserved != nullptr ? reserved : wex_new_record();
}

wex_pid* copy_of(const wex_pid& rec) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const copy = take_record();
  copy->pid = rec.pid;
  copy->vsd = rec.vsd;
  copy->alarm_wait_flag = rec.alarm_wait_flag;
  copy->restart_delay = rec.restart_delay;
  copy->action = rec.action;
  copy->exit_signal = rec.exit_signal;
  wex_copy_text(copy->process, sizeof copy->process, rec.process);
  wex_copy_text(copy->script, sizeof copy->script, rec.script);
  copy->delay_start = wex_clock_now();
  return copy;
}

bool is_ready(wex_pid* copy) {
  if (static_cast<int64_t>(wex_clock_now()) - copy->delay_start >= kForceRestartSec) {
    wex_dbg(WEX_DBG_PUB, "%s/%d more than 300s delay restart.\n", copy->process, copy->pid);
    copy->force_restart = 1;
  }
  return copy->force_restart == 1 || wex_proc_is_exit(copy) == 1;
}

// Takes the first copy, in bucket order, that need not wait any longer.
bool take_ready(ready_restart* ready) {
  chain_lock hold(wex_chains_delay);
  record_walk walk(wex_chains_delay);
  while (wex_pid* const copy = walk.next()) {
    if (is_ready(copy)) {
      *ready = {copy->pid, copy->exit_signal, copy->force_restart};
      __wex_drop_record(&wex_chains_delay, copy);
      return true;
    }
  }
  return false;
}

bool waits_for_restart(int32_t pid) WEX_TSA(requires_capability(wex_chains)) {
  chain_lock hold(wex_chains_delay);
  return __wex_find_pid(&wex_chains_delay, pid) != nullptr;
}

// True when a vanished process of this record would mean a lost exit.
bool expects_exit(const wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  return rec->exit_seen == 0 && rec->is_thread == 0 && rec->alarm_wait_flag != 1 && rec->pid > 0 &&
         !waits_for_restart(rec->pid);
}

struct lost_exit {
  int32_t pid;
  uint64_t start_time;
};

void count_crash(int32_t pid) {
  {
    chain_lock hold(wex_chains);
    if (wex_pid* const rec = __wex_find_pid(&wex_chains, pid)) {
      __wex_note_crash(rec);
    }
  }
  wex_judge_crashes();
}

// A child's status is known from the reaper. For all else 0 stands for a cause that nobody knows.
void hand_over(const lost_exit& lost) {
  wex_dbg(WEX_DBG_PUB, "%s: exit of pid %d was lost\n", "wex_sweep_lost_exits", lost.pid);
  if (wex_drop_taken_down(lost.pid)) {
    return;
  }
  const uint32_t status = wex_status_of_ended(lost.pid, lost.start_time);
  if (WCOREDUMP(status)) {
    count_crash(lost.pid);
  }
  wex_handle_netlink_exit(lost.pid, status, 0);
}

enum class verdict { present, suspected, lost };

// An exit counts as lost only when the process has been gone for a while and the monitor has read everything
// that the kernel reported until then: the real event, with the real exit code, must always come first.
verdict judge(wex_pid* rec, int32_t now) WEX_TSA(requires_capability(wex_chains)) {
  if (!expects_exit(rec)) {
    return verdict::present;
  }
  const presence seen = wex_judge_presence(wex_look_at(rec->pid), rec->start_time);
  if (seen != presence::absent) {
    rec->gone_since = 0;
    return seen == presence::present ? verdict::present : verdict::suspected;
  }
  if (rec->gone_since == 0) {
    rec->gone_since = now != 0 ? now : 1;
  }
  const bool confirmed = static_cast<int64_t>(now) - rec->gone_since >= kSweepConfirmSec &&
                         wex_monitor_read_until.load(std::memory_order_acquire) - 1 > rec->gone_since;
  return confirmed ? verdict::lost : verdict::suspected;
}

}  // namespace

void wex_reserve_delay() {
  if (g_reserved.load() != nullptr) {
    return;
  }
  wex_pid* const fresh = wex_new_record();
  wex_pid* none = nullptr;
  if (!g_reserved.compare_exchange_strong(none, fresh)) {
    wex_free_record(fresh);
  }
}

bool wex_delay_reserved() {
  return g_reserved.load() != nullptr;
}

void wex_request_sweep() {
  g_sweep_wanted.store(true, std::memory_order_release);
}

void wex_sweep_lost_exits() {
  lost_exit lost[kLostAtOnce];
  int count = 0;
  {
    const int32_t now = wex_clock_now();
    chain_lock hold(wex_chains);
    bool any_thread = false;
    record_walk walk(wex_chains);
    while (wex_pid* const rec = walk.next()) {
      any_thread = any_thread || (rec->is_thread != 0 && wex_record_lives(rec));
      const verdict found = judge(rec, now);
      if (found == verdict::lost && count < kLostAtOnce) {
        lost[count++] = {rec->pid, rec->start_time};
      } else if (found != verdict::present) {
        wex_request_sweep();
      }
    }
    wex_pass_thread_ends(thread_ends_for::registrations, any_thread);
  }
  for (int i = 0; i < count; ++i) {
    hand_over(lost[i]);
  }
}

extern "C" int wex_proc_restart_delay(wex_pid* rec) {
  if (rec == nullptr || rec->force_restart == 1) {
    return 0;
  }
  wex_dbg(WEX_DBG_PUB, "%s %s/%d receives event:%04x\n", __func__, rec->process, rec->pid, rec->exit_signal);
  if (wex_proc_is_exit(rec) == 1) {
    return 0;
  }
  if (waits_for_restart(rec->pid)) {
    wex_dbg(WEX_DBG_PUB, "%s pid %d exist in wex_chains_delay\n", __func__, rec->pid);
    return 1;
  }
  wex_pid* const copy = copy_of(*rec);  // nobody else adds one: that takes wex_chains, which is held
  chain_lock hold(wex_chains_delay);
  __wex_add_record(&wex_chains_delay, copy);
  return 1;
}

extern "C" void* wex_delay_restart(void* /*unused*/) {
  pthread_detach(pthread_self());
  prctl(PR_SET_NAME, "wex_delay_restart");
  int32_t last_sweep = wex_clock_now();
  int32_t last_look = last_sweep;
  int32_t last_files = last_sweep;
  while (wex_exit_flag.load(std::memory_order_relaxed) == 0) {
    wex_drop_domains_taken_down();
    ready_restart ready = {};
    if (take_ready(&ready)) {
      wex_dbg(WEX_DBG_PUB, "pid:%d, exit_signal:0x%x, force_restart:%d\n", ready.pid, ready.exit_signal,
              ready.force_restart);
      wex_handle_netlink_exit(ready.pid, ready.exit_signal, ready.force_restart);
    }
    wex_tell_long_delays();
    wex_tell_take_downs();
    const int32_t now = wex_clock_now();
    if (static_cast<int64_t>(now) - last_files >= kSweepEverySec) {
      last_files = now;
      wex_look_at_files();
    }
    if (g_sweep_wanted.exchange(false) || static_cast<int64_t>(now) - last_sweep >= kSweepEverySec) {
      last_sweep = now;
      wex_sweep_lost_exits();
    }
    if (static_cast<int64_t>(now) - last_look >= kPlacesEverySec) {
      last_look = now;
      wex_check_places();
    }
    wex_wait_exit(kDelayPassMs);
  }
  wex_delay_ended.store(true, std::memory_order_release);
  return nullptr;
}

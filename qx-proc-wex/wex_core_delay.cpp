// wex_core_delay: postponed restarts.
//
// A process may be reported dead while its database file is still locked; a restart then would make a second
// instance. So a copy of its record waits in wex_chains_delay until the lock is gone, 301 s at the most.
#define WEX_MODULE "wex_core"
#include "wex_core_delay.h"

#include <atomic>

#include "chain_lock.h"
#include "text_buffer.h"
#include "wex_chain.h"
#include "wex_clock.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_pidfile.h"
#include "wex_status_image.h"

namespace {

std::atomic<wex_pid*> g_reserved{nullptr};  // set with nothing held, taken with wex_chains held

// Only the rebuild has reserved nothing. It runs before any thread, so no other thread has to wait for the
// registry while it waits for memory.
wex_pid* take_reserved() WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const reserved = g_reserved.exchange(nullptr);
  return reserved != nullptr ? reserved : wex_new_record();
}

wex_pid* copy_of(const wex_pid& rec) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const copy = take_reserved();
  copy->pid = rec.pid;
  copy->vsd = rec.vsd;
  copy->alarm_wait_flag = rec.alarm_wait_flag;
  copy->restart_delay = rec.restart_delay;
  copy->action = rec.action;
  copy->exit_signal = rec.exit_signal;
  copy->postponed = rec.postponed;
  copy->start_time = rec.start_time;
  wex_copy_text(copy->process, sizeof copy->process, rec.process);
  wex_copy_text(copy->script, sizeof copy->script, rec.script);
  copy->delay_start = wex_clock_now();
  return copy;
}

// Pids do not tell postponed restarts apart: another program may have got, and lost, the pid meanwhile.
int32_t next_number() WEX_TSA(requires_capability(wex_chains)) {
  static int32_t last = 0;
  last = last < INT32_MAX ? last + 1 : 1;
  return last;
}

bool is_ready(wex_pid* copy) {
  if (static_cast<int64_t>(wex_clock_now()) - copy->delay_start >= kForceRestartSec) {
    wex_dbg(WEX_DBG_PUB, "%s/%d more than 300s delay restart.\n", copy->process, copy->pid);
    copy->force_restart = 1;
  }
  return copy->force_restart == 1 || wex_proc_is_exit(copy) == 1;
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

bool __wex_waits_for_restart(const wex_pid* rec) {
  return __wex_waits_since(rec) >= 0;
}

int64_t __wex_waits_since(const wex_pid* rec) {
  chain_lock hold(wex_chains_delay);
  const wex_pid* const copy = __wex_find_postponed(&wex_chains_delay, rec->pid, rec->postponed);
  return copy != nullptr ? copy->delay_start : -1;
}

bool wex_take_ready_restart(ready_restart* ready) {
  chain_lock hold(wex_chains_delay);
  record_walk walk(wex_chains_delay);
  while (wex_pid* const copy = walk.next()) {
    if (is_ready(copy)) {
      *ready = {copy->pid, copy->exit_signal, copy->force_restart, copy->postponed};
      __wex_drop_record(&wex_chains_delay, copy);
      return true;
    }
  }
  return false;
}

extern "C" int wex_proc_restart_delay(wex_pid* rec) {
  if (rec == nullptr || rec->force_restart == 1) {
    return 0;
  }
  wex_dbg(WEX_DBG_PUB, "%s %s/%d receives event:%04x\n", __func__, rec->process, rec->pid, rec->exit_signal);
  if (wex_proc_is_exit(rec) == 1) {
    rec->postponed = 0;  // it is restarted now: what may still wait of an earlier end is to find no record
    return 0;
  }
  if (__wex_waits_for_restart(rec)) {
    wex_dbg(WEX_DBG_PUB, "%s pid %d exist in wex_chains_delay\n", __func__, rec->pid);
    return 1;
  }
  // No other copy of this record can come in between: that takes wex_chains, which the caller holds.
  rec->postponed = next_number();
  wex_pid* const copy = copy_of(*rec);
  chain_lock hold(wex_chains_delay);
  __wex_add_record(&wex_chains_delay, copy);
  wex_status_tell(WEX_STATUS_EV_POSTPONED, rec, {0, 0, rec->exit_signal});
  return 1;
}

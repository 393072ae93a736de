// wex_core_event: what one reported exit means: a crash to be counted, a thread of a process that goes on, or
// the end of a registered program.
#define WEX_MODULE "wex_core"
#include "wex_core_event.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "chain_lock.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_clock.h"
#include "wex_core_crash.h"
#include "wex_core_exit.h"
#include "wex_core_filter.h"
#include "wex_core_process_event.h"
#include "wex_core_takedown.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_utils.h"

namespace {

// ---- crashes ----------------------------------------------------------------------------------------------

// The record an event belongs to. The thread that dumped core is often reported after its process, whose
// record then already has the replacement's pid.
wex_pid* record_of_event(int32_t pid, int32_t tgid) WEX_TSA(requires_capability(wex_chains)) {
  for (const int32_t candidate : {pid, tgid, __wex_replaced_by(pid), __wex_replaced_by(tgid)}) {
    wex_pid* const rec = candidate != 0 ? __wex_find_pid(&wex_chains, candidate) : nullptr;
    if (rec != nullptr) {
      return rec;
    }
  }
  return nullptr;
}

bool is_registered(int32_t pid, int32_t tgid) {
  chain_lock hold(wex_chains);
  return record_of_event(pid, tgid) != nullptr;
}

void note_crash(int32_t pid, int32_t tgid) {
  chain_lock hold(wex_chains);
  if (wex_pid* const rec = record_of_event(pid, tgid)) {
    __wex_note_crash(rec);
  }
}

void look_for_crash(const process_event& event) {
  const int32_t now = wex_clock_now();
  const bool dumped = (event.exit_code & kCoreDumped) != 0;
  if (dumped) {
    note_crash(event.pid, event.tgid);
  }
  const burst_rule rule = wex_read_burst_rule();
  if (dumped) {
    wex_apply_burst_rule(rule, now);
  }
}

// ---- whose exit it was ------------------------------------------------------------------------------------

struct reported_exit {
  int32_t pid;
  uint32_t code;
  uint64_t tick;
};

// An exit that could not be judged at once.
struct unsettled_exit {
  reported_exit exit;
  int64_t next_look_ms;
  int looks;  // at their time; a look that the end of a thread gave rise to is one more
  bool hastened;
};
unsettled_exit g_unsettled[kUnsettledExits];
int g_unsettled_count = 0;

int64_t g_least_delay_ns = INT64_MAX;

// What this process's monotonic clock is ahead of the kernel's: it may run in a time namespace.
int64_t clock_shift() {
  return g_least_delay_ns == INT64_MAX ? 0 : wex_clock_shift(g_least_delay_ns);
}

uint64_t tick_of(const process_event& event) {
  return wex_event_tick(event.time_ns, clock_shift(), wex_boot_offset_ns(), sysconf(_SC_CLK_TCK));
}

// Notes when the record's process was reported dead, and judges that with one look. For a pid that is not
// registered the exit handler has nothing to do either.
exit_verdict judge(const reported_exit& exit, bool* readable) {
  chain_lock hold(wex_chains);
  wex_pid* const rec = __wex_find_pid(&wex_chains, exit.pid);
  if (rec == nullptr) {
    return exit_verdict::exited;
  }
  rec->exit_tick = exit.tick;
  const process_look now = wex_look_at(exit.pid);
  *readable = now.sight != process_look::unreadable;
  return wex_judge_exit(now, rec->start_time, exit.tick);
}

// False when the exit is to be looked at again.
bool settle(const reported_exit& exit, int looks_left) {
  bool readable = true;
  if (judge(exit, &readable) == exit_verdict::ask_again && (looks_left > 0 || !readable)) {
    return false;
  }
  wex_handle_netlink_exit(exit.pid, exit.code, 0);
  return true;
}

void pass_thread_ends_while_undecided() {
  wex_pass_thread_ends(thread_ends_for::undecided_exits, g_unsettled_count > 0);
}

void put_aside(const reported_exit& exit) {
  if (g_unsettled_count >= kUnsettledExits) {
    wex_handle_netlink_exit(exit.pid, exit.code, 0);
    return;
  }
  wex_pass_thread_ends(thread_ends_for::undecided_exits, true);
  if (!settle(exit, kExitLooks)) {  // the last thread may have ended just before
    g_unsettled[g_unsettled_count++] = {exit, wex_clock_ms() + kExitLookMs, 0, false};
  }
  pass_thread_ends_while_undecided();
}

// A thread of the process ended: perhaps the last one that the decision waits for.
void hasten(int32_t pid) {
  for (int i = 0; i < g_unsettled_count; ++i) {
    if (g_unsettled[i].exit.pid == pid) {
      g_unsettled[i].hastened = true;
    }
  }
}

// A thread may have registered itself as a program. Its end is no exit, so it must not be found missing
// later.
void note_thread_end(int32_t tid) {
  chain_lock hold(wex_chains);
  if (wex_pid* const rec = __wex_find_pid(&wex_chains, tid)) {
    rec->exit_seen = 1;
  }
}

}  // namespace

void wex_note_event_delay(const process_event& event) {
  if (event.time_ns == 0 || event.time_ns > INT64_MAX / 4) {
    return;
  }
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t delay = int64_t{now.tv_sec} * 1000000000 + now.tv_nsec - static_cast<int64_t>(event.time_ns);
  g_least_delay_ns = std::min(g_least_delay_ns, delay);
}

int32_t wex_event_second(const process_event& event) {
  if (event.time_ns == 0 || event.time_ns > INT64_MAX / 4) {
    return 0;
  }
  return static_cast<int32_t>((static_cast<int64_t>(event.time_ns) + clock_shift()) / 1000000000);
}

void wex_take_exit_event(const process_event& event) {
  if (!is_registered(event.pid, event.tgid)) {
    return;  // an exit of an unregistered process is ignored before any marker is looked at
  }
  if (event.pid != event.tgid) {
    note_thread_end(event.pid);
    hasten(event.tgid);
  }
  if (wex_drop_taken_down(event.pid)) {
    return;
  }
  look_for_crash(event);
  if (event.pid != event.tgid) {
    return;
  }
  const reported_exit exit = {event.pid, event.exit_code, tick_of(event)};
  if (!settle(exit, kExitLooks)) {
    put_aside(exit);
  }
}

int wex_settle_exits() {
  if (g_unsettled_count == 0) {
    return -1;
  }
  const int64_t now = wex_clock_ms();
  int64_t next = INT64_MAX;
  int kept = 0;
  for (int i = 0; i < g_unsettled_count; ++i) {
    unsettled_exit entry = g_unsettled[i];
    const bool due = entry.next_look_ms <= now;
    if (due) {
      ++entry.looks;
      entry.next_look_ms = now + (entry.looks < kExitLooks ? kExitLookMs : kExitSlowLookMs);
    }
    if ((due || entry.hastened) && settle(entry.exit, kExitLooks - entry.looks)) {
      continue;
    }
    entry.hastened = false;
    next = std::min(next, entry.next_look_ms);
    g_unsettled[kept++] = entry;
  }
  g_unsettled_count = kept;
  pass_thread_ends_while_undecided();
  return kept == 0 ? -1 : static_cast<int>(std::max<int64_t>(next - wex_clock_ms(), 0));
}

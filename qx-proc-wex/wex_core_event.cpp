// wex_core_event: what one reported exit means: a crash to be counted, a thread of a process that goes on, or
// the end of a registered program.
#define WEX_MODULE "wex_core"
#include "wex_core_event.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "chain_lock.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_chain_user.h"
#include "wex_clock.h"
#include "wex_core_crash.h"
#include "wex_core_early_end.h"
#include "wex_core_exit.h"
#include "wex_core_filter.h"
#include "wex_core_process_event.h"
#include "wex_core_restart.h"
#include "wex_core_sweep_request.h"
#include "wex_core_takedown.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_proc_child.h"
#include "wex_signals_reaper.h"
#include "wex_utils.h"

namespace {

// These are the exit monitor's alone: no lock. The last two are the limits of what this process's monotonic
// clock is ahead of the kernel's, as in a time namespace.
int64_t g_subscribed_ns = 0;
int64_t g_least_shift_ns = INT64_MIN;
int64_t g_most_shift_ns = INT64_MAX;

int64_t clock_shift() {
  return wex_clock_shift(g_least_shift_ns, g_most_shift_ns);
}

bool has_time(const process_event& event) {
  return event.time_ns != 0 && event.time_ns <= INT64_MAX / 4;
}

uint64_t tick_of(const process_event& event) {
  return wex_event_tick(event.time_ns, clock_shift(), wex_boot_offset_ns(), sysconf(_SC_CLK_TCK));
}

// ---- whose event it is ------------------------------------------------------------------------------------

// Whether an event under the pid of a process that has ended is that process's own. Another process may have
// got the pid, and have ended and been reaped by now: but that happened after it was born, which the kernel
// reports, after the end, and, where that was not reported, after it was found.
bool is_of_ended(const process_event& event, const ended_process& ended) {
  if (ended.handled && ended.start_time != 0) {
    const process_look now = wex_look_at(event.tgid);
    if (now.sight == process_look::seen) {
      return now.start_time == ended.start_time;
    }
  }
  const bool is_exit = event.pid == event.tgid && ended.exit_tick != 0 && has_time(event);
  if (is_exit && tick_of(event) > ended.exit_tick + kStartTickSlack) {
    return false;
  }
  return ended.ended_by_ns != 0 ? wex_event_time(event) <= ended.ended_by_ns : is_exit;
}

// What could not be started again has no process either, also when no exit of it was handled, as at the start
// of the daemon.
bool was_handled(const wex_pid* rec) {
  return rec->exit_seen != 0 || rec->restart_failed != 0;
}

bool is_known_to_have_ended(const wex_pid* rec) {
  return was_handled(rec) || rec->ended_by_ns != 0;
}

bool is_of_ended(const process_event& event, const wex_pid* rec) {
  return is_of_ended(event,
                     {rec->start_time, rec->seen_ns, rec->ended_by_ns, rec->exit_tick, was_handled(rec)});
}

// Whether the process of a record whose exit was handled goes on: only its main thread had ended. Before
// Linux 3.17 it has another start time when a thread of it has executed a program. A stranger's process looks
// the same then, unless it is another user's.
bool goes_on(const process_event& event, const wex_pid* rec) {
  return wex_judge_exit(wex_look_at(rec->pid), rec->start_time, tick_of(event)) == exit_verdict::runs &&
         wex_runs_as(rec->pid, rec);
}

// The record of the process that the event names, unless only the pid is the same. A record that was made for
// a thread is not meant when a process has its id: that process got it after the thread had ended. Nor is one
// whose process had ended before.
wex_pid* record_of_process(const process_event& event) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const rec = __wex_find_pid(&wex_chains, event.tgid);
  if (rec == nullptr || rec->start_time == kStartOfNobody || rec->thread_of != 0) {
    return nullptr;
  }
  const bool is_own = !is_known_to_have_ended(rec) || is_of_ended(event, rec) ||
                      (event.pid == event.tgid && goes_on(event, rec));
  return is_own ? rec : nullptr;
}

// The record that was made for this thread. One that was made for a process is not meant, unless nobody could
// see what it was made for.
wex_pid* record_of_thread(const process_event& event) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const rec = event.pid != event.tgid ? __wex_find_pid(&wex_chains, event.pid) : nullptr;
  if (rec == nullptr || (is_known_to_have_ended(rec) && !is_of_ended(event, rec))) {
    return nullptr;
  }
  return rec->thread_of == event.tgid || rec->thread_of < 0 || rec->start_time == 0 ? rec : nullptr;
}

// The thread that dumped core is often reported after its process, whose record then already has the
// replacement's pid.
wex_pid* record_of_replaced(const process_event& event) WEX_TSA(requires_capability(wex_chains)) {
  ended_process ended = {};
  if (!__wex_find_replaced(event.tgid, &ended) || !is_of_ended(event, ended)) {
    return nullptr;
  }
  wex_pid* const rec = __wex_find_pid(&wex_chains, __wex_replaced_by(event.tgid));
  return rec != nullptr && rec->start_time != kStartOfNobody ? rec : nullptr;
}

// The record that an event belongs to, or null.
wex_pid* record_of_event(const process_event& event) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* rec = record_of_thread(event);
  rec = rec != nullptr ? rec : record_of_process(event);
  return rec != nullptr ? rec : record_of_replaced(event);
}

// Not as long as it is a zombie: what is reported of the pid until then is its own.
bool has_lost_its_pid(int32_t process, uint64_t start_time) {
  const process_look now = wex_look_at(process);
  return now.sight == process_look::gone ||
         (now.sight == process_look::seen && start_time != 0 && now.start_time != start_time);
}

// ---- crashes ----------------------------------------------------------------------------------------------

void note_crash(const process_event& event) {
  chain_lock hold(wex_chains);
  if (wex_pid* const rec = record_of_event(event)) {
    __wex_note_crash(rec);
  }
}

// The burst rule is read for a crash only: nothing else asks for it.
void look_for_crash(const process_event& event) {
  if ((event.exit_code & kCoreDumped) == 0) {
    return;
  }
  note_crash(event);
  wex_judge_crashes();
}

// ---- thread or process ------------------------------------------------------------------------------------

struct reported_exit {
  int32_t pid;
  uint32_t code;
  uint64_t tick;
};

// An exit that could not be judged at once.
struct pending_exit {
  reported_exit exit;
  int64_t next_look_ms;
  int looks;  // that were due by time; one made because a thread ended does not count
  bool thread_ended;
};
// These two are the exit monitor's alone: no lock.
pending_exit g_pending[kPendingExits];
int g_pending_count = 0;

// Whether the event is of a registered process. That of one whose registration is under way is kept for it,
// and so is that of one to which a registration is still to be handed over.
bool is_registered(const process_event& event) {
  chain_lock hold(wex_chains);
  const bool is_known = record_of_event(event) != nullptr;
  if (event.pid != event.tgid) {
    return is_known;
  }
  __wex_note_early_end(event.pid, event.exit_code, tick_of(event));
  const awaited_exit exit = {event.pid, event.exit_code, tick_of(event), wex_event_time(event)};
  return !__wex_take_awaited_exit(exit, is_known) && is_known;
}

// Notes in the record when the kernel reported the exit, and judges the report: by reaping a child of ours,
// else by one look at /proc. As long as it was a zombie no other process can have had its pid, so whichever
// had it when the kernel reported the exit has ended; and its program must not need room beside it. A pid
// without a record counts as exited: the exit handler ignores it.
// `*start_time` is that of the process that was judged, if it is known.
exit_verdict judge(const reported_exit& exit, bool* readable, uint64_t* start_time) {
  chain_lock hold(wex_chains);
  wex_pid* const rec = __wex_find_pid(&wex_chains, exit.pid);
  if (rec == nullptr) {
    return exit_verdict::exited;
  }
  rec->exit_tick = exit.tick;
  *start_time = rec->start_time;
  if (wex_reap(exit.pid, rec->start_time)) {
    return exit_verdict::exited;
  }
  const process_look now = wex_look_at(exit.pid);
  *readable = now.sight != process_look::unreadable;
  return wex_judge_exit_of(rec, now, exit.tick);
}

// Judges the exit and hands it to the exit handler; false when it is to be looked at again.
bool try_to_judge(const reported_exit& exit, int looks_left) {
  bool readable = true;
  uint64_t start_time = 0;
  const exit_verdict verdict = judge(exit, &readable, &start_time);
  if (verdict == exit_verdict::ask_again && (looks_left > 0 || !readable)) {
    return false;
  }
  wex_handle_judged_exit(exit.pid, exit.code, verdict == exit_verdict::exited ? start_time : 0);
  return true;
}

void pass_thread_ends_while_undecided() {
  wex_pass_thread_ends(thread_ends_for::undecided_exits, g_pending_count > 0);
}

void keep_pending(const reported_exit& exit) {
  if (g_pending_count >= kPendingExits) {
    wex_handle_netlink_exit(exit.pid, exit.code, 0);
    return;
  }
  wex_pass_thread_ends(thread_ends_for::undecided_exits, true);
  if (!try_to_judge(exit, kExitLooks)) {  // the last thread may have ended just before
    g_pending[g_pending_count++] = {exit, wex_clock_ms() + kExitLookMs, 0, false};
  }
  pass_thread_ends_while_undecided();
}

// A thread of the process has ended. It may be the last one that a pending exit waits for.
void look_sooner(int32_t pid) {
  for (int i = 0; i < g_pending_count; ++i) {
    if (g_pending[i].exit.pid == pid) {
      g_pending[i].thread_ended = true;
    }
  }
}

// A thread may have been registered as a program, and have ended before anybody could see that it was one.
// Its end is no exit: the program goes on until its process ends. A process that was seen has lost its id to
// this thread.
//
// A signal that ends a process ends each thread of it with the same code. The end of the process itself is
// reported under a pid that has no record, so the sweep finds it, and takes the code from the record.
void note_thread_end(const process_event& event) {
  chain_lock hold(wex_chains);
  wex_pid* const rec = record_of_thread(event);
  if (rec == nullptr) {
    return;
  }
  if (rec->start_time == 0) {
    rec->thread_of = event.tgid;
    wex_note_start(rec);
  }
  if (rec->thread_of == event.tgid && WTERMSIG(event.exit_code) != 0) {
    rec->known_code = event.exit_code;
    wex_request_sweep();
  }
}

// Whose record goes while a domain is taken down. A thread may have got the id of a process whose own end was
// lost: the sweep finds that.
struct ended_record {
  int32_t pid;  // 0: none
  uint64_t start_time;
};

ended_record ended_by(const process_event& event) {
  chain_lock hold(wex_chains);
  const wex_pid* const rec = event.pid != event.tgid ? record_of_thread(event) : record_of_process(event);
  return rec != nullptr ? ended_record{event.pid, rec->start_time} : ended_record{};
}

// The record's own exit event has been lost then, or would have been handled before: the sweep finds that
// one, and how it ended when it was a child.
bool is_of_child_that_gave_way(const reported_exit& exit) {
  chain_lock hold(wex_chains);
  const wex_pid* const rec = __wex_find_pid(&wex_chains, exit.pid);
  if (rec == nullptr || !__wex_gave_way_to(rec, exit.code, exit.tick)) {
    return false;
  }
  wex_request_sweep();
  return true;
}

}  // namespace

void wex_expect_events_from(int64_t time_ns) {
  g_subscribed_ns = time_ns;
}

void wex_note_event_read(const process_event& event) {
  if (!has_time(event)) {
    return;
  }
  const auto stamp = static_cast<int64_t>(event.time_ns);
  g_least_shift_ns = std::max(g_least_shift_ns, g_subscribed_ns - stamp);
  g_most_shift_ns = std::min(g_most_shift_ns, wex_clock_ns() - stamp);
}

int32_t wex_event_second(const process_event& event) {
  return static_cast<int32_t>(wex_event_time(event) / 1000000000);
}

void wex_take_birth_event(const process_event& event) {
  if (event.pid == event.tgid && has_time(event)) {
    chain_lock hold(wex_chains);
    __wex_note_birth(event.pid, wex_event_time(event));
    __wex_note_awaited_birth(event.pid, wex_event_time(event));
  }
}

void wex_note_unreported_ends(int64_t since_ns) {
  chain_lock hold(wex_chains);
  record_walk walk(wex_chains);
  while (wex_pid* const rec = walk.next()) {
    const int32_t process = wex_process_of(rec);
    if (process > 0 && !was_handled(rec) && has_lost_its_pid(process, rec->start_time)) {
      wex_note_ended(rec, since_ns);
    }
    if (rec->awaited > 0 && has_lost_its_pid(rec->awaited, rec->awaited_start)) {
      __wex_note_awaited_gone(rec, since_ns);
    }
  }
}

int64_t wex_event_time(const process_event& event) {
  return has_time(event) ? static_cast<int64_t>(event.time_ns) + clock_shift() : 0;
}

void wex_take_exit_event(const process_event& event) {
  if (!is_registered(event)) {
    return;  // an exit of an unregistered process is ignored before any marker is looked at
  }
  const bool is_thread = event.pid != event.tgid;
  const reported_exit exit = {event.pid, event.exit_code, tick_of(event)};
  if (is_thread) {
    note_thread_end(event);
    look_sooner(event.tgid);
  } else if (is_of_child_that_gave_way(exit)) {
    return;
  }
  const ended_record ended = ended_by(event);
  if (wex_drop_taken_down(ended.pid, ended.start_time)) {
    return;
  }
  look_for_crash(event);
  if (!is_thread && ended.pid != 0 && !try_to_judge(exit, kExitLooks)) {
    keep_pending(exit);
  }
}

int wex_judge_pending_exits() {
  if (g_pending_count == 0) {
    return -1;
  }
  const int64_t now = wex_clock_ms();
  int64_t next = INT64_MAX;
  int kept = 0;
  for (int i = 0; i < g_pending_count; ++i) {
    pending_exit entry = g_pending[i];
    const bool due = entry.next_look_ms <= now;
    if (due) {
      ++entry.looks;
      entry.next_look_ms = now + (entry.looks < kExitLooks ? kExitLookMs : kExitSlowLookMs);
    }
    if ((due || entry.thread_ended) && try_to_judge(entry.exit, kExitLooks - entry.looks)) {
      continue;
    }
    entry.thread_ended = false;
    next = std::min(next, entry.next_look_ms);
    g_pending[kept++] = entry;
  }
  g_pending_count = kept;
  pass_thread_ends_while_undecided();
  return kept == 0 ? -1 : static_cast<int>(std::max<int64_t>(next - wex_clock_ms(), 0));
}

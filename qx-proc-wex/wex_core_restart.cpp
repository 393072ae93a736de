// wex_core_restart: a record's program is started again, and the record follows its new process.
#include "wex_core_restart.h"

#include <algorithm>
#include <cstdlib>

#include "waiting.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_chain_user.h"
#include "wex_clock.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_sweep_request.h"
#include "wex_core_third_part.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_proc_child.h"
#include "wex_status_image.h"
#include "wex_utils.h"

namespace {

// The new process ended about when the filter was told to pass its exit, so the event may be missing. The
// reaper hands the end over when it is a child of ours, else the sweep finds it. The event may come all the
// same; whichever is first counts, because the restart that follows changes the pid of the record.
void expect_lost_exit(wex_pid* rec) WEX_TSA(requires_capability(wex_spawn_mutex)) {
  rec->missed_start = wex_remember_start(rec->pid, rec->exit_signal);
  rec->gone_since = wex_clock_now();
  wex_request_sweep();
}

// A listed program makes no database file itself. The monitor makes it when it sees the program executed,
// which it does not while the daemon starts, nor when the process found is one that has detached from it.
void make_file_of_listed(const wex_pid* rec) {
  char word[256];
  if (wex_proc_in_wexdb2(kThirdPartList, rec->process, word, sizeof word) == 1) {
    wex_mend_pidfile(rec);
    wex_own_database_file(rec);
  }
}

// So that exits are compared with no record while nobody waits.
bool g_any_awaited WEX_TSA(guarded_by(wex_chains)) = false;

bool waits(const wex_pid* rec) {
  return rec->start_time == kStartOfNobody && rec->exit_seen == 0;
}

bool awaits_end(const wex_pid* rec) {
  return rec->awaited > 0 && waits(rec);
}

// The end was found, and its report may be queued.
bool awaits_cause(const wex_pid* rec) {
  return rec->awaited < 0 && rec->awaited_ended_by_ns != 0 && waits(rec);
}

bool awaits_exit(const wex_pid* rec, const awaited_exit& exit) {
  return (awaits_end(rec) && rec->awaited == exit.pid) ||
         (awaits_cause(rec) && rec->awaited == -exit.pid && exit.time_ns <= rec->awaited_ended_by_ns);
}

// The end that is to come is that of the process to which the program is to be handed over: by its cause the
// program is started again or, stopped on purpose, dropped. What has been reported of the same process counts
// on.
void await_end_of(wex_pid* rec, int32_t process, uint64_t start_time)
    WEX_TSA(requires_capability(wex_chains)) {
  if (rec->awaited == -process && rec->awaited_start == start_time) {
    return;
  }
  rec->known_code = 0;
  rec->awaited = process;
  rec->awaited_start = start_time;
  rec->awaited_ns = wex_clock_ns();
  rec->awaited_ended_by_ns = 0;
  g_any_awaited = true;
}

// Whether an exit in this tick, of a process with the same pid, is that of the process that began at
// `start_time`. Others have had the pid before, and may have it `now`. About the same time as that beginning
// it may be the end of the one before, as long as that one's is to come.
bool is_exit_of(const process_look& now, uint64_t start_time, uint64_t exit_tick, bool another_is_to_come) {
  const bool after_start = another_is_to_come ? exit_tick > start_time + kStartTickSlack
                                              : exit_tick + kStartTickSlack >= start_time;
  const bool is_not_of_later_one = now.sight == process_look::gone || now.start_time == start_time ||
                                   now.start_time > exit_tick + kStartTickSlack;
  return after_start && is_not_of_later_one;
}

// Another process may have registered with the pid since the program's start failed. Either may come first in
// its bucket.
void leave_pid_to_newcomer(const wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  record_walk walk(wex_chains);
  const wex_pid* newcomer = walk.next();
  while (newcomer != nullptr &&
         (newcomer == rec || newcomer->pid != rec->pid || newcomer->start_time == kStartOfNobody)) {
    newcomer = walk.next();
  }
  if (rec->pid > 0 && newcomer != nullptr) {
    __wex_free_pid_of(newcomer);
  }
}

void note_end_of_awaited(wex_pid* rec, uint32_t code) {
  rec->known_code = code;
  rec->awaited = -std::abs(rec->awaited);
  rec->awaited_ended_by_ns = 0;
  rec->gone_since = std::min(rec->gone_since, std::max(wex_clock_now(), 1));
  wex_request_sweep();
}

// When the process that is registered with this pid began, 0 when it is not known. A thread's record tells
// of another process.
uint64_t registered_start(int32_t pid) WEX_TSA(requires_capability(wex_chains)) {
  const wex_pid* const rec = __wex_find_pid(&wex_chains, pid);
  return rec != nullptr && rec->thread_of == 0 ? rec->start_time : 0;
}

// False when it is not that of the awaited process, which goes on all the same when it was a main thread's
// end, for another thread has executed a program. A program that has registered with the pid since began when
// the awaited process had ended: that end was lost.
bool take_exit(wex_pid* rec, const awaited_exit& exit, bool another_is_to_come)
    WEX_TSA(requires_capability(wex_chains)) {
  const uint64_t newcomers_start = registered_start(exit.pid);
  if (newcomers_start > rec->awaited_start && exit.tick + kStartTickSlack >= newcomers_start) {
    note_end_of_awaited(rec, 0);
    return false;
  }
  const process_look now = wex_look_at(exit.pid);
  if (!is_exit_of(now, rec->awaited_start, exit.tick, another_is_to_come)) {
    return false;
  }
  if (wex_judge_exit(now, rec->awaited_start, exit.tick) != exit_verdict::runs) {
    note_end_of_awaited(rec, exit.code);
  }
  return true;
}

}  // namespace

int32_t __wex_start_again(wex_chains_t* chain, wex_pid* rec, const wex_action& action,
                          const restart_case& after) {
  const spawn_guard guard;
  const int32_t old_pid = rec->pid;
  int32_t new_pid = -1;
  wex_status_restarting(rec);
  const int32_t result = wex_spawn_as(action, rec, &new_pid);
  if (result < 1 && after.needs_process) {
    rec->restart_failed = 0;
    if (result == 0) {  // else it was parked, or the daemon ends
      wex_note_failed(rec);
      wex_status_tell(WEX_STATUS_EV_FAILED, rec);
    }
    return result;
  }
  // Nothing slow from here on: killed now, the daemon would find the old file and start a second instance.
  const bool lives = __wex_adopt_pid(chain, rec, new_pid);
  if (new_pid > 0) {
    make_file_of_listed(rec);
  }
  if (wex_child_gave_up(new_pid)) {
    wex_mend_pidfile(rec);  // should the daemon end now, the next one must know the program
  }
  if (!wex_child_has_normal_lmk(new_pid)) {
    wex_reset_lmk(new_pid);
  }
  if (new_pid > 0 && !lives) {
    expect_lost_exit(rec);
  }
  if (new_pid < 1) {
    wex_note_failed(rec);
  }
  if (after.may_postpone_next) {
    rec->force_restart = 0;
  }
  wex_status_tell(new_pid < 1 ? WEX_STATUS_EV_FAILED : WEX_STATUS_EV_RESTARTED, rec, {old_pid, new_pid});
  return result;
}

bool __wex_await_hand_over(wex_pid* rec, int32_t found) {
  uint64_t start_time = 0;
  if (!__wex_pid_is_kept(found, rec, &start_time)) {
    return false;
  }
  await_end_of(rec, found, start_time);
  rec->start_time = kStartOfNobody;
  rec->thread_of = 0;
  rec->exit_seen = 0;
  rec->exit_tick = 0;
  rec->missed_start = 0;
  rec->delay_start = 0;
  rec->gone_since = wex_clock_now() + kHandOverAgainSec;
  wex_note_failed(rec);
  leave_pid_to_newcomer(rec);
  wex_status_waiting(rec);
  wex_request_sweep();
  return true;
}

bool __wex_take_awaited_exit(const awaited_exit& exit, bool another_is_to_come) {
  if (!g_any_awaited) {
    return false;
  }
  bool taken = false;
  bool any = false;
  record_walk walk(wex_chains);
  while (wex_pid* const rec = walk.next()) {
    const bool its_own = awaits_exit(rec, exit) && take_exit(rec, exit, another_is_to_come);
    taken = taken || its_own;
    any = any || awaits_end(rec) || awaits_cause(rec);
  }
  g_any_awaited = any;
  return taken;
}

void __wex_note_awaited_gone(wex_pid* rec, int64_t ended_by_ns) {
  if (awaits_end(rec)) {
    note_end_of_awaited(rec, 0);
    rec->awaited_ended_by_ns = ended_by_ns;
  }
}

void __wex_note_awaited_birth(int32_t pid, int64_t time_ns) {
  if (!g_any_awaited) {
    return;
  }
  record_walk walk(wex_chains);
  while (wex_pid* const rec = walk.next()) {
    if (awaits_end(rec) && rec->awaited == pid && wex_is_anothers_birth(rec->awaited_ns, time_ns)) {
      note_end_of_awaited(rec, 0);
    }
  }
}

void wex_log_restarted(wex_pid* rec, const wex_action& action, const restart_case& after, int line) {
  const char* const name = wex_program_name(rec);
  if (after.logs_exit && rec->exit_signal == 0) {
    printk_syslog_ext(5, "HA", "HA_RE_INIT_INFO", 1, "Re-initialized OK: new job id: %d.\n", rec->pid);
  } else {
    printk_syslog_ext(5, "HA", action.done, 1, "Self-checking OK: %d times and new id %s/%d.\n",
                      rec->check_count, name, rec->pid);
  }
  if (wex_dbg_on(WEX_DBG_PUB)) {
    wex_dbg_print(after.module, line, "%s Self-checking OK: %d times and new id %s/%d.\n",
                  after.logs_exit ? action.done_print : action.done, rec->check_count, name, rec->pid);
  }
}

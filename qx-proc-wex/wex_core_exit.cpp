// wex_core_exit: what happens to a registered process that has exited. The registry stays locked for the
// whole of one exit, the spawn included, so exits are handled one at a time.
#define WEX_MODULE "wex_core"
#include "wex_core_exit.h"

#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "chain_lock.h"
#include "guarded_file.h"
#include "waiting.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_chain_list.h"
#include "wex_chain_user.h"
#include "wex_core_crash.h"
#include "wex_core_delay.h"
#include "wex_core_pause.h"
#include "wex_core_restart.h"
#include "wex_core_sweep_request.h"
#include "wex_core_takedown.h"
#include "wex_core_third_part.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_move_aside.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"
#include "wex_vsd.h"

extern "C" {
int32_t wex_event_log_count = 0;
}

namespace {

constexpr char kHandler[] = "wex_handle_netlink_exit";
constexpr uint32_t kStoppedOnPurpose = 15;  // killed by SIGTERM, no core

// Restart events 1 to 5 go to the first event-log file, 6 to 10 to the second.
constexpr int32_t kFirstFileLast = 5;
constexpr int32_t kSecondFileLast = 10;

// ---- before the decision ----------------------------------------------------------------------------------

// True when the record's process has not exited: a thread of it executed a program, or the pid was registered
// again by a later process. Later exits of it must count, and be looked for when they get lost.
bool still_runs(wex_pid* rec) {
  const process_look now = wex_look_at(rec->pid);
  if (wex_judge_exit_of(rec, now, rec->exit_tick) != exit_verdict::runs) {
    return false;
  }
  rec->start_time = now.start_time;
  rec->seen_ns = wex_clock_ns();
  rec->exit_seen = 0;
  rec->ended_by_ns = 0;
  rec->restart_failed = 0;
  rec->exit_tick = 0;
  rec->gone_since = 0;
  wex_status_refresh(rec);
  wex_request_sweep();
  return true;
}

void drop_registration(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  wex_free_record(__wex_recycle_registration(rec));
}

bool has_anothers_pid(const wex_pid* rec) {
  const process_look now = wex_look_at(rec->pid);
  return rec->start_time != 0 && now.sight == process_look::seen && now.start_time != rec->start_time;
}

// True also when another process has got the pid: it is alive, but not the record's process.
bool is_dead(const wex_pid* rec) {
  // Asked first, because process_life() looks several times before it believes a zombie.
  return wex_surely_dead(wex_look_at(rec->pid)) || process_life(rec->pid) < 0 || has_anothers_pid(rec);
}

// True when the record was dropped because its program runs under another registration.
bool dropped_as_duplicate(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const other = wex_proc_is_running(rec);
  if (other == nullptr) {
    return false;
  }
  wex_dbg(WEX_DBG_PUB, "%s--> %s is running!\n", kHandler, rec->process);
  if (other == rec) {
    wex_dbg(WEX_DBG_PUB, "%s--> del %d\n", kHandler, rec->pid);
    wex_status_tell(WEX_STATUS_EV_HANDED_OVER, rec);
    drop_registration(rec);
    return true;
  }
  if (is_dead(other)) {
    wex_status_tell(WEX_STATUS_EV_REPLACED, other, {0, rec->pid});
    drop_registration(other);
    return false;
  }
  wex_dbg(WEX_DBG_PUB, "%s--> pid %d alive, del %d\n", kHandler, other->pid, rec->pid);
  wex_status_tell(WEX_STATUS_EV_HANDED_OVER, rec, {0, other->pid});
  drop_registration(rec);
  return true;
}

// A process that has got the pid meanwhile may have registered threads of its own.
void drop_thread_registrations(const wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  const int32_t pid = rec->pid;
  chain_lock hold(wex_alive_chains);
  record_walk walk(wex_alive_chains);
  while (wex_pid* const thread = walk.next()) {
    if (thread->ppid != pid) {
      continue;
    }
    if (has_anothers_pid(rec)) {
      return;
    }
    wex_dbg(WEX_DBG_PUB, "%s: delete pid (%d) ppid (%d) from chain!\n", "wex_del_node_chain", thread->pid,
            pid);
    __wex_drop_thread(&wex_alive_chains, thread);
  }
}

// ---- stopped on purpose -----------------------------------------------------------------------------------

bool change_dir(const char* path) {
  if (wex_chdir(path) == 0) {
    return true;
  }
  wex_dbg(WEX_DBG_PUB, "%s: chdir %s fail: %s\n", kHandler, path, strerror(errno));
  return false;
}

void log_refused(const char* name) {
  wex_dbg(WEX_DBG_PUB, "%s: open %s fail: %s\n", kHandler, name, strerror(errno));
}

bool remove_flag_file(int32_t vsd, int32_t pid) {
  char path[kPathSize];
  wex_name_flag_dir(vsd, path);
  if (!change_dir(path)) {
    return false;
  }
  if (!wex_remove_checked_flag_file(vsd, pid, log_refused)) {
    wex_dbg(WEX_DBG_PUB, "%s: opendir fail: %s\n", kHandler, strerror(errno));
    return false;
  }
  return true;
}

void drop_stopped(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  const int32_t pid = wex_last_process(rec);
  const int32_t vsd = pid > 0 ? wex_domain_of(rec, pid) : -1;
  wex_dbg(WEX_DBG_PUB, "%s--> vsd_no = %d\n", kHandler, vsd);
  wex_status_tell(WEX_STATUS_EV_STOPPED, rec, {0, 0, rec->exit_signal});
  if ((vsd >= kFirstDomain && !remove_flag_file(vsd, pid)) || !change_dir(kRootDir)) {
    wex_note_failed(rec);  // the record stays with a dead pid: the program's next process takes its place
    return;
  }
  wex_dbg(WEX_DBG_PUB, "%s: hlist_del\n", kHandler);
  __wex_drop_registration(rec);
}

// ---- event log --------------------------------------------------------------------------------------------

// The file that the present count belongs to: 1, 2, or 0 for neither.
int event_file() WEX_TSA(requires_capability(wex_chains)) {
  if (wex_event_log_count <= kFirstFileLast) {
    return 1;
  }
  return wex_event_log_count <= kSecondFileLast ? 2 : 0;
}

// Nothing is restarted while it cannot be opened, so in strict mode what a user has put there makes room.
bool make_room_for_log(const char* path) {
  char aside[kPathSize];
  const int cause = errno;
  const bool moved = wex_strict().on && !wex_counts(path) && wex_clear_name(path, aside);
  errno = cause;
  return moved;
}

bool open_event_log(int file) WEX_TSA(requires_capability(wex_chains)) {
  const char* const path = file == 1 ? kEventLog1 : kEventLog2;
  if (wex_openlog(path) == 0 || (make_room_for_log(path) && wex_openlog(path) == 0)) {
    return true;
  }
  wex_dbg(WEX_DBG_PUB, "fail to openlog: %s\n", strerror(errno));
  return false;
}

// False when the event log is wanted but cannot be written: then nothing is restarted.
bool log_announcement(const wex_action& action, const char* name, int32_t pid, uint32_t code)
    WEX_TSA(requires_capability(wex_chains)) {
  if (debug_log() != 0) {
    return true;
  }
  // Kept: a failed tenth restart leaves the count above ten for good, see docs/decisions.md.
  ++wex_event_log_count;
  const int file = event_file();
  if (file == 0) {
    return true;
  }
  if (!open_event_log(file)) {
    return false;
  }
  if (action.bare_begun == file) {
    wex_log("%%HA-5-%s: Process:%s/%d receives internal event: %04x and restarts.\n", action.begun_entry,
            name, pid, code);
  } else {
    wex_log("%%HA-5-%s: Process:[%s/%d] receives internal event:[0x%04x] and restarts.\n", action.begun_entry,
            name, pid, code);
  }
  wex_closelog();
  return true;
}

void remove_event_log(const char* path, const char* name) {
  if (wex_unlink(path) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: remove %s fail: %s\n", kHandler, name, strerror(errno));
  }
}

void log_success(const wex_action& action, wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  const int file = debug_log() == 0 ? event_file() : 0;
  if (file == 0 || !open_event_log(file)) {
    return;
  }
  const char* const name = wex_program_name(rec);
  if (action.bare_done == file) {
    wex_log("%%HA-5-%s: Process:%s restarts %d times and new process is %s/%d.\n", action.done_entry, name,
            rec->check_count, name, rec->pid);
  } else {
    wex_log("%%HA-5-%s: Process:[%s] restarts [%d] times and new process is [%s/%d].\n", action.done_entry,
            name, rec->check_count, name, rec->pid);
  }
  wex_closelog();
  if (wex_event_log_count == kFirstFileLast) {
    remove_event_log(kEventLog2, "wex_log2");
  } else if (wex_event_log_count == kSecondFileLast) {
    remove_event_log(kEventLog1, "wex_log1");
    wex_event_log_count = 0;
  }
}

// ---- restart ----------------------------------------------------------------------------------------------

// The restarts of a user's program count on when it detaches, which is a hand-over: he could else have it
// started without end. Of root's the search that follows its start finds the detached process. The pid may
// still be another one's.
void keep_throttle(const wex_pid& before, int32_t pid) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const rec = __wex_find_pid(&wex_chains, pid);
  if (rec != nullptr && wex_is_users(rec) && wex_same_user(&before, rec)) {
    rec->flags = before.flags;
    rec->check_count = before.check_count;
    rec->check_start = before.check_start;
    rec->reboot_allow = before.reboot_allow;
    rec->reboot_ref_time = before.reboot_ref_time;
  }
}

// A third-part program that started itself again is registered under its new pid. When that process has ended
// before it could be registered, the program is still to be restarted, and `*handed` is its new record. While
// the pid is kept by a registration that waits for its restart, this one keeps its record and its file:
// nobody else knows of the program, and the sweep comes back here, be the process alive or not.
bool handed_over(wex_pid** handed, const wex_action& action) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const rec = *handed;
  char type[256];
  int32_t child = 0;
  if (wex_proc_in_wexdb(kThirdPartList, rec->process, type, sizeof type) != 1 ||
      !wex_find_running(rec->process, &child, rec)) {
    return false;
  }
  wex_dbg(WEX_DBG_PUB, "%s--> wex_pid->action == %s, found child pid_get = %d\n", kHandler, action.name,
          child);
  if (__wex_await_hand_over(rec, child)) {
    return true;
  }
  wex_pid before = *rec;
  wex_status_slot shown = {};
  wex_status_copy_slot_of(rec, &shown);
  wex_pid* const memory = __wex_recycle_registration(rec);
  before.status_slot = 0;  // it was the old record's, and may be another's by now
  if (wex_register_third_part(child, action.keyword, memory) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s-->reg_third_part_process_exit_action error!\n", kHandler);
    // Not when /proc cannot be read: a second instance does more harm than one that is not registered.
    if (wex_surely_dead(wex_look_at(child))) {
      *handed = __wex_restore_record(&wex_chains, before);
      wex_status_restore_slot(*handed, shown);
      return false;
    }
  }
  keep_throttle(before, child);
  wex_status_tell(WEX_STATUS_EV_HANDED_OVER, &before, {0, child});
  return true;
}

// Logs the restart that begins; false when nothing may be restarted.
bool announce(wex_pid* rec, const wex_action& action) WEX_TSA(requires_capability(wex_chains)) {
  const uint32_t code = rec->exit_signal;
  const char* const name = wex_program_name(rec);
  if (code == 0) {
    printk_syslog_ext(5, "HA", "HA_RE_INIT", 1, "Job %s/%d will be re-initialized ...\n", name, rec->pid);
  } else {
    printk_syslog_ext(5, "HA", action.announced, 1, "Task: %s/%d receives event:%04x and self-checking ...\n",
                      name, rec->pid, code);
  }
  wex_dbg(WEX_DBG_PUB, "%s Task: %s/%d receives event:%04x and self-checking ...\n", action.announcement,
          name, rec->pid, code);
  return log_announcement(action, name, rec->pid, code);
}

// The pause before a restart is shown from its beginning until the restart is made, which others wait for,
// too.
struct shown_pause {
  explicit shown_pause(const wex_pid* rec) noexcept WEX_TSA(requires_capability(wex_chains)) {
    wex_status_pause(rec);
  }
  ~shown_pause() { wex_status_pause_over(); }
  shown_pause(const shown_pause&) = delete;
  shown_pause& operator=(const shown_pause&) = delete;
};

void start_again(wex_pid* rec, const wex_action& action) WEX_TSA(requires_capability(wex_chains)) {
  if (del_dev_mon_log() < 0 && !announce(rec, action)) {
    wex_note_failed(rec);
    wex_status_tell(WEX_STATUS_EV_FAILED, rec);
    return;
  }
  if (__wex_start_again(&wex_chains, rec, action, kAfterExit) > 0 && del_dev_mon_restart() < 0) {
    wex_log_restarted(rec, action, kAfterExit, __LINE__);
    log_success(action, rec);
  }
}

void restart(wex_pid* rec, const wex_action& action) WEX_TSA(requires_capability(wex_chains)) {
  if (handed_over(&rec, action)) {
    return;
  }
  if (rec->restart_delay <= 0 || wex_pause_is_over(rec)) {
    start_again(rec, action);
    return;
  }
  if (wex_begin_pause(rec)) {
    return;
  }
  // The pause that the program asked for; other restarts wait behind it. Cut short when the daemon ends: a
  // program without a database file would be unknown to the next one.
  const shown_pause shown(rec);
  wex_wait_with_registry(int64_t{rec->restart_delay} * 1000);
  if (!__wex_dropped_with_domain(rec)) {  // its domain may have gone while it waited
    start_again(rec, action);
  }
}

void restart_by_action(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  const wex_action* const action = wex_find_action(rec->action);
  if (action == nullptr) {
    wex_status_down(rec);  // its record stays, and nothing is started
    return;
  }
  if (action->through_shell) {
    wex_dbg(WEX_DBG_PUB, "process: %s, pid: %d\n", rec->process, rec->pid);
  }
  restart(rec, *action);
}

// What is known of an end that is handled.
struct known_end {
  bool reported;  // it was told before: a postponed one comes here a second time
  bool of_all;    // of the threads as well
};

// Reports the end of the record's process once.
void report_ended(const wex_pid* rec, uint32_t exit_signal, int32_t force_restart, bool reported) {
  if (!reported) {
    wex_status_tell(WEX_STATUS_EV_EXITED, rec, {0, 0, exit_signal});
  } else if (force_restart == 1) {
    wex_status_tell(WEX_STATUS_EV_FORCED, rec, {0, 0, exit_signal});
  }
}

// When only the main thread has ended, the others may dump core at any time from now on.
bool has_threads_left(const wex_pid* rec) {
  const process_look now = wex_look_at(rec->pid);
  return now.sight == process_look::seen && now.start_time == rec->start_time &&
         wex_is_dead_state(now.state) && now.threads > 1;
}

void note_ended(wex_pid* rec, const known_end& end) {
  if (!end.of_all && has_threads_left(rec)) {
    wex_note_ended(rec, INT64_MAX);
  } else {
    wex_note_found_ended(rec);
  }
}

void decide(wex_pid* rec, uint32_t exit_signal, int32_t force_restart, const known_end& end)
    WEX_TSA(requires_capability(wex_chains)) {
  if (__wex_dropped_with_domain(rec) || dropped_as_duplicate(rec)) {
    return;
  }
  if (rec->alarm_wait_flag == 1) {
    wex_dbg(WEX_DBG_PUB, "%s--> alarm_wait_flag = %d\n", kHandler, rec->alarm_wait_flag);
    return;
  }
  drop_thread_registrations(rec);
  rec->exit_signal = exit_signal;
  rec->force_restart = force_restart;
  rec->exit_seen = 1;
  note_ended(rec, end);
  if (wex_proc_restart_delay(rec) != 0) {
    return;
  }
  wex_dbg(WEX_DBG_PUB, "%s--> exit_signal = %d\n", kHandler, static_cast<int>(exit_signal));
  if (exit_signal == kStoppedOnPurpose) {
    drop_stopped(rec);
    return;
  }
  restart_by_action(rec);
}

// The record's process has ended.
void handle_ended(wex_pid* rec, uint32_t exit_signal, int32_t force_restart, const known_end& end)
    WEX_TSA(requires_capability(wex_chains)) {
  report_ended(rec, exit_signal, force_restart, end.reported);
  decide(rec, exit_signal, force_restart, end);
}

// `ended_start`: the start time of a process that is known to have ended, or 0. Another process of the same
// pid, registered since, has another one.
void handle_exit(wex_pid* rec, uint32_t exit_signal, int32_t force_restart, uint64_t ended_start)
    WEX_TSA(requires_capability(wex_chains)) {
  if (rec == nullptr || rec->delay_start > 0) {
    return;  // or the end of a stranger that has got the pid during the pause
  }
  const bool known_ended = ended_start != 0 && rec->start_time == ended_start;
  if (known_ended || !still_runs(rec)) {
    handle_ended(rec, exit_signal, force_restart,
                 {rec->exit_seen != 0 || wex_status_waits(rec), known_ended});
  }
}

// The exit of the process that started at `start_time` was not reported. It may have come after all, or the
// pid may belong to somebody else, since that was found. Without a status the cause is what the record knows.
void handle_lost(int32_t pid, uint32_t status, uint64_t start_time) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const rec = __wex_find_ended(pid, start_time);
  if (rec == nullptr || rec->exit_seen != 0 || still_runs(rec)) {
    return;
  }
  const uint32_t exit_signal = status != 0 ? status : rec->known_code;
  const bool reported = wex_status_waits(rec);  // one that waits for its hand-over comes here many times
  if (!reported) {
    wex_status_tell(WEX_STATUS_EV_LOST_EXIT, rec, {0, 0, exit_signal});
  }
  handle_ended(rec, exit_signal, 0, {reported, false});
}

// The record whose start of this number is still without a process, or null.
wex_pid* find_missed(uint32_t start) WEX_TSA(requires_capability(wex_chains)) {
  record_walk walk(wex_chains);
  wex_pid* rec = walk.next();
  while (rec != nullptr && rec->missed_start != start) {
    rec = walk.next();
  }
  return rec;
}

void handle_missed(uint32_t start, uint32_t status) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const rec = find_missed(start);
  if (rec == nullptr) {
    return;
  }
  wex_dbg(WEX_DBG_PUB, "%s--> %s ended before it was found\n", kHandler, rec->process);
  rec->missed_start = 0;
  handle_ended(rec, status, 0, {rec->alarm_wait_flag == 1, true});
}

// What wex_drop_taken_down() does for an exit, here by the start: several such records may have no pid.
bool drop_missed(uint32_t start) {
  if (!wex_take_down_under_way()) {
    return false;
  }
  chain_lock hold(wex_chains);
  if (wex_pid* const rec = find_missed(start)) {
    wex_status_tell(WEX_STATUS_EV_DROPPED, rec);
    __wex_drop_registration(rec);
  }
  return true;
}

void count_crash(uint32_t start) {
  {
    chain_lock hold(wex_chains);
    wex_pid* const rec = find_missed(start);
    if (rec == nullptr) {
      return;
    }
    __wex_note_crash(rec);
  }
  wex_judge_crashes();
}

// Runs `handle` with the registry locked and memory for a postponed restart at hand.
template <typename Handle>
void with_reserve(const Handle& handle) {
  for (;;) {
    wex_reserve_delay();  // may wait for memory, so nothing is held yet
    chain_lock hold(wex_chains);
    if (wex_delay_reserved()) {  // or another exit has taken it meanwhile
      handle();
      return;
    }
  }
}

}  // namespace

extern "C" {

void wex_handle_netlink_exit(int32_t pid, uint32_t exit_signal, int32_t force_restart) {
  with_reserve([=]() WEX_TSA(requires_capability(wex_chains)) {
    wex_pid* const rec = __wex_find_pid(&wex_chains, pid);
    handle_exit(rec, exit_signal, force_restart, 0);
  });
}

void wex_handle_missed_exit(uint32_t start, uint32_t status, bool forked) {
  if (drop_missed(start)) {
    return;
  }
  if (forked && WCOREDUMP(status)) {
    count_crash(start);
  }
  with_reserve([=]() WEX_TSA(requires_capability(wex_chains)) { handle_missed(start, status); });
}

}  // extern "C"

void wex_handle_lost_exit(int32_t pid, uint32_t status, uint64_t start_time) {
  with_reserve([=]() WEX_TSA(requires_capability(wex_chains)) { handle_lost(pid, status, start_time); });
}

void wex_handle_judged_exit(int32_t pid, uint32_t exit_signal, uint64_t ended_start) {
  with_reserve([=]() WEX_TSA(requires_capability(wex_chains)) {
    wex_pid* const rec = __wex_find_pid(&wex_chains, pid);
    handle_exit(rec, exit_signal, 0, ended_start);
  });
}

void wex_hand_back_restart(const ready_restart& ready) {
  with_reserve([&ready]() WEX_TSA(requires_capability(wex_chains)) {
    wex_pid* const rec = __wex_find_postponed(&wex_chains, ready.pid, ready.number);
    handle_exit(rec, ready.exit_signal, ready.force_restart, 0);
  });
}

void wex_restart_paused() {
  bool any = wex_any_pause();
  while (any) {
    with_reserve([&any]() WEX_TSA(requires_capability(wex_chains)) {
      wex_pid* const rec = __wex_find_ended_pause();
      any = rec != nullptr;
      if (rec != nullptr) {
        decide(rec, rec->exit_signal, 1,
               {true, false});  // that its file is unlocked was seen before the pause
      }
    });
  }
}

void wex_handle_missed_exits() {
  // What is started meanwhile is left to the next call, or a program that cannot be forked would keep the
  // alarm thread here.
  const uint32_t last = wex_last_start();
  missed_exit missed;
  while (wex_take_ended_start(last, &missed)) {
    wex_handle_missed_exit(missed.start, missed.status, missed.forked);
  }
}

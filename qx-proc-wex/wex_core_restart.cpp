// wex_core_restart: a record's program is started again, and the record follows its new process.
#include "wex_core_restart.h"

#include "wex_chain.h"
#include "wex_chain_user.h"
#include "wex_clock.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_sweep_request.h"
#include "wex_core_third_part.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_proc_child.h"
#include "wex_status_image.h"
#include "wex_strict.h"
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

bool __wex_await_hand_over(wex_pid* rec) {
  if (rec->pid < 1 && (rec->pid >= -1 || !wex_strict().on)) {
    return false;
  }
  rec->start_time = kStartOfNobody;
  rec->thread_of = 0;
  rec->exit_seen = 0;
  rec->exit_tick = 0;
  rec->known_code = 0;  // the end that is to come is that of the other process
  rec->missed_start = 0;
  rec->delay_start = 0;
  rec->gone_since = wex_clock_now() + kHandOverAgainSec;
  wex_note_failed(rec);
  wex_status_waiting(rec);
  wex_request_sweep();
  return true;
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

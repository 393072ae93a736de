// wex_core_restart: a record's program is started again, and the record follows its new process.
#include "wex_core_restart.h"

#include "wex_core_spawn_guard.h"
#include "wex_dbg.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_proc_child.h"
#include "wex_utils.h"

int32_t __wex_start_again(wex_chains_t* chain, wex_pid* rec, const wex_action& action,
                          const restart_case& after) {
  const spawn_guard guard;
  int32_t new_pid = -1;
  const int32_t result = wex_spawn_as(action, rec, &new_pid);
  if (result < 1 && after.needs_process) {
    rec->restart_failed = result == 0 ? 1 : 0;
    return result;
  }
  // Nothing slow from here on: killed now, the daemon would find the old file and start a second instance.
  __wex_adopt_pid(chain, rec, new_pid);
  if (!wex_child_has_normal_lmk(new_pid)) {
    wex_reset_lmk(new_pid);
  }
  rec->restart_failed = new_pid < 1 ? 1 : 0;
  if (after.may_postpone_next) {
    rec->force_restart = 0;
  }
  return result;
}

void wex_log_restarted(wex_pid* rec, const wex_action& action, const restart_case& after) {
  const char* const name = wex_program_name(rec);
  if (after.logs_exit && rec->exit_signal == 0) {
    printk_syslog_ext(5, "HA", "HA_RE_INIT_INFO", 1, "Re-initialized OK: new job id: %d.\n", rec->pid);
  } else {
    printk_syslog_ext(5, "HA", action.done, 1, "Self-checking OK: %d times and new id %s/%d.\n",
                      rec->check_count, name, rec->pid);
  }
  wex_dbg_as(after.module, WEX_DBG_PUB, "%s Self-checking OK: %d times and new id %s/%d.\n",
             after.logs_exit ? action.done_print : action.done, rec->check_count, name, rec->pid);
}

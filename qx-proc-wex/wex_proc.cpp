// wex_proc: starting and restarting the program, or the restart script, of a record.
//
// Both spawners are one procedure; the action holds all they differ in. The caller holds wex_chains for the
// whole of it, so only one spawn is under way at a time.
#define WEX_MODULE "wex_proc"
#include "wex_proc.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "dir_walk.h"
#include "own_scheduling.h"
#include "safe_io.h"
#include "signals_held.h"
#include "text_buffer.h"
#include "text_number.h"
#include "waiting.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_chain_list.h"
#include "wex_clock.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_stop.h"
#include "wex_core_takedown.h"
#include "wex_core_third_part.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_domain_present.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_proc_child.h"
#include "wex_signals_reaper.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"
#include "wex_utils_settings.h"
#include "wex_vsd.h"

namespace {

int g_fork_failures WEX_TSA(guarded_by(wex_chains)) = 0;  // in a row

// ---- throttle ---------------------------------------------------------------------------------------------

// Keeps what is left of a pending alarm, so that the earlier of the two deadlines holds.
void arm_alarm(int32_t wait) {
  const unsigned left = alarm(0);
  const unsigned whole = wait > 0 ? static_cast<unsigned>(wait) : 0;
  alarm(left >= 1 && left <= whole ? left : whole);
}

void park(wex_pid* rec, const wex_action& action, int32_t now, int32_t wait) {
  const char* const name = wex_program_name(rec);
  printk_syslog_ext(
      5, "HA", action.parked, 1,
      "Task: %s had checked more than 5 times. After %d mimutes, task will finish self-checking.\n", name,
      wait / 60);
  wex_dbg(WEX_DBG_PUB,
          "%s Task: %s had checked more than 5 times. After %d mimutes, task will finish self-checking.\n",
          action.parked, name, wait / 60);
  rec->flags = (rec->flags & ~static_cast<uint32_t>(WEX_FLAG_SELF_CHECKING)) | WEX_FLAG_WAITING;
  rec->check_start = now;
  arm_alarm(wait);
  rec->alarm_wait_flag = 1;
  wex_status_tell(WEX_STATUS_EV_PARKED, rec, {0, 0, rec->exit_signal, wait});
  if (wex_reboot_is_due(rec, now)) {
    wex_reboot_for(rec);
  }
}

// True when the record was parked: nothing is started now.
bool throttled(wex_pid* rec, const wex_action& action, int32_t now, int32_t wait) {
  if (rec->action != action.number) {
    return false;
  }
  if (now < static_cast<int64_t>(rec->check_start) + kThrottleWindowSec) {
    ++rec->check_count;
  } else {
    rec->check_count = 1;
    rec->check_start = now;
  }
  if (rec->check_count < kThrottleRestarts || del_dev_mon_log() == 0) {
    return false;
  }
  park(rec, action, now, wait);
  return true;
}

// ---- what is executed -------------------------------------------------------------------------------------

// The command map names a script by the program's base name; a bare word names it without the extension.
void find_script(const char* word, char* script, size_t size) {
  const char* const base = strrchr(word, '/');
  if (base != nullptr) {
    wex_format(script, size, "%s%s.sh", kCommandMap, base);
  } else {
    wex_format(script, size, "%s/%s", kCommandMap, word);
  }
}

// One that has given its pid up is of the domain in which it is registered, also without a flag file. So is
// any in strict mode: users may have left no room for the file.
bool may_lack_flag_file(const wex_pid* rec) {
  return (wex_strict().on || rec->pid < -1) && rec->vsd >= kFirstDomain && rec->vsd < WEX_DOMAINS &&
         (wex_domains_present() >> rec->vsd & 1) != 0;
}

void prepare(launch* start, const wex_action& action, wex_pid* rec) {
  start->action = &action;
  start->rec = rec;
  start->user = wex_user_of(rec);
  start->old_pid = wex_last_process(rec);
  start->domain = start->old_pid > 0 ? wex_domain_of(rec, start->old_pid) : -1;
  if (start->domain < 0 && may_lack_flag_file(rec)) {
    start->domain = rec->vsd;
  }
  char word[256];
  // A user's is not looked for: it could hide, and have the registry locked for as long as the looks take. If
  // it detaches, the exit of this child hands it over.
  start->third_part =
      !wex_is_users(rec) && wex_proc_in_wexdb2(kThirdPartList, rec->process, word, sizeof word) == 1;
  const bool scripted = action.through_shell && rec->script[0] != '\0';
  split_words(scripted ? rec->script : rec->process, &start->words);
  if (!action.through_shell) {
    return;
  }
  find_script(wex_first_word(*start), start->script, sizeof start->script);
  // The shell and the script take the place of the first word.
  for (int i = start->words.count; i >= 1; --i) {
    start->words.argv[i + 1] = start->words.argv[i];
  }
  start->words.argv[1] = start->script;
  start->words.argv[0] = const_cast<char*>(kShell);
}

// ---- searching --------------------------------------------------------------------------------------------

enum class at_ended { stop, go_on };

// One look through /proc. 1 found, `before` when there is no match, the negated errno when it had to stop, or
// has gone on without some process, for that one has ended meanwhile or could not be read.
int scan_processes(const char* command, int32_t* out_pid, int before, const wex_pid* rec, int32_t child,
                   at_ended what) {
  dir_walk processes(kProcDir);
  if (!processes.valid()) {
    return -errno;
  }
  while (const dirent* const entry = processes.next()) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
      continue;
    }
    struct stat look;
    if (fstatat(processes.fd(), entry->d_name, &look, 0) != 0) {
      before = -errno;
      if (what == at_ended::stop) {
        return before;
      }
      continue;
    }
    if (!S_ISDIR(look.st_mode)) {
      continue;
    }
    const int32_t pid = text_to_number(entry->d_name);
    // First, for another user may have made his arguments a memory whose reading waits for him.
    char text[1024] = "";
    errno = 0;
    const bool whole = (rec == nullptr || pid == child || wex_runs_as(pid, rec)) &&
                       wex_read_command(pid, text, sizeof text) == command_read::whole;
    if (!whole && short_for_a_moment(errno)) {
      before = -errno;
    }
    rtrim(text);
    if (text[0] != '\0' && strcmp(text, command) == 0) {
      *out_pid = pid;
      return 1;
    }
  }
  return processes.failed() ? -errno : before;
}

// As wex_proc_to_pid; `rec` says as which user the process must run unless it is `child`, null that it may be
// any.
int look_for_process(char* command, int32_t* out_pid, int tries, const wex_pid* rec, int32_t child) {
  rtrim(command);
  int result = 0;
  for (int scan = 1;; ++scan) {
    result = scan_processes(command, out_pid, result, rec, child, at_ended::stop);
    if (scan > tries || result == 1) {
      return result;
    }
    wex_status_show_soon();
    wex_sleep_ms(scan * kFindStepMs);
  }
}

// ---- parent -----------------------------------------------------------------------------------------------

// The end of the child, or that there was none, is to count as one more exit of the record.
void remember_missed(wex_pid* rec, pid_t child) WEX_TSA(requires_capability(wex_spawn_mutex)) {
  if (child > 0) {
    rec->missed_child = static_cast<int32_t>(child);
  }
  rec->missed_start = wex_remember_start(child, rec->exit_signal);
}

// Removes the flag file of a child that has handed over to another process and has ended: nothing else would.
// While the child lives, the take-down of its domain needs the file.
void drop_flag_file_of_dead(int32_t domain, pid_t child) {
  const process_look now = wex_look_at(static_cast<int32_t>(child));
  if (child > 0 && (wex_surely_dead(now) || now.exiting)) {
    wex_remove_flag_files(domain, static_cast<int32_t>(child));
  }
}

// The process of a third-part program, which may have detached from the child. Its pid, or 0.
int32_t find_third_part(const launch& start, pid_t child, int32_t* out_pid)
    WEX_TSA(requires_capability(wex_spawn_mutex)) {
  wex_pid* const rec = start.rec;
  char* const whole = rec->process;
  char* const wanted =
      start.action->through_shell || start.words.argv[0] == nullptr ? whole : start.words.argv[0];
  const char* const function = start.action->spawner;
  int32_t found = 0;
  bool running = look_for_process(wanted, &found, kFindTries, rec, child) == 1;
  if (!running) {
    // The program's arguments are part of its command line, so the first word alone finds only bare programs.
    // And the last look may have been cut short.
    running = wex_find_running(whole, &found, rec, child);
  }
  if (running && found == child) {
    wex_dbg(WEX_DBG_PUB, "%s--> third part Normal[%s] new pid: %d\n", function, wanted, found);
  } else if (found != 0) {
    wex_dbg(WEX_DBG_PUB, "%s--> third part Daemon[%s] new pid: %d\n", function, wanted, found);
  } else {
    wex_dbg(WEX_DBG_PUB, "%s--> third part[%s] Not Found new pid!\n", function, wanted);
    remember_missed(rec, child);
    return 0;
  }
  if (found != child && start.domain >= kFirstDomain) {
    wex_save_proc_info_of(0, start.domain, found);  // or it would be restarted in the main system
    drop_flag_file_of_dead(start.domain, child);
  }
  *out_pid = found;
  return found;
}

// A device without memory may be unable to fork as well as to write the fork-failure file, so failures are
// counted in memory, too.
void note_fork_failure(const launch& start, int error) WEX_TSA(requires_capability(wex_chains)) {
  ++g_fork_failures;
  if (wex_mk_forkfile() != 0 && g_fork_failures >= kForkFailuresFatal) {
    wex_end_unable_to_restart();
  }
  wex_dbg(WEX_DBG_PUB, "%s--> fork fail, err: %s(%d)\n", start.action->spawner, strerror(error), error);
}

// Waits until the fork is to be repeated. While the daemon ends that is soon, and false after as many
// failures as end it anyway: the next daemon restarts every program that has a database file and no process.
bool may_retry_fork() WEX_TSA(requires_capability(wex_chains)) {
  wex_wait_with_registry(static_cast<int64_t>(kForkRetrySec) * 1000);
  if (wex_exit_flag.load(std::memory_order_relaxed) == 0) {
    return true;
  }
  wex_sleep_ms(kForkRetryAtEndMs);
  return g_fork_failures < kForkFailuresFatal;
}

// One round of the fork loop. The result of the spawn, or -1 when the fork failed and is to be repeated.
int32_t try_start(const launch& start, int32_t* out_pid, int* error)
    WEX_TSA(requires_capability(wex_chains, wex_spawn_mutex)) {
  const signals_held hold(SIGCHLD);
  const pid_t child = wex_start_child(start);
  *error = errno;
  if (child > 0) {
    g_fork_failures = 0;
  }
  if (start.third_part) {
    return find_third_part(start, child, out_pid);
  }
  const char* const shown = start.action->through_shell ? start.rec->process : wex_first_word(start);
  wex_dbg(WEX_DBG_PUB, "%s--> wex_pid->process = %s, new pid: %d\n", start.action->spawner, shown,
          static_cast<int>(child));
  *out_pid = static_cast<int32_t>(child);
  return *out_pid;
}

}  // namespace

int32_t wex_spawn_as(const wex_action& action, wex_pid* rec, int32_t* out_pid) {
  *out_pid = -1;
  const int32_t now = wex_clock_now();
  if (rec->check_start == 0) {
    rec->check_start = now;
  }
  const int32_t wait = debug_time();
  if (wait < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: get disable time fail: %s\n", action.spawner, strerror(errno));
  }
  rec->flags |= WEX_FLAG_SELF_CHECKING;
  if (throttled(rec, action, now, wait)) {
    return -1;
  }
  launch start;
  prepare(&start, action, rec);
  while (true) {
    int error = 0;
    {
      const spawn_guard guard;
      const int32_t result = try_start(start, out_pid, &error);
      if (result != -1) {
        return result;
      }
    }
    note_fork_failure(start, error);
    wex_chld_handler(SIGCHLD);  // our zombies count as processes: reaping them may make room for the child
    if (!may_retry_fork()) {
      return -1;
    }
  }
}

bool wex_reboot_is_due(const wex_pid* rec, int32_t now) {
  return rec->reboot_allow > 0 && wex_may_restart_device(rec) &&
         static_cast<int64_t>(now) - rec->reboot_ref_time < kRebootWindowSec;
}

void wex_reboot_for(const wex_pid* rec) {
  char reason[128];
  wex_format(reason, sizeof reason, "detect process %s can not restart, so restart system.\n", rec->process);
  wex_reboot(reason, nullptr);
}

// Others that end while /proc is being read say nothing about the one that is looked for. Where some did it
// may have been the one, and have left another, so there is one more look.
bool wex_find_running(char* command, int32_t* out_pid, const wex_pid* rec, int32_t child) {
  rtrim(command);
  int result = -1;
  for (int look = 0; result < 0 && look < kRunningLooks; ++look) {
    result = scan_processes(command, out_pid, 0, rec, child, at_ended::go_on);
  }
  return result == 1;
}

extern "C" {

int32_t wex_spawn(wex_pid* rec, int32_t* out_pid) {
  return wex_spawn_as(kRespawn, rec, out_pid);
}

int32_t wex_shell_spawn(wex_pid* rec, int32_t* out_pid) {
  return wex_spawn_as(kShellRestart, rec, out_pid);
}

int wex_proc_to_pid(char* command, int32_t* out_pid, int tries) {
  if (command == nullptr || out_pid == nullptr) {
    return -1;
  }
  return look_for_process(command, out_pid, tries, nullptr, 0);
}

int wex_proc_in_wexdb2(const char* list_path, const char* command, char* word, size_t size) {
  char line[1024];
  if (wex_list_find(list_path, command, line, sizeof line) != 1) {
    return 0;
  }
  const char* const blank = strrchr(line, ' ');
  wex_copy_text(word, size, blank != nullptr ? blank + 1 : line);
  return 1;
}

int wex_set_priority(int priority) {
  return set_own_scheduling(SCHED_FIFO, priority);
}

int wex_reset_priority(void) {
  return set_own_scheduling(SCHED_OTHER, 0);
}

}  // extern "C"

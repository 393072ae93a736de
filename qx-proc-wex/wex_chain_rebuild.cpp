// wex_chain_rebuild: brings the registry back from the database files when the daemon starts.
//
// What lived on meanwhile is taken over, what died is started again. Runs before any thread does.
#define WEX_MODULE "wex_chain"
#include "wex_chain_rebuild.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "chain_lock.h"
#include "dir_walk.h"
#include "guarded_file.h"
#include "text_block.h"
#include "text_buffer.h"
#include "waiting.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_chain_list.h"
#include "wex_chain_names.h"
#include "wex_chain_user.h"
#include "wex_core_delay.h"
#include "wex_core_filter.h"
#include "wex_core_quota.h"
#include "wex_core_refusal.h"
#include "wex_core_restart.h"
#include "wex_core_takedown.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_proc.h"
#include "wex_status_file.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"
#include "wex_vsd.h"

namespace {

// What the process that has the record's pid runs, when that is not the registered command line.
bool runs_another(const wex_pid* rec, char (&command)[WEX_PROCESS_SIZE]) {
  return pid_to_cmdline(rec->pid, command, sizeof command) != nullptr &&
         wex_is_other_command(command, rec->process);
}

// True when the process began after the registration was written.
bool began_later(const wex_pid* rec) {
  char path[kPathSize];
  return wex_name_pidfile(rec, path) && wex_began_after_file(wex_look_at(rec->pid), path);
}

enum class whose { unknown, its_own, anothers };

// Whose process has the record's pid, by what strict mode has kept of the registered one. A process keeps its
// start time whatever user it becomes. A later one of the same user may be its own all the same: before Linux
// 3.17 a thread that executes a program gives the process its own start time.
whose whose_process(const wex_pid* rec) {
  wex_pid seen = {};
  process_user now = {};
  uid_t user = 0;
  seen.pid = rec->pid;
  wex_note_identity(&seen);
  if (rec->start_time == 0 || !wex_look_at_user(wex_process_of(&seen), &now) || !wex_uid_of(rec, &user)) {
    return whose::unknown;
  }
  if (now.start_time == rec->start_time) {
    return whose::its_own;
  }
  // Its own may be another user's by now, but still has its file locked then.
  return now.ids.uid == user || wex_proc_is_exit(rec) == 0 ? whose::unknown : whose::anothers;
}

// Another process may have got the pid of a dead program. A program may run another command line than it was
// registered with, and one that closed all its descriptors has lost the lock on its file; so only when all
// three signs are there does its end count as lost: the program would otherwise not run until that process
// ends. The line tells an operator what has the pid.
bool is_stranger(const wex_pid* rec) {
  char command[WEX_PROCESS_SIZE];
  if (!runs_another(rec, command)) {
    return false;
  }
  wex_dbg(WEX_DBG_PUB, "pid (%d) of %s runs %s\n", rec->pid, rec->process, command);
  return began_later(rec) && wex_proc_is_exit(rec) == 1;
}

// Starts the record's program again and files it under its new pid, which is below 1 when the process was not
// found: nothing may ever be sent to such a pid.
void restart(wex_chains_t* chain, wex_pid* rec) WEX_TSA(requires_capability(chain, wex_chains)) {
  const wex_action* const known = wex_find_action(rec->action);
  const wex_action& action = known != nullptr ? *known : kRespawn;
  const int32_t result = __wex_start_again(chain, rec, action, kAtStart);
  wex_dbg(WEX_DBG_PUB, "pid (%d) %s ret = %d\n", rec->pid, action.rebuilt, result);
}

// A registration is looked for and removed under the name that its content gives it. A file of any other name
// would stay, and be started again at every start of the daemon; so it gets the fitting name, or goes when
// that cannot be. False when it is the copy of a registration that has the fitting name.
bool settle_name(const char* path, const wex_pid* rec) {
  char fitting[kPathSize];
  const bool usable = wex_name_pidfile(rec, fitting);
  if (usable && strcmp(path, fitting) == 0) {
    return true;
  }
  wex_pid other = {};
  const bool taken = usable && wex_read_pidfile(fitting, &other) == 0;
  if (!usable || taken || wex_rename(path, fitting) != 0) {
    wex_unlink(path);
  }
  return !taken || other.pid != rec->pid || strcmp(other.script, rec->script) != 0;
}

// Only strict mode asks whose the file is.
int read_file(const char* path, wex_pid* rec, struct stat* facts) {
  return wex_read_pidfile_facts(path, rec, wex_strict().on ? facts : nullptr);
}

// The record of one database file, or null.
wex_pid* read_record(int32_t vsd, const char* dir, const char* name) {
  char path[kPathSize];
  wex_pid* const rec = wex_new_record();
  struct stat facts = {};
  if (!wex_format(path, sizeof path, "%s/%s", dir, name) || wex_drop_begun_pidfile(path) ||
      read_file(path, rec, &facts) != 0) {
    wex_dbg(WEX_DBG_PUB, "wex_read_pidfile %s fail\n", name);
    wex_free_record(rec);
    return nullptr;
  }
  rec->vsd = vsd;
  wex_copy_text(rec->process, sizeof rec->process, rec->script);
  if (!wex_judge_file(rec, facts)) {
    wex_ignore_name(path);
    wex_free_record(rec);
    return nullptr;
  }
  if (!settle_name(path, rec)) {
    wex_free_record(rec);
    return nullptr;
  }
  return rec;
}

// False while there is no memory to begin with.
bool read_names(const char* dir, text_block* names) {
  dir_walk walk(dir);
  if (!walk.valid()) {
    return errno != ENOMEM;
  }
  for (const dirent* entry = walk.next(); entry != nullptr; entry = walk.next()) {
    while (!names->append("%s", entry->d_name)) {
      safe_sleep(kMemoryRetrySec);  // a name left out would be a program that is no longer supervised
    }
  }
  return true;
}

// Ignored: that the registration counts was said by a process that is not its own.
enum class fate { undecided, alive, dead, ignored };

struct candidate {
  wex_pid* rec;
  fate what;
};

// The records of all files, in the order in which they were found.
class candidates {
 public:
  candidates() noexcept = default;
  ~candidates() { free(rows_); }
  candidates(const candidates&) = delete;
  candidates& operator=(const candidates&) = delete;

  // Waits for memory: a record left out would be a program that is no longer supervised.
  void append(wex_pid* rec) {
    if (used_ == size_) {
      const size_t size = size_ == 0 ? 64 : 2 * size_;
      void* grown;
      while ((grown = realloc(rows_, size * sizeof *rows_)) == nullptr) {
        safe_sleep(kMemoryRetrySec);
      }
      rows_ = static_cast<candidate*>(grown);
      size_ = size;
    }
    rows_[used_++] = {rec, fate::undecided};
  }
  candidate* begin() noexcept { return rows_; }
  candidate* end() noexcept { return rows_ + used_; }

 private:
  candidate* rows_ = nullptr;
  size_t used_ = 0;
  size_t size_ = 0;
};

void read_domain(wex_chains_t* chain, int32_t vsd, candidates* all) {
  char dir[kPathSize];
  text_block names;
  wex_name_db_dir(vsd, dir);
  while (!read_names(dir, &names)) {
    safe_sleep(kMemoryRetrySec);
  }
  for (const char* name = names.next(nullptr); name != nullptr; name = names.next(name)) {
    if (wex_pid* const rec = read_record(vsd, dir, name)) {
      chain_lock hold(*chain);
      if (!__wex_has_room(chain, rec)) {
        wex_refuse_registration(rec);
        wex_free_record(rec);
        continue;
      }
      __wex_add_record(chain, rec);
      all->append(rec);
    }
  }
}

// The record's process lives on, or another one has its pid; then the sweep finds that the program has ended.
// Not where the other one is another user's: until then what is asked for it would be asked for the record.
fate take_over(wex_pid* rec) {
  const whose process = rec->start_time != 0 ? whose_process(rec) : whose::unknown;
  if (process == whose::anothers) {
    rec->exit_seen = 1;
    return fate::dead;
  }
  if (process == whose::unknown && is_stranger(rec)) {
    rec->start_time = kStartOfNobody;
    const bool counts = wex_judge_ended(rec);
    chain_lock hold(wex_chains);
    __wex_change_name(rec);  // what was kept of it may tell its whole command line only now
    return counts ? fate::alive : fate::ignored;
  }
  // Not after the restarts: they may take long, and a stranger may have got the pid by then.
  wex_note_identity(rec);
  wex_keep_user(rec);
  wex_own_database_file(rec);  // only now: one that is made anew no longer tells when the program registered
  wex_status_found(rec, wex_start_on_clock_ms(rec->start_time));
  if (rec->thread_of != 0) {
    wex_pass_thread_ends(thread_ends_for::registrations, true);
  }
  return fate::alive;
}

// Finds out which records have a living process. The result is that of process_life(), but the pauses between
// its looks are shared: one record after the other would cost 30 ms for every dead program.
void decide(candidates* all) {
  for (candidate& row : *all) {
    row.what = wex_pid_exists(row.rec->pid) ? fate::undecided : fate::dead;
  }
  for (int round = 0; round < kLifeTries; ++round) {
    bool pending = false;
    for (candidate& row : *all) {
      if (row.what != fate::undecided) {
        continue;
      }
      if (wex_looks_alive(row.rec->pid)) {
        row.what = take_over(row.rec);
      } else {
        pending = true;
      }
    }
    if (!pending) {
      return;
    }
    wex_sleep_ms(kLifeRetryMs);
  }
}

// The process of a listed program that an earlier daemon had started and was still looking for when it was
// killed, or could not register yet: it runs, and the file is that of the process before. 0 when there is
// none.
int32_t find_started(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  char type[256];
  int32_t found = 0;
  if (wex_proc_in_wexdb(kThirdPartList, rec->process, type, sizeof type) != 1 ||
      !wex_find_running(rec->process, &found, rec)) {
    return 0;
  }
  return wex_domain_or_main(get_vsdid(found)) == rec->vsd ? found : 0;
}

// Ends that search. False when the program is to be started.
bool found_running(wex_chains_t* chain, wex_pid* rec) WEX_TSA(requires_capability(chain, wex_chains)) {
  const int32_t found = find_started(rec);
  if (found < 1) {
    return false;
  }
  if (__wex_await_hand_over(rec, found)) {
    return true;  // the program that had the pid before is started, too
  }
  if (__wex_find_pid(&wex_chains, found) != nullptr) {
    return false;
  }
  const int32_t old_pid = rec->pid;
  wex_dbg(WEX_DBG_PUB, "pid (%d) of %s is pid %d now\n", old_pid, rec->process, found);
  if (!__wex_adopt_pid(chain, rec, found)) {
    return false;  // it has just ended
  }
  wex_mend_pidfile(rec);
  wex_own_database_file(rec);
  wex_status_tell(WEX_STATUS_EV_RESTARTED, rec, {old_pid, found});
  return true;
}

// Takes its pid from a user's registration whose process had it before another user's. That one may be
// registered, too.
void leave_pid(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  const int32_t pid = rec->pid;
  __wex_free_pid({pid, wex_strict_start_of(pid), rec->vsd, nullptr});
  if (const wex_pid* const other = __wex_find_pid(&wex_chains, pid)) {
    wex_keep_user(other);
  }
}

void restart_dead(wex_chains_t* chain, wex_pid* rec) {
  chain_lock registry(wex_chains);  // clang wants it by name below; it is the same lock, and recursive
  chain_lock hold(*chain);
  if (rec->exit_seen != 0) {
    leave_pid(rec);
  }
  wex_dbg(WEX_DBG_PUB, "pid (%d) is not exist\n", rec->pid);
  if (__wex_dropped_with_domain(rec)) {
    return;
  }
  if (wex_proc_restart_delay(rec) != 0) {
    rec->exit_seen = 1;  // what ends under its pid until the restart is a stranger
    wex_note_ended(rec, wex_clock_ns());
  } else if (!found_running(chain, rec)) {
    restart(chain, rec);
  }
}

void ignore(wex_chains_t* chain, wex_pid* rec) {
  char path[kPathSize];
  if (wex_name_pidfile(rec, path)) {
    wex_ignore_name(path);
  }
  chain_lock hold(*chain);
  __wex_drop_record(chain, rec);
}

void keep_user(const wex_pid* rec) {
  chain_lock hold(wex_chains);
  wex_keep_user(rec);
}

}  // namespace

// All files are read before the first restart: a restarted program makes a new file at once, and some file
// systems would show it to a walk that has already begun. It would be taken for a second registration.
int wex_rebuild_chains(wex_chains_t* chain) {
  candidates all;
  wex_read_kept_users(true);
  for (int32_t vsd = 0; vsd < WEX_DOMAINS; vsd++) {
    read_domain(chain, vsd, &all);
  }
  wex_read_kept_users(false);
  for (const candidate& row : all) {
    if (row.rec->start_time !=
        0) {  // kept before; nothing else may take the place of what was kept of another
      keep_user(row.rec);
    }
  }
  wex_tidy_users([](int32_t pid) {
    chain_lock hold(wex_chains);
    return __wex_find_pid(&wex_chains, pid) != nullptr;
  });
  decide(&all);
  for (const candidate& row : all) {
    if (row.what == fate::ignored) {
      ignore(chain, row.rec);
    } else if (row.what != fate::alive) {
      restart_dead(chain, row.rec);
      wex_status_publish();  // many starts may take long, and nobody else shows them yet
    }
  }
  return 0;
}

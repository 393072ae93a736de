// wex_core_files: database files that do not fit the registry, looked at once a minute.
//
// A program may die before its registration is read, when the daemon is busy or stopped; then only its file
// shows that it was to be supervised. And a living one may have found no directory or no room for its file;
// without the file the next daemon would not know it.
#define WEX_MODULE "wex_core"
#include "wex_core_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "chain_lock.h"
#include "dir_walk.h"
#include "text_buffer.h"
#include "text_number.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_chain_user.h"
#include "wex_core_early_end.h"
#include "wex_core_quota.h"
#include "wex_core_sweep_request.h"
#include "wex_core_takedown.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_strict.h"
#include "wex_utils.h"

namespace {

// The pid at the end of a database file's name, 0 when there is none.
int32_t pid_of_name(const char* name) {
  const char* const dot = strrchr(name, '.');
  return dot != nullptr ? text_to_number(dot + 1) : 0;
}

bool has_record(int32_t pid) {
  chain_lock hold(wex_chains);
  return __wex_find_pid(&wex_chains, pid) != nullptr;
}

// What strict mode asks of the file, with the rest known to be right.
bool is_allowed(const char* path, wex_pid* rec, const struct stat& facts)
    WEX_TSA(requires_capability(wex_chains)) {
  if (!wex_judge_lost_file(rec, facts)) {
    wex_ignore_name(path);
    return false;
  }
  return __wex_has_room(&wex_chains, rec);
}

// Who has the pid of a file whose process has gone.
struct successor {
  uint64_t start_time;  // 0 = nobody
  char command[WEX_PROCESS_SIZE];
};

// False when the process that has the pid may be the file's own, which may be about to take its lock: the
// file is not to be opened. Nothing is held yet, for /proc may have to wait for that process's memory.
bool file_is_left_behind(int32_t pid, const char* path, successor* now) {
  *now = {};
  if (!wex_pid_exists(pid)) {
    return true;
  }
  const process_look look = wex_look_at(pid);
  now->start_time = look.start_time;
  return wex_began_after_file(look, path) &&
         (wex_read_command(pid, now->command, sizeof now->command) != command_read::nothing ||
          errno == ENOENT);
}

// Nobody has the pid, or a process that runs another program than the file names. That it began after the
// file was written is not enough: the clock may have been set. Nor is the program: a process may change its
// command line. One with a flag file in another domain would lead the restart there, in strict mode where the
// file's owner or root has made it.
bool is_not_the_files(const successor& now, const wex_pid* rec, uid_t owner) {
  if (now.start_time == 0) {
    return !wex_pid_exists(rec->pid);
  }
  const process_look look = wex_look_at(rec->pid);
  return look.sight == process_look::seen && look.start_time == now.start_time &&
         wex_is_other_command(now.command, rec->process) &&
         std::max(wex_find_domain(rec->pid, &owner), kMainSystem) == rec->vsd;
}

// Reads the file into `rec`; true when it is a registration that nobody knows, of a process that is gone,
// with a lock that nobody holds. A file of another name than its content gives it is left to the next start.
bool read_lost(int32_t vsd, const char* path, const successor& now, wex_pid* rec)
    WEX_TSA(requires_capability(wex_chains)) {
  struct stat facts = {};
  if (wex_read_pidfile_facts(path, rec, wex_strict().on ? &facts : nullptr) != 0) {
    return false;
  }
  rec->vsd = vsd;
  wex_copy_text(rec->process, sizeof rec->process, rec->script);
  char fitting[kPathSize];
  return wex_name_pidfile(rec, fitting) && strcmp(path, fitting) == 0 &&
         wex_find_action(rec->action) != nullptr && __wex_find_pid(&wex_chains, rec->pid) == nullptr &&
         is_not_the_files(now, rec, facts.st_uid) && wex_proc_is_exit(rec) == 1 &&
         is_allowed(path, rec, facts);
}

// Gives it a record, so that the sweep finds the lost exit and restarts the program. When a new process of
// the program is registered before that, or runs already, it takes the record's place.
void adopt_if_lost(int32_t vsd, const char* path, const successor& now) {
  wex_pid* const rec = wex_new_record();  // may wait for memory, so nothing is held yet
  chain_lock hold(wex_chains);  // or an exit that is being handled might be about to remove the file
  if (!read_lost(vsd, path, now, rec)) {
    wex_free_record(rec);
    return;
  }
  wex_dbg(WEX_DBG_PUB, "%s: registration of pid %d was lost\n", "wex_look_at_files", rec->pid);
  rec->start_time = kStartOfNobody;
  wex_note_failed(rec);
  uid_t user = 0;
  wex_uid_of(rec, &user);
  rec->known_code = __wex_take_early_end(rec->pid, 0, user);
  __wex_add_record(&wex_chains, rec);
  wex_request_sweep();
}

void look_at_domain(int32_t vsd) {
  char dir[kPathSize];
  char path[kPathSize];
  wex_name_db_dir(vsd, dir);
  dir_walk files(dir);
  while (const dirent* const entry = files.valid() ? files.next() : nullptr) {
    const int32_t pid = pid_of_name(entry->d_name);
    successor now;
    if (pid > 0 && !has_record(pid) && wex_format(path, sizeof path, "%s/%s", dir, entry->d_name) &&
        file_is_left_behind(pid, path, &now)) {
      adopt_if_lost(vsd, path, now);
    }
  }
}

void mend_missing() {
  chain_lock hold(wex_chains);
  record_walk walk(wex_chains);
  while (const wex_pid* const rec = walk.next()) {
    if (rec->exit_seen == 0 && rec->restart_failed == 0 && wex_record_lives(rec)) {
      wex_mend_pidfile(rec);
      wex_own_database_file(rec);
    }
  }
}

}  // namespace

void wex_look_at_files() {
  if (wex_take_down_under_way()) {
    return;  // the files of a domain are about to go
  }
  for (int32_t vsd = 0; vsd < WEX_DOMAINS; ++vsd) {
    look_at_domain(vsd);
  }
  mend_missing();
}

// wex_core_claim: takes the lock file and the other names that the daemon needs at its start, and makes room
// where something else has one of them.
//
// An ordinary user may have run "wex" before the first start and left files of his own, or may want to keep
// the daemon from starting. What is in the way is renamed, the running log gets one line, and the start goes
// on. Only a lock that another process holds stops the start.
#define WEX_MODULE "wex_core"
#include "wex_core_claim.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "file_lock.h"
#include "guarded_file.h"
#include "text_buffer.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_move_aside.h"
#include "wex_paths.h"
#include "wex_strict.h"
#include "wex_utils.h"

namespace {

struct moved_name {
  const char* path;
  char to[kPathSize];  // empty: removed
};

// What was moved before the directory of the running log exists; logged later. No lock: at the start there is
// one thread, and from then on only the control server moves names.
moved_name g_moved[kMovedLogged];
int g_moved_count = 0;

bool is_other_than_file(const char* path) {
  struct stat facts = {};
  return lstat(path, &facts) == 0 && !S_ISREG(facts.st_mode);
}

// The process that holds the lock, or 0. It opens and closes the lock file, which would drop a lock of our
// own: only for a process that could not get the lock.
int lock_holder() {
  const unique_fd file = wex_open_file(kLockFile, O_RDWR);
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  const bool locked = file.valid() && fcntl(file.get(), F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
  return locked ? static_cast<int>(whole.l_pid) : 0;
}

bool runs_our_program(int pid) {
  char path[kPathSize];
  struct stat its = {};
  struct stat ours = {};
  wex_format(path, sizeof path, kProcExeFmt, pid);
  const bool known = pid > 0 && stat(path, &its) == 0;
  wex_format(path, sizeof path, kProcExeFmt, static_cast<int>(getpid()));
  return known && stat(path, &ours) == 0 && its.st_dev == ours.st_dev && its.st_ino == ours.st_ino;
}

// A command beside a running daemon also comes here after it was carried out; that is no failed start and is
// not logged. A start that is tried again every few seconds is logged once, or its lines would push
// everything else out of the running log.
void refuse_start(int cause, bool after_command) {
  wex_log_moved_names();
  if (cause == EAGAIN) {
    const int holder = lock_holder();
    wex_dbg(WEX_DBG_PUB, "wex is already running\n");
    if (!after_command || !runs_our_program(holder)) {
      wex_running_log_once("Start refused: %s is locked by process %d.\r\n", kLockFile, holder);
    }
  } else {
    wex_running_log_once("Start refused: %s: %s.\r\n", kLockFile, strerror(cause));
  }
}

// Whether the run directory's name is taken by something else. A directory that cannot be opened, for lack of
// memory perhaps, stays: the daemon that runs has its lock in it.
bool is_run_dir_blocked() {
  char name[NAME_MAX + 1];  // without the slash behind it, which would lead to what a link stands for
  struct stat facts = {};
  if (open_trusted_dir(AT_FDCWD, kRunDir).valid()) {
    return false;
  }
  const unique_fd parent = open_trusted_parent(kRunDir, name);
  return parent.valid() && fstatat(parent.get(), name, &facts, AT_SYMLINK_NOFOLLOW) == 0 &&
         !S_ISDIR(facts.st_mode);
}

// Whether the lock's name is taken by a file of another user's on which nobody holds a lock. Only root asks:
// to a user the running daemon's own file would look like one.
bool is_strangers_lock() {
  struct stat facts = {};
  return geteuid() == 0 && lstat(kLockFile, &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_uid != 0 &&
         lock_holder() == 0;
}

// Clears what keeps the lock file from being opened. False when nothing can be done.
bool clear_way_to_lock() {
  if (is_run_dir_blocked()) {
    const bool cleared = wex_make_room(kRunDir);
    wex_make_dir(kRunDir, wex_client_dir_mode());
    return cleared;
  }
  return is_other_than_file(kLockFile) && wex_make_room(kLockFile);
}

}  // namespace

bool wex_make_room(const char* path) {
  char to[kPathSize];
  if (!wex_clear_name(path, to)) {
    return false;
  }
  if (g_moved_count < kMovedLogged) {
    g_moved[g_moved_count].path = path;
    wex_copy_text(g_moved[g_moved_count].to, sizeof g_moved[g_moved_count].to, to);
    ++g_moved_count;
  }
  return true;
}

void wex_log_moved_names() {
  for (int i = 0; i < g_moved_count; ++i) {
    if (g_moved[i].to[0] != '\0') {
      wex_running_log("%s was in the way and is now %s.\r\n", g_moved[i].path, g_moved[i].to);
    } else {
      wex_running_log("%s was in the way and was removed.\r\n", g_moved[i].path);
    }
  }
  g_moved_count = 0;
}

int wex_claim_lock(bool after_command) {
  if (is_strangers_lock()) {
    wex_make_room(kLockFile);
  }
  for (int attempt = 0; attempt < kLockTries; ++attempt) {
    const int lock = already_running(kLockFile);
    const int cause = errno;
    if (lock >= 0) {
      note_locked_file(lock);
      return lock;
    }
    if (cause == EAGAIN || !clear_way_to_lock()) {
      refuse_start(cause, after_command);
      return -1;
    }
  }
  refuse_start(EBUSY, after_command);
  return -1;
}

void wex_clear_table_name() {
  if (is_other_than_file(kAliveTableFile) && wex_make_room(kAliveTableFile)) {
    wex_log_moved_names();
  }
}

// wex_pidfile: one small file per registered process, so that registrations outlive the daemon.
//
// The process itself keeps its file locked while it lives; the daemon only tests that lock. Never keep a
// descriptor of such a file here: closing any descriptor of a file drops every record lock that this process
// holds on it. The one exception are the files that the daemon locks for programs which cannot do it
// themselves (file_lock).

#define WEX_MODULE "wex_pidfile"
#include "wex_pidfile.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "close_on_exec.h"
#include "file_lock.h"
#include "guarded_file.h"
#include "held_dir.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_number.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex_action.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_move_aside.h"
#include "wex_paths.h"
#include "wex_strict.h"

namespace {

constexpr size_t kWordSize = 256;    // first word of a command, terminator included
constexpr size_t kReadSize = 256;    // what is read of a database file, terminator included
constexpr char kBegun[] = "begun-";  // what the name of a file begins with that is to replace another one

bool is_locked_by_another(int cause) {
  return cause == EACCES || cause == EAGAIN;
}

// Anybody who may read the file can lock it: in strict mode only the registered process itself holds up its
// restart.
bool holder_counts(int fd, int32_t pid) {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  return !wex_strict().on ||
         (fcntl(fd, F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK && whole.l_pid == pid);
}

// The name of a file of this registration; false with errno when no such file can exist.
bool name_file(int32_t vsd, int32_t pid, const char* text, char (&name)[kPathSize]) {
  const int length = wex_get_db_file_name(vsd, pid, text, name, sizeof name);
  const char* const slash = strrchr(name, '/');
  if (length < 0 || length >= static_cast<int>(sizeof name) || slash == nullptr ||
      strlen(slash + 1) > NAME_MAX) {
    errno = ENAMETOOLONG;
    return false;
  }
  return true;
}

// The directory of the registration's database file, when it is one that is held open; else -1.
int held_directory(const wex_pid* rec) {
  return rec->vsd == kMainSystem ? wex_database_dir.get() : -1;
}

const char* last_component(const char* name) {
  return strrchr(name, '/') + 1;
}

// An existing database file. One of the main system is opened in the directory that is held open.
unique_fd open_database_file(const char* name, int flags) {
  constexpr size_t kDirLength = sizeof kMainDbDir - 1;
  const bool is_main =
      strncmp(name, kMainDbDir, kDirLength) == 0 && last_component(name) == name + kDirLength + 1;
  const int directory = is_main ? wex_database_dir.get() : -1;
  return directory >= 0 ? wex_open_file_at(directory, last_component(name), flags)
                        : wex_open_file(name, flags);
}

// All three parts in one write: a process that is killed here leaves an empty file or a whole one. False when
// it has no room.
bool fill(int fd, int32_t pid, int32_t action, const char* text) {
  char content[WEX_PROCESS_SIZE + 32];
  const int head = snprintf(content, sizeof content, "%d\n%d\n", pid, action);
  const size_t used = static_cast<size_t>(head);
  const size_t length = strnlen(text, WEX_PROCESS_SIZE - 1);
  memcpy(content + used, text, length);
  if (safe_write(fd, content, used + length) == static_cast<int32_t>(used + length)) {
    return true;
  }
  wex_dbg(WEX_DBG_PUB, "wex_db_create: write fail: %s\n", strerror(errno));
  return false;
}

// In strict mode nobody else may ever have opened the file: who holds it open could write to it later.
mode_t db_mode(bool strict) {
  return strict ? kStrictDbMode : kDbMode;
}

// A program may run with more rights than those of its user, who may end it before it is registered, and has
// chosen how it is called. What it leaves then must not count as written by him whose rights it had.
bool give_to_real_user(int fd) {
  return getuid() == geteuid() || fchown(fd, getuid(), getgid()) == 0;
}

// Whether such a program would write over a file that its user could not: that of a dead process of its pid.
bool is_anothers(const char* name) {
  struct stat facts = {};
  return getuid() != geteuid() && lstat(name, &facts) == 0 && facts.st_uid != getuid();
}

// Creates, fills and locks the file `name`. 0 and the descriptor to keep (none when another process holds the
// lock), or -1 when it cannot be opened.
int create_file(int32_t vsd, int32_t pid, int32_t action, const char* text, mode_t mode,
                char (&name)[kPathSize], unique_fd* out) {
  const bool fits = name_file(vsd, pid, text, name);
  int cause = errno;
  wex_dbg(WEX_DBG_PUB, "%s vsd:%d path:%s file:%s\n", "wex_db_create", vsd, text, name);
  if (fits && mode == kStrictDbMode && is_anothers(name)) {
    cause = EACCES;  // the daemon puts one in its place
  } else if (fits) {
    *out = wex_open_file(name, O_RDWR | O_CREAT | O_TRUNC, mode);
    cause = errno;
  }
  if (!out->valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: fd < 0: %s\n", "wex_db_create", strerror(cause));
    return -1;
  }
  if (mode == kStrictDbMode && !give_to_real_user(out->get())) {
    wex_dbg(WEX_DBG_PUB, "%s: file %s: %s\n", "wex_db_create", name, strerror(errno));
    wex_unlink(name);  // empty; the daemon makes one within a minute
    out->reset();
    return -1;
  }
  fill(out->get(), pid, action, text);
  if (!wex_lock_file(out->get())) {
    cause = errno;
    if (is_locked_by_another(cause)) {
      out->reset();
    }
    wex_dbg(WEX_DBG_PUB, "%s: file %s fd < 0: %s\n", "wex_db_create", name, strerror(cause));
  }
  return 0;
}

// Whether wex_renew_pidfile() makes such names: "begun-PID-NUMBER". A registration has a dot before its pid,
// whatever its program is called.
bool is_begun(const char* name) {
  const size_t length = strlen(kBegun);
  if (strncmp(name, kBegun, length) != 0) {
    return false;
  }
  const char* pid = name + length;
  pid += *pid == '-' ? 1 : 0;
  const size_t digits = strspn(pid, "0123456789");
  return digits > 0 && pid[digits] == '-' && wex_is_number_of_begun(pid + digits + 1);
}

// The database file of one record gets the name of the other's, in the same directory.
bool move_file(const wex_pid* from, const wex_pid* to) {
  char old_path[kPathSize];
  char new_path[kPathSize];
  char name[NAME_MAX + 1];
  if (!wex_name_pidfile(from, old_path) || !wex_name_pidfile(to, new_path)) {
    return false;
  }
  const unique_fd directory = open_trusted_parent(old_path, name);
  return directory.valid() && wex_take_name(directory.get(), name, last_component(new_path));
}

// The command text of a message, which need not be terminated.
void copy_command(const wex_reg_info* body, char (&text)[sizeof body->process + 1]) {
  const size_t length = strnlen(body->process, sizeof body->process);
  memcpy(text, body->process, length);
  text[length] = '\0';
}

// The last step of making the files of a registration: prints that the database file failed, or makes the
// flag file.
int finish_registration(const wex_reg_info* body, int result) {
  if (result != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: wex create db failed! (ret=%d)\r\n", "wex_mk_pidfile", result);
    return result;
  }
  save_vsd_flag(body->vsd, body->pid);
  return result;
}

}  // namespace

int wex_get_db_file_name(int32_t vsd, int32_t pid, const char* text, char* buffer, size_t size) {
  char word[kWordSize];
  const size_t length = strcspn(text, " ");
  const size_t kept = length < sizeof word ? length : sizeof word - 1;
  memcpy(word, text, kept);
  word[kept] = '\0';
  const char* const slash = strrchr(word, '/');
  return snprintf(buffer, size, kDbFileFmt, vsd, slash != nullptr ? slash + 1 : word, pid);
}

int wex_db_create(int32_t vsd, int32_t pid, int32_t action, const char* text) {
  char name[kPathSize];
  unique_fd fd;
  const int result =
      create_file(vsd, pid, action, text, db_mode(wex_strict().on || wex_strict_is_wanted()), name, &fd);
  fd.release();  // stays open on purpose: the lock lives as long as we do
  return result;
}

// In strict mode a flag file is its process's user's, or root's for all that has the pid after it: the daemon
// makes it with the record, which says whose the process is.
void save_vsd_flag(int32_t vsd, int32_t pid) {
  if (vsd == kMainSystem || wex_strict().on || (wex_strict_is_wanted() && getuid() != geteuid()) ||
      wex_make_flag_file(vsd, pid, kClientFlagFileMode)) {
    return;
  }
  const int cause = errno;
  char path[kPathSize];
  wex_name_flag_file(vsd, pid, path);
  wex_dbg(WEX_DBG_PUB, "%s: open %s fail: %s\n", __func__, path, strerror(cause));
}

int wex_mk_pidfile(const wex_reg_info* body, uint32_t kind) {
  char text[sizeof body->process + 1];
  copy_command(body, text);
  return finish_registration(body, wex_db_create(body->vsd, body->pid, wex_action_number(kind), text));
}

int wex_mk_pidfile_held(const wex_reg_info* body, uint32_t kind) {
  char text[sizeof body->process + 1];
  char name[kPathSize];
  copy_command(body, text);
  if (name_file(body->vsd, body->pid, text, name)) {
    drop_locked_file(name);  // first, because closing it later would drop the new lock too
  }
  unique_fd fd;
  const int result =
      create_file(body->vsd, body->pid, wex_action_number(kind), text, db_mode(wex_strict().on), name, &fd);
  if (fd.valid()) {
    keep_locked_file(name, std::move(fd));
  }
  return finish_registration(body, result);
}

bool wex_name_pidfile(const wex_pid* rec, char (&name)[kPathSize]) {
  return name_file(rec->vsd, rec->pid, rec->process, name);
}

bool wex_has_pidfile_of(const wex_pid* rec, const wex_pid* other) {
  char name[kPathSize];
  char others[kPathSize];
  return wex_name_pidfile(rec, name) && wex_name_pidfile(other, others) && strcmp(name, others) == 0;
}

void wex_mend_pidfile(const wex_pid* rec) {
  char name[kPathSize];
  struct stat facts = {};
  if (!wex_name_pidfile(rec, name) || (lstat(name, &facts) == 0 && facts.st_size > 0)) {
    return;
  }
  drop_locked_file(name);  // ours may be empty, too
  const unique_fd file = wex_open_file(name, O_RDWR | O_CREAT, db_mode(wex_strict().on));
  if (file.valid()) {
    fill(file.get(), rec->pid, rec->action, rec->process);
    save_vsd_flag(rec->vsd, rec->pid);
  }
}

bool wex_renew_pidfile(const wex_pid* rec, uid_t owner, gid_t group) {
  char name[kPathSize];
  char last[NAME_MAX + 1];
  char begun[NAME_MAX + 1];
  unique_fd directory;
  unique_fd file;
  if (wex_name_pidfile(rec, name)) {
    directory = open_trusted_parent(name, last);
  }
  if (directory.valid()) {
    char prefix[sizeof kBegun + 16];
    wex_format(prefix, sizeof prefix, "%s%d-", kBegun, rec->pid);
    file = wex_create_beside(directory.get(), prefix, kStrictDbMode, begun);
  }
  if (!file.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: %s: %s\n", __func__, name, strerror(errno));
    return false;
  }
  const bool whole = fill(file.get(), rec->pid, rec->action, rec->process) &&
                     fchmod(file.get(), kStrictDbMode) == 0 &&
                     (owner == 0 || fchown(file.get(), owner, group) == 0);
  if (!whole || !wex_take_name(directory.get(), begun, last)) {
    wex_dbg(WEX_DBG_PUB, "%s: %s: %s\n", __func__, name, strerror(errno));
    unlinkat(directory.get(), begun, 0);
    return false;
  }
  drop_locked_file(name);  // it is ours no more: the lock was on the file that had the name
  return true;
}

// The file first gets the name that a new one then takes: were the daemon killed with both there, the next
// one would start the program twice. It gives the file the name that its content says.
bool wex_renumber_pidfile(const wex_pid* rec, int32_t number, bool is_takers) {
  char name[kPathSize];
  wex_pid numbered = *rec;
  numbered.pid = number;
  if (wex_name_pidfile(rec, name)) {
    drop_locked_file(name);
  }
  const bool moved = !is_takers && move_file(rec, &numbered);
  if (wex_renew_pidfile(&numbered, 0, 0)) {
    return true;
  }
  if (moved) {
    move_file(&numbered, rec);
  }
  return false;
}

bool wex_drop_begun_pidfile(const char* path) {
  struct stat facts = {};
  if (!is_begun(last_component(path)) || lstat(path, &facts) != 0) {
    return false;
  }
  if (S_ISDIR(facts.st_mode)) {
    char aside[kPathSize];
    return wex_clear_name(path, aside);  // a user's, which had the file's name
  }
  return (facts.st_uid == 0 || !S_ISREG(facts.st_mode)) && wex_unlink(path) == 0;
}

int wex_db_destroy(const wex_pid* rec) {
  char name[kPathSize];
  if (!wex_name_pidfile(rec, name)) {
    return -1;
  }
  drop_locked_file(name);
  const int directory = held_directory(rec);
  return directory >= 0 ? unlinkat(directory, last_component(name), 0) : wex_unlink(name);
}

// Kept: removes a name that nothing creates, see docs/decisions.md.
int wex_rm_pidfile(const wex_pid* rec) {
  char path[kPathSize];
  if (!wex_format(path, sizeof path, kOldPidFileFmt, rec->vsd, rec->pid)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  return wex_unlink(path);
}

int wex_read_pidfile(const char* path, wex_pid* rec) {
  return wex_read_pidfile_facts(path, rec, nullptr);
}

int wex_read_pidfile_facts(const char* path, wex_pid* rec, struct stat* facts) {
  constexpr char kReader[] = "wex_read_pidfile";
  const unique_fd fd = open_database_file(path, O_RDONLY);
  if (!fd.valid() || (facts != nullptr && fstat(fd.get(), facts) != 0)) {
    wex_dbg(WEX_DBG_PUB, "%s: open pid file fail: %s\n", kReader, strerror(errno));
    return -1;
  }
  char content[kReadSize];
  const int32_t length = safe_read(fd.get(), content, sizeof content - 1);
  if (length < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: read pid file fail: %s\n", kReader, strerror(errno));
    return -1;
  }
  content[length] = '\0';
  const char* at = content;
  int32_t pid = 0;
  int32_t action = 0;
  if (!scan_number(&at, &pid) || !scan_number(&at, &action)) {
    wex_dbg(WEX_DBG_PUB, "%s: read pid fail: %s\n", kReader, strerror(errno));
    return -1;
  }
  const char* const command = strchr(content, '/');
  if (command == nullptr) {
    return -1;
  }
  rec->pid = pid;
  rec->action = action;
  wex_copy_text(rec->script, sizeof rec->script, command);
  return 0;
}

int wex_proc_is_exit(const wex_pid* rec) {
  char name[kPathSize];
  const bool fits = wex_name_pidfile(rec, name);
  int cause = errno;
  wex_dbg(WEX_DBG_PUB, "%s vsd:%d ps:%s file:%s\n", __func__, rec->vsd, rec->process, name);
  unique_fd fd;
  if (fits) {
    fd = open_database_file(name, O_RDWR);
    cause = errno;
  }
  if (!fd.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: %s fd < 0: %s\n", __func__, name, strerror(cause));
    return 1;
  }
  if (wex_lock_file(fd.get())) {
    wex_dbg(WEX_DBG_PUB, "Succeed to lock file %s.\n", name);
    return 1;  // closing gives the trial lock back at once
  }
  cause = errno;
  if (is_locked_by_another(cause) && holder_counts(fd.get(), rec->pid)) {
    wex_dbg(WEX_DBG_PUB, "be lock file %s, %s.\n", name, strerror(cause));
    return 0;
  }
  wex_dbg(WEX_DBG_PUB, "Failed to lock file %s, %s.\n", name, strerror(cause));
  return 1;
}

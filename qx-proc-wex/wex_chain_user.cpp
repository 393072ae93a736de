// wex_chain_user: as whom a registered process runs.
#define WEX_MODULE "wex_chain"
#include "wex_chain_user.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dir_walk.h"
#include "file_lock.h"
#include "guarded_file.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_number.h"
#include "text_reader.h"
#include "unique_fd.h"
#include "wex_chain_identity.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"

namespace {

constexpr size_t kStatusSize = 4096;
constexpr size_t kKeptSize = WEX_PROCESS_SIZE + 16 * (kUserGroupsMax + 8);

std::atomic<bool> g_keeping{false};
std::atomic<bool> g_reading{false};  // what was kept is being read, and nothing kept anew

// ---- what /proc tells -------------------------------------------------------------------------------------

// An id of 32 bits behind blanks; steps behind it.
bool scan_id(const char** at, uint32_t* id) {
  int64_t value = 0;
  if (!scan_integer(at, &value) || value < 0 || value > UINT32_MAX) {
    return false;
  }
  *id = static_cast<uint32_t>(value);
  return true;
}

// Behind the key at the beginning of a line of /proc/PID/status, or null.
const char* find_key(const char* text, const char* key) {
  const char* const line = strstr(text, key);
  return line != nullptr ? line + strlen(key) : nullptr;
}

void scan_groups(const char* at, wex_user* user) {
  const char* const end = at + strcspn(at, "\n");
  uint32_t group = 0;
  for (at += strspn(at, " \t"); at < end && scan_id(&at, &group); at += strspn(at, " \t")) {
    if (user->group_count == kUserGroupsMax) {
      user->group_count = kTooManyGroups;
      return;
    }
    user->groups[user->group_count++] = group;
  }
}

bool read_ids(int32_t pid, wex_user* ids) {
  char path[kPathSize];
  char text[kStatusSize];
  wex_format(path, sizeof path, kProcStatusFmt, pid);
  if (wex_read_to_buf(path, text, sizeof text) <= 0) {
    return false;
  }
  const char* uid = find_key(text, "\nUid:\t");
  const char* gid = find_key(text, "\nGid:\t");
  const char* const groups = find_key(text, "\nGroups:\t");
  *ids = {};
  if (uid == nullptr || gid == nullptr || groups == nullptr || !scan_id(&uid, &ids->uid) ||
      !scan_id(&gid, &ids->gid)) {
    return false;
  }
  scan_groups(groups, ids);
  return true;
}

// The same process, as the same user.
bool is_unchanged(const process_user& one, const process_user& other) {
  return one.start_time == other.start_time && memcmp(&one.ids, &other.ids, sizeof one.ids) == 0;
}

// The ids of the very process that the record is of.
bool read_ids_of(const wex_pid* rec, wex_user* ids) {
  const int32_t process = rec->thread_of > 0 ? rec->thread_of : rec->pid;
  char state = 0;
  uint64_t started = 0;
  return rec->start_time != 0 && read_ids(process, ids) && wex_proc_stat(process, &state, &started) &&
         started == rec->start_time;
}

// ---- what is kept -----------------------------------------------------------------------------------------

// Whether something is kept under this number: a pid, or that of a registration which has given its pid up.
// -1 is that of all without a process.
bool is_keepable(int32_t pid) {
  return pid > 0 || pid < -1;
}

// Adds formatted text at the end of what is there; what does not fit is cut, and the text is useless then.
void add_number(char* text, size_t size, int64_t value) {
  const size_t length = strlen(text);
  wex_format(text + length, size - length, "%lld ", static_cast<long long>(value));
}

// "domain action uid gid number-of-groups groups... start-time", and the command in a line of its own.
void describe(const wex_pid* rec, const wex_user& user, char (&text)[kKeptSize]) {
  text[0] = '\0';
  for (const int64_t value : {int64_t{rec->vsd}, int64_t{rec->action}, int64_t{user.uid}, int64_t{user.gid},
                              int64_t{user.group_count}}) {
    add_number(text, sizeof text, value);
  }
  for (int32_t at = 0; at < user.group_count; ++at) {
    add_number(text, sizeof text, user.groups[at]);
  }
  add_number(text, sizeof text, static_cast<int64_t>(rec->start_time));
  const size_t length = strlen(text);
  wex_format(text + length, sizeof text - length, "\n%s", rec->process);
}

// The start time of the process, which an earlier daemon did not keep.
uint64_t scan_start(const char* at) {
  int64_t value = 0;
  at += strspn(at, " ");
  return *at >= '0' && *at <= '9' && scan_integer(&at, &value) ? static_cast<uint64_t>(value) : 0;
}

// The same read back: false when it is not of this domain and action, or damaged.
bool understand(const char* text, const wex_pid* rec, wex_user* user, uint64_t* start_time,
                const char** command) {
  int32_t vsd = 0;
  int32_t action = 0;
  *user = {};
  if (!scan_number(&text, &vsd) || !scan_number(&text, &action) || !scan_id(&text, &user->uid) ||
      !scan_id(&text, &user->gid) || !scan_number(&text, &user->group_count) || vsd != rec->vsd ||
      action != rec->action || user->group_count < 0 || user->group_count > kUserGroupsMax) {
    return false;
  }
  for (int32_t at = 0; at < user->group_count; ++at) {
    if (!scan_id(&text, &user->groups[at])) {
      return false;
    }
  }
  *start_time = scan_start(text);
  *command = strchr(text, '\n');
  return *command != nullptr && *++*command != '\0';
}

// Whether `whole` is the command that a database file gave, which may have been cut.
bool is_command_of(const char* whole, const wex_pid* rec) {
  char command[WEX_PROCESS_SIZE];
  wex_copy_text(command, sizeof command, rec->process);
  rtrim(command);
  return !wex_is_other_command(whole, command);
}

// What was kept of this registration, and when its process started. Its whole command takes the place of one
// that was cut.
bool recall(wex_pid* rec, wex_user* user) {
  char path[kPathSize];
  char text[kKeptSize];
  const char* command = nullptr;
  uint64_t start_time = 0;
  wex_format(path, sizeof path, kUserFileFmt, rec->pid);
  if (!g_keeping.load() || !is_keepable(rec->pid) || wex_read_to_buf(path, text, sizeof text) <= 0 ||
      !understand(text, rec, user, &start_time, &command) || !is_command_of(command, rec)) {
    return false;
  }
  wex_copy_text(rec->process, sizeof rec->process, command);
  rec->start_time = start_time;
  return true;
}

// ---- database files ---------------------------------------------------------------------------------------

// Whether only the owner can have written what stands there. Anybody may give a file that is not his another
// name, on kernels that do not forbid it; of those only database files are executable.
bool is_owners_alone(const struct stat& facts) {
  return (facts.st_mode & (S_IWGRP | S_IWOTH)) == 0 && (facts.st_mode & S_IXUSR) != 0 && facts.st_nlink == 1;
}

// The group of a user's own, as the device's list of users has it. The group of a file says nothing: a
// directory may hand its own on to the files in it. False when the list does not name the user.
bool find_own_group(uid_t uid, gid_t* group) {
  char line[kUserLineSize];
  const unique_fd file(open(kUserList, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  text_reader users(file.get());
  while (file.valid() && users.line(line, sizeof line)) {
    const char* at = strchr(line, ':');
    at = at != nullptr ? strchr(at + 1, ':') : nullptr;
    uint32_t its_uid = 0;
    uint32_t its_gid = 0;
    if (at != nullptr && scan_id(&++at, &its_uid) && *at == ':' && scan_id(&++at, &its_gid) &&
        its_uid == uid) {
      *group = its_gid;
      return true;
    }
  }
  return false;
}

// Of a registration that was not kept nothing is known but whose file it is.
bool take_owner(const struct stat& facts, wex_user* user) {
  *user = {facts.st_uid, 0, 0, {}};
  return facts.st_uid == 0 || find_own_group(facts.st_uid, &user->gid);
}

bool may_be_from(const struct stat& facts, const wex_user& user) {
  return facts.st_uid == 0 || facts.st_uid == user.uid;
}

// A descriptor of the file: the one that keeps it locked, for closing another one would end that; else it is
// `opened`. -1 when there is none.
int open_own_file(const char* name, unique_fd* opened) {
  const int kept = kept_file(name);
  if (kept < 0) {
    *opened = wex_open_file(name, O_RDONLY);
  }
  return kept >= 0 ? kept : opened->get();
}

// Whether what was kept is of another user's process, which had the pid and a file of this name before: the
// file is of the one that lives.
bool has_its_own_file(const wex_pid* rec, const wex_user& kept, const struct stat& facts,
                      const process_user& now) {
  return rec->start_time != 0 && rec->start_time != now.start_time && kept.uid != now.ids.uid &&
         facts.st_uid == now.ids.uid;
}

// A living process has the record's pid. It need not be the registered one, so its ids count only when
// nothing was kept and the file is its own user's, or root's: that root has made the file does not make a
// process root's that is not.
bool judge_living(wex_pid* rec, const struct stat& facts, const process_user& now) {
  char command[WEX_PROCESS_SIZE];
  wex_user user;
  if (recall(rec, &user) && !has_its_own_file(rec, user, facts, now)) {
    rec->user = may_be_from(facts, user) ? wex_number_user(user) : kUnknownUser;
    return rec->user != kUnknownUser;
  }
  rec->start_time = 0;
  user = now.ids;
  if (!is_owners_alone(facts) &&
      (wex_read_command(rec->pid, command, sizeof command) != command_read::whole ||
       !is_command_of(command, rec))) {
    return false;
  }
  if (!may_be_from(facts, user)) {
    return false;  // a user's file, for a process that is not his
  }
  rec->user = wex_number_user(user);
  return rec->user != kUnknownUser;
}

bool judge_dead(wex_pid* rec, const struct stat& facts) {
  wex_user user;
  if (!recall(rec, &user) && (!is_owners_alone(facts) || !take_owner(facts, &user))) {
    return false;
  }
  rec->user = may_be_from(facts, user) ? wex_number_user(user) : kUnknownUser;
  return rec->user != kUnknownUser;
}

// Whether the file of this name says what is registered, and whose that very file is: the name may be another
// file's at the next look.
bool says(const wex_pid* rec, const char* name, struct stat* facts) {
  wex_pid registered = {};
  if (wex_read_pidfile_facts(name, &registered, facts) != 0) {
    return false;
  }
  rtrim(registered.script);
  char command[WEX_PROCESS_SIZE];
  wex_copy_text(command, sizeof command, rec->process);
  rtrim(command);
  return registered.pid == rec->pid && !wex_is_other_command(command, registered.script);
}

// Whether root's file of this name was made for the registration. A user may have moved another file of
// root's there, out of a directory of his own.
bool is_file_of(const wex_pid* rec, const char* name, const struct stat& facts) {
  if (holds_locked_files() && is_locked_file(facts)) {
    return true;  // made by this daemon, and not to be opened by it
  }
  struct stat read = {};
  return says(rec, name, &read) && read.st_dev == facts.st_dev && read.st_ino == facts.st_ino;
}

// Whether the file of this name may go on being the registration's. Not one that others could write to: they
// may have it open still.
bool may_stay(const wex_pid* rec, const wex_user& user, const char* name, const struct stat& facts) {
  if ((facts.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return false;
  }
  return facts.st_uid != 0 ? facts.st_uid == user.uid : user.uid == 0 || is_file_of(rec, name, facts);
}

// Makes the file anew. What has its name keeps it until the new one is whole, unless somebody else has put it
// there and it cannot be replaced: then it goes first, and may leave the room that is missing.
bool make_anew(const wex_pid* rec, const wex_user& user, const struct stat& facts) {
  if (wex_renew_pidfile(rec, user.uid, user.gid)) {
    return true;
  }
  return !may_be_from(facts, user) && wex_db_destroy(rec) == 0 && wex_renew_pidfile(rec, user.uid, user.gid);
}

// The flag file of a process that is registered in a domain, which its program could not make itself, or not
// as its user's: without one it would be started again in the main system.
void own_flag_file(const wex_pid* rec, const wex_user& user) {
  if (rec->vsd >= kFirstDomain && rec->vsd < WEX_DOMAINS && rec->pid > 0 &&
      wex_find_domain(rec->pid, &user.uid) < 0) {
    wex_make_flag_file_of(user.uid, rec->vsd, rec->pid);
  }
}

}  // namespace

bool wex_same_user(const wex_pid* one, const wex_pid* other) {
  uid_t first = 0;
  uid_t second = 0;
  return one->user == other->user ||
         (wex_uid_of(one, &first) && wex_uid_of(other, &second) && first == second);
}

bool wex_is_users(const wex_pid* rec) {
  uid_t uid = 0;
  return wex_uid_of(rec, &uid) && uid != 0;
}

bool wex_look_at_user(int32_t pid, process_user* now) {
  now->start_time = wex_strict_start_of(pid);
  return now->start_time != 0 && read_ids(pid, &now->ids) && wex_strict_start_of(pid) == now->start_time;
}

bool wex_note_user(wex_pid* rec, const process_user& before) {
  if (!wex_strict().on) {
    return true;
  }
  process_user now;
  wex_user owner;  // of a thread that is registered as if it were a process
  const bool same = wex_look_at_user(rec->pid, &now) && is_unchanged(now, before) && read_ids_of(rec, &owner);
  rec->user = same ? wex_number_user(rec->thread_of > 0 ? owner : now.ids) : kUnknownUser;
  return rec->user != kUnknownUser;
}

uint64_t wex_strict_start_of(int32_t pid) {
  char state = 0;
  uint64_t started = 0;
  return wex_strict().on && pid > 0 && wex_proc_stat(pid, &state, &started) ? started : 0;
}

void wex_find_user(wex_pid* rec) {
  process_user now;
  rec->user = wex_look_at_user(rec->pid, &now) ? wex_number_user(now.ids) : kUnknownUser;
}

void wex_note_thread_user(wex_pid* rec) {
  const uint64_t started = wex_strict_start_of(rec->pid);
  if (started == 0) {
    return;
  }
  wex_user owner;
  wex_find_user(rec);
  rec->start_time = wex_strict_start_of(rec->ppid);
  uid_t uid = 0;
  const bool of_process = wex_get_ppid_form_pid(rec->pid) == rec->ppid && wex_uid_of(rec, &uid) &&
                          read_ids(rec->ppid, &owner) && owner.uid == uid;
  if (!of_process || wex_strict_start_of(rec->pid) != started || rec->start_time == 0) {
    rec->user = kUnknownUser;
  }
}

bool wex_may_abort(const wex_pid* thread) {
  if (!wex_strict().on) {
    return true;
  }
  uid_t uid = 0;
  return wex_uid_of(thread, &uid) && wex_strict_start_of(thread->ppid) == thread->start_time &&
         (uid == 0 || wex_runs_as(thread->ppid, thread));
}

void wex_begin_users() {
  if (!wex_strict().on) {
    return;
  }
  struct stat facts = {};
  mkdir(kUsersParent, kOwnDirMode);  // a device may have none
  mkdir(kUsersDir, kUsersDirMode);
  const bool usable = lstat(kUsersDir, &facts) == 0 && S_ISDIR(facts.st_mode) && facts.st_uid == 0 &&
                      chmod(kUsersDir, kUsersDirMode) == 0;
  if (!usable) {
    wex_dbg(WEX_DBG_PUB, "%s cannot be used: %s\n", kUsersDir, strerror(errno));
  }
  g_keeping.store(usable);
}

void wex_end_users() {
  g_keeping.store(false);
}

void wex_read_kept_users(bool reading) {
  g_reading.store(reading);
}

void wex_keep_user(const wex_pid* rec) {
  const bool keeping = g_keeping.load() && !g_reading.load();
  const wex_user* const user = keeping && is_keepable(rec->pid) ? wex_user_of(rec) : nullptr;
  if (user == nullptr) {
    return;
  }
  char path[kPathSize];
  char text[kKeptSize];
  wex_format(path, sizeof path, kUserFileFmt, rec->pid);
  describe(rec, *user, text);
  const unique_fd file(open(
      kUserFileBegun, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kUserFileMode));
  const size_t length = strlen(text);
  // What was kept lasts until the new one is whole: the daemon may be killed, and the database file be
  // root's.
  if (!file.valid() || safe_write(file.get(), text, length) != static_cast<int32_t>(length) ||
      rename(kUserFileBegun, path) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: %s cannot be written: %s\n", __func__, path, strerror(errno));
    unlink(path);  // it may be of a process that had the pid before
  }
}

void wex_forget_user(int32_t pid) {
  char path[kPathSize];
  if (g_keeping.load() && is_keepable(pid) && wex_format(path, sizeof path, kUserFileFmt, pid)) {
    unlink(path);
  }
}

void wex_own_database_file(const wex_pid* rec) {
  const wex_user* const user = wex_user_of(rec);
  char name[kPathSize];
  struct stat facts = {};
  if (user != nullptr) {
    own_flag_file(rec, *user);
  }
  if (user == nullptr || !wex_name_pidfile(rec, name) || lstat(name, &facts) != 0) {
    return;
  }
  if (!may_stay(rec, *user, name, facts)) {
    if (!make_anew(rec, *user, facts)) {
      return;  // the minute's look tries again
    }
    if (lstat(name, &facts) != 0 || !may_stay(rec, *user, name, facts)) {
      wex_db_destroy(rec);
      return;
    }
  }
  unique_fd opened;
  const struct stat judged = facts;
  const int file = open_own_file(name, &opened);
  if (file < 0 || fstat(file, &facts) != 0 || facts.st_nlink != 1 || facts.st_dev != judged.st_dev ||
      facts.st_ino != judged.st_ino) {
    return;  // the name may have become another file's meanwhile
  }
  if ((facts.st_mode & 07777) != kStrictDbMode) {
    fchmod(file, kStrictDbMode);
  }
  if (user->uid != 0 && facts.st_uid == 0 && fchown(file, user->uid, user->gid) != 0) {
    wex_db_destroy(rec);  // as root's it would have the program started as root, were the rest forgotten
  }
}

void wex_tidy_users(bool (*has_record)(int32_t pid)) {
  if (!g_keeping.load()) {
    return;
  }
  dir_walk kept(kUsersDir);
  while (const dirent* const entry = kept.valid() ? kept.next() : nullptr) {
    const int32_t pid = text_to_number(entry->d_name);
    if (is_keepable(pid) && !has_record(pid)) {
      unlinkat(kept.fd(), entry->d_name, 0);
    }
  }
}

bool wex_may_restart_device(const wex_pid* rec) {
  uid_t uid = 0;
  return !wex_strict().on || (wex_uid_of(rec, &uid) && uid == 0);
}

int32_t wex_domain_of(const wex_pid* rec, int32_t pid) {
  uid_t uid = 0;
  return wex_find_domain(pid, wex_uid_of(rec, &uid) ? &uid : nullptr);
}

bool wex_runs_as(int32_t pid, const wex_pid* rec) {
  if (!wex_strict().on) {
    return true;
  }
  wex_user ids;
  uid_t uid = 0;
  return wex_uid_of(rec, &uid) && read_ids(pid, &ids) && ids.uid == uid;
}

exit_verdict wex_judge_exit_of(const wex_pid* rec, const process_look& now, uint64_t exit_tick) {
  const exit_verdict verdict = wex_judge_exit(now, rec->start_time, exit_tick);
  const bool other_start = now.sight == process_look::seen && now.start_time != rec->start_time;
  return other_start && !wex_runs_as(rec->pid, rec) ? exit_verdict::exited : verdict;
}

bool wex_judge_file(wex_pid* rec, const struct stat& facts) {
  if (!wex_strict().on) {
    return true;
  }
  wex_pid living = {};
  living.pid = rec->pid;
  char state = 0;
  process_user now = {};
  const bool lives = wex_proc_stat(rec->pid, &state, &living.start_time) && !wex_is_dead_state(state) &&
                     read_ids_of(&living, &now.ids);
  now.start_time = living.start_time;
  return lives ? judge_living(rec, facts, now) : judge_dead(rec, facts);
}

bool wex_judge_ended(wex_pid* rec) {
  char name[kPathSize];
  struct stat facts = {};
  if (!wex_strict().on) {
    return true;
  }
  wex_release_user(rec);
  rec->user = kUnknownUser;
  const uint64_t start_time = rec->start_time;
  const bool counts = wex_name_pidfile(rec, name) && says(rec, name, &facts) && judge_dead(rec, facts);
  rec->start_time = start_time;  // what was kept by an earlier daemon has none
  wex_hold_user(rec);
  if (const wex_user* const user = wex_user_of(rec)) {
    wex_status_show_user(rec, user->uid);
  }
  return counts;
}

bool wex_judge_lost_file(wex_pid* rec, const struct stat& facts) {
  return !wex_strict().on || judge_dead(rec, facts);
}

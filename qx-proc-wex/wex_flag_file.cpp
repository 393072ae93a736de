// wex_flag_file: the flag files, which say which process belongs to which domain.
//
// A restart asks for the domain of its old pid with the registry held, and anybody may fill the directories.
// A file of the usual name is found without a listing. Listings are for other spellings of the number; that a
// directory has none of them, as far as it is read, is remembered as long as its time stamps stay. g_mutex
// guards that.
#include "wex_flag_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "dir_walk.h"
#include "file_mark.h"
#include "guarded_file.h"
#include "mutex_lock.h"
#include "priority_mutex.h"
#include "raw_dir.h"
#include "text_buffer.h"
#include "text_number.h"
#include "text_reader.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex.h"
#include "wex_domain.h"
#include "wex_domain_present.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_strict.h"

namespace {

// Names are looked up in the opened directory: the name of the directory may be a link by now, and the
// working directory is the whole process's.
unique_fd open_flag_dir(int32_t vsd) {
  char path[kPathSize];
  wex_name_flag_dir(vsd, path);
  return open_trusted_dir(AT_FDCWD, path);
}

// What a listing has shown: among the first kFlagNamesMax names no number but in the usual spelling.
struct plain_listing {
  bool known;
  file_mark mark;
};

priority_mutex g_mutex;
plain_listing g_plain[WEX_DOMAINS] WEX_TSA(guarded_by(g_mutex));

bool is_usual_spelling(const char* name, int32_t number) {
  char usual[16];
  return wex_format(usual, sizeof usual, "%d", number) && strcmp(name, usual) == 0;
}

// Looks for a name that stands for `pid` in another spelling than the usual one. After kFlagNamesMax names it
// is given up.
bool lists(const char* path, int32_t pid, plain_listing* found) {
  dir_walk flags(path);
  struct stat before = {};
  struct stat after = {};
  if (!flags.valid() || fstat(flags.fd(), &before) != 0) {
    return false;
  }
  bool plain = true;
  for (int names = 0; names < kFlagNamesMax; ++names) {
    const dirent* const entry = flags.next();
    if (entry == nullptr) {
      break;
    }
    const int32_t number = text_to_number(entry->d_name);
    if (number == pid) {
      return true;
    }
    plain = plain && (number == 0 || is_usual_spelling(entry->d_name, number));
  }
  found->known = plain && fstat(flags.fd(), &after) == 0 && same_mark(mark_of(before), mark_of(after)) &&
                 has_settled(mark_of(after));
  found->mark = mark_of(after);
  return false;
}

bool has_other_spelling(int32_t vsd, int32_t pid) {
  char path[kPathSize];
  struct stat now = {};
  wex_name_flag_dir(vsd, path);
  const mutex_lock hold(g_mutex);
  plain_listing& plain = g_plain[vsd];
  if (plain.known && pid != 0 && stat(path, &now) == 0 && same_mark(plain.mark, mark_of(now))) {
    return false;
  }
  plain.known = false;
  return lists(path, pid, &plain);
}

// In strict mode. `user` is null when nobody but root may say it.
bool may_say(const struct stat& facts, const uid_t* user) {
  const bool owner_may = facts.st_uid == 0 || (user != nullptr && facts.st_uid == *user);
  return owner_may && S_ISREG(facts.st_mode) && facts.st_nlink == 1;
}

// In strict mode only the usual name counts. Users may have put others there: without end, and one that
// stands for the same number and would be taken for it.
void remove_usual(int directory, int32_t pid) {
  char name[16];
  wex_format(name, sizeof name, "%d", pid);
  unlinkat(directory, name, 0);
}

bool read_real_user(int32_t pid, uid_t* user) {
  constexpr char kKey[] = "Uid:\t";
  char path[kPathSize];
  char line[256];
  wex_format(path, sizeof path, kProcStatusFmt, pid);
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  text_reader status(file.get());
  while (file.valid() && status.line(line, sizeof line)) {
    int64_t value = 0;
    const char* at = line + strlen(kKey);
    if (strncmp(line, kKey, strlen(kKey)) == 0 && scan_integer(&at, &value)) {
      *user = static_cast<uid_t>(value);
      return true;
    }
  }
  return false;
}

}  // namespace

extern "C" {

int32_t find_app(int32_t pid) {
  const uint32_t present = wex_domains_present();
  for (int32_t vsd = kFirstDomain; vsd < WEX_DOMAINS; ++vsd) {
    char path[kPathSize];
    if ((present >> vsd & 1) == 0) {
      continue;
    }
    wex_name_flag_file(vsd, pid, path);
    if (access(path, F_OK) == 0 || has_other_spelling(vsd, pid)) {
      return vsd;
    }
  }
  return -1;
}

int save_proc_info(int32_t vsd, int32_t pid) {
  return wex_enter_run_dir(vsd) == 0 && wex_make_flag_file(vsd, pid, kDomainFileMode) ? 0 : -errno;
}

}  // extern "C"

int wex_save_proc_info_of(uid_t user, int32_t vsd, int32_t pid) {
  return wex_enter_run_dir(vsd) == 0 && wex_make_flag_file_of(user, vsd, pid) ? 0 : -errno;
}

int32_t wex_find_domain(int32_t pid, const uid_t* user) {
  if (!wex_strict().on) {
    return find_app(pid);
  }
  const uint32_t present = wex_domains_present();
  for (int32_t vsd = kFirstDomain; vsd < WEX_DOMAINS; ++vsd) {
    char path[kPathSize];
    struct stat facts = {};
    wex_name_flag_file(vsd, pid, path);
    if ((present >> vsd & 1) == 0 || lstat(path, &facts) != 0) {
      continue;
    }
    if (may_say(facts, user)) {
      return vsd;
    }
    wex_ignore_name(path);
  }
  return -1;
}

bool wex_flag_counts(int directory, const dirent& entry, const struct stat& facts, int32_t pid) {
  const bool plainly_roots = entry.d_type == DT_REG && facts.st_uid == 0 && facts.st_nlink == 1;
  if (plainly_roots || !wex_strict_is_wanted()) {
    return true;
  }
  struct stat own = {};
  uid_t user = 0;
  return fstatat(directory, entry.d_name, &own, AT_SYMLINK_NOFOLLOW) == 0 &&
         may_say(own, read_real_user(pid, &user) ? &user : nullptr);
}

void wex_name_flag_dir(int32_t vsd, char (&path)[kPathSize]) {
  wex_format(path, sizeof path, kFlagDirFmt, vsd);
}

void wex_name_flag_file(int32_t vsd, int32_t pid, char (&path)[kPathSize]) {
  wex_format(path, sizeof path, kFlagFileFmt, vsd, pid);
}

bool wex_make_flag_file(int32_t vsd, int32_t pid, mode_t mode) {
  char path[kPathSize];
  wex_name_flag_file(vsd, pid, path);
  return wex_open_file(path, O_RDWR | O_CREAT, mode).valid();
}

bool wex_make_flag_file_of(uid_t user, int32_t vsd, int32_t pid) {
  char path[kPathSize];
  char last[NAME_MAX + 1];
  char begun[NAME_MAX + 1];
  struct stat facts = {};
  wex_name_flag_file(vsd, pid, path);
  if (!wex_strict().on) {
    return wex_make_flag_file(vsd, pid, kDomainFileMode);
  }
  const unique_fd directory = open_trusted_parent(path, last);
  if (!directory.valid()) {
    return false;
  }
  if (fstatat(directory.get(), last, &facts, AT_SYMLINK_NOFOLLOW) == 0 && facts.st_uid == user &&
      may_say(facts, &user)) {
    return true;
  }
  const unique_fd file = wex_create_beside(directory.get(), kBegunPrefix, kDomainFileMode, begun);
  if (!file.valid()) {
    return false;
  }
  if ((user == 0 || fchown(file.get(), user, 0) == 0) && wex_take_name(directory.get(), begun, last)) {
    return true;
  }
  const int cause = errno;
  unlinkat(directory.get(), begun, 0);
  errno = cause;
  return false;
}

void wex_remove_flag_files(int32_t vsd, int32_t pid) {
  raw_dir flags(open_flag_dir(vsd));
  if (wex_strict().on && flags.valid()) {
    remove_usual(flags.fd(), pid);
    return;
  }
  while (const char* const name = flags.valid() ? flags.next() : nullptr) {
    if (name[0] != '.' && text_to_number(name) == pid) {
      unlinkat(flags.fd(), name, 0);
    }
  }
}

bool wex_remove_checked_flag_file(int32_t vsd, int32_t pid, void (*refused)(const char* name)) {
  dir_walk flags(open_flag_dir(vsd));
  if (!flags.valid()) {
    return false;
  }
  if (wex_strict().on) {
    remove_usual(flags.fd(), pid);
    return true;
  }
  while (const dirent* const entry = flags.next()) {
    if (!open_trusted(flags.fd(), entry->d_name, O_RDWR | O_NONBLOCK).valid()) {
      refused(entry->d_name);
    } else if (text_to_number(entry->d_name) == pid) {
      unlinkat(flags.fd(), entry->d_name, 0);
      break;
    }
  }
  return true;
}

// guarded_file: opening and changing what others may have planted.
//
// Most of the daemon's directories are writable by everybody and not sticky, so neither the kernel's link
// protection nor the file mode keeps a local user from putting a link or a FIFO where the daemon, as root, is
// about to open a file. Everything of that kind goes through here.
#include "guarded_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "close_on_exec.h"
#include "dir_walk.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex_limits.h"
#include "wex_move_aside.h"
#include "wex_paths.h"
#include "wex_strict.h"

// C libraries that are older than the call define neither. One of no number fails as it does on older
// kernels.
#ifndef SYS_renameat2
#define SYS_renameat2 (-1)
#endif
#ifndef RENAME_EXCHANGE
#define RENAME_EXCHANGE (1 << 1)
#endif

namespace {

// Before the directory is closed to users, who may make a directory anew whenever its name is free.
constexpr uint64_t kTakeNameTries = 2;

constexpr mode_t kWriting = S_IWGRP | S_IWOTH;
constexpr mode_t kSetIds = S_ISUID | S_ISGID;
constexpr mode_t kAllOfMode = 07777;

// Refuses everything but a regular file, and one with a second name where we create or fill our own: anybody
// may give any file a name in our directories.
bool check_kind(int fd, int flags) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
    return false;
  }
  if ((flags & (O_CREAT | O_TRUNC | O_APPEND)) != 0 && status.st_nlink > 1) {
    errno = EMLINK;
    return false;
  }
  return true;
}

// Of the flags that can be set later, `flags` holds those the file was opened with.
bool wait_on_transfers(int fd, int flags) {
  return fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

unique_fd open_checked(int at, const char* path, int flags, mode_t mode) {
  // Nothing is truncated before we know that it is ours to truncate, and a FIFO must not stop us.
  const int cautious = (flags & ~O_TRUNC) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
  unique_fd file = open_trusted(at, path, cautious, mode);
  if (!file.valid()) {
    return file;
  }
  confirm_close_on_exec(file.get());
  const bool usable = check_kind(file.get(), flags) && wait_on_transfers(file.get(), flags) &&
                      ((flags & O_TRUNC) == 0 || ftruncate(file.get(), 0) == 0);
  if (!usable) {
    file.reset();
  }
  return file;
}

// A log with other names is moved aside and begun anew, not copied: who writes to a log must not wait for
// that.
wex_parting parting_for(int flags) {
  if ((flags & O_TRUNC) != 0) {
    return wex_parting::unlinked;
  }
  return (flags & O_APPEND) != 0 ? wex_parting::moved : wex_parting::copied;
}

bool is_closed_for_a_moment(const struct stat& facts) {
  return facts.st_uid == 0 && (facts.st_mode & kAllOfMode) == kClosedDirMode;
}

// What the mode of a directory is when no daemon has closed it for a moment.
mode_t mode_while_open(const struct stat& facts) {
  return is_closed_for_a_moment(facts) ? kClientDirMode : facts.st_mode & kAllOfMode;
}

// A directory that was there may be anybody's that was moved to our name: in strict mode it becomes root's,
// and nobody may do more in it than before, but where a daemon was killed that had closed it for a moment.
// A set-group-id bit beside the sticky one would make it look closed.
void close_to_others(int directory, mode_t mode) {
  struct stat facts = {};
  if (fstat(directory, &facts) != 0) {
    return;
  }
  if (facts.st_uid != 0 && fchown(directory, 0, 0) != 0) {
    return;
  }
  const mode_t before = mode_while_open(facts);
  mode_t allowed = (mode & S_ISVTX) != 0 ? before | S_ISVTX : before & ~kWriting;
  if (facts.st_uid != 0 || (allowed & S_ISVTX) != 0) {
    allowed &= ~kSetIds;
  }
  if (allowed != (facts.st_mode & kAllOfMode)) {
    fchmod(directory, allowed);
  }
}

// What the daemon does not share: nobody but root has it open for writing, unless he had before it was
// closed.
unique_fd open_roots(const char* path, int flags, mode_t mode) {
  unique_fd file = wex_open_file(path, flags, mode);
  struct stat facts = {};
  if (file.valid() && (fstat(file.get(), &facts) != 0 || !wex_is_roots_alone(facts))) {
    file.reset();
    errno = EACCES;
  }
  return file;
}

// Whether what could not be opened so is not root's to keep. A kernel that guards sticky directories says
// EACCES of a user's file, too.
bool makes_room_for_roots(const char* path, int cause) {
  const bool counts = wex_counts(path);  // a user's is noted
  errno = cause;
  const bool no_file = cause == EISDIR || cause == ENXIO || cause == ELOOP || cause == EBUSY;
  return cause == EACCES || (no_file && !counts);
}

// Two names change places, and neither is free in between. False where the kernel cannot (before Linux 3.15).
bool exchange(int directory, const char* one, const char* other) {
  return syscall(SYS_renameat2, directory, one, directory, other, RENAME_EXCHANGE) == 0;
}

// A directory in which others than root make names, whatever mode it was given by hand: as long as this lives
// nobody but root makes one.
class closed_for_a_moment {
 public:
  explicit closed_for_a_moment(int directory) noexcept
      : directory_(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    struct stat facts = {};
    if (directory_.valid() && fstat(directory_.get(), &facts) == 0 && facts.st_uid == 0) {
      before_ = mode_while_open(facts);
      closed_ = (before_ & kWriting) != 0 && fchmod(directory_.get(), kClosedDirMode) == 0;
    }
  }
  ~closed_for_a_moment() {
    const int cause = errno;
    if (closed_) {
      fchmod(directory_.get(), before_);
    }
    errno = cause;
  }
  closed_for_a_moment(const closed_for_a_moment&) = delete;
  closed_for_a_moment& operator=(const closed_for_a_moment&) = delete;

 private:
  const unique_fd directory_;
  mode_t before_ = 0;
  bool closed_ = false;
};

// Takes what is there from its name: removed, or, when it is a directory with something in it, called
// "aside-NUMBER-FROM" from then on.
void clear_entry(int directory, const char* name, uint64_t number, const char* from) {
  char aside[NAME_MAX + 1];
  if (unlinkat(directory, name, AT_REMOVEDIR) != 0 && unlinkat(directory, name, 0) != 0 &&
      wex_format(aside, sizeof aside, "aside-%llu-%s", static_cast<unsigned long long>(number), from)) {
    renameat(directory, name, directory, aside);
  }
}

// One that nobody can foresee.
bool draw_number(uint64_t* number) {
  const unique_fd random(open(kRandomDevice, O_RDONLY | O_CLOEXEC));
  return random.valid() &&
         safe_read(random.get(), number, sizeof *number) == static_cast<int32_t>(sizeof *number);
}

bool is_begun(const char* name) {
  constexpr size_t kLength = sizeof kBegunPrefix - 1;
  return strncmp(name, kBegunPrefix, kLength) == 0 && wex_is_number_of_begun(name + kLength);
}

}  // namespace

unique_fd wex_open_file(const char* path, int flags, mode_t mode) {
  unique_fd file = open_checked(AT_FDCWD, path, flags, mode);
  if (!file.valid() && errno == EMLINK && (flags & O_CREAT) != 0) {
    const bool parted = wex_part_names(path, parting_for(flags));  // the other name keeps the other file
    errno = EMLINK;
    file = parted ? open_checked(AT_FDCWD, path, flags, mode) : unique_fd();
  }
  return file;
}

unique_fd wex_open_file_at(int directory, const char* name, int flags) {
  return open_checked(directory, name, flags, 0);
}

unique_fd wex_create_beside(int directory, const char* prefix, mode_t mode, char (&name)[NAME_MAX + 1]) {
  uint64_t number = 0;
  if (!draw_number(&number) ||
      !wex_format(name, sizeof name, "%s%016llx", prefix, static_cast<unsigned long long>(number))) {
    return unique_fd();
  }
  unique_fd file(openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (file.valid()) {
    confirm_close_on_exec(file.get());
  }
  return file;
}

bool wex_is_number_of_begun(const char* text) {
  constexpr size_t kDigits = 2 * sizeof(uint64_t);
  return strlen(text) == kDigits && strspn(text, "0123456789abcdef") == kDigits;
}

bool wex_take_name(int directory, const char* from, const char* name) {
  uint64_t number = 0;
  while (number < kTakeNameTries) {
    if (renameat(directory, from, directory, name) == 0) {
      return true;
    }
    if (errno != EISDIR) {
      return false;
    }
    if (exchange(directory, from, name)) {
      clear_entry(directory, from, number, from);
      return true;
    }
    clear_entry(directory, name, number++, from);
  }
  // A user may have made full directories of the names before that one: he sees `from`.
  draw_number(&number);
  const closed_for_a_moment only_root(directory);
  clear_entry(directory, name, number, from);
  return renameat(directory, from, directory, name) == 0;
}

unique_fd wex_create_in_place(const char* path, mode_t mode) {
  char last[NAME_MAX + 1];
  char begun[NAME_MAX + 1];
  unique_fd file;
  const unique_fd directory = open_trusted_parent(path, last);
  if (directory.valid()) {
    file = wex_create_beside(directory.get(), kBegunPrefix, mode, begun);
  }
  if (file.valid() && !wex_take_name(directory.get(), begun, last)) {
    const int cause = errno;
    unlinkat(directory.get(), begun, 0);
    file.reset();
    errno = cause;
  }
  return file;
}

unique_fd wex_open_own_file(const char* path, int flags, mode_t mode) {
  if (!wex_strict().on) {
    return wex_open_file(path, flags | O_CREAT, mode);
  }
  const mode_t closed = mode & ~kWriting;
  unique_fd file = open_roots(path, flags | O_CREAT, closed);
  if (file.valid() || !makes_room_for_roots(path, errno)) {
    return file;
  }
  char aside[kPathSize];
  if ((flags & O_TRUNC) == 0) {
    wex_clear_name(path, aside);  // what was recorded is kept
  }
  if (wex_create_in_place(path, closed).valid()) {
    file = open_roots(path, flags | O_CREAT, closed);
  }
  return file;
}

void wex_clear_begun(const char* path) {
  dir_walk names(open_trusted_dir(AT_FDCWD, path));
  for (int seen = 0; names.valid() && seen < kBegunNamesMax; ++seen) {
    const dirent* const entry = names.next();
    if (entry == nullptr) {
      return;
    }
    if (is_begun(entry->d_name)) {
      clear_entry(names.fd(), entry->d_name, 0, entry->d_name);
    }
  }
}

void wex_sync_directory_of(const char* path) {
  char directory[kPathSize];
  const char* const slash = strrchr(path, '/');
  const int length = slash == nullptr ? 0 : static_cast<int>(slash - path) + 1;
  if (wex_format(directory, sizeof(directory), "%.*s.", length, path)) {
    const unique_fd opened(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.valid()) {
      fsync(opened.get());
    }
  }
}

void wex_make_dir(const char* path, mode_t mode) {
  char name[NAME_MAX + 1];
  const unique_fd parent = open_trusted_parent(path, name);
  if (!parent.valid()) {
    return;
  }
  const bool made = mkdirat(parent.get(), name, mode) == 0;
  const unique_fd directory = open_trusted_dir(parent.get(), name);
  if (!directory.valid()) {
    return;
  }
  if (made || !wex_strict().on) {
    fchmod(directory.get(), mode);
  } else {
    close_to_others(directory.get(), mode);
  }
}

void wex_set_dir_mode(const char* path, mode_t mode) {
  if (!wex_strict().on) {
    chmod(path, mode);
    return;
  }
  const unique_fd directory = open_trusted_dir(AT_FDCWD, path);
  if (directory.valid()) {
    close_to_others(directory.get(), mode);
  }
}

int32_t wex_read_guarded(const char* path, char* buffer, size_t size) {
  if (size == 0) {
    return -1;
  }
  buffer[0] = '\0';
  const unique_fd file = wex_open_file(path, O_RDONLY);
  if (!file.valid()) {
    return -1;
  }
  const int32_t got = safe_read(file.get(), buffer, size - 1);
  buffer[got < 0 ? 0 : got] = '\0';
  return got;
}

int wex_unlink(const char* path) {
  char name[NAME_MAX + 1];
  const unique_fd parent = open_trusted_parent(path, name);
  return parent.valid() ? unlinkat(parent.get(), name, 0) : -1;
}

int wex_rename(const char* from, const char* to) {
  char old_name[NAME_MAX + 1];
  char new_name[NAME_MAX + 1];
  const unique_fd old_parent = open_trusted_parent(from, old_name);
  const unique_fd new_parent = open_trusted_parent(to, new_name);
  const bool both = old_parent.valid() && new_parent.valid();
  return both ? renameat(old_parent.get(), old_name, new_parent.get(), new_name) : -1;
}

int wex_chdir(const char* path) {
  const unique_fd directory = open_trusted(AT_FDCWD, path, O_RDONLY | O_DIRECTORY);
  return directory.valid() ? fchdir(directory.get()) : -1;
}

// trusted_path: opening paths along which others may have planted symbolic links.
//
// The kernel can be told not to follow a link as the last component only, so the path is walked here: one
// component at a time, each relative to the directory held open before it.
#include "trusted_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "file_lock.h"
#include "text_buffer.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_limits.h"
#include "wex_paths.h"

// C libraries that are older than these flags do not define them. The numbers are those of all architectures
// but alpha, parisc and sparc.
#ifndef O_PATH
#define O_PATH 010000000
#endif
#ifndef AT_EMPTY_PATH
#define AT_EMPTY_PATH 0x1000
#endif

namespace {

// Kernels that do not know O_PATH ignore it and ask for the right to read the directory as well.
constexpr int kStep = O_RDONLY | O_PATH | O_DIRECTORY | O_CLOEXEC;

bool is_ours(const struct stat& facts) {
  return facts.st_uid == 0 || facts.st_uid == geteuid();
}

// Whether a link may be followed: root or we made it, and it is no second name of a link that stands
// elsewhere.
bool is_trusted_link(const struct stat& facts) {
  return S_ISLNK(facts.st_mode) && facts.st_nlink == 1 && is_ours(facts);
}

// Whether another user may make and rename entries of a directory; the group of root counts as root.
bool others_may_write(const struct stat& directory) {
  return !is_ours(directory) || (directory.st_mode & S_IWOTH) != 0 ||
         ((directory.st_mode & S_IWGRP) != 0 && directory.st_gid != 0);
}

// Whether another user may give one of our directories another name in this one.
bool others_may_move(const struct stat& directory) {
  return others_may_write(directory) && ((directory.st_mode & S_ISVTX) == 0 || !is_ours(directory));
}

bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether no other user could have put a link of ours where it stands in the directory `at`: neither the link
// itself, nor the directory, nor one above it.
bool is_guarded_place(int at) {
  struct stat here;
  struct stat above;
  if (fstatat(at, ".", &here, 0) != 0 || others_may_write(here)) {
    return false;
  }
  for (unique_fd directory;; here = above) {
    directory = unique_fd(openat(directory.valid() ? directory.get() : at, "..", kStep));
    if (!directory.valid() || fstatat(directory.get(), ".", &above, 0) != 0) {
      return false;
    }
    if (same_file(here, above)) {
      return true;  // the root directory: ".." leads to itself there
    }
    if (others_may_move(above)) {
      return false;
    }
  }
}

bool same_link(const struct stat& a, const struct stat& b) {
  return same_file(a, b) && a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// Whether a link was made so lately that its status time could not tell it from one made next. A time that
// lies ahead, on a device whose clock was not set yet, is not the time of anything made now.
bool is_fresh(const struct stat& facts) {
  const time_t age = time(nullptr) - facts.st_ctim.tv_sec;
  return age >= 0 && age < time_t{kLinkRestSec};
}

// For kernels that cannot open a link. It is looked at before and after it is read; one that lost its name in
// between and got it back has a new status time. That time may be as coarse as a second, so a link just made
// is read only when it is older.
ssize_t read_resting_link(int at, const char* name, struct stat* facts, char* text, size_t size) {
  struct stat after;
  if (fstatat(at, name, facts, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(facts->st_mode)) {
    return -1;
  }
  if (is_trusted_link(*facts) && is_fresh(*facts)) {
    safe_sleep(kLinkRestSec);
  }
  const ssize_t length = readlinkat(at, name, text, size);
  if (length < 0 || fstatat(at, name, &after, AT_SYMLINK_NOFOLLOW) != 0) {
    return -1;
  }
  errno = ELOOP;
  return same_link(*facts, after) ? length : -1;
}

// Facts of an opened link. The first call knows such descriptors as long as there are any (2.6.39), the
// second since 3.6.
bool facts_of_link(int fd, struct stat* facts) {
  return fstatat(fd, "", facts, AT_EMPTY_PATH) == 0 || fstat(fd, facts) == 0;
}

// Reads the text of a link, without a terminator, and the facts of the same link. Its length; -1 with errno,
// which stays as it was when `name` is no link.
ssize_t read_link(int at, const char* name, struct stat* facts, char* text, size_t size) {
  const int cause = errno;
  const bool is_link = fstatat(at, name, facts, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(facts->st_mode);
  errno = cause;
  if (!is_link) {
    return -1;  // a kernel that ignores O_PATH would open the file or device itself
  }
  const unique_fd link(openat(at, name, O_PATH | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  const bool known = link.valid() && facts_of_link(link.get(), facts);
  errno = cause;
  if (!known) {
    return read_resting_link(at, name, facts, text, size);
  }
  return S_ISLNK(facts->st_mode) ? readlinkat(link.get(), "", text, size) : -1;
}

// `guarded`: the link must stand where no other user could have put it.
bool read_trusted_link(int at, const char* name, bool guarded, char (&text)[kPathSize]) {
  struct stat facts;
  const ssize_t length = read_link(at, name, &facts, text, sizeof text);
  if (length < 0) {
    return false;
  }
  const bool whole = static_cast<size_t>(length) < sizeof text;
  errno = whole ? ELOOP : ENAMETOOLONG;
  text[whole ? length : 0] = '\0';
  if (!whole || !is_trusted_link(facts)) {
    return false;
  }
  const bool usable = !guarded || is_guarded_place(at);
  errno = ELOOP;
  return usable;
}

// How the kernel says that a component is a link: which of the two depends on O_DIRECTORY.
bool may_be_link() {
  return errno == ELOOP || errno == ENOTDIR;
}

class walk {
 public:
  walk(int at, bool changing) noexcept : start_(at), changing_(changing) {}

  unique_fd open_path(const char* path, int flags, mode_t mode) {
    if (!go_on_with(path)) {
      return unique_fd();
    }
    for (int links = 0;;) {
      const char* const name = take_component();
      const bool last = *rest_ == '\0';
      unique_fd next = last ? open_last(name, flags | O_NOFOLLOW | O_CLOEXEC, mode)
                            : unique_fd(openat(at(), name, kStep | O_NOFOLLOW));
      if (next.valid() && last) {
        return next;
      }
      if (next.valid()) {
        here_ = std::move(next);
      } else if (!may_be_link() || !follow(name, ++links)) {
        return next;
      }
    }
  }

 private:
  int at() const noexcept { return here_.valid() ? here_.get() : start_; }

  // Sets the path that is walked from here on. False with errno when it is empty or too long.
  bool go_on_with(const char* path) {
    const size_t length = strlen(path);
    if (length == 0 || length >= sizeof way_) {
      errno = length == 0 ? ENOENT : ENAMETOOLONG;
      return false;
    }
    memcpy(way_, path, length + 1);
    rest_ = way_;
    return true;
  }

  // Cuts the next component off the rest. The first one of an absolute path keeps its slash, so that it is
  // looked up from the root. "." when nothing is left.
  const char* take_component() {
    char* const name = rest_;
    rest_ += strspn(rest_, "/");
    rest_ += strcspn(rest_, "/");
    if (*rest_ == '/') {
      *rest_++ = '\0';
      rest_ += strspn(rest_, "/");
    }
    return *name != '\0' ? name : ".";
  }

  // Not a file on which this process holds a lock: closing it would drop the lock. Looked at before it is
  // opened, and again afterwards, for the name may have changed hands in between.
  unique_fd open_last(const char* name, int flags, mode_t mode) {
    struct stat facts;
    if (!holds_locked_files()) {
      return unique_fd(openat(at(), name, flags, mode));
    }
    if (fstatat(at(), name, &facts, AT_SYMLINK_NOFOLLOW) == 0 && is_locked_file(facts)) {
      errno = EBUSY;
      return unique_fd();
    }
    unique_fd file(openat(at(), name, flags, mode));
    if (file.valid() && fstat(file.get(), &facts) == 0 && is_locked_file(facts)) {
      file.reset();
      relock_file(facts);
      errno = EBUSY;
    }
    return file;
  }

  bool follow(const char* name, int links) {
    char text[kPathSize];
    char path[kWaySize];
    if (!read_trusted_link(at(), name, changing_, text)) {
      return false;
    }
    if (links > kLinksFollowed) {
      errno = ELOOP;
      return false;
    }
    if (!wex_format(path, sizeof path, "%s%s%s", text, *rest_ != '\0' ? "/" : "", rest_)) {
      errno = ENAMETOOLONG;
      return false;
    }
    return go_on_with(path);
  }

  static constexpr size_t kWaySize = size_t{2} * kPathSize;

  const int start_;
  const bool changing_;  // something is to be changed: the stricter rule
  unique_fd here_;       // none before the first step of a relative path
  char way_[kWaySize];
  char* rest_ = way_;  // what is still to be walked
};

bool asks_to_change(int flags) {
  return (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC)) != 0;
}

}  // namespace

unique_fd open_trusted(int at, const char* path, int flags, mode_t mode) {
  unique_fd file = walk(at, asks_to_change(flags)).open_path(path, flags, mode);
  if (!file.valid() && errno == EACCES && (flags & O_CREAT) != 0) {
    // A kernel that guards sticky directories refuses to "create" a file of another user that is there.
    file = walk(at, true).open_path(path, flags & ~O_CREAT, 0);
    errno = errno == ENOENT ? EACCES : errno;
  }
  return file;
}

unique_fd open_trusted_dir(int at, const char* path) {
  return walk(at, true).open_path(path, O_RDONLY | O_DIRECTORY | O_NONBLOCK, 0);
}

unique_fd open_trusted_parent(const char* path, char (&last)[NAME_MAX + 1]) {
  size_t end = strlen(path);
  while (end > 0 && path[end - 1] == '/') {
    --end;
  }
  size_t start = end;
  while (start > 0 && path[start - 1] != '/') {
    --start;
  }
  char parent[kPathSize];
  if (start == end || end - start >= sizeof last || start >= sizeof parent) {
    errno = start == end ? EINVAL : ENAMETOOLONG;
    return unique_fd();
  }
  wex_copy_text(last, end - start + 1, path + start);
  wex_copy_text(parent, start + 1, path);
  return walk(AT_FDCWD, true).open_path(start > 0 ? parent : ".", kStep, 0);
}

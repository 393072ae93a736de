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

#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_utils.h"

namespace {

// Kernels that do not know O_PATH ignore it and ask for the right to read the directory as well.
constexpr int kStep = O_RDONLY | O_PATH | O_DIRECTORY | O_CLOEXEC;

// Whether a link may be followed: root or we made it, and it is no second name of a link that stands
// elsewhere.
bool is_trusted_link(const struct stat& facts) {
  return S_ISLNK(facts.st_mode) && facts.st_nlink == 1 && (facts.st_uid == 0 || facts.st_uid == geteuid());
}

bool same_link(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_ctim.tv_sec == b.st_ctim.tv_sec &&
         a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// For kernels that cannot open a link. It is looked at before and after it is read; one that lost its name in
// between and got it back has a new status time. That time may be as coarse as a second, so a link just made
// is read only when it is older.
ssize_t read_resting_link(int at, const char* name, struct stat* facts, char* text, size_t size) {
  struct stat after;
  if (fstatat(at, name, facts, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(facts->st_mode)) {
    return -1;
  }
  if (is_trusted_link(*facts) && time(nullptr) - facts->st_ctim.tv_sec < time_t{kLinkRestSec}) {
    safe_sleep(kLinkRestSec);
  }
  const ssize_t length = readlinkat(at, name, text, size);
  if (length < 0 || fstatat(at, name, &after, AT_SYMLINK_NOFOLLOW) != 0) {
    return -1;
  }
  errno = ELOOP;
  return same_link(*facts, after) ? length : -1;
}

// The text of the very link that `facts` then tells of, without a terminator. -1 with errno, which is kept
// when it is no link.
ssize_t read_link(int at, const char* name, struct stat* facts, char* text, size_t size) {
  const int cause = errno;
  const unique_fd link(openat(at, name, O_PATH | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  errno = cause;
  if (!link.valid()) {
    return read_resting_link(at, name, facts, text, size);
  }
  return fstat(link.get(), facts) == 0 && S_ISLNK(facts->st_mode) ? readlinkat(link.get(), "", text, size)
                                                                  : -1;
}

bool read_trusted_link(int at, const char* name, char (&text)[kPathSize]) {
  struct stat facts;
  const ssize_t length = read_link(at, name, &facts, text, sizeof text);
  if (length < 0) {
    return false;
  }
  const bool whole = static_cast<size_t>(length) < sizeof text;
  errno = whole ? ELOOP : ENAMETOOLONG;
  text[whole ? length : 0] = '\0';
  return whole && is_trusted_link(facts);
}

// How the kernel says that a component is a link: which of the two depends on O_DIRECTORY.
bool may_be_link() {
  return errno == ELOOP || errno == ENOTDIR;
}

class walk {
 public:
  explicit walk(int at) noexcept : start_(at) {}

  unique_fd open_path(const char* path, int flags, mode_t mode) {
    if (!go_on_with(path)) {
      return unique_fd();
    }
    for (int links = 0;;) {
      const char* const name = take_component();
      const bool last = *rest_ == '\0';
      unique_fd next(openat(at(), name, (last ? flags | O_CLOEXEC : kStep) | O_NOFOLLOW, mode));
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

  // What is to be walked from now on. False with errno.
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

  // Cuts the next component off the rest. The first one of an absolute path keeps its slash, which takes it
  // to the root whatever the place; the place itself when there is none.
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

  bool follow(const char* name, int links) {
    char text[kPathSize];
    char path[kWaySize];
    if (!read_trusted_link(at(), name, text)) {
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
  unique_fd here_;  // none before the first step of a relative path
  char way_[kWaySize];
  char* rest_ = way_;  // what is still to be walked
};

}  // namespace

unique_fd open_trusted(int at, const char* path, int flags, mode_t mode) {
  return walk(at).open_path(path, flags, mode);
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
  return open_trusted(AT_FDCWD, start > 0 ? parent : ".", kStep);
}

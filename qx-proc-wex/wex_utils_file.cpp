// wex_utils_file: opening what others may have planted, and fixed-buffer text.
//
// Most of the daemon's directories are writable by everybody and not sticky, so neither the kernel's link
// protection nor the file mode keeps a local user from putting a link or a FIFO where the daemon, as root, is
// about to open a file. Everything of that kind goes through here.
#define WEX_MODULE "wex_utils"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "ras_os.h"
#include "unique_fd.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_utils.h"

namespace {

constexpr int kMaxLinks = 8;  // links of root that may follow each other

bool same_moment(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// What a link of root's points to, as a path of its own. False with ELOOP when it is somebody else's link, or
// was swapped while we looked: a rename changes the status time even when the same link comes back.
bool follow_root_link(const char* path, char* target, size_t size) {
  struct stat before = {};
  struct stat after = {};
  char text[kPathSize];
  if (lstat(path, &before) != 0) {
    return false;
  }
  const ssize_t length = readlink(path, text, sizeof(text) - 1);
  if (length < 0 || lstat(path, &after) != 0) {
    return false;
  }
  text[length] = '\0';
  if (!S_ISLNK(before.st_mode) || before.st_uid != 0 || before.st_dev != after.st_dev ||
      before.st_ino != after.st_ino || !same_moment(before.st_ctim, after.st_ctim)) {
    errno = ELOOP;
    return false;
  }
  const char* const slash = strrchr(path, '/');
  const int directory = text[0] == '/' || slash == nullptr ? 0 : static_cast<int>(slash - path) + 1;
  const bool whole = static_cast<size_t>(length) < sizeof(text) - 1 &&
                     wex_format(target, size, "%.*s%s", directory, path, text);
  errno = ENAMETOOLONG;
  return whole;
}

// How the kernel says that the last component is a link: which of the two depends on O_DIRECTORY.
bool may_be_link(int flags) {
  return errno == ELOOP || (errno == ENOTDIR && (flags & O_DIRECTORY) != 0);
}

// open() that follows a link as last component only when root owns the link.
int open_past_root_links(const char* path, int flags, mode_t mode) {
  char target[kPathSize];
  int fd = open(path, flags | O_NOFOLLOW, mode);
  for (int links = 0; fd < 0 && may_be_link(flags) && links < kMaxLinks; ++links) {
    char next[kPathSize];
    if (!follow_root_link(path, next, sizeof(next))) {
      break;
    }
    wex_copy_text(target, sizeof(target), next);
    path = target;
    fd = open(path, flags | O_NOFOLLOW, mode);
  }
  return fd;
}

// Refuses everything but a regular file.
bool check_regular(int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
    return false;
  }
  return true;
}

bool wait_on_transfers(int fd) {
  const int status = fcntl(fd, F_GETFL);
  return status >= 0 && fcntl(fd, F_SETFL, status & ~O_NONBLOCK) == 0;
}

}  // namespace

unique_fd wex_open_file(const char* path, int flags, mode_t mode) {
  // Nothing is truncated before we know that it is ours to truncate, and a FIFO must not stop us.
  const int cautious = (flags & ~O_TRUNC) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
  unique_fd file(open_past_root_links(path, cautious, mode));
  if (!file.valid()) {
    return file;
  }
  ras_os_set_fd_close_on_exec(file.get());
  const bool usable = check_regular(file.get()) && wait_on_transfers(file.get()) &&
                      ((flags & O_TRUNC) == 0 || ftruncate(file.get(), 0) == 0);
  if (!usable) {
    file.reset();
  }
  return file;
}

void wex_make_dir(const char* path, mode_t mode) {
  char bare[kPathSize];
  size_t length = strlen(path);
  if (length >= sizeof(bare)) {
    return;
  }
  // A trailing slash would make the kernel follow a link whatever the flags say.
  memcpy(bare, path, length + 1);
  while (length > 1 && bare[length - 1] == '/') {
    bare[--length] = '\0';
  }
  mkdir(bare, mode);
  const unique_fd directory(open_past_root_links(bare, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC, 0));
  if (directory.valid()) {
    fchmod(directory.get(), mode);
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

bool wex_format(char* buffer, size_t size, const char* format, ...) {
  if (size == 0) {
    return false;
  }
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  if (length < 0) {
    buffer[0] = '\0';
  }
  return length >= 0 && static_cast<size_t>(length) < size;
}

void wex_copy_text(char* to, size_t size, const char* from) {
  if (size == 0) {
    return;
  }
  const size_t length = strnlen(from, size - 1);
  memmove(to, from, length);
  to[length] = '\0';
}

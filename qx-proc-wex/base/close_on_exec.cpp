// close_on_exec: descriptors that no program we start is to have.
#include "close_on_exec.h"

#include <fcntl.h>

#include <atomic>

int set_close_on_exec(int fd) {
  if (fd < 0) {
    return -1;
  }
  const int flags = fcntl(fd, F_GETFD);
  if (flags >= 0 && (flags & FD_CLOEXEC) != 0) {
    return 0;  // most are opened with the flag, and need no second call
  }
  return flags >= 0 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0 ? 0 : -1;
}

void confirm_close_on_exec(int fd) {
  static std::atomic<bool> flag_works{false};  // since 2.6.23
  if (flag_works.load(std::memory_order_relaxed)) {
    return;
  }
  const int flags = fcntl(fd, F_GETFD);
  if (flags >= 0 && (flags & FD_CLOEXEC) != 0) {
    flag_works.store(true, std::memory_order_relaxed);
  } else {
    set_close_on_exec(fd);
  }
}

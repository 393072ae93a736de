// unique_fd: the owner of one descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

class unique_fd {
 public:
  explicit unique_fd(int fd = -1) noexcept : fd_(fd) {}
  unique_fd(unique_fd&& from) noexcept : fd_(from.release()) {}
  unique_fd& operator=(unique_fd&& from) noexcept {
    reset(from.release());
    return *this;
  }
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;
  ~unique_fd() { reset(); }

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  int release() noexcept { return std::exchange(fd_, -1); }
  void reset(int fd = -1) noexcept {
    const int cause = errno;  // cleaning up must not hide why we are cleaning up
    if (fd_ >= 0) {
      ::close(fd_);  // not retried on EINTR: the number is already free
    }
    errno = cause;
    fd_ = fd;
  }

 private:
  int fd_;
};

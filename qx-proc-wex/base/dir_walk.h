// dir_walk: the entries of one directory, without "." and "..".
#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "unique_fd.h"

class dir_walk {
 public:
  // `path` is followed like any path; errno tells why valid() is false.
  explicit dir_walk(const char* path) noexcept
      : dir_(adopt(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC))) {}
  explicit dir_walk(unique_fd&& fd) noexcept : dir_(adopt(fd.release())) {}
  ~dir_walk() {
    const int cause = errno;
    if (dir_ != nullptr) {
      ::closedir(dir_);
    }
    errno = cause;
  }
  dir_walk(const dir_walk&) = delete;
  dir_walk& operator=(const dir_walk&) = delete;

  bool valid() const noexcept { return dir_ != nullptr; }
  // For openat and friends: names are looked up in this very directory, wherever the process has gone since.
  int fd() const noexcept { return ::dirfd(dir_); }
  // The next entry, or null at the end. errno is left alone unless reading failed.
  const dirent* next() noexcept {
    const int before = errno;
    const dirent* entry;
    errno = 0;
    do {
      entry = ::readdir(dir_);  // each walk has its own stream, so this is safe in threads
    } while (entry != nullptr &&
             (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0));
    failed_ = entry == nullptr && errno != 0;
    if (!failed_) {
      errno = before;
    }
    return entry;
  }
  // Whether the end was a failed read, and errno tells why.
  bool failed() const noexcept { return failed_; }

 private:
  static DIR* adopt(int fd) noexcept {
    unique_fd owner(fd);
    DIR* const dir = owner.valid() ? ::fdopendir(owner.get()) : nullptr;
    if (dir != nullptr) {
      owner.release();
    }
    return dir;
  }
  DIR* dir_;
  bool failed_ = false;
};

// raw_dir: the names in a directory, read without a heap: for a child of a threaded program before it
// executes.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "unique_fd.h"

class raw_dir {
 public:
  explicit raw_dir(unique_fd&& dir) noexcept : dir_(std::move(dir)) {}
  raw_dir(const raw_dir&) = delete;
  raw_dir& operator=(const raw_dir&) = delete;

  bool valid() const noexcept { return dir_.valid(); }
  int fd() const noexcept { return dir_.get(); }
  bool failed() const noexcept { return failed_; }  // at the end: names may be missing
  // The next name, "." and ".." included; null at the end. It lasts until the next call.
  const char* next() noexcept {
    if (at_ == size_) {
      at_ = 0;
      size_ = syscall(SYS_getdents64, dir_.get(), bytes_, sizeof bytes_);
      if (size_ <= 0) {
        failed_ = size_ < 0;
        size_ = 0;
        return nullptr;
      }
    }
    const entry* const found = reinterpret_cast<const entry*>(bytes_ + at_);
    at_ += found->size;
    return found->name;
  }

 private:
  struct entry {  // as the kernel lays it out
    uint64_t inode;
    int64_t offset;
    uint16_t size;
    uint8_t type;
    char name[1];
  };
  unique_fd dir_;
  long at_ = 0;
  long size_ = 0;
  bool failed_ = false;
  alignas(entry) char bytes_[2048];
};

// line_reader: the lines of an open file, newline included, at most `Size` - 1 characters at a time.
//
// A longer line comes in pieces, each a line of its own, so that no text from outside can outgrow a buffer.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

template <size_t Size>
class line_reader {
 public:
  explicit line_reader(int fd) noexcept : fd_(fd) {}
  line_reader(const line_reader&) = delete;
  line_reader& operator=(const line_reader&) = delete;

  // The next line, valid until the next call, or null at the end of the file or of what can be read.
  const char* next() noexcept {
    size_t length = 0;
    while (length + 1 < Size && (at_ < filled_ || fill())) {
      line_[length] = block_[at_++];
      if (line_[length++] == '\n') {
        break;
      }
    }
    line_[length] = '\0';
    return length == 0 ? nullptr : line_;
  }

 private:
  bool fill() noexcept {
    ssize_t got;
    do {
      got = ::read(fd_, block_, sizeof block_);
    } while (got < 0 && errno == EINTR);
    at_ = 0;
    filled_ = got > 0 ? static_cast<size_t>(got) : 0;
    return filled_ > 0;
  }

  int fd_;
  size_t at_ = 0;
  size_t filled_ = 0;
  char block_[1024];
  char line_[Size];
};

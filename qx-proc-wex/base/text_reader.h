// text_reader: bytes and lines of a descriptor through a small buffer on the stack, without a stream.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "safe_io.h"

class text_reader {
 public:
  // Reads from the descriptor's present position; the descriptor stays the caller's.
  explicit text_reader(int fd) noexcept : fd_(fd) {}
  text_reader(const text_reader&) = delete;
  text_reader& operator=(const text_reader&) = delete;

  // The next byte, 0 to 255, or -1 at the end and when reading fails.
  int byte() noexcept {
    if (next_ == end_) {
      const int32_t got = safe_read(fd_, chunk_, sizeof(chunk_));
      failed_ = got < 0;
      next_ = 0;
      end_ = got > 0 ? static_cast<size_t>(got) : 0;
      if (end_ == 0) {
        return -1;
      }
    }
    ++taken_;
    return static_cast<unsigned char>(chunk_[next_++]);
  }

  // The next line with its newline, or the first size - 1 characters of it; the rest is the next "line".
  // False when nothing is left.
  bool line(char* out, size_t size) noexcept {
    size_t length = 0;
    while (length + 1 < size) {
      const int c = byte();
      if (c < 0) {
        break;
      }
      out[length++] = static_cast<char>(c);
      if (c == '\n') {
        break;
      }
    }
    out[length] = '\0';
    return length > 0;
  }

  // Whether the end was a failed read, and errno tells why.
  bool failed() const noexcept { return failed_; }

  // Bytes handed out so far: where the next one stands, when the descriptor was at its start.
  off_t taken() const noexcept { return taken_; }

 private:
  int fd_;
  size_t next_ = 0;
  size_t end_ = 0;
  off_t taken_ = 0;
  bool failed_ = false;
  char chunk_[1024];
};

#include "guarded_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "close_on_exec.h"
#include "mutex_lock.h"

namespace {

constexpr size_t kPiece = 4096;  // what every pipe takes at once

// Neither end ever waits: the pipe is empty but for the piece that is under way.
void prepare(int fd) {
  set_close_on_exec(fd);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

// What a failed copy left in the pipe must not come out as the next one's.
void drain(int fd) {
  char rest[256];
  ssize_t got;
  do {
    got = read(fd, rest, sizeof rest);
  } while (got > 0 || (got < 0 && errno == EINTR));
}

}  // namespace

bool guarded_copy::open() noexcept {
  int ends[2];
  if (pipe(ends) != 0) {
    return false;
  }
  in_.reset(ends[0]);
  out_.reset(ends[1]);
  prepare(ends[0]);
  prepare(ends[1]);
  return true;
}

bool guarded_copy::copy_piece(void* to, const void* from, size_t size) noexcept {
  const mutex_lock hold(lock_);
  ssize_t written;
  do {
    written = write(out_.get(), from, size);
  } while (written < 0 && errno == EINTR);
  ssize_t got = -1;
  if (written == static_cast<ssize_t>(size)) {
    do {
      got = read(in_.get(), to, size);
    } while (got < 0 && errno == EINTR);
  }
  if (got != static_cast<ssize_t>(size)) {
    drain(in_.get());
    return false;
  }
  return true;
}

bool guarded_copy::copy(void* to, const void* from, size_t size) noexcept {
  auto* target = static_cast<uint8_t*>(to);
  const auto* source = static_cast<const uint8_t*>(from);
  while (size > 0) {
    const size_t piece = std::min(size, kPiece);
    if (!copy_piece(target, source, piece)) {
      return false;
    }
    target += piece;
    source += piece;
    size -= piece;
  }
  return true;
}

// safe_io: reading and writing that survive interruption.
#include "safe_io.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

namespace {

// The count travels as 32 bits; what would not fit is left to the caller's next call.
size_t countable(size_t length) {
  return length < INT32_MAX ? length : INT32_MAX;
}

}  // namespace

int32_t safe_read(int fd, void* buffer, size_t length) {
  const size_t wanted = countable(length);
  size_t done = 0;
  while (done < wanted) {
    const ssize_t got = read(fd, static_cast<char*>(buffer) + done, wanted - done);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return -1;
    }
    if (got == 0) {
      break;
    }
    done += static_cast<size_t>(got);
  }
  return static_cast<int32_t>(done);
}

int32_t safe_write(int fd, const void* buffer, size_t length) {
  const size_t wanted = countable(length);
  size_t done = 0;
  while (done < wanted) {
    const ssize_t written = write(fd, static_cast<const char*>(buffer) + done, wanted - done);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      return -1;
    }
    if (written == 0) {
      break;
    }
    done += static_cast<size_t>(written);
  }
  return static_cast<int32_t>(done);
}

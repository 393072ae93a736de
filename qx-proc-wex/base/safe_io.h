// safe_io: reading and writing that survive interruption. Any thread, also between fork and exec.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>

extern "C" {

// The bytes done: `length`, fewer only at the end of file, or -1.
int32_t safe_read(int fd, void* buffer, size_t length);
int32_t safe_write(int fd, const void* buffer, size_t length);
}

// Whether a call that failed for this errno may succeed a moment later.
inline bool short_for_a_moment(int cause) {
  return cause == ENOMEM || cause == EMFILE || cause == ENFILE || cause == EIO;
}

// wexrun_link: a connection to the daemon whose answers are known to be the right ones.
#pragma once

#include <cstdint>

#include "unique_fd.h"
#include "wex.h"

// The library's own connection hides that an answer stayed away, and its calls repeat for minutes. wexrun has
// to know the one and must not do the other.
class control_link {
 public:
  control_link() noexcept = default;
  control_link(const control_link&) = delete;
  control_link& operator=(const control_link&) = delete;
  ~control_link() { disconnect(); }
  // Connects, up to `tries` times, one second apart while the daemon is not there. False with errno.
  bool open(int tries) noexcept;
  // Sends one message with `length` bytes of body. False with errno.
  bool send(uint32_t type, const char* name, const void* body, uint32_t length) noexcept;
  // The same, and waits for its answer. False also when that stayed away.
  bool ask(uint32_t type, const char* name, const void* body, uint32_t length, int wait_ms) noexcept;

 private:
  // Whoever has put a socket in the daemon's place may have left a descriptor in it that is slow to close.
  void disconnect() noexcept;

  unique_fd sd_;
};

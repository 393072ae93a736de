// request_flag: raised by one thread or signal handler, taken by another, each request at most once.
#pragma once

#include <atomic>
#include <cstdint>

// A whole word, not a bool: some processors (RISC-V) cannot exchange a single byte, and the compiler then
// calls a library that is not shipped and takes locks, which a signal handler must not do.
class request_flag {
 public:
  // True when it was not raised already.
  bool raise() noexcept { return word_.exchange(1) == 0; }
  // True when it was raised since the last time.
  bool take() noexcept { return word_.exchange(0) != 0; }

 private:
  std::atomic<int32_t> word_{0};
};

// Calls of the product that a test makes fail: the program is linked with --wrap for them (see
// CMakeLists.txt).
#pragma once

#include <atomic>
#include <cerrno>

// How many of the next calls fail, and with what.
struct injection {
  std::atomic<int> calls{0};
  std::atomic<int> before{0};  // calls that succeed first
  int error = 0;
  void fail(int count, int cause, int spared = 0) {
    error = cause;
    before = spared;
    calls = count;
  }
  bool now() {
    if (calls <= 0 || before-- > 0) {
      return false;
    }
    --calls;
    errno = error;
    return true;
  }
};

// older_kernel: uname() tells of a 2.6 kernel as long as it lives.
#pragma once

#include <gtest/gtest.h>
#include <sys/personality.h>

namespace wex_test {

class older_kernel {
 public:
  older_kernel() : before_(personality(kAsk)) {
    EXPECT_NE(-1, personality(static_cast<unsigned long>(before_) | UNAME26));
  }
  ~older_kernel() { personality(static_cast<unsigned long>(before_)); }
  older_kernel(const older_kernel&) = delete;
  older_kernel& operator=(const older_kernel&) = delete;

 private:
  static constexpr unsigned long kAsk = 0xffffffff;
  int before_;
};

}  // namespace wex_test

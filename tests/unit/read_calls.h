// How many calls that read something a piece of work makes.
#pragma once

#include <cstdlib>
#include <functional>
#include <string>

#include "wex_test.h"

namespace wex_test {

// Reading calls of this thread so far, this one's own included.
inline long reads_so_far() {
  const std::string facts = read_file("/proc/thread-self/io");
  return strtol(facts.c_str() + facts.find("syscr: ") + 7, nullptr, 10);
}

inline long reads_of(const std::function<void()>& work) {
  const long idle_from = reads_so_far();
  const long from = reads_so_far();
  work();
  return reads_so_far() - from - (from - idle_from);
}

}  // namespace wex_test

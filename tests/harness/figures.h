// figures: what a case has tried against wex, as one line that tests/faults/figures.py finds in the log of a
// test run: it goes into bench/reliability.json and into the table of docs/reliability.md.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace wex_test {

class stopwatch {
 public:
  long us() const {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin_)
            .count());
  }
  long ms() const { return us() / 1000; }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// Of some waiting times: the one in the middle, and the longest.
inline std::string median_and_worst_ms(std::vector<long> us) {
  if (us.empty()) {
    return "nothing was measured";
  }
  std::sort(us.begin(), us.end());
  char text[96];
  snprintf(text, sizeof text, "%.1f ms, %.1f ms at most", static_cast<double>(us[us.size() / 2]) / 1000,
           static_cast<double>(us.back()) / 1000);
  return text;
}

// `what` was done while `load` went on, `tried` times, `lost` of which without the described end. No
// quotation marks and no vertical bars in the texts.
inline void tell_figures(const std::string& what, const std::string& load, long tried, long lost,
                         const std::string& result) {
  const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
  printf(
      "\nFIGURES {\"case\": \"%s.%s\", \"what\": \"%s\", \"load\": \"%s\", \"tried\": %ld, \"lost\": %ld, "
      "\"result\": \"%s\"}\n",
      test->test_suite_name(), test->name(), what.c_str(), load.c_str(), tried, lost, result.c_str());
}

}  // namespace wex_test

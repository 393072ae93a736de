// start_up_world: what the tests of the start share.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "wex_paths.h"
#include "wex_test.h"

namespace start_up {

using namespace wex_test;
using texts = std::vector<std::string>;

struct StartUp : WexWorld {
  void TearDown() override {
    umask(022);
    WexWorld::TearDown();
  }
};

inline std::string text(long number) {
  return std::to_string(number);
}

// The running log without its time stamps, whose form is checked on the way.
inline std::string running_log() {
  std::string bare;
  std::string log = read_file(kRunningLog1);
  for (size_t at = 0; at < log.size();) {
    const size_t end = std::min(log.find('\n', at), log.size() - 1) + 1;
    const std::string line = log.substr(at, end - at);
    const std::string text =
        replace_matches(line, "^[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}: ", "");
    EXPECT_NE(line, text) << "no time stamp";
    bare += text;
    at = end;
  }
  return bare;
}

}  // namespace start_up

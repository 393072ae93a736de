// What the tests of wexstat share: a table at its place, and what the program says of it.
#pragma once

#include <regex.h>
#include <sys/wait.h>

#include <cstdio>

#include "shell_answer.h"
#include "status_table.h"
#include "unit_support.h"
#include "wexstat_health.h"
#include "wexstat_reader.h"

namespace wexstat_test {

using namespace unit;

inline constexpr char kTable[] = "/dev/shm/wex-status";

// The program, behind the emulator that runs it where this machine cannot.
inline std::string binary() {
  return WEX_EMULATOR " " WEX_BUILD_DIR "/stat/wexstat";
}
inline answer wexstat(const std::string& arguments) {
  return shell(binary() + " " + arguments);
}

// What a function writes to a stream.
template <typename Write>
std::string written(const Write& write) {
  char* text = nullptr;
  size_t size = 0;
  FILE* const out = open_memstream(&text, &size);
  write(out);
  fclose(out);
  std::string result(text, size);
  free(text);
  return result;
}

inline status_copy read_back(const status_table& table) {
  table.save(kTable);
  return read_status(kTable);
}

// The living process of the table is this one.
struct WexstatWorld : ::testing::Test {
  void SetUp() override { unlink(kTable); }
  void TearDown() override { unlink(kTable); }
};

}  // namespace wexstat_test

// Files that the daemon reads or writes, replaced by something else, all at once: it starts, and its services
// come back. odd_files_slow.cpp puts each thing at each name alone.
#include "odd_files.h"

using namespace odd_files;

namespace {
struct OddFilesAtOnce : OddFiles, testing::WithParamInterface<oddity> {};
}  // namespace

TEST_P(OddFilesAtOnce, CostNoService) {
  long put_there = 0;
  for (const place& where : places()) {
    if (fits(GetParam(), where)) {
      put(GetParam(), where);
      ++put_there;
    }
  }
  const bool well = all_goes_on();
  EXPECT_TRUE(well) << read_console();
  tell_figures(std::string("files replaced at once: ") + GetParam().name, "6 services, 2 starts", put_there,
               well ? 0 : 1, "starts and restarts as ever");
}

INSTANTIATE_TEST_SUITE_P(Of, OddFilesAtOnce, testing::ValuesIn(kOddities),
                         [](const auto& row) { return std::string(row.param.name); });

// Each of the things that may lie there, at each of the names, alone.
#include "odd_files.h"

using namespace odd_files;

namespace {
struct EachOddFile : OddFiles, testing::WithParamInterface<oddity> {};
}  // namespace

TEST_P(EachOddFile, CostsNoService) {
  long tried = 0, lost = 0;
  for (const place& where : places()) {
    if (!fits(GetParam(), where)) {
      continue;
    }
    SCOPED_TRACE(where.path);
    put(GetParam(), where);
    ++tried;
    if (!all_goes_on()) {
      ++lost;
      ADD_FAILURE() << read_console();
    }
    take_away();
    sweep_aside();
    clean_world();
    mark_console();
  }
  tell_figures(std::string("one file replaced: ") + GetParam().name, "6 services, 2 starts each", tried, lost,
               "starts and restarts as ever");
}

INSTANTIATE_TEST_SUITE_P(Of, EachOddFile, testing::ValuesIn(kOddities),
                         [](const auto& row) { return std::string(row.param.name); });

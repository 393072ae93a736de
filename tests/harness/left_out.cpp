// Cases that are left out, in one of the two ways that GoogleTest has: left_out_test.sh sees that each of
// them fails, or nobody would notice a case that shows nothing.
#include <gtest/gtest.h>

#ifdef WEX_skipped_CASE
TEST(LeftOut, ASkippedCaseFails) {
  GTEST_SKIP() << "there is no reason";
}
#else
TEST(LeftOut, DISABLED_ACaseThatIsNotRunFailsTheProgram) {}
#endif

TEST(LeftOut, AllOthersAreWell) {}

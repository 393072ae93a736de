// The entry of every test program: nothing runs outside the sandbox, and the leak gate is under every case.
#include <gtest/gtest.h>

#include <cstdio>

#include "leak_gate.h"
#include "wex_test.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // To name the cases needs no private device.
  if (!testing::GTEST_FLAG(list_tests) && (!wex_test::inside_sandbox() || wex_test::may_restart_machine())) {
    fprintf(stderr,
            "These cases write to absolute paths and end processes: start me through tools/sandbox.\n");
    return 125;
  }
  wex_test::install_leak_gate();
  const int status = RUN_ALL_TESTS();
  const int disabled = testing::UnitTest::GetInstance()->disabled_test_count();
  if (disabled > 0) {
    fprintf(stderr, "%d cases are disabled. Where a case cannot run, a list says so, with the reason.\n",
            disabled);
  }
  return disabled > 0 ? 1 : status;
}

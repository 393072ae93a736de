// Start of the daemon with programs that died meanwhile, and its own death in the middle of it.
#include "rebuild_world.h"

using namespace rebuild;

namespace {
using StartWithTheDead = WexWorld;
}

// The moment between the birth of a program and the end of its old registration is the one that counts.
TEST_F(StartWithTheDead, KilledInTheMiddleItLeavesEachProgramToRunOnce) {
  constexpr int kPrograms = 8;
  constexpr int kKilledAt = 4;
  register_dead(kPrograms);
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=unlink,unlinkat:signal=KILL", file_of(kKilledAt)}));
  EXPECT_TRUE(ended_by(daemon.wait(60s), SIGKILL)) << Daemon::trace();
  ASSERT_TRUE(eventually([] { return living(kKilledAt) == 1; }, 20s)) << "it was not killed behind the fork";
  ASSERT_TRUE(daemon.start());
  for (int i = 0; i < kPrograms; ++i) {
    EXPECT_TRUE(eventually([i] { return living(i) == 1; }, 20s)) << i << ": " << living(i);
  }
  EXPECT_TRUE(list_dir(kDbDir).empty());
  EXPECT_EQ(1u, living(kKilledAt)) << "started by both daemons";
  daemon.stop();
}

TEST_F(StartWithTheDead, KilledAnywhereItLeavesEachProgramToRunOnce) {
  constexpr int kPrograms = 60;
  register_dead(kPrograms);
  Daemon daemon;
  for (const size_t left : {50, 35, 20, 5}) {
    Process starting;
    ASSERT_TRUE(starting.start({Daemon::binary()}));
    EXPECT_TRUE(eventually([&] { return list_dir(kDbDir).size() <= left; }, 20s));
    starting.kill_now();
  }
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(eventually([] { return list_dir(kDbDir).empty(); }, 20s));
  for (int i = 0; i < kPrograms; ++i) {
    EXPECT_TRUE(eventually([i] { return living(i) == 1; }, 20s)) << i << ": " << living(i);
  }
  daemon.stop();
}

// Start of the daemon with programs that died meanwhile, and its own death in the middle of it.
#include "rebuild_world.h"

using namespace rebuild;

namespace {
using StartWithTheDead = WexWorld;
}

// The daemon is killed while it removes an old database file, just after it has started that program.
TEST_F(StartWithTheDead, KilledInTheMiddleItLeavesEachProgramToRunOnce) {
  constexpr int kPrograms = 8;
  constexpr int kKilledAt = 4;
  register_dead(kPrograms);
  Daemon daemon;
  // strace counts for each process: a child removes one file, and so never reaches this number.
  ASSERT_TRUE(daemon.start_traced({"inject=unlinkat:signal=KILL:when=" + std::to_string(kKilledAt), kDbDir}));
  EXPECT_TRUE(ended_by(daemon.wait(60s), SIGKILL)) << Daemon::trace();
  EXPECT_TRUE(eventually([] { return pids_with_command(Daemon::binary()).empty(); }, 20s))
      << "a program that was being started has not been executed";
  const size_t left = list_dir(kDbDir).size();
  EXPECT_LT(0u, left);
  EXPECT_GT(size_t{kPrograms}, left) << "it was not killed behind a fork";
  ASSERT_TRUE(daemon.start());
  for (int i = 0; i < kPrograms; ++i) {
    EXPECT_TRUE(eventually([i] { return living(i) == 1; }, 20s)) << i << ": " << living(i);
  }
  EXPECT_TRUE(list_dir(kDbDir).empty());
  daemon.stop();
}

TEST_F(StartWithTheDead, KilledAnywhereItLeavesEachProgramToRunOnce) {
  constexpr int kPrograms = 60;
  register_dead(kPrograms);
  Daemon daemon;
  for (const size_t left : {50u, 35u, 20u, 5u}) {
    Process starting;
    ASSERT_TRUE(starting.start({Daemon::binary()}));
    EXPECT_TRUE(eventually([&] { return list_dir(kDbDir).size() <= left; }, 20s));
    starting.kill_now();
    // A child that was forked and has not executed its program yet: the next daemon would not find that
    // program.
    EXPECT_TRUE(eventually([] { return pids_with_command(Daemon::binary()).empty(); }, 20s));
  }
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(eventually([] { return list_dir(kDbDir).empty(); }, 20s));
  for (int i = 0; i < kPrograms; ++i) {
    EXPECT_TRUE(eventually([i] { return living(i) == 1; }, 20s)) << i << ": " << living(i);
  }
  daemon.stop();
}

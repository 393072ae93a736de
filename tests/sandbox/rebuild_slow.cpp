// How long many dead programs take to come back, beside a plain loop of forks.
#include <fcntl.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>

#include "rebuild_world.h"

using namespace rebuild;

namespace {

using clock = std::chrono::steady_clock;

struct ManyDead : WexWorld, ::testing::WithParamInterface<int> {};

milliseconds since(clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(clock::now() - start);
}

// Until all of them have been executed.
milliseconds plain_loop(int count) {
  int ends[2];
  EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
  std::vector<pid_t> children;
  const clock::time_point start = clock::now();
  for (int i = 0; i < count; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      execl(actor_binary(), actor_binary(), "--hold", nullptr);
      _exit(127);
    }
    children.push_back(child);
  }
  close(ends[1]);
  char byte;
  EXPECT_EQ(0, read(ends[0], &byte, 1));
  const milliseconds taken = since(start);
  close(ends[0]);
  for (const pid_t child : children) {
    if (child > 0) {
      send_signal(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
  }
  return taken;
}

// From the start of the program until the last old registration has gone, which is when its program is
// executed.
milliseconds daemon_start(int count) {
  register_dead(count);
  Process daemon;
  const clock::time_point start = clock::now();
  EXPECT_TRUE(daemon.start({Daemon::binary()}));
  while (!list_dir(kDbDir).empty() && since(start) < 120s) {
    usleep(1000);
  }
  const milliseconds taken = since(start);
  EXPECT_TRUE(eventually([count] { return living(count - 1) == 1; }, 20s));
  daemon.kill_now();
  return taken;
}

}  // namespace

TEST_P(ManyDead, AreBackAboutAsFastAsTheyCouldBeStarted) {
  const milliseconds plain = plain_loop(GetParam());
  const milliseconds taken = daemon_start(GetParam());
  printf("%d programs: plain loop %lld ms, daemon %lld ms\n", GetParam(),
         static_cast<long long>(plain.count()), static_cast<long long>(taken.count()));
  EXPECT_LT(taken, 10 * plain + 2000ms) << "1.5 times and 30 ms on a quiet machine";
}

INSTANTIATE_TEST_SUITE_P(Services, ManyDead, ::testing::Values(100, 1000, 3000));

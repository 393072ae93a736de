// The monotonic clock after 68 years, just before its seconds leave 32 bits: restarts, the throttle, waits of
// parked and of postponed programs take as long as ever.
#include <fcntl.h>
#include <sched.h>
#include <time.h>

#include <cstdint>

#include "figures.h"
#include "handled_exits.h"
#include "restart_policy.h"
#include "unique_fd.h"

using namespace policy;

namespace {

// Children of this process live in a time namespace of their own, in which the clocks stand at `seconds`.
bool children_start_at(int64_t seconds) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (unshare(CLONE_NEWTIME) != 0) {
    return false;
  }
  const unique_fd offsets(open("/proc/self/timens_offsets", O_WRONLY | O_CLOEXEC));
  const std::string ahead = std::to_string(seconds - now.tv_sec);
  return dprintf(offsets.get(), "monotonic %s 0\nboottime %s 0\n", ahead.c_str(), ahead.c_str()) > 0;
}

struct LateClock : WexWorld {};

}  // namespace

TEST_F(LateClock, ChangesNothing) {
  constexpr int64_t kMargin = 600;  // what the case may take on the busiest machine
  ASSERT_TRUE(children_start_at(INT64_C(0x7fffffff) - kMargin)) << strerror(errno);
  write_file(kDebugTime, "6\n");  // more than it may take until this case looks
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("late");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.park());
  const bool parked = wait_for_actor(service.options(), service.pid(), 1000ms) == 0;
  EXPECT_TRUE(parked) << "the wait was not waited";
  const bool back = service.comes_back(30s);
  EXPECT_TRUE(back) << read_console();

  const std::vector<std::string> held = {"--tag=held", "--hold"};
  Process program;
  ASSERT_TRUE(program.start(actor_words(held)));
  const pid_t old = wait_for_actor(held);
  Holder holder({old});
  program.kill_now();
  ASSERT_TRUE(console_says("be lock file " + db_file("actor", old) + ", ", 20s)) << read_console();
  EXPECT_EQ(0, wait_for_actor(held, old, 1500ms)) << "forced at once";
  holder.end();
  const bool released = wait_for_actor(held, old, 30s) > 0;
  EXPECT_TRUE(released) << read_console();

  daemon.kill_now();
  service.end();
  ASSERT_TRUE(daemon.start()) << read_console();
  const bool found = service.comes_back(30s);
  EXPECT_TRUE(found) << read_console();
  daemon.kill_now();
  tell_figures("a crash loop, a postponed restart, a second daemon",
               "the clock stands ten minutes before 2^31 s", 3,
               (parked && back ? 0 : 1) + (released ? 0 : 1) + (found ? 0 : 1), "all waits as long as ever");
}

// The monotonic clock after 68 years, just before its seconds leave 32 bits; and a device that has been
// suspended, so that its time since boot, by which start times are counted, is ahead of that clock: restarts,
// the throttle, waits of parked and of postponed programs take as long as ever.
#include <fcntl.h>
#include <sched.h>
#include <time.h>

#include <cstdint>

#include "figures.h"
#include "handled_exits.h"
#include "restart_policy.h"
#include "status_reader.h"
#include "unique_fd.h"

using namespace policy;

namespace {

// Children of this process live in a time namespace of their own, in which the clocks are ahead by so many
// seconds.
bool set_clocks_of_children(int64_t monotonic_ahead, int64_t boot_ahead) {
  if (unshare(CLONE_NEWTIME) != 0) {
    return false;
  }
  const unique_fd offsets(open("/proc/self/timens_offsets", O_WRONLY | O_CLOEXEC));
  const std::string monotonic = std::to_string(monotonic_ahead);
  const std::string boot = std::to_string(boot_ahead);
  return dprintf(offsets.get(), "monotonic %s 0\nboottime %s 0\n", monotonic.c_str(), boot.c_str()) > 0;
}

struct LateClock : WexWorld {
  static void live_as_ever(const char* clocks);
};

}  // namespace

void LateClock::live_as_ever(const char* clocks) {
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

  // What was found running has begun before what was started again.
  Service steady("steady");
  ASSERT_TRUE(steady.start());
  daemon.kill_now();
  service.end();
  ASSERT_TRUE(daemon.start()) << read_console();
  const bool found = service.comes_back(30s);
  EXPECT_TRUE(found) << read_console();
  const bool in_order = eventually(
      [&] {
        const StatusReader table;
        const auto before = table.slot_of(steady.pid());
        const auto behind = table.slot_of(service.pid());
        return before && behind && before->started > 0 && before->started <= behind->started;
      },
      20s);
  EXPECT_TRUE(in_order) << "the time since boot is taken for that of the clock";
  EXPECT_EQ(1u, pids_with_command(steady.command()).size());
  daemon.kill_now();
  tell_figures("a crash loop, a postponed restart, a second daemon that finds one dead and one alive", clocks,
               4, (parked && back ? 0 : 1) + (released ? 0 : 1) + (found ? 0 : 1) + (in_order ? 0 : 1),
               "all waits as long as ever");
}

TEST_F(LateClock, ChangesNothing) {
  constexpr int64_t kMargin = 600;  // what the case may take on the busiest machine
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t ahead = INT64_C(0x7fffffff) - kMargin - now.tv_sec;
  ASSERT_TRUE(set_clocks_of_children(ahead, ahead)) << strerror(errno);
  live_as_ever("the clock stands ten minutes before 2^31 s");
}

TEST_F(LateClock, OfADeviceThatWasSuspendedForAMonthChangesNothing) {
  ASSERT_TRUE(set_clocks_of_children(0, INT64_C(30) * 24 * 3600)) << strerror(errno);
  live_as_ever("the device was suspended for a month");
}

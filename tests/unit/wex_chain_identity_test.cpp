// Whose process has a pid: every combination of what may be seen, and the clocks that are compared.
#include "wex_chain_identity.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "older_kernel.h"
#include "send_signal.h"
#include "wex_limits.h"
#include "wex_utils.h"

namespace {

constexpr uint64_t kStart = 5000;  // of the record's process
constexpr uint64_t kExit = 9000;   // when the kernel reported its exit
constexpr uint64_t kLater = kExit + kStartTickSlack + 1;
constexpr int64_t kSecond = 1000000000;

process_look living(uint64_t start, int32_t threads = 1) {
  return {process_look::seen, 'S', false, threads, start};
}
process_look dead(char state, uint64_t start, int32_t threads = 1) {
  return {process_look::seen, state, true, threads, start};
}
process_look exiting(uint64_t start, int32_t threads) {
  return {process_look::seen, 'R', true, threads, start};
}
constexpr process_look kGone = {process_look::gone, '\0', false, 0, 0};
constexpr process_look kUnreadable = {process_look::unreadable, '\0', false, 0, 0};

struct exit_row {
  const char* name;
  process_look now;
  uint64_t known_start;
  uint64_t exit_tick;
  exit_verdict verdict;
};
class ReportedExit : public ::testing::TestWithParam<exit_row> {};

struct presence_row {
  const char* name;
  process_look now;
  uint64_t known_start;
  presence verdict;
};
class Presence : public ::testing::TestWithParam<presence_row> {};

template <typename row_type>
std::string row_name(const ::testing::TestParamInfo<row_type>& row) {
  return row.param.name;
}

}  // namespace

// On kernels where a process may get another start time.
TEST_P(ReportedExit, IsJudgedByWhatHasThePidNow) {
  const wex_test::older_kernel pretended;
  const exit_row& row = GetParam();
  EXPECT_EQ(row.verdict, wex_judge_exit(row.now, row.known_start, row.exit_tick));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ReportedExit,
    ::testing::Values(
        exit_row{"nobody", kGone, kStart, kExit, exit_verdict::exited},
        exit_row{"nobodyAndNothingKnown", kGone, 0, 0, exit_verdict::exited},
        exit_row{"notReadable", kUnreadable, kStart, kExit, exit_verdict::ask_again},
        exit_row{"notReadableAndNothingKnown", kUnreadable, 0, 0, exit_verdict::ask_again},
        exit_row{"zombie", dead('Z', kStart), kStart, kExit, exit_verdict::exited},
        exit_row{"dead", dead('X', kStart), kStart, kExit, exit_verdict::exited},
        exit_row{"deadOnOlderKernels", dead('x', kStart), kStart, kExit, exit_verdict::exited},
        exit_row{"notYetAZombie", exiting(kStart, 1), kStart, kExit, exit_verdict::exited},
        exit_row{"zombieWithThreads", dead('Z', kStart, 2), kStart, kExit, exit_verdict::ask_again},
        exit_row{"notYetAZombieWithThreads", exiting(kStart, 3), kStart, kExit, exit_verdict::ask_again},
        exit_row{"threadTookOver", living(kStart), kStart, kExit, exit_verdict::runs},
        exit_row{"threadTookOverWithItsOwnStart", living(kExit - 7), kStart, kExit, exit_verdict::runs},
        exit_row{"threadStartedInTheTickOfTheExit", living(kExit), kStart, kExit, exit_verdict::runs},
        exit_row{"clocksReadOneAfterTheOther", living(kExit + kStartTickSlack), kStart, kExit,
                 exit_verdict::runs},
        exit_row{"stranger", living(kLater), kStart, kExit, exit_verdict::exited},
        exit_row{"strangerAlreadyDead", dead('Z', kLater), kStart, kExit, exit_verdict::exited},
        exit_row{"strangerWithThreads", living(kLater, 9), kStart, kExit, exit_verdict::exited},
        exit_row{"registeredAgainByALaterProcess", living(kLater), kLater, kExit, exit_verdict::runs},
        exit_row{"takenOverAndDeadSince", dead('Z', kExit - 7), kStart, kExit, exit_verdict::exited},
        exit_row{"takenOverWithThreadsAndDeadSince", dead('Z', kExit - 7, 2), kStart, kExit,
                 exit_verdict::ask_again},
        exit_row{"startUnknownRunsSinceBefore", living(kStart), 0, kExit, exit_verdict::runs},
        exit_row{"startUnknownRunsSinceLater", living(kLater), 0, kExit, exit_verdict::exited},
        exit_row{"exitUnknownSameStart", living(kStart), kStart, 0, exit_verdict::runs},
        exit_row{"exitUnknownOtherStart", living(kStart + 1), kStart, 0, exit_verdict::exited},
        exit_row{"exitUnknownEarlierStart", living(kStart - 1), kStart, 0, exit_verdict::exited},
        exit_row{"nothingKnown", living(kStart), 0, 0, exit_verdict::exited}),
    row_name<exit_row>);

TEST(ReportedExitSinceLinux317, IsThatOfAProcessWithAnotherStartTimeOnlyWhenTheStartIsNotKnown) {
  EXPECT_EQ(exit_verdict::exited, wex_judge_exit(living(kExit - 7), kStart, kExit));
  EXPECT_EQ(exit_verdict::exited, wex_judge_exit(living(kExit + kStartTickSlack), kStart, kExit));
  EXPECT_EQ(exit_verdict::exited, wex_judge_exit(dead('Z', kExit - 7, 2), kStart, kExit));
  EXPECT_EQ(exit_verdict::runs, wex_judge_exit(living(kStart), kStart, kExit));
  EXPECT_EQ(exit_verdict::runs, wex_judge_exit(living(kStart), 0, kExit));
}

TEST_P(Presence, IsDeniedOnlyToWhatIsSurelyGone) {
  const presence_row& row = GetParam();
  EXPECT_EQ(row.verdict, wex_judge_presence(row.now, row.known_start));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Presence,
    ::testing::Values(presence_row{"nobody", kGone, kStart, presence::absent},
                      presence_row{"notReadable", kUnreadable, kStart, presence::unknown},
                      presence_row{"running", living(kStart), kStart, presence::present},
                      presence_row{"startUnknown", living(kStart), 0, presence::present},
                      presence_row{"stranger", living(kStart + 1), kStart, presence::absent},
                      presence_row{"zombie", dead('Z', kStart), kStart, presence::absent},
                      presence_row{"zombieStartUnknown", dead('Z', kStart), 0, presence::absent},
                      presence_row{"deadOnOlderKernels", dead('x', kStart), kStart, presence::absent},
                      presence_row{"onlyTheMainThreadEnded", dead('Z', kStart, 2), kStart, presence::present},
                      presence_row{"dumpingCore", exiting(kStart, 1), kStart, presence::present}),
    row_name<presence_row>);

// One of its other threads may be about to take its place with another program.
TEST(SurelyDead, IsNoProcessThatHasOtherThreads) {
  EXPECT_TRUE(wex_surely_dead(kGone));
  EXPECT_TRUE(wex_surely_dead(dead('Z', kStart)));
  EXPECT_FALSE(wex_surely_dead(dead('Z', kStart, 2)));
  EXPECT_FALSE(wex_surely_dead(living(kStart)));
  EXPECT_FALSE(wex_surely_dead(kUnreadable));
}

TEST(EventTick, CountsFromBootInTicksOfTheStatFile) {
  const struct {
    uint64_t event_ns;
    int64_t shift_ns;
    int64_t boot_offset_ns;
    long ticks_per_second;
    uint64_t tick;
  } rows[] = {
      {12 * kSecond, 0, 0, 100, 1200},
      {12 * kSecond + 9999999, 0, 0, 100, 1200},
      {12 * kSecond + 10000000, 0, 0, 100, 1201},
      {12 * kSecond, 0, 3600 * kSecond, 100, 361200},             // suspended for an hour
      {12 * kSecond, 500 * kSecond, 0, 100, 51200},               // a time namespace ahead,
      {900 * kSecond, -500 * kSecond, 0, 100, 40000},             // behind,
      {12 * kSecond, -500 * kSecond, 700 * kSecond, 100, 21200},  // and with another boot time
      {12 * kSecond, 0, 0, 1000, 12000},
      {0, 0, 0, 100, 0},                         // a kernel that stamps nothing
      {12 * kSecond, -13 * kSecond, 0, 100, 0},  // before boot
      {12 * kSecond, 0, 0, 0, 0},
      {UINT64_MAX, 0, 0, 100, 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.tick, wex_event_tick(row.event_ns, row.shift_ns, row.boot_offset_ns, row.ticks_per_second))
        << row.event_ns << " " << row.shift_ns << " " << row.boot_offset_ns;
  }
}

TEST(EventTick, ADelayOfTheReaderIsNoTimeNamespace) {
  EXPECT_EQ(0, wex_clock_shift(INT64_MIN, INT64_MAX)) << "before the first event";
  EXPECT_EQ(0, wex_clock_shift(0, 0));
  EXPECT_EQ(0, wex_clock_shift(-1, 3600 * kSecond)) << "an event was read an hour late";
  EXPECT_EQ(0, wex_clock_shift(-3600 * kSecond, 1)) << "the first event was an hour after the subscription";
  EXPECT_EQ(0, wex_clock_shift(kSecond - 1, kSecond));
  EXPECT_EQ(0, wex_clock_shift(-kSecond, 1 - kSecond));
  EXPECT_EQ(5 * kSecond, wex_clock_shift(5 * kSecond, 6 * kSecond));
  EXPECT_EQ(-86400 * kSecond, wex_clock_shift(-86400 * kSecond, -86390 * kSecond));
  EXPECT_EQ(-9 * kSecond, wex_clock_shift(5 * kSecond, -9 * kSecond)) << "the clock was set back";
}

TEST(EventTick, LiesBetweenTheStartsOfAnEarlierAndALaterProcess) {
  const auto tick_now = [] {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return wex_event_tick(static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec), 0,
                          wex_boot_offset_ns(), sysconf(_SC_CLK_TCK));
  };
  const auto start_of_new_process = [] {
    const pid_t child = fork();
    if (child == 0) {
      pause();
    }
    EXPECT_GT(child, 0);
    const process_look look = wex_look_at(child);
    if (child > 0) {
      wex_test::send_signal(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
    return look.start_time;
  };
  const uint64_t before = start_of_new_process();
  usleep(20000);
  const uint64_t tick = tick_now();
  usleep(1000 * 10 * (kStartTickSlack + 2));
  const uint64_t after = start_of_new_process();
  EXPECT_GT(before, 0u);
  EXPECT_LE(before, tick);
  EXPECT_GT(after, tick + kStartTickSlack);
}

TEST(StartedAfter, IsSaidOnlyOfWhatBeganSurelyLater) {
  constexpr int64_t kSecondNs = 1000000000;
  timespec wall = {};
  clock_gettime(CLOCK_REALTIME, &wall);
  const int64_t now = int64_t{wall.tv_sec} * kSecondNs + wall.tv_nsec;
  const uint64_t own = wex_look_at(getpid()).start_time;
  ASSERT_NE(0U, own);
  const struct {
    const char* what;
    uint64_t start;
    int64_t written;
    bool later;
  } rows[] = {{"a file written since it began", own, now, false},
              {"a file of the future: the wall clock was set back", own, now + 3600 * kSecondNs, false},
              {"a file that was there before", own, now - 30 * kSecondNs, true},
              {"a file of before the boot: the wall clock was set ahead", own, 1 * kSecondNs, false},
              {"a start that is not known", 0, now - 30 * kSecondNs, false}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.later, wex_started_after(row.start, row.written)) << row.what;
  }
}

// Strict mode: what users were refused, in the running log and in the status table. The clock is the test's.
#include "wex_core_refusal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_test.h"

namespace {

using namespace wex_test;

constexpr uid_t kUser = 1234;
constexpr uid_t kOther = 1236;

std::atomic<int32_t> g_now{1000};

uint32_t refused_so_far() {
  status_words words;
  wex_status_copy_words(&words);
  return words.counters[WEX_STATUS_REFUSED];
}

// All lines about refusals, once what was noted has been written.
std::string log_now() {
  wex_log_refusals();
  return read_file(kRunningLog1);
}

std::string line_of(uid_t user, int times, const char* why) {
  return "User " + std::to_string(user) + " was refused " + std::to_string(times) + " times: " + why +
         ".\r\n";
}

struct Refusals : ::testing::Test {
  void SetUp() override {
    make_dirs("/ovix/vsd/0/utils/wex");
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
    g_now += 2 * kRefusedLogSec;  // what earlier cases have logged is long ago
    before_ = refused_so_far();
  }
  void TearDown() override {
    g_now += 2 * kRefusedLogSec;
    wex_log_refusals();  // nothing stays noted for the next case
    wex_set_strict({});
  }
  uint32_t counted() const { return refused_so_far() - before_; }

 private:
  uint32_t before_ = 0;
};

}  // namespace

extern "C" int32_t wex_clock_now(void) {
  return g_now;
}

TEST_F(Refusals, OfOneUserAreOneLineAMinuteAndAreAllCounted) {
  for (int times = 0; times < 3; ++times) {
    wex_refuse(kUser, refusal::not_his);
  }
  EXPECT_EQ(1U, occurrences(log_now(), "was refused")) << log_now();
  EXPECT_EQ(1U, occurrences(log_now(), line_of(kUser, 3, "the process is not his"))) << log_now();
  wex_refuse(kUser, refusal::not_his);
  wex_refuse(kUser, refusal::too_many_registrations);
  EXPECT_EQ(5U, counted());
  g_now += kRefusedLogSec - 1;
  EXPECT_EQ(1U, occurrences(log_now(), "was refused")) << "before the minute is over: " << log_now();
  g_now += 1;
  EXPECT_EQ(2U, occurrences(log_now(), "was refused")) << log_now();
  EXPECT_EQ(1U, occurrences(log_now(), line_of(kUser, 2, "too many registrations"))) << log_now();
  g_now += kRefusedLogSec;
  EXPECT_EQ(2U, occurrences(log_now(), "was refused")) << "nothing was refused meanwhile: " << log_now();
}

TEST_F(Refusals, OfTwoUsersAreALineEach) {
  wex_refuse(kUser, refusal::not_his);
  wex_refuse(kOther, refusal::too_many_connections);
  wex_refuse(kUser, refusal::not_his);
  EXPECT_EQ(2U, occurrences(log_now(), "was refused")) << log_now();
  EXPECT_EQ(1U, occurrences(log_now(), line_of(kUser, 2, "the process is not his"))) << log_now();
  EXPECT_EQ(1U, occurrences(log_now(), line_of(kOther, 1, "too many connections"))) << log_now();
  EXPECT_EQ(3U, counted());
  wex_refuse(kOther, refusal::too_many_groups);
  g_now += kRefusedLogSec;
  EXPECT_EQ(1U, occurrences(log_now(), line_of(kOther, 1, "too many groups"))) << log_now();
  EXPECT_EQ(3U, occurrences(log_now(), "was refused")) << log_now();
}

// Whoever has many users at hand would else fill the log with a line of each.
TEST_F(Refusals, OfMoreUsersThanThereIsRoomForAreCountedButNotAllLogged) {
  constexpr auto kUsers = static_cast<uid_t>(kRefusedUsers + 4);
  for (int minute = 1; minute <= 2; ++minute) {
    const auto lines = static_cast<size_t>(kRefusedUsers * minute);
    for (uid_t user = 1; user <= kUsers; ++user) {
      wex_refuse(user, refusal::not_his);
    }
    EXPECT_EQ(lines, occurrences(log_now(), "was refused"));
    wex_refuse(kUsers, refusal::not_his);
    EXPECT_EQ(lines, occurrences(log_now(), "was refused")) << "the others' minute is not over";
    EXPECT_EQ((kUsers + 1) * static_cast<uint32_t>(minute), counted());
    g_now += kRefusedLogSec;
  }
  wex_refuse(kUsers, refusal::not_his);
  EXPECT_EQ(1U, occurrences(log_now(), line_of(kUsers, 1, "the process is not his")))
      << "who has been quiet for a minute makes room";
}

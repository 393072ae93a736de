// Whose early ends are remembered, when there are more newcomers than places.
#include "wex_core_early_end.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

#include "chain_lock.h"
#include "unit_support.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_strict.h"
#include "wex_test.h"
#include "wex_utils.h"

namespace {

using namespace wex_test;

constexpr uid_t kOne = 1234;
constexpr uid_t kTwo = 1235;
constexpr uint32_t kCode = SIGTERM;

std::atomic<int32_t> g_now{1000};

void note(int32_t pid, uint32_t code = kCode, uint64_t exit_tick = 0) {
  const chain_lock hold(wex_chains);
  __wex_note_early_end(pid, code, exit_tick);
}

uint32_t take(int32_t pid, uint64_t start_time = 0, uid_t user = 0) {
  const chain_lock hold(wex_chains);
  return __wex_take_early_end(pid, start_time, user);
}

// Whoever has named it.
uint32_t take_anyones(int32_t pid) {
  return std::max({take(pid), take(pid, 0, kOne), take(pid, 0, kTwo)});
}

struct EarlyEndPlaces : ::testing::Test {
  void SetUp() override {
    g_now = 1000;
    ASSERT_EQ(0, wex_init_chains(&wex_chains));
    be_strict(true);
  }
  void TearDown() override {
    for (const std::unique_ptr<child>& one : crowd) {
      take_anyones(one->pid());
    }
    crowd.clear();
    be_strict(false);
  }
  static void be_strict(bool on) {
    strict_settings settings;
    settings.on = on;
    wex_set_strict(settings);
  }
  // A process that this user registers.
  int32_t expect(uid_t speaker) {
    crowd.push_back(std::make_unique<child>([] { return true; }));
    EXPECT_TRUE(crowd.back()->ready());
    wex_expect_newcomer(crowd.back()->pid(), speaker);
    return crowd.back()->pid();
  }
  std::vector<int32_t> fill(uid_t speaker, int count = kNewcomers) {
    std::vector<int32_t> pids;
    for (int at = 0; at < count; ++at) {
      pids.push_back(expect(speaker));
    }
    return pids;
  }
  // How many of these are still there.
  static int kept_of(const std::vector<int32_t>& pids) {
    int kept = 0;
    for (const int32_t pid : pids) {
      note(pid);
      kept += take_anyones(pid) == kCode ? 1 : 0;
    }
    return kept;
  }

  std::vector<std::unique_ptr<child>> crowd;
};

}  // namespace

extern "C" int32_t wex_clock_now(void) {
  return g_now;
}

TEST_F(EarlyEndPlaces, AUsersNewcomersMakeNoRoomAmongRoots) {
  const int32_t roots = expect(0);
  const std::vector<int32_t> users = fill(kOne, 2 * kNewcomers);
  EXPECT_EQ(1, kept_of({roots}));
  EXPECT_EQ(kNewcomers - 1, kept_of(users));
}

TEST_F(EarlyEndPlaces, RootsNewcomersHaveAUsersMakeRoom) {
  const int32_t first = expect(0);
  const std::vector<int32_t> users = fill(kOne, kNewcomers - 1);
  const std::vector<int32_t> roots = fill(0, kNewcomers - 2);
  EXPECT_EQ(1, kept_of({first})) << "though it has been there longest";
  EXPECT_EQ(kNewcomers - 2, kept_of(roots));
  EXPECT_EQ(0, kept_of({users.begin(), users.end() - 1}));
  EXPECT_EQ(1, kept_of({users.back()})) << "the oldest went first";
}

TEST_F(EarlyEndPlaces, RootsOldestMakesRoomForRoots) {
  const std::vector<int32_t> roots = fill(0, kNewcomers + 1);
  EXPECT_EQ(kNewcomers, kept_of({roots.begin() + 1, roots.end()}));
  EXPECT_EQ(0, kept_of({roots.front()}));
}

TEST_F(EarlyEndPlaces, AUserWhoHasFewerFindsRoomAmongThoseOfOneWhoHasMore) {
  const std::vector<int32_t> first = fill(kOne);
  const std::vector<int32_t> second = fill(kTwo);
  EXPECT_EQ(kNewcomers / 2, kept_of(first));
  EXPECT_EQ(kNewcomers / 2, kept_of(second));
}

TEST_F(EarlyEndPlaces, AUserFindsNoRoomWhereAllIsRoots) {
  const std::vector<int32_t> roots = fill(0);
  EXPECT_EQ(0, kept_of({expect(kOne)}));
  EXPECT_EQ(kNewcomers, kept_of(roots));
}

TEST_F(EarlyEndPlaces, WhatNobodyAsksForAnyMoreMakesRoomForAUsers) {
  const std::vector<int32_t> roots = fill(0);
  g_now = g_now + kNewcomerKeepSec + 1;
  EXPECT_EQ(1, kept_of({expect(kOne)}));
  EXPECT_EQ(kNewcomers - 1, kept_of(roots));
}

TEST_F(EarlyEndPlaces, ARegistrationThatWasRefusedLeavesItsPlace) {
  const std::vector<int32_t> roots = fill(0, kNewcomers - 1);
  const int32_t refused = expect(kOne);
  wex_forget_newcomer(refused, wex_look_at(refused).start_time, kOne);
  EXPECT_EQ(0, kept_of({refused}));
  const int32_t other = expect(0);
  EXPECT_EQ(kNewcomers, kept_of(roots) + kept_of({other}));
}

// Root's message about the same process may be waiting for the registry meanwhile.
TEST_F(EarlyEndPlaces, AUsersRefusedMessageLeavesRootsNewcomerItsPlace) {
  const int32_t roots = expect(0);
  wex_reg_info body = {};
  body.pid = roots;
  EXPECT_EQ(-1, wex_register_process_by(kOne, body, kRespawn, ""));
  EXPECT_EQ(1, kept_of({roots}));
}

// Its end was reported; then a user's process has the pid, and ends otherwise.
TEST_F(EarlyEndPlaces, TheEndOfAnotherProcessOfThePidIsNotTakenForIt) {
  const int32_t roots = expect(0);
  const uint64_t start_time = wex_look_at(roots).start_time;
  note(roots, kCode);
  note(roots, SIGSEGV);
  EXPECT_EQ(0U, take(roots, start_time + 1));
  EXPECT_EQ(kCode, take(roots, start_time));
}

// The report may be late: another process has the pid by then, and is expected already.
TEST_F(EarlyEndPlaces, AnEndBeforeAProcessBeganIsNotItsOwn) {
  const int32_t pid = expect(0);
  const uint64_t start_time = wex_look_at(pid).start_time;
  note(pid, kCode, start_time - kStartTickSlack - 1);
  note(pid, SIGSEGV, start_time);
  EXPECT_EQ(uint32_t{SIGSEGV}, take(pid, start_time));
}

// He has registered in vain what had the pid before, or after.
TEST_F(EarlyEndPlaces, TheEndOfAUsersProcessIsNotThatOfRootsLostProgram) {
  const int32_t users = expect(kOne);
  note(users);
  EXPECT_EQ(0U, take(users, 0, 0));
  EXPECT_EQ(0U, take(users, 0, kTwo));
  EXPECT_EQ(kCode, take(users, 0, kOne));
}

TEST_F(EarlyEndPlaces, WithoutStrictModeTheLastReportOfAPidCounts) {
  be_strict(false);
  const int32_t one = expect(0);
  note(one, SIGSEGV);
  note(one, kCode);
  EXPECT_EQ(kCode, take(one, 1));
}

// Which process events reach the monitor's queue: the filter on a socket of the real kernel.
#include "wex_core_filter.h"
#include "wex_core_process_event.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <set>

#include "chain_lock.h"
#include "injection.h"
#include "linked_name.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_dbg.h"
#include "wex_limits.h"

namespace {

injection g_setsockopt;

// The instructions that the kernel grants a socket. Those of the filter in place count until it is replaced.
constexpr unsigned kUnlimited = 1000000;
unsigned g_room = kUnlimited;
unsigned g_longest = kUnlimited;  // of one program
unsigned g_in_place = 0;
int g_exchanges = 0;  // of the filter

}  // namespace

extern "C" {
int LINKED_SETSOCKOPT(__real)(int fd, int level, int name, const void* value, socklen_t size);
int LINKED_SETSOCKOPT(__wrap)(int fd, int level, int name, const void* value, socklen_t size);
int LINKED_SETSOCKOPT(__wrap)(int fd, int level, int name, const void* value, socklen_t size) {
  sock_fprog program = {};
  if (name == SO_ATTACH_FILTER) {
    memcpy(&program, value, sizeof program);
  }
  if (program.len > 0 && (program.len + g_in_place > g_room || program.len > g_longest)) {
    errno = ENOMEM;
    return -1;
  }
  const int result = g_setsockopt.now() ? -1 : LINKED_SETSOCKOPT(__real)(fd, level, name, value, size);
  g_in_place = result == 0 ? program.len : g_in_place;
  g_exchanges += result == 0 && name == SO_ATTACH_FILTER ? 1 : 0;
  return result;
}
}

namespace {

constexpr uint32_t kComm = 0x200;

class Filter : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, wex_init_chains(&wex_chains));
    g_room = kUnlimited;
    g_longest = kUnlimited;
    g_in_place = 0;
    forget_all();
    wex_pass_executions(true);
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends_));
    expect_exit_of(7);
    wex_attach_filter(ends_[1]);
  }
  void TearDown() override {
    wex_release_filter();
    wex_pass_thread_ends(thread_ends_for::undecided_exits, false);
    wex_pass_thread_ends(thread_ends_for::registrations, false);
    close(ends_[0]);
    close(ends_[1]);
  }

  // Whether such an event comes through.
  bool passes(uint32_t kind, int32_t pid = 7, int32_t tgid = 7, uint32_t code = 0, size_t size = 76,
              int32_t last = 0) {
    std::array<uint8_t, 76> message = {};
    memcpy(message.data() + kKindAt, &kind, sizeof kind);
    memcpy(message.data() + kPidAt, &pid, sizeof pid);
    memcpy(message.data() + kTgidAt, &tgid, sizeof tgid);
    memcpy(message.data() + kCodeAt, &code, sizeof code);
    memcpy(message.data() + kChildTgidAt, &last, sizeof last);
    // What the filter drops is refused with EPERM or taken and thrown away, according to the kind of socket.
    send(ends_[0], message.data(), size, MSG_DONTWAIT);
    uint8_t got[sizeof message];
    return recv(ends_[1], got, sizeof got, MSG_DONTWAIT) == static_cast<ssize_t>(size);
  }
  bool exit_passes(int32_t pid) { return passes(kEventExit, pid, pid); }
  bool birth_passes(int32_t pid, int32_t tgid, int32_t parent = 1) {
    return passes(kEventFork, parent, parent, static_cast<uint32_t>(pid), 76, tgid);
  }
  bool birth_passes(int32_t pid) { return birth_passes(pid, pid); }
  bool thread_ends_pass() { return passes(kEventExit, 9, 7, 0); }

  static bool expect_exit_of(int32_t pid) {
    const chain_lock hold(wex_chains);
    return wex_pass_exits_of(pid);
  }
  // As of a child that was just started.
  static void expect_child(int32_t pid) {
    const chain_lock hold(wex_chains);
    __wex_expect_child(pid);
  }
  static void keep_only(const std::set<int32_t>& pids) {
    const auto kept = std::make_unique<pid_set>();
    for (const int32_t pid : pids) {
      EXPECT_TRUE(kept->add(pid));
    }
    const chain_lock hold(wex_chains);
    wex_pass_exits_only_of(kept.get());
  }
  static void forget_all() { keep_only({}); }

  // Each of these and none of its neighbours, nor of processes that differ from it in one bit, comes through.
  void expect_exactly(const std::set<int32_t>& pids) {
    for (const int32_t pid : pids) {
      ASSERT_TRUE(exit_passes(pid)) << pid;
      ASSERT_TRUE(birth_passes(pid)) << pid;
      for (const int32_t other :
           {pid - 1, pid + 1, pid ^ 0x20, pid ^ 0x2000, pid ^ 0x10000, pid ^ 0x1000000}) {
        ASSERT_EQ(pids.count(other) != 0, exit_passes(other)) << other << " beside " << pid;
        ASSERT_EQ(pids.count(other) != 0, birth_passes(other)) << other << " beside " << pid;
      }
    }
  }

 private:
  int ends_[2] = {-1, -1};
};

}  // namespace

TEST_F(Filter, PassesWhatTheMonitorActsOn) {
  EXPECT_TRUE(passes(kEventAck));
  EXPECT_TRUE(passes(kEventExec));
  EXPECT_TRUE(passes(kEventExit));
  EXPECT_TRUE(passes(kEventExit, 7, 7, 11)) << "a killed process";
  EXPECT_TRUE(birth_passes(7));
  EXPECT_FALSE(passes(kComm));
}

TEST_F(Filter, DropsTheEndsOfThreadsThatDumpedNoCore) {
  EXPECT_FALSE(thread_ends_pass());
  EXPECT_FALSE(passes(kEventExit, 9, 7, 11)) << "killed without a core";
  EXPECT_FALSE(passes(kEventExit, 0x01000007, 7, 0)) << "ids that differ in one byte only";
  EXPECT_TRUE(passes(kEventExit, 9, 7, 0x80 | 11));
}

TEST_F(Filter, DropsTheExitsOfOtherProcessesWhateverTheirEnd) {
  EXPECT_FALSE(exit_passes(8));
  EXPECT_FALSE(exit_passes(7 + 32));
  EXPECT_FALSE(passes(kEventExit, 8, 8, 0x80 | 11));
  EXPECT_FALSE(passes(kEventExit, 7, 8, 0x80 | 11)) << "a thread of another process";
  forget_all();
  EXPECT_FALSE(exit_passes(7));
  EXPECT_TRUE(passes(kEventAck));
}

// Whoever gets the pid of a registered process.
TEST_F(Filter, PassesTheBirthsOfItsProcessesButNotOfThreads) {
  EXPECT_TRUE(birth_passes(7));
  EXPECT_FALSE(birth_passes(8));
  EXPECT_FALSE(birth_passes(9, 7)) << "a thread of the registered process";
  EXPECT_FALSE(birth_passes(7, 9)) << "a thread of another one";
  EXPECT_TRUE(birth_passes(7, 7, getpid())) << "a sibling that a child of the daemon has made is reported so";
  forget_all();
  EXPECT_FALSE(birth_passes(7));
}

TEST_F(Filter, DropsExecutionsWhileNobodyWantsThem) {
  wex_pass_executions(false);
  EXPECT_FALSE(passes(kEventExec, 7, 7));
  EXPECT_TRUE(exit_passes(7));
  wex_pass_executions(true);
  EXPECT_TRUE(passes(kEventExec));
}

TEST_F(Filter, HoldsAnySetOfProcesses) {
  std::mt19937 numbers(13);
  // From ids side by side to one in each word, as many as there is room for.
  for (const int32_t highest : {400, 32767, 4194303, INT32_MAX}) {
    std::set<int32_t> pids;
    while (pids.size() < (highest == 400 ? 300 : pid_set::kWords)) {
      pids.insert(std::uniform_int_distribution<int32_t>(1, highest)(numbers));
    }
    keep_only(pids);
    expect_exactly(pids);
  }
  for (const size_t count :
       {1U, 2U, 3U, 62U, 63U, 64U, 65U, 127U, 128U, 129U, 255U, 256U, 257U, 511U, 512U}) {
    std::set<int32_t> pids;
    for (size_t i = 1; i <= count; ++i) {
      pids.insert(static_cast<int32_t>(i * 32 + i % 32));
    }
    keep_only(pids);
    expect_exactly(pids);
  }
}

TEST_F(Filter, KeepsANewcomerWithoutARecordUntilAnotherHasItsPlace) {
  wex_pass_exits_of_newcomer(2000, 3);
  EXPECT_TRUE(exit_passes(2000));
  forget_all();
  EXPECT_TRUE(exit_passes(2000));
  for (int place = 0; place < kNewcomers; ++place) {
    if (place != 3) {
      wex_pass_exits_of_newcomer(2001 + place, place);
    }
  }
  forget_all();
  EXPECT_TRUE(exit_passes(2000));
  wex_pass_exits_of_newcomer(3000, 3);
  forget_all();
  EXPECT_FALSE(exit_passes(2000));
  EXPECT_TRUE(exit_passes(3000));
}

TEST_F(Filter, ANewcomerForWhomThereIsNoRoomHasTheNextRecordTidyIt) {
  std::set<int32_t> pids;
  for (size_t i = 1; i <= pid_set::kWords; ++i) {
    pids.insert(static_cast<int32_t>(i * 32));
  }
  keep_only(pids);
  wex_pass_exits_of_newcomer(1000000, 0);
  EXPECT_TRUE(exit_passes(1000001)) << "those of all processes";
  EXPECT_FALSE(expect_exit_of(32));
  EXPECT_TRUE(expect_exit_of(32)) << "told once";
}

TEST_F(Filter, KeepsAProcessUntilItIsTidied) {
  EXPECT_TRUE(expect_exit_of(1000));
  EXPECT_TRUE(exit_passes(1000));
  EXPECT_TRUE(exit_passes(7));
  EXPECT_FALSE(exit_passes(1001));
  keep_only({1000});
  EXPECT_TRUE(exit_passes(1000));
  EXPECT_FALSE(exit_passes(7));
}

TEST_F(Filter, IsExchangedOnceForManyChildrenInARow) {
  constexpr int32_t kFirst = 32 * 40 + 5;
  expect_child(kFirst);
  EXPECT_TRUE(exit_passes(kFirst));
  wex_sleep_ms(kChildrenInARowMs);
  expect_child(kFirst + 1);
  expect_exactly({7, kFirst, kFirst + 1});
  const int before = g_exchanges;
  // A test that is held up for so long between two of them tries again.
  int64_t begun = 0;
  do {
    forget_all();
    g_exchanges = before;
    begun = wex_clock_ms();
    for (int32_t pid = kFirst + 1; pid < 32 * 41; ++pid) {
      expect_child(pid);
      ASSERT_TRUE(exit_passes(pid)) << pid;
    }
  } while (wex_clock_ms() - begun >= kChildrenInARowMs);
  EXPECT_LE(g_exchanges, before + 3) << "of all, of the first, of the second with all after it";
  EXPECT_FALSE(exit_passes(kFirst)) << "one that came before them";
  EXPECT_FALSE(exit_passes(32 * 41)) << "of another word";
  keep_only({kFirst + 1});
  expect_exactly({kFirst + 1});
}

TEST_F(Filter, PassesTheExitsOfAllWhenItsProcessesAreTooMany) {
  for (int32_t at = 1; at < static_cast<int32_t>(pid_set::kWords); ++at) {
    ASSERT_TRUE(expect_exit_of(at * 32));
  }
  EXPECT_FALSE(exit_passes(100001));
  EXPECT_FALSE(expect_exit_of(100000));
  EXPECT_TRUE(exit_passes(100000));
  EXPECT_TRUE(exit_passes(100001));
  EXPECT_TRUE(birth_passes(100001));
  EXPECT_FALSE(birth_passes(100001, 7)) << "a thread";
  EXPECT_FALSE(thread_ends_pass());
  EXPECT_TRUE(expect_exit_of(200000)) << "it has been said once that the set is full";
  EXPECT_TRUE(exit_passes(200001));
  {
    const chain_lock hold(wex_chains);
    wex_pass_exits_only_of(nullptr);
  }
  EXPECT_TRUE(exit_passes(100001)) << "they still are too many";
  keep_only({7, 100000});
  EXPECT_TRUE(exit_passes(100000));
  EXPECT_FALSE(exit_passes(100001));
}

TEST_F(Filter, HasNoProcessesBelow1) {
  EXPECT_TRUE(expect_exit_of(0));
  EXPECT_TRUE(expect_exit_of(-1));
  EXPECT_FALSE(exit_passes(0));
  EXPECT_FALSE(exit_passes(-1));
}

TEST_F(Filter, PassesTheEndsOfThreadsWhileAnybodyNeedsThem) {
  wex_pass_thread_ends(thread_ends_for::undecided_exits, true);
  EXPECT_TRUE(thread_ends_pass());
  EXPECT_FALSE(passes(kEventExit, 9, 8)) << "its process is not registered";
  wex_pass_thread_ends(thread_ends_for::registrations, true);
  EXPECT_TRUE(passes(kEventExit, 9, 8)) << "thread 9 may be";
  wex_pass_thread_ends(thread_ends_for::undecided_exits, false);
  EXPECT_TRUE(thread_ends_pass()) << "one of two still needs them";
  EXPECT_FALSE(birth_passes(9, 7));
  wex_pass_thread_ends(thread_ends_for::registrations, false);
  EXPECT_FALSE(thread_ends_pass());
}

TEST_F(Filter, RemembersWhoNeedsThreadsBeforeThereIsASocket) {
  wex_release_filter();
  wex_pass_thread_ends(thread_ends_for::registrations, true);
  EXPECT_FALSE(thread_ends_pass()) << "a released socket is not touched";
  int other[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, other));
  wex_attach_filter(other[1]);
  uint8_t message[76] = {};
  const uint32_t kind = kEventExit;
  memcpy(message + kKindAt, &kind, sizeof kind);
  message[kPidAt] = 1;
  EXPECT_EQ(76, send(other[0], message, sizeof message, MSG_DONTWAIT));
  EXPECT_EQ(76, recv(other[1], message, sizeof message, MSG_DONTWAIT));
  wex_release_filter();
  close(other[0]);
  close(other[1]);
}

TEST_F(Filter, DropsAnExitThatEndsBeforeItsPid) {
  EXPECT_FALSE(passes(kEventExit, 7, 7, 0, 54));
}

TEST_F(Filter, ThatIsRefusedIsReplacedByOneThatPassesAllExits) {
  g_longest = g_in_place;
  EXPECT_TRUE(expect_exit_of(1000));
  EXPECT_TRUE(exit_passes(1000));
  EXPECT_TRUE(exit_passes(1001));
  EXPECT_FALSE(thread_ends_pass());
  g_longest = kUnlimited;
  EXPECT_TRUE(expect_exit_of(2000));
  EXPECT_TRUE(exit_passes(1001)) << "the kernel is not asked again at every registration";
  keep_only({7, 1000});
  EXPECT_FALSE(exit_passes(1001)) << "but when the filter is tidied";
  EXPECT_TRUE(exit_passes(1000));
}

TEST_F(Filter, ThatIsLargeGetsItsRoomFromAShortOne) {
  std::set<int32_t> pids;
  for (int32_t pid = 1000; pid < 20000; pid += 200) {
    pids.insert(pid);
    expect_exit_of(pid);
  }
  g_room = g_in_place + g_in_place / 2;
  pids.insert(30000);
  EXPECT_TRUE(expect_exit_of(30000));
  for (const int32_t pid : pids) {
    ASSERT_TRUE(exit_passes(pid)) << pid;
  }
  EXPECT_FALSE(exit_passes(30001));
}

TEST_F(Filter, ThatWouldPassLessStaysWhenItsSuccessorsAreRefused) {
  expect_exit_of(1000);
  g_setsockopt.fail(2, ENOMEM);
  keep_only({7});
  EXPECT_TRUE(exit_passes(1000)) << "one too many";
  EXPECT_FALSE(exit_passes(1001));
  EXPECT_TRUE(expect_exit_of(1001));
  EXPECT_TRUE(exit_passes(1001));
}

TEST_F(Filter, IsTakenAwayWhenEveryOtherIsRefused) {
  g_setsockopt.fail(2, ENOMEM);
  wex_pass_thread_ends(thread_ends_for::registrations, true);
  EXPECT_TRUE(thread_ends_pass());
  EXPECT_TRUE(passes(kEventFork)) << "nothing filters";
  wex_pass_thread_ends(thread_ends_for::registrations, false);
  EXPECT_FALSE(thread_ends_pass()) << "and one is put back when it can be";
}

TEST_F(Filter, ThatWasRefusedIsTriedAgainAtTheNextOccasion) {
  g_setsockopt.fail(3, ENOMEM);
  EXPECT_TRUE(expect_exit_of(1000));
  EXPECT_FALSE(exit_passes(1000)) << "neither could it be taken away";
  EXPECT_TRUE(expect_exit_of(1000));
  EXPECT_TRUE(exit_passes(1000));
  g_setsockopt.fail(2, ENOMEM);
  wex_pass_thread_ends(thread_ends_for::registrations, true);
  EXPECT_FALSE(thread_ends_pass());
  wex_pass_thread_ends(thread_ends_for::undecided_exits, true);
  EXPECT_TRUE(thread_ends_pass());
}

// Which process events reach the monitor's queue: the filter on a socket of the real kernel.
#include "wex_core_filter.h"
#include "wex_core_process_event.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "injection.h"
#include "wex_dbg.h"

namespace {

injection g_setsockopt;

}  // namespace

extern "C" {
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
  return g_setsockopt.now() ? -1 : __real_setsockopt(fd, level, name, value, size);
}
}

namespace {

constexpr uint32_t kFork = 1;
constexpr uint32_t kComm = 0x200;

class Filter : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends_));
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
  bool passes(uint32_t kind, int32_t pid = 7, int32_t tgid = 7, uint32_t code = 0, size_t size = 76) {
    std::array<uint8_t, 76> message = {};
    memcpy(message.data() + kKindAt, &kind, sizeof kind);
    memcpy(message.data() + kPidAt, &pid, sizeof pid);
    memcpy(message.data() + kTgidAt, &tgid, sizeof tgid);
    memcpy(message.data() + kCodeAt, &code, sizeof code);
    // What the filter drops is refused with EPERM or taken and thrown away, according to the kind of socket.
    send(ends_[0], message.data(), size, MSG_DONTWAIT);
    uint8_t got[sizeof message];
    return recv(ends_[1], got, sizeof got, MSG_DONTWAIT) == static_cast<ssize_t>(size);
  }
  bool thread_ends_pass() { return passes(kEventExit, 9, 7, 0); }

 private:
  int ends_[2] = {-1, -1};
};

}  // namespace

TEST_F(Filter, PassesWhatTheMonitorActsOn) {
  EXPECT_TRUE(passes(kEventAck));
  EXPECT_TRUE(passes(kEventExec));
  EXPECT_TRUE(passes(kEventExit));
  EXPECT_TRUE(passes(kEventExit, 0x12345678, 0x12345678, 11)) << "a killed process";
  EXPECT_FALSE(passes(kFork));
  EXPECT_FALSE(passes(kComm));
}

TEST_F(Filter, DropsTheEndsOfThreadsThatDumpedNoCore) {
  EXPECT_FALSE(thread_ends_pass());
  EXPECT_FALSE(passes(kEventExit, 9, 7, 11)) << "killed without a core";
  EXPECT_FALSE(passes(kEventExit, 0x01000007, 7, 0)) << "ids that differ in one byte only";
  EXPECT_TRUE(passes(kEventExit, 9, 7, 0x80 | 11));
}

TEST_F(Filter, PassesTheEndsOfThreadsWhileAnybodyNeedsThem) {
  wex_pass_thread_ends(thread_ends_for::undecided_exits, true);
  EXPECT_TRUE(thread_ends_pass());
  wex_pass_thread_ends(thread_ends_for::registrations, true);
  wex_pass_thread_ends(thread_ends_for::undecided_exits, false);
  EXPECT_TRUE(thread_ends_pass()) << "one of two still needs them";
  EXPECT_FALSE(passes(kFork));
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

TEST_F(Filter, IsTakenAwayWhenTheOneThatPassesThreadsIsRefused) {
  g_setsockopt.fail(1, ENOMEM);
  wex_pass_thread_ends(thread_ends_for::registrations, true);
  EXPECT_TRUE(thread_ends_pass());
  wex_pass_thread_ends(thread_ends_for::registrations, false);
  EXPECT_FALSE(thread_ends_pass()) << "and is put back when it can be";
}

TEST_F(Filter, ThatWasRefusedIsTriedAgainAtTheNextOccasion) {
  g_setsockopt.fail(2, ENOMEM);
  wex_pass_thread_ends(thread_ends_for::registrations, true);
  EXPECT_FALSE(thread_ends_pass()) << "neither could it be taken away";
  wex_pass_thread_ends(thread_ends_for::undecided_exits, true);
  EXPECT_TRUE(thread_ends_pass());
  g_setsockopt.fail(1, ENOMEM);
  wex_pass_thread_ends(thread_ends_for::undecided_exits, false);
  wex_pass_thread_ends(thread_ends_for::registrations, false);
  EXPECT_TRUE(thread_ends_pass()) << "too many, but none too few";
  wex_pass_thread_ends(thread_ends_for::registrations, false);
  EXPECT_FALSE(thread_ends_pass());
}

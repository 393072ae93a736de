// The exit monitor's reading of bytes: what it sends, what it makes of what it gets, and its configuration.
#include "wex_core_netlink.h"
#include "wex_core_crash.h"
#include "wex_core_process_event.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

enum : uint16_t { kNoop = 1, kError = 2, kDone = 3, kOverrun = 4, kOrdinary = 20 };

template <typename T>
void put(bytes* message, size_t at, T value) {
  if (message->size() < at + sizeof value) {
    message->resize(at + sizeof value);
  }
  memcpy(message->data() + at, &value, sizeof value);
}

// One netlink message as the kernel sends it: 76 bytes with a header that says so.
bytes message(uint32_t kind, int32_t pid, int32_t tgid, uint32_t code, uint16_t type = kDone,
              size_t size = 76) {
  bytes made(76, 0xa5);
  put(&made, 0, static_cast<uint32_t>(size));
  put(&made, 4, type);
  put(&made, 36, kind);
  put(&made, 52, pid);
  put(&made, 56, tgid);
  put(&made, 60, code);
  made.resize(size);
  return made;
}

bytes operator+(bytes first, const bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The datagram ends where an unreadable page begins, so that one byte too many is a crash.
class datagram_at_the_edge {
 public:
  explicit datagram_at_the_edge(const bytes& content)
      : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))), size_(content.size()) {
    void* const pages = mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    pages_ = static_cast<uint8_t*>(pages);
    if (size_ != 0) {
      memcpy(pages_ + page_ - size_, content.data(), size_);
    }
    mprotect(pages_ + page_, page_, PROT_NONE);
  }
  ~datagram_at_the_edge() { munmap(pages_, 2 * page_); }
  datagram_at_the_edge(const datagram_at_the_edge&) = delete;
  const uint8_t* data() const { return pages_ + page_ - size_; }
  size_t size() const { return size_; }

 private:
  size_t page_;
  size_t size_;
  uint8_t* pages_;
};

std::vector<process_event> events_of(const bytes& content) {
  std::vector<process_event> seen;
  const datagram_at_the_edge datagram(content);
  wex_walk_datagram(
      datagram.data(), datagram.size(),
      [](const process_event& event, void* context) {
        static_cast<std::vector<process_event>*>(context)->push_back(event);
      },
      &seen);
  return seen;
}

std::vector<int32_t> pids_of(const bytes& content) {
  std::vector<int32_t> pids;
  for (const process_event& event : events_of(content)) {
    pids.push_back(event.pid);
  }
  return pids;
}

using pids = std::vector<int32_t>;

TEST(Subscription, IsTheseFortyBytes) {
  uint8_t made[kSubscriptionSize];
  memset(made, 0xee, sizeof made);
  wex_build_subscription(0x01020304, made);
  const struct {  // in host order, as the kernel reads them
    uint32_t length;
    uint16_t type, flags;
    uint32_t sequence, port;
    uint32_t index, value, number, acknowledged;
    uint16_t content_length, content_flags;
    uint32_t operation;
  } wanted = {40, 3, 0, 0, 0x01020304, 1, 1, 0, 0, 4, 0, 1};
  ASSERT_EQ(40u, sizeof wanted);
  const auto* const first = reinterpret_cast<const uint8_t*>(&wanted);
  EXPECT_EQ(bytes(first, first + 40), bytes(made, made + 40));
}

TEST(Datagram, AnExitCarriesPidGroupAndCode) {
  const auto seen = events_of(message(kEventExit, 812, 811, 0x8b));
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(kEventExit, seen[0].kind);
  EXPECT_EQ(812, seen[0].pid);
  EXPECT_EQ(811, seen[0].tgid);
  EXPECT_EQ(0x8bu, seen[0].exit_code);
}

TEST(Datagram, AnExecCarriesPidAndGroupAndNoCode) {
  const auto seen = events_of(message(kEventExec, 5, 5, 0x8b));
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(kEventExec, seen[0].kind);
  EXPECT_EQ(5, seen[0].pid);
  EXPECT_EQ(5, seen[0].tgid);
  EXPECT_EQ(0u, seen[0].exit_code);
}

TEST(Datagram, AForkCarriesTheChildAndNotItsParent) {
  bytes fork = message(kEventFork, 5, 6, 812);
  put(&fork, kChildTgidAt, int32_t{811});
  const auto seen = events_of(fork);
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(kEventFork, seen[0].kind);
  EXPECT_EQ(812, seen[0].pid);
  EXPECT_EQ(811, seen[0].tgid);
  EXPECT_EQ(0u, seen[0].exit_code);
}

TEST(Datagram, TheAcknowledgementIsPassedOn) {
  const auto seen = events_of(message(kEventAck, 0, 0, 0));
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(kEventAck, seen[0].kind);
}

TEST(Datagram, EventsOfOtherKindsAreIgnored) {
  for (const uint32_t kind : {4u, 0x40u, 0x80u, 0x100u, 0x200u, 0x40000000u, 0x80000002u, 0xffffffffu}) {
    EXPECT_TRUE(events_of(message(kind, 5, 5, 0)).empty()) << kind;
  }
}

TEST(Datagram, AnEventThatEndsBeforeItsFieldsIsDropped) {
  for (size_t size = 16; size < 64; ++size) {
    EXPECT_TRUE(events_of(message(kEventExit, 5, 5, 9, kDone, size)).empty()) << size;
  }
  EXPECT_EQ(pids{5}, pids_of(message(kEventExit, 5, 5, 9, kDone, 64)));
  for (size_t size = 16; size < 60; ++size) {
    EXPECT_TRUE(events_of(message(kEventExec, 5, 5, 9, kDone, size)).empty()) << size;
  }
  EXPECT_EQ(pids{5}, pids_of(message(kEventExec, 5, 5, 9, kDone, 60)));
  for (size_t size = 16; size < 68; ++size) {
    EXPECT_TRUE(events_of(message(kEventFork, 5, 5, 9, kDone, size)).empty()) << size;
  }
  EXPECT_EQ(pids{9}, pids_of(message(kEventFork, 5, 5, 9, kDone, 68)));
}

TEST(Datagram, AMessageThatClaimsMoreThanThereIsStopsTheWalk) {
  bytes cut = message(kEventExit, 5, 5, 9);
  cut.resize(75);
  EXPECT_TRUE(events_of(cut).empty());
  for (const uint32_t claimed : {77u, 1024u, 0x7fffffffu, 0x80000000u, 0xfffffffdu, 0xffffffffu}) {
    bytes liar = message(kEventExit, 5, 5, 9);
    put(&liar, 0, claimed);
    EXPECT_TRUE(events_of(liar).empty()) << claimed;
  }
}

TEST(Datagram, AMessageShorterThanItsOwnHeaderStopsTheWalk) {
  for (uint32_t claimed = 0; claimed < 16; ++claimed) {
    bytes liar = message(kEventExit, 5, 5, 9, kOrdinary);
    put(&liar, 0, claimed);
    EXPECT_TRUE(events_of(liar + message(kEventExit, 6, 6, 9)).empty()) << claimed;
  }
}

TEST(Datagram, LessThanAHeaderIsNothing) {
  for (size_t size = 0; size < 16; ++size) {
    EXPECT_TRUE(events_of(bytes(size, 0)).empty()) << size;
  }
}

TEST(Datagram, ANoopIsSkippedAndTheWalkGoesOn) {
  EXPECT_EQ(pids{6}, pids_of(message(kEventExit, 5, 5, 9, kNoop) + message(kEventExit, 6, 6, 9)));
}

TEST(Datagram, AnErrorOrAnOverrunStopsTheWalk) {
  for (const uint16_t type : {kError, kOverrun}) {
    const bytes stopped = message(kEventExit, 5, 5, 9, kOrdinary) + message(kEventExit, 6, 6, 9, type) +
                          message(kEventExit, 7, 7, 9);
    EXPECT_EQ(pids{5}, pids_of(stopped)) << type;
  }
}

TEST(Datagram, DoneIsTheLastMessageThatCounts) {
  EXPECT_EQ((pids{5, 6}),
            pids_of(message(kEventExit, 5, 5, 9, kOrdinary) + message(kEventExit, 6, 6, 9, kDone) +
                    message(kEventExit, 7, 7, 9, kOrdinary)));
}

TEST(Datagram, TheNextMessageBeginsAtAMultipleOfFour) {
  for (size_t size = 65; size <= 68; ++size) {
    bytes first = message(kEventExit, 5, 5, 9, kOrdinary, size);
    first.resize(68, 0xa5);
    EXPECT_EQ((pids{5, 6}), pids_of(first + message(kEventExit, 6, 6, 9))) << size;
  }
}

TEST(Datagram, PaddingThatIsNotThereEndsTheWalk) {
  for (size_t size = 65; size < 68; ++size) {
    EXPECT_EQ(pids{5}, pids_of(message(kEventExit, 5, 5, 9, kOrdinary, size))) << size;
  }
}

TEST(Datagram, AnyBytesAreSafeAndYieldNoMoreEventsThanHeaders) {
  std::mt19937 random(20261121);  // fixed: a failure must come again
  for (int round = 0; round < 20000; ++round) {
    bytes content(random() % 256);
    for (uint8_t& byte : content) {
      byte = static_cast<uint8_t>(random());
    }
    // Mostly plausible headers, or the walk would end at the first.
    for (size_t at = 0; at + 16 <= content.size();) {
      const uint32_t length = static_cast<uint32_t>(random() % 96);
      put(&content, at, length);
      put(&content, at + 4, static_cast<uint16_t>(random() % 6));
      if (at + 40 <= content.size()) {
        constexpr uint32_t kKinds[] = {kEventAck, kEventExec, kEventExit, kEventFork};
        put(&content, at + 36, kKinds[random() % 4]);
      }
      at += (length + 19) & ~size_t{3};
    }
    const size_t most = content.size() / 16;
    EXPECT_LE(events_of(content).size(), most);
  }
}

TEST(BurstRule, TwoNumbersAreWindowAndCount) {
  struct {
    const char* text;
    int32_t window;
    int32_t count;
  } const rows[] = {{"60 3", 60, 3},   {"60 3\n", 60, 3}, {"  60\t\n3 more words", 60, 3},
                    {"900 0", 900, 0}, {"-5 -1", -5, -1}, {"+60 +3", 60, 3},
                    {"60-3", 60, -3},  {"60 3x", 60, 3},  {"2147483647 2147483647", INT32_MAX, INT32_MAX},
                    {"007 010", 7, 10}};
  for (const auto& row : rows) {
    int32_t window = 900;
    int32_t count = 10;
    EXPECT_TRUE(wex_parse_burst(row.text, &window, &count)) << row.text;
    EXPECT_EQ(row.window, window) << row.text;
    EXPECT_EQ(row.count, count) << row.text;
  }
}

TEST(BurstRule, AnythingElseLeavesBothValuesAlone) {
  const char* const texts[] = {"",
                               " ",
                               "60",
                               "60 ",
                               "60 x",
                               "x 3",
                               "60,3",
                               "60x 3",
                               "- 3",
                               "2147483648 3",
                               "60 2147483648",
                               "-2147483649 3",
                               "99999999999999999999999 3",
                               "60 99999999999999999999999",
                               "\xff\xfe 3"};
  for (const char* const text : texts) {
    int32_t window = 900;
    int32_t count = 10;
    EXPECT_FALSE(wex_parse_burst(text, &window, &count)) << text;
    EXPECT_EQ(900, window) << text;
    EXPECT_EQ(10, count) << text;
  }
}

}  // namespace

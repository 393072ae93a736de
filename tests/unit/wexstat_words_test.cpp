// Words for times, exits, events and texts.
#include "wexstat_words.h"

#include "wexstat_world.h"

using namespace wexstat_test;

namespace {

std::string duration(int64_t milliseconds) {
  char text[kWordsSize];
  say_duration(milliseconds, text, sizeof text);
  return text;
}
std::string exit_of(uint32_t status) {
  char text[kWordsSize];
  say_exit(status, text, sizeof text);
  return text;
}
std::string escaped(const std::string& from, size_t room = 64) {
  char text[64];
  escape(from.data(), from.size(), text, room);
  return text;
}
std::string event_text(uint32_t kind, int32_t new_pid, int32_t value, uint32_t code) {
  wex_status_event event = {};
  event.kind = kind;
  event.new_pid = new_pid;
  event.value = value;
  event.exit_code = code;
  char text[kWordsSize];
  say_event(event, text, sizeof text);
  return text;
}

}  // namespace

TEST(WexstatWords, DurationsHaveTheTwoLargestUnits) {
  const struct {
    int64_t milliseconds;
    const char* words;
  } rows[] = {{-5000, "0 s"},
              {999, "0 s"},
              {59999, "59 s"},
              {60000, "1 min 0 s"},
              {250000, "4 min 10 s"},
              {3599999, "59 min 59 s"},
              {12000000, "3 h 20 min"},
              {86399999, "23 h 59 min"},
              {int64_t{76} * 3600000, "3 d 4 h"},
              {INT64_MAX, "106751991167 d 7 h"}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.words, duration(row.milliseconds)) << row.milliseconds;
  }
}

TEST(WexstatWords, ExitsAreToldAsSignalOrStatus) {
  EXPECT_EQ("exit 0", exit_of(0));
  EXPECT_EQ("exit 1", exit_of(0x0100));
  EXPECT_EQ("exit 127", exit_of(0x7f00));
  EXPECT_EQ("SIGKILL", exit_of(9));
  EXPECT_EQ("SIGSEGV, core", exit_of(0x80 | SIGSEGV));
  EXPECT_EQ("SIGABRT, core", exit_of(0x80 | SIGABRT));
  EXPECT_EQ("signal 40", exit_of(40));
  EXPECT_EQ("exit 255", exit_of(0xffffffff)) << "no status of wait(2) ends so";
}

TEST(WexstatWords, TimesNeverOverflow) {
  EXPECT_EQ(0, time_between(5, 5));
  EXPECT_EQ(0, time_between(6, 5));
  EXPECT_EQ(7, time_between(-2, 5));
  EXPECT_EQ(INT64_MAX, time_between(INT64_MIN, INT64_MAX));
  char text[kWordsSize];
  for (const int64_t seconds : {INT64_MIN, INT64_MAX, int64_t{0}}) {
    say_time(seconds, text, sizeof text);
    EXPECT_STREQ("-", text) << seconds;
  }
}

TEST(WexstatWords, EveryEventIsTold) {
  EXPECT_EQ("exited: SIGABRT, core", event_text(WEX_STATUS_EV_EXITED, 0, 0, 0x86));
  EXPECT_EQ("restarted as pid 12", event_text(WEX_STATUS_EV_RESTARTED, 12, 0, 0));
  EXPECT_EQ("parked for 5 min 0 s: restarted too often", event_text(WEX_STATUS_EV_PARKED, 0, 300, 0));
  EXPECT_EQ("thread 44 hangs, the process is aborted", event_text(WEX_STATUS_EV_HANG, 44, 0, 0));
  EXPECT_EQ("11 programs dumped core in a short time", event_text(WEX_STATUS_EV_BURST, 0, 11, 0));
  EXPECT_EQ("wex restarts the device: a program was parked again too soon",
            event_text(WEX_STATUS_EV_REBOOT_ASKED, 0, WEX_STATUS_REBOOT_SELF_CHECK, 0));
  EXPECT_EQ("restart of the device refused: no reason told",
            event_text(WEX_STATUS_EV_REBOOT_REFUSED, 0, -7, 0));
  EXPECT_EQ("event of kind 77", event_text(77, 0, 0, 0));
  std::set<std::string> names;
  for (uint32_t kind = 0; kind < WEX_STATUS_EV_KINDS; ++kind) {
    names.insert(kind_word(kind));
    EXPECT_EQ(std::string::npos, event_text(kind, 1, 1, 1).find('%')) << kind;
  }
  EXPECT_EQ(static_cast<size_t>(WEX_STATUS_EV_KINDS), names.size());
  EXPECT_STREQ("unknown", kind_word(WEX_STATUS_EV_KINDS));
}

TEST(WexstatWords, NothingReachesATerminalThatItWouldObey) {
  EXPECT_EQ("app-1.0 x", escaped("app-1.0 x"));
  EXPECT_EQ("\\x1b[31m\\x0a\\x07\\x7f\\\\", escaped("\033[31m\n\a\x7f\\"));
  EXPECT_EQ("\\xc2\\x9b\\x00z", escaped(std::string("\xc2\x9b\0z", 4)));
  EXPECT_EQ("abc", escaped("abcdef", 4));
  EXPECT_EQ("", escaped("abc", 1));
}

TEST(WexstatWords, Utf8IsToldFromOtherBytes) {
  const struct {
    std::string text;
    size_t length;
  } rows[] = {{"a", 1},
              {"\xc3\xa4", 2},
              {"\xe2\x82\xac", 3},
              {"\xf0\x9f\x98\x80", 4},
              {"", 0},
              {"\x80", 0},
              {"\xc3", 0},
              {"\xc0\xaf", 0},
              {"\xe0\x80\xaf", 0},
              {"\xed\xa0\x80", 0},
              {"\xf4\x90\x80\x80", 0},
              {"\xff", 0},
              {"\xe2\x82", 0},
              {"\xc3(", 0},
              {"\xf0\x80\x80\x80", 0}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.length, utf8_length(row.text.data(), row.text.size())) << row.text;
  }
}

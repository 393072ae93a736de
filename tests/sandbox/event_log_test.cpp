// The two event-log files: which event goes where, and when a file is deleted.
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "restart_policy.h"

using namespace policy;

namespace {

constexpr char kLog1[] = "/tmp/wex/wex.log1";
constexpr char kLog2[] = "/tmp/wex/wex.log2";

// Entries without their times; a line that does not begin with a time is kept whole and so compares unequal.
std::vector<std::string> entries(const char* path) {
  constexpr char kTime[] = "^[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4} ";
  std::vector<std::string> found;
  for (const std::string& line : lines_of(read_file(path))) {
    found.push_back(replace_matches(line, kTime, ""));
  }
  return found;
}

struct event {
  std::string name;
  pid_t old_pid;
  int times;
  pid_t new_pid;
};

// Both messages end in a line end, and the writer adds one.
void expect_entry(std::vector<std::string>* expected, const std::string& line) {
  expected->push_back(line);
  expected->push_back("");
}

std::string id(const std::string& name, pid_t pid) {
  return name + "/" + std::to_string(pid);
}

void program_entries(std::vector<std::string>* expected, const event& what, bool second_file) {
  const std::string times = std::to_string(what.times);
  if (second_file) {
    expect_entry(expected, "%HA-5-HA_RESTART: Process:" + id(what.name, what.old_pid) +
                               " receives internal event: 0009 and restarts.");
    expect_entry(expected, "%HA-5-HA_RESTART_INFO: Process:[" + what.name + "] restarts [" + times +
                               "] times and new process is [" + id(what.name, what.new_pid) + "].");
  } else {
    expect_entry(expected, "%HA-5-HA_RESTART: Process:[" + id(what.name, what.old_pid) +
                               "] receives internal event:[0x0009] and restarts.");
    expect_entry(expected, "%HA-5-HA_RESTART_INFO: Process:" + what.name + " restarts " + times +
                               " times and new process is " + id(what.name, what.new_pid) + ".");
  }
}

void script_entries(std::vector<std::string>* expected, const event& what) {
  expect_entry(expected, "%HA-5-HA_SCRIPT_RESTART: Process:[" + id(what.name, what.old_pid) +
                             "] receives internal event:[0x0009] and restarts.");
  expect_entry(expected, "%HA-5-HA_SCRIPT_RESTART_INFO: Process:[" + what.name + "] restarts [" +
                             std::to_string(what.times) + "] times and new process is [" +
                             id(what.name, what.new_pid) + "].");
}

class EventLog : public WexWorld {
 protected:
  void SetUp() override {
    WexWorld::SetUp();
    write_file(kDebugLog, "");
    ASSERT_TRUE(daemon_.start());
  }
  void TearDown() override {
    daemon_.kill_now();
    services_.clear();
    WexWorld::TearDown();
  }

  Service& service(const std::string& tag, const std::string& registration = "--register=RESTART") {
    services_.push_back(std::make_unique<Service>(tag, registration));
    EXPECT_TRUE(services_.back()->start());
    return *services_.back();
  }

  // Ends the service and waits until its restart has been written about.
  static event restart(Service& one, int times) {
    event what = {one.name(), one.pid(), times, 0};
    EXPECT_TRUE(one.ends_and_comes_back());
    what.new_pid = one.pid();
    EXPECT_TRUE(console_says("times and new id " + id(what.name, what.new_pid) + ".\n"));
    return what;
  }

  // The files are written after the console line; deletions come last of all.
  static ::testing::AssertionResult becomes(const char* path, const std::vector<std::string>& expected) {
    if (eventually([&] { return entries(path) == expected; })) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << path << " holds:\n" << read_file(path);
  }

  Daemon daemon_;
  std::vector<std::unique_ptr<Service>> services_;
};

}  // namespace

TEST_F(EventLog, TwelveEventsAlternateAndEachTurnDeletesTheOtherFile) {
  Service* const three[] = {&service("first"), &service("second"), &service("third")};
  write_file(kLog2, "left over from earlier\n");
  std::vector<std::string> log1;
  std::vector<std::string> log2;
  for (int number = 1; number <= 12; ++number) {
    const event what = restart(*three[(number - 1) % 3], (number - 1) / 3 + 1);
    if (number == 11) {
      log1.clear();
    }
    const bool second_file = number >= 6 && number <= 10;
    if (number == 6) {
      log2.clear();
    }
    program_entries(second_file ? &log2 : &log1, what, second_file);
    if (number == 10) {
      EXPECT_TRUE(becomes(kLog2, log2));
      EXPECT_TRUE(eventually([] { return !exists(kLog1); })) << "the tenth deletes the first file";
      continue;
    }
    EXPECT_TRUE(becomes(second_file ? kLog2 : kLog1, second_file ? log2 : log1)) << "event " << number;
    if (number < 5) {
      EXPECT_EQ("left over from earlier\n", read_file(kLog2));
    } else if (number == 5) {
      EXPECT_TRUE(eventually([] { return !exists(kLog2); })) << "the fifth deletes the second file";
    }
  }
  EXPECT_EQ(log2, entries(kLog2)) << "it stays until the next fifth event";
}

TEST_F(EventLog, ScriptsHaveOneLayoutInBothFiles) {
  Service& first = service("a", "--register-shell=a");
  Service& second = service("b", "--register-shell=b");
  write_file("/etc/cmdmap/a", "exec " + first.command() + "\n");
  write_file("/etc/cmdmap/b", "exec " + second.command() + "\n");
  std::vector<std::string> log1;
  std::vector<std::string> log2;
  for (int number = 1; number <= 7; ++number) {
    const event what = restart(number % 2 != 0 ? first : second, (number + 1) / 2);
    script_entries(number <= 5 ? &log1 : &log2, what);
  }
  EXPECT_TRUE(becomes(kLog1, log1));
  EXPECT_TRUE(becomes(kLog2, log2));
}

TEST_F(EventLog, WithoutTheMarkerNothingIsWrittenAndNothingIsCounted) {
  ASSERT_EQ(0, unlink(kDebugLog));
  Service& quiet = service("quiet");
  for (int times = 1; times <= 3; ++times) {
    restart(quiet, times);
  }
  EXPECT_FALSE(exists(kLog1));
  EXPECT_FALSE(exists(kLog2));
  write_file(kDebugLog, "");
  Service* const two[] = {&service("one"), &service("two")};
  for (int number = 1; number <= 5; ++number) {
    restart(*two[number % 2], (number + 1) / 2);
  }
  EXPECT_TRUE(eventually([] { return entries(kLog1).size() == 20; })) << "events 1 to 5 all went here";
  EXPECT_FALSE(exists(kLog2));
}

TEST_F(EventLog, ATenthRestartThatFailsStopsTheLogForGood) {
  Service& first = service("a");
  Service& second = service("b");
  Service& third = service("c");
  for (int times = 1; times <= 4; ++times) {
    restart(first, times);
    restart(second, times);
  }
  restart(third, 1);
  ASSERT_TRUE(eventually([] { return entries(kLog2).size() == 16; }));
  first.end();  // its fifth exit parks it: announced, but not restarted
  ASSERT_TRUE(console_says("HA_WAIT_SELF_CHECK Task: " + first.name()));
  const std::vector<std::string> log1 = entries(kLog1);
  const std::vector<std::string> log2 = entries(kLog2);
  EXPECT_EQ(20u, log1.size()) << "not deleted";
  EXPECT_EQ(18u, log2.size()) << "the announcement alone";
  restart(third, 2);
  restart(third, 3);
  EXPECT_EQ(log1, entries(kLog1));
  EXPECT_EQ(log2, entries(kLog2));
}

TEST_F(EventLog, AFileThatCannotBeOpenedStopsTheRestart) {
  Service& stuck = service("stuck");
  make_dirs(kLog1);
  stuck.end();
  EXPECT_TRUE(console_says("]fail to openlog: "));
  EXPECT_TRUE(never([&] { return wait_for_actor(stuck.options(), stuck.pid(), 0ms) != 0; }, 500ms));
  EXPECT_TRUE(daemon_.running());
  ASSERT_EQ(0, rmdir(kLog1));
  Service& next = service("next");
  restart(next, 1);
  EXPECT_EQ(4u, entries(kLog1).size());
}

TEST_F(EventLog, AProgramThatWasNotRestartedForItIsSupervisedAgainWhenSomebodyStartsIt) {
  Service& stuck = service("stuck");
  const pid_t first = stuck.pid();
  make_dirs(kLog1);
  stuck.end();
  ASSERT_TRUE(console_says("fail to openlog: "));
  ASSERT_EQ(0, rmdir(kLog1));
  ASSERT_TRUE(stuck.start());
  ASSERT_NE(first, stuck.pid());
  EXPECT_FALSE(exists(db_file("actor", first))) << "the next daemon would start a second one";
  restart(stuck, 1);
  EXPECT_TRUE(eventually([] { return entries(kLog1).size() == 4; })) << read_file(kLog1);
}

TEST_F(EventLog, ADeletionThatFailsIsReported) {
  Service* const three[] = {&service("first"), &service("second"), &service("third")};
  for (int number = 1; number <= 10; ++number) {
    if (number == 10) {
      ASSERT_EQ(0, unlink(kLog1));
    }
    EXPECT_EQ(number > 5, read_console().find("remove wex_log2 fail") != std::string::npos) << number;
    restart(*three[(number - 1) % 3], (number - 1) / 3 + 1);
    EXPECT_TRUE(number != 5 || console_says("remove wex_log2 fail"));
  }
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit: remove wex_log2 fail: No such file or directory\n"));
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit: remove wex_log1 fail: No such file or directory\n"));
  restart(*three[1], 4);
  EXPECT_TRUE(eventually([] { return entries(kLog1).size() == 4; })) << "the count began anew all the same";
}

TEST_F(EventLog, TheFilesAreReadableLogsWithTheirTimes) {
  Service& timed = service("timed");
  restart(timed, 1);
  ASSERT_TRUE(eventually([] { return lines_of(read_file(kLog1)).size() == 4; }));
  const std::string first = lines_of(read_file(kLog1))[0];
  EXPECT_NE(first, entries(kLog1)[0]) << "no time in front: " << first;
}

// The announcement is written and the program runs again; only then is something in the file's place.
TEST_F(EventLog, AFileThatCannotBeOpenedAfterTheRestartLeavesTheProgramSupervised) {
  daemon_.stop();
  ASSERT_TRUE(daemon_.start_traced({"inject=clone,fork,vfork:delay_exit=2000000:when=1"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  Service& one = service("late");
  one.end();
  ASSERT_TRUE(eventually([] { return entries(kLog1).size() == 2; }, 20s)) << read_console();
  ASSERT_EQ(0, unlink(kLog1));
  make_dirs(kLog1);
  EXPECT_TRUE(console_says("]fail to openlog: ", 20s)) << read_console();
  EXPECT_TRUE(one.comes_back());
  ASSERT_EQ(0, rmdir(kLog1));
  restart(one, 2);
  EXPECT_TRUE(eventually([] { return entries(kLog1).size() == 4; })) << read_file(kLog1);
}

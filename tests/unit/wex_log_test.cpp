// wex_log: the four records and the reboot. The kernel refuses the reboot here: a case that could really
// restart the machine fails before it calls anything.
#include "wex_log.h"

#include <sys/prctl.h>
#include <utime.h>

#include <utility>

#include "failing_calls.h"
#include "file_lock.h"
#include "unique_fd.h"
#include "unit_support.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_strict.h"

using namespace unit;

namespace {

constexpr char kTimeText[] = "([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4})";

void make_parents(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
}

// With every time stamp as "T".
std::string without_times(const std::string& text) {
  return with_group(text, kTimeText, "T");
}

std::string of_size(off_t size) {
  return std::string(static_cast<size_t>(size), 'o');
}

std::vector<std::string> synced;  // what was written to the disk, with the size it had, in order
std::mutex synced_guard;          // entries are synced outside of the log's own lock

void set_time(const char* path, time_t when) {
  const utimbuf times = {when, when};
  ASSERT_EQ(0, utime(path, &times));
}

class RunningLog : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    make_parents(kRunningLog1);
    unlink(kRunningLog1);
    unlink(kRunningLog2);
  }
};
class EventLog : public Sandboxed {};
class NotifyRing : public Sandboxed {
 protected:
  static void report(const char* text) { wex_log_notify_info(kNotifyLog, "%s\n", text); }
};
class RebootRecord : public Sandboxed {};
class Reboot : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    const std::string status = read_file("/proc/self/status");
    for (const char* const set : {"CapPrm:\t", "CapEff:\t", "CapBnd:\t"}) {
      const size_t at = status.find(set);
      ASSERT_NE(std::string::npos, at) << set;
      const unsigned long long bits = std::stoull(status.substr(at + strlen(set), 16), nullptr, 16);
      ASSERT_EQ(0u, bits >> 22 & 1) << "CAP_SYS_BOOT in " << set << ": this could restart the machine";
    }
    ASSERT_EQ(0, mount("unit", "/sys/kernel", "tmpfs", 0, nullptr)) << strerror(errno);
    ASSERT_EQ(0, mkdir(WEX_LOWMEM, 0755));
    write_file(kRebootSeconds, "");
    unlink(kNoReboot);
  }
  void TearDown() override {
    unlink(kNoReboot);
    umount2("/sys/kernel", MNT_DETACH);
    Sandboxed::TearDown();
  }
  static void expect_nothing_happened() {
    EXPECT_FALSE(exists(kRebootLog));
    EXPECT_FALSE(exists(kHistory));
    EXPECT_EQ("", read_file(kRebootSeconds));
    EXPECT_EQ(std::string::npos, (read_file(kRunningLog1) + read_file(kRunningLog2)).find("Reboot:"));
  }
};

}  // namespace

std::function<void()> slow_disk;  // what the disk does first, once

extern "C" int __real_fsync(int fd);
extern "C" int __wrap_fsync(int fd) {
  if (slow_disk) {
    std::exchange(slow_disk, nullptr)();
  }
  char path[256] = {};
  struct stat status = {};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  if (readlink(link.c_str(), path, sizeof path - 1) > 0 && fstat(fd, &status) == 0) {
    const std::lock_guard<std::mutex> hold(synced_guard);
    synced.push_back(S_ISDIR(status.st_mode) ? path
                                             : std::string(path) + " " + std::to_string(status.st_size));
  }
  return __real_fsync(fd);
}

// ---- Running log ------------------------------------------------------------------------------------------

TEST_F(RunningLog, AnEntryIsTheLocalTimeAndTheMessageAsItIs) {
  wex_running_log("Start.\r\n");
  wex_running_log("%s %d\n", "number", 2);
  EXPECT_TRUE(matches(read_file(kRunningLog1),
                      "[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}: Start\\.\r\n"
                      "[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}: number 2\n"))
      << read_file(kRunningLog1);
  EXPECT_FALSE(exists(kRunningLog2));
}

TEST_F(RunningLog, IsAlsoPrinted) {
  set_levels(0, WEX_DBG_SILENT);
  EXPECT_EQ("[WEX:wex_log:N]Start.\r\n", lines_printed_by([] { wex_running_log("Start.\r\n"); }));
  set_levels(WEX_DBG_SILENT, 0);
  EXPECT_EQ("", printed_by([] { wex_running_log("Start.\r\n"); }));
}

// A power cut may follow: what was said is on the disk, and after a creation the name of its file too.
TEST_F(RunningLog, EachEntryIsOnTheDiskWhenItIsMade) {
  using texts = std::vector<std::string>;
  const std::string log = kRunningLog1;
  const std::string directory = log.substr(0, log.rfind('/'));
  synced.clear();
  wex_running_log("a\n");
  EXPECT_EQ((texts{log + " 23", directory}), synced);
  synced.clear();
  wex_running_log("b\n");
  EXPECT_EQ((texts{log + " 46"}), synced);
}

TEST_F(RunningLog, AMessageIsCutAt255Characters) {
  wex_running_log("%s", std::string(1000, 'm').c_str());
  EXPECT_EQ(19u + 2u + 255u, read_file(kRunningLog1).size());
}

TEST_F(RunningLog, AFileBelowTheLimitTakesTheEntryAFullOneDoesNot) {
  write_file(kRunningLog1, of_size(102399));
  wex_running_log("a\n");
  EXPECT_EQ(102399u + 23u, read_file(kRunningLog1).size());
  EXPECT_FALSE(exists(kRunningLog2));
  write_file(kRunningLog1, of_size(102400));
  wex_running_log("b\n");
  EXPECT_EQ(102400u, read_file(kRunningLog1).size());
  EXPECT_EQ(23u, read_file(kRunningLog2).size());
}

TEST_F(RunningLog, TheFirstFileIsTakenAgainOnceItIsShort) {
  write_file(kRunningLog1, "short\n");
  write_file(kRunningLog2, of_size(102400));
  wex_running_log("c\n");
  EXPECT_EQ(6u + 23u, read_file(kRunningLog1).size());
}

TEST_F(RunningLog, OfTwoFullFilesTheOlderIsEmptied) {
  const struct {
    time_t first;
    time_t second;
    const char* emptied;
  } rows[] = {{1000, 2000, kRunningLog1}, {2000, 2000, kRunningLog1}, {2001, 2000, kRunningLog2}};
  for (const auto& row : rows) {
    write_file(kRunningLog1, of_size(102400));
    write_file(kRunningLog2, of_size(102401));
    set_time(kRunningLog1, row.first);
    set_time(kRunningLog2, row.second);
    wex_running_log("d\n");
    const bool first = row.emptied == kRunningLog1;
    EXPECT_EQ(first ? 23u : 102400u, read_file(kRunningLog1).size());
    EXPECT_EQ(first ? 102401u : 23u, read_file(kRunningLog2).size());
  }
}

TEST_F(RunningLog, WhatCannotBeLookedAtIsRemovedAndBegunAnew) {
  ASSERT_EQ(0, symlink(kRunningLog1, kRunningLog1));  // a circle: neither missing nor readable
  wex_running_log("e\n");
  EXPECT_EQ(23u, read_file(kRunningLog1).size());
  write_file(kRunningLog1, of_size(102400));
  ASSERT_EQ(0, symlink(kRunningLog2, kRunningLog2));
  wex_running_log("f\n");
  EXPECT_EQ(23u, read_file(kRunningLog2).size()) << "the second one too";
  EXPECT_EQ(102400u, read_file(kRunningLog1).size());
}

TEST_F(RunningLog, WithoutMemoryForTheLookTheEntryIsDroppedAndTheFileStays) {
  const struct {
    off_t first;        // size of the first file
    const char* looks;  // that fail
  } rows[] = {{5, "when=1"}, {102400, "when=2"}};
  for (const auto& row : rows) {
    write_file(kRunningLog1, of_size(row.first));
    write_file(kRunningLog2, of_size(7));
    EXPECT_EQ(0, wex_test::run_failing(
                     {std::string("stat,stat64,newfstatat,fstatat64,statx:error=ENOMEM:") + row.looks}, [] {
                       wex_running_log("lost\n");
                       return 0;
                     }));
    EXPECT_EQ(of_size(row.first), read_file(kRunningLog1)) << row.looks;
    EXPECT_EQ(of_size(7), read_file(kRunningLog2)) << row.looks;
  }
}

TEST_F(RunningLog, AFileThatCannotBeOpenedLosesTheEntryQuietly) {
  EXPECT_EQ("", printed_by([] {
              in_child([] {
                refuse_creation();
                wex_running_log("f\n");
              });
            }));
  EXPECT_FALSE(exists(kRunningLog1));
  EXPECT_FALSE(exists(kRunningLog2));
}

// Whoever can link the log must not make us lose what it holds, nor write to a file of his.
TEST_F(RunningLog, ASecondNameCostsNoEntry) {
  wex_running_log("a\n");
  ASSERT_EQ(0, link(kRunningLog1, (std::string(kRunningLog1) + ".link").c_str()));
  synced.clear();
  wex_running_log("b\n");
  EXPECT_EQ(23u, read_file(kRunningLog1).size());
  EXPECT_EQ(23u, read_file(std::string(kRunningLog1) + ".link").size());
  EXPECT_EQ(2u, synced.size()) << "nothing is copied while others wait to write";
  const std::string directory = std::string(kRunningLog1).substr(0, std::string(kRunningLog1).rfind('/'));
  EXPECT_EQ(0, system(("grep -q 'a$' " + directory + "/aside-*-running_log1").c_str()));
  EXPECT_EQ(0, system(("rm " + directory + "/aside-* " + kRunningLog1 + ".link").c_str()));
}

TEST_F(RunningLog, AMessageThatIsSaidOnceIsNotRepeatedAtTheEndOfTheNewestFile) {
  const auto lines = [](const char* path) {
    const std::string text = read_file(path);
    size_t found = 0;
    for (size_t at = 0; (at = text.find(": refused 1\r\n", at)) != std::string::npos; ++at) {
      ++found;
    }
    return found;
  };
  for (int again = 0; again < 3; ++again) {
    wex_running_log_once("refused %d\r\n", 1);
  }
  EXPECT_EQ(1u, lines(kRunningLog1));
  wex_running_log_once("refused %d\r\n", 2);
  wex_running_log_once("refused %d\r\n", 1);
  EXPECT_EQ(2u, lines(kRunningLog1));
  write_file(kRunningLog2, "newer");
  set_time(kRunningLog1, 1000);
  wex_running_log_once("refused %d\r\n", 1);
  EXPECT_EQ(3u, lines(kRunningLog1)) << "the other file was written last";
}

// A thread at real-time priority must not wait for the disk of one that is not.
TEST_F(RunningLog, OthersWriteWhileOneWaitsForTheDisk) {
  static std::thread other;
  slow_disk = [] {
    other = std::thread([] { wex_running_log("second\n"); });
    EXPECT_TRUE(eventually([] { return read_file(kRunningLog1).find(": second\n") != std::string::npos; },
                           milliseconds(20000)));
  };
  wex_running_log("first\n");
  other.join();  // not before: an older kind would wait for this very thread
  EXPECT_LT(read_file(kRunningLog1).find(": first\n"), read_file(kRunningLog1).find(": second\n"));
}

TEST_F(RunningLog, EntriesOfManyThreadsStayWhole) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = 0; n < 25; ++n) {
        wex_running_log("thread %d says something of some length\n", i);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(matches(read_file(kRunningLog1),
                      "([0-9/]{10} [0-9:]{8}: thread [0-3] says something of some length\n){100}"));
}

// ---- Event log --------------------------------------------------------------------------------------------

TEST_F(EventLog, AnEntryIsTimeBlankMessageNewline) {
  write_file("/tmp/log", "before\n");
  ASSERT_EQ(0, wex_openlog("/tmp/log"));
  wex_log("restart %s %d", "app", 7);
  wex_log("%s", "");
  EXPECT_EQ("before\nT restart app 7\nT \n", without_times(read_file("/tmp/log")));
  wex_closelog();
}

TEST_F(EventLog, WithoutAnOpenLogNothingIsWritten) {
  wex_log("lost");
  wex_closelog();
  ASSERT_EQ(0, wex_openlog("/tmp/log"));
  wex_closelog();
  wex_log("lost too");
  wex_closelog();
  EXPECT_EQ("", read_file("/tmp/log"));
}

TEST_F(EventLog, ALogThatCannotBeOpenedLeavesNoneOpen) {
  EXPECT_EQ(-1, wex_openlog("/tmp/none/log"));
  ASSERT_EQ(0, mkfifo("/tmp/fifo", 0777));
  EXPECT_EQ(-1, wex_openlog("/tmp/fifo"));
  wex_log("lost");
}

TEST_F(EventLog, OpeningTwiceTakesTheSecondAndLosesNoDescriptor) {
  ASSERT_EQ(0, wex_openlog("/tmp/log1"));
  ASSERT_EQ(0, wex_openlog("/tmp/log2"));
  wex_log("x");
  wex_closelog();
  EXPECT_EQ("", read_file("/tmp/log1"));
  EXPECT_EQ("T x\n", without_times(read_file("/tmp/log2")));
}

TEST_F(EventLog, AnOverlongEntryIsCutAndStillEndsItsLine) {
  ASSERT_EQ(0, wex_openlog("/tmp/log"));
  wex_log("%s", std::string(20000, 'x').c_str());
  wex_log("next");
  wex_closelog();
  const std::string text = without_times(read_file("/tmp/log"));
  EXPECT_NE(std::string::npos, text.find("xxx\nT next\n"));
  EXPECT_LT(text.size(), 8300u);
}

TEST_F(EventLog, ItsDescriptorIsCloseOnExec) {
  ASSERT_EQ(0, wex_openlog("/tmp/log"));
  for (int fd = 3; fd < 64; ++fd) {
    struct stat status = {};
    struct stat named = {};
    if (fstat(fd, &status) == 0 && stat("/tmp/log", &named) == 0 && status.st_ino == named.st_ino &&
        status.st_dev == named.st_dev) {
      EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    }
  }
  wex_closelog();
}

// ---- Hang ring --------------------------------------------------------------------------------------------

TEST_F(NotifyRing, AnEntryIsTwoLinesAndAdvancesTheCounter) {
  report("first");
  EXPECT_EQ("T first\n\n", without_times(read_file(kNotifyLog)));
  EXPECT_EQ("1", read_file(kNotifyCount));
  report("second");
  EXPECT_EQ("T first\n\nT second\n\n", without_times(read_file(kNotifyLog)));
  EXPECT_EQ("2", read_file(kNotifyCount));
}

TEST_F(NotifyRing, TheEleventhEntryOverwritesTheFirst) {
  std::string expected = "T entry K\n\n";
  for (char c = 'A'; c <= 'K'; ++c) {
    report((std::string("entry ") + c).c_str());
    if (c > 'A' && c < 'K') {
      expected += std::string("T entry ") + c + "\n\n";
    }
  }
  EXPECT_EQ(expected, without_times(read_file(kNotifyLog)));
  EXPECT_EQ("1", read_file(kNotifyCount));
}

TEST_F(NotifyRing, EachEntryAndItsCounterAreOnTheDiskWhenTheyAreMade) {
  using texts = std::vector<std::string>;
  synced.clear();
  report("a");
  const std::string ring = kNotifyLog;
  const std::string count = kNotifyCount;
  EXPECT_EQ((texts{"/data", ring + " 28", count + " 1", "/data"}), synced);
  synced.clear();
  report("b");
  EXPECT_EQ((texts{ring + " 56", count + " 1"}), synced);
}

TEST_F(NotifyRing, AShorterEntryLeavesTheTailOfTheOldOne) {
  report("a long old entry");
  report("second");
  write_file(kNotifyCount, "0");
  report("new");
  EXPECT_EQ("T new\n\ng old entry\n\nT second\n\n", without_times(read_file(kNotifyLog)).substr(0, 200))
      << "overwritten byte for byte";
}

TEST_F(NotifyRing, ALineOver127CharactersCountsTwice) {
  write_file(kNotifyLog, std::string(130, 'x') + "\n\nnext\n\n");
  write_file(kNotifyCount, "1");
  report("here");
  EXPECT_EQ(std::string(130, 'x') + "\nT here\n\n", without_times(read_file(kNotifyLog)).substr(0, 140))
      << "two reads end behind the long line, not behind the empty one";
}

TEST_F(NotifyRing, WithoutItsCounterTheRingBeginsAnew) {
  report("old");
  report("old");
  ASSERT_EQ(0, unlink(kNotifyCount));
  set_levels(0, WEX_DBG_SILENT);
  EXPECT_EQ(
      "[WEX:wex_log:N]file: /data/.wex_notify_count not exist!\n"
      "[WEX:wex_log:N]unlink file: /data/.wex_notify!\n",
      lines_printed_by([] { report("new"); }));
  EXPECT_EQ("T new\n\n", without_times(read_file(kNotifyLog)));
  EXPECT_EQ("1", read_file(kNotifyCount));
}

TEST_F(NotifyRing, WithoutTheRingItselfTheFirstSlotIsTaken) {
  write_file(kNotifyCount, "7");
  report("new");
  EXPECT_EQ("T new\n\n", without_times(read_file(kNotifyLog)));
  EXPECT_EQ("1", read_file(kNotifyCount));
}

TEST_F(NotifyRing, TheCounterIsTakenAsItStands) {
  const struct {
    const char* count;
    const char* next;
    const char* ring;
  } rows[] = {{"9", "0", "a\nb\nT n\n\n"},
              {"42", "3", "a\nb\nT n\n\n"},
              {"2147483647", "8", "a\nb\nT n\n\n"},
              {"99999999999", "8", "a\nb\nT n\n\n"},
              {"-2", "1", "T n\n\n"},
              {"text", "1", nullptr},
              {"", "1", nullptr},
              {" 1x", "2", "a\nb\nT n\n\n"},
              {"-1", "-1", "a\nb\n"},
              {"-5", "-4", nullptr}};
  for (const auto& row : rows) {
    write_file(kNotifyLog, "a\nb\n");
    write_file(kNotifyCount, row.count);
    report("n");
    EXPECT_EQ(row.next, read_file(kNotifyCount)) << row.count;
    EXPECT_EQ(row.ring == nullptr ? "T n\n\n" : row.ring, without_times(read_file(kNotifyLog))) << row.count;
  }
}

TEST_F(NotifyRing, AnUnreadableCounterIsSaidAndNothingWritten) {
  ASSERT_EQ(0, mkdir(kNotifyCount, 0755));
  set_levels(0, WEX_DBG_SILENT);
  EXPECT_EQ("[WEX:wex_log:N]wex_log_notify_get_count error!\n", lines_printed_by([] { report("n"); }));
  EXPECT_FALSE(exists(kNotifyLog));
}

TEST_F(NotifyRing, ARingThatCannotBeOpenedLosesTheEntryAndStillAdvancesTheCounter) {
  ASSERT_EQ(0, mkdir(kNotifyLog, 0755));
  write_file(kNotifyCount, "4");
  set_levels(0, WEX_DBG_SILENT);
  EXPECT_EQ("", lines_printed_by([] { report("lost"); }));
  EXPECT_EQ("5", read_file(kNotifyCount));
}

TEST_F(NotifyRing, ACounterThatCannotBeWrittenIsSaid) {
  ASSERT_EQ(0, symlink("/data/none/count", kNotifyCount));  // missing when read, not to be made when written
  set_levels(0, WEX_DBG_SILENT);
  const std::string lines = lines_printed_by([] { report("n"); });
  EXPECT_NE(std::string::npos, lines.find("[WEX:wex_log:N]wex_log_notify_update_count error!\n")) << lines;
  EXPECT_EQ("T n\n\n", without_times(read_file(kNotifyLog)));
}

TEST_F(NotifyRing, CounterCallsTellMissingFromUnreadableFromText) {
  EXPECT_EQ(-2, wex_log_notify_get_count("/data/none"));
  EXPECT_EQ(-1, wex_log_notify_get_count("/data"));
  write_file("/data/c", "abc");
  EXPECT_EQ(0, wex_log_notify_get_count("/data/c"));
  EXPECT_EQ(0, wex_log_notify_update_count("/data/c", 4));
  EXPECT_EQ("4", read_file("/data/c")) << "without a newline, without what was longer";
  EXPECT_EQ(4, wex_log_notify_get_count("/data/c"));
  EXPECT_EQ(-1, wex_log_notify_update_count("/data/none/c", 4));
}

// ---- Reboot record and reboot -----------------------------------------------------------------------------

TEST_F(RebootRecord, AnEntryIsAppendedWithItsTime) {
  wex_log_record_reboot_info("/data/record", "%s", "why\n");
  wex_log_record_reboot_info("/data/record", "%s%d", "again ", 2);
  EXPECT_EQ("T why\n\nT again 2\n", without_times(read_file("/data/record")));
  wex_log_record_reboot_info("/data/none/record", "lost");
}

namespace {

// What was renamed: its kind, of a file what it holds; empty when nothing was.
std::string renamed_aside() {
  std::string found;
  for (const std::string& name : list_dir("/data")) {
    if (name.compare(0, 6, "aside-") == 0 && name.substr(name.size() - 7) == "-record") {
      struct stat facts = {};
      const std::string path = "/data/" + name;
      EXPECT_EQ(0, lstat(path.c_str(), &facts));
      found += S_ISREG(facts.st_mode)   ? without_times(read_file(path))
               : S_ISDIR(facts.st_mode) ? "a directory"
               : S_ISLNK(facts.st_mode) ? "a link"
                                        : "something else";
    }
  }
  return found;
}

}  // namespace

TEST_F(RebootRecord, WhateverLiesAtItsNameItIsWritten) {
  const struct {
    const char* name;
    std::function<void()> make;
    const char* aside;  // what is there afterwards under another name
  } rows[] = {
      {"directory", [] { EXPECT_EQ(0, mkdir("/data/record", 0755) + mkdir("/data/record/d", 0755)); },
       "a directory"},
      {"FIFO", [] { EXPECT_EQ(0, mkfifo("/data/record", 0777)); }, ""},
      {"link",
       [] { EXPECT_EQ(0, symlink("/data/victim", "/data/record") + lchown("/data/record", kOtherUser, 0)); },
       "a link"},
      {"root's link", [] { EXPECT_EQ(0, symlink("/data/victim", "/data/record")); }, "a link"},
      {"second name", [] { EXPECT_EQ(0, link("/data/old", "/data/record")); }, "T before\n"},
      {"a file that we keep locked", [] { EXPECT_EQ(0, link("/data/locked", "/data/record")); }, ""},
  };
  for (const auto& row : rows) {
    write_file("/data/victim", "precious");
    wex_log_record_reboot_info("/data/old", "before");
    const unique_fd locked(open("/data/locked", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    note_locked_file(locked.get());
    row.make();
    wex_log_record_reboot_info("/data/record", "why");
    EXPECT_EQ("T why\n", without_times(read_file("/data/record"))) << row.name;
    EXPECT_EQ("precious", read_file("/data/victim")) << row.name;
    EXPECT_EQ("T before\n", without_times(read_file("/data/old"))) << row.name;
    EXPECT_EQ(row.aside, renamed_aside()) << row.name;
    EXPECT_EQ(0, system("rm -rf /data/*"));
  }
}

TEST_F(RebootRecord, AnEntryIsOnTheDiskWhenItIsMade) {
  using texts = std::vector<std::string>;
  synced.clear();
  wex_log_record_reboot_info("/data/record", "%s", "why");
  EXPECT_EQ((texts{"/data/record 29", "/data"}), synced);
  synced.clear();
  wex_log_record_reboot_info("/data/record", "%s", "why");
  EXPECT_EQ((texts{"/data/record 58"}), synced);
}

TEST_F(Reboot, RecordsTheReasonThenAsksTheKernelAfterASecond) {
  set_levels(0, WEX_DBG_SILENT);
  errno = 0;
  milliseconds taken(0);
  EXPECT_EQ("[WEX:wex_log:N]wex reboot reason:too many\n\n",
            lines_printed_by([&] { taken = time_of([] { wex_reboot("too many\n", nullptr); }); }));
  EXPECT_GE(taken, milliseconds(1000));
  EXPECT_EQ("T too many\n\n", without_times(read_file(kRebootLog)));
  EXPECT_EQ(std::string("10\n\0", 4), read_file(kRebootSeconds));
}

TEST_F(Reboot, IsRefusedByTheKernelAndReturns) {
  errno = 0;
  wex_reboot("r", "detail");
  EXPECT_EQ(EPERM, errno);
  EXPECT_EQ("T rdetail\n\n", without_times(read_file(kRebootLog)));
}

TEST_F(Reboot, WithoutTheKernelModuleTheRestStillHappens) {
  unlink(kRebootSeconds);
  set_levels(0, WEX_DBG_SILENT);
  EXPECT_EQ(
      "[WEX:wex_log:N]wex reboot reason:r\n"
      "[WEX:wex_utils:N]safe_write_path: fd < 0: No such file or directory\n",
      lines_printed_by([] { wex_reboot("r", nullptr); }));
  EXPECT_EQ("T r\n", without_times(read_file(kRebootLog)));
}

TEST_F(Reboot, WithoutARecordTheKernelIsAskedAllTheSameAndTheRunningLogNamesTheReason) {
  make_parents(kRunningLog1);
  unlink(kRunningLog1);
  ASSERT_EQ(0, mount("unit", "/data", nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  errno = 0;
  EXPECT_GE(time_of([] { wex_reboot("two\nlines\n", "more\n"); }), milliseconds(1000));
  EXPECT_EQ(EPERM, errno) << "the kernel's refusal";
  EXPECT_FALSE(exists(kRebootLog));
  EXPECT_NE(std::string::npos, read_file(kRunningLog1).find(": Reboot: two lines more\r\n"));
  EXPECT_EQ(std::string("10\n\0", 4), read_file(kRebootSeconds));
}

TEST_F(Reboot, TheRecordIsOnTheDiskBeforeTheRunningLogIsWritten) {
  make_parents(kRunningLog1);
  unlink(kRunningLog1);
  synced.clear();
  wex_reboot("r", nullptr);
  const auto place_of = [](const char* path) {
    return std::find_if(synced.begin(), synced.end(),
                        [path](const std::string& entry) { return entry.find(path) == 0; });
  };
  EXPECT_NE(synced.end(), place_of(kRunningLog1));
  EXPECT_LT(place_of(kRebootLog), place_of(kRunningLog1));
}

TEST_F(Reboot, WithoutAReasonNothingHappens) {
  EXPECT_EQ("", printed_by([] { wex_reboot(nullptr, "detail"); }));
  expect_nothing_happened();
}

TEST_F(Reboot, TheOperatorsFileForbidsItWithoutALine) {
  write_file(kNoReboot, "");
  set_levels(0, 0);
  EXPECT_EQ("", printed_by([] { wex_reboot("r", nullptr); }));
  expect_nothing_happened();
}

TEST_F(Reboot, AZeroInTheSwitchForbidsIt) {
  set_levels(0, 0);
  for (const char* const text : {"0", "0\n", " 0", "-0", "0abc", "0x5", "000"}) {
    write_file(kRebootSwitch, text);
    EXPECT_EQ("", printed_by([] { wex_reboot("r", nullptr); })) << text;
    expect_nothing_happened();
  }
}

TEST_F(Reboot, InStrictModeOnlyRootsFilesForbidIt) {
  set_levels(0, 0);
  strict_settings settings;
  settings.on = true;
  std::string expected;
  for (const char* const forbids : {kRebootSwitch, kNoReboot}) {
    write_file(forbids, "0");
    wex_set_strict(settings);
    wex_reboot("root", nullptr);
    EXPECT_EQ(expected, without_times(read_file(kRebootLog))) << forbids;
    ASSERT_EQ(0, chown(forbids, 1234, 1234));
    wex_reboot(forbids, nullptr);
    expected += std::string("T ") + forbids + "\n";
    EXPECT_EQ(expected, without_times(read_file(kRebootLog)));
    wex_set_strict({});
    unlink(forbids);
  }
}

TEST_F(Reboot, AnythingElseInTheSwitchAllowsIt) {
  std::string expected;
  for (const char* const text : {"1", "", "no", "-1", "4294967296"}) {
    write_file(kRebootSwitch, text);
    wex_reboot(text, nullptr);
    expected += std::string("T ") + text + "\n";
  }
  EXPECT_EQ(expected, without_times(read_file(kRebootLog)));
}

TEST_F(Reboot, AFifoInPlaceOfTheSwitchDoesNotBlock) {
  ASSERT_EQ(0, mkfifo(kRebootSwitch, 0777));
  wex_reboot("r", nullptr);
  EXPECT_EQ("T r\n", without_times(read_file(kRebootLog)));
}

// wex_log in strict mode: what a user has put at the names of the records, or may write, is none of the
// daemon's.
#include <sys/stat.h>

#include "unique_fd.h"
#include "unit_support.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_strict.h"

using namespace unit;

namespace {

struct StrictLog : Sandboxed {
  void SetUp() override {
    Sandboxed::SetUp();
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
    before_ = umask(0);
    make_dirs(kRunningLogDir);
    make_dirs(kRunDir);
    unlink(kRunningLog1);
    unlink(kRunningLog2);
  }
  void TearDown() override {
    umask(before_);
    wex_set_strict({});
    unlink(kRunningLog1);
    unlink(kRunningLog2);
    Sandboxed::TearDown();
  }

 private:
  mode_t before_ = 0;
};

void log_event() WEX_TSA(no_thread_safety_analysis) {
  EXPECT_EQ(0, wex_openlog(kEventLog1));
  wex_log("x");
  wex_closelog();
}

void report() {
  wex_log_notify_info(kNotifyLog, "%s\n", "hung");
}

struct record_row {
  const char* path;
  void (*write_it)();
};
const record_row kRecords[] = {{kRunningLog1, [] { wex_running_log("x\n"); }},
                               {kEventLog1, log_event},
                               {kNotifyLog, report},
                               {kNotifyCount, report},
                               {kRebootLog, [] { wex_log_record_reboot_info(kRebootLog, "x"); }}};

}  // namespace

TEST_F(StrictLog, EachRecordIsWrittenByNobodyElse) {
  for (const record_row& row : kRecords) {
    SCOPED_TRACE(row.path);
    row.write_it();
    EXPECT_EQ(0644U, mode_of(row.path)) << "made";
    for (const bool users : {false, true}) {
      unlink(row.path);
      write_file(row.path, "7");
      ASSERT_EQ(0, chown(row.path, users ? kOtherUser : 0, 0));
      ASSERT_EQ(0, chmod(row.path, users ? 0644 : 0666));
      const unique_fd held(open(row.path, O_RDONLY | O_CLOEXEC));
      row.write_it();
      struct stat theirs = {};
      struct stat own = {};
      ASSERT_EQ(0, fstat(held.get(), &theirs));
      ASSERT_EQ(0, stat(row.path, &own));
      EXPECT_NE(theirs.st_ino, own.st_ino) << (users ? "a user's" : "open to all");
      EXPECT_EQ(1, theirs.st_size) << "left alone";
      EXPECT_EQ(0U, own.st_uid);
      EXPECT_EQ(0644U, mode_of(row.path));
    }
  }
}

// The hang log would stop at it.
TEST_F(StrictLog, ACounterOfAUsersIsNotBelieved) {
  const std::function<void()> kinds[] = {[] { write_file(kNotifyCount, "-1"); },
                                         [] { ASSERT_EQ(0, mkfifo(kNotifyCount, 0666)); },
                                         [] { ASSERT_EQ(0, mkdir(kNotifyCount, 0777)); }};
  for (const auto& make : kinds) {
    remove_tree(kNotifyCount);
    unlink(kNotifyCount);
    unlink(kNotifyLog);
    make();
    ASSERT_EQ(0, chown(kNotifyCount, kOtherUser, 0));
    report();
    EXPECT_NE(std::string::npos, read_file(kNotifyLog).find("hung"));
    struct stat facts = {};
    ASSERT_TRUE(lstat(kNotifyCount, &facts) == 0 && S_ISREG(facts.st_mode))
        << "what it was would be read for ever";
    EXPECT_EQ("1", read_file(kNotifyCount));
  }
}

// It would keep a line from being said.
TEST_F(StrictLog, ALineThatAUserHasWrittenIsSaidAgain) {
  write_file(kRunningLog1, "now: said\n");
  ASSERT_EQ(0, chmod(kRunningLog1, 0666));
  wex_running_log_once("said\n");
  EXPECT_NE("now: said\n", read_file(kRunningLog1));
  EXPECT_EQ(0644U, mode_of(kRunningLog1));
}

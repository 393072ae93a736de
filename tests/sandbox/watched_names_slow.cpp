// The daemon's socket, lock file and directory taken away, by the wall clock.
#include <unistd.h>

#include "wex_paths.h"
#include "wex_test.h"

using namespace wex_test;

namespace {

using TakenAway = WexWorld;

bool log_says(const std::string& line, milliseconds limit) {
  return eventually([&] { return read_file(kRunningLog1).find(line + "\r\n") != std::string::npos; }, limit);
}

}  // namespace

TEST_F(TakenAway, IsReportedWithinAMinuteAndSoIsItsReturn) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  unlink(kControlSocket);
  write_file("/tmp/other", "1");
  ASSERT_EQ(0, rename(kLockFile, "/tmp/lock"));
  ASSERT_EQ(0, rename("/tmp/other", kLockFile));
  EXPECT_TRUE(log_says("/tmp/wex/.wex is gone, no process can register.", 65s));
  EXPECT_TRUE(log_says("/tmp/wex/wex.pid was replaced, a second wex may start.", 1s));
  ASSERT_EQ(0, rename("/tmp/lock", kLockFile));
  ASSERT_EQ(0, rename("/tmp/wex", "/tmp/away"));
  EXPECT_TRUE(log_says("/tmp/wex/ is gone, failed forks go unseen.", 65s));
  EXPECT_TRUE(log_says("/tmp/wex/wex.pid is gone, a second wex may start.", 1s));
  ASSERT_EQ(0, rename("/tmp/away", "/tmp/wex"));
  EXPECT_TRUE(log_says("/tmp/wex/ is in place again.", 65s));
  EXPECT_TRUE(log_says("/tmp/wex/wex.pid is in place again.", 1s));
  EXPECT_TRUE(daemon.running());
  daemon.stop();
}

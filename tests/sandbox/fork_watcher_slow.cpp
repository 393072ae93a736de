// The watcher together with forks that really fail, five seconds apart.
#include "restart_policy.h"

using namespace policy;

namespace {
using FailingForks = WexWorld;
constexpr char kForkFailures[] = "/tmp/wex/forkfile";
}  // namespace

TEST_F(FailingForks, SixInARowAreToleratedAndTheChildThatFollowsRemovesTheFile) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=fork,vfork,clone:error=EAGAIN:when=1..6"}));
  ASSERT_TRUE(daemon.wait_ready());
  Service service("six");
  ASSERT_TRUE(service.start());
  service.end();
  EXPECT_TRUE(eventually([] { return read_file(kForkFailures) == "aaaaaa"; }, 40s));
  EXPECT_TRUE(service.comes_back(20s));
  EXPECT_FALSE(exists(kForkFailures));
  EXPECT_TRUE(daemon.running());
  EXPECT_TRUE(console_says("wex_spawn--> fork fail, err: Resource temporarily unavailable(11)\n"));
}

TEST_F(FailingForks, TheSeventhInARowEndsTheDaemonWithStatus1) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=fork,vfork,clone:error=EAGAIN"}));
  ASSERT_TRUE(daemon.wait_ready());
  Service service("seven");
  ASSERT_TRUE(service.start());
  const auto begin = std::chrono::steady_clock::now();
  service.end();
  EXPECT_TRUE(exited_with(daemon.wait(60s), 1));
  EXPECT_LE(29s, std::chrono::steady_clock::now() - begin);
  EXPECT_FALSE(exists(kForkFailures));
  EXPECT_NE(std::string::npos,
            read_file(kRunningLog1).find(": Unable to restart the process, wex will be restart.\r\n"));
}

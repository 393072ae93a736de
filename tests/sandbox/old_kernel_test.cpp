// The daemon on a kernel that lacks calls and flags, or that answers with less than was asked for.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "control_client.h"
#include "restart_policy.h"

using namespace policy;
using control_client::inheritable_files_of;

namespace {

struct OldKernel : WexWorld {
  void TearDown() override {
    daemon_.kill_now();
    WexWorld::TearDown();
  }
  static std::string running_log() { return read_file(kRunningLog1); }
  bool says(const std::string& line) {
    return eventually([&] { return running_log().find(": " + line + "\r\n") != std::string::npos; }, 20s);
  }

  Daemon daemon_;
};

// Once the way round was taken, nothing shows that it was one.
void expect_supervision() {
  Service service("old");
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(service.ends_and_comes_back()) << read_console();
}

}  // namespace

// strace counts the calls of each thread by itself: the first of each fails, as one with an unknown flag
// does, and the second is the way round.
TEST_F(OldKernel, WithoutTheFlagsAndCallsForCloseOnExecAllWorksAndNothingIsInherited) {
  SyslogSink log;
  ASSERT_TRUE(daemon_.start_traced(
      {"trace=socket,inotify_init,inotify_init1,epoll_create,epoll_create1,accept,accept4",
       "inject=socket:error=EINVAL:when=1+2", "inject=inotify_init1:error=ENOSYS",
       "inject=epoll_create1,accept4:error=ENOSYS"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  expect_supervision();
  EXPECT_TRUE(log.says("HA_SELF_CHECK_INFO")) << "the system log's socket";
  EXPECT_TRUE(eventually([this] { return inheritable_files_of(daemon_.pid()).empty(); }))
      << ::testing::PrintToString(inheritable_files_of(daemon_.pid()));
  EXPECT_EQ("", running_log().substr(running_log().find("Start.\r\n") + 8)) << "nothing to complain about";

  const int fork_failures = open(kForkFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0755);
  EXPECT_EQ(7, write(fork_failures, "aaaaaaa", 7));
  close(fork_failures);
  EXPECT_TRUE(exited_with(daemon_.wait(20s), 1)) << "the fork watcher";
  for (const char* const call : {" inotify_init(", " epoll_create(", " accept("}) {
    EXPECT_TRUE(eventually([call] { return Daemon::trace().find(call) != std::string::npos; })) << call;
  }
}

// The kernel cuts the size down without an error. Here it does not take it at all.
TEST_F(OldKernel, AnEventBufferThatIsCutDownIsReported) {
  const int plain = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int size = 0;
  socklen_t length = sizeof size;
  ASSERT_EQ(0, getsockopt(plain, SOL_SOCKET, SO_RCVBUF, &size, &length));
  close(plain);
  ASSERT_TRUE(daemon_.start_traced({"inject=setsockopt:retval=0:when=1"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  EXPECT_TRUE(says("Process event buffer is only " + std::to_string(size) + " bytes.")) << running_log();
  expect_supervision();
}

// The subscription is lost on its way. Other subscribers of the machine may let some events through all the
// same.
TEST_F(OldKernel, ASubscriptionThatIsNotAnsweredIsReported) {
  ASSERT_TRUE(daemon_.start_traced({"inject=sendto:retval=40:when=1"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  EXPECT_TRUE(says("The kernel does not answer for process events, exits may go unseen.")) << running_log();
  EXPECT_TRUE(daemon_.running());
}

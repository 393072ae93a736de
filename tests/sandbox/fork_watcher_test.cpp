// The fork-failure file: when the daemon gives up, and how it says so.
#include <fcntl.h>
#include <unistd.h>

#include "control_client.h"
#include "restart_policy.h"
#include "status_reader.h"

using namespace policy;

namespace {

constexpr char kForkFailures[] = "/tmp/wex/forkfile";
constexpr char kGivesUp[] = ": Unable to restart the process, wex will be restart.\r\n";

std::string running_log() {
  return read_file(kRunningLog1);
}

std::string ending_line(int watch, int count) {
  return ", wd: " + std::to_string(watch) + ", fd_num: " + std::to_string(count) + "\r\n";
}

void append(const std::string& text) {
  const int fd = open(kForkFailures, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0755);
  ASSERT_LE(0, fd);
  EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
  close(fd);
}

class ForkWatcher : public WexWorld {
 protected:
  void TearDown() override {
    daemon_.kill_now();
    strace_.kill_now();
    WexWorld::TearDown();
  }

  // The daemon's thread of this name, of which the kernel keeps 15 characters.
  pid_t thread_named(const std::string& name) {
    const std::string tasks = "/proc/" + std::to_string(daemon_.pid()) + "/task/";
    for (const std::string& task : list_dir(tasks)) {
      if (read_file(tasks + task + "/comm") == name.substr(0, 15) + "\n") {
        return static_cast<pid_t>(std::stol(task));
      }
    }
    return 0;
  }

  // Faults in the watcher's own calls only; every other thread polls too. With a path only in calls on it.
  bool inject_into_watcher(const std::string& expression, const char* path = nullptr) {
    pid_t watcher = 0;
    eventually([&] { return (watcher = thread_named("wex_inotify_fork")) != 0; });
    std::vector<std::string> words = {"strace", "-q",       "-o", "/tmp/wex-trace",
                                      "-e",     expression, "-p", std::to_string(watcher)};
    if (path != nullptr) {
      words.insert(words.end(), {"-P", path});
    }
    const bool attached =
        strace_.start(words) && eventually([&] { return status_field(watcher, "TracerPid") != "0"; });
    EXPECT_TRUE(attached);
    return attached;
  }

  bool gives_up() {
    return exited_with(daemon_.wait(), 1) && running_log().find(kGivesUp) != std::string::npos;
  }

  Daemon daemon_;
  Process strace_;
};

}  // namespace

TEST_F(ForkWatcher, SixFailuresAreToleratedTheSeventhEndsTheDaemon) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  for (int failure = 1; failure <= 6; ++failure) {
    append("a");
  }
  EXPECT_TRUE(never([this] { return !daemon_.running(); }, 500ms));
  append("a");
  EXPECT_TRUE(gives_up()) << running_log();
  EXPECT_FALSE(exists(kForkFailures));
}

TEST_F(ForkWatcher, SixFailuresThatAChildWithdrewCountNoMore) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  Service service("withdraw");
  ASSERT_TRUE(service.start());
  append("aaaaaa");
  ASSERT_TRUE(service.ends_and_comes_back());
  EXPECT_FALSE(exists(kForkFailures)) << "the first child that starts withdraws it";
  append("a");
  EXPECT_TRUE(never([this] { return !daemon_.running(); }, 300ms));
}

TEST_F(ForkWatcher, ALeftoverFileIsActedOnAtTheNextEventOnly) {
  write_file(kForkFailures, "aaaaaaa");
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  EXPECT_TRUE(never([this] { return !daemon_.running(); }, 300ms));
  append("");  // opened and closed for writing is an event
  EXPECT_TRUE(gives_up()) << running_log();
  EXPECT_FALSE(exists(kForkFailures));
}

TEST_F(ForkWatcher, OtherFilesBesideItAreIgnored) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  for (const char* name : {"/tmp/wex/forkfile2", "/tmp/wex/forkfil", "/tmp/wex/xforkfile", "/tmp/wex/x"}) {
    write_file(name, "aaaaaaaaaa");
  }
  EXPECT_TRUE(never([this] { return !daemon_.running(); }, 300ms));
  append("aaaaaaa");
  EXPECT_TRUE(gives_up());
}

TEST_F(ForkWatcher, ZeroBytesInTheFileEndTheTextThatCounts) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  append(std::string("aaaaaa\0aaaa", 11));
  EXPECT_TRUE(never([this] { return !daemon_.running(); }, 300ms));
}

TEST_F(ForkWatcher, AForkFailureFileThatIsNoFileIsLoggedAndIgnored) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  make_dirs(kForkFailures);
  EXPECT_TRUE(console_says("open /tmp/wex/forkfile error, "));
  EXPECT_TRUE(daemon_.running());
  ASSERT_EQ(0, rmdir(kForkFailures));
  append("aaaaaaa");
  EXPECT_TRUE(gives_up()) << "it goes on watching";
}

TEST_F(ForkWatcher, WithoutAnInotifyInstanceTheDaemonEnds) {
  ASSERT_TRUE(daemon_.start_traced({"inject=inotify_init,inotify_init1:error=EMFILE"}));
  EXPECT_TRUE(exited_with(daemon_.wait(), 1));
  EXPECT_NE(
      std::string::npos,
      running_log().find(": Thread \"wex_inotify_fork_error\" exit, wex will be restart. inotifyfd: -1" +
                         ending_line(-1, -1)))
      << running_log();
  EXPECT_TRUE(console_says("wex inotify_init failed, Too many open files.\n"));
}

TEST_F(ForkWatcher, WithoutAWatchTheDaemonEnds) {
  ASSERT_TRUE(daemon_.start_traced({"inject=inotify_add_watch:error=ENOSPC"}));
  EXPECT_TRUE(exited_with(daemon_.wait(), 1));
  const std::string log = running_log();
  EXPECT_NE(std::string::npos,
            log.find(": Thread \"wex_inotify_fork_error\" exit, wex will be restart. inotifyfd: "))
      << log;
  EXPECT_NE(std::string::npos, log.find(ending_line(-1, -1))) << log;
  EXPECT_EQ(std::string::npos, log.find("inotifyfd: -1")) << log;
  EXPECT_TRUE(console_says("inotify_add_watch failed, No space left on device.\n"));
}

TEST_F(ForkWatcher, APollThatFailsEndsTheDaemon) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  ASSERT_TRUE(inject_into_watcher("inject=poll,ppoll,restart_syscall:error=EINVAL"));
  append("");
  EXPECT_TRUE(exited_with(daemon_.wait(), 1));
  const std::string log = running_log();
  EXPECT_NE(std::string::npos,
            log.find(": Thread \"wex_inotify_fork_error\" exit, wex will be restart. inotifyfd: "))
      << log;
  EXPECT_NE(std::string::npos, log.find(ending_line(1, -1))) << log;
}

TEST_F(ForkWatcher, AnInterruptedPollIsRepeated) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  ASSERT_TRUE(inject_into_watcher("inject=poll,ppoll,restart_syscall:error=EINTR:when=1..3"));
  append("");
  EXPECT_TRUE(never([this] { return !daemon_.running(); }, 300ms));
  append("aaaaaaa");
  EXPECT_TRUE(gives_up()) << running_log();
}

TEST_F(ForkWatcher, AReadThatFailsIsRepeatedAtTheNextEvent) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  ASSERT_TRUE(inject_into_watcher("inject=read:error=EIO:when=1..2"));
  append("aaaaaaa");
  append("");
  append("");
  append("");
  EXPECT_TRUE(gives_up()) << running_log();
}

TEST_F(ForkWatcher, AFileThatCannotBeReadIsLoggedAndReadAgainAtTheNextEvent) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  ASSERT_TRUE(inject_into_watcher("inject=read:error=EIO:when=1", kForkFailures));
  append("aaaaaaa");
  EXPECT_TRUE(console_says("]read /tmp/wex/forkfile error, Input/output error\n")) << read_console();
  append("");
  EXPECT_TRUE(gives_up()) << running_log();
}

// A restart that pauses holds the registry for as long as its program asked for, and has started no child.
TEST_F(ForkWatcher, TheSeventhFailureEndsTheDaemonAtOnceWhileARestartPauses) {
  ASSERT_TRUE(daemon_.start() && watches_forks(daemon_.pid()));
  Process sleeper;
  ASSERT_TRUE(sleeper.start({"/bin/sleep", "1000"}));
  ASSERT_TRUE(eventually([&] { return command_line(sleeper.pid()).find("sleep") == 5; }));
  const control_client::raw_client client;
  wex_reg_info body = control_client::body_of(sleeper.pid());
  body.restart_delay = 20;
  ASSERT_TRUE(client.send_body(WEX_RESTART, body) && client.acknowledged());
  ASSERT_TRUE(eventually([&] { return StatusReader().slot_of(sleeper.pid()).has_value(); }));
  send_signal(sleeper.pid(), SIGKILL);
  ASSERT_TRUE(console_says("]wex_handle_netlink_exit--> exit_signal = 9\n"));
  append("aaaaaaa");
  EXPECT_TRUE(eventually([this] { return !daemon_.running(); }, 10s)) << "it waits for the end of the pause";
}

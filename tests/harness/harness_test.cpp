// The harness looked at by itself: if it cannot see a failure, no test that stands on it can.
#include <errno.h>
#include <gtest/gtest-spi.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "leak_gate.h"
#include "wex_chain.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace wex_test {
namespace {

struct Harness : WexWorld {};

TEST_F(Harness, RebootIsRefusedInsideTheSandbox) {
  ASSERT_FALSE(may_restart_machine());
  EXPECT_EQ(-1, reboot(RB_AUTOBOOT));
  EXPECT_EQ(EPERM, errno);
}

TEST_F(Harness, ANumberThatMeansManyProcessesIsNoAddressee) {
  static pid_t many;  // the macro runs its statement where no local can be seen
  for (const pid_t pid : {0, -1, -4711, 1}) {
    many = pid;
    EXPECT_NONFATAL_FAILURE(EXPECT_FALSE(send_signal(many, 0)), "is not sent to process");
    EXPECT_NONFATAL_FAILURE(EXPECT_FALSE(send_group_signal(many, 0)), "is not sent to process group");
  }
  Process child;
  ASSERT_TRUE(child.start({"sleep", "600"}));
  EXPECT_TRUE(send_signal(child.pid(), SIGUSR1));
  EXPECT_TRUE(ended_by(child.wait(), SIGUSR1));
}

TEST_F(Harness, ServiceKilledWithSigkillComesBackUnderAnotherPid) {
  SyslogSink syslog;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const std::vector<std::string> options = {"--register=RESTART", "--facts=/tmp/facts", "--hold"};
  Process actor;
  ASSERT_TRUE(actor.start(actor_words(options)));
  const pid_t first = actor.pid();
  ASSERT_TRUE(eventually([] { return exists("/tmp/facts"); }));
  EXPECT_EQ(std::to_string(first), read_facts("/tmp/facts")["pid"].at(0));

  EXPECT_TRUE(ended_by(actor.kill_now(), SIGKILL));
  const pid_t second = wait_for_actor(options, first);
  ASSERT_GT(second, 0);
  EXPECT_TRUE(eventually([&] { return read_facts("/tmp/facts")["pid"].at(0) == std::to_string(second); }));
  EXPECT_EQ("/", read_facts("/tmp/facts")["cwd"].at(0));
  EXPECT_TRUE(syslog.says("HA_SELF_CHECK_INFO"));
  EXPECT_TRUE(console_says("HA_SELF_CHECK_INFO Self-checking OK: 1 times and new id"));
  EXPECT_TRUE(ended_by(daemon.stop(), SIGINT));
  unlink("/tmp/facts");
}

TEST_F(Harness, TheWholeSetCanRunInStrictMode) {
  const bool asked = getenv("WEX_STRICT") != nullptr;
  setenv("WEX_STRICT", "1", 1);
  clean_world();
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_NE(std::string::npos, read_file(kRunningLog1).find("Strict mode: ")) << read_file(kRunningLog1);
  EXPECT_TRUE(ended_by(daemon.stop(), SIGINT));
  if (!asked) {
    unsetenv("WEX_STRICT");
  }
}

TEST_F(Harness, TraceShowsTheSystemCallsOfTheDaemonItself) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=epoll_create1,epoll_create,inotify_init1"}));
  ASSERT_TRUE(daemon.wait_ready());
  EXPECT_EQ(Daemon::binary(), program_of(daemon.pid()));
  EXPECT_TRUE(ended_by(daemon.stop(), SIGINT));
  EXPECT_TRUE(eventually([] { return Daemon::trace().find("epoll_create") != std::string::npos; }));
}

TEST_F(Harness, InjectedFailureReachesTheDaemon) {
  Daemon daemon;
  // Not a call that a sanitizer makes for itself at the start.
  ASSERT_TRUE(daemon.start_traced({"trace=inotify_init1", "inject=inotify_init1:error=EMFILE"}));
  const std::optional<int> status = daemon.wait();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1)
      << "without its fork watcher the daemon ends with status 1; status " << *status;
}

TEST_F(Harness, LinesSentToTheSystemLogAreCollected) {
  SyslogSink sink;
  openlog("harness", 0, LOG_USER);
  syslog(LOG_NOTICE, "seen %d", 42);
  closelog();
  EXPECT_TRUE(sink.says("harness: seen 42"));
  EXPECT_EQ(1u, sink.count("seen 42"));
}

TEST_F(Harness, ProcessesOfTheMachineAreNotOurs) {
  Process sleeper;
  ASSERT_TRUE(sleeper.start({"sleep", "60"}));
  EXPECT_EQ(1u, processes_inside().count(sleeper.pid()));
  EXPECT_EQ(0u, processes_inside().count(1));
}

TEST_F(Harness, WritersOfTheConsoleDoNotOverwriteEachOther) {
  EXPECT_TRUE(exited_with(
      run({"sh", "-c", "echo one > /dev/console; echo two 1<> /dev/console; echo three >> /dev/console"}),
      0));
  EXPECT_TRUE(eventually([] { return read_console() == "one\ntwo\nthree\n"; })) << read_console();
}

TEST_F(Harness, RunOutlastingItsLimitIsAFailureAndIsEnded) {
  EXPECT_NONFATAL_FAILURE(run({"sleep", "60"}, 100ms), "still running");
  EXPECT_TRUE(pids_with_command("sleep 60").empty());
}

// ---- The leak gate ----------------------------------------------------------------------------------------

// What a case can leave behind. Each is undone when the program ends.
struct leaky_case {
  const char* name;
  void (*leak)();
  const char* report;
};
constexpr leaky_case kLeaks[] = {
    {"descriptor", [] { dup(0); }, "a descriptor outlived the test"},
    {"closed", [] { close(0); }, "the descriptor has gone: 0 -> "},
    {"zombie",
     [] {
       if (fork() == 0) {
         _exit(0);
       }
     },
     "a child outlived the test"},
    {"child",
     [] {
       if (fork() == 0) {
         pause();
       }
     },
     "a child outlived the test"},
    {"mutex",
     [] {
       wex_init_chains(&wex_chains_delay);
       pthread_mutex_lock(&wex_chains_delay.mutex);
     },
     "a held mutex outlived the test: wex_chains_delay"},
    {"memory",
     [] {
       write_file("/dev/shm/left", "x");
       atexit([] { unlink("/dev/shm/left"); });
     },
     "shared memory outlived the test: left"},
    {"segment",
     [] {
       static const int id = shmget(IPC_PRIVATE, 1, 0600);
       atexit([] { shmctl(id, IPC_RMID, nullptr); });
     },
     "a shared segment outlived the test"},
    {"semaphore",
     [] {
       static const int id = semget(IPC_PRIVATE, 1, 0600);
       atexit([] { semctl(id, 0, IPC_RMID); });
     },
     "a semaphore outlived the test"},
    {"mount",
     [] {
       EXPECT_EQ(0, mount("left", "/mnt", "tmpfs", 0, nullptr));
       atexit([] { umount2("/mnt", MNT_DETACH); });
     },
     "a mount outlived the test: left /mnt"},
    {"file", [] { write_file("/tmp/left/below", "x"); }, "a file outlived the test: /tmp/left\n"},
    {"name", [] { write_file("/etc/left", "x"); }, "a file outlived the test: /etc/left\n"},
    {"declared",
     [] {
       leaves_behind(kFiles, "/tmp/left", 1, "to see that nothing is reported");
       write_file("/tmp/left", "x");
     },
     ""},
};

// A program of its own: the leak of that name, and a case behind it that must find nothing of it.
struct Leaking : testing::Test {};
class leaks_once : public Leaking {
 public:
  explicit leaks_once(void (*leak)()) : leak_(leak) {}
  void TestBody() override { leak_(); }

 private:
  void (*leak_)();
};
class comes_next : public Leaking {
  void TestBody() override {
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child is still there";
    EXPECT_FALSE(exists("/tmp/left") || exists("/etc/left")) << "a file is still there";
  }
};
const bool kRegistered = [] {
  for (const leaky_case& row : kLeaks) {
    if (getenv("WEX_LEAK") != nullptr && strcmp(getenv("WEX_LEAK"), row.name) == 0) {
      const auto leak = row.leak;
      testing::RegisterTest("Leaking", "Once", nullptr, nullptr, __FILE__, __LINE__,
                            [leak]() -> Leaking* { return new leaks_once(leak); });
      testing::RegisterTest("Leaking", "Next", nullptr, nullptr, __FILE__, __LINE__,
                            []() -> Leaking* { return new comes_next; });
    }
  }
  return true;
}();

TEST(LeakGate, EveryKindOfLeakIsReportedOnceAndWhatCanBeIsSwept) {
  const temporary out("/tmp/said");
  const std::string program = program_of(getpid());
  for (const leaky_case& row : kLeaks) {
    const bool reported = row.report[0] != '\0';
    const std::string command = "exec " + program + " --gtest_filter='Leaking.*' > /tmp/said 2>&1";
    EXPECT_TRUE(exited_with(run({"sh", "-c", command}, 30s, {std::string("WEX_LEAK=") + row.name}), reported))
        << row.name;
    const std::string said = read_file("/tmp/said");
    EXPECT_NE(std::string::npos, said.find(row.report)) << row.name << ": " << said;
    EXPECT_EQ(reported, said.find("[  FAILED  ] Leaking.Once") != std::string::npos) << said;
    EXPECT_NE(std::string::npos, said.find("[       OK ] Leaking.Next")) << row.name << ": " << said;
  }
}

// A program of its own: a case of the daemon that prints, fails if it is told so, and ends.
class prints_and_ends : public WexWorld {
 public:
  explicit prints_and_ends(bool fails) : fails_(fails) {}
  void TestBody() override {
    EXPECT_TRUE(exited_with(run({"sh", "-c", "seq -f 'line %g of 100' 100 > /dev/console"}), 0));
    EXPECT_TRUE(console_says("line 100 of 100"));
    mark_console();  // what the case itself has done with already
    EXPECT_FALSE(fails_);
  }

 private:
  bool fails_;
};
const bool kPrinting = [] {
  const char* const how = getenv("WEX_PRINTS");
  if (how != nullptr) {
    testing::RegisterTest("Printing", "Once", nullptr, nullptr, __FILE__, __LINE__, [how]() -> WexWorld* {
      return new prints_and_ends(strcmp(how, "and fails") == 0);
    });
  }
  return true;
}();

TEST(LeakGate, AFailedCaseShowsTheEndOfTheConsole) {
  const temporary out("/tmp/said");
  const std::string command =
      "exec " + program_of(getpid()) + " --gtest_filter='Printing.*' > /tmp/said 2>&1";
  EXPECT_TRUE(exited_with(run({"sh", "-c", command}, 30s, {"WEX_PRINTS=and fails"}), 1));
  EXPECT_NE(std::string::npos, read_file("/tmp/said").find("\nline 61 of 100\n")) << read_file("/tmp/said");
  EXPECT_NE(std::string::npos, read_file("/tmp/said").find("\nline 100 of 100\n"));
  EXPECT_EQ(std::string::npos, read_file("/tmp/said").find("line 60 of 100"));
  EXPECT_TRUE(exited_with(run({"sh", "-c", command}, 30s, {"WEX_PRINTS=and succeeds"}), 0));
  EXPECT_EQ(std::string::npos, read_file("/tmp/said").find("line 100 of 100"));
}

TEST(LeakGate, NoCaseRunsOutsideTheSandbox) {
  const std::string program = program_of(getpid());
  EXPECT_TRUE(exited_with(run({program, "--gtest_filter=Leaking.*"}, 30s, {"WEX_SANDBOX=0"}), 125));
  EXPECT_TRUE(exited_with(run({program, "--gtest_list_tests"}, 30s, {"WEX_SANDBOX=0"}), 0));
}

// What a daemon leaves behind must fail the test: the body of a world is run here as a test would run it.
struct Leaky : WexWorld {
  void TestBody() override { leave(); }
  static std::function<void()> leave;
  static void live() {
    Leaky world;
    world.SetUp();
    world.TestBody();
    world.TearDown();
  }
};
std::function<void()> Leaky::leave;

TEST(LeakGate, DaemonisedProcessIsSeenAndEnded) {
  Leaky::leave = [] { EXPECT_TRUE(exited_with(run({"sh", "-c", "setsid sleep 61 > /dev/null 2>&1 &"}), 0)); };
  EXPECT_NONFATAL_FAILURE(Leaky::live(), "a process outlived the test");
  EXPECT_TRUE(eventually([] { return pids_with_command("sleep 61").empty(); }));
}

TEST(LeakGate, SanitizerReportOfTheDaemonIsSeen) {
  Leaky::leave = [] {
    EXPECT_TRUE(exited_with(run({"sh", "-c", "echo 'x.cpp:1:2: runtime error: bad' > /dev/console"}), 0));
    EXPECT_TRUE(console_says("runtime error"));
  };
  EXPECT_NONFATAL_FAILURE(Leaky::live(), "runtime error");
}

}  // namespace
}  // namespace wex_test

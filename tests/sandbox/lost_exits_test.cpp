// Exits that the kernel could not tell: the sweep finds the vanished programs.
#include <linux/netlink.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>

#include "restart_policy.h"
#include "status_reader.h"
#include "taken_pid.h"

using namespace policy;

namespace {

// The daemon, with the small event buffer of a kernel that gives no other, and without its filter: a few
// hundred events are more than it can hold.
class LostExits : public WexWorld {
 protected:
  void SetUp() override {
    WexWorld::SetUp();
    ASSERT_TRUE(daemon_.start_traced({"inject=setsockopt:error=EPERM"}));
    ASSERT_TRUE(daemon_.wait_ready());
  }
  void TearDown() override {
    daemon_.kill_now();
    WexWorld::TearDown();
  }

  void stop_daemon() { stop_all_threads(&daemon_); }
  // Whether no event of processes waits to be read.
  static bool has_read_all() {
    for (const std::string& line : lines_of(read_file("/proc/net/netlink"))) {
      int family = 0;
      unsigned waiting = 0;
      if (sscanf(line.c_str(), "%*s %d %*d %*x %u", &family, &waiting) == 2 && family == NETLINK_CONNECTOR &&
          waiting != 0) {
        return false;
      }
    }
    return true;
  }

  static void many_exits(int count) {
    for (int i = 0; i < count; ++i) {
      const pid_t child = fork();
      if (child == 0) {
        _exit(0);
      }
      waitpid(child, nullptr, 0);
    }
  }

  Daemon daemon_;
};

}  // namespace

TEST_F(LostExits, AProgramWhoseExitWasLostInAnOverflowIsRestarted) {
  SyslogSink log;
  Service service("drowned");
  ASSERT_TRUE(service.start());
  const std::string old = service.id();
  const pid_t old_pid = service.pid();
  stop_daemon();
  many_exits(700);
  service.end();
  daemon_.send(SIGCONT);
  EXPECT_TRUE(service.comes_back(20s)) << read_console();
  EXPECT_TRUE(console_says("wex_process_netlink: netlink recvfrom fail: No buffer space available\n"));
  EXPECT_TRUE(console_says("exit of pid " + std::to_string(old_pid) + " was lost\n"));
  EXPECT_TRUE(log.says("%HA-5-HA_RE_INIT: Job " + old + " will be re-initialized ..."))
      << "nobody knows why it ended";
  EXPECT_TRUE(wait_for_event(WEX_STATUS_EV_LOST_EXIT, old_pid));
  EXPECT_TRUE(eventually([] { return StatusReader().counter(WEX_STATUS_LOST_EXITS) == 1; }));
  EXPECT_GE(StatusReader().counter(WEX_STATUS_OVERFLOWS), 1U);
}

TEST_F(LostExits, AThirdPartProgramWhoseExecutionWasLostInAnOverflowIsRegistered) {
  write_file("/etc/wex/third_part_proc", "/opt/drowned 1000 WEX_RESTART\n");
  make_dirs("/opt");
  std::ofstream("/opt/drowned", std::ios::binary) << std::ifstream("/bin/sleep", std::ios::binary).rdbuf();
  ASSERT_EQ(0, chmod("/opt/drowned", 0755));
  stop_daemon();
  many_exits(700);
  Process program;
  ASSERT_TRUE(program.start({"/opt/drowned", "1000"}));
  ASSERT_TRUE(eventually([&] { return program_of(program.pid()) == "/opt/drowned"; }));
  daemon_.send(SIGCONT);
  EXPECT_TRUE(eventually([&] { return exists(db_file("drowned", program.pid())); }, 20s)) << read_console();
  daemon_.kill_now();
  program.kill_now();
  unlink("/opt/drowned");
}

TEST_F(LostExits, WhileADomainIsTakenDownALostExitIsForgottenLikeOneThatWasSeen) {
  Service service("taken");
  ASSERT_TRUE(service.start());
  const pid_t old_pid = service.pid();
  const std::string file = db_file("actor", old_pid);
  ASSERT_TRUE(exists(file));
  make_dirs("/tmp/vsd/5");
  write_file("/tmp/vsd/5/delete_vsd", "");
  stop_daemon();
  many_exits(700);
  service.end();
  daemon_.send(SIGCONT);
  EXPECT_TRUE(console_says("exit of pid " + std::to_string(old_pid) + " was lost\n", 20s)) << read_console();
  EXPECT_TRUE(eventually([&] { return !exists(file); }));
  EXPECT_TRUE(wait_for_event(WEX_STATUS_EV_DROPPED, old_pid));
  EXPECT_EQ(0U, StatusReader().counter(WEX_STATUS_LOST_EXITS));
  unlink("/tmp/vsd/5/delete_vsd");
  // A restart of the first is over when a later exit has led to a restart: both are made with the registry
  // locked.
  Service witness("witness");
  ASSERT_TRUE(witness.start());
  witness.end();
  EXPECT_TRUE(witness.comes_back(30s)) << "its exit, too, may drown";
  const std::string started = "]wex_spawn--> wex_pid->process = ";
  EXPECT_TRUE(console_says(started, 20s)) << "it is told once the new process runs its program";
  EXPECT_EQ(1u, occurrences(read_console(), started)) << read_console();
}

TEST_F(LostExits, AStrangerThatGotThePidAndExecutesProgramsIsNotTakenForTheService) {
  Service service("robbed");
  ASSERT_TRUE(service.start());
  stop_daemon();
  many_exits(700);
  service.end();
  constexpr char kScript[] = "/tmp/stranger.sh";
  write_file(kScript, "sleep 0.05\nexec /bin/sh /tmp/stranger.sh\n");
  const stranger robber(service.pid(), {"/bin/sh", kScript});
  daemon_.send(SIGCONT);
  EXPECT_TRUE(service.comes_back(20s)) << read_console();
}

TEST_F(LostExits, AnOverflowLeavesLivingProgramsAlone) {
  // The sweep judges the registry in its order and hands over what is lost in the same order: once it has
  // handed over the first and the last one, it has left the one between them alone.
  Service first("first"), service("living"), last("last");
  for (Service* const each : {&first, &service, &last}) {
    ASSERT_TRUE(each->start());
  }
  const pid_t gone[] = {first.pid(), last.pid()};
  stop_daemon();
  many_exits(700);
  first.end();
  last.end();
  daemon_.send(SIGCONT);
  EXPECT_TRUE(console_says("netlink recvfrom fail: No buffer space available\n", 20s));
  for (const pid_t pid : gone) {
    EXPECT_TRUE(console_says(" exit of pid " + std::to_string(pid) + " was lost\n", 30s)) << read_console();
  }
  EXPECT_EQ(0u, occurrences(read_console(), " exit of pid " + std::to_string(service.pid()) + " was lost\n"));
  EXPECT_TRUE(first.comes_back());
  EXPECT_TRUE(last.comes_back());
  EXPECT_TRUE(is_alive(service.pid()));
  service.end();
  EXPECT_TRUE(service.comes_back(30s)) << "its exit, too, may drown";
}

TEST_F(LostExits, WithASmallBufferAndNoFilterTheDaemonStillWorksAndSaysSo) {
  EXPECT_TRUE(console_says("wex_process_netlink: socket set recvbuffer error: Operation not permitted"));
  Service service("small");
  ASSERT_TRUE(service.start());
  service.end();
  EXPECT_TRUE(service.comes_back(30s)) << "its exit, too, may drown";
}

// The end of that child is reported under the pid of the program that was stopped.
TEST_F(LostExits, AStopOnPurposeIsOneThoughAChildThatStartsLaterHasGivenWayToItsPid) {
  bool was_given = false;
  for (int round = 1; round <= 5 && !was_given; ++round) {  // somebody else may be quicker
    Service stopped("stopped");
    Service other("other");
    ASSERT_TRUE(stopped.start());
    ASSERT_TRUE(other.start());
    ASSERT_TRUE(stopped.ends_and_comes_back()) << "as a child of the daemon, which is told how it ends";
    const pid_t old = stopped.pid();
    ASSERT_TRUE(eventually([&] { return exists(db_file("actor", old)); }, 20s));
    stop_daemon();
    many_exits(700);
    stopped.end(SIGTERM);
    daemon_.send(SIGCONT);
    ASSERT_TRUE(eventually([&] { return !exists("/proc/" + std::to_string(old)); }, 20s)) << "reaped";
    ASSERT_TRUE(eventually(has_read_all, 20s)) << "the other one's exit is not lost";
    std::ofstream("/proc/sys/kernel/ns_last_pid") << old - 1 << std::flush;
    other.end();
    EXPECT_TRUE(other.comes_back(20s)) << read_console();
    EXPECT_TRUE(wait_for_event(WEX_STATUS_EV_STOPPED, old)) << read_console();
    EXPECT_TRUE(pids_with_command(stopped.command()).empty());
    was_given =
        other.pid() != old &&
        std::regex_search(Daemon::trace(), std::regex("(fork|clone)[^\n]* = " + std::to_string(old) + "\n"));
    other.end(SIGTERM);
  }
  EXPECT_TRUE(was_given) << "the pid was never given to a child of the daemon's";
}

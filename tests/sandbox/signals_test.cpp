// What signals do to the running daemon, and that none of its children stays a zombie.
#include <signal.h>

#include <algorithm>
#include <cinttypes>
#include <memory>

#include "restart_policy.h"

using namespace policy;

namespace {

using Signals = WexWorld;

uint64_t bit(int signal) {
  return uint64_t{1} << (signal - 1);
}

uint64_t mask_of(pid_t task, const char* field) {
  return strtoull(status_field(task, field).c_str(), nullptr, 16);
}

// Signals 32 and 33 belong to the C library, which lets nobody change them.
uint64_t ignored_by_design() {
  uint64_t all = ~uint64_t{0};
  for (const int signal : {SIGKILL, SIGSTOP, SIGINT, SIGALRM, SIGCHLD, 32, 33}) {
    all &= ~bit(signal);
  }
  return all;
}

class HarmlessSignal : public WexWorld, public ::testing::WithParamInterface<int> {};

}  // namespace

TEST_F(Signals, AllAreIgnoredButThreeAndNoneIsBlockedInAnyThread) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const std::string tasks = "/proc/" + std::to_string(daemon.pid()) + "/task";
  ASSERT_TRUE(eventually([&] { return list_dir(tasks).size() == 7; }))
      << "main, the alarm thread and five others";
  for (const std::string& task : list_dir(tasks)) {
    const pid_t tid = static_cast<pid_t>(std::stol(task));
    EXPECT_EQ(ignored_by_design(), mask_of(tid, "SigIgn"));
    EXPECT_EQ(bit(SIGALRM) | bit(SIGCHLD), mask_of(tid, "SigCgt") & ~(bit(32) | bit(33)));
    EXPECT_EQ(0u, mask_of(tid, "SigBlk")) << read_file(tasks + "/" + task + "/comm");
  }
}

// A starter that takes signals from a descriptor blocks them, and may forget to unblock them.
TEST_F(Signals, OfAStarterThatBlockedThemReachTheDaemonAllTheSame) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_by({"env", "--block-signal=ALRM,CHLD,INT,HUP,USR1"}));
  const std::string tasks = "/proc/" + std::to_string(daemon.pid()) + "/task";
  const auto none_blocked = [&] {  // a thread that is just being made has all blocked
    const auto all = list_dir(tasks);
    return std::all_of(all.begin(), all.end(), [](const std::string& task) {
      return mask_of(static_cast<pid_t>(std::stol(task)), "SigBlk") == 0;
    });
  };
  EXPECT_TRUE(eventually(none_blocked, 20s));
  Service service("unblocked");
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(service.ends_and_comes_back()) << "its death was not reaped";
  EXPECT_TRUE(ended_by(daemon.stop(), SIGINT));
}

TEST_P(HarmlessSignal, DoesNothingToTheDaemon) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("witness");
  ASSERT_TRUE(service.start());
  for (int again = 0; again < 3; ++again) {
    daemon.send(GetParam());
  }
  EXPECT_TRUE(service.ends_and_comes_back());
  EXPECT_TRUE(daemon.running());
}

INSTANTIATE_TEST_SUITE_P(Rows, HarmlessSignal,
                         ::testing::Values(SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGPIPE, SIGALRM, SIGCHLD,
                                           SIGTSTP, SIGXFSZ, SIGRTMIN + 3),
                         [](const auto& row) { return "signal" + std::to_string(row.param); });

TEST_F(Signals, SigintEndsItThoughItsStarterIgnoredIt) {
  Process shell;
  ASSERT_TRUE(shell.start({"/bin/sh", "-c", std::string("trap '' INT TERM; exec ") + Daemon::binary()}));
  ASSERT_TRUE(console_says("[WEX:wex_core:") || exists(kControlSocket));
  ASSERT_TRUE(eventually([&] { return (mask_of(shell.pid(), "SigCgt") & bit(SIGALRM)) != 0; }));
  shell.send(SIGINT);
  EXPECT_TRUE(ended_by(shell.wait(), SIGINT));
}

TEST_F(Signals, AThousandChildrenThatDieLeaveNoZombie) {
  constexpr int kPrograms = 250;  // each is restarted four times, then parked
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const std::string starts = "/tmp/wex/starts";
  std::vector<std::unique_ptr<Process>> programs;
  for (int number = 0; number < kPrograms; ++number) {
    programs.push_back(std::make_unique<Process>());
    ASSERT_TRUE(
        programs.back()->start(actor_words({"--tag=" + std::to_string(number), "--register=RESTART",
                                            "--register=RESTART", "--count=" + starts, "--crash=KILL"})));
    programs.back()->wait();
  }
  EXPECT_TRUE(eventually([&] { return lines_of(read_file(starts)).size() == 5 * kPrograms; }, 60s))
      << lines_of(read_file(starts)).size();
  EXPECT_TRUE(eventually([&] { return zombies_of(daemon.pid()) == 0; }));
  EXPECT_TRUE(daemon.running());
}

TEST_F(Signals, AChildThatDiesWhileTheRegistryIsLockedIsReapedAtOnceAndRestartedAfterwards) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service child("child");
  ASSERT_TRUE(child.start());
  ASSERT_TRUE(child.ends_and_comes_back()) << "from now on it is the daemon's own child";
  const std::vector<std::string> slow = {"--tag=slow", "--time-set=10", "--register=RESTART",
                                         "--ready=/tmp/ready.slow", "--hold"};
  unlink("/tmp/ready.slow");
  Process first;
  ASSERT_TRUE(first.start(actor_words(slow)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready.slow"); }));
  const pid_t slow_pid = first.pid();
  first.send(SIGKILL);  // its restart sleeps ten seconds with the registry locked
  first.wait();
  ASSERT_TRUE(console_says("wex_handle_netlink_exit--> exit_signal = 9\n"));
  const auto locked = std::chrono::steady_clock::now();
  const pid_t child_pid = child.pid();
  child.end();
  EXPECT_TRUE(eventually([&] { return kill(child_pid, 0) != 0; }, 8s)) << "not reaped";
  EXPECT_GE(9s, std::chrono::steady_clock::now() - locked);
  EXPECT_EQ(0, wait_for_actor(slow, slow_pid, 0ms)) << "the registry is not locked any more";
  EXPECT_TRUE(child.comes_back(30s));
  EXPECT_NE(0, wait_for_actor(slow, slow_pid, 30s));
}

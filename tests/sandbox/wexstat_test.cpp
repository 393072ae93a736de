// wexstat beside the real daemon: every state as a service goes through it, and a daemon that is stopped,
// killed or not there.
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdio>

#include "restart_policy.h"
#include "shell_answer.h"

using namespace policy;

namespace {

constexpr char kBinary[] = WEX_BUILD_DIR "/stat/wexstat";

answer wexstat(const std::string& arguments = "") {
  return shell(std::string(kBinary) + " " + arguments);
}

bool shows(const std::string& arguments, const std::string& text, milliseconds limit = 20s) {
  return eventually([&] { return wexstat(arguments).text.find(text) != std::string::npos; }, limit);
}
bool checked(int status, const std::string& text) {
  return eventually(
      [&] {
        const answer now = wexstat("--check");
        return now.status == status && now.text.find(text) != std::string::npos;
      },
      20s);
}
std::string number(pid_t pid) {
  return std::to_string(pid);
}
// The first line about one registration.
bool is_in_state(pid_t pid, const std::string& state) {
  return shows(number(pid), ", pid " + number(pid) + ": " + state);
}

struct Wexstat : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    write_file("/debug_time", "3600\n");
  }
};

}  // namespace

TEST_F(Wexstat, AServiceIsShownInEveryState) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(checked(0, "well: 0 supervised")) << wexstat("--check").text;
  Service parked("parked");
  Service down("down");
  ASSERT_TRUE(parked.start() && down.start());
  EXPECT_TRUE(checked(0, "well: 2 supervised")) << wexstat("--check").text;
  ASSERT_TRUE(is_in_state(down.pid(), "running")) << wexstat(number(down.pid())).text;
  ASSERT_TRUE(down.ends_and_comes_back());
  EXPECT_TRUE(shows(number(down.pid()), "exited: SIGKILL")) << wexstat(number(down.pid())).text;
  EXPECT_TRUE(shows(number(down.pid()), "restarted as pid " + number(down.pid())));
  EXPECT_TRUE(shows(number(down.pid()), "1 since its registration"));

  ASSERT_TRUE(parked.park());
  EXPECT_TRUE(is_in_state(parked.pid(), "parked, 59 min ")) << wexstat(number(parked.pid())).text;
  EXPECT_TRUE(checked(1, "1 parked: actor")) << wexstat("--check").text;

  write_file("/etc/debug_log", "");
  unlink(kEventLog1);
  make_dirs(kEventLog1);  // what must be logged and cannot be is not done
  down.end();
  EXPECT_TRUE(is_in_state(down.pid(), "down for ")) << wexstat().text;
  EXPECT_TRUE(checked(1, "1 down: actor; 1 parked: actor")) << wexstat("--check").text;
  Service running("running");
  ASSERT_TRUE(running.start());
  EXPECT_TRUE(is_in_state(running.pid(), "running")) << wexstat().text;
  const std::vector<std::string> lines = lines_of(wexstat().text);
  ASSERT_EQ(6U, lines.size()) << wexstat().text;
  EXPECT_NE(std::string::npos, lines[3].find(" down for ")) << "problems come first";
  EXPECT_NE(std::string::npos, lines[4].find(" parked, "));
  EXPECT_NE(std::string::npos, lines[5].find(" running "));

  running.end(SIGTERM);  // on purpose
  EXPECT_TRUE(shows("--history", "stopped on purpose")) << wexstat("--history").text;
  EXPECT_TRUE(eventually([&] { return wexstat(number(running.pid())).status == 1; }, 20s)) << "forgotten";
  remove_tree(kEventLog1);
  unlink("/etc/debug_log");
  daemon.kill_now();
}

TEST_F(Wexstat, ATableThatCannotBeMadeStopsNoRestart) {
  ASSERT_EQ(0, mkdir(kStatusTable, 0755));
  ASSERT_EQ(0, mount("taken", kStatusTable, "tmpfs", 0, ""));  // it can be neither removed nor renamed
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("unseen");
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(service.ends_and_comes_back());
  const std::string line = "/dev/shm/wex-status cannot be made, what wex does is not shown: ";
  EXPECT_TRUE(eventually([&] { return occurrences(read_file(kRunningLog1), line) == 1; }, 20s))
      << read_file(kRunningLog1);
  EXPECT_EQ(3, wexstat("--check").status) << wexstat("--check").text;
  daemon.kill_now();
  EXPECT_EQ(1U, occurrences(read_file(kRunningLog1), line));
  ASSERT_EQ(0, umount(kStatusTable));
  ASSERT_EQ(0, rmdir(kStatusTable));
}

TEST_F(Wexstat, APostponedRestartIsShownUntilItIsMade) {
  const std::vector<std::string> options = {"--tag=held", "--hold"};
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process held;
  ASSERT_TRUE(held.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  ASSERT_EQ(held.pid(), pid);
  Holder holder({pid});
  held.send(SIGKILL);
  held.wait();
  EXPECT_TRUE(is_in_state(pid, "postponed for ")) << wexstat().text;
  EXPECT_TRUE(checked(1, "1 postponed: actor")) << wexstat("--check").text;
  holder.end();
  const pid_t next = wait_for_actor(options, pid, 20s);
  ASSERT_GT(next, 0);
  EXPECT_TRUE(is_in_state(next, "running")) << wexstat().text;
  EXPECT_TRUE(shows(number(next), "restart postponed: its database file is held"))
      << wexstat(number(next)).text;
  daemon.kill_now();
}

TEST_F(Wexstat, ADaemonThatIsStoppedOrKilledIsNotWell) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("left");
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(checked(0, "well: 1 supervised"));
  daemon.send(SIGSTOP);
  EXPECT_TRUE(checked(2, "wex is stuck: it is stopped by a signal")) << wexstat("--check").text;
  EXPECT_TRUE(shows("", "STUCK: it is stopped by a signal"));
  EXPECT_TRUE(shows("--openmetrics", "\nwex_stuck 1\n"));
  daemon.send(SIGCONT);
  EXPECT_TRUE(checked(0, "well")) << wexstat("--check").text;
  const pid_t first = daemon.pid();
  daemon.kill_now();
  EXPECT_TRUE(checked(2, "wex is not running: it was killed")) << wexstat("--check").text;
  const answer left = wexstat();
  EXPECT_EQ(0U, left.text.find("wex is NOT RUNNING (it was killed); pid " + number(first) + " left this:\n"))
      << left.text;
  EXPECT_NE(std::string::npos, left.text.find(" running ")) << left.text;
  EXPECT_TRUE(shows("--openmetrics", "\nwex_up 0\n"));
  EXPECT_EQ(1, wexstat("--wait actor --timeout 0").status) << "nobody supervises it";
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(checked(0, "well: 1 supervised")) << wexstat("--check").text;
  EXPECT_EQ(2U, occurrences(wexstat("--history 100").text, "wex started")) << wexstat("--history 100").text;
  EXPECT_TRUE(shows("--history 100", "  registered\n"));
  daemon.kill_now();
}

TEST_F(Wexstat, AScriptWaitsForAProgramBeforeThereIsADaemon) {
  Process waiting;
  ASSERT_TRUE(waiting.start({kBinary, "--wait", "actor"}));
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(never([&] { return !waiting.running(); }, 300ms));
  Service service("awaited");
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(exited_with(waiting.wait(20s), 0));
  daemon.kill_now();
}

TEST_F(Wexstat, AnyUserMayLook) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("seen");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(is_in_state(service.pid(), "running"));
  for (const char* words : {"", "actor", "--history", "--json", "--openmetrics", "--check", "--wait actor"}) {
    const answer said =
        shell(std::string("setpriv --reuid=1234 --regid=1234 --clear-groups ") + kBinary + " " + words);
    EXPECT_EQ(0, said.status) << words << ": " << said.text;
  }
  daemon.kill_now();
}

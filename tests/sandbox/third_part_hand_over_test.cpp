// Programs that start themselves again beside themselves, or detach: the new process is found and takes the
// old one's place.
#include "taken_pid.h"
#include "third_part_world.h"

using namespace third_part;

namespace {
struct ThirdPartHandOver : ThirdPart {};
}  // namespace

TEST_F(ThirdPartHandOver, AProgramThatDetachesIsHandedOverToItsDetachedProcess) {
  write_file(kHoldStart, "");
  ASSERT_NO_FATAL_FAILURE(start_listed("detaching"));
  const pid_t parent = by_hand_.pid();
  unlink(kHoldStart);
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  const pid_t detached = wait_for(app_, parent);
  ASSERT_NE(0, detached);
  EXPECT_TRUE(console_says("wex_handle_netlink_exit--> wex_pid->action == RESPAWN, found child pid_get = " +
                           std::to_string(detached) + "\n"));
  EXPECT_TRUE(eventually([&] { return exists(db_file("detaching", detached)); }));
  EXPECT_FALSE(exists(db_file("detaching", parent)));
  EXPECT_EQ(std::string::npos, read_console().find("wex_spawn-->")) << "nothing is started beside it";
}

// Its execution is all that the kernel reports, and the process of that report is no more.
TEST_F(ThirdPartHandOver, AProgramThatHasDetachedWhenItsExecutionIsReadIsRegistered) {
  const std::string earlier = install("earlier");
  app_ = install("detaching");
  describe("earlier", earlier + " WEX_RESTART");
  describe("detaching", app_ + " WEX_RESTART");
  Process first;
  ASSERT_TRUE(first.start({earlier}));
  ASSERT_TRUE(eventually([&] { return program_of(first.pid()) == earlier; }));
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(registered(earlier, first.pid(), "earlier"));  // so the look at all processes is past
  ASSERT_NO_FATAL_FAILURE(stop_all_threads(&daemon_));
  ASSERT_TRUE(start_by_hand({app_}));
  const pid_t parent = by_hand_.pid();
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  const pid_t detached = wait_for(app_, parent);
  ASSERT_NE(0, detached);
  daemon_.send(SIGCONT);
  ASSERT_TRUE(registered(app_, detached, "detaching")) << read_console();
  send_signal(detached, SIGKILL);
  EXPECT_NE(0, settled(app_, detached)) << "it is supervised";
}

TEST_F(ThirdPartHandOver, AProgramThatDetachesIsRegisteredWhileMoreIsExecutedThanCanBeRead) {
  app_ = install("detaching");
  describe("detaching", app_ + " WEX_RESTART");
  ASSERT_TRUE(daemon_.start_traced({"trace=recvfrom", "inject=recvfrom:delay_enter=20000"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  Process others;
  ASSERT_TRUE(others.start({"/bin/sh", "-c", "while :; do /bin/true; done"}));
  ASSERT_TRUE(eventually([] { return occurrences(Daemon::trace(), "AF_NETLINK") > 20; })) << Daemon::trace();
  ASSERT_TRUE(start_by_hand({app_}));
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  const pid_t detached = wait_for(app_, by_hand_.pid());
  EXPECT_TRUE(registered(app_, detached, "detaching"));
  others.kill_now();
}

// Each of them could have been a program that detaches.
TEST_F(ThirdPartHandOver, CommandsThatEndUnseenCostALookAtAllProcessesNowAndThen) {
  describe("listed", install("listed") + " WEX_RESTART");
  ASSERT_TRUE(daemon_.start_traced({"trace=openat"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  const auto looks = [] { return occurrences(Daemon::trace(), "\"/proc\", O_RDONLY"); };
  ASSERT_TRUE(eventually([&] { return looks() > 0; })) << Daemon::trace();
  const auto begin = std::chrono::steady_clock::now();
  const size_t before = looks();
  for (int command = 0; command < 100 || looks() == before; ++command) {
    ASSERT_LT(command, 1000) << "nobody looked";
    Process brief;
    ASSERT_TRUE(brief.start({"/bin/true"}));
    brief.wait();
    usleep(10000);  // the daemon has time to look after each of them
  }
  const size_t made = looks() - before;
  const auto took = std::chrono::steady_clock::now() - begin;  // asked last, so all of them were made in it
  EXPECT_LE(made, 1 + static_cast<size_t>(took / 100ms));
}

TEST_F(ThirdPartHandOver, ARestartedProgramThatDetachesIsFoundByItsCommandLine) {
  write_file(kHoldStart, "");
  ASSERT_NO_FATAL_FAILURE(start_listed("detaching"));
  const pid_t first = by_hand_.pid();
  unlink(kHoldStart);
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  pid_t now = settled(app_, first);
  ASSERT_NE(0, now);
  for (int life = 1; life <= 2; ++life) {
    send_signal(now, SIGKILL);
    now = settled(app_, now);
    ASSERT_NE(0, now) << "life " << life;
    EXPECT_TRUE(eventually([&] { return exists(db_file("detaching", now)); }))
        << "or the next daemon does not know it";
  }
  EXPECT_NE(std::string::npos, read_console().find("]wex_spawn--> third part Daemon[" + app_ +
                                                   "] new pid: " + std::to_string(now) + "\n"))
      << "it was started, not found";
}

TEST_F(ThirdPartHandOver, AProgramThatReplacesItselfIsHandedOverToItsNewProcess) {
  ASSERT_NO_FATAL_FAILURE(start_listed("replacing"));
  const pid_t first = by_hand_.pid();
  EXPECT_TRUE(replaces_itself(app_, first)) << "not registered twice";
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  const pid_t second = wait_for(app_, first);
  ASSERT_NE(0, second);
  EXPECT_TRUE(console_says("found child pid_get = " + std::to_string(second)));
  EXPECT_TRUE(eventually([&] { return exists(db_file("replacing", second)); }));
  send_signal(second, SIGKILL);
  EXPECT_NE(0, wait_for(app_, second)) << "the new process is supervised";
}

TEST_F(ThirdPartHandOver, AProgramWithAScriptThatReplacesItselfKeepsItsScript) {
  ASSERT_NO_FATAL_FAILURE(start_listed("replacing", "WEX_SHELL_RESTART"));
  const pid_t first = by_hand_.pid();
  EXPECT_TRUE(replaces_itself(app_, first));
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  const pid_t second = wait_for(app_, first);
  ASSERT_NE(0, second);
  EXPECT_TRUE(
      console_says("]wex_handle_netlink_exit--> wex_pid->action == SHELL_RESTART, found child pid_get = " +
                   std::to_string(second) + "\n"));
  EXPECT_TRUE(eventually([&] {
    return read_file(db_file("replacing", second)) == std::to_string(second) + "\n3\n" + app_;
  })) << read_file(db_file("replacing", second));
  write_file("/etc/cmdmap/replacing.sh", "echo ran > /tmp/apps/ran\nexec " + app_ + "\n");
  send_signal(second, SIGKILL);
  EXPECT_TRUE(eventually([] { return exists("/tmp/apps/ran"); })) << "not restarted through its script";
}

namespace {

// In the monitor, what happens to the reading of the link that names the executable of `pid`, from the second
// time on: the search reads it once, the registration after it.
bool inject_into_registration(pid_t daemon, pid_t pid, const std::string& injection, Process* strace) {
  pid_t monitor = 0;
  const std::string tasks = "/proc/" + std::to_string(daemon) + "/task/";
  for (const std::string& task : list_dir(tasks)) {
    monitor = read_file(tasks + task + "/comm") == "wex_process_net\n" ? std::stoi(task) : monitor;
  }
  return monitor != 0 &&
         strace->start({"strace", "-qq", "-o", "/tmp/wex-trace", "-P",
                        "/proc/" + std::to_string(pid) + "/exe", "-e",
                        "inject=readlink,readlinkat:" + injection, "-p", std::to_string(monitor)}) &&
         eventually([&] { return status_field(monitor, "TracerPid") != "0"; });
}

}  // namespace

TEST_F(ThirdPartHandOver, AHandOverToAProcessThatHasDiedMeanwhileRestartsTheProgram) {
  ASSERT_NO_FATAL_FAILURE(start_listed("fleeting"));
  Process second;
  ASSERT_TRUE(second.start({app_}));
  ASSERT_TRUE(console_says("wex_process_netlink--> " + app_ + " is running\n"));
  const pid_t dead = second.pid();
  Process strace;
  ASSERT_TRUE(inject_into_registration(daemon_.pid(), dead, "delay_enter=2000000:when=2", &strace));
  end_by_hand();
  ASSERT_TRUE(console_says("found child pid_get = " + std::to_string(dead) + "\n")) << read_console();
  second.kill_now();
  EXPECT_TRUE(console_says("-->reg_third_part_process_exit_action error!\n")) << read_console();
  const pid_t third = wait_for(app_, dead, 20s);
  ASSERT_GT(third, 0) << read_console();
  strace.kill_now();
  EXPECT_TRUE(eventually([&] { return exists(db_file("fleeting", third)); }));
  send_signal(third, SIGKILL);
  EXPECT_NE(0, wait_for(app_, third, 20s)) << "it is supervised as before";
}

TEST_F(ThirdPartHandOver, AHandOverToAProcessThatCannotBeReadIsReported) {
  ASSERT_NO_FATAL_FAILURE(start_listed("unreadable"));
  Process second;
  ASSERT_TRUE(second.start({app_}));
  ASSERT_TRUE(console_says("wex_process_netlink--> " + app_ + " is running\n"));
  Process strace;
  ASSERT_TRUE(inject_into_registration(daemon_.pid(), second.pid(), "error=EACCES:when=2+", &strace));
  end_by_hand();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit--> wex_pid->action == RESPAWN, found child pid_get = " +
                           std::to_string(second.pid()) + "\n"))
      << read_console();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit-->reg_third_part_process_exit_action error!\n"))
      << read_console();
  EXPECT_TRUE(list_dir("/tmp/vsd/0/wex/db").empty());
  strace.kill_now();
  second.kill_now();
}

TEST_F(ThirdPartHandOver, AHandOverSucceedsThoughOtherProcessesComeAndGo) {
  const std::string app = install("replacing");
  describe("replacing", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  PassersBy others(1500, 300000, 1000);
  ASSERT_TRUE(start_by_hand({app}));
  EXPECT_TRUE(registered(app, by_hand_.pid(), "replacing"));
  pid_t now = by_hand_.pid();
  for (int round = 1; now != 0 && round <= 20; ++round) {
    EXPECT_TRUE(replaces_itself(app, now));
    if (round == 1) {
      by_hand_.wait();
    }
    now = settled(app, now);
    EXPECT_NE(0, now) << "hand-over " << round;
  }
  EXPECT_EQ(std::string::npos, read_console().find("wex_spawn-->")) << "a second instance was started";
}

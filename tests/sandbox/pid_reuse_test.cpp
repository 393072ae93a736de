// A pid that another process has before the daemon has dealt with the former owner: the program comes back
// once, and the process that has the pid now is nobody's service.
#include "figures.h"
#include "handled_exits.h"
#include "restart_policy.h"
#include "taken_pid.h"
#include "third_part_world.h"

using namespace policy;

namespace {

class PidReuse : public WexWorld {
 protected:
  void TearDown() override {
    daemon_.kill_now();
    WexWorld::TearDown();
  }
  // The program runs once, with its own file, and nothing has happened to the process that has its pid.
  static int lost(Service* service, pid_t old, const stranger& other) {
    EXPECT_TRUE(service->comes_back(60s)) << read_console();
    EXPECT_NE(old, service->pid());
    const bool filed = eventually([&] { return exists(db_file("actor", service->pid())); }, 20s);
    EXPECT_TRUE(filed) << "it registers again";
    wait_until_exits_are_handled();
    const size_t instances = pids_with_command(service->command()).size();
    EXPECT_EQ(1u, instances) << read_console();
    EXPECT_TRUE(other.pid() == 0 || other.lives()) << "the process that has the pid now was ended";
    return filed && instances == 1 ? 0 : 1;
  }

  Daemon daemon_;
};

const std::vector<std::string> kExecutesPrograms = {"/bin/sh", "-c",
                                                    "sleep 0.05; exec /bin/sh -c 'exec sleep 1000'"};

}  // namespace

TEST_F(PidReuse, BetweenAnExitAndItsHandling) {
  const struct {
    const char* what;
    std::vector<std::string> words;
    bool ends;
  } rows[] = {{"lives", {"/bin/sleep", "1000"}, false},
              {"has-ended-too", {"/bin/sleep", "1000"}, true},
              {"executes-programs", kExecutesPrograms, false}};
  ASSERT_TRUE(daemon_.start());
  int failed = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Service service(row.what);
    ASSERT_TRUE(service.start());
    const pid_t old = service.pid();
    stop_all_threads(&daemon_);
    service.end();
    stranger other(old, row.words);
    if (row.ends) {
      other.end();
    }
    daemon_.send(SIGCONT);
    failed += lost(&service, old, other);
  }
  tell_figures("a pid is used again before the exit is handled", "the next owner lives, ends, executes", 3,
               failed, "back once, the next owner is left alone");
}

// The exit that is handled first is followed by a start, and the kernel has the other's pid for it.
TEST_F(PidReuse, ByTheRestartOfAnotherServiceBeforeTheExitIsHandled) {
  ASSERT_TRUE(daemon_.start_traced({"trace=vfork,fork,clone,clone3"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  bool was_given = false;
  const auto end = std::chrono::steady_clock::now() + 60s;
  while (!was_given && std::chrono::steady_clock::now() < end) {  // somebody else may be quicker
    Service restarted("restarted-first");
    Service waiting("waiting");
    ASSERT_TRUE(restarted.start());
    ASSERT_TRUE(waiting.start());
    const pid_t old = waiting.pid();
    stop_all_threads(&daemon_);
    restarted.end();
    waiting.end();
    std::this_thread::sleep_for(100ms);  // the kernel counts start times in hundredths of a second
    std::ofstream("/proc/sys/kernel/ns_last_pid") << old - 1 << std::flush;
    daemon_.send(SIGCONT);
    EXPECT_TRUE(restarted.comes_back(20s)) << read_console();
    EXPECT_TRUE(waiting.comes_back(20s)) << read_console();
    const std::string forked = " = " + std::to_string(old) + "\n";
    was_given = Daemon::trace().find(forked) != std::string::npos;
    restarted.end(SIGTERM);
    waiting.end(SIGTERM);
  }
  EXPECT_TRUE(was_given) << "the pid was never given to a child of the daemon's";
  tell_figures("a pid is used again before the exit is handled", "by the restart of another service", 2,
               HasFailure() ? 1 : 0, "both back");
}

TEST_F(PidReuse, BetweenADeathAndTheStartOfTheNextDaemon) {
  ASSERT_TRUE(daemon_.start());
  Service service("unseen");
  ASSERT_TRUE(service.start());
  const pid_t old = service.pid();
  daemon_.kill_now();
  service.end();
  const stranger other(old);
  ASSERT_TRUE(daemon_.start());
  const int failed = lost(&service, old, other);
  EXPECT_FALSE(exists(db_file("actor", old)));
  tell_figures("a pid is used again while there is no daemon", "one service", 1, failed, "back once");
}

TEST_F(PidReuse, OfAParkedProgram) {
  write_file(kDebugTime, "2\n");
  ASSERT_TRUE(daemon_.start());
  Service service("parked");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.park());
  const pid_t old = service.pid();
  stranger first(old);
  first.end();  // the exit of a process that has the parked program's pid
  const stranger second(old);
  const int failed = lost(&service, old, second);
  tell_figures("the pid of a parked program is used again", "by two processes, one of which ends", 1, failed,
               "back once when the wait is over");
}

TEST_F(PidReuse, OfAPostponedProgram) {
  const std::vector<std::string> options = {"--tag=postponed", "--hold"};
  ASSERT_TRUE(daemon_.start());
  Process program;
  ASSERT_TRUE(program.start(actor_words(options)));
  const pid_t old = wait_for_actor(options);
  ASSERT_GT(old, 0);
  Holder holder({old});
  program.kill_now();
  ASSERT_TRUE(console_says("be lock file " + db_file("actor", old) + ", ", 20s)) << read_console();
  stranger first(old);
  first.end();  // the exit of a process that has the pid of a program that waits
  const stranger second(old);
  wait_until_exits_are_handled();
  EXPECT_EQ(0, wait_for_actor(options, 0, 0ms)) << "somebody still holds its file";
  holder.end();
  const bool back = wait_for_actor(options, old, 20s) > 0;
  EXPECT_TRUE(back) << read_console();
  EXPECT_TRUE(second.lives());
  tell_figures("the pid of a postponed program is used again", "by two processes, one of which ends", 1,
               back ? 0 : 1, "back once when its file is released");
}

// ---- Hand-overs -------------------------------------------------------------------------------------------

namespace {
class ReusedInAHandOver : public third_part::ThirdPart {};
}  // namespace

TEST_F(ReusedInAHandOver, ThePidOfTheParentIsNotTakenForTheDetachedProcess) {
  write_file(third_part::kHoldStart, "");
  ASSERT_NO_FATAL_FAILURE(start_listed("detaching"));
  const pid_t parent = by_hand_.pid();
  stop_all_threads(&daemon_);
  unlink(third_part::kHoldStart);
  ASSERT_TRUE(exited_with(by_hand_.wait(), 0));
  const stranger other(parent);
  daemon_.send(SIGCONT);
  const pid_t detached = wait_for(app_, parent, 20s);
  ASSERT_GT(detached, 0) << read_console();
  EXPECT_TRUE(console_says("found child pid_get = " + std::to_string(detached) + "\n", 20s))
      << read_console();
  EXPECT_TRUE(eventually([&] { return exists(db_file("detaching", detached)); }, 20s));
  EXPECT_TRUE(other.lives());
  EXPECT_EQ(std::string::npos, read_console().find("wex_spawn-->")) << "a second instance was started";
  tell_figures("the pid of a program that detaches is used again", "one listed program", 1,
               HasFailure() ? 1 : 0, "handed over to the detached process");
}

// The second instance is what the hand-over would find; it has ended, and its pid is used again.
TEST_F(ReusedInAHandOver, ThePidOfTheSuccessorIsNotTakenForTheProgram) {
  ASSERT_NO_FATAL_FAILURE(start_listed("fleeting"));
  const pid_t first = by_hand_.pid();
  Process second;
  ASSERT_TRUE(second.start({app_}));
  ASSERT_TRUE(console_says("wex_process_netlink--> " + app_ + " is running\n", 20s));
  const pid_t successor = second.pid();
  stop_all_threads(&daemon_);
  end_by_hand();
  second.kill_now();
  const stranger other(successor);
  daemon_.send(SIGCONT);
  const pid_t third = wait_for(app_, first, 20s);
  ASSERT_GT(third, 0) << read_console();
  EXPECT_NE(successor, third);
  EXPECT_TRUE(eventually([&] { return exists(db_file("fleeting", third)); }, 20s)) << read_console();
  EXPECT_FALSE(exists(db_file("fleeting", successor)));
  EXPECT_TRUE(other.lives());
  tell_figures("the pid that a hand-over would go to is used again", "one listed program", 1,
               HasFailure() ? 1 : 0, "the program is started again");
}

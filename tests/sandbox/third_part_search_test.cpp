// Restarted third-part programs are looked for by their command line: what becomes of those that are not
// found at once.
#include <grp.h>

#include "raw_client.h"
#include "third_part_world.h"

using namespace third_part;

namespace {
struct ThirdPartSearch : ThirdPart {};
}  // namespace

TEST_F(ThirdPartSearch, AProgramOfSeveralWordsIsFoundAgainByItsWholeCommandLine) {
  ASSERT_NO_FATAL_FAILURE(start_listed_with({"-d", "--level", "3"}, "words"));
  const pid_t second = restarted(30s);
  ASSERT_NE(0, second);
  EXPECT_TRUE(console_says("third part Normal[" + app_ + "] new pid: " + std::to_string(second), 10s));
  EXPECT_TRUE(eventually([&] { return exists(db_file("words", second)); }));
}

TEST_F(ThirdPartSearch, AProgramOfSeveralWordsIsFoundThoughOtherProcessesComeAndGo) {
  ASSERT_NO_FATAL_FAILURE(start_listed_with({"-d"}, "words"));
  PassersBy others(500, 5000000, 2000);  // at the look for the whole text, 5.5 s after the start
  const pid_t second = restarted();
  ASSERT_NE(0, second);
  EXPECT_TRUE(console_says("third part Normal[" + app_ + "] new pid: " + std::to_string(second), 10s));
}

TEST_F(ThirdPartSearch, AfterARestartThatFoundNoProcessTheNextLifeIsSupervisedAgain) {
  ASSERT_NO_FATAL_FAILURE(start_listed("vanishing"));
  const pid_t first = by_hand_.pid();
  ASSERT_EQ(0, rename(app_.c_str(), "/tmp/apps/hidden"));
  end_by_hand();
  ASSERT_TRUE(console_says("wex_spawn--> third part[" + app_ + "] Not Found new pid!\n", 10s));
  EXPECT_TRUE(console_says("HA_RESTART execvp fail, error = No such file or directory.\n"));
  ASSERT_TRUE(eventually([] { return occurrences(read_console(), "HA_RESTART execvp fail") == 2; }))
      << "that is one more exit, and the next search has begun";
  ASSERT_EQ(0, rename("/tmp/apps/hidden", app_.c_str()));
  ASSERT_TRUE(start_by_hand({app_}));
  const pid_t second = by_hand_.pid();
  EXPECT_TRUE(eventually([&] { return exists(db_file("vanishing", second)); }, 15s));
  EXPECT_FALSE(exists(db_file("vanishing", first)));
  end_by_hand();
  EXPECT_NE(0, wait_for(app_, second));
}

// ---- Programs that end before they are found --------------------------------------------------------------

namespace {

constexpr char kLives[] = "/tmp/apps/lives";

// In place of the program, one that is never found: each of its lives adds its pid to kLives.
void replace_by_unfindable(const std::string& app) {
  ASSERT_EQ(0, rename(app.c_str(), (app + ".real").c_str()));
  write_file(app, std::string("#!/bin/sh\necho $$ >> ") + kLives + "\nexec sleep 1000\n", 0755);
}

// The pid of life `number`, once it has begun; 0 when it does not begin.
pid_t unfindable_life(size_t number) {
  eventually([&] { return lines_of(read_file(kLives)).size() >= number; }, 20s);
  const std::vector<std::string> lives = lines_of(read_file(kLives));
  return lives.size() == number ? std::stoi(lives.back()) : 0;
}

}  // namespace

TEST_F(ThirdPartSearch, AProgramThatIsKilledWhileItIsLookedForComesBackEachTime) {
  ASSERT_NO_FATAL_FAILURE(start_listed("unlucky"));
  const pid_t first = by_hand_.pid();
  replace_by_unfindable(app_);
  end_by_hand();
  const pid_t second = unfindable_life(1);
  ASSERT_GT(second, 0) << read_console();
  send_signal(second, SIGUSR1);
  EXPECT_TRUE(console_says(" receives event:000a and self-checking ...\n", 20s)) << "the child's status";
  const pid_t third = unfindable_life(2);
  ASSERT_GT(third, 0) << read_console();
  ASSERT_EQ(0, rename((app_ + ".real").c_str(), app_.c_str()));
  send_signal(third, SIGKILL);
  const pid_t found = wait_for(app_, first, 20s);
  ASSERT_NE(0, found) << read_console();
  EXPECT_TRUE(console_says("HA_SELF_CHECK_INFO Self-checking OK: 3 times and new id unlucky/" +
                           std::to_string(found) + ".\n"))
      << "the restarts that missed count in the throttle\n"
      << read_console();
  EXPECT_FALSE(exists(db_file("unlucky", first)));
}

// strace counts for each thread, so the fork of whoever tries again fails once, too.
TEST_F(ThirdPartSearch, AProgramWhoseForkFailedOnceIsStartedAgain) {
  const std::string app = install("forkless");
  describe("forkless", app + " WEX_RESTART");
  ASSERT_TRUE(daemon_.start_traced({"inject=clone,fork,vfork:error=ENOMEM:when=1"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "forkless"));
  const pid_t first = by_hand_.pid();
  end_by_hand();
  const pid_t second = wait_for(app, first, 20s);
  EXPECT_NE(0, second) << read_console();
  EXPECT_TRUE(console_says("wex_spawn--> third part[" + app + "] Not Found new pid!\n"));
  EXPECT_FALSE(exists(kForkFile));
}

TEST_F(ThirdPartSearch, AProgramOfADomainComesBackThereAlsoWhenItWasMissedOnce) {
  make_dirs("/tmp/vsd/2/wex/db");
  make_dirs("/data/var/run/vsd/2");
  const std::string app = install("inside");
  describe("inside", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  const gid_t group = 3200;
  const pid_t first = fork();
  if (first == 0) {
    setgroups(1, &group);
    execl(app.c_str(), app.c_str(), static_cast<char*>(nullptr));
    _exit(1);
  }
  ASSERT_GT(first, 0);
  EXPECT_TRUE(eventually([&] { return exists(db_file("inside", first, 2)); }, 15s)) << read_console();
  EXPECT_TRUE(eventually([&] { return exists("/tmp/vsd/2/wex/" + std::to_string(first)); }));
  replace_by_unfindable(app);
  send_signal(first, SIGKILL);
  waitpid(first, nullptr, 0);
  const pid_t missed = unfindable_life(1);
  ASSERT_GT(missed, 0) << read_console();
  EXPECT_EQ("3200 ", status_field(missed, "Groups"));
  ASSERT_EQ(0, rename((app + ".real").c_str(), app.c_str()));
  send_signal(missed, SIGKILL);
  const pid_t second = wait_for(app, first, 20s);
  ASSERT_GT(second, 0) << read_console();
  EXPECT_EQ("3200 ", status_field(second, "Groups"));
  EXPECT_TRUE(eventually([&] { return exists(db_file("inside", second, 2)); })) << read_console();
  EXPECT_TRUE(exists("/tmp/vsd/2/wex/" + std::to_string(second)));
  EXPECT_FALSE(exists("/tmp/vsd/2/wex/" + std::to_string(missed)));
}

// ---- The daemon ends in the middle ------------------------------------------------------------------------

TEST_F(ThirdPartSearch, ADaemonThatEndsDuringASearchFinishesItAndLeavesOneInstance) {
  const std::string app = install("late");
  describe("late", app + " WEX_RESTART");
  ASSERT_TRUE(daemon_.start_traced({"inject=accept4:error=ECONNABORTED:when=40"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "late"));
  const pid_t first = by_hand_.pid();
  // Its next life takes a while to become the program that is looked for.
  ASSERT_EQ(0, rename(app.c_str(), "/tmp/apps/late.real"));
  write_file(app, "#!/bin/sh\nsleep 4\nmv /tmp/apps/late.real " + app + "\nexec " + app + "\n", 0755);
  end_by_hand();
  ASSERT_TRUE(console_says("receives event:0009 and self-checking ...\n"));
  ASSERT_TRUE(end_through_server()) << "the server still runs";
  EXPECT_EQ(std::string::npos, read_console().find("third part Normal[" + app))
      << "the search is over already";
  EXPECT_TRUE(exited_with(daemon_.wait(20s), 0)) << read_console();
  EXPECT_TRUE(console_says("wex_spawn--> third part Normal[" + app + "] new pid: "));
  const std::string log = read_file(kRunningLog1);
  EXPECT_EQ(log.size() - 7, log.find("Exit.\r\n")) << log;
  EXPECT_FALSE(exists(db_file("late", first)));
  const pid_t second = wait_for(app, first);
  ASSERT_NE(0, second);
  ASSERT_TRUE(start_daemon());
  EXPECT_TRUE(never([&] { return pids_with_command(app) != std::vector<pid_t>{second}; }, 1s));
}

// The file of the process before lies there as long as the search goes on.
TEST_F(ThirdPartSearch, ADaemonThatIsKilledDuringASearchLeavesOneInstanceToTheNext) {
  ASSERT_NO_FATAL_FAILURE(start_listed_with({"-d"}, "words"));
  const pid_t first = by_hand_.pid();
  const pid_t second = restarted(30s);
  ASSERT_NE(0, second);
  daemon_.kill_now();
  ASSERT_TRUE(exists(db_file("words", first))) << "the search had ended before";
  ASSERT_TRUE(start_daemon());
  EXPECT_TRUE(eventually([&] { return exists(db_file("words", second)); }, 20s));
  EXPECT_FALSE(exists(db_file("words", first)));
  EXPECT_EQ(std::vector<pid_t>{second}, pids_with_command(command_));
  ASSERT_TRUE(send_signal(second, SIGKILL));
  EXPECT_NE(0, wait_for(command_, second, 30s)) << "it is supervised";
}

// Nobody sees a program being executed by a daemon that is only starting.
TEST_F(ThirdPartSearch, AProgramThatWasStartedAgainByOneDaemonIsKnownToTheNext) {
  ASSERT_NO_FATAL_FAILURE(start_listed("twice_orphaned"));
  pid_t now = by_hand_.pid();
  for (int daemon = 1; daemon <= 2; ++daemon) {
    daemon_.kill_now();
    ASSERT_TRUE(send_signal(now, SIGKILL));
    ASSERT_TRUE(eventually([&] { return !is_alive(now); }));
    ASSERT_TRUE(start_daemon());
    const pid_t before = now;
    now = wait_for(app_, before, 20s);
    ASSERT_GT(now, 0) << "daemon " << daemon << "\n" << read_console();
  }
}

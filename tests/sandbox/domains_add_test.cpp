// Programs are added to a domain, and the commands of the shipped program that do it.
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domains_world.h"
#include "failing_calls.h"

namespace {

struct AddProgram : Domains {
  void SetUp() override {
    Domains::SetUp();
    write_file("/sbin/wex_app",
               std::string("#!/bin/sh\nexec ") + actor_binary() + " --facts=/data/facts.6 --hold\n", 0755);
  }
  static void reap_children() {
    EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
  }
};

TEST_F(AddProgram, StartsItInTheDomainAndMakesItsFlagFile) {
  make_dirs("/data2/.ovix/vsd");
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  reap_children();
  const Facts facts = facts_of(6);
  expect_in_domain(facts, 6);
  EXPECT_FALSE(names_variable(facts, "DATA_OVIX_DIR2"));
  const auto pids = processes_of(6);
  ASSERT_EQ(1u, pids.size());
  EXPECT_EQ(std::vector<std::string>{std::to_string(pids[0])}, list_dir("/tmp/vsd/6/wex"));
  EXPECT_EQ(0754u, mode_of("/tmp/vsd/6/wex/" + std::to_string(pids[0])));
  EXPECT_FALSE(exists("/tmp/vsd/6/starttime"));
  EXPECT_FALSE(exists("/data2/.ovix/vsd/6"));
}

TEST_F(AddProgram, InheritsNeitherFilesNorSignalsOfTheStarter) {
  make_dirs("/tmp/vsd/6");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  run({"sh", "-c", std::string(kBadStarter) + Daemon::binary() + " add wex_app 6"});
  expect_clean_start(facts_of(6));
  daemon.stop();
}

// The platform may hide or bring the programs of a domain: what counts is what the child sees.
TEST_F(AddProgram, IsLookedForInTheDomainsEnvironment) {
  device_work = [] { rename("/sbin/wex_hidden", "/sbin/wex_app"); };
  ASSERT_EQ(0, rename("/sbin/wex_app", "/sbin/wex_hidden"));
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  reap_children();
  expect_in_domain(facts_of(6), 6);
}

TEST_F(AddProgram, GivesItNoArgumentsButItsOwnName) {
  write_file("/sbin/wex_app", "#!/bin/sh\necho \"$0 $#\" > /data/trace\n", 0755);
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  reap_children();
  EXPECT_TRUE(eventually([] { return read_file("/data/trace") == "/sbin/wex_app 0\n"; }))
      << read_file("/data/trace");
}

TEST_F(AddProgram, NameThatIsNotInSbinStartsNothing) {
  testing::internal::CaptureStdout();
  for (const char* name : {"wex_nothing", "/sbin/wex_app", "%s%n"}) {
    EXPECT_EQ(0, create_proc_to_vsd(name, 6));
    int status = 0;
    EXPECT_LT(0, wait(&status));
    EXPECT_TRUE(exited_with(status, 0)) << name;
  }
  const std::string text = without_line_numbers(testing::internal::GetCapturedStdout());
  for (const char* name : {"wex_nothing", "/sbin/wex_app", "%s%n"}) {
    EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]create_proc_to_vsd: /sbin/" + std::string(name) +
                                           " is not exist.\n"));
  }
  EXPECT_TRUE(list_dir("/tmp/vsd/6/wex").empty());
  EXPECT_TRUE(processes_of(6).empty());
}

TEST_F(AddProgram, ProgramThatCannotRunLeavesItsFlagFileAndNothingElse) {
  write_file("/sbin/wex_app", "", 0644);
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  int status = 0;
  EXPECT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 0));
  EXPECT_EQ(1u, list_dir("/tmp/vsd/6/wex").size());
  EXPECT_TRUE(eventually([] { return processes_of(6).empty(); }));
}

TEST_F(AddProgram, FailsInTheChildWhenItsFlagFileCannotBeMade) {
  write_file("/sbin/wex_app", "#!/bin/sh\n", 0755);
  write_file("/tmp/vsd/6/wex", "in the way of the directory");
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  int status = 0;
  EXPECT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 1));
}

// A domain whose group is refused is started all the same, and nothing claims the opposite.
TEST_F(AddProgram, AndCreateGoOnWhenTheGroupIsRefused) {
  service_script("");
  testing::internal::CaptureStdout();
  // Inside, for the call comes back before its child asks for the group, and the failures end with the call.
  const auto runs_without_group = [] {
    EXPECT_TRUE(value_is(facts_of(6), "cwd", "/data/var/run/vsd/6"));
    EXPECT_FALSE(value_is(facts_of(6), "group", "3600"));
  };
  EXPECT_EQ(0, run_failing({"setgroups:error=EPERM"}, [&] {
              const int result = create_vsd(6);
              runs_without_group();
              return result;
            }));
  remove_tree("/data/facts.6");
  EXPECT_EQ(0, run_failing({"setgroups:error=EPERM"}, [&] {
              const int result = create_proc_to_vsd("wex_app", 6);
              runs_without_group();
              return result;
            }));
  EXPECT_EQ(std::string::npos, testing::internal::GetCapturedStdout().find("Setgroups success"));
}

TEST_F(AddProgram, ThatCannotBeForkedLeavesNoFlagFile) {
  device_work = [] {  // in the child, so that only its own fork fails
    constexpr unsigned kFork = CLONE_CHILD_CLEARTID | CLONE_CHILD_SETTID | SIGCHLD;
    EXPECT_TRUE(refuse_call(SYS_clone, 0, kFork, EAGAIN));
  };
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  int status = 0;
  ASSERT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 0));
  EXPECT_TRUE(exists("/tmp/vsd/6/wex")) << "it got as far as its directories";
  EXPECT_TRUE(list_dir("/tmp/vsd/6/wex").empty());
  EXPECT_TRUE(processes_of(6).empty());
}

TEST_F(AddProgram, FailsInTheChildWithoutARunDirectory) {
  remove_tree("/data/var");
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  int status = 0;
  EXPECT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 1));
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find(
                                   "]create_proc_to_vsd: chdir fail: No such file or directory\n"));
}

// ---- The command line of the shipped program --------------------------------------------------------------

struct DomainCommands : Domains {};

TEST_F(AddProgram, CommandReturnsToStartUpWhichFindsTheDaemon) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  make_dirs("/tmp/vsd/6");
  const auto status = wex({"add", "wex_app", "6"});
  ASSERT_TRUE(status.has_value() && WIFEXITED(*status));
  EXPECT_TRUE(daemon.running());
  expect_in_domain(facts_of(6), 6);
  const auto missing = wex({"add", "wex_app", "16"});
  ASSERT_TRUE(missing.has_value() && WIFEXITED(*missing));
  EXPECT_TRUE(console_says("vsd 16 is not exist\n"));
  daemon.stop();
}

TEST_F(DomainCommands, WordThatIsNoCommandIsReportedAndStartsTheDaemon) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start({"foo"}));
  EXPECT_TRUE(console_says("]input error!!!input wex -h for help!!!\n"));
  daemon.stop();
}

TEST_F(DomainCommands, CommandsOfTheShippedProgramEndAsTheyAlwaysHave) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  mark_console();
  EXPECT_TRUE(exited_with(wex({"--version"}), 0));
  EXPECT_TRUE(exited_with(wex({"-x"}), 1));
  EXPECT_TRUE(exited_with(wex({"a", "b", "e", "f"}), 0));
  const auto status = wex({"-c", "0"});
  EXPECT_TRUE(status.has_value() && WIFEXITED(*status)) << "back to start-up, where the lock is taken";
  const std::string error = "[WEX:wex_opt:N]input error!!!input wex -h for help!!!\n";
  EXPECT_TRUE(eventually([&] {
    const std::string text = without_line_numbers(read_console());
    return text.find("[WEX:wex_opt:N]This is WEX verison 1.0\n") != std::string::npos &&
           text.find(error + error) != std::string::npos;
  })) << read_console();
  EXPECT_TRUE(daemon.running());
  daemon.stop();
}

TEST_F(DomainCommands, ShowListsTheDomainsOnTheConsole) {
  ASSERT_TRUE(exited_with(wex({"-c", "1"}), 0));
  mark_console();
  EXPECT_TRUE(exited_with(wex({"-s"}), 0));
  EXPECT_TRUE(console_says("Vsd_1: /tmp/vsd/1/wex/\n"));
  EXPECT_TRUE(console_says("\ndb\n")) << "beside it a script's shell that has not quite ended";
}

}  // namespace

// Restarts through the command map: which script, which arguments.
#include "restart_policy.h"

using namespace policy;

namespace {

struct map_case {
  const char* name;
  const char* restart_command;  // as registered; "" stands for the program's own command line
  const char* script;           // that must run
  std::vector<std::string> arguments;
};

class CommandMap : public WexWorld, public ::testing::WithParamInterface<map_case> {
 protected:
  static constexpr char kWords[] = "/tmp/wex/words";
};

// Writes its name and arguments into `file`, then lives on as a program that a test may leave behind.
std::string writing_script(const char* file) {
  return std::string("for word in \"$0\" \"$@\"; do echo \"$word\"; done > ") + file + ".part\nmv " + file +
         ".part " + file + "\nexec " + actor_binary() + " --hold\n";
}

}  // namespace

TEST_P(CommandMap, ChoosesTheScriptAndPassesTheWords) {
  const map_case& row = GetParam();
  write_file(row.script, writing_script(kWords));
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("mapped", std::string("--register-shell=") + row.restart_command);
  ASSERT_TRUE(service.start());
  service.end();
  ASSERT_TRUE(eventually([] { return exists(kWords); })) << read_console();
  std::vector<std::string> expected = {row.script};
  expected.insert(expected.end(), row.arguments.begin(), row.arguments.end());
  EXPECT_EQ(expected, lines_of(read_file(kWords)));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, CommandMap,
    ::testing::Values(
        map_case{"bareWord", "myrestart a b", "/etc/cmdmap/myrestart", {"a", "b"}},
        map_case{"path", "/usr/sbin/dhcpd -f", "/etc/cmdmap/dhcpd.sh", {"-f"}},
        map_case{"relativePath", "sbin/dhcpd", "/etc/cmdmap/dhcpd.sh", {}},
        map_case{"endsInSlash", "/usr/sbin/ x", "/etc/cmdmap/.sh", {"x"}},
        map_case{"blanksAndTabs", " \t again \t one\t\ttwo  ", "/etc/cmdmap/again", {"one", "two"}},
        map_case{"quotesAreOrdinary", "say 'a b'", "/etc/cmdmap/say", {"'a", "b'"}},
        map_case{"fourteenWords",
                 "w1 w2 w3 w4 w5 w6 w7 w8 w9 w10 w11 w12 w13 w14 w15 w16 w17 w18 w19 w20",
                 "/etc/cmdmap/w1",
                 {"w2", "w3", "w4", "w5", "w6", "w7", "w8", "w9", "w10", "w11", "w12", "w13", "w14"}}),
    [](const auto& row) { return std::string(row.param.name); });

using ShellRestart = WexWorld;

TEST_F(ShellRestart, WithoutARestartCommandTheProgramsOwnNameAndArgumentsCount) {
  write_file("/etc/cmdmap/actor.sh", writing_script("/tmp/wex/words"));
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("own", "--register=SHELL");
  ASSERT_TRUE(service.start());
  service.end();
  ASSERT_TRUE(eventually([] { return exists("/tmp/wex/words"); }));
  std::vector<std::string> expected = {"/etc/cmdmap/actor.sh"};
  expected.insert(expected.end(), service.options().begin(), service.options().end());
  EXPECT_EQ(expected, lines_of(read_file("/tmp/wex/words")));
}

TEST_F(ShellRestart, TheScriptSeesACleanProcess) {
  const std::string path = "/tmp/wex/facts";
  write_file("/etc/cmdmap/clean", "exec " + std::string(actor_binary()) + " --facts=" + path + " --hold\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("clean", "--register-shell=clean");
  ASSERT_TRUE(service.start());
  service.end();
  ASSERT_TRUE(eventually([&] { return exists(path); }));
  Facts facts = read_facts(path);
  EXPECT_EQ(std::vector<std::string>{"/"}, facts["cwd"]);
  EXPECT_EQ(facts["pid"], facts["session"]);
  EXPECT_EQ(std::vector<std::string>{"0"}, facts["policy"]);
  EXPECT_EQ(std::vector<std::string>{"0000000000000000"}, facts["SigBlk"]);
  EXPECT_EQ(std::vector<std::string>{"0000000000000000"}, facts["SigIgn"]);
  ASSERT_LE(3u, facts["fd"].size());
  facts["fd"].resize(3);  // whatever started this test may have left it more
  EXPECT_EQ((std::vector<std::string>{"0 /dev/null", "1 /dev/console", "2 /dev/console"}), facts["fd"]);
}

TEST_F(ShellRestart, TheShellsOwnPidIsSupervisedUntilTheScriptExecutesTheProgram) {
  Service service("exec", "--register-shell=exec");
  write_file("/etc/cmdmap/exec", "exec " + service.command() + "\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_TRUE(service.start());
  for (int restart = 1; restart <= 3; ++restart) {
    ASSERT_TRUE(service.ends_and_comes_back());
    EXPECT_TRUE(console_says("HA_SCRIPT_RESTART_INFO Self-checking OK: " + std::to_string(restart) +
                             " times and new id " + service.id() + ".\n"));
  }
}

TEST_F(ShellRestart, AMissingScriptIsTriedUntilItIsParked) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("missing", "--register-shell=nowhere");
  ASSERT_TRUE(service.start());
  service.end();
  EXPECT_TRUE(console_says("HA_WAIT_SCRIPT_SELF_CHECK Task: " + service.name()));
  EXPECT_EQ(4u, occurrences(read_console(), "HA_SCRIPT_RESTART_INFO Self-checking OK: "));
  EXPECT_TRUE(eventually([&] { return zombies_of(daemon.pid()) == 0; }));
}

TEST_F(ShellRestart, EveryAnnouncementIsTheScriptsOwn) {
  SyslogSink log;
  Service service("announced", "--register-shell=announced");
  write_file("/etc/cmdmap/announced", "exec " + service.command() + "\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_TRUE(service.start());
  const std::string before = service.id();
  ASSERT_TRUE(service.ends_and_comes_back());
  EXPECT_TRUE(
      log.says("%HA-5-HA_SCRIPT_SELF_CHECK: Task: " + before + " receives event:0009 and self-checking ..."));
  EXPECT_TRUE(log.says("%HA-5-HA_SCRIPT_SELF_CHECK_INFO: Self-checking OK: 1 times and new id " +
                       service.id() + "."));
  EXPECT_TRUE(
      console_says("HA_SCRIPT_SELF_CHECK Task: " + before + " receives event:0009 and self-checking ...\n"));
  EXPECT_TRUE(console_says("process: " + service.command() + ", pid: "));
}

TEST_F(ShellRestart, WithoutAShellItIsReportedAndTriedUntilItIsParked) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=execve:error=ENOENT"}));  // of its children: it runs already
  ASSERT_TRUE(daemon.wait_ready(30s));
  Service service("shell-less", "--register-shell=any");
  ASSERT_TRUE(service.start());
  service.end();
  EXPECT_TRUE(console_says("HA_WAIT_SCRIPT_SELF_CHECK Task: " + service.name(), 15s)) << read_console();
  EXPECT_EQ(4u, occurrences(read_console(),
                            "]HA_SCRIPT_RESTART execvp fail, error = No such file or directory.\n"));
  EXPECT_TRUE(console_says(" receives event:0100 and self-checking ...\n")) << "not ended with status 1";
  daemon.stop();
}

TEST_F(ShellRestart, AChildThatCannotEnterTheRootDirectorySaysSoAndEnds) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=chdir:error=EACCES"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Service service("rootless", "--register-shell=any");
  ASSERT_TRUE(service.start());
  service.end();
  EXPECT_TRUE(console_says("]wex_shell_spawn--> chdir failed, ret: -1\n", 15s)) << read_console();
  EXPECT_TRUE(console_says(" receives event:0100 and self-checking ...\n")) << "not ended with status 1";
  daemon.stop();
}

TEST_F(ShellRestart, AForkThatFailsIsReportedAndRepeatedAfterFiveSeconds) {
  Service service("unforked", "--register-shell=revive");
  write_file("/etc/cmdmap/revive", "exec " + service.command() + "\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=clone,fork,vfork", "inject=clone,fork,vfork:error=ENOMEM:when=1"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  ASSERT_TRUE(service.start());
  service.end();
  ASSERT_TRUE(eventually([] { return read_file(kForkFile) == "a"; })) << read_console();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(console_says("]wex_shell_spawn--> fork fail, err: Cannot allocate memory(12)\n"));
  EXPECT_TRUE(console_says("]wex_shell_spawn--> wex_pid->process = " + service.command() + ", new pid: -1\n"))
      << "the whole command line is named";
  EXPECT_TRUE(service.comes_back()) << read_console();
  EXPECT_GT(std::chrono::steady_clock::now() - start, 4500ms);
  EXPECT_TRUE(eventually([] { return !exists(kForkFile); }))
      << "the child that started did not remove the file";
  daemon.stop();
}

TEST_F(ShellRestart, AProgramThatEndsByItselfIsReinitialised) {
  SyslogSink log;
  const std::vector<std::string> options = {
      "--register-shell=again",     "--confirm", "--ready=/tmp/wex/ready",
      "--first-time=/tmp/wex/once", "--exit=0",  "--hold"};
  write_file("/etc/cmdmap/again", "exec " + actor_command(options) + "\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  EXPECT_TRUE(exited_with(service.wait(), 0));
  const pid_t next = wait_for_actor(options, service.pid());
  ASSERT_GT(next, 0) << read_console();
  const std::string id = "once --exit=0 --hold/";
  const std::string old_id = id + std::to_string(service.pid());
  EXPECT_TRUE(log.says("%HA-5-HA_RE_INIT: Job " + old_id + " will be re-initialized ..."));
  EXPECT_TRUE(
      log.says("%HA-5-HA_RE_INIT_INFO: Re-initialized OK: new job id: " + std::to_string(next) + "."));
  EXPECT_TRUE(
      console_says("]HA_SCRIPT_SELF_CHECK Task: " + old_id + " receives event:0000 and self-checking ...\n"));
  EXPECT_TRUE(console_says("]HA_SCRIPT_RESTART_INFO Self-checking OK: 1 times and new id " + id +
                           std::to_string(next) + ".\n"));
  EXPECT_EQ(0u, log.count("HA_SCRIPT_")) << "those are for programs that were ended";
  daemon.stop();
}

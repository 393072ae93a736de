// wexrun with the real daemon: a program that knows nothing of wex dies and comes back, registered anew.

#include "shell_answer.h"
#include "wexrun_support.h"

using namespace wexrun_test;

namespace {

struct Wexrun : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    for (const char* file : {"/tmp/ready", "/tmp/said", "/tmp/once"}) {
      unlink(file);
    }
  }
};

words program(const words& options) {
  return actor_words(options);
}

// Started, and acted on by the daemon: the program that wexrun became is there.
void start(Process* service, const words& command, const words& options) {
  ASSERT_TRUE(service->start(command));
  ASSERT_EQ(service->pid(), wait_for_actor(options)) << read_console();
}

std::string link_target(pid_t pid, int fd) {
  char path[256] = "";
  const std::string name = "/proc/" + text(pid) + "/fd/" + std::to_string(fd);
  return readlink(name.c_str(), path, sizeof path - 1) > 0 ? path : "";
}

std::set<std::string> options_in(const std::string& text) {
  const std::vector<std::string> found = all_matches(text, "--[a-z]+(-[a-z]+)*");
  return {found.begin(), found.end()};
}

}  // namespace

TEST_F(Wexrun, AKilledProgramComesBackWithTheSameCommandLineAndRegisteredAnew) {
  const words options = {"--tag=a", "--hold"};
  const words command = wexrun({"--delay=0"}, program(options));
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service, command, options));
  pid_t pid = service.pid();
  EXPECT_EQ(text(pid) + "\n2\n" + joined(command), read_file(std::string(kDbDir) + "/wexrun." + text(pid)));
  for (int life = 1; life <= 3; ++life) {
    EXPECT_EQ(pid, lock_holder(pid)) << "life " << life;
    EXPECT_TRUE(only_registered(pid)) << "life " << life;
    send_signal(pid, SIGKILL);
    const pid_t next = wait_for_actor(options, pid);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_TRUE(eventually([&] { return only_registered(next); }));
    pid = next;
  }
  service.wait();
  send_signal(pid, SIGTERM);  // the first program's own end: stopped on purpose
  EXPECT_TRUE(eventually([&] { return db_files().empty(); }));
  EXPECT_TRUE(never([&] { return wait_for_actor(options, 0, 0ms) > 0; }, 1s));
  daemon.stop();
}

TEST_F(Wexrun, ADaemonThatWasRestartedStartsItAgainToo) {
  const words options = {"--hold"};
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service, wexrun({}, program(options)), options));
  daemon.kill_now();
  ASSERT_TRUE(daemon.start());
  kill_and_reap(&service);
  const pid_t next = wait_for_actor(options, service.pid());
  ASSERT_GT(next, 0) << read_console();
  EXPECT_TRUE(eventually([&] { return only_registered(next) && lock_holder(next) == next; }));
  daemon.stop();
}

// The daemon answers before it reads who we are; by then wexrun must not yet be the program.
TEST_F(Wexrun, ADaemonThatReadsLateStillSeesWexrun) {
  const words options = {"--hold"};
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=readlink,readlinkat:delay_enter=300000"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service, wexrun({}, program(options)), options));
  kill_and_reap(&service);
  const pid_t next = wait_for_actor(options, service.pid(), 30s);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_TRUE(eventually([&] { return only_registered(next) && lock_holder(next) == next; }, 20s));
  daemon.stop();
}

TEST_F(Wexrun, TheDelayIsWaitedBeforeARestart) {
  const words options = {"--hold"};
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service, wexrun({"--delay", "2"}, program(options)), options));
  kill_and_reap(&service);
  const auto died = std::chrono::steady_clock::now();
  EXPECT_GT(wait_for_actor(options, service.pid()), 0) << read_console();
  EXPECT_LE(1900ms, std::chrono::steady_clock::now() - died);
  daemon.stop();
}

TEST_F(Wexrun, TheScriptOfTheCommandMapRestartsIt) {
  const words options = {"--hold"};
  const words command = wexrun({"--shell-restart", "revive"}, program(options));
  write_file("/etc/cmdmap/revive", "echo $0 > /tmp/said\nexec " + joined(command) + "\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service, command, options));
  kill_and_reap(&service);
  const pid_t next = wait_for_actor(options, service.pid());
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("/etc/cmdmap/revive\n", read_file("/tmp/said"));
  EXPECT_TRUE(eventually([&] { return only_registered(next); }));
  daemon.stop();
}

// Each waits five seconds for a daemon, so they do it side by side.
TEST_F(Wexrun, WithoutTheDaemonTheProgramStartsAndALaterDaemonTakesItOver) {
  const words known = {"--tag=known", "--hold"}, unknown = {"--tag=unknown", "--hold"};
  const std::string start =
      "wexrun: wex is not running, " + std::string(actor_binary()) + " starts all the same";
  make_dirs(kDbDir);
  Process service, other;
  ASSERT_TRUE(service.start(said(wexrun({}, program(known)), "/tmp/said")));
  ASSERT_GT(wait_for_actor(known, 0, 30s), 0);
  EXPECT_EQ(start + "; wex takes it over when it starts\n", read_file("/tmp/said"));
  EXPECT_EQ(1U, db_files().size());
  ASSERT_EQ(0, rename("/tmp/vsd", "/tmp/vsd.away"));  // as if wex had never been there since the boot
  ASSERT_TRUE(other.start(said(wexrun({}, program(unknown)), "/tmp/ready")));
  ASSERT_GT(wait_for_actor(unknown, 0, 30s), 0);
  EXPECT_EQ(start + ", without supervision\n", read_file("/tmp/ready"));
  ASSERT_EQ(0, rename("/tmp/vsd.away", "/tmp/vsd"));
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  kill_and_reap(&service);
  EXPECT_GT(wait_for_actor(known, service.pid()), 0) << read_console();
  daemon.stop();
}

TEST_F(Wexrun, WhatARestartCouldNotRepeatIsRefusedBeforeAnythingIsStarted) {
  const std::string actor = actor_binary();
  const std::string touch = "/bin/touch";
  const words many(13, "/tmp/ready");
  const std::string too_wide(242 - joined({kBinary, touch, "/tmp/ready"}).size(), 'x');
  struct {
    words command;
    int status;
    const char* reason;
  } const rows[] = {
      {{kBinary, touch, "/tmp/ready", "two words"}, 125, "word 3, \"two words\", holds a blank"},
      {{kBinary, touch, "/tmp/ready", "two\twords"}, 125, "holds a blank"},
      {{kBinary, touch, "/tmp/ready", "two\nlines"}, 125, "holds a blank"},
      {{kBinary, touch, "/tmp/ready", ""}, 125, "word 3 is empty"},
      {words{kBinary, touch} + many, 125, "14 words follow wexrun, a restart repeats 13"},
      {{kBinary, touch, "/tmp/ready", too_wide}, 125, "has 243 characters, a restart repeats 242"},
      {{kBinary, "bin/touch", "/tmp/ready"}, 125, "name its whole path"},
      {{"env", "PATH=/tmp/bin", kBinary, "speaker"},
       125,
       "would not find /tmp/bin/speaker: name its whole path"},
      {{"env", "PATH=/tmp/bin:/bin", kBinary, "touch", "/tmp/ready"}, 125, "would not find /tmp/bin/touch"},
      {{kBinary, "--delay=-1", touch, "/tmp/ready"}, 125, "\"-1\" is no number of seconds"},
      {{kBinary, "--delay=2x", touch, "/tmp/ready"}, 125, "\"2x\" is no number of seconds"},
      {{kBinary, "--neuter", touch, "/tmp/ready"}, 125, "--neuter"},
      {{kBinary, "--delay=2"}, 125, "which program?"},
      {{kBinary, "/bin/no-such-program"}, 127, "cannot execute /bin/no-such-program: No such file"},
      {{kBinary, "no-such-program"}, 127, "cannot execute no-such-program: No such file"},
      {{kBinary, "/etc/passwd"}, 126, "cannot execute /etc/passwd: Permission denied"},
      {{kBinary, "/etc"}, 126, "cannot execute /etc: Permission denied"},
      {{"/tmp/two words/wexrun", touch, "/tmp/ready"}, 125, "its own path holds a blank"},
  };
  const temporary elsewhere("/tmp/bin");
  write_file("/tmp/bin/speaker", "#!/bin/sh\n", 0755);
  write_file("/tmp/bin/touch", "#!/bin/sh\n", 0755);
  const temporary parted("/tmp/two words");
  make_dirs("/tmp/two words");
  ASSERT_TRUE(exited_with(run({"cp", kBinary, "/tmp/two words/wexrun"}), 0));
  make_dirs(kDbDir);
  for (const auto& row : rows) {
    const std::string command = joined(row.command);
    EXPECT_TRUE(exited_with(run(said(row.command, "/tmp/said")), row.status)) << command;
    EXPECT_NE(std::string::npos, read_file("/tmp/said").find(row.reason))
        << command << read_file("/tmp/said");
    EXPECT_FALSE(exists("/tmp/ready")) << command;
    EXPECT_TRUE(db_files().empty()) << command;
  }
  EXPECT_TRUE(exited_with(run({kBinary, "--help"}), 0));
  EXPECT_TRUE(exited_with(run({kBinary, "--version"}), 0));
}

TEST_F(Wexrun, TheManualPageAndTheHelpHaveTheSameOptions) {
  const answer help = shell(std::string(kBinary) + " --help");
  const std::string page = read_file(WEX_SOURCE_DIR "/docs/man/wexrun.1");
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(5U, options_in(help.text).size()) << help.text;
  EXPECT_EQ(options_in(help.text), options_in(replace_matches(page, "\\\\-", "-")));
}

// The most that is not refused: 13 words behind wexrun, 242 characters with it. Each comes back whole, also
// from a daemon that has it from its database file alone.
TEST_F(Wexrun, TheLongestCommandLinesComeBackWhole) {
  words many = {"--hold"}, wide = {"--tag=", "--hold"};
  while (wexrun({}, program(many)).size() < 14) {
    many.insert(many.begin(), "--tag=" + std::to_string(many.size()));
  }
  ASSERT_GT(242U, joined(wexrun({}, program(wide))).size()) << "the path of the build is too long for this";
  wide[0].append(242 - joined(wexrun({}, program(wide))).size(), 'x');
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (const words& options : {many, wide}) {
    const words command = wexrun({}, program(options));
    Process service;
    ASSERT_NO_FATAL_FAILURE(start(&service, command, options));
    const pid_t first = service.pid();
    EXPECT_EQ(text(first) + "\n2\n" + joined(command),
              read_file(std::string(kDbDir) + "/wexrun." + text(first)));
    kill_and_reap(&service);
    const pid_t second = wait_for_actor(options, first);
    ASSERT_GT(second, 0) << read_console();
    ASSERT_TRUE(eventually([&] { return only_registered(second); }, 20s));
    daemon.kill_now();
    ASSERT_TRUE(daemon.start());
    send_signal(second, SIGKILL);
    const pid_t third = wait_for_actor(options, second);
    ASSERT_GT(third, 0) << read_console();
    ASSERT_TRUE(eventually([&] { return only_registered(third); }, 20s));
    send_signal(third, SIGTERM);
    ASSERT_TRUE(eventually([] { return db_files().empty(); }, 20s));
  }
  daemon.stop();
}

TEST_F(Wexrun, WhatItsSupervisionLacksIsToldAndTheProgramStarts) {
  const words program = {"/bin/sleep", "1000"}, command = wexrun({}, program);
  const words many_files = {"bash", "-c",
                            "ulimit -n 5000; for ((fd = 3; fd < 4096; ++fd)); do eval \"exec $fd< "
                            "/dev/null\"; done; exec \"$@\"",
                            "bash"};
  const words no_directory = {"sh", "-c", "mv " + std::string(kDbDir) + " /tmp/once; exec \"$@\"", "sh"};
  const struct {
    words command;
    const char* reason;
  } rows[] = {
      {below_strace("inject=readlink,readlinkat:error=ENOENT", command),
       "wexrun: /proc tells no command line, /bin/sleep starts without supervision\n"},
      {many_files + command,
       "wexrun: the lock of its database file is not among the first 4096 descriptors, /bin/sleep starts "
       "without it\n"},
      {no_directory + command,
       "wexrun: no database file could be made, a restart of wex forgets /bin/sleep\n"},
  };
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (const auto& row : rows) {
    Process service;
    ASSERT_TRUE(service.start(said(row.command, "/tmp/said")));
    ASSERT_EQ(service.pid(), wait_for_command(program)) << read_file("/tmp/said") << read_console();
    EXPECT_NE(std::string::npos, read_file("/tmp/said").find(row.reason)) << read_file("/tmp/said");
    service.send(SIGTERM);
    EXPECT_TRUE(ended_by(service.wait(20s), SIGTERM));
    EXPECT_TRUE(eventually([] { return db_files().empty(); }, 20s));
  }
  daemon.stop();
  remove_tree("/tmp/once");
}

// Its cancellation is acknowledged before it is acted on: its end must not come in between.
TEST_F(Wexrun, AProgramThatCannotBeExecutedAfterAllIsNotSupervised) {
  write_file("/tmp/ready", "#!/no/such/interpreter\n", 0755);
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=sendto,sendmsg:delay_exit=200000"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  for (const words& options : {words{}, words{"--notify"}}) {
    const words command = words{kBinary} + options + words{"/tmp/ready"};
    EXPECT_TRUE(exited_with(run(command), 127)) << joined(command);
    EXPECT_TRUE(db_files().empty()) << joined(command);
    EXPECT_TRUE(never([&] { return log.count("receives event") > 0; }, 1s)) << joined(command);
    EXPECT_TRUE(log.says("cannot execute /tmp/ready: No such file or directory; it is not supervised"));
    log.clear();
  }
  daemon.stop();
}

TEST_F(Wexrun, AProgramThatWasRemovedIsNotRestartedAgainAndAgain) {
  const words program = {"/bin/sh", "/tmp/ready"};
  write_file("/tmp/ready", "#!/bin/sh\nkill -STOP $$\n", 0755);
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start({kBinary, "/tmp/ready"}));
  ASSERT_EQ(service.pid(), wait_for_command(program)) << read_console();
  unlink("/tmp/ready");
  kill_and_reap(&service);
  EXPECT_TRUE(log.says("cannot execute /tmp/ready: No such file or directory; it is not supervised", 20s));
  EXPECT_TRUE(never([&] { return log.count("receives event") > 1; }, 1s)) << read_console();
  EXPECT_TRUE(db_files().empty());
  daemon.stop();
}

TEST_F(Wexrun, TheLockIsKeptWithoutStandardDescriptors) {
  const words program = {"/usr/bin/sleep", "1000"};
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start({"sh", "-c", "exec " + joined(wexrun({}, {"sleep", "1000"})) + " <&- >&- 2>&-"}));
  ASSERT_EQ(service.pid(), wait_for_command(program)) << read_console();
  EXPECT_EQ(service.pid(), lock_holder(service.pid()));
  EXPECT_EQ("/dev/null", link_target(service.pid(), 2));
  service.send(SIGTERM);
  EXPECT_TRUE(ended_by(service.wait(), SIGTERM));
  EXPECT_TRUE(eventually([] { return db_files().empty(); }, 20s));
  daemon.stop();
}

// wexrun --notify with the real daemon: programs that tell how they are, and what wex sees of their ends.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "wex.h"
#include "wex_sys_alive.h"
#include "wexrun_support.h"

using namespace wexrun_test;

namespace {

const words kProgram = {kNotifier, kFacts};
const words kCommand = wexrun({"--notify"}, kProgram);

struct WexrunNotify : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    unlink(kFacts);
    own = processes_inside();
    ASSERT_TRUE(daemon.start());
  }
  void TearDown() override {
    daemon.stop();
    end_all_but(own);
    unlink(kFacts);
    WexWorld::TearDown();
  }
  // wexrun and the program below it, which has told what it was given.
  void start(Process* service) {
    ASSERT_TRUE(service->start(kCommand));
    ASSERT_TRUE(eventually([] { return !read_file(kFacts).empty(); }, 20s)) << read_console();
    program = wait_for_command(kProgram);
    ASSERT_GT(program, 0) << read_console();
  }
  // The next life of both.
  void expect_back(pid_t old_wexrun) {
    const pid_t next = wait_for_command(kCommand, old_wexrun);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_TRUE(eventually([&] { return only_registered(next) && lock_holder(next) == next; }, 20s));
    EXPECT_GT(wait_for_command(kProgram, program), 0);
  }
  std::set<pid_t> own;
  SyslogSink log;
  Daemon daemon;
  pid_t program = 0;
};

bool watched(pid_t tid) {
  const std::string bytes = read_file(kAliveTableFile);
  const size_t at = WEX_ALIVE_BITMAP_OFFSET + static_cast<size_t>(tid) / 8;
  return at < bytes.size() && ((static_cast<uint8_t>(bytes[at]) >> (tid % 8)) & 1) != 0;
}
int sequence(pid_t tid) {
  const std::string bytes = read_file(kAliveTableFile);
  const size_t at = WEX_ALIVE_SEQ_OFFSET + static_cast<size_t>(tid);
  return at < bytes.size() ? static_cast<uint8_t>(bytes[at]) : -1;
}
bool reports(pid_t tid, milliseconds limit = 20s) {
  const int before = sequence(tid);
  return eventually([&] { return sequence(tid) != before; }, limit);
}

std::string variable(pid_t pid, const std::string& name) {
  const std::string all = read_file("/proc/" + text(pid) + "/environ");
  const size_t at = ('\0' + all).find('\0' + name + "=");
  return at == std::string::npos ? "" : all.substr(at + name.size() + 1).c_str();
}

// Sends one notification as somebody who is no process of the program.
bool send_as_stranger(const std::string& address, const std::string& message) {
  const unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un to = {};
  to.sun_family = AF_UNIX;
  memcpy(to.sun_path + 1, address.data() + 1, address.size() - 1);
  const auto length = static_cast<socklen_t>(sizeof to.sun_family + address.size());
  return sendto(fd.get(), message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                length) == static_cast<ssize_t>(message.size());
}

// Connections up to the one for which there is no room left.
std::vector<unique_fd> fill_backlog() {
  std::vector<unique_fd> made;
  sockaddr_un to = {};
  to.sun_family = AF_UNIX;
  memcpy(to.sun_path, kControlSocket, sizeof kControlSocket);
  for (;;) {
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
      EXPECT_EQ(EAGAIN, errno);
      return made;
    }
    made.push_back(std::move(fd));
  }
}

}  // namespace

TEST_F(WexrunNotify, NotificationsOfTheProgramBecomeReportsAndLogLines) {
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service));
  EXPECT_EQ(text(program) + " 1 120000000\n", read_file(kFacts));
  EXPECT_TRUE(only_registered(service.pid()));
  EXPECT_EQ(service.pid(), lock_holder(service.pid()));
  EXPECT_TRUE(eventually([&] { return watched(service.pid()); }, 20s));
  EXPECT_TRUE(reports(service.pid()));
  EXPECT_TRUE(log.says("notifier/" + text(program) + " is ready", 20s));
  EXPECT_TRUE(log.says("notifier/" + text(program) + " is not watched before its first WATCHDOG=1", 20s));
  EXPECT_TRUE(log.says("notifier/" + text(program) + " says: up since " + text(program), 20s));

  ASSERT_TRUE(send_as_stranger(variable(program, "NOTIFY_SOCKET"), "STATUS=forged"));
  EXPECT_TRUE(log.says(" is spoken for by process " + text(getpid()), 20s));
  EXPECT_EQ(0U, log.count("forged"));
  EXPECT_EQ(0U, log.count("names another main process")) << "it named itself";

  service.send(SIGUSR2);  // handed on: the program ends with status 9
  EXPECT_TRUE(exited_with(service.wait(20s), 9));
  EXPECT_TRUE(log.says("notifier/" + text(program) + " is stopping", 20s));
  EXPECT_TRUE(log.says("says: going down", 20s));
  EXPECT_TRUE(log.says("failed: Input/output error", 20s));
  EXPECT_TRUE(log.says("/" + text(service.pid()) + " receives event:0900", 20s));
  expect_back(service.pid());
}

TEST_F(WexrunNotify, WexSeesTheSignalThatEndedTheProgramAndASigtermIsAStop) {
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service));
  send_signal(program,
              SIGQUIT);  // dumps core, and no sanitizer in the program takes it for a fault of its own
  const std::optional<int> status = service.wait(20s);
  EXPECT_TRUE(ended_by(status, SIGQUIT));
  EXPECT_TRUE(status.has_value() && !WCOREDUMP(*status)) << "a second core";
  EXPECT_TRUE(log.says("/" + text(service.pid()) + " receives event:0003", 20s));
  ASSERT_NO_FATAL_FAILURE(expect_back(service.pid()));
  const pid_t next = wait_for_command(kCommand, service.pid());
  send_signal(next, SIGTERM);
  EXPECT_TRUE(eventually([] { return db_files().empty(); }, 20s)) << read_console();
  EXPECT_TRUE(eventually([] { return pids_with_command(joined(kProgram)).empty(); }, 20s));
  EXPECT_TRUE(never([] { return !pids_with_command(joined(kCommand)).empty(); }, 1s));
}

// Each life ends with the status that it is given; wex tells of it as of the program's own.
TEST_F(WexrunNotify, WexSeesTheExitStatusOfTheProgramFromTheLowestToTheHighest) {
  const struct {
    const char *status, *logged;
  } rows[] = {
      {"0\n", " will be re-initialized"}, {"1\n", " receives event:0100"}, {"255\n", " receives event:ff00"}};
  const words script = {"/tmp/speaker"}, command = wexrun({"--notify"}, script);
  const temporary speaker(script[0]);
  write_file(script[0],
             "#!/bin/sh\nwhile [ ! -s /tmp/ready ]; do sleep 0.05; done\nread status < /tmp/ready\n"
             "rm /tmp/ready\nexit $status\n",
             0755);
  Process service;
  ASSERT_TRUE(service.start(command));
  pid_t pid = service.pid();
  for (const auto& row : rows) {
    ASSERT_TRUE(eventually([&] { return lock_holder(pid) == pid; }, 20s)) << read_console();
    write_file("/tmp/ready", row.status);
    EXPECT_TRUE(log.says("/" + text(pid) + row.logged, 20s)) << read_console();
    pid = wait_for_command(command, pid);
    ASSERT_GT(pid, 0) << read_console();
  }
  EXPECT_TRUE(exited_with(service.wait(20s), 0));
}

TEST_F(WexrunNotify, AKilledWexrunTakesTheProgramAlongSoThatOneRuns) {
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service));
  kill_and_reap(&service);
  ASSERT_NO_FATAL_FAILURE(expect_back(service.pid()));
  EXPECT_FALSE(is_alive(program));
}

// What the watchdog does with a silent one: SIGABRT to the registered process. Stopped, the program would not
// get it.
TEST_F(WexrunNotify, AnAbortOfWexrunEndsAStoppedProgram) {
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service));
  send_signal(program, SIGSTOP);
  service.send(SIGABRT);
  EXPECT_TRUE(ended_by(service.wait(20s), SIGABRT));
  EXPECT_TRUE(log.says("/" + text(service.pid()) + " receives event:0006", 20s));
  expect_back(service.pid());
}

// The daemon was restarted: its table knows no thread of before.
TEST_F(WexrunNotify, TheThreadIsRegisteredAgainWithADaemonThatWasRestarted) {
  Process service;
  ASSERT_NO_FATAL_FAILURE(start(&service));
  ASSERT_TRUE(eventually([&] { return watched(service.pid()); }, 20s));
  daemon.kill_now();
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(eventually([&] { return watched(service.pid()); }, 30s));
  EXPECT_TRUE(reports(service.pid()));
}

// A stopped daemon takes no connection once its queue is full. The program starts all the same, and its signs
// of life, each of which is such an attempt, do not keep signals from it.
TEST_F(WexrunNotify, ADaemonThatTakesNoConnectionHoldsNeitherTheProgramNorItsSignalsUp) {
  daemon.send(SIGSTOP);
  const std::vector<unique_fd> waiting = fill_backlog();
  Process service;
  ASSERT_TRUE(service.start(said(kCommand, "/tmp/said")));
  EXPECT_TRUE(eventually([] { return !read_file(kFacts).empty(); }, 60s));
  EXPECT_EQ("wexrun: wex does not answer (Resource temporarily unavailable), " + kProgram[0] +
                " starts all the same; wex takes it over when it starts\n",
            read_file("/tmp/said"));
  EXPECT_TRUE(log.says(" is ready", 20s));
  service.send(SIGUSR2);
  EXPECT_TRUE(exited_with(service.wait(20s), 9));
  daemon.send(SIGCONT);
}

TEST_F(WexrunNotify, WithoutASocketItSaysSoAndTheNextLifeTriesAgain) {
  Process service;
  ASSERT_TRUE(service.start(said(below_strace("inject=bind:error=EADDRINUSE", kCommand), "/tmp/said"),
                            {"ASAN_OPTIONS=detect_leaks=0"}));
  EXPECT_TRUE(exited_with(service.wait(20s), 125));
  EXPECT_EQ("wexrun: no socket for notifications: Address already in use\n", read_file("/tmp/said"));
  expect_back(service.pid());
}

TEST_F(WexrunNotify, EverySignalOfTheManualReachesTheProgramAndABrokenPipeOfItsParentIsNothing) {
  const struct {
    int number;
    const char* name;
  } rows[] = {{SIGINT, "INT"},   {SIGHUP, "HUP"},     {SIGQUIT, "QUIT"}, {SIGUSR1, "USR1"}, {SIGUSR2, "USR2"},
              {SIGALRM, "ALRM"}, {SIGWINCH, "WINCH"}, {SIGTSTP, "TSTP"}, {SIGCONT, "CONT"}};
  const words script = {"/tmp/speaker"};
  const temporary speaker(script[0]);
  write_file(script[0],
             "#!/bin/sh\nsay() { echo $1 >> /tmp/wexrun-facts; }\n"
             "for name in INT HUP QUIT USR1 USR2 ALRM WINCH TSTP CONT; do trap \"say $name\" $name; done\n"
             "say up\nwhile :; do sleep 0.1; done\n",
             0755);
  Process service;
  std::string facts = "up\n";
  ASSERT_TRUE(service.start(wexrun({"--notify"}, script)));
  ASSERT_TRUE(eventually([&] { return read_file(kFacts) == facts; }, 20s)) << read_console();
  service.send(SIGPIPE);
  for (const auto& row : rows) {
    service.send(row.number);
    facts += std::string(row.name) + "\n";
    EXPECT_TRUE(eventually([&] { return read_file(kFacts) == facts; }, 20s)) << row.name << read_file(kFacts);
  }
  service.send(SIGTERM);
  EXPECT_TRUE(ended_by(service.wait(20s), SIGTERM));
}

// Were one of these two not handed on, wexrun would end by it and take the program along: wex would see the
// same end, and the program none of it.
TEST_F(WexrunNotify, AProgramThatCatchesSigtermOrSigabrtEndsInItsOwnWay) {
  const struct {
    int number;
    const char *name, *logged;
  } rows[] = {{SIGABRT, "ABRT", " receives event:0800"}, {SIGTERM, "TERM", " receives event:0700"}};
  const words script = {"/tmp/speaker"}, command = wexrun({"--notify"}, script);
  const temporary speaker(script[0]);
  write_file(script[0],
             "#!/bin/sh\nsay() { echo $1 >> /tmp/wexrun-facts; }\n"
             "trap 'say ABRT; exit 8' ABRT\ntrap 'say TERM; exit 7' TERM\n"
             "say up\nwhile :; do sleep 0.1; done\n",
             0755);
  Process service;
  std::string facts = "up\n";
  ASSERT_TRUE(service.start(command));
  pid_t pid = service.pid();
  for (const auto& row : rows) {
    ASSERT_TRUE(eventually([&] { return read_file(kFacts) == facts && lock_holder(pid) == pid; }, 20s))
        << row.name << read_file(kFacts);
    send_signal(pid, row.number);
    EXPECT_TRUE(log.says("/" + text(pid) + row.logged, 20s)) << read_console();
    facts += std::string(row.name) + "\nup\n";
    pid = wait_for_command(command, pid);
    ASSERT_GT(pid, 0) << read_console();
  }
  EXPECT_TRUE(eventually([&] { return read_file(kFacts) == facts; }, 20s)) << read_file(kFacts);
  EXPECT_TRUE(exited_with(service.wait(20s), 8));
}

// systemd-notify sends and ends; it waits until the descriptor of its message was closed, and fails without.
TEST_F(WexrunNotify, AShellScriptReportsThroughSystemdNotify) {
  const words script = {"/tmp/speaker"};
  write_file(script[0],
             "#!/bin/sh\nsystemd-notify --ready --status=talking MAINPID=1 && systemd-notify WATCHDOG=1 "
             "WATCHDOG_USEC=60000000 || exit 1\n"
             "echo done > /tmp/wexrun-facts\nread line < /tmp/ready\nsystemd-notify WATCHDOG=trigger\nexec "
             "sleep 1000\n",
             0755);
  Process service;
  ASSERT_EQ(0, mkfifo("/tmp/ready", 0600));
  ASSERT_TRUE(service.start(wexrun({"--notify"}, script)));
  EXPECT_TRUE(eventually([] { return read_file(kFacts) == "done\n"; }, 30s)) << read_console();
  EXPECT_TRUE(log.says("speaker/", 20s));
  EXPECT_TRUE(log.says(" says: talking", 20s));
  EXPECT_TRUE(log.says(" names another main process, which is not minded", 20s));
  EXPECT_TRUE(log.says(" wants another watchdog time, which it does not get", 20s));
  EXPECT_TRUE(eventually([&] { return watched(service.pid()); }, 20s));
  write_file("/tmp/ready", "on\n");
  EXPECT_TRUE(ended_by(service.wait(20s), SIGABRT));
  EXPECT_TRUE(log.says(" asks to be aborted", 20s));
  unlink(script[0].c_str());
  unlink("/tmp/ready");
}

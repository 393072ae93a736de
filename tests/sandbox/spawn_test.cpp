// What a restarted program finds when it begins, told by the program itself; and what happens when it cannot
// begin.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "wex_paths.h"
#include "wex_test.h"

namespace {

using namespace wex_test;
using texts = std::vector<std::string>;

constexpr char kFacts[] = "/tmp/wex/facts";
constexpr char kReady[] = "/tmp/wex/ready";

std::string text(long number) {
  return std::to_string(number);
}

struct Spawn : WexWorld {};

// The file of "--ready" comes behind a second request: the first is answered before it is handled.
bool is_registered(pid_t pid) {
  return read_file(kReady) == text(pid) + "\n";
}

// A kernel, or a filter of system calls, that refuses to let a child have its parent's memory. The service is
// then forked. (Where the C library makes that call of another one, nothing is refused.)
const char kNoSharedMemory[] = "inject=?vfork:error=ENOSYS";

// Starts a service under a daemon, kills it, and gives the facts its second life tells.
Facts facts_of_second_life(const texts& options, Daemon* daemon, pid_t* next, const texts& env = {}) {
  if (!daemon->running() && !daemon->start()) {
    return {};
  }
  Process service;
  service.start(actor_words(options), env);
  EXPECT_TRUE(eventually([&] { return exists(kFacts) && is_registered(service.pid()); })) << read_console();
  unlink(kFacts);
  const pid_t old_pid = service.pid();
  service.kill_now();
  *next = wait_for_actor(options, old_pid);
  EXPECT_GT(*next, 0) << read_console();
  EXPECT_TRUE(eventually([&] { return exists(kFacts); }));
  return read_facts(kFacts);
}

const texts kTeller = {"--facts=/tmp/wex/facts", "--register=RESTART", "--confirm", "--ready=/tmp/wex/ready",
                       "--hold"};

bool start_teller(Process* service) {
  return service->start(actor_words(kTeller)) &&
         eventually([&] { return exists(kFacts) && is_registered(service->pid()); });
}

// Joins its domain by itself in its first life only: what the second finds is the daemon's doing.
const texts kDomainTeller = {"--first-time=/tmp/wex/joined",
                             "--group=3200",
                             "--facts=/tmp/wex/facts",
                             "--register=RESTART",
                             "--confirm",
                             "--ready=/tmp/wex/ready",
                             "--hold"};

void expect_clean_place(Facts facts, pid_t next, pid_t daemon) {
  EXPECT_EQ(texts{text(next)}, facts["pid"]);
  EXPECT_EQ(texts{text(daemon)}, facts["ppid"]);
  EXPECT_EQ(texts{text(next)}, facts["session"]);
  EXPECT_EQ(texts{text(next)}, facts["pgrp"]);
  EXPECT_EQ(texts{"/"}, facts["cwd"]);
  EXPECT_EQ((texts{"0 /dev/null", "1 /dev/console", "2 /dev/console"}), facts["fd"]);
  EXPECT_EQ((texts{"0 2", "1 2", "2 2"}), facts["fd_flags"]);  // read-write, blocking
  EXPECT_EQ(texts{}, facts["signal_ignored"]);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EQ((texts{"7", "8", "11"}),
            facts["signal_caught"]);  // by the sanitizer's runtime, later than our child
#else
  EXPECT_EQ(texts{}, facts["signal_caught"]);
#endif
  EXPECT_EQ(texts{"0000000000000000"}, facts["SigBlk"]);
  EXPECT_EQ(texts{"0000000000000000"}, facts["SigIgn"]);
  EXPECT_EQ(texts{text(SCHED_OTHER)}, facts["policy"]);
  EXPECT_EQ(texts{"0"}, facts["priority"]);
  EXPECT_EQ(texts{"0"}, facts["nice"]);
  EXPECT_EQ(texts{"18"}, facts["umask"]);  // 022, as the daemon's
  EXPECT_EQ(1, std::count(facts["env"].begin(), facts["env"].end(), "MARK=yes"));
  EXPECT_EQ(texts{"0"}, facts["oom_score_adj"]);
  EXPECT_EQ(0u, facts["nofile"][0].find("2304 ")) << facts["nofile"][0];
}

void set_score(pid_t pid, const std::string& score) {
  const int file = open(("/proc/" + text(pid) + "/oom_score_adj").c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(static_cast<ssize_t>(score.size()), write(file, score.data(), score.size()));
  close(file);
}

// What a child could change while it has the daemon's memory.
Facts state_of(pid_t daemon) {
  Facts state;
  for (const std::string& task : list_dir("/proc/" + text(daemon) + "/task")) {
    for (const char* field : {"SigBlk", "SigIgn", "SigCgt", "Groups", "Umask"}) {
      state[task].push_back(status_field(static_cast<pid_t>(std::stol(task)), field));
    }
  }
  char cwd[256] = {};
  EXPECT_GT(readlink(("/proc/" + text(daemon) + "/cwd").c_str(), cwd, sizeof cwd - 1), 0);
  state["daemon"] = {cwd, read_file("/proc/" + text(daemon) + "/oom_score_adj"),
                     text(sched_getscheduler(daemon))};
  return state;
}

// The C library lets a thread begin with all signals blocked.
bool all_threads_began(pid_t daemon) {
  for (const std::string& task : list_dir("/proc/" + text(daemon) + "/task")) {
    if (status_field(static_cast<pid_t>(std::stol(task)), "SigBlk") != std::string(16, '0')) {
      return false;
    }
  }
  return true;
}

// A restart changes nothing of the daemon, and gives the program all that it is to have.
void expect_clean_restart(const char* injection) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=clone,clone3,fork,?vfork", injection}, {}, {"MARK=yes"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  // A score that no program has, also on a machine that does not let the daemon lower its own.
  set_score(daemon.pid(), "300\n");
  ASSERT_TRUE(eventually([&] { return all_threads_began(daemon.pid()); }));
  const Facts before = state_of(daemon.pid());
  EXPECT_EQ("300\n", before.at("daemon")[1]);
  pid_t next = 0;
  const Facts facts = facts_of_second_life(kTeller, &daemon, &next);
  expect_clean_place(facts, next, daemon.pid());
  EXPECT_EQ(before, state_of(daemon.pid()));
  daemon.stop();
}

TEST_F(Spawn, ARestartedProgramFindsACleanPlace) {
  expect_clean_restart("signal=none");
}

TEST_F(Spawn, AForkedProgramFindsTheSamePlaceWhereMemoryCannotBeShared) {
  expect_clean_restart(kNoSharedMemory);
#if defined(SYS_vfork) && !defined(__SANITIZE_THREAD__)
  EXPECT_TRUE(Daemon::trace().find(" = -1 ENOSYS ") != std::string::npos) << Daemon::trace();
#endif
}

TEST_F(Spawn, AScriptWithoutAnInterpreterLineIsRunByTheShellWithItsWords) {
  write_file("/tmp/wex/script", std::string("exec ") + actor_binary() + " \"$@\" --tag=by-shell\n", 0755);
  const texts words = {"/tmp/wex/script", "--facts=/tmp/wex/facts", "--hold"};
  // As left by a daemon that was killed: the file of a process that is no more.
  make_dirs("/tmp/vsd/0/wex/db");
  const pid_t gone = child::reaped();
  write_file("/tmp/vsd/0/wex/db/script." + text(gone),
             text(gone) + "\n2\n" + words[0] + " " + words[1] + " " + words[2], 0755);
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_TRUE(eventually([] { return exists(kFacts); })) << read_console();
  EXPECT_EQ((texts{actor_binary(), words[1], words[2], "--tag=by-shell"}), read_facts(kFacts)["argv"]);
  daemon.stop();
}

TEST_F(Spawn, ARestartedProgramGetsItsOwnWordsUpToTheFourteenth) {
  texts options = {"--facts=/tmp/wex/facts", "--register=RESTART", "--confirm", "--ready=/tmp/wex/ready"};
  while (options.size() < 12) {
    options.push_back("--tag=" + text(static_cast<long>(options.size())));
  }
  options.push_back("--hold");
  for (int i = 14; i < 20; ++i) {
    options.push_back("--tag=behind" + text(i));
  }
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([&] { return exists(kFacts) && is_registered(service.pid()); }));
  unlink(kFacts);
  service.kill_now();
  ASSERT_TRUE(eventually([&] { return exists(kFacts); })) << read_console();
  texts wanted = actor_words(options);
  ASSERT_EQ(20u, wanted.size());
  wanted.resize(14);
  EXPECT_EQ(wanted, read_facts(kFacts)["argv"]);
  daemon.stop();
}

TEST_F(Spawn, ASignalMaskOrIgnoredSignalOfTheDaemonsStarterDoesNotReachPrograms) {
  // env(1) blocks and ignores on behalf of whoever starts the daemon carelessly.
  Process starter;
  ASSERT_TRUE(starter.start({"env", "--block-signal=USR1,TERM,CHLD,ALRM", "--ignore-signal=HUP,PIPE,QUIT",
                             "nice", "-n", "5", Daemon::binary()},
                            {}, true));
  ASSERT_TRUE(eventually([] { return exists(kControlSocket); }));
  Process service;
  ASSERT_TRUE(start_teller(&service));
  unlink(kFacts);
  service.kill_now();
  ASSERT_TRUE(eventually([&] { return exists(kFacts); })) << read_console();
  Facts facts = read_facts(kFacts);
  EXPECT_EQ(texts{"0000000000000000"}, facts["SigBlk"]);
  EXPECT_EQ(texts{}, facts["signal_ignored"]);
  EXPECT_EQ(texts{"5"}, facts["nice"]) << "inherited from the daemon's starter";
  starter.kill_now();
}

TEST_F(Spawn, AProgramOfADomainFindsItselfThere) {
  make_dirs("/tmp/vsd/2");
  make_dirs("/data/var/run/vsd/2");
  make_dirs("/data2");
  Daemon daemon;
  pid_t next = 0;
  Facts facts = facts_of_second_life(kDomainTeller, &daemon, &next);
  EXPECT_EQ(texts{"3200"}, facts["group"]);
  EXPECT_EQ(texts{"/data/var/run/vsd/2"}, facts["cwd"]);
  for (const char* variable :
       {"QX_CFG_DIR=/qx_cfg/vsd/2", "OVIX_DIR=/ovix/vsd/2", "DATA_OVIX_DIR=/data/.ovix/vsd/2",
        "DATA_OVIX_DIR2=/data2/.ovix/vsd/2", "TMPDIR=/tmp/vsd/2"}) {
    EXPECT_EQ(1, std::count(facts["env"].begin(), facts["env"].end(), variable)) << variable;
  }
  EXPECT_EQ((texts{"0 /dev/null", "1 /dev/console", "2 /dev/console"}), facts["fd"]);
  daemon.stop();
}

TEST_F(Spawn, AProgramOutsideDomainsHasTheDaemonsEnvironment) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start({}, {"OVIX_DIR=/daemon/own", "MARK=yes"}));
  pid_t next = 0;
  Facts facts = facts_of_second_life(kTeller, &daemon, &next, {"MARK=no"});
  for (const char* variable : {"OVIX_DIR=/daemon/own", "MARK=yes"}) {
    EXPECT_EQ(1, std::count(facts["env"].begin(), facts["env"].end(), variable)) << variable;
  }
  daemon.stop();
}

TEST_F(Spawn, AnEnvironmentOfThousandsOfVariablesIsCutAndTheProgramStarts) {
  make_dirs("/tmp/vsd/2");
  make_dirs("/data/var/run/vsd/2");
  texts many;
  for (int i = 0; i < 3000; ++i) {
    many.push_back("VARIABLE" + text(i) + "=x");
  }
  Daemon daemon;
  ASSERT_TRUE(daemon.start({}, many));
  pid_t next = 0;
  Facts facts = facts_of_second_life(kDomainTeller, &daemon, &next);
  EXPECT_EQ(1, std::count(facts["env"].begin(), facts["env"].end(), "TMPDIR=/tmp/vsd/2"));
  daemon.stop();
}

// ---- Low-memory killer ------------------------------------------------------------------------------------

TEST_F(Spawn, WithoutTheLowMemoryKillerTheChildSaysSo) {
  Daemon daemon;
  pid_t next = 0;
  facts_of_second_life(kTeller, &daemon, &next);
  EXPECT_TRUE(console_says(
      "]/sys/kernel/qx_lowmem_killer/flush_tlb find fail, error = No such file or directory.\n"));
  daemon.stop();
}

// ---- What fails -------------------------------------------------------------------------------------------

TEST_F(Spawn, AProgramThatIsGoneIsTriedUntilItIsParked) {
  write_file("/debug_time", "3600");
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_TRUE(exited_with(run({"cp", actor_binary(), "/tmp/wex/passing"}), 0));
  Process service;
  ASSERT_TRUE(service.start(
      {"/tmp/wex/passing", "--register=RESTART", "--confirm", "--ready=/tmp/wex/ready", "--hold"}));
  ASSERT_TRUE(eventually([&] { return is_registered(service.pid()); }));
  unlink("/tmp/wex/passing");
  service.kill_now();
  EXPECT_TRUE(console_says("]HA_RESTART execvp fail, error = No such file or directory.\n", 10s))
      << read_console();
  EXPECT_TRUE(log.says("had checked more than 5 times. After 60 mimutes", 15s)) << read_console();
  EXPECT_TRUE(daemon.running());
  EXPECT_FALSE(exists(kForkFile));
  daemon.stop();
}

// Sanitizers fork where the daemon lends its memory, so it does not learn that the child gave up.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(Spawn, AProgramThatIsGoneIsKnownToTheNextDaemon) {
  const std::string program = "/tmp/wex/passing";
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_TRUE(exited_with(run({"cp", actor_binary(), program}), 0));
  Process service;
  ASSERT_TRUE(
      service.start({program, "--register=RESTART", "--confirm", "--ready=/tmp/wex/ready", "--hold"}));
  ASSERT_TRUE(eventually([&] { return is_registered(service.pid()); }));
  unlink(program.c_str());
  service.kill_now();
  EXPECT_TRUE(log.says("had checked more than 5 times. ", 15s)) << read_console();
  daemon.kill_now();
  ASSERT_TRUE(exited_with(run({"cp", actor_binary(), program}), 0));
  unlink("/tmp/wex/ready");
  Daemon next;
  ASSERT_TRUE(next.start());
  ASSERT_TRUE(eventually([] { return read_file("/tmp/wex/ready").find('\n') != std::string::npos; }, 20s))
      << read_console();
  next.stop();
  const std::string pid = read_file("/tmp/wex/ready");
  send_signal(std::stoi(pid), SIGKILL);
  EXPECT_TRUE(eventually([&] { return !exists("/proc/" + pid.substr(0, pid.find('\n'))); }));
}
#endif

TEST_F(Spawn, AChildThatCannotEnterTheRootDirectoryEndsAndLeavesTheForkFailureFile) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=chdir:error=EACCES"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process service;
  ASSERT_TRUE(start_teller(&service));
  service.kill_now();
  EXPECT_TRUE(console_says("HA_WAIT_SELF_CHECK Task: ", 15s)) << read_console();
  EXPECT_TRUE(console_says("]wex_spawn--> chdir failed, ret: -1\n"));
  EXPECT_TRUE(console_says(" receives event:0100 and self-checking ...\n")) << "not ended with status 1";
  EXPECT_EQ("aaaa", read_file(kForkFile)) << "one byte for each of the four that were tried";
  EXPECT_TRUE(eventually([&] {
    return pids_with_command(Daemon::binary()) == std::vector<pid_t>{daemon.pid()};
  })) << "a child went on as a second daemon";
  EXPECT_TRUE(daemon.running());
  daemon.stop();
}

TEST_F(Spawn, AForkThatFailsIsRepeatedEveryFiveSecondsAndReported) {
  Daemon daemon;
  ASSERT_TRUE(
      daemon.start_traced({"trace=clone,fork,vfork", "inject=clone,fork,vfork:error=ENOMEM:when=1..2"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process service;
  ASSERT_TRUE(start_teller(&service));
  unlink(kFacts);
  const pid_t old_pid = service.pid();
  const auto start =
      std::chrono::steady_clock::now();  // later, the first failure might have been a while ago
  service.kill_now();
  EXPECT_TRUE(eventually([] { return read_file(kForkFile) == "a"; })) << read_console();
  EXPECT_TRUE(console_says("]wex_spawn--> fork fail, err: Cannot allocate memory(12)\n"));
  EXPECT_TRUE(eventually([] { return read_file(kForkFile) == "aa"; }, 30s));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GT(took, 5s);
  EXPECT_LT(took, 15s);
  EXPECT_TRUE(eventually([] { return exists(kFacts); }, 30s)) << read_console();
  EXPECT_GT(wait_for_actor(kTeller, old_pid), 0);
  EXPECT_TRUE(eventually([] { return !exists(kForkFile); }))
      << "the child that started did not remove the file";
  EXPECT_TRUE(
      console_says("]wex_spawn--> wex_pid->process = " + std::string(actor_binary()) + ", new pid: -1\n"))
      << "the first word is named";
  daemon.stop();
}

TEST_F(Spawn, AMissingConsoleDoesNotKeepAProgramDown) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(start_teller(&service));
  ASSERT_EQ(0, rename("/dev/console", "/dev/console.away"));
  unlink(kFacts);
  service.kill_now();
  const bool back = eventually([] { return exists(kFacts); });
  ASSERT_EQ(0, rename("/dev/console.away", "/dev/console"));
  EXPECT_TRUE(back) << read_console();
  EXPECT_EQ((texts{"0 /dev/null", "1 /dev/null", "2 /dev/null"}), read_facts(kFacts)["fd"]);
  daemon.stop();
}

#ifdef SYS_vfork
size_t shared_starts() {
  return occurrences(Daemon::trace(), "vfork(");
}

// A child of any of its threads, or 0.
pid_t child_of(pid_t daemon) {
  pid_t child = 0;
  for (const std::string& task : list_dir("/proc/" + text(daemon) + "/task")) {
    sscanf(read_file("/proc/" + text(daemon) + "/task/" + task + "/children").c_str(), "%d", &child);
  }
  return child;
}

// What a filter of system calls answers in most cases.
TEST_F(Spawn, AChildIsForkedWhereSharingIsNotPermitted) {
  expect_clean_restart("inject=?vfork:error=EPERM");
}

// The time limit kills a child that a disk or a busy processor keeps from its program.
TEST_F(Spawn, AChildThatIsKilledOnItsWayIsNoEndOfItsProgram) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=setsid,?vfork", "inject=setsid:delay_enter=1000000"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process service;
  ASSERT_TRUE(start_teller(&service));
  service.kill_now();
  pid_t child = 0;
  ASSERT_TRUE(eventually([&] { return (child = child_of(daemon.pid())) > 0; }, 20s));
  send_signal(child, SIGKILL);
  const pid_t next = wait_for_actor(kTeller, service.pid());
  EXPECT_NE(child, next);
  EXPECT_TRUE(eventually([&] { return is_registered(next); }, 20s));
  EXPECT_EQ(1U, shared_starts());
  daemon.stop();
}

// A child waits for a console that is not there, and a parent that shares its memory with it.
TEST_F(Spawn, WithoutAConsoleTheDaemonWaitsForOneChildOnly) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=?vfork"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process service;
  ASSERT_TRUE(start_teller(&service));
  ASSERT_EQ(0, rename("/dev/console", "/dev/console.away"));
  pid_t pid = service.pid();
  texts starts;
  for (int kill_number = 1; kill_number <= 3; ++kill_number) {
    if (kill_number == 3) {
      ASSERT_EQ(0, rename("/dev/console.away", "/dev/console"));
    }
    send_signal(pid, SIGKILL);
    const pid_t next = wait_for_actor(kTeller, pid);
    ASSERT_TRUE(eventually([&] { return is_registered(next); }, 20s));
    pid = next;
    starts.push_back(text(static_cast<long>(shared_starts())));
  }
  EXPECT_EQ((texts{"1", "1", "2"}), starts);
  daemon.stop();
}
#endif

TEST_F(Spawn, ADomainWithoutARunDirectoryDoesNotKeepItsProgramDown) {
  make_dirs("/tmp/vsd/2");
  Daemon daemon;
  pid_t next = 0;
  Facts facts = facts_of_second_life(kDomainTeller, &daemon, &next);
  EXPECT_EQ(1, std::count(facts["env"].begin(), facts["env"].end(), "TMPDIR=/tmp/vsd/2"));
  daemon.stop();
}

}  // namespace

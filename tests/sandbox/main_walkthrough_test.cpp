// The main walkthrough: a service registers, dies, runs again; is stopped on purpose and dropped; outlives
// the daemon.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "handled_exits.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace {

using namespace wex_test;
using words = std::vector<std::string>;

constexpr char kDbDir[] = "/tmp/vsd/0/wex/db";
// A request is answered before it is handled: only the answer to the second one says that the first is done.
const words kService = {"--register=RESTART", "--confirm", "--ready=/tmp/ready", "--hold"};

struct MainWalkthrough : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    unlink("/tmp/ready");
    unlink("/tmp/starts");
  }
};

words db_files() {
  return list_dir(kDbDir);
}
std::string db_file(pid_t pid) {
  return "actor." + std::to_string(pid);
}
std::string text(pid_t pid) {
  return std::to_string(pid);
}

// Starts a service and waits until it is registered.
void start_service(Process* service, const words& options) {
  unlink("/tmp/ready");
  ASSERT_TRUE(service->start(actor_words(options)));
  ASSERT_TRUE(eventually([&] { return read_file("/tmp/ready") == text(service->pid()) + "\n"; }))
      << read_console();
  ASSERT_TRUE(eventually([&] { return exists(std::string(kDbDir) + "/" + db_file(service->pid())); }));
}

// The next life of a service that has just died; 0 when there is none.
pid_t reborn(const words& options, pid_t before) {
  const pid_t pid = wait_for_actor(options, before);
  EXPECT_TRUE(eventually([&] { return read_file("/tmp/ready") == text(pid) + "\n"; })) << read_console();
  return pid;
}

// Log lines behind their time stamp.
words without_time(const std::string& log, size_t stamp) {
  words found;
  for (const std::string& line : lines_of(log)) {
    found.push_back(line.size() > stamp ? line.substr(stamp) : line);
  }
  return found;
}

TEST_F(MainWalkthrough, AKilledServiceRunsAgainAndTheLogsTellIt) {
  write_file("/etc/debug_log", "");
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start_service(&service, kService));
  const pid_t old_pid = service.pid();
  const std::string content = read_file(std::string(kDbDir) + "/" + db_file(old_pid));
  EXPECT_EQ(text(old_pid) + "\n2\n" + actor_command(kService), content);
  service.kill_now();
  const pid_t new_pid = reborn(kService, old_pid);
  ASSERT_GT(new_pid, 0) << read_console();
  EXPECT_NE(old_pid, new_pid);
  EXPECT_TRUE(eventually([&] { return db_files() == words{db_file(new_pid)}; }));
  const std::string shown =
      "ready --hold";  // behind the last slash of the whole command line, arguments included
  EXPECT_TRUE(log.says("%HA-5-HA_SELF_CHECK: Task: " + shown + "/" + text(old_pid) +
                       " receives event:0009 and self-checking ..."));
  EXPECT_TRUE(log.says("%HA-5-HA_SELF_CHECK_INFO: Self-checking OK: 1 times and new id " + shown + "/" +
                       text(new_pid) + "."));
  EXPECT_TRUE(console_says("]HA_RESTART Task: " + shown + "/" + text(old_pid) +
                           " receives event:0009 and self-checking ...\n"));
  EXPECT_TRUE(console_says("]HA_SELF_CHECK_INFO Self-checking OK: 1 times and new id " + shown + "/" +
                           text(new_pid) + ".\n"));
  const std::string event_log = read_file("/tmp/wex/wex.log1");
  EXPECT_EQ((words{"%HA-5-HA_RESTART: Process:[" + shown + "/" + text(old_pid) +
                       "] receives internal event:[0x0009] and restarts.",
                   "",
                   "%HA-5-HA_RESTART_INFO: Process:" + shown + " restarts 1 times and new process is " +
                       shown + "/" + text(new_pid) + ".",
                   ""}),
            without_time(event_log, 25));
  EXPECT_FALSE(exists("/tmp/wex/wex.log2"));
  daemon.stop();
}

TEST_F(MainWalkthrough, TheSameServiceIsRestartedAgainAndAgainUnderEachNewPid) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start_service(&service, kService));
  pid_t pid = service.pid();
  service.kill_now();
  for (int life = 2; life <= 4; ++life) {  // the fifth restart would park it
    const pid_t next = reborn(kService, pid);
    ASSERT_GT(next, 0) << "life " << life << "\n" << read_console();
    EXPECT_TRUE(console_says(text(life - 1) + " times and new id"));
    EXPECT_TRUE(eventually([&] { return db_files() == words{db_file(next)}; }));
    pid = next;
    send_signal(pid, SIGKILL);
  }
  EXPECT_GT(reborn(kService, pid), 0);
  daemon.stop();
}

TEST_F(MainWalkthrough, AServiceEndedBySigtermIsDroppedWithItsFile) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start_service(&service, kService));
  service.send(SIGTERM);
  EXPECT_TRUE(ended_by(service.wait(), SIGTERM));
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit: hlist_del\n")) << read_console();
  EXPECT_TRUE(eventually([] { return db_files().empty(); })) << "it goes just after the line";
  EXPECT_TRUE(stays_down(kService));
  daemon.stop();
}

TEST_F(MainWalkthrough, AServiceThatEndsByItselfIsReinitialised) {
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const words options = {"--register=RESTART",         "--confirm", "--ready=/tmp/ready",
                         "--first-time=/tmp/wex/once", "--exit=0",  "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  EXPECT_TRUE(exited_with(service.wait(), 0));
  const pid_t next = wait_for_actor(options, service.pid());
  ASSERT_GT(next, 0) << read_console();
  EXPECT_TRUE(log.says("%HA-5-HA_RE_INIT: Job once --exit=0 --hold/" + text(service.pid()) +
                       " will be re-initialized ..."));
  EXPECT_TRUE(log.says("%HA-5-HA_RE_INIT_INFO: Re-initialized OK: new job id: " + text(next) + "."));
  EXPECT_TRUE(console_says("receives event:0000 and self-checking ...\n"));
  daemon.stop();
}

TEST_F(MainWalkthrough, AServiceOfADomainIsDroppedWithItsFlagFile) {
  // Beside "db" a second directory among the flag files: in whatever order they are read, one of the two
  // comes before the flag file.
  make_dirs("/tmp/vsd/3/wex/before");
  make_dirs("/data/var/run/vsd/3");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const words options = {"--group=3300", "--register=RESTART", "--confirm", "--ready=/tmp/ready", "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([&] { return exists("/tmp/ready"); }));
  const std::string flag = "/tmp/vsd/3/wex/" + text(service.pid());
  ASSERT_TRUE(exists(flag));
  make_dirs("/tmp/vsd/3/wex/after");
  EXPECT_EQ(words{db_file(service.pid())}, list_dir("/tmp/vsd/3/wex/db"));
  service.send(SIGTERM);
  service.wait();
  EXPECT_TRUE(eventually([&] { return !exists(flag) && list_dir("/tmp/vsd/3/wex/db").empty(); }))
      << read_console();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit--> vsd_no = 3\n"));
  const bool looks_at_all = getenv("WEX_STRICT") == nullptr;  // users may have made names without end
  EXPECT_EQ(looks_at_all,
            contains_match(read_console(),
                           "\\]wex_handle_netlink_exit: open (before|after) fail: Is a directory\n"))
      << read_console();
  char where[64] = "";
  const ssize_t length = readlink(("/proc/" + text(daemon.pid()) + "/cwd").c_str(), where, sizeof where - 1);
  ASSERT_GT(length, 0);
  EXPECT_STREQ("/", where);
  daemon.stop();
}

// The record of a stopped program is kept when its flag file cannot be looked for. Its dead pid must not
// stand in the way of the program's next life.
struct KeptRecord {
  std::vector<std::string> strace;
  const char* says;
};

class StoppedInADomain : public MainWalkthrough, public ::testing::WithParamInterface<KeptRecord> {};

void keep_record_of_stopped(const KeptRecord& failing) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced(failing.strace));
  ASSERT_TRUE(daemon.wait_ready(30s));
  make_dirs("/tmp/vsd/3/wex/db");  // not before, or calls of the start would fail
  make_dirs("/data/var/run/vsd/3");
  const words options = {"--group=3300", "--register=RESTART", "--confirm",
                         "--time-set=0", "--ready=/tmp/ready", "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 15s));
  const pid_t first = service.pid();
  service.send(SIGTERM);
  service.wait();
  EXPECT_TRUE(console_says(failing.says)) << read_console();
  EXPECT_TRUE(never([&] { return !exists("/tmp/vsd/3/wex/db/" + db_file(first)); }, 300ms));
  EXPECT_EQ(std::string::npos, read_console().find("wex_handle_netlink_exit: hlist_del"));
  unlink("/tmp/ready");
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 15s));
  const pid_t second = service.pid();
  EXPECT_TRUE(eventually([&] { return list_dir("/tmp/vsd/3/wex/db") == words{db_file(second)}; }));
  service.kill_now();
  EXPECT_GT(reborn(options, second), 0) << read_console();
  daemon.stop();
}

TEST_P(StoppedInADomain, ItsRecordIsKeptWhenTheDirectoryFailsAndItsNextLifeIsSupervised) {
  keep_record_of_stopped(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Failures, StoppedInADomain,
    ::testing::Values(KeptRecord{{"inject=fchdir:error=EACCES:when=1"},
                                 "]wex_handle_netlink_exit: chdir /tmp/vsd/3/wex/ fail: Permission denied\n"},
                      KeptRecord{{"inject=fchdir:error=EACCES:when=2"},
                                 "]wex_handle_netlink_exit: chdir / fail: Permission denied\n"}));

TEST_F(MainWalkthrough, TheRecordOfAStoppedServiceIsKeptWhenItsDirectoryCannotBeOpened) {
  keep_record_of_stopped({{"/tmp/vsd/3", "inject=openat:error=EMFILE:when=3"},
                          "]wex_handle_netlink_exit: opendir fail: Too many open files\n"});
}

TEST_F(MainWalkthrough, AServiceOfADomainRunsAgainInItsDomain) {
  make_dirs("/tmp/vsd/3");
  make_dirs("/data/var/run/vsd/3");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const words options = {"--group=3300", "--facts=/tmp/wex/facts", "--register=RESTART",
                         "--confirm",    "--ready=/tmp/ready",     "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([&] { return exists("/tmp/ready"); }));
  const pid_t old_pid = service.pid();
  service.kill_now();
  const pid_t next = reborn(options, old_pid);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_TRUE(eventually([&] { return exists("/tmp/vsd/3/wex/" + text(next)); }));
  EXPECT_TRUE(eventually([&] { return !exists("/tmp/vsd/3/wex/" + text(old_pid)); }));
  EXPECT_TRUE(eventually([&] { return list_dir("/tmp/vsd/3/wex/db") == words{db_file(next)}; }));
  EXPECT_EQ(words{"/data/var/run/vsd/3"}, read_facts("/tmp/wex/facts")["cwd"]);
  daemon.stop();
}

// ---- The daemon dies --------------------------------------------------------------------------------------

TEST_F(MainWalkthrough, LivingServicesOutliveTheDaemonAndAreStillSupervisedByTheNext) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start_service(&service, kService));
  daemon.kill_now();
  ASSERT_TRUE(service.running());
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(service.running());
  EXPECT_EQ(words{db_file(service.pid())}, db_files());
  const pid_t old_pid = service.pid();
  service.kill_now();
  EXPECT_GT(reborn(kService, old_pid), 0) << read_console();
  daemon.stop();
}

TEST_F(MainWalkthrough, WhatDiedWhileThereWasNoDaemonIsStartedAgainOnce) {
  const words options = {"--register=RESTART", "--confirm", "--count=/tmp/starts", "--ready=/tmp/ready",
                         "--hold"};
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_NO_FATAL_FAILURE(start_service(&service, options));
  const pid_t old_pid = service.pid();
  daemon.kill_now();
  service.kill_now();
  ASSERT_TRUE(daemon.start());
  const pid_t next = reborn(options, old_pid);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_TRUE(console_says("]pid (" + text(old_pid) + ") is not exist\n"));
  EXPECT_TRUE(console_says("]pid (" + text(next) + ") restart ret = " + text(next) + "\n"));
  EXPECT_TRUE(eventually([&] { return db_files() == words{db_file(next)}; }));
  send_signal(next, SIGKILL);
  EXPECT_GT(reborn(options, next), 0) << "not supervised after the rebuild: " << read_console();
  EXPECT_TRUE(eventually([] { return lines_of(read_file("/tmp/starts")).size() >= 3; }));
  EXPECT_EQ(3u, lines_of(read_file("/tmp/starts")).size()) << "started twice by the rebuild";
  daemon.stop();
}

TEST_F(MainWalkthrough, TheNextDaemonReapsWhatItStartsWhileItRebuilds) {
  const words options = {"--register=RESTART", "--confirm", "--ready=/tmp/ready", "--hold"};
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  daemon.kill_now();
  write_file(std::string(kDbDir) + "/true.999999", "999999\n2\n/bin/true", 0755);
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(console_says("]pid (999999) is not exist\n"));
  EXPECT_TRUE(eventually(
      [&] {
        for (const std::string& name : list_dir("/proc")) {
          const pid_t pid = atoi(name.c_str());
          if (pid > 0 && status_field(pid, "PPid") == text(daemon.pid()) &&
              status_field(pid, "State")[0] == 'Z') {
            return false;
          }
        }
        return true;
      },
      5s))
      << "a zombie stays";
  daemon.stop();
}

TEST_F(MainWalkthrough, AProgramThatDiesAsSoonAsTheRebuildStartsItIsStartedUntilItIsParked) {
  make_dirs(kDbDir);
  write_file(std::string(kDbDir) + "/true.999999", "999999\n2\n/bin/true", 0755);
  write_file("/debug_time", "3600");
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(log.says("Task: true had checked more than 5 times. After 60 mimutes", 15s)) << read_console();
  daemon.stop();
}

TEST_F(MainWalkthrough, HundredServicesKilledAtOnceAllComeBackExactlyOnce) {
  constexpr int kServices = 100;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  std::vector<Process> services(kServices);
  for (int i = 0; i < kServices; ++i) {
    ASSERT_TRUE(services[static_cast<size_t>(i)].start(actor_words(
        {"--register=RESTART", "--confirm", "--count=/tmp/wex/starts" + std::to_string(i), "--hold"})));
  }
  ASSERT_TRUE(eventually(
      [&] {
        for (int i = 0; i < kServices; ++i) {
          if (!exists("/tmp/wex/starts" + std::to_string(i))) {
            return false;
          }
        }
        return true;
      },
      20s));
  for (Process& service : services) {
    send_signal(service.pid(), SIGKILL);
  }
  int back = 0;
  EXPECT_TRUE(eventually(
      [&] {
        back = 0;
        for (int i = 0; i < kServices; ++i) {
          back += lines_of(read_file("/tmp/wex/starts" + std::to_string(i))).size() >= 2 ? 1 : 0;
        }
        return back == kServices;
      },
      20s))
      << back;
  EXPECT_TRUE(eventually([&] { return db_files().size() == kServices; }));
  EXPECT_TRUE(never(
      [&] {
        for (int i = 0; i < kServices; ++i) {
          if (lines_of(read_file("/tmp/wex/starts" + std::to_string(i))).size() != 2) {
            return true;
          }
        }
        return false;
      },
      4s))
      << "one was started twice";
  daemon.stop();
}

}  // namespace

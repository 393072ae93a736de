// Hang detection with the real daemon and real threads: the shared table, the calls of a service, and the
// second scan, a minute after the start.
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "forked.h"
#include "raw_client.h"
#include "status_reader.h"
#include "wex.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_sys_alive.h"
#include "wex_test.h"

using namespace forked;
using namespace wex_test;

namespace {

struct HangDetection : WexWorld {
  void TearDown() override {
    daemon.kill_now();
    WexWorld::TearDown();
  }
  Daemon daemon;
};

constexpr size_t kTableSize = 188416;
constexpr size_t kSequences = 20513;

std::string table() {
  return read_file(kAliveTableFile);
}
bool registered(int32_t tid) {
  const std::string bytes = table();
  const size_t at = 32 + static_cast<size_t>(tid) / 8;
  return at < bytes.size() && ((static_cast<uint8_t>(bytes[at]) >> (tid % 8)) & 1) != 0;
}
int sequence(int32_t tid) {
  const std::string bytes = table();
  const size_t at = kSequences + static_cast<size_t>(tid);
  return at < bytes.size() ? static_cast<uint8_t>(bytes[at]) : -1;
}
bool reports(int32_t tid) {
  const int before = sequence(tid);
  return eventually([&] { return sequence(tid) != before; });
}
bool table_is_empty() {
  return table().substr(32, 20481 + 163840) == std::string(20481 + 163840, '\0');
}

std::vector<pid_t> threads_of(pid_t pid) {
  std::vector<pid_t> tids;
  for (const std::string& name : list_dir("/proc/" + std::to_string(pid) + "/task")) {
    tids.push_back(static_cast<pid_t>(std::stol(name)));
  }
  return tids;
}

int32_t own_tid() {
  return static_cast<int32_t>(syscall(SYS_gettid));
}

}  // namespace

TEST_F(HangDetection, TheTableIsClearedAtTheStartOpenToAllAndOutlivesTheDaemon) {
  umask(0077);
  write_file(kAliveTableFile, std::string(kTableSize, '\xff'), 0600);
  ASSERT_TRUE(daemon.start());
  const std::string bytes = table();
  ASSERT_EQ(kTableSize, bytes.size());
  uint32_t size = 0;
  memcpy(&size, &bytes[8], sizeof size);
  EXPECT_EQ(184356U, size);
  EXPECT_EQ(std::string(8, '\xff'), bytes.substr(0, 8));
  EXPECT_EQ(std::string(20, '\xff'), bytes.substr(12, 20));
  EXPECT_TRUE(table_is_empty());
  EXPECT_EQ(std::string(kTableSize - 184353, '\xff'), bytes.substr(184353));
  EXPECT_EQ(getenv("WEX_STRICT") != nullptr ? 0744U : 0777U, mode_of(kAliveTableFile));
  daemon.kill_now();
  EXPECT_EQ(kTableSize, table().size());
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(ended_by(daemon.stop(), SIGINT));
  EXPECT_EQ(kTableSize, table().size());
}

TEST_F(HangDetection, ATableThatCannotBeOpenedToAllEndsTheDaemonButIsCleared) {
  write_file(kAliveTableFile, std::string(188416, '\xff'), 0600);
  ASSERT_TRUE(daemon.start_traced({kAliveTableFile, "inject=fchmod:error=EPERM"}));
  EXPECT_TRUE(exited_with(daemon.wait(15s), 0));
  EXPECT_TRUE(console_says("]change mode failed!\r\n"));
  EXPECT_TRUE(console_says("]fail to init alive_info!!!\n"));
  const std::string log = read_file(kRunningLog1);
  EXPECT_NE(std::string::npos, log.find(": Exit.\r\n")) << log;
  EXPECT_EQ(std::string::npos, log.find("Start.")) << log;
  EXPECT_EQ(std::string(184353 - 32, '\0'), read_file(kAliveTableFile).substr(32, 184353 - 32));
}

TEST_F(HangDetection, AServiceReportsThroughTheTableAndRegistersAgainAfterADaemonRestart) {
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(actor_words(
      {"--register-main-thread=60", "--thread=60", "--thread=7", "--ready=/tmp/ready", "--hold"})));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 20s));
  std::vector<pid_t> tids = threads_of(service.pid());
  ASSERT_EQ(3U, tids.size());
  for (const pid_t tid : tids) {
    EXPECT_TRUE(registered(tid)) << tid;
    EXPECT_EQ(tid != service.pid(), reports(tid)) << "the main thread never reports";
  }
  EXPECT_EQ(1, sequence(service.pid()));
  daemon.kill_now();
  EXPECT_TRUE(reports(tids[1])) << "a report needs no daemon";
  ASSERT_TRUE(daemon.start());
  for (const pid_t tid : {tids[1], tids[2]}) {
    EXPECT_TRUE(eventually([&] { return registered(tid); }, 20s)) << tid;
    EXPECT_TRUE(reports(tid));
  }
  EXPECT_FALSE(registered(service.pid())) << "it has not reported since";
  unlink("/tmp/ready");
}

TEST_F(HangDetection, ADeadServiceLeavesNothingInTheTable) {
  const std::vector<std::string> options = {"--register=RESTART", "--first-time=/tmp/once", "--thread=60",
                                            "--ready=/tmp/ready", "--hold"};
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 20s));
  EXPECT_FALSE(table_is_empty());
  const pid_t pid = service.pid();
  service.kill_now();
  EXPECT_NE(0, wait_for_actor(options, pid));
  EXPECT_TRUE(eventually([] { return table_is_empty(); }));
  EXPECT_TRUE(console_says(") ppid (" + std::to_string(pid) + ") from chain!\n"));
  EXPECT_NE(std::string::npos, read_console().find("]wex_del_node_chain: delete pid ("));
  unlink("/tmp/ready");
  unlink("/tmp/once");
}

TEST_F(HangDetection, AThreadThatWithdrawsIsOutOfTheTable) {
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(0, in_child([] {
              const int32_t tid = own_tid();
              if (wex_client_reg_thread_notify(getpid(), tid, 60, 1) != 0) {
                return 1;
              }
              if (!eventually([=] { return registered(tid); })) {
                return 2;
              }
              if (wex_client_unreg_thread_notify(tid) != 0) {
                return 3;
              }
              return eventually([=] { return !registered(tid) && sequence(tid) == 0; }) ? 0 : 4;
            }));
}

TEST_F(HangDetection, NobodyRegistersOrReportsForAnotherThread) {
  ASSERT_TRUE(daemon.start());
  Process other;
  ASSERT_TRUE(other.start(actor_words({"--hold"})));
  const int32_t victim = other.pid();
  EXPECT_EQ(0, in_child([=] {
              const bool refused = wex_client_reg_thread_notify(getpid(), victim, 60, 1) == -1 &&
                                   wex_client_reg_thread_notify(victim, victim, 60, 1) == -1 &&
                                   wex_client_reset_thread_notify(victim, victim, 60, 1) == -1 &&
                                   wex_client_reg_thread_notify(getpid(), own_tid(), 0, 1) == -1 &&
                                   wex_client_reset_thread_notify(getpid(), own_tid(), 60, 0) == -1;
              // Whatever came before it has been handled once this is in the table.
              const bool mine = wex_client_reg_thread_notify(getpid(), own_tid(), 60, 1) == 0 &&
                                eventually([] { return registered(own_tid()); });
              return refused && mine && !registered(victim) ? 0 : 1;
            }));
}

TEST_F(HangDetection, AnExemptThreadDoesNotReportUnlessItsLineIsUnfinished) {
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(0, in_child([] {
              const int32_t tid = own_tid();
              if (wex_client_reg_thread_notify(getpid(), tid, 60, 1) != 0 ||
                  !eventually([=] { return registered(tid); })) {
                return 1;
              }
              const auto report_moves = [=] {
                const int before = sequence(tid);
                return wex_client_reset_thread_notify(getpid(), tid, 60, 1) == 0 && sequence(tid) != before;
              };
              if (!report_moves()) {
                return 2;
              }
              write_file(kExemptThreads, std::to_string(tid) + "\n");
              if (report_moves()) {
                return 3;
              }
              write_file(kExemptThreads, std::to_string(tid));
              if (!report_moves()) {
                return 4;
              }
              write_file(kExemptThreads, "1\n" + std::to_string(tid) + "\n2");
              return report_moves() ? 5 : 0;
            }));
  unlink(kExemptThreads);
}

TEST_F(HangDetection, MessagesOfBothTypesRegisterAndUnknownThreadsAreRefused) {
  ASSERT_TRUE(daemon.start());
  Process one, two;
  ASSERT_TRUE(one.start(actor_words({"--hold"})));
  ASSERT_TRUE(two.start(actor_words({"--hold"})));
  ASSERT_TRUE(send_counters(WEX_NOTIFIER_START, one.pid(), one.pid(), 5, 5, 120));
  ASSERT_TRUE(send_counters(WEX_NOTIFIER_RESET, two.pid(), two.pid(), 4, 4, 180));
  for (const pid_t pid : {one.pid(), two.pid()}) {
    EXPECT_TRUE(eventually([=] { return registered(pid) && sequence(pid) == 1; }));
  }
  constexpr int32_t kNobody = 2000000000;
  ASSERT_TRUE(send_counters(WEX_NOTIFIER_START, kNobody, 77, 5, 5, 120));
  ASSERT_TRUE(send_counters(WEX_NOTIFIER_RESET, kNobody, 77, 5, 5, 120));
  for (const char* handler : {"wex_notifier_start", "wex_notifier_reset"}) {
    EXPECT_TRUE(
        console_says("]" + std::string(handler) + ": fail to get pid 2000000000's cmdline, ppid=77\n"));
  }
}

TEST_F(HangDetection, AServiceThatKeepsItsProcessIgnoresTheAbort) {
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(actor_words({"--thread-no-proc=60", "--ready=/tmp/ready", "--hold"})));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 20s));
  service.send(SIGABRT);
  const std::vector<pid_t> tids = threads_of(service.pid());
  ASSERT_EQ(2U, tids.size());
  EXPECT_TRUE(reports(tids[1]));
  EXPECT_TRUE(service.running());
  EXPECT_EQ(0x20UL, std::stoul(status_field(service.pid(), "SigIgn"), nullptr, 16) & 0x20);
  unlink("/tmp/ready");
}

TEST_F(HangDetection, TheFirstScanDumpsTheChainsToTheSystemLog) {
  SyslogSink log;
  ASSERT_TRUE(daemon.start());
  for (const char* heading : {"register restart in wex:", "register hang in wex:", "delay restart in wex:"}) {
    EXPECT_TRUE(log.says(heading));
  }
  EXPECT_TRUE(console_says("]sem_cnt = 0\n"));
  EXPECT_EQ(std::string::npos, read_console().find("in wex:"));
}

TEST_F(HangDetection, TheFirstScanDumpsTheChainsToTheConsoleWhenAsked) {
  SyslogSink log;
  write_file(kDumpToConsole, "");
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(
      console_says("register restart in wex:\nnode num:0\nregister hang in wex:\nnode num:0\n"
                   "delay restart in wex:\nnode num:0\n"));
  EXPECT_EQ(0U, log.count("in wex:"));
}

// The hot call: who am I, and is there a list of exempt threads. Nothing is sent, and nothing is locked.
TEST_F(HangDetection, AReportMakesNoSystemCallThatItsChecksDoNotNeed) {
  constexpr char kTrace[] = "/tmp/report.trace";
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start({"strace", "-f", "-q", "-o", kTrace, actor_binary(), "--thread=60", "--hold"},
                            {"ASAN_OPTIONS=detect_leaks=0"}));
  const auto sleeps = [&] {
    size_t count = 0;
    for (const std::string& line : lines_of(read_file(kTrace))) {
      count += line.find("nanosleep(") != std::string::npos ? 1 : 0;
    }
    return count;
  };
  ASSERT_TRUE(eventually([&] { return sleeps() >= 8; }, 20s));
  std::map<std::string, size_t> calls;
  std::string thread;  // the reporting one, known by its first pause; the table is mapped by then
  for (const std::string& line : lines_of(read_file(kTrace))) {
    const size_t name = line.find_first_not_of("0123456789 ");
    const size_t end = line.find('(');
    if (name == std::string::npos || end == std::string::npos) {
      continue;
    }
    if (!thread.empty() && line.compare(0, name, thread) == 0) {
      ++calls[line.substr(name, end - name)];
    } else if (thread.empty() && line.find("nanosleep(") != std::string::npos) {
      thread = line.substr(0, name);
    }
  }
  size_t looks = 0;
  for (const auto& [name, count] : calls) {
    const bool looking = name == "access" || name == "faccessat" || name == "faccessat2";
    EXPECT_TRUE(looking || name == "getpid" || name == "gettid" ||
                name.find("nanosleep") != std::string::npos)
        << name << " " << count << " times";
    looks += looking ? count : 0;
  }
  EXPECT_LE(5U, looks);
  EXPECT_GE(calls["gettid"] + 1, looks) << "one look for the list a report";
  unlink(kTrace);
}

// The shortest way from a hang to a restart: a registration that has used up its count before the second
// scan.
TEST_F(HangDetection, TheSecondScanAbortsLogsAndRemovesAndTheServiceIsRestarted) {
  const std::vector<std::string> options = {"--register=RESTART", "--register-main-thread=60",
                                            "--ready=/tmp/ready", "--hold"};
  ASSERT_TRUE(daemon.start());
  Process service, gone;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(gone.start(actor_words({"--hold"})));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 20s));
  ASSERT_TRUE(send_counters(WEX_NOTIFIER_START, gone.pid(), gone.pid(), 5, 5, 120));
  ASSERT_TRUE(send_counters(WEX_NOTIFIER_RESET, service.pid(), service.pid(), 4, 0, 180));
  const pid_t pid = service.pid();
  const pid_t former = gone.pid();
  ASSERT_TRUE(eventually([=] { return registered(former); }));
  gone.kill_now();
  EXPECT_TRUE(registered(former)) << "it was under hang detection only: nobody misses it before the scan";
  write_file(kDumpToConsole, "");
  EXPECT_TRUE(ended_by(service.wait(70s), SIGABRT));
  const pid_t next = wait_for_actor(options, pid);
  EXPECT_NE(0, next);
  EXPECT_FALSE(registered(former));
  const std::string process = actor_command(options);
  const std::string entry = " detect process:[" + process.substr(process.rfind('/') + 1) + "/" +
                            std::to_string(pid) + "] thread actor:" + std::to_string(pid) + " hung.\n\n";
  EXPECT_NE(std::string::npos, read_file(kNotifyLog).find(entry)) << read_file(kNotifyLog);
  EXPECT_EQ("1", read_file(kNotifyCount));
  EXPECT_TRUE(console_says("]ntfy_cnt(4), send SIGABRT to ppid (" + std::to_string(pid) + ")\n"));
  EXPECT_TRUE(console_says("]pid is not exist(" + std::to_string(former) + ", ret:-1)\n"));
  EXPECT_TRUE(console_says("register hang in wex:\nnode num:2\n"));
  const std::string number = std::to_string(pid);
  const std::string seen = " process " + number + ", thread " + number +
                           " hung; 1 threads seen\nwatched:\nthread " + number +
                           " actor: state S, processor ";
  EXPECT_TRUE(eventually([&] { return read_file(kHung).find(seen) != std::string::npos; }))
      << read_file(kHung);
  EXPECT_TRUE(eventually([&] {
    for (const wex_status_event& event : StatusReader().events()) {
      if (event.kind == WEX_STATUS_EV_HANG && event.pid == pid && event.new_pid == pid) {
        return StatusReader().counter(WEX_STATUS_HANGS) == 1;
      }
    }
    return false;
  }));
  unlink("/tmp/ready");
}

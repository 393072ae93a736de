// Start-up: what becomes of a daemon that lacks something it needs, a thread, the table, a right; and how it
// ends.
#include <linux/netlink.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "start_up_world.h"
#include "unique_fd.h"

using namespace start_up;

TEST_F(StartUp, WithoutTheAliveTableItWritesExitAndNothingElse) {
  ASSERT_EQ(0, mount("unit", "/dev/shm", "tmpfs", MS_RDONLY, nullptr));
  Daemon daemon;
  const bool started = daemon.start_traced({"trace=clone3"});
  EXPECT_TRUE(started && exited_with(daemon.wait(30s), 0));
  EXPECT_EQ(0, umount("/dev/shm"));
  EXPECT_EQ("Exit.\r\n", running_log());
  EXPECT_TRUE(console_says("]fail to init alive_info!!!\n"));
  EXPECT_EQ(std::string::npos, Daemon::trace().find("clone3(")) << "a thread was started";
}

namespace {

// The threads that the main thread has tried to create, and the ids of those that came to be.
struct creations {
  size_t calls = 0;
  std::vector<std::string> threads;
};

creations creations_of(pid_t daemon, const std::string& trace) {
  const std::string own = text(daemon) + " ";  // the control server makes a thread of its own
  creations made;
  for (const std::string& line : lines_of(trace)) {
    if (line.compare(0, own.size(), own) != 0 || line.find("clone3") == std::string::npos) {
      continue;
    }
    made.calls += line.find(" clone3(") != std::string::npos ? 1 : 0;
    const size_t result = line.rfind(" = ");
    if (result != std::string::npos && atoi(line.c_str() + result + 3) > 0) {
      made.threads.push_back(line.substr(result + 3));
    }
  }
  return made;
}

}  // namespace

TEST_F(StartUp, AThreadThatCannotBeCreatedEndsTheDaemonInGoodOrder) {
  // The first thread created is the one that takes the alarm; the five workers follow.
  const char* const lines[] = {
      "Fail to create wex_process_netlink thread: ", "Fail to create wex_process_domain thread: ",
      "Fail to create wex_notifer_run: ", "Fail to create wex_inotify_fork_error thread: ",
      "Fail to create wex_delay_restart thread: "};
  const std::string ended[] = {
      "Thread \"wex_process_netlink\" exit, wex will be restart. res=0, Success(0)\r\n",
      "Thread \"wex_process_domain\" exit, wex will be restart. res=0, Success(0)\r\n"};
  for (int worker = 1; worker <= 5; ++worker) {
    unlink(kRunningLog1);
    Daemon daemon;
    // The threads that exist are delayed, so that a main thread that does not wait for them would end first.
    ASSERT_TRUE(daemon.start_traced({"trace=clone3,write,sched_setscheduler",
                                     "inject=clone3:error=EAGAIN:when=" + text(worker + 1),
                                     "inject=sched_setscheduler:delay_enter=300000"}));
    EXPECT_TRUE(exited_with(daemon.wait(15s), 0)) << worker << "\n" << read_console();
    const std::string log = running_log();
    EXPECT_EQ(0u, log.find("Start.\r\n")) << log;
    EXPECT_NE(std::string::npos,
              log.find(std::string(lines[worker - 1]) + "Resource temporarily unavailable\n"))
        << worker << "\n"
        << log;
    EXPECT_EQ(log.size() - 7, log.find("Exit.\r\n")) << log;
    for (int joined = 1; joined <= 2; ++joined) {
      EXPECT_EQ(joined < worker, log.find(ended[joined - 1]) != std::string::npos) << worker << "\n" << log;
    }
    const creations made = creations_of(daemon.pid(), Daemon::trace());
    EXPECT_EQ(static_cast<size_t>(worker) + 1, made.calls) << "a later thread was tried";
  }
}

namespace {

// The number of the first line of this process or thread that has the text in it.
size_t place_of(const std::string& trace, const std::string& id, const std::string& wanted) {
  size_t place = 0;
  for (const std::string& line : lines_of(trace)) {
    if (line.compare(0, id.size() + 1, id + " ") == 0 && line.find(wanted) != std::string::npos) {
      return place;
    }
    ++place;
  }
  ADD_FAILURE() << id << " has no " << wanted;
  return place;
}

}  // namespace

// It reads the registries that the end of the daemon empties. Its first look takes its time here.
TEST_F(StartUp, TheWatchdogHasEndedBeforeADaemonThatLacksAThreadDoes) {
  for (int worker = 4; worker <= 5; ++worker) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start_traced({"trace=clone3,access,?faccessat,write",
                                     "inject=clone3:error=EAGAIN:delay_enter=300000:when=" + text(worker + 1),
                                     "inject=access,?faccessat:delay_enter=700000:when=1"}));
    EXPECT_TRUE(exited_with(daemon.wait(30s), 0)) << worker << "\n" << read_console();
    const std::string trace = Daemon::trace();
    const std::vector<std::string> made = creations_of(daemon.pid(), trace).threads;
    ASSERT_LT(3u, made.size()) << trace;
    const size_t ended = place_of(trace, made[3], "+++ exited");
    EXPECT_LT(place_of(trace, made[3], "access("), ended) << trace;
    EXPECT_LT(ended, place_of(trace, text(daemon.pid()), "Exit.")) << trace;
  }
}

// Any user may bind a socket to the number that the daemon's process will have.
TEST_F(StartUp, APortThatIsTakenDoesNotKeepTheMonitorFromListening) {
  constexpr int kTaken = 600;
  std::vector<unique_fd> thieves;
  const int last = atoi(read_file("/proc/sys/kernel/ns_last_pid").c_str());
  for (int pid = last + 1; pid <= last + kTaken; ++pid) {
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<uint32_t>(pid);
    thieves.emplace_back(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
    bind(thieves.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=bind"}));
  EXPECT_TRUE(eventually(
      [] {
        const std::string calls = Daemon::trace();
        const size_t refused = calls.find("EADDRINUSE");
        return refused != std::string::npos && calls.find("nl_pid=0, ", refused) != std::string::npos;
      },
      30s))
      << Daemon::trace();
  const std::vector<std::string> options = {"--register=RESTART", "--ready=/tmp/ready", "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 20s));
  const pid_t first = service.pid();
  service.kill_now();
  EXPECT_GT(wait_for_actor(options, first, 30s), 0) << "nobody heard of its end\n" << read_console();
}

TEST_F(StartUp, AMonitorThatCannotWorkTellsWhyAndEndsTheDaemon) {
  struct {
    const char* injection;
    const char* complaint;
    const char* line;
  } const rows[] = {
      {"inject=sched_setscheduler:error=EPERM:when=1", "set priority fail: Operation not permitted",
       "res=-1, Operation not permitted(1)\r\n"},
      {"inject=socket:error=EPROTONOSUPPORT:when=1", "socket sk_nl fail: Protocol not supported",
       "res=-2, Protocol not supported(93)\r\n"},
      {"inject=bind:error=EADDRINUSE:when=1..2", "binding sk_nl fail: Address already in use",
       "res=-3, Address already in use(98)\r\n"},
      {"inject=sendto:error=ECONNREFUSED", "send proc connector msg fail: Connection refused",
       "res=-4, Connection refused(111)\r\n"},
  };
  for (const auto& row : rows) {
    mark_console();
    unlink(kRunningLog1);
    Daemon daemon;
    ASSERT_TRUE(daemon.start_traced({row.injection}));
    EXPECT_TRUE(exited_with(daemon.wait(15s), 0)) << row.injection << "\n" << read_console();
    EXPECT_TRUE(console_says(std::string("]wex_process_netlink: ") + row.complaint + "\n")) << read_console();
    const std::string log = running_log();
    EXPECT_NE(std::string::npos,
              log.find("Thread \"wex_process_netlink\" exit, wex will be restart. " + std::string(row.line)))
        << row.injection << "\n"
        << log;
    EXPECT_EQ(log.size() - 7, log.find("Exit.\r\n")) << log;
  }
}

// Whatever a thread still does must be done before the registry is destroyed and the last line written.
TEST_F(StartUp, TheMainThreadWaitsForWatchdogServerAndMonitorToEnd) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=prctl,write,exit,sendto", "inject=exit:delay_enter=500000",
                                   "inject=sendto:error=ECONNREFUSED"}));  // the monitor subscribes in vain
  EXPECT_TRUE(exited_with(daemon.wait(30s), 0)) << read_console();
  const std::string trace = Daemon::trace();
  const size_t last_line = trace.find("Exit.\\r\\n\"");
  ASSERT_NE(std::string::npos, last_line) << trace;
  for (const char* const name : {"wex_thread_noti", "wex_process_dom", "wex_process_net"}) {
    const texts thread = groups_of(trace, "([0-9]+) +prctl\\(PR_SET_NAME, \"" + std::string(name));
    ASSERT_FALSE(thread.empty()) << name << "\n" << trace;
    // Numbers are padded to five characters.
    const texts end = groups_of(trace, thread[1] + " +\\+\\+\\+ exited with 0");
    ASSERT_FALSE(end.empty()) << name << "\n" << trace;
    EXPECT_LT(trace.find(end[0]), last_line) << name << "\n" << trace;
  }
}

// A late wait of each thread fails. Only the monitor gets that far, because programs are executed all the
// time and there is a list, for which it looks at each of them: the fork watcher, which would end the daemon,
// too, waits for files alone.
TEST_F(StartUp, AMonitorThatCannotWaitForEventsTellsWhyAndEndsTheDaemon) {
  make_dirs(kThirdPartDir);
  write_file(std::string(kThirdPartDir) + "/app", "/tmp/apps/app WEX_RESTART\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=poll:error=ENOMEM:when=60"}));
  EXPECT_TRUE(eventually(
      [&] {
        Process executed;
        return !daemon.running() ||
               (executed.start({"/bin/true"}) && executed.wait(15s) && !daemon.running());
      },
      30s));
  EXPECT_TRUE(exited_with(daemon.wait(15s), 0)) << read_console();
  const std::string log = running_log();
  EXPECT_NE(std::string::npos, log.find("Thread \"wex_process_netlink\" exit, wex will be restart. res=-5, "
                                        "Cannot allocate memory(12)\r\n"))
      << log;
  EXPECT_TRUE(console_says("]wex_process_netlink: select sk_nl fail: Cannot allocate memory\n"));
}

TEST_F(StartUp, AThreadThatCannotBeNamedEndsAloneAndInSilence) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=prctl:error=EPERM:when=1"}));
  EXPECT_TRUE(console_says("]wex_process_netlink: Operation not permitted"));
  EXPECT_TRUE(console_says("]wex_process_domain: Operation not permitted"));
  EXPECT_TRUE(never([&] { return !daemon.running(); }, 500ms)) << "the flag was raised";
  EXPECT_FALSE(exists(kControlSocket));
  EXPECT_EQ("Start.\r\n", running_log());
  daemon.stop();
}

TEST_F(StartUp, WithoutItsSemaphoreTheDaemonSaysSoAndRuns) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=semget:error=ENOSPC"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  EXPECT_TRUE(console_says("]fail to init wex semaphore!!!\n"));
  EXPECT_EQ(0u, running_log().find("Start.\r\n"));
  daemon.stop();
}

// The control server of the real daemon when calls of it fail.
#include <sys/epoll.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <set>

#include "control_client.h"

using namespace control_client;

namespace {

// The first connection that a daemon gets which has just been started.
std::unique_ptr<raw_client> first_client() {
  std::unique_ptr<raw_client> client;
  EXPECT_TRUE(eventually([&] { return (client = std::make_unique<raw_client>())->connected(); }, 30s));
  return client;
}

}  // namespace

// ---- System calls that fail -------------------------------------------------------------------------------

namespace {

struct failure {
  const char* inject;
  const char* last_word;          // of the thread, in the running log
  const char* complaint;          // an expression for the line on the console
  bool before_listening = false;  // the table of clients still holds zeros
};

std::ostream& operator<<(std::ostream& out, const failure& row) {
  return out << row.inject;
}

class FailingServer : public ControlChannel, public ::testing::WithParamInterface<failure> {};

// How often the server closes descriptor 0 before it opens the running log, which may get that number.
int closes_of_standard_input() {
  std::string server;
  int times = 0;
  for (const std::string& line : lines_of(Daemon::trace())) {
    if (line.find("PR_SET_NAME, \"wex_process_dom") != std::string::npos) {
      server = line.substr(0, line.find(' '));
    }
    if (server.empty() || line.compare(0, server.size() + 1, server + " ") != 0) {
      continue;
    }
    if (line.find("running_log") != std::string::npos) {
      return times;
    }
    times += line.find(" close(0)") != std::string::npos || line.find(" close(0 <") != std::string::npos;
  }
  return -1;
}

}  // namespace

TEST_P(FailingServer, EndsTheDaemonAndSaysWhy) {
  ASSERT_TRUE(daemon.start_traced({GetParam().inject}));
  const std::string line =
      std::string("Thread \"wex_process_domain\" exit, wex will be restart. ") + GetParam().last_word;
  std::vector<std::unique_ptr<raw_client>> clients;
  EXPECT_TRUE(eventually(
      [&] {
        clients.push_back(std::make_unique<raw_client>());
        return running_log().find(line) != std::string::npos;
      },
      15s))
      << running_log();
  EXPECT_TRUE(daemon.wait(20s).has_value()) << "the daemon must end, so that it can be started again";
  const std::string complaint =
      "\\[WEX:wex_core:[0-9]+\\]wex_process_domain: " + std::string(GetParam().complaint);
  EXPECT_TRUE(eventually([&] { return contains_match(read_console(), complaint); })) << read_console();
  EXPECT_EQ(GetParam().before_listening ? 1 : 0, closes_of_standard_input()) << Daemon::trace();
}

INSTANTIATE_TEST_SUITE_P(
    Calls, FailingServer,
    ::testing::Values(
        failure{"inject=sched_setscheduler:error=EPERM:when=1", "res=-1, Success(0)\r\n",
                "set priority fail: Operation not permitted\n", true},
        failure{"inject=socket:error=EMFILE:when=1", "res=-1, Too many open files(24)\r\n",
                "socket sk_unix fail: Too many open files\n", true},
        failure{"inject=bind:error=EROFS:when=1", "res=-2, Read-only file system(30)\r\n",
                "bind sk_unix fail: Read-only file system\n", true},
        failure{"inject=listen:error=EADDRINUSE", "res=-3, Address already in use(98)\r\n",
                "listen sk_unix fail: Address already in use\n", true},
        failure{"inject=epoll_create1:error=EMFILE", "res=-4, Too many open files(24)\r\n",
                "epoll_create err\\(ret:-1, err:24\\)!\n"},
        failure{"inject=epoll_ctl:error=ENOSPC:when=1", "res=-5, No space left on device(28)\r\n",
                "epoll_ctl err\\(ep_fd:[0-9]+, fd:[0-9]+, ret:-1, err:28\\)!\n"},
        failure{"inject=epoll_ctl:error=ENOSPC:when=3", "res=-6, No space left on device(28)\r\n",
                "epoll_ctl err\\(ep_fd:[0-9]+, fd:[0-9]+, ret:-1, err:28\\)!\n"},
        failure{"inject=accept4:error=ECONNABORTED", "res=-8, Software caused connection abort(103)\r\n",
                "accept fail: Software caused connection abort\n"}));

#if defined(__x86_64__)
namespace {

// An injection by which the next wait reports one event, laid out as this machine has it.
std::string forged_event(uint32_t readiness, int fd) {
  char bytes[64];
  snprintf(bytes, sizeof bytes, "%02x000000%02x%02x000000000000", readiness,
           static_cast<unsigned>(fd) & 0xffU, static_cast<unsigned>(fd) >> 8U);
  return "inject=epoll_wait,epoll_pwait:retval=1:poke_exit=@arg2=" + std::string(bytes) + ":when=1";
}

// The descriptor of the daemon that refers to a socket in this state, as the kernel lists them: 01 for the
// listener, 03 for a connection. -1 when there is none.
int socket_of(pid_t pid, const std::string& state) {
  for (const std::string& fd : list_dir("/proc/" + std::to_string(pid) + "/fd")) {
    const std::string target = target_of(pid, fd);
    if (target.compare(0, 8, "socket:[") != 0) {
      continue;
    }
    const std::string inode = target.substr(8, target.size() - 9);
    for (const std::string& line : lines_of(read_file("/proc/net/unix"))) {
      if (contains_match(line, " 0005 " + state + " +" + inode + "( |$)")) {
        return atoi(fd.c_str());
      }
    }
  }
  return -1;
}

// Makes the running daemon's next wait report `event`, and waits until the trace shows it.
struct BrokenEvents : ControlChannel {
  void forge(const std::string& event) {
    ASSERT_TRUE(tracer.start(
        {"strace", "-f", "-q", "-o", "/tmp/forged", "-e", event, "-p", std::to_string(daemon.pid())}));
    ASSERT_TRUE(eventually(
        [] {
          raw_client().send_body(WEX_CONS_MSG, harmless());  // whoever waits already comes to its next wait
          return read_file("/tmp/forged").find("INJECTED") != std::string::npos;
        },
        30s));
  }
  void TearDown() override {
    tracer.kill_now();
    ControlChannel::TearDown();
  }
  Process tracer;
};

}  // namespace

TEST_F(BrokenEvents, OfAConnectionDropIt) {
  start();
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, harmless()));
  ASSERT_TRUE(client.acknowledged());
  ASSERT_TRUE(eventually([&] { return socket_of(daemon.pid(), "03") > 0; }));
  forge(forged_event(EPOLLERR, socket_of(daemon.pid(), "03")));
  EXPECT_EQ(0, client.next(nullptr, 30s)) << "it was not dropped";
  EXPECT_TRUE(console_says("]wex_process_domain: event err: ")) << read_console();
  EXPECT_TRUE(serves());
  EXPECT_TRUE(daemon.running());
  EXPECT_EQ(std::string::npos, running_log().find("wex_process_domain")) << running_log();
}

TEST_F(BrokenEvents, OfTheListenerEndTheDaemon) {
  start();
  forge(forged_event(EPOLLERR, socket_of(daemon.pid(), "01")));
  EXPECT_TRUE(daemon.wait(30s).has_value());
  EXPECT_NE(std::string::npos,
            running_log().find("Thread \"wex_process_domain\" exit, wex will be restart. res=-7, "))
      << running_log();
  EXPECT_TRUE(console_says("]wex_process_domain: event err: "));
}

// The event that is forged is laid out as this machine has it: readiness, then the number 4242.
TEST_F(ControlChannel, AnEventOfADescriptorThatIsNoClientEndsTheDaemon) {
  ASSERT_TRUE(daemon.start_traced(
      {"inject=epoll_wait,epoll_pwait:retval=1:poke_exit=@arg2=010000009210000000000000:when=1"}));
  EXPECT_TRUE(eventually([] { return server_ended("-10"); }, 15s)) << running_log();
  EXPECT_TRUE(console_says("]wex_process_domain: logic err, clnt_sd:4242 lost!\n"));
  EXPECT_TRUE(daemon.wait(20s).has_value());
}
#endif

TEST_F(ControlChannel, AnAcknowledgementIsRepeatedWhileTheKernelCannotTakeIt) {
  for (const char* shortage : {"ENOBUFS", "ENOMEM", "EINTR"}) {
    // The monitor's one send is its thread's first; of the server's the fourth to the 120th fail.
    ASSERT_TRUE(daemon.start_traced({"inject=sendto:error=" + std::string(shortage) + ":when=4..120"}));
    ASSERT_TRUE(daemon.wait_ready(30s));
    const raw_client client;
    for (int message = 1; message <= 5; ++message) {
      ASSERT_TRUE(client.send_body(WEX_CONS_MSG, harmless()));
      EXPECT_TRUE(client.acknowledged()) << shortage << ", message " << message;
    }
    EXPECT_EQ(-1, client.next(nullptr, 50ms)) << "one acknowledgement a message";
    EXPECT_TRUE(eventually([] { return occurrences(read_console(), dispatched(5, 0)) == 5; }));
    EXPECT_NE(std::string::npos, Daemon::trace().find(std::string("-1 ") + shortage)) << "nothing failed";
    daemon.kill_now();
    mark_console();
  }
}

TEST_F(ControlChannel, AClientThatCannotBeAnsweredIsDroppedAndItsMessageNotApplied) {
  // The monitor's one send is its thread's first; the server's second to fourth fail.
  ASSERT_TRUE(daemon.start_traced({"inject=sendto:error=EPIPE:when=2..4"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  int refused = 0;
  for (int message = 1; message <= 4; ++message) {
    const raw_client client;
    ASSERT_TRUE(client.send_body(WEX_CONS_MSG, harmless()));
    std::string record;
    refused += client.next(&record) == 0 ? 1 : 0;
  }
  EXPECT_EQ(3, refused);
  constexpr char kLines[] =
      "]wex_rsp_domain_msg: wex_inner_send_msg err\\(ret:-1, sk:([0-9]+), type:5\\)!\n"
      "\\[WEX:wex_core:[0-9]+\\]wex_process_domain: wex_inner_rsp_msg err\\(ret:-1, sk:\\1\\)!\n";
  EXPECT_TRUE(eventually([&] { return contains_match(read_console(), kLines); })) << read_console();
  EXPECT_TRUE(eventually([] {
    return occurrences(read_console(), "]wex_process_domain: wex_inner_rsp_msg err(ret:-1, sk:") == 3;
  }));
  EXPECT_EQ(1U, occurrences(read_console(), dispatched(5, 0))) << "the one that was answered";
}

TEST_F(ControlChannel, AnInterruptedReceiveIsRepeated) {
  ASSERT_TRUE(daemon.start_traced({"inject=recvmsg:error=EINTR:when=1..2"}));
  const std::unique_ptr<raw_client> first = first_client();
  ASSERT_TRUE(first->send_body(WEX_CONS_MSG, harmless()));
  EXPECT_TRUE(first->acknowledged());
  EXPECT_TRUE(console_says(dispatched(5, 0)));
  EXPECT_EQ(2U, occurrences(read_console(),
                            "]wex_inner_recv_msg: recv broken(ret:-1, err:4,Interrupted system call)!"));
}

TEST_F(ControlChannel, InterruptedCallsAreRepeated) {
  ASSERT_TRUE(
      daemon.start_traced({"inject=accept4:error=EINTR:when=1..2", "inject=epoll_wait:error=EINTR:when=3..4",
                           "inject=epoll_pwait:error=EINTR:when=3..4"}));
  ASSERT_TRUE(eventually([] { return raw_client().connected(); }, 10s));
  EXPECT_TRUE(serves());
  EXPECT_TRUE(serves());
  EXPECT_TRUE(daemon.running());
  EXPECT_TRUE(console_says("]wex_process_domain: accept fail: Interrupted system call\n"));
}

TEST_F(ControlChannel, ASocketThatOthersCannotReachIsSaidOnce) {
  umask(022);
  ASSERT_TRUE(daemon.start_traced({"inject=unshare:error=EPERM"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  EXPECT_EQ(0755u, mode_of(kControlSocket));
  const std::string line = "/tmp/wex/.wex could not be opened to all: Operation not permitted. ";
  const std::string log = read_file(kRunningLog1);
  EXPECT_NE(std::string::npos, log.find(line)) << log;
  EXPECT_EQ(log.find(line), log.rfind(line)) << log;
}

namespace {

// The traced calls of one thread, a line each, also where other threads came in between.
std::string calls_of(const std::string& thread) {
  std::string calls = "\n";
  for (const std::string& line : lines_of(Daemon::trace())) {
    const size_t blank = line.find(' ');
    if (blank != std::string::npos && line.substr(0, blank) == thread) {
      calls += line.substr(line.find_first_not_of(' ', blank)) + "\n";
    }
  }
  return replace_matches(calls, " *<unfinished \\.\\.\\.>\n<\\.\\.\\. [a-z0-9_]+ resumed>", "");
}

}  // namespace

// Otherwise a program that connects and leaves without end makes everybody else wait a cycle for each time.
TEST_F(ControlChannel, AcceptsAllThatWaitInOneCycle) {
  ASSERT_TRUE(daemon.start_traced(
      {"trace=accept4,epoll_wait,epoll_pwait", "inject=epoll_wait,epoll_pwait:delay_enter=3000000:when=1"}));
  ASSERT_TRUE(eventually([] { return raw_client().connected(); }, 30s));
  std::vector<std::unique_ptr<raw_client>> crowd;
  for (int at = 0; at < kAcceptedAtOnce + 6; ++at) {
    crowd.push_back(std::make_unique<raw_client>());
    ASSERT_TRUE(crowd.back()->connected());
  }
  EXPECT_TRUE(serves());
  const std::string server = thread_of(daemon.pid(), "wex_process_dom");
  constexpr char kOneCycle[] = "\nepoll_[^\n]*(\naccept4\\([^\n]*= [0-9]+){64}\nepoll_[^\n]*\n";
  EXPECT_TRUE(eventually([&] { return contains_match(calls_of(server), kOneCycle); })) << calls_of(server);
}

// The kernel moves the clients that it has reported behind those that still wait.
TEST_F(ControlChannel, ServesEachOfACrowdOnceBeforeAnyTwice) {
  constexpr size_t kCrowd = 100;
  ASSERT_TRUE(daemon.start_traced({"trace=recvmsg"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  std::vector<std::unique_ptr<raw_client>> crowd;
  for (size_t at = 0; at < kCrowd; ++at) {
    crowd.push_back(std::make_unique<raw_client>());
    ASSERT_TRUE(crowd.back()->send_body(WEX_CONS_MSG, harmless()) && crowd.back()->acknowledged());
  }
  const std::string server = thread_of(daemon.pid(), "wex_process_dom");
  ASSERT_NO_FATAL_FAILURE(stop_traced());
  for (const auto& client : crowd) {
    ASSERT_TRUE(client->send_body(WEX_CONS_MSG, harmless()) && client->send_body(WEX_CONS_MSG, harmless()));
  }
  daemon.send(SIGCONT);
  for (const auto& client : crowd) {
    ASSERT_TRUE(client->acknowledged() && client->acknowledged());
  }
  std::vector<std::string> served;
  EXPECT_TRUE(eventually([&] {
    served = all_matches(calls_of(server), "recvmsg\\(([0-9]+), [^\n]*= 276\n", 1);
    return served.size() == 3 * kCrowd;
  })) << served.size();
  ASSERT_EQ(3 * kCrowd, served.size());
  const auto first = served.begin() + kCrowd;  // behind the message by which each has been accepted
  EXPECT_EQ(kCrowd, std::set<std::string>(first, first + kCrowd).size());
}

TEST_F(ControlChannel, WorksOnAKernelWithoutTheNewerCalls) {
  ASSERT_TRUE(daemon.start_traced({"inject=accept4:error=ENOSYS", "inject=epoll_create1:error=ENOSYS"}));
  ASSERT_TRUE(eventually([] { return raw_client().connected(); }, 10s));
  EXPECT_TRUE(serves());
  EXPECT_TRUE(daemon.running());
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, harmless()));
  ASSERT_TRUE(client.acknowledged());
  EXPECT_TRUE(eventually([&] {
    const std::vector<std::string> open_files = open_files_of(daemon.pid());
    return std::find(open_files.begin(), open_files.end(), "anon_inode:[eventpoll]") != open_files.end() &&
           inheritable_files_of(daemon.pid()).empty();
  })) << ::testing::PrintToString(inheritable_files_of(daemon.pid()));
}

TEST_F(ControlChannel, ItsQueueItsWaitAndItsPauseAreThoseOfTheDevice) {
  ASSERT_TRUE(daemon.start_traced({"trace=listen,epoll_wait,epoll_pwait,nanosleep,clock_nanosleep"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  EXPECT_TRUE(serves());
  const std::string server = thread_of(daemon.pid(), "wex_process_dom");
  constexpr char kListening[] = "\nlisten\\([0-9]+, 2048\\) *= 0\n";
  constexpr char kCycle[] =
      "\nepoll_p?wait\\([0-9]+, [^\n]*, 10000(, NULL, [0-9]+)?\\) *= [1-9]\n"
      "(clock_)?nanosleep\\([^\n]*tv_nsec=1000000\\}";
  EXPECT_TRUE(eventually([&] {
    const std::string calls = calls_of(server);
    return contains_match(calls, kListening) && contains_match(calls, kCycle);
  })) << calls_of(server);
}

// Whoever raises the flag ends the others too, and does not leave the server to its ten seconds.
TEST_F(ControlChannel, EndsAtOnceWhenAnotherThreadHasEnded) {
  ASSERT_TRUE(daemon.start_traced({"inject=sendto:error=ENOBUFS:when=1"}));  // the monitor subscribes in vain
  EXPECT_TRUE(daemon.wait(7s).has_value()) << read_console();
  EXPECT_TRUE(server_ended("(0|-1)")) << running_log();
}

// The control channel of the real daemon: honest clients, careless ones and hostile ones.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <regex>

#include "unique_fd.h"
#include "wex.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_rpc.h"
#include "wex_sys_alive.h"
#include "wex_test.h"

using namespace wex_test;

namespace {

constexpr size_t kHeader = WEX_MSG_HEADER_SIZE;

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

// A client without the library: it can send what the library never would.
class raw_client {
 public:
  raw_client() : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kControlSocket);
    if (connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), 2 + sizeof kControlSocket - 1) != 0) {
      fd_.reset();
    }
  }
  bool connected() const { return fd_.valid(); }
  bool send_bytes(const void* bytes, size_t size, int flags = 0) const {
    return send(fd_.get(), bytes, size, MSG_NOSIGNAL | flags) == static_cast<ssize_t>(size);
  }
  // A record of `size` bytes whose header says what it likes.
  bool send_record(uint32_t type, int32_t length, size_t size, int flags = 0) const {
    std::vector<char> record(std::max(size, kHeader));
    memcpy(record.data(), &type, sizeof type);
    memcpy(record.data() + 4, &length, sizeof length);
    return send_bytes(record.data(), size, flags);
  }
  template <class Body>
  bool send_body(uint32_t type, const Body& body, const std::string& name = "") const {
    std::vector<char> record(kHeader + sizeof body);
    const auto length = static_cast<int32_t>(sizeof body);
    memcpy(record.data(), &type, sizeof type);
    memcpy(record.data() + 4, &length, sizeof length);
    memcpy(record.data() + 8, name.data(), std::min(name.size(), size_t{256}));
    memcpy(record.data() + kHeader, &body, sizeof body);
    return send_bytes(record.data(), record.size());
  }
  // The size of the next record, 0 when the daemon has hung up, -1 when nothing came.
  ssize_t next(std::string* record = nullptr, milliseconds limit = 5s) const {
    pollfd entry = {fd_.get(), POLLIN, 0};
    char bytes[1024];
    if (poll(&entry, 1, static_cast<int>(limit.count())) != 1) {
      return -1;
    }
    const ssize_t got = recv(fd_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0 && record != nullptr) {
      record->assign(bytes, static_cast<size_t>(got));
    }
    return got > 0 ? got : 0;  // a reset is a hang-up too
  }
  bool acknowledged() const {
    std::string record;
    return next(&record) == static_cast<ssize_t>(kHeader) && record == std::string(kHeader, '\0');
  }
  bool dropped() const { return next() == 0; }

 private:
  unique_fd fd_;
};

wex_reg_info body_of(int32_t pid) {
  wex_reg_info body = {};
  body.pid = pid;
  return body;
}

wex_cons_info harmless() {
  return {7, 0};
}

// The library keeps its connection for the life of its process, so its calls are made in one that ends.
pid_t start_child(const std::function<int()>& work) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(100);
    _exit(work());
  }
  return pid;
}

int status_of(pid_t pid) {
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int in_child(const std::function<int()>& work) {
  return status_of(start_child(work));
}

size_t descriptors_of(pid_t pid) {
  return list_dir("/proc/" + std::to_string(pid) + "/fd").size();
}

std::string dispatched(uint32_t type, int result) {
  return "]wex_dispatch_domain_msg type:" + std::to_string(type) + " err:" + std::to_string(result) + "\n";
}

struct ControlChannel : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    ASSERT_FALSE(HasFatalFailure());
  }
  void TearDown() override {
    daemon.kill_now();
    WexWorld::TearDown();
  }
  void start() {
    ASSERT_TRUE(daemon.start());
    mark_console();
  }
  // The daemon serves others, at once.
  static bool serves() {
    const raw_client other;
    return other.connected() && other.send_body(WEX_CONS_MSG, harmless()) && other.acknowledged();
  }
  static std::string running_log() { return read_file(kRunningLog1) + read_file(kRunningLog2); }

  Daemon daemon;
};

}  // namespace

TEST_F(ControlChannel, AcknowledgesAllTypesButReports) {
  start();
  for (const uint32_t type : {1U, 2U, 3U, 5U}) {
    const raw_client client;
    ASSERT_TRUE(client.send_body(type, body_of(0)));
    EXPECT_TRUE(client.acknowledged()) << type;
    EXPECT_TRUE(console_says(dispatched(type, type == 5 ? 0 : -1))) << "process 0 cannot be registered";
    EXPECT_EQ(-1, client.next(nullptr, 50ms)) << "one acknowledgement a message";
  }
  const raw_client reporter;
  ASSERT_TRUE(reporter.send_body(WEX_NOTIFIER_RESET, body_of(0)));
  EXPECT_TRUE(console_says(dispatched(4, -1)));
  EXPECT_EQ(-1, reporter.next(nullptr, 50ms));
}

TEST_F(ControlChannel, KeepsAClientConnectedWhateverItsMessagesCameTo) {
  start();
  const raw_client client;
  for (int round = 0; round < 50; ++round) {
    ASSERT_TRUE(client.send_body(WEX_RESTART, body_of(0)));
    ASSERT_TRUE(client.acknowledged());
  }
  EXPECT_TRUE(eventually([] { return occurrences(read_console(), dispatched(1, -1)) == 50; }));
}

TEST_F(ControlChannel, ARegistrationBringsTheProgramBackAndACancellationDoesNot) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t first = wait_for_actor(options);
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_RESTART, body_of(first)));
  ASSERT_TRUE(client.acknowledged());
  ASSERT_TRUE(console_says(dispatched(1, 0)));
  service.kill_now();
  const pid_t second = wait_for_actor(options, first);
  ASSERT_GT(second, 0);
  ASSERT_EQ(0, in_child([&] { return wex_cancel_proc(second); }));
  kill(second, SIGKILL);
  EXPECT_TRUE(
      never([&] { return !pids_with_command(actor_command(options)).empty() && !is_alive(second); }, 1s));
}

TEST_F(ControlChannel, CancellingRemovesTheDatabaseFile) {
  start();
  const std::vector<std::string> options = {"--register=RESTART", "--ready=/tmp/ready", "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }));
  const std::string file = "/tmp/vsd/0/wex/db/actor." + std::to_string(service.pid());
  ASSERT_TRUE(exists(file));
  ASSERT_EQ(0, in_child([&] { return wex_cancel_proc(service.pid()); }));
  EXPECT_FALSE(exists(file));
  service.kill_now();
  EXPECT_TRUE(never([&] { return !pids_with_command(actor_command(options)).empty(); }, 1s));
}

TEST_F(ControlChannel, AcknowledgesBeforeItHandles) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t first = wait_for_actor(options);
  wex_reg_info slow = body_of(first);
  slow.restart_delay = 3;
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_RESTART, slow));
  ASSERT_TRUE(client.acknowledged());
  ASSERT_TRUE(console_says(dispatched(1, 0)));
  service.kill_now();
  // The exit handler now sleeps with the registry in its hand: whatever needs the registry waits.
  std::this_thread::sleep_for(500ms);
  mark_console();
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, wex_cons_info{WEX_CANCEL_PROC, INT32_MAX}));
  std::string record;
  EXPECT_EQ(static_cast<ssize_t>(kHeader), client.next(&record, 500ms));
  EXPECT_EQ(std::string::npos, read_console().find(dispatched(5, 0)));
  EXPECT_TRUE(console_says(dispatched(5, 0), 5s));
  EXPECT_GT(wait_for_actor(options, first), 0);
}

TEST_F(ControlChannel, RefusesOtherTypesAndDropsTheirSenderOnly) {
  start();
  const raw_client honest;
  for (const uint32_t type : {0U, 6U, 268U, 0x7fffffffU, 0xffffffffU}) {
    const raw_client client;
    ASSERT_TRUE(client.send_body(type, body_of(0)));
    EXPECT_TRUE(client.dropped()) << type;
    EXPECT_TRUE(console_says("]recv unknown type msg " + std::to_string(static_cast<int32_t>(type)) + "\n"));
  }
  EXPECT_FALSE(read_console().find("wex_dispatch_domain_msg type:6") != std::string::npos)
      << "it was applied";
  ASSERT_TRUE(honest.send_body(WEX_CONS_MSG, harmless()));
  EXPECT_TRUE(honest.acknowledged());
}

TEST_F(ControlChannel, DropsAClientThatLeavesWithoutAWord) {
  start();
  const size_t before = descriptors_of(daemon.pid());
  { const raw_client client; }
  EXPECT_TRUE(console_says("]wex_inner_recv_msg: recv peek err(ret:0, "));
  EXPECT_TRUE(console_says("]wex_recv_domain_msg: wex_inner_recv_msg err(ret:-1, sk:"));
  EXPECT_TRUE(eventually([&] { return descriptors_of(daemon.pid()) <= before; }));
}

TEST_F(ControlChannel, DropsClientsWhoseRecordsLieAndTakesNoMemoryForThem) {
  start();
  const std::string before = status_field(daemon.pid(), "VmHWM");
  struct {
    int32_t length;
    size_t size;
  } const kLies[] = {{40, 300},
                     {0, 269},
                     {320, 587},
                     {320, 589},
                     {320, 268},
                     {8, 268},
                     {INT32_MAX, 268},
                     {INT32_MAX, 588},
                     {INT32_MAX - 267, 588},
                     {INT32_MAX - 268, 588},
                     {0x10000000, 588},
                     {-1, 268},
                     {INT32_MIN, 588},
                     {0, 267},
                     {0, 1},
                     {0, 0}};
  for (const auto& lie : kLies) {
    const raw_client client;
    ASSERT_TRUE(client.send_record(WEX_RESTART, lie.length, lie.size));
    EXPECT_TRUE(client.dropped()) << lie.length << " in " << lie.size;
  }
  EXPECT_TRUE(serves());
  const std::string after = status_field(daemon.pid(), "VmHWM");
  EXPECT_LT(atol(after.c_str()) - atol(before.c_str()), 4096) << before << " -> " << after;
  EXPECT_EQ(0U, occurrences(read_console(), "wex_dispatch_domain_msg type:1 "));
}

TEST_F(ControlChannel, ReadsAShortPayloadAsZerosAndIgnoresALongOnesRest) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  const raw_client client;
  ASSERT_TRUE(client.send_record(WEX_RESTART, 0, kHeader));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(1, -1)));
  ASSERT_TRUE(client.send_body(WEX_RESTART, pid));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(1, 0)));
  struct {
    wex_cons_info cancel;
    char rest[3000];
  } const excess = {{WEX_CANCEL_PROC, pid}, {}};
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, excess));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(5, 0)));
  service.kill_now();
  EXPECT_TRUE(never([&] { return !pids_with_command(actor_command(options)).empty(); }, 700ms))
      << "it was not cancelled";
}

TEST_F(ControlChannel, TakesANameWithoutATerminator) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_SHELL_RESTART, body_of(wait_for_actor(options)), std::string(256, 'n')));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(2, 0)));
  EXPECT_TRUE(serves());
}

TEST_F(ControlChannel, RegistersAThreadInTheTableByMessage) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  const auto byte = [&] {
    return read_file(kAliveTableFile)[WEX_ALIVE_SEQ_OFFSET + static_cast<size_t>(pid)];
  };
  ASSERT_EQ(0, byte());
  wex_reg_info body = body_of(pid);
  body.ppid = pid;
  body.ntfy_cnt = body.cur_cnt = 5;
  body.ntfy_time = 120;
  const raw_client client;
  for (const uint32_t type : {3U, 4U}) {
    ASSERT_TRUE(client.send_body(type, body));
    EXPECT_TRUE(console_says(dispatched(type, 0)));
    EXPECT_EQ(1, byte());
    ASSERT_TRUE(client.send_body(WEX_CONS_MSG, wex_cons_info{WEX_CANCEL_THREAD_NOTIFY, pid}));
    EXPECT_TRUE(eventually([&] { return byte() == 0; }));
  }
}

TEST_F(ControlChannel, DropsAClientThatNeverReadsAndServesTheOthers) {
  start();
  const raw_client deaf;
  for (int count = 0; count < 20000 && deaf.send_body(WEX_CONS_MSG, harmless()); ++count) {
  }
  EXPECT_TRUE(console_says("]wex_rsp_domain_msg: wex_inner_send_msg err(ret:-1, sk:"));
  EXPECT_TRUE(serves());
}

TEST_F(ControlChannel, HoldsAllItsClientsAndEndsAtOneTooMany) {
  rlimit files = {};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files));
  const rlimit enough = {4096, std::max(files.rlim_max, rlim_t{4096})};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &enough));
  start();
  {
    std::vector<std::unique_ptr<raw_client>> clients;
    const size_t before = descriptors_of(daemon.pid());
    for (int count = 0; count < kMaxClients; ++count) {
      clients.push_back(std::make_unique<raw_client>());
      ASSERT_TRUE(clients.back()->connected()) << count;
    }
    ASSERT_TRUE(eventually([&] { return descriptors_of(daemon.pid()) >= before + kMaxClients - 1; }, 60s));
    for (const size_t at : {size_t{0}, size_t{1000}, size_t{kMaxClients - 1}}) {
      ASSERT_TRUE(clients[at]->send_body(WEX_CONS_MSG, harmless()));
      EXPECT_TRUE(clients[at]->acknowledged()) << at;
    }
    EXPECT_TRUE(daemon.running());
    const raw_client one_too_many;
    EXPECT_TRUE(exited_with(daemon.wait(20s), 0));
    EXPECT_TRUE(console_says("]wex_process_domain: logic err, clnt_sd full, now_sd:"));
    EXPECT_NE(std::string::npos,
              running_log().find(
                  "Thread \"wex_process_domain\" exit, wex will be restart. res=-9, Success(0)\r\n"));
  }
  setrlimit(RLIMIT_NOFILE, &files);
}

TEST_F(ControlChannel, ReplacesAStaleSocketFileAndOpensItToEverybody) {
  write_file(kControlSocket, "stale", 0600);
  start();
  struct stat facts = {};
  ASSERT_EQ(0, stat(kControlSocket, &facts));
  EXPECT_TRUE(S_ISSOCK(facts.st_mode));
  EXPECT_EQ(0777U, facts.st_mode & 07777U);
  EXPECT_TRUE(serves());
}

TEST_F(ControlChannel, ItsSocketIsOpenToEverybodyWhateverTheUmaskOfTheStarter) {
  for (const mode_t mask : {022u, 077u, 0777u, 0u}) {
    umask(mask);
    start();
    umask(022);
    EXPECT_EQ(0777u, mode_of(kControlSocket)) << std::oct << mask;
    daemon.kill_now();
  }
}

TEST_F(ControlChannel, ARestartedProgramHasTheUmaskOfTheStarter) {
  umask(027);
  start();
  umask(022);
  EXPECT_EQ(0777u, mode_of(kControlSocket));
  EXPECT_EQ("0027", status_field(daemon.pid(), "Umask"));
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t first = wait_for_actor(options);
  EXPECT_EQ("0022", status_field(first, "Umask"));
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_RESTART, body_of(first)));
  ASSERT_TRUE(console_says(dispatched(1, 0)));
  service.kill_now();
  const pid_t second = wait_for_actor(options, first);
  ASSERT_GT(second, 0);
  EXPECT_EQ("0027", status_field(second, "Umask"));
}

namespace {

constexpr char kVictim[] = "/data/victim";

// Puts a link in the socket's place as soon as it is there, as anybody may who can write to the directory.
// False when the socket did not come.
bool swap_for_link() {
  const bool found = eventually(
      [] {
        struct stat node = {};
        return lstat(kControlSocket, &node) == 0 && S_ISSOCK(node.st_mode);
      },
      15s);
  return found && unlink(kControlSocket) == 0 && symlink(kVictim, kControlSocket) == 0;
}

}  // namespace

TEST_F(ControlChannel, ALinkPutInTheSocketsPlaceOpensNoOtherFile) {
  for (const char* const kernel : {"", "inject=unshare:error=ENOSYS"}) {
    write_file(kVictim, "precious", 0600);
    std::vector<std::string> injections = {"inject=bind:delay_exit=500000"};  // time for the hostile one
    if (*kernel != '\0') {
      injections.push_back(kernel);
    }
    ASSERT_TRUE(daemon.start_traced(injections));
    ASSERT_TRUE(swap_for_link());
    ASSERT_TRUE(eventually([] { return Daemon::trace().find(" listen(") != std::string::npos; }, 15s));
    EXPECT_EQ(0600u, mode_of(kVictim));
    EXPECT_EQ("precious", read_file(kVictim));
    daemon.kill_now();
    unlink(kVictim);
  }
}

TEST_F(ControlChannel, WithoutAUmaskOfItsOwnItsSocketIsAsTheStarterWouldHaveIt) {
  umask(022);
  ASSERT_TRUE(daemon.start_traced({"inject=unshare:error=ENOSYS"}));
  ASSERT_TRUE(eventually([] { return raw_client().connected(); }, 10s));
  EXPECT_EQ(0755u, mode_of(kControlSocket));
  EXPECT_TRUE(serves());
}

TEST_F(ControlChannel, TheLibraryFindsTheNextDaemon) {
  start();
  const pid_t client = start_child([] {
    const wex_cons_info body = harmless();
    if (wex_rpc(WEX_CONS_MSG, nullptr, &body, sizeof body, 1, 0) != 0) {
      return 1;
    }
    write_file("/tmp/first_sent", "");
    return eventually([] { return exists("/tmp/next_daemon"); }, 20s) &&
                   wex_rpc(WEX_CONS_MSG, nullptr, &body, sizeof body, 1, 0) == 0
               ? 0
               : 2;
  });
  EXPECT_TRUE(eventually([] { return exists("/tmp/first_sent"); }));
  EXPECT_TRUE(console_says(dispatched(5, 0)));
  daemon.kill_now();
  start();
  write_file("/tmp/next_daemon", "");
  EXPECT_EQ(0, status_of(client));
  EXPECT_TRUE(console_says(dispatched(5, 0)));
  unlink("/tmp/first_sent");
  unlink("/tmp/next_daemon");
}

TEST_F(ControlChannel, CallsThatDoNotWaitAreAllApplied) {
  start();
  EXPECT_EQ(0, in_child([] {
              for (size_t count = 1; count <= 3; ++count) {
                if (wex_time_set(INT32_MAX, WEX_RESTART, 1) != 0 ||  // nobody has that pid
                    !eventually([&] { return occurrences(read_console(), dispatched(1, -1)) == count; })) {
                  return 1;
                }
              }
              return 0;
            }));
  EXPECT_TRUE(eventually([] { return occurrences(read_console(), "recv peek err(ret:") >= 3; }))
      << "each of them leaves a connection behind";
}

TEST_F(ControlChannel, ALongRestartDelayIsToldInTheRunningLog) {
  start();
  const std::vector<std::string> options = {"--time-set=3601", "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  EXPECT_TRUE(eventually([&] {
    return running_log().find("Process " + std::to_string(pid) +
                              " wants its restarts delayed by 3601 s.\r\n") != std::string::npos;
  }));
}

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
  const std::regex complaint("\\[WEX:wex_core:[0-9]+\\]wex_process_domain: " +
                             std::string(GetParam().complaint));
  EXPECT_TRUE(eventually([&] { return std::regex_search(read_console(), complaint); })) << read_console();
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
        failure{"inject=epoll_ctl:error=ENOSPC:when=4", "res=-6, No space left on device(28)\r\n",
                "epoll_ctl err\\(ep_fd:[0-9]+, fd:[0-9]+, ret:-1, err:28\\)!\n"},
        failure{"inject=epoll_wait,epoll_pwait:retval=1:when=1", "res=-7, ", "event err: .*\n"},
        failure{"inject=accept4:error=ECONNABORTED", "res=-8, Software caused connection abort(103)\r\n",
                "accept fail: Software caused connection abort\n"}));

#if defined(__x86_64__)
// The event that is forged is laid out as this machine has it: readiness, then the number 4242.
TEST_F(ControlChannel, AnEventOfADescriptorThatIsNoClientEndsTheDaemon) {
  ASSERT_TRUE(daemon.start_traced(
      {"inject=epoll_wait,epoll_pwait:retval=1:poke_exit=@arg2=010000009210000000000000:when=1"}));
  EXPECT_TRUE(eventually(
      [] {
        return running_log().find(
                   "Thread \"wex_process_domain\" exit, wex will be restart. res=-10, Success(0)\r\n") !=
               std::string::npos;
      },
      15s))
      << running_log();
  EXPECT_TRUE(console_says("]wex_process_domain: logic err, clnt_sd:4242 lost!\n"));
  EXPECT_TRUE(daemon.wait(20s).has_value());
}
#endif

TEST_F(ControlChannel, AnAcknowledgementIsRepeatedWhileTheKernelIsShortOfMemory) {
  for (const char* shortage : {"ENOBUFS", "ENOMEM"}) {
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
  const std::regex lines(
      "]wex_rsp_domain_msg: wex_inner_send_msg err\\(ret:-1, sk:([0-9]+), type:5\\)!\n"
      "\\[WEX:wex_core:[0-9]+\\]wex_process_domain: wex_inner_rsp_msg err\\(ret:-1, sk:\\1\\)!\n");
  EXPECT_TRUE(eventually([&] { return std::regex_search(read_console(), lines); })) << read_console();
  EXPECT_TRUE(eventually([] {
    return occurrences(read_console(), "]wex_process_domain: wex_inner_rsp_msg err(ret:-1, sk:") == 3;
  }));
  EXPECT_EQ(1U, occurrences(read_console(), dispatched(5, 0))) << "the one that was answered";
}

TEST_F(ControlChannel, AnInterruptedReceiveIsRepeated) {
  ASSERT_TRUE(daemon.start_traced({"inject=recvmsg:error=EINTR:when=1..2"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, harmless()));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(5, 0)));
  EXPECT_EQ(2U, occurrences(read_console(),
                            "]wex_inner_recv_msg: recv broken(ret:-1, err:4,Interrupted system call)!\n"));
}

TEST_F(ControlChannel, InterruptedCallsAreNoReasonToEnd) {
  ASSERT_TRUE(
      daemon.start_traced({"inject=accept4:error=EINTR:when=1..2", "inject=epoll_wait:error=EINTR:when=3..4",
                           "inject=epoll_pwait:error=EINTR:when=3..4"}));
  ASSERT_TRUE(eventually([] { return raw_client().connected(); }, 10s));
  EXPECT_TRUE(serves());
  EXPECT_TRUE(serves());
  EXPECT_TRUE(daemon.running());
  EXPECT_TRUE(console_says("]wex_process_domain: accept fail: Interrupted system call\n"));
}

TEST_F(ControlChannel, WorksOnAKernelWithoutTheNewerCalls) {
  ASSERT_TRUE(daemon.start_traced({"inject=accept4:error=ENOSYS", "inject=epoll_create1:error=ENOSYS"}));
  ASSERT_TRUE(eventually([] { return raw_client().connected(); }, 10s));
  EXPECT_TRUE(serves());
  EXPECT_TRUE(daemon.running());
}

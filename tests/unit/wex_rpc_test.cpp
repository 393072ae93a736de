// The client's connection, against a daemon played by the test.
#include "wex_rpc.h"

#include <grp.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>

#include "control_peer.h"
#include "injection.h"
#include "kept_connection.h"
#include "lingering_socket.h"
#include "linked_name.h"
#include "received_descriptors.h"
#include "unique_fd.h"
#include "wex_limits.h"

using namespace control;

namespace {

injection g_calloc;
injection g_poll;
std::atomic<bool> g_takes_descriptors{false};  // as before Linux 6.16
std::atomic<short> g_poll_says{0};  // what a poll for one second finds instead of looking; 0: it looks

}  // namespace

extern "C" {
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
  return g_calloc.now() ? nullptr : __real_calloc(count, size);
}
int LINKED_SETSOCKOPT(__real)(int fd, int level, int name, const void* value, socklen_t size);
int LINKED_SETSOCKOPT(__wrap)(int fd, int level, int name, const void* value, socklen_t size) {
  if (g_takes_descriptors && name == SO_PASSRIGHTS) {
    errno = ENOPROTOOPT;
    return -1;
  }
  return LINKED_SETSOCKOPT(__real)(fd, level, name, value, size);
}
int __real_poll(pollfd* entries, nfds_t count, int milliseconds);
int __wrap_poll(pollfd* entries, nfds_t count, int milliseconds) {
  if (milliseconds == 1000 && g_poll_says != 0) {
    entries[0].revents = g_poll_says;
    return 1;
  }
  return g_poll.now() ? -1 : __real_poll(entries, count, milliseconds);
}
}

// ---- The client's connection ------------------------------------------------------------------------------

TEST(Rpc, DeliversTypeNamePayloadAndAZeroReservedWord) {
  const daemon_end daemon;
  const std::string name(400, 'n');
  auto result = calling([&] { return wex_rpc(2, name.c_str(), "12345678", 8, 0, 0); });
  const peer client = daemon.accept();
  const message in = client.receive();
  EXPECT_EQ(0, result.get());
  EXPECT_EQ(2U, in.header.msg_type);
  EXPECT_EQ(8, in.header.msg_len);
  EXPECT_EQ(0U, in.header.reserved);
  EXPECT_EQ(name.substr(0, 255), in.header.name);
  EXPECT_EQ("12345678", std::string(in.payload.begin(), in.payload.end()));
  EXPECT_EQ(text_of(kClientSocketFmt, getpid()), client.path());
}

TEST(Rpc, LeavesTheNameEmptyWithoutOne) {
  const daemon_end daemon;
  auto result = calling([] { return wex_rpc(3, nullptr, nullptr, 0, 0, 0); });
  const message in = daemon.accept().receive();
  EXPECT_EQ(0, result.get());
  const char nothing[sizeof in.header.name] = {};
  EXPECT_EQ(0, memcmp(nothing, in.header.name, sizeof nothing));
  EXPECT_EQ(0, in.header.msg_len);
  EXPECT_TRUE(in.payload.empty());
}

TEST(Rpc, RefusesANullPayloadWithALength) {
  const daemon_end daemon;
  const control::printed out;
  EXPECT_EQ(-1, wex_rpc(1, nullptr, nullptr, 8, 0, 0));
  EXPECT_TRUE(out.has("]wex_rpc: argument err!\n"));
  EXPECT_FALSE(daemon.has_caller(0ms));
}

TEST(Rpc, RefusesAPayloadThatNoHeaderCanName) {
  char byte = 0;
  EXPECT_EQ(-1, wex_rpc(1, nullptr, &byte, 0x80000000U, 0, 0));
  EXPECT_EQ(-1, wex_rpc(1, nullptr, &byte, 0xffffffffU, 0, 0));
}

TEST(Rpc, WaitsForTheAcknowledgementAndKeepsTheConnection) {
  const daemon_end daemon;
  auto first = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0); });
  const peer client = daemon.accept();
  client.receive();
  EXPECT_EQ(std::future_status::timeout, first.wait_for(100ms)) << "it did not wait";
  client.acknowledge();
  EXPECT_EQ(0, first.get());
  auto second = calling([] { return wex_rpc(5, nullptr, nullptr, 0, 1, 0); });
  EXPECT_EQ(5U, client.receive().header.msg_type);
  client.acknowledge();
  EXPECT_EQ(0, second.get());
  EXPECT_FALSE(daemon.has_caller(0ms)) << "a second connection was made";
}

TEST(Rpc, KeepsItsConnectionFromExecutedPrograms) {
  const daemon_end daemon;
  EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  const unique_fd sample = wex_open_control_socket();
  EXPECT_EQ(FD_CLOEXEC, fcntl(sample.get(), F_GETFD) & FD_CLOEXEC);
  int sockets = 0;
  for (int fd = 3; fd < 256; ++fd) {
    sockaddr_un own = {};
    socklen_t length = sizeof own;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) == 0 &&
        strncmp(own.sun_path, WEX_RUN "/.socket.", sizeof WEX_RUN "/.socket." - 1) == 0) {
      ++sockets;
      EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    }
  }
  EXPECT_EQ(1, sockets);
}

TEST(Rpc, ConnectsAnewWhenAnAcknowledgementWasLeftUnread) {
  const daemon_end daemon;
  EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  const peer old = daemon.accept();
  old.receive();
  old.acknowledge();
  const control::printed out;
  EXPECT_EQ(0, wex_rpc(2, nullptr, nullptr, 0, 0, 0));
  EXPECT_TRUE(
      out.has(text_of("]wex_check_socket <0: pid=%d, tid=%ld\r\n", getpid(), static_cast<long>(gettid()))));
  EXPECT_EQ(2U, daemon.accept().receive().header.msg_type);
  EXPECT_TRUE(old.receive().closed);
}

// Whoever can replace the control socket may send along what blocks whoever closes it last.
TEST(Rpc, GivesUpAConnectionAtOnceWhateverLiesUnreadInIt) {
  const daemon_end daemon;
  g_takes_descriptors = true;
  EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  g_takes_descriptors = false;
  const peer old = daemon.accept();
  old.receive();
  const wex_inner_msg record = {};
  const lingering_socket lingering(60);
  ASSERT_TRUE(send_descriptor(old.fd(), &record, sizeof record, lingering.take())) << strerror(errno);
  const auto start = clock::now();
  EXPECT_EQ(0, wex_rpc(2, nullptr, nullptr, 0, 0, 0));
  EXPECT_LT(seconds_since(start), 20);
  EXPECT_EQ(2U, daemon.accept().receive().header.msg_type);
}

TEST(Rpc, ConnectsAnewAfterADaemonRestart) {
  daemon_end daemon;
  EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  {
    peer old = daemon.accept();
    old.receive();
  }
  daemon.close();
  daemon.open();
  EXPECT_EQ(0, wex_rpc(2, nullptr, nullptr, 0, 0, 0));
  EXPECT_EQ(2U, daemon.accept().receive().header.msg_type);
}

TEST(Rpc, TriesSixTimesOneSecondApartWhileTheDaemonIsAbsent) {
  mkdir(WEX_RUN, 0777);
  unlink(kControlSocket);
  const control::printed out;
  const auto start = clock::now();
  const pid_t ignored = start_child([] { return wex_rpc(4, nullptr, nullptr, 0, 0, 1) == 0 ? 0 : 1; });
  const pid_t reported = start_child([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0) == -1 ? 0 : 1; });
  EXPECT_EQ(0, exit_status(ignored));
  EXPECT_EQ(0, exit_status(reported));
  EXPECT_GE(seconds_since(start), 4.9);
  EXPECT_LT(seconds_since(start), 7.5);
  for (int index = 0; index < 6; ++index) {
    EXPECT_EQ(2U,
              occurrences(out.text(), text_of("retry:%d, err:%d,%s)\n", index, ENOENT, strerror(ENOENT))));
  }
  EXPECT_EQ(12U, occurrences(out.text(), "]wex_connect: connect refused, wait and retry(sd:"));
  EXPECT_EQ(2U, occurrences(out.text(), "]wex_rpc: connect fail(ret:-1)\n"));
  EXPECT_FALSE(exists(text_of(kClientSocketFmt, reported)))
      << "the client's socket file must go after a failed connect";
}

TEST(Rpc, FindsADaemonThatListensLateBehindAStaleSocketFile) {
  daemon_end daemon;
  daemon.close();
  {
    const unique_fd stale(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kControlSocket);
    ASSERT_EQ(0, bind(stale.get(), reinterpret_cast<sockaddr*>(&address), 15));
  }
  const control::printed out;
  auto result = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 0, 0); });
  EXPECT_TRUE(eventually([&] { return out.has(text_of("retry:0, err:%d,", ECONNREFUSED)); }));
  daemon.open();
  EXPECT_EQ(0, result.get());
  daemon.accept().receive();
}

TEST(Rpc, GivesUpAtOnceOnAnyOtherConnectError) {
  mkdir(WEX_RUN, 0777);
  unlink(kControlSocket);
  const unique_fd other(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kControlSocket);
  ASSERT_EQ(0, bind(other.get(), reinterpret_cast<sockaddr*>(&address), 15));
  const control::printed out;
  const auto start = clock::now();
  EXPECT_EQ(-1, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  EXPECT_LT(seconds_since(start), 0.9);
  EXPECT_EQ(1U, occurrences(out.text(), "wait and retry("));
  EXPECT_TRUE(out.has(text_of("retry:0, err:%d,%s)\n", EPROTOTYPE, strerror(EPROTOTYPE))));
  unlink(kControlSocket);
}

// Nobody asks for a client's address, so one that cannot have any is no reason to lose a registration.
TEST(Rpc, ConnectsWithoutAnAddressWhenItsOwnPathCannotBeBound) {
  const std::string path = text_of(kClientSocketFmt, static_cast<int>(getpid()));
  const daemon_end daemon;
  unlink(path.c_str());
  ASSERT_EQ(0, mkdir(path.c_str(), 0700));
  ASSERT_EQ(0, mkdir((path + "/full").c_str(), 0700));
  const control::printed out;
  EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  EXPECT_EQ(1U, daemon.accept().receive().header.msg_type);
  EXPECT_TRUE(out.has(text_of("]wex_connect: bind fail: %s\n", strerror(EADDRINUSE))));
  EXPECT_EQ(0, rmdir((path + "/full").c_str()));
  EXPECT_EQ(0, rmdir(path.c_str()));
}

TEST(Rpc, RemovesAnEmptyDirectoryThatStandsInTheWayOfItsPath) {
  const std::string path = text_of(kClientSocketFmt, static_cast<int>(getpid()));
  const daemon_end daemon;
  unlink(path.c_str());
  ASSERT_EQ(0, mkdir(path.c_str(), 0700));
  EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  EXPECT_EQ(1U, daemon.accept().receive().header.msg_type);
  struct stat node = {};
  ASSERT_EQ(0, lstat(path.c_str(), &node));
  EXPECT_TRUE(S_ISSOCK(node.st_mode));
}

TEST(Rpc, CountsAMissingAcknowledgementAsSuccessAndDropsTheLateOne) {
  const daemon_end daemon;
  const auto start = clock::now();
  auto result = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0); });
  const peer client = daemon.accept();
  client.receive();
  EXPECT_EQ(0, result.get());
  EXPECT_GE(seconds_since(start), 4.9);
  EXPECT_LT(seconds_since(start), 6.5);
  EXPECT_FALSE(client.readable(0ms)) << "the connection must be kept";
  client.acknowledge();
  EXPECT_EQ(0, wex_rpc(2, nullptr, nullptr, 0, 0, 0));
  EXPECT_EQ(2U, daemon.accept().receive().header.msg_type);
}

TEST(Rpc, FailsWhenTheDaemonHangsUpInsteadOfAcknowledging) {
  const daemon_end daemon;
  const control::printed out;
  auto result = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0); });
  {
    const peer client = daemon.accept();
    client.receive();
  }
  EXPECT_EQ(-1, result.get());
  EXPECT_TRUE(out.has("]wex_rpc: recv ack err(ret:-1, err:"));
  auto next = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 0, 0); });
  EXPECT_FALSE(daemon.accept().receive().closed);
  EXPECT_EQ(0, next.get());
}

// Hang-up and error without input: there is nothing to receive, whatever is in the queue.
TEST(Rpc, FailsWhenTheConnectionBreaksWhileItWaits) {
  const daemon_end daemon;
  for (const int events : {POLLHUP, POLLERR}) {
    const control::printed out;
    g_poll_says = static_cast<short>(events);
    auto result = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0); });
    peer client = daemon.accept();
    EXPECT_EQ(1U, client.receive().header.msg_type);
    EXPECT_EQ(std::future_status::ready, result.wait_for(3s)) << "it receives";
    client.close();
    EXPECT_EQ(-1, result.get());
    g_poll_says = 0;
    EXPECT_TRUE(out.has("]wex_rpc: recv ack err(ret:-1, err:"));
    EXPECT_FALSE(out.has("recv peek err("));
  }
  auto next = calling([] { return wex_rpc(2, nullptr, nullptr, 0, 0, 0); });
  EXPECT_EQ(2U, daemon.accept().receive().header.msg_type) << "the broken connection must be given up";
  EXPECT_EQ(0, next.get());
}

TEST(Rpc, TakesAnyWellFormedAcknowledgementUnexamined) {
  const daemon_end daemon;
  auto result = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0); });
  const peer client = daemon.accept();
  client.receive();
  std::string odd(WEX_MSG_HEADER_SIZE + 8, '\xff');
  const uint32_t head[2] = {9, 8};  // a type that nobody knows, and a payload
  memcpy(&odd[0], head, sizeof head);
  ASSERT_EQ(static_cast<ssize_t>(odd.size()), send(client.fd(), odd.data(), odd.size(), MSG_NOSIGNAL));
  EXPECT_EQ(0, result.get());
  EXPECT_EQ(0, wex_rpc(2, nullptr, nullptr, 0, 0, 0));
  EXPECT_EQ(2U, client.receive().header.msg_type) << "the connection must be kept, and nothing left in it";
}

TEST(Rpc, FailsOnAMalformedAcknowledgement) {
  const daemon_end daemon;
  auto result = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0); });
  const peer client = daemon.accept();
  client.receive();
  client.send_bytes(267);
  EXPECT_EQ(-1, result.get());
  EXPECT_TRUE(client.receive().closed);
}

TEST(Rpc, FailsWhenTheDaemonDoesNotReadAndConnectsAnew) {
  const daemon_end daemon;
  ASSERT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  const peer deaf = daemon.accept();
  const control::printed out;
  const std::vector<char> payload(60000);
  int result = 0;
  for (int tries = 0; tries < 1000 && result == 0; ++tries) {
    result = wex_rpc(1, nullptr, payload.data(), static_cast<uint32_t>(payload.size()), 0, 0);
  }
  EXPECT_EQ(-1, result);
  EXPECT_TRUE(out.has(text_of("]wex_rpc: send fail(ret:-1, err:%d,%s)\n", EAGAIN, strerror(EAGAIN))));
  EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  EXPECT_TRUE(daemon.accept().connected());
}

TEST(Rpc, WaitsOnWhenTheClientsOwnSignalsInterruptIt) {
  struct sigaction note = {};
  note.sa_handler = [](int) {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &note, nullptr));
  const daemon_end daemon;
  const control::printed out;
  std::atomic<pthread_t> caller{};
  auto result = calling([&] {
    caller = pthread_self();
    return wex_rpc(1, nullptr, nullptr, 0, 1, 0);
  });
  const peer client = daemon.accept();
  client.receive();
  for (int count = 0; count < 200; ++count) {
    pthread_kill(caller.load(), SIGUSR1);
    std::this_thread::sleep_for(2ms);
  }
  EXPECT_EQ(std::future_status::timeout, result.wait_for(0ms));
  client.acknowledge();
  EXPECT_EQ(0, result.get());
  EXPECT_FALSE(out.has("poll fail"));
}

TEST(Rpc, SendsNothingWithoutMemoryForTheRequest) {
  const daemon_end daemon;
  const control::printed out;
  g_calloc.fail(1, ENOMEM);
  EXPECT_EQ(-1, wex_rpc(1, nullptr, "12345678", 8, 1, 0));
  EXPECT_TRUE(out.has(text_of("]wex_rpc: malloc fail: %s\n", strerror(ENOMEM))));
  EXPECT_FALSE(daemon.has_caller(0ms));
  EXPECT_EQ(0, wex_rpc(4, nullptr, "12345678", 8, 0, 0)) << "the next one has memory";
}

TEST(Rpc, TellsWhenItCanMakeNoSocket) {
  const daemon_end daemon;
  const control::printed out;
  EXPECT_EQ(0, in_child([] {
              const rlimit none = {0, 0};
              setrlimit(RLIMIT_NOFILE, &none);
              return wex_rpc(1, nullptr, nullptr, 0, 0, 0) == -1 && wex_rpc(4, nullptr, nullptr, 0, 0, 1) == 0
                         ? 0
                         : 1;
            }));
  EXPECT_EQ(2U, occurrences(out.text(), text_of("]wex_connect: socket fail: %s\n", strerror(EMFILE))));
  EXPECT_EQ(2U, occurrences(out.text(), "]wex_rpc: connect fail(ret:-1)\n"));
  EXPECT_FALSE(daemon.has_caller(0ms));
}

TEST(Rpc, ConnectsAnewWhenTheConnectionCannotBeTested) {
  const daemon_end daemon;
  ASSERT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  const peer old = daemon.accept();
  old.receive();
  const control::printed out;
  g_poll.fail(1, ENOMEM);
  EXPECT_EQ(0, wex_rpc(2, nullptr, nullptr, 0, 0, 0));
  EXPECT_TRUE(
      out.has(text_of("]wex_check_socket: poll fail(ret:-1, err:%d,%s)\n", ENOMEM, strerror(ENOMEM))));
  EXPECT_TRUE(out.has("]wex_check_socket <0: pid="));
  EXPECT_TRUE(old.receive().closed);
  EXPECT_EQ(2U, daemon.accept().receive().header.msg_type);
}

TEST(Rpc, FailsWhenTheAcknowledgementCannotBeWaitedFor) {
  const daemon_end daemon;
  const control::printed out;
  auto result = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0); });
  const peer client = daemon.accept();
  client.receive();
  client.acknowledge();
  ASSERT_EQ(0, result.get());
  // The second request tests the connection first, then waits: the second poll is the one that fails.
  g_poll.fail(1, ENOMEM, 1);
  EXPECT_EQ(-1, wex_rpc(2, nullptr, nullptr, 0, 1, 0));
  EXPECT_TRUE(out.has(
      text_of("]wex_wait_msg_ack_timeout: poll fail(ret:-1, err:%d,%s)\n", ENOMEM, strerror(ENOMEM))));
  EXPECT_TRUE(out.has(text_of("]wex_rpc: recv ack err(ret:-1, err:%d,%s)\n", ENOMEM, strerror(ENOMEM))));
  EXPECT_EQ(2U, client.receive().header.msg_type);
  EXPECT_TRUE(client.receive().closed);
}

// Cancelled in the middle of a request, a thread ends behind it: its mutex and its connection are the
// others'.
TEST(Rpc, ACancelledThreadLeavesTheConnectionToTheOthers) {
  const daemon_end daemon;
  int word[2];
  ASSERT_EQ(0, pipe2(word, O_CLOEXEC));
  const pid_t child = start_child([&] {
    pthread_t cancelled;
    pthread_create(
        &cancelled, nullptr,
        [](void*) -> void* {
          wex_rpc(1, nullptr, nullptr, 0, 1, 0);
          pthread_testcancel();
          return nullptr;
        },
        nullptr);
    char byte;
    if (read(word[0], &byte, 1) != 1) {  // it waits for its acknowledgement now
      return 1;
    }
    pthread_cancel(cancelled);
    auto next = calling([] { return wex_rpc(2, nullptr, nullptr, 0, 1, 0); });
    if (next.wait_for(8s) != std::future_status::ready) {
      _exit(2);
    }
    void* how = nullptr;
    pthread_join(cancelled, &how);
    return next.get() == 0 && how == PTHREAD_CANCELED ? 0 : 3;
  });
  const peer client = daemon.accept();
  EXPECT_EQ(1U, client.receive().header.msg_type);
  ASSERT_EQ(1, write(word[1], "x", 1));
  EXPECT_FALSE(client.readable(100ms)) << "the second request must wait for the first one's end";
  client.acknowledge();
  EXPECT_EQ(2U, client.receive().header.msg_type);
  client.acknowledge();
  EXPECT_EQ(0, exit_status(child));
  close(word[0]);
  close(word[1]);
}

TEST(Rpc, ServesThreadsOneRequestAtATime) {
  const daemon_end daemon;
  std::vector<std::future<int>> results;
  for (uint32_t type = 1; type <= 8; ++type) {
    results.push_back(calling([type] { return wex_rpc(type, nullptr, nullptr, 0, 1, 0); }));
  }
  const peer client = daemon.accept();
  for (size_t count = 0; count < results.size(); ++count) {
    EXPECT_FALSE(client.receive().closed);
    EXPECT_FALSE(client.readable(30ms)) << "a second request came before the first was acknowledged";
    client.acknowledge();
  }
  for (auto& result : results) {
    EXPECT_EQ(0, result.get());
  }
}

// ---- A marked daemon --------------------------------------------------------------------------------------

class DaemonStatus : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mount("tmpfs", "/sys/kernel", "tmpfs", 0, nullptr)) << strerror(errno);
    ASSERT_EQ(0, mkdir("/sys/kernel/qx_lowmem_killer", 0755));
  }
  void TearDown() override { umount2("/sys/kernel", MNT_DETACH); }
  static void publish(const char* text) { std::ofstream(kWexStatus) << text; }
};

TEST_F(DaemonStatus, ZeroMakesEveryRequestASilentSuccess) {
  publish("0\n");
  const daemon_end daemon;
  const control::printed out;
  EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 1, 0));
  EXPECT_TRUE(out.has("]wex_rpc: wex process exit, function return.\n"));
  EXPECT_FALSE(daemon.has_caller(0ms));
}

TEST_F(DaemonStatus, AnythingElseLetsRequestsThrough) {
  const daemon_end daemon;
  for (const char* text : {"1\n", "9\n", ""}) {
    publish(text);
    EXPECT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  }
  const peer client = daemon.accept();
  for (int count = 0; count < 3; ++count) {
    EXPECT_EQ(1U, client.receive().header.msg_type);
  }
}

// ---- Forked clients ---------------------------------------------------------------------------------------

TEST(RpcFork, AChildMakesAConnectionOfItsOwnAndLeavesItsParents) {
  const daemon_end daemon;
  ASSERT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  const peer parent = daemon.accept();
  parent.receive();
  const pid_t child = start_child([] { return wex_rpc(2, nullptr, nullptr, 0, 1, 0); });
  const peer own = daemon.accept();
  EXPECT_EQ(text_of(kClientSocketFmt, child), own.path());
  EXPECT_EQ(2U, own.receive().header.msg_type);
  own.acknowledge();
  EXPECT_EQ(0, exit_status(child));
  EXPECT_EQ(0, wex_rpc(3, nullptr, nullptr, 0, 0, 0));
  EXPECT_EQ(3U, parent.receive().header.msg_type) << "the parent must still use its first connection";
}

TEST(RpcFork, AChildIsNotBlockedByARequestOfItsParent) {
  const daemon_end daemon;
  auto parents = calling([] { return wex_rpc(1, nullptr, nullptr, 0, 1, 0); });
  const peer parent = daemon.accept();
  parent.receive();  // the parent's thread now holds the connection and waits
  const auto start = clock::now();
  const pid_t child = start_child([] { return wex_rpc(2, nullptr, nullptr, 0, 0, 0); });
  EXPECT_EQ(0, exit_status(child));
  EXPECT_LT(seconds_since(start), 2.0);
  parent.acknowledge();
  EXPECT_EQ(0, parents.get());
}

TEST(RpcFork, AChildClosesNothingThatIsNotTheInheritedConnection) {
  const daemon_end daemon;
  ASSERT_EQ(0, wex_rpc(1, nullptr, nullptr, 0, 0, 0));
  EXPECT_EQ(0, in_child([] {
              int ends[2];
              for (int fd = 3; fd < 256; ++fd) {  // as a program does that detaches itself
                close(fd);
              }
              for (int count = 0; count < 20; ++count) {
                if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) {
                  return 2;
                }
              }
              if (wex_rpc(2, nullptr, nullptr, 0, 0, 0) != 0) {
                return 3;
              }
              for (int fd = 3; fd < 43; ++fd) {
                if (fcntl(fd, F_GETFD) == -1) {
                  return 4;
                }
              }
              return 0;
            }));
}

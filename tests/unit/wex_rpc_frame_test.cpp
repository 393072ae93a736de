// Framing of control messages, on real sockets.
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <climits>
#include <deque>
#include <random>

#include "control_peer.h"
#include "injection.h"
#include "lingering_socket.h"
#include "linked_name.h"
#include "received_descriptors.h"
#include "unique_fd.h"
#include "wex_rpc.h"

using namespace control;

namespace {

constexpr size_t kHeader = WEX_MSG_HEADER_SIZE;

struct socket_pair {
  socket_pair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends));
    here.reset(ends[0]);
    there.reset(ends[1]);
  }
  unique_fd here;
  unique_fd there;
};

// A message with room for 4096 bytes of payload.
struct roomy {
  wex_inner_msg header;
  char payload[4096];
};

roomy make(uint32_t type, int32_t length) {
  roomy out = {};
  out.header.msg_type = type;
  out.header.msg_len = length;
  memset(out.payload, 'p', sizeof out.payload);
  return out;
}

void put(int sd, const void* bytes, size_t size) {
  ASSERT_EQ(static_cast<ssize_t>(size), send(sd, bytes, size, MSG_NOSIGNAL));
}

ssize_t queued_record(int sd) {
  char record[8192];
  return recv(sd, record, sizeof record, MSG_DONTWAIT);
}

long resident_kib() {
  rusage use = {};
  getrusage(RUSAGE_SELF, &use);
  return use.ru_maxrss;
}

int receive(int sd) {
  owned_msg msg;
  return wex_inner_recv_msg(sd, msg.fill());
}

// All that was printed, the line numbers of the source as "N".
std::string all_of(const control::printed& out) {
  return replace_matches(out.text(), "\\[WEX:wex_rpc:[0-9]+\\]", "[N]");
}

// The lines of a send of type 1 or 2 by this thread, neither of them ended.
std::string send_trace(const socket_pair& pair, int length) {
  return text_of("[N]wex_inner_send_msg: send msg(sd:%d, msg_type:%d, msg_len:%d)!", pair.here.get(),
                 length == 320 ? 2 : 1, length);
}
std::string send_error(const socket_pair& pair, int length, ssize_t result, int error) {
  return text_of(
      "[N]wex_inner_send_msg: send msg err(tid:%d, sd:%d, msg_type:%d, msg_len:%d, ret:%d, err:%d, %s)!",
      static_cast<int>(gettid()), pair.here.get(), length == 320 ? 2 : 1, length, static_cast<int>(result),
      error, strerror(error));
}

injection g_recvmsg;
injection g_ioctl;
std::atomic<bool> g_peek_hides_size{
    false};  // as before Linux 3.4: MSG_TRUNC tells nothing about a record's size
std::atomic<int> g_ioctls{0};

// What the next sends come to instead of being made: an error, or a count of bytes. Empty: they are made.
struct send_result {
  int error;
  ssize_t count;
};
std::deque<send_result> g_sends;
std::atomic<int> g_send_calls{0};

}  // namespace

extern "C" {
ssize_t LINKED_RECVMSG(__real)(int sd, msghdr* how, int flags);
ssize_t LINKED_RECVMSG(__wrap)(int sd, msghdr* how, int flags) {
  return g_recvmsg.now() ? -1 : LINKED_RECVMSG(__real)(sd, how, flags);
}
ssize_t __real_recv(int sd, void* bytes, size_t size, int flags);
ssize_t __wrap_recv(int sd, void* bytes, size_t size, int flags) {
  return __real_recv(sd, bytes, size, g_peek_hides_size ? flags & ~MSG_TRUNC : flags);
}
int LINKED_IOCTL(__real)(int fd, unsigned long request, void* argument);
int LINKED_IOCTL(__wrap)(int fd, unsigned long request, void* argument) {
  ++g_ioctls;
  return g_ioctl.now() ? -1 : LINKED_IOCTL(__real)(fd, request, argument);
}
ssize_t __real_send(int sd, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int sd, const void* bytes, size_t size, int flags) {
  ++g_send_calls;
  if (g_sends.empty()) {
    return __real_send(sd, bytes, size, flags);
  }
  const send_result result = g_sends.front();
  g_sends.pop_front();
  errno = result.error;
  return result.count;
}
}

// ---- Sending ----------------------------------------------------------------------------------------------

TEST(InnerSend, SendsHeaderAndPayloadAsOneRecordAndTracesIt) {
  const socket_pair pair;
  const roomy msg = make(2, 320);
  const control::printed out;
  EXPECT_EQ(0, wex_inner_send_msg(pair.here.get(), &msg.header));
  EXPECT_EQ(text_of("[N]wex_inner_send_msg: send msg(sd:%d, msg_type:2, msg_len:320)!", pair.here.get()),
            all_of(out))
      << "the line is not ended";
  char record[1024];
  ASSERT_EQ(588, recv(pair.there.get(), record, sizeof record, 0));
  EXPECT_EQ(0, memcmp(record, &msg, 588));
}

TEST(InnerSend, SendsAMessageWithoutPayloadAs268Bytes) {
  const socket_pair pair;
  const wex_inner_msg msg = {};
  EXPECT_EQ(0, wex_inner_send_msg(pair.here.get(), &msg));
  EXPECT_EQ(268, queued_record(pair.there.get()));
}

TEST(InnerSend, RefusesBadArgumentsWithoutSending) {
  const socket_pair pair;
  roomy msg = make(1, -1);
  const control::printed out;
  EXPECT_EQ(-1, wex_inner_send_msg(-1, &msg.header));
  EXPECT_EQ(-1, wex_inner_send_msg(pair.here.get(), nullptr));
  EXPECT_EQ(text_of("[N]argument err(sd:-1, msg:%p)![N]argument err(sd:%d, msg:%p)!",
                    static_cast<void*>(&msg), pair.here.get(), static_cast<void*>(nullptr)),
            all_of(out));
  EXPECT_EQ(-1, wex_inner_send_msg(pair.here.get(), &msg.header));
  msg.header.msg_len = INT32_MIN;
  EXPECT_EQ(-1, wex_inner_send_msg(pair.here.get(), &msg.header));
  EXPECT_EQ(4U, occurrences(out.text(), "argument err("));
  EXPECT_EQ(-1, queued_record(pair.there.get()));
}

TEST(InnerSend, FailsAtOnceOnAFullSocket) {
  const socket_pair pair;
  const roomy msg = make(1, 4096);
  int sent = 0;
  while (send(pair.here.get(), &msg, kHeader + 4096, MSG_DONTWAIT) > 0) {
    ++sent;
  }
  ASSERT_GT(sent, 0);
  const auto start = clock::now();
  const control::printed out;
  EXPECT_EQ(-1, wex_inner_send_msg(pair.here.get(), &msg.header));
  EXPECT_LT(seconds_since(start), 0.5);
  const std::string expected = send_trace(pair, 4096) + send_error(pair, 4096, -1, EAGAIN);
  EXPECT_EQ(expected, all_of(out));
}

TEST(InnerSend, GoesOnWhileItIsInterruptedOrMemoryIsShort) {
  const socket_pair pair;
  const roomy msg = make(2, 320);
  g_sends = {{EINTR, -1}, {ENOMEM, -1}, {ENOBUFS, -1}};
  g_send_calls = 0;
  const control::printed out;
  EXPECT_EQ(0, wex_inner_send_msg(pair.here.get(), &msg.header));
  EXPECT_EQ(4, g_send_calls);
  EXPECT_EQ(send_trace(pair, 320), all_of(out));
  EXPECT_EQ(588, queued_record(pair.there.get()));
}

TEST(InnerSend, FailsWhenAShortageEndsInAnotherError) {
  const socket_pair pair;
  const roomy msg = make(2, 320);
  g_sends = {{EINTR, -1}, {ENOMEM, -1}, {ENOBUFS, -1}, {EPIPE, -1}};
  g_send_calls = 0;
  const control::printed out;
  EXPECT_EQ(-1, wex_inner_send_msg(pair.here.get(), &msg.header));
  EXPECT_EQ(4, g_send_calls);
  EXPECT_EQ(send_trace(pair, 320) + send_error(pair, 320, -1, EPIPE), all_of(out));
  EXPECT_EQ(-1, queued_record(pair.there.get()));
}

// No kernel takes part of a record; nothing would know what to do with the rest of one.
TEST(InnerSend, CountsAPartOfARecordAsAFailure) {
  const socket_pair pair;
  const roomy msg = make(2, 320);
  for (const ssize_t taken : {0, 100, 587}) {
    g_sends = {{0, taken}};
    g_send_calls = 0;
    const control::printed out;
    EXPECT_EQ(-1, wex_inner_send_msg(pair.here.get(), &msg.header));
    EXPECT_EQ(1, g_send_calls) << "it is not sent again";
    EXPECT_EQ(send_trace(pair, 320) + send_error(pair, 320, taken, 0), all_of(out));
  }
}

TEST(InnerSend, FailsOnAClosedPeerAndRaisesNoSignal) {
  EXPECT_EQ(0, in_child([] {
              signal(SIGPIPE, SIG_DFL);
              socket_pair pair;
              pair.there.reset();
              const wex_inner_msg msg = {};
              return wex_inner_send_msg(pair.here.get(), &msg) == -1 && errno == EPIPE ? 0 : 1;
            }));
}

TEST(InnerSend, PrintsNothingWhenDiagnosticsAreSilent) {
  const socket_pair pair;
  const wex_inner_msg msg = {};
  const control::printed out;
  g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
  EXPECT_EQ(0, wex_inner_send_msg(pair.here.get(), &msg));
  EXPECT_EQ(-1, wex_inner_send_msg(-1, &msg));
  EXPECT_EQ(-1, receive(-1));
  EXPECT_EQ("", out.text());
}

// ---- Receiving --------------------------------------------------------------------------------------------

TEST(InnerRecv, GivesBackWhatWasSent) {
  for (const int32_t length : {0, 1, 8, 320, 4096}) {
    const socket_pair pair;
    const roomy sent = make(4, length);
    ASSERT_EQ(0, wex_inner_send_msg(pair.here.get(), &sent.header));
    owned_msg got;
    ASSERT_EQ(0, wex_inner_recv_msg(pair.there.get(), got.fill())) << length;
    EXPECT_EQ(0, memcmp(&sent, got.get(), kHeader + static_cast<size_t>(length)));
    EXPECT_EQ(-1, queued_record(pair.there.get()));
  }
}

// The size of the queue then bounds what is allocated.
TEST(InnerRecv, OnAKernelThatHidesTheSizeOfARecordGivesBackWhatWasSent) {
  g_peek_hides_size = true;
  g_ioctls = 0;
  for (const int32_t length : {0, 1, 8, 320, 4096}) {
    const socket_pair pair;
    const roomy sent = make(4, length);
    const roomy next = make(5, 8);
    ASSERT_EQ(0, wex_inner_send_msg(pair.here.get(), &sent.header));
    ASSERT_EQ(0, wex_inner_send_msg(pair.here.get(), &next.header));
    owned_msg got;
    ASSERT_EQ(0, wex_inner_recv_msg(pair.there.get(), got.fill())) << length;
    EXPECT_EQ(0, memcmp(&sent, got.get(), kHeader + static_cast<size_t>(length)));
    EXPECT_EQ(0, receive(pair.there.get()));
  }
  EXPECT_LT(0, g_ioctls) << "the size was not hidden";
  g_peek_hides_size = false;
}

TEST(InnerRecv, WhereNothingTellsTheSizeOnlyAMessageWithoutPayloadIsTaken) {
  g_peek_hides_size = true;
  for (const int32_t length : {0, 1, 320}) {
    const socket_pair pair;
    const roomy sent = make(4, length);
    ASSERT_EQ(0, wex_inner_send_msg(pair.here.get(), &sent.header));
    g_ioctl.fail(1, EINVAL);
    EXPECT_EQ(length == 0 ? 0 : -1, receive(pair.there.get()));
    EXPECT_EQ(-1, queued_record(pair.there.get())) << "it would be found at every look";
  }
  g_ioctl.fail(0, 0);
  g_peek_hides_size = false;
}

TEST(InnerRecv, RefusesBadArguments) {
  const socket_pair pair;
  const control::printed out;
  wex_inner_msg* msg = nullptr;
  EXPECT_EQ(-1, wex_inner_recv_msg(-3, &msg));
  EXPECT_EQ(-1, wex_inner_recv_msg(pair.here.get(), nullptr));
  EXPECT_EQ(text_of("[N]argument err(sd:-3, msg:%p)![N]argument err(sd:%d, msg:%p)!",
                    static_cast<void*>(&msg), pair.here.get(), static_cast<void*>(nullptr)),
            all_of(out));
}

TEST(InnerRecv, ReportsAClosedPeerAsAPeekError) {
  socket_pair pair;
  pair.there.reset();
  const control::printed out;
  EXPECT_EQ(-1, receive(pair.here.get()));
  EXPECT_TRUE(out.has("]wex_inner_recv_msg: recv peek err(ret:0, err:"));
}

TEST(InnerRecv, ReportsARecordShorterThanAHeaderAsAPeekErrorAndLeavesIt) {
  for (const size_t size : {size_t{0}, size_t{1}, size_t{267}}) {
    const socket_pair pair;
    const roomy bytes = make(1, 0);
    put(pair.there.get(), &bytes, size);
    const control::printed out;
    EXPECT_EQ(-1, receive(pair.here.get()));
    EXPECT_TRUE(out.has(text_of("recv peek err(ret:%d, err:", static_cast<int>(size))));
    EXPECT_EQ(static_cast<ssize_t>(size), queued_record(pair.here.get()));
  }
}

TEST(InnerRecv, ReportsANonSocketAsAPeekError) {
  const unique_fd file(open("/dev/null", O_RDWR | O_CLOEXEC));
  const control::printed out;
  EXPECT_EQ(-1, receive(file.get()));
  EXPECT_TRUE(out.has(text_of("recv peek err(ret:-1, err:%d,%s)!", ENOTSOCK, strerror(ENOTSOCK))));
}

TEST(InnerRecv, RefusesANegativeLengthAndLeavesTheRecord) {
  for (const int32_t length : {-1, -268, INT32_MIN}) {
    const socket_pair pair;
    const roomy bytes = make(1, length);
    put(pair.there.get(), &bytes, 300);
    const control::printed out;
    EXPECT_EQ(-1, receive(pair.here.get()));
    EXPECT_TRUE(out.has(text_of("]recv domain msg with len=%d\r\n", length)));
    EXPECT_EQ(300, queued_record(pair.here.get()));
  }
}

struct lie {
  size_t size;     // of the record
  int32_t length;  // as its header has it
};

class OverstatedLength : public ::testing::TestWithParam<lie> {};

void expect_refused(const lie& record) {
  const socket_pair pair;
  const roomy bytes = make(1, record.length);
  const roomy honest = make(5, 8);
  put(pair.there.get(), &bytes, record.size);
  put(pair.there.get(), &honest, kHeader + 8);
  const long before = resident_kib();
  const auto start = clock::now();
  const control::printed out;
  EXPECT_EQ(-1, receive(pair.here.get()));
  EXPECT_EQ(1U, occurrences(out.text(), "]wex_inner_recv_msg: recv err(ret:"));
  EXPECT_LT(seconds_since(start), 1.0) << "memory was waited for";
  EXPECT_LT(resident_kib() - before, 4096) << "memory was taken for a size that nobody sent";
  EXPECT_EQ(0, receive(pair.here.get())) << "the honest record behind it must still be there";
  EXPECT_EQ(-1, queued_record(pair.here.get()));
}

TEST_P(OverstatedLength, IsRefusedAndTakenOffTheQueue) {
  expect_refused(GetParam());
}

TEST_P(OverstatedLength, IsRefusedOnAKernelThatHidesTheSizeOfARecord) {
  g_peek_hides_size = true;
  expect_refused(GetParam());
  g_peek_hides_size = false;
}

INSTANTIATE_TEST_SUITE_P(Sizes, OverstatedLength,
                         ::testing::Values(lie{300, 40}, lie{400, 40}, lie{269, 0}, lie{268, 1}, lie{268, 8},
                                           lie{268, 320}, lie{587, 320}, lie{589, 320}, lie{4000, 320},
                                           lie{268, INT32_MAX}, lie{588, INT32_MAX},
                                           lie{588, INT32_MAX - 267}, lie{588, INT32_MAX - 268},
                                           lie{300, 0x10000000}));

TEST(InnerRecv, SurvivesInterruptionsWhileItWaits) {
  struct sigaction note = {};
  note.sa_handler = [](int) {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &note, nullptr));  // without restart flag: every signal breaks the call
  const socket_pair pair;
  const control::printed out;
  std::atomic<pthread_t> receiver{};
  auto result = calling([&] {
    receiver = pthread_self();
    return receive(pair.here.get());
  });
  EXPECT_TRUE(eventually([&] {
    if (receiver.load() != pthread_t{}) {
      pthread_kill(receiver.load(), SIGUSR1);
    }
    return out.has(text_of("recv peek broken(ret:-1, err:%d,%s)!", EINTR, strerror(EINTR)));
  }));
  const wex_inner_msg msg = {};
  put(pair.there.get(), &msg, sizeof msg);
  EXPECT_EQ(0, result.get());
}

TEST(InnerRecv, ReceivesAgainWhenAReceiveIsInterrupted) {
  const socket_pair pair;
  const roomy sent = make(2, 320);
  put(pair.there.get(), &sent, kHeader + 320);
  const control::printed out;
  g_recvmsg.fail(3, EINTR);
  EXPECT_EQ(0, receive(pair.here.get()));
  EXPECT_EQ(3U, occurrences(out.text(), text_of("]wex_inner_recv_msg: recv broken(ret:-1, err:%d,%s)!", EINTR,
                                                strerror(EINTR))));
  EXPECT_EQ(-1, queued_record(pair.here.get()));
}

TEST(InnerRecv, TellsWhyAReceiveFails) {
  const socket_pair pair;
  const roomy sent = make(2, 320);
  put(pair.there.get(), &sent, kHeader + 320);
  const control::printed out;
  g_recvmsg.fail(1, ENOMEM);
  EXPECT_EQ(-1, receive(pair.here.get()));
  EXPECT_TRUE(
      out.has(text_of("]wex_inner_recv_msg: recv err(ret:-1, err:%d,%s)!", ENOMEM, strerror(ENOMEM))));
}

TEST(InnerRecv, TakesExactlyTheHonestRecordsOutOfARandomStream) {
  std::mt19937 random(20240607);
  for (int round = 0; round < 3000; ++round) {
    const socket_pair pair;
    roomy bytes = make(static_cast<uint32_t>(random() % 7), 0);
    const size_t size = random() % 2 != 0 ? random() % 600 : kHeader + random() % 8;
    const auto honest = static_cast<int32_t>(size) - static_cast<int32_t>(kHeader);
    switch (random() % 4) {
      case 0:
        bytes.header.msg_len = static_cast<int32_t>(random());
        break;
      case 1:
        bytes.header.msg_len = static_cast<int32_t>(random() % 600);
        break;
      default:
        bytes.header.msg_len = honest;
        break;
    }
    put(pair.there.get(), &bytes, size);
    const int expected = size >= kHeader && bytes.header.msg_len == honest ? 0 : -1;
    EXPECT_EQ(expected, receive(pair.here.get())) << size << " " << bytes.header.msg_len;
  }
}

// ---- Descriptors that nobody asked for
// ----------------------------------------------------------------------

namespace {

constexpr int kLingerSec = 60;
constexpr double kAtOnce = 20;  // seconds; far below the lingering, far above what a busy machine needs

}  // namespace

TEST(InnerRecv, TakesARecordWithALingeringSocketAtOnceAndKeepsNoDescriptor) {
  for (const int32_t length : {0, 40}) {  // a good record, and one that lies about its length
    const socket_pair pair;
    const lingering_socket lingering(kLingerSec);
    wex_inner_msg record = {};
    record.msg_len = length;
    ASSERT_TRUE(send_descriptor(pair.there.get(), &record, sizeof record, lingering.take()));
    const size_t before = count_descriptors();
    const auto start = clock::now();
    EXPECT_EQ(length == 0 ? 0 : -1, receive(pair.here.get()));
    EXPECT_LT(seconds_since(start), kAtOnce);
    EXPECT_EQ(before, count_descriptors());
  }
}

TEST(InnerRecv, TakesAllDescriptorsThatARecordCanCarry) {
  const socket_pair pair;
  const int fds[kMostRights] = {};
  const wex_inner_msg record = {};
  ASSERT_TRUE(send_descriptors(pair.there.get(), &record, sizeof record, fds, kMostRights));
  const size_t before = count_descriptors();
  EXPECT_EQ(0, receive(pair.here.get()));
  EXPECT_EQ(before, count_descriptors());
}

namespace {

// 1 when the socket takes descriptors, 0 when it refuses them, -1 where the kernel does not know the option.
int takes_descriptors(const unique_fd& sd) {
  int taken = 1;
  socklen_t size = sizeof taken;
  return getsockopt(sd.get(), SOL_SOCKET, SO_PASSRIGHTS, &taken, &size) == 0 ? taken : -1;
}

}  // namespace

TEST(ControlSocket, RefusesDescriptorsWhereTheKernelCan) {
  const unique_fd sample(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const int none = 0;
  setsockopt(sample.get(), SOL_SOCKET, SO_PASSRIGHTS, &none, sizeof none);
  EXPECT_EQ(takes_descriptors(sample), takes_descriptors(wex_open_control_socket()));
}

// The record behind an empty one is discarded as well: the kernel would do it at the close, and wait.
TEST(ControlSocket, IsEmptiedBeforeItIsClosed) {
  socket_pair pair;
  const lingering_socket lingering(kLingerSec);
  const wex_inner_msg record = {};
  ASSERT_EQ(268, send(pair.there.get(), &record, sizeof record, MSG_NOSIGNAL));
  ASSERT_EQ(0, send(pair.there.get(), &record, 0, MSG_NOSIGNAL));
  ASSERT_TRUE(send_descriptor(pair.there.get(), &record, sizeof record, lingering.take()));
  const auto start = clock::now();
  close_emptied(pair.here.release());
  EXPECT_LT(seconds_since(start), kAtOnce);
  EXPECT_EQ(-1, send(pair.there.get(), &record, sizeof record, MSG_NOSIGNAL));
}

// One that lies in the queue of another local socket, and one that waits for a listener.
TEST(InnerRecv, EmptiesTheSocketsThatARecordCarries) {
  const wex_inner_msg record = {};
  {
    const socket_pair pair;
    socket_pair carried;
    const lingering_socket lingering(kLingerSec);
    ASSERT_TRUE(send_descriptor(carried.there.get(), &record, sizeof record, lingering.take()));
    ASSERT_TRUE(send_descriptor(pair.there.get(), &record, sizeof record, std::move(carried.here)));
    carried.there.reset();
    const auto start = clock::now();
    EXPECT_EQ(0, receive(pair.here.get()));
    EXPECT_LT(seconds_since(start), kAtOnce);
  }
  const socket_pair pair;
  const lingering_socket lingering(kLingerSec);
  unique_fd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address;
  const socklen_t length = wex_control_address("/tmp/carried", &address);
  ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<sockaddr*>(&address), length));
  ASSERT_EQ(0, listen(listener.get(), 1));
  unique_fd waiting(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, connect(waiting.get(), reinterpret_cast<sockaddr*>(&address), length));
  ASSERT_TRUE(send_descriptor(waiting.get(), &record, sizeof record, lingering.take()));
  waiting.reset();
  ASSERT_TRUE(send_descriptor(pair.there.get(), &record, sizeof record, std::move(listener)));
  const auto start = clock::now();
  EXPECT_EQ(0, receive(pair.here.get()));
  EXPECT_LT(seconds_since(start), kAtOnce);
  unlink("/tmp/carried");
}

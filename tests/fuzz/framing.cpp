// Control records before anybody looks into them: lengths that lie, headers cut short, queues of several.
#include <sys/socket.h>

#include "fuzz_support.h"
#include "unique_fd.h"
#include "wex_rpc.h"

namespace {

constexpr size_t kRecordMax = 2048;
constexpr int kRecordsMax = 8;

void send_records(int fd, fuzz::input& in) {
  for (int sent = 0; sent < kRecordsMax && !in.empty(); ++sent) {
    const std::string record = in.bytes(in.number<uint16_t>() % kRecordMax);
    if (!record.empty() && send(fd, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
      fuzz::refuse(strerror(errno));
    }
  }
}

// Reads every byte of what was received, which the sanitizer watches.
uint32_t sum(const wex_inner_msg& msg) {
  uint32_t total = 0;
  const auto* const bytes = reinterpret_cast<const uint8_t*>(&msg);
  for (size_t at = 0; at < sizeof msg + static_cast<size_t>(msg.msg_len); ++at) {
    total += bytes[at];
  }
  return total;
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    fuzz::refuse(strerror(errno));
  }
  unique_fd sender(ends[0]);
  const unique_fd receiver(ends[1]);
  fuzz::input in(data, size);
  send_records(sender.get(), in);
  sender.reset();
  volatile uint32_t seen = 0;
  for (int taken = 0; taken <= kRecordsMax; ++taken) {
    owned_msg msg;
    if (wex_inner_recv_msg(receiver.get(), msg.fill()) != 0) {
      break;  // as the server does, which then closes the connection
    }
    fuzz::expect(msg.get()->msg_len >= 0, "a received message has a length");
    seen = seen + sum(*msg.get());
  }
  return 0;
}

// The control server itself, and the handlers behind it, fed by clients that keep to no rule. Whatever comes,
// the next honest client must be answered, and the watchdog must get through what was registered.
#include <linux/sockios.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "chain_check.h"
#include "unique_fd.h"
#include "wex_core_notify.h"
#include "wex_core_server.h"
#include "wex_core_stop.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_rpc.h"
#include "wex_sys_alive.h"

// The watchdog may want to abort the process that a hostile registration names, and hang reports are synced.
extern "C" int kill(pid_t, int) noexcept {
  return 0;
}
extern "C" void sync() noexcept {}
// A server that is never idle must not have this machine to itself.
extern "C" int __wrap_wex_set_priority(int);
extern "C" int __wrap_wex_set_priority(int) {
  return 0;
}
// Pauses of the product's loops would be most of the time.
extern "C" int usleep(useconds_t) {
  return 0;
}

namespace {

constexpr size_t kRecordMax = 1024;
constexpr int kRecordsMax = 6;
constexpr int kAnswerMs = 5000;

// Ourselves, nobody, or no pid at all: a registration must never lead to a process of the machine.
int32_t harmless(int32_t pid) {
  switch (pid & 3) {
    case 0:
      return getpid();
    case 1:
      return pid | fuzz::kNobody;
    case 2:
      return -1 - (pid & 0xffff);
    default:
      return (pid & 4) != 0 ? 0 : INT32_MIN;
  }
}

void make_harmless(std::string* record, size_t at) {
  if (record->size() >= at + sizeof(int32_t)) {
    int32_t pid;
    memcpy(&pid, &(*record)[at], sizeof pid);
    pid = harmless(pid);
    memcpy(&(*record)[at], &pid, sizeof pid);
  }
}

std::string next_record(fuzz::input& in) {
  std::string record = in.bytes(in.number<uint16_t>() % kRecordMax);
  const bool honest = (in.number<uint8_t>() & 7) != 0;
  if (honest && record.size() >= sizeof(wex_inner_msg)) {
    const auto length = static_cast<int32_t>(record.size() - sizeof(wex_inner_msg));
    memcpy(&record[offsetof(wex_inner_msg, msg_len)], &length, sizeof length);
  }
  make_harmless(&record, sizeof(wex_inner_msg) + offsetof(wex_reg_info, pid));
  make_harmless(&record, sizeof(wex_inner_msg) + offsetof(wex_reg_info, ppid));  // also a cancellation's pid
  return record;
}

unique_fd connect_to_daemon() {
  unique_fd fd = wex_open_control_socket();
  sockaddr_un address;
  const socklen_t length = wex_control_address(kControlSocket, &address);
  for (int tries = 0; tries < kAnswerMs; ++tries) {
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0) {
      return fd;
    }
    poll(nullptr, 0, 1);
  }
  fuzz::expect(false, "the server accepts a client");
  return fd;
}

// Bytes that the server has not taken yet.
int unread(int fd) {
  int bytes = 0;
  return ioctl(fd, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

// Until the server has nothing left to read from this client: it has answered or hung up.
void ask(int fd) {
  struct {
    wex_inner_msg header;
    wex_cons_info body;
  } request = {};
  request.header.msg_type = WEX_CONS_MSG;
  request.header.msg_len = sizeof request.body;
  request.body.pid = fuzz::kNobody;
  if (send(fd, &request, sizeof request, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof request)) {
    return;  // hung up already
  }
  // Earlier requests may be acknowledged first, so an answer alone is not the end of it.
  bool answered = false;
  for (int waited = 0; !answered || unread(fd) > 0;) {
    struct pollfd input = {fd, POLLIN, 0};
    if (poll(&input, 1, 1) == 0) {
      fuzz::expect(++waited < kAnswerMs, "the server answers or hangs up");
      continue;
    }
    char answer[512];
    const ssize_t got = recv(fd, answer, sizeof answer, 0);
    if (got <= 0) {
      return;
    }
    fuzz::expect(got == static_cast<ssize_t>(sizeof(wex_inner_msg)), "an answer is a bare header");
    answered = true;
  }
}

void expect_service() {
  const unique_fd honest = connect_to_daemon();
  ask(honest.get());
  fuzz::expect(wex_exit_flag.load() == 0, "no client ends the daemon");
}

void forget_all() {
  wex_destroy_chains(&wex_chains);
  wex_destroy_chains(&wex_alive_chains);
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  fuzz::make_directory("/tmp/wex");
  wex_init_chains(&wex_chains);
  wex_init_chains(&wex_alive_chains);
  wex_init_chains(&wex_chains_delay);
  if (wex_sys_init_alive_info(1) != 0) {
    fuzz::refuse("no alive table");
  }
  pthread_t server;
  if (pthread_create(&server, nullptr, wex_process_domain, nullptr) != 0) {
    fuzz::refuse("no thread");
  }
  pthread_detach(server);
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  fuzz::say(in.number<uint8_t>() % 2 != 0 ? 0 : WEX_DBG_SILENT);
  {
    const unique_fd client = connect_to_daemon();
    for (int sent = 0; sent < kRecordsMax && !in.empty(); ++sent) {
      const std::string record = next_record(in);
      if (!record.empty() && send(client.get(), record.data(), record.size(), MSG_NOSIGNAL) < 0) {
        break;
      }
    }
    ask(client.get());
  }
  expect_service();
  wex_scan_alive_chains();
  fuzz::expect_sound(wex_chains);
  fuzz::expect_sound(wex_alive_chains);
  if (wex_chains.count + wex_alive_chains.count > 0) {
    forget_all();
  }
  return 0;
}

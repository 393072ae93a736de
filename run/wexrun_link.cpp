// wexrun_link: a connection to the daemon whose answers are known to be the right ones.
//
// The socket has no address of its own: no program looks at a client's address, and its file would stay
// behind.
#include "wexrun_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "received_descriptors.h"
#include "text_buffer.h"
#include "waiting.h"
#include "wex_paths.h"
#include "wex_rpc.h"

namespace {

bool may_come(int cause) {
  return cause == ENOENT || cause == ECONNREFUSED || cause == EAGAIN || cause == EINTR;
}

// A daemon that is stopped, or busy with a long restart, takes no connection once its queue is full.
// connect() would wait for it without end: it answers EAGAIN instead. A record of ours finds room in a new
// connection.
unique_fd open_nonblocking_socket() {
  unique_fd sd = wex_open_control_socket();
  if (sd.valid()) {
    fcntl(sd.get(), F_SETFL, fcntl(sd.get(), F_GETFL) | O_NONBLOCK);
  }
  return sd;
}

bool readable_within(int sd, int wait_ms) {
  const int64_t end = wex_clock_ms() + wait_ms;
  pollfd entry = {sd, POLLIN, 0};
  for (;;) {
    const int64_t left = end - wex_clock_ms();
    const int ready = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready != -1 || errno != EINTR) {
      errno = ready == 0 ? ETIMEDOUT : errno;
      return ready > 0;
    }
  }
}

}  // namespace

bool control_link::open(int tries) noexcept {
  sockaddr_un daemon;
  const socklen_t length = wex_control_address(kControlSocket, &daemon);
  sd_ = open_nonblocking_socket();
  for (int tried = 1; sd_.valid(); ++tried) {
    if (connect(sd_.get(), reinterpret_cast<const sockaddr*>(&daemon), length) == 0) {
      return true;
    }
    const int cause = errno;
    if (!may_come(cause) || tried >= tries) {
      disconnect();
      errno = cause;
      return false;
    }
    safe_sleep(1);
  }
  return false;
}

void control_link::disconnect() noexcept {
  if (sd_.valid()) {
    close_emptied(sd_.release());
  }
}

bool control_link::send(uint32_t type, const char* name, const void* body, uint32_t length) noexcept {
  struct {
    wex_inner_msg head;
    wex_reg_info body;
  } message = {};
  static_assert(sizeof message == sizeof(wex_inner_msg) + sizeof(wex_reg_info), "one record, without gaps");
  if (length > sizeof message.body) {
    errno = EMSGSIZE;
    return false;
  }
  message.head.msg_type = type;
  message.head.msg_len = static_cast<int32_t>(length);
  if (name != nullptr) {
    wex_copy_text(message.head.name, sizeof message.head.name, name);
  }
  memcpy(&message.body, body, length);
  return wex_inner_send_msg(sd_.get(), &message.head) == 0;
}

bool control_link::ask(uint32_t type, const char* name, const void* body, uint32_t length,
                       int wait_ms) noexcept {
  if (!send(type, name, body, length) || !readable_within(sd_.get(), wait_ms)) {
    return false;
  }
  owned_msg answer;
  return wex_inner_recv_msg(sd_.get(), answer.fill()) == 0;
}

// wexrun_notify: the socket on which a program reports its state, as sd_notify(3) describes it.
//
// Its address is an abstract one: it needs no directory, and nothing of it stays when wexrun is killed.
// Anybody may send there, so the kernel is asked who did.
#include "wexrun_notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "ras_os.h"
#include "received_descriptors.h"
#include "text_buffer.h"
#include "unique_fd.h"
#include "wex_paths.h"
#include "wex_utils.h"
#include "wexrun_limits.h"

namespace {

unique_fd open_datagram_socket() {
  unique_fd sd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sd.valid() && errno == EINVAL) {  // kernels before 2.6.27 do not know the flag
    sd.reset(socket(AF_UNIX, SOCK_DGRAM, 0));
    ras_os_set_fd_close_on_exec(sd.get());
  }
  return sd;
}

// Set by the kernel; 0 when it told nothing.
pid_t sender_of(msghdr& how) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&how); part != nullptr; part = CMSG_NXTHDR(&how, part)) {
    if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_CREDENTIALS &&
        part->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
      ucred who = {};
      memcpy(&who, CMSG_DATA(part), sizeof who);
      return who.pid;
    }
  }
  return 0;
}

// 0 when the process is gone.
pid_t parent_of(pid_t pid) {
  char path[kPathSize];
  char text[512];
  int parent = 0;
  wex_format(path, sizeof path, kProcStatFmt, static_cast<int>(pid));
  const char* const name_end = wex_read_to_buf(path, text, sizeof text) > 0 ? strrchr(text, ')') : nullptr;
  return name_end != nullptr && sscanf(name_end, ") %*c %d", &parent) == 1 ? parent : 0;
}

}  // namespace

// The kernel chooses the address: five hexadecimal digits behind a zero byte.
bool notify_socket::open() noexcept {
  const int on = 1;
  sockaddr_un own = {};
  own.sun_family = AF_UNIX;
  socklen_t length = sizeof own.sun_family;
  sd_ = open_datagram_socket();
  if (!sd_.valid() || setsockopt(sd_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
      bind(sd_.get(), reinterpret_cast<const sockaddr*>(&own), length) != 0) {
    return false;
  }
  length = sizeof own;
  if (getsockname(sd_.get(), reinterpret_cast<sockaddr*>(&own), &length) != 0) {
    return false;
  }
  const size_t digits = length - offsetof(sockaddr_un, sun_path) - 1;
  return wex_format(address_, sizeof address_, "@%.*s", static_cast<int>(digits), own.sun_path + 1);
}

// Descriptors that come along are closed behind the message: that is what BARRIER=1 waits for.
bool notify_socket::take_one(notification_reader& reader) noexcept {
  char text[kNotifySize + 1];
  iovec part = {text, kNotifySize};
  msghdr how = {};
  how.msg_iov = &part;
  how.msg_iovlen = 1;
  received_descriptors unwanted(how);
  const ssize_t got = recvmsg(sd_.get(), &how, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (got == -1) {
    unwanted.none();
    return errno == EINTR;
  }
  text[got] = '\0';
  if ((how.msg_flags & MSG_TRUNC) == 0) {
    reader.take(sender_of(how), text);
  }
  return true;
}

void notify_socket::drain(notification_reader& reader) noexcept {
  for (int taken = 0; taken < kNotifyAtOnce && take_one(reader); ++taken) {
  }
}

bool descends_from(pid_t pid, pid_t ancestor) {
  for (int generation = 0; generation < kAncestors && pid > 1; ++generation) {
    if (pid == ancestor) {
      return true;
    }
    pid = parent_of(pid);
  }
  return false;
}

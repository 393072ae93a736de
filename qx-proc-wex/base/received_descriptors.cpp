#include "received_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int kDeepest = 8;  // the kernel lets local sockets lie in each other's queues four deep

bool is_local_socket(int fd) {
  sockaddr_storage name = {};
  socklen_t size = sizeof name;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size) == 0 && name.ss_family == AF_UNIX;
}

void close_received(int fd, int depth) {
  if (depth < kDeepest && is_local_socket(fd)) {
    close_emptied(fd, depth + 1);
    return;
  }
  const linger at_once = {0, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);  // of no effect on what is no socket
  close(fd);
}

// Connections that wait for a listener hold queues of their own.
void close_waiting(int sd, int depth) {
  int listens = 0;
  socklen_t size = sizeof listens;
  if (depth >= kDeepest || getsockopt(sd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0) {
    return;
  }
  fcntl(sd, F_SETFL, O_NONBLOCK);
  for (int waiting; (waiting = accept(sd, nullptr, nullptr)) >= 0;) {
    close_emptied(waiting, depth + 1);
  }
}

// Takes one record off the queue and closes the descriptors in it. False when the queue was empty: a record,
// also one without bytes, brings at least its sender's credentials, which close_emptied() asks for.
bool discard_record(int sd, int depth) {
  char bytes[1024];
  iovec part = {bytes, sizeof bytes};
  msghdr how = {};
  how.msg_iov = &part;
  how.msg_iovlen = 1;
  received_descriptors unwanted(how, depth);
  if (recvmsg(sd, &how, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) == -1) {
    unwanted.none();
    return errno == EINTR;
  }
  return unwanted.any();
}

}  // namespace

received_descriptors::received_descriptors(msghdr& how, int depth) noexcept : how_(how), depth_(depth) {
  how.msg_control = room_;
  how.msg_controllen = sizeof room_;
}

received_descriptors::~received_descriptors() {
  const int cause = errno;
  for (cmsghdr* part = CMSG_FIRSTHDR(&how_); part != nullptr; part = CMSG_NXTHDR(&how_, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
      continue;
    }
    const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t at = 0; at < count; ++at) {
      int fd = -1;
      memcpy(&fd, CMSG_DATA(part) + at * sizeof fd, sizeof fd);
      close_received(fd, depth_);
    }
  }
  errno = cause;
}

// Shut first, so that nothing is added while the queue is emptied. The sender's credentials, which the kernel
// adds to every record from then on, tell an empty record from the end of the queue.
void close_emptied(int sd, int depth) {
  const int cause = errno;
  const int on = 1;
  shutdown(sd, SHUT_RD);
  close_waiting(sd, depth);
  setsockopt(sd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  while (discard_record(sd, depth)) {
  }
  close(sd);
  errno = cause;
}

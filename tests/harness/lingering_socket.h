// A TCP socket whose last close blocks: it lingers, and holds data that nobody will ever fetch.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

#include "unique_fd.h"

class lingering_socket {
 public:
  explicit lingering_socket(int seconds)
      : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
        sender_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(0, bind(listener_.get(), any, length));
    EXPECT_EQ(0, listen(listener_.get(), 1));
    EXPECT_EQ(0, getsockname(listener_.get(), any, &length));
    EXPECT_EQ(0, connect(sender_.get(), any, length));
    fcntl(sender_.get(), F_SETFL, O_NONBLOCK);
    char bytes[65536] = {};
    while (send(sender_.get(), bytes, sizeof bytes, MSG_NOSIGNAL) > 0) {
    }
    EXPECT_EQ(EAGAIN, errno);
    fcntl(sender_.get(), F_SETFL, 0);  // the wait at the close is that of a blocking socket
    const linger end = {1, seconds};
    EXPECT_EQ(0, setsockopt(sender_.get(), SOL_SOCKET, SO_LINGER, &end, sizeof end));
  }
  // The only descriptor of it. The other end stays open, and silent, as long as this object lives.
  unique_fd take() const { return std::move(sender_); }

 private:
  unique_fd listener_;
  mutable unique_fd sender_;
};

// Sends a record with descriptors, at most kMostRights. False with errno.
constexpr size_t kMostRights = 253;  // the kernel takes no more

inline bool send_descriptors(int sd, const void* record, size_t size, const int* fds, size_t count) {
  iovec part = {const_cast<void*>(record), size};
  alignas(cmsghdr) char room[CMSG_SPACE(kMostRights * sizeof(int))] = {};
  msghdr how = {};
  how.msg_iov = &part;
  how.msg_iovlen = 1;
  how.msg_control = room;
  how.msg_controllen = CMSG_SPACE(count * sizeof *fds);
  cmsghdr* const rights = CMSG_FIRSTHDR(&how);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(count * sizeof *fds);
  memcpy(CMSG_DATA(rights), fds, count * sizeof *fds);
  return sendmsg(sd, &how, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

// The same with one descriptor, which is closed here.
inline bool send_descriptor(int sd, const void* record, size_t size, unique_fd descriptor) {
  const int fd = descriptor.get();
  const bool sent = send_descriptors(sd, record, size, &fd, 1);
  if (!sent) {  // the close below is the last one, and the test must not wait for it
    const int cause = errno;
    const linger at_once = {0, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    errno = cause;
  }
  return sent;
}

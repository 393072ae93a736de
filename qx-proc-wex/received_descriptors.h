// Descriptors that somebody sent along with a record. Nobody here wants any, but the kernel closes what a
// receiver does not take, in the receiver's thread: the last close of a TCP socket that lingers blocks for as
// long as its sender chose. So they are received, the lingering is taken off, and they are closed.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

// Of Linux 6.16: whether a socket takes descriptors at all. The number of all architectures but parisc,
// sparc.
#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

class received_descriptors {
 public:
  // `how` receives its ancillary data here.
  explicit received_descriptors(msghdr& how) noexcept : how_(how) {
    how.msg_control = room_;
    how.msg_controllen = sizeof room_;
  }
  received_descriptors(const received_descriptors&) = delete;
  received_descriptors& operator=(const received_descriptors&) = delete;
  ~received_descriptors() {
    const int cause = errno;
    for (cmsghdr* part = CMSG_FIRSTHDR(&how_); part != nullptr; part = CMSG_NXTHDR(&how_, part)) {
      if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS) {
        close_all(*part);
      }
    }
    errno = cause;
  }
  // Nothing came: the receiving call failed and left the room as it was.
  void none() noexcept { how_.msg_controllen = 0; }
  // Some ancillary data came.
  bool any() const noexcept { return how_.msg_controllen != 0; }

 private:
  static constexpr size_t kMost = 253;  // descriptors that the kernel lets one record carry

  static void close_all(cmsghdr& part) noexcept {
    const size_t count = (part.cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t at = 0; at < count; ++at) {
      int fd = -1;
      memcpy(&fd, CMSG_DATA(&part) + at * sizeof fd, sizeof fd);
      const linger at_once = {0, 0};
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);  // of no effect on what is no socket
      ::close(fd);
    }
  }

  msghdr& how_;
  alignas(cmsghdr) char room_[CMSG_SPACE(kMost * sizeof(int)) + CMSG_SPACE(sizeof(ucred))];
};

// received_descriptors: descriptors that somebody sent along with a record. The daemon uses none, but the
// kernel closes what a receiver does not take, in the receiver's thread, and the last close of a TCP socket
// that lingers blocks for as long as its sender chose. So they are received, the lingering is taken off, and
// they are closed; a local socket among them is emptied before, for its queue may hold more such descriptors.
//
// Not covered: a file of a file system that a user's program serves, whose last close may block as well.
// Since Linux 6.16 no descriptors are received at all.
#pragma once

#include <sys/socket.h>

#include <cstddef>

// Of Linux 6.16: whether a socket takes descriptors at all. The number of all architectures but parisc,
// sparc.
#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

// While it lives, `how` receives its ancillary data here; descriptors in it are closed in the end.
class received_descriptors {
 public:
  // `depth`: how many queues of local sockets this record lies in.
  explicit received_descriptors(msghdr& how, int depth = 0) noexcept;
  received_descriptors(const received_descriptors&) = delete;
  received_descriptors& operator=(const received_descriptors&) = delete;
  ~received_descriptors();

  // The receiving call failed and left the room as it was.
  void none() noexcept { how_.msg_controllen = 0; }
  // Some ancillary data came.
  bool any() const noexcept { return how_.msg_controllen != 0; }

 private:
  static constexpr size_t kMost = 253;  // descriptors that the kernel lets one record carry

  msghdr& how_;
  int depth_;
  alignas(cmsghdr) char room_[CMSG_SPACE(kMost * sizeof(int)) + CMSG_SPACE(sizeof(ucred))];
};

// Closes a local socket whose queue is empty by then, whatever it held. Keeps errno. Not for a socket that
// another process uses, too.
void close_emptied(int sd, int depth = 0);

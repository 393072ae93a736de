/* The floor of the control channel: answers each request of 588 bytes with one of 268, and does nothing else.
 * Usage: answer SOCKET */
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "bench.h"

enum { REPLY = 268, BACKLOG = 64 };

static int listen_at(const char* path) {
  struct sockaddr_un address;
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  if (fd < 0 || bind(fd, (const struct sockaddr*)&address, sizeof address) != 0 || listen(fd, BACKLOG) != 0) {
    perror(path);
    exit(1);
  }
  return fd;
}

static void add(int set, int fd) {
  struct epoll_event event;
  memset(&event, 0, sizeof event);
  event.events = EPOLLIN;
  event.data.fd = fd;
  epoll_ctl(set, EPOLL_CTL_ADD, fd, &event);
}

static void serve(int fd) {
  static const char reply[REPLY];
  char bytes[4096];
  if (recv(fd, bytes, sizeof bytes, 0) <= 0 || send(fd, reply, sizeof reply, MSG_NOSIGNAL) != REPLY) {
    close(fd);
  }
}

int main(int argc, char** argv) {
  const int set = epoll_create1(EPOLL_CLOEXEC);
  const int listener = argc == 2 ? listen_at(argv[1]) : -1;
  if (set < 0 || listener < 0) {
    return 1;
  }
  add(set, listener);
  for (;;) {
    struct epoll_event events[BACKLOG];
    const int count = epoll_wait(set, events, BACKLOG, -1);
    int i;
    for (i = 0; i < count; ++i) {
      if (events[i].data.fd == listener) {
        add(set, accept4(listener, NULL, NULL, SOCK_CLOEXEC));
      } else {
        serve(events[i].data.fd);
      }
    }
  }
}

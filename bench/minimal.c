/* The least that can restart a program: process connector, fork, exec, nothing else. What the restart
 * benchmark compares with. Usage: minimal COUNT program fifo: keeps COUNT instances of "program fifo NUMBER"
 * alive. */
#include <linux/netlink.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

enum { MAX = 1024, CONNECTOR = 11, EVENT_AT = 36, PID_AT = 52, TGID_AT = 56 };

static pid_t start(char* program, char* fifo, int number) {
  char text[16];
  char* argv[4];
  pid_t pid;
  snprintf(text, sizeof text, "%d", number);
  argv[0] = program;
  argv[1] = fifo;
  argv[2] = text;
  argv[3] = NULL;
  pid = fork();
  if (pid == 0) {
    execv(program, argv);
    _exit(1);
  }
  return pid;
}

static int subscribe(void) {
  const uint32_t request[10] = {40, NLMSG_DONE, 0, 0, 1, 1, 0, 0, 4, 1};
  struct sockaddr_nl address;
  int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, CONNECTOR);
  memset(&address, 0, sizeof address);
  address.nl_family = AF_NETLINK;
  address.nl_groups = 1;
  if (fd < 0 || bind(fd, (struct sockaddr*)&address, sizeof address) != 0 ||
      send(fd, request, sizeof request, 0) != (ssize_t)sizeof request) {
    perror("process connector");
    exit(1);
  }
  return fd;
}

int main(int argc, char** argv) {
  pid_t pids[MAX];
  int count = argc == 4 ? atoi(argv[1]) : 0;
  int fd;
  int i;
  if (count < 1 || count > MAX) {
    return 1;
  }
  signal(SIGCHLD, SIG_IGN);
  fd = subscribe();
  for (i = 0; i < count; ++i) {
    pids[i] = start(argv[2], argv[3], i);
  }
  for (;;) {
    char bytes[1024];
    uint32_t kind;
    int32_t pid;
    int32_t tgid;
    if (recv(fd, bytes, sizeof bytes, 0) < 64) {
      continue;
    }
    memcpy(&kind, bytes + EVENT_AT, sizeof kind);
    memcpy(&pid, bytes + PID_AT, sizeof pid);
    memcpy(&tgid, bytes + TGID_AT, sizeof tgid);
    for (i = 0; kind == 0x80000000u && pid == tgid && i < count; ++i) {
      if (pids[i] == pid) {
        pids[i] = start(argv[2], argv[3], i);
      }
    }
  }
}

/* The least that keeps programs running: what every supervisor is compared with.
 * Usage: floor wait|connector COUNT SERVICE TABLE
 *   wait       learns of a death from waitpid; vfork, exec
 *   connector  learns of it from the kernel's process connector, as wex does; vfork, exec */
#include <linux/filter.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "bench.h"

enum { CONNECTOR = 11, KIND_AT = 36, PID_AT = 52, TGID_AT = 56, LEAST_EVENT = 64, BUFFER = 2097152 };
#define KIND_EXIT 0x80000000u

static char* service;
static char* table;
static int* number_of; /* by pid: the service's number and one, 0 when the pid is not one of ours */
static int pids;

static pid_t begin(char* number) {
  char* argv[4];
  pid_t pid;
  argv[0] = service;
  argv[1] = table;
  argv[2] = number;
  argv[3] = NULL;
  pid = vfork();
  if (pid == 0) {
    signal(SIGCHLD, SIG_DFL);
    setsid();
    execv(service, argv);
    _exit(127);
  }
  return pid;
}

static void start(int number) {
  char text[16];
  pid_t pid;
  snprintf(text, sizeof text, "%d", number);
  while ((pid = begin(text)) < 0) {
    usleep(1000);
  }
  if (pid < pids) {
    number_of[pid] = number + 1;
  }
}

static void start_again(pid_t pid) {
  if (pid > 0 && pid < pids && number_of[pid] > 0) {
    const int number = number_of[pid] - 1;
    number_of[pid] = 0;
    start(number);
  }
}

static void wait_for_deaths(void) {
  for (;;) {
    int status;
    start_again(waitpid(-1, &status, 0));
  }
}

/* Only exit events pass: the kind, which BPF loads in network order, is compared in that order. */
static int pass_exits_only(int fd) {
  struct sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? KIND_AT + 3 : KIND_AT),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, KIND_EXIT >> 24, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xffffffff),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  struct sock_fprog filter;
  filter.len = sizeof program / sizeof program[0];
  filter.filter = program;
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

static int subscribe(void) {
  const uint32_t request[10] = {40, NLMSG_DONE, 0, 0, 1, 1, 0, 0, 4, 1};
  const int size = BUFFER;
  struct sockaddr_nl address;
  const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, CONNECTOR);
  memset(&address, 0, sizeof address);
  address.nl_family = AF_NETLINK;
  address.nl_groups = 1;
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0 ||
      pass_exits_only(fd) != 0 || bind(fd, (struct sockaddr*)&address, sizeof address) != 0 ||
      send(fd, request, sizeof request, 0) != (ssize_t)sizeof request) {
    perror("floor: process connector");
    exit(1);
  }
  return fd;
}

static void read_exits(int fd) {
  for (;;) {
    char bytes[1024];
    uint32_t kind;
    int32_t pid;
    int32_t tgid;
    if (recv(fd, bytes, sizeof bytes, 0) < LEAST_EVENT) {
      continue;
    }
    memcpy(&kind, bytes + KIND_AT, sizeof kind);
    memcpy(&pid, bytes + PID_AT, sizeof pid);
    memcpy(&tgid, bytes + TGID_AT, sizeof tgid);
    if (kind == KIND_EXIT && pid == tgid) {
      start_again(pid);
    }
  }
}

static int most_pids(void) {
  FILE* file = fopen("/proc/sys/kernel/pid_max", "re");
  int most = 0;
  if (file == NULL || fscanf(file, "%d", &most) != 1) {
    most = 4194304;
  }
  if (file != NULL) {
    fclose(file);
  }
  return most + 1;
}

int main(int argc, char** argv) {
  int connector;
  int fd = -1;
  int i;
  if (argc != 5) {
    return 1;
  }
  connector = strcmp(argv[1], "connector") == 0;
  service = argv[3];
  table = argv[4];
  pids = most_pids();
  number_of = calloc((size_t)pids, sizeof *number_of);
  if (number_of == NULL) {
    return 1;
  }
  if (connector) {
    signal(SIGCHLD, SIG_IGN); /* the kernel reaps */
    fd = subscribe();
  }
  for (i = 0; i < atoi(argv[2]); ++i) {
    start(i);
  }
  if (connector) {
    read_exits(fd);
  }
  wait_for_deaths();
}

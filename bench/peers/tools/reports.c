/* What one report of a supervised thread costs: nanoseconds a call, means of batches, as JSON.
 * Usage: reports floor BATCHES               a byte in shared memory, and a datagram from a new socket as
 * readiness protocols send it reports wex BATCHES ROOT LIBRARY    wex_client_reset_thread_notify beside a
 * daemon on this root, without and with the file that exempts threads */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include "bench.h"

enum { CALLS = 100, MOST_BATCHES = 10000 };

typedef int (*thread_call)(int pid, int tid, int seconds, int count);
typedef int (*report_call)(void);

static uint64_t times[MOST_BATCHES];

static int measure(const char* name, report_call report, size_t batches, const char* behind) {
  size_t i;
  int calls;
  for (i = 0; i < batches; ++i) {
    const uint64_t begin = bench_now();
    for (calls = 0; calls < CALLS; ++calls) {
      if (report() != 0) {
        fprintf(stderr, "reports: %s failed\n", name);
        return -1;
      }
    }
    times[i] = (bench_now() - begin) * 1000 / CALLS; /* thousandths of a nanosecond */
  }
  qsort(times, batches, sizeof *times, bench_by_size);
  printf("\"%s\": {\"median\": %.1f, \"p99\": %.1f, \"max\": %.1f}%s", name,
         bench_quantile(times, batches, 50), bench_quantile(times, batches, 99),
         bench_quantile(times, batches, 100), behind);
  return 0;
}

/* ---- Floors ---------------------------------------------------------------------------------------------
 */

static volatile unsigned char* byte;
static struct sockaddr_un receiver;

static int bump(void) {
  *byte = (unsigned char)(*byte + 1);
  return 0;
}

static int notify(void) {
  static const char text[] = "WATCHDOG=1";
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const ssize_t sent =
      sendto(fd, text, sizeof text - 1, MSG_NOSIGNAL, (struct sockaddr*)&receiver, sizeof receiver);
  close(fd);
  return sent == (ssize_t)sizeof text - 1 ? 0 : -1;
}

/* An address without a name in the file system; a child reads until the last word. */
static int make_receiver(void) {
  char bytes[64];
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  receiver.sun_family = AF_UNIX;
  snprintf(receiver.sun_path + 1, sizeof receiver.sun_path - 1, "bench.reports.%d", (int)getpid());
  if (fd < 0 || bind(fd, (struct sockaddr*)&receiver, sizeof receiver) != 0) {
    return -1;
  }
  if (fork() == 0) {
    while (recv(fd, bytes, sizeof bytes, 0) != 3) { /* "end" */
    }
    _exit(0);
  }
  close(fd);
  return 0;
}

static int floors(size_t batches) {
  int bad;
  byte = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (byte == MAP_FAILED || make_receiver() != 0) {
    return 1;
  }
  bad = measure("byte", bump, batches, ", ") != 0 || measure("datagram", notify, batches, "") != 0;
  bad |=
      sendto(socket(AF_UNIX, SOCK_DGRAM, 0), "end", 3, 0, (struct sockaddr*)&receiver, sizeof receiver) != 3;
  return bad;
}

/* ---- wex ------------------------------------------------------------------------------------------------
 */

static const char exempt_file[] = "/data/.wex_debug_pid";
static thread_call reset;
static int own_pid;
static int own_tid; /* asked for once, as a thread that reports for years does */

static int report_to_wex(void) {
  return reset(own_pid, own_tid, 60, 5);
}

static int write_exempt_file(void) {
  FILE* file = fopen(exempt_file, "we");
  int i;
  for (i = 0; file != NULL && i < 10; ++i) {
    fprintf(file, "1234567\n");
  }
  return file != NULL && fclose(file) == 0 ? 0 : -1;
}

static int wex(size_t batches, const char* root, const char* path) {
  void* library;
  thread_call enter;
  int bad;
  if (chroot(root) != 0 || chdir("/") != 0 || (library = dlopen(path, RTLD_NOW)) == NULL) {
    perror(root);
    return 1;
  }
  *(void**)&enter = dlsym(library, "wex_client_reg_thread_notify");
  *(void**)&reset = dlsym(library, "wex_client_reset_thread_notify");
  own_pid = (int)getpid();
  own_tid = (int)syscall(SYS_gettid);
  if (enter == NULL || reset == NULL || enter(own_pid, own_tid, 60, 5) != 0) {
    return 1;
  }
  bad = measure("wex", report_to_wex, batches, ", ") != 0 || write_exempt_file() != 0 ||
        measure("wex with ten exempt", report_to_wex, batches, "") != 0;
  unlink(exempt_file);
  return bad;
}

int main(int argc, char** argv) {
  const size_t batches = argc > 2 ? strtoul(argv[2], NULL, 10) : 0;
  int bad = 1;
  /* What a library prints belongs to standard error: standard output holds the figures. */
  const int figures = dup(STDOUT_FILENO);
  if (batches == 0 || batches > MOST_BATCHES || figures < 0) {
    return 1;
  }
  setvbuf(stdout, NULL, _IOFBF, 65536);
  printf("{");
  dup2(STDERR_FILENO, STDOUT_FILENO);
  if (strcmp(argv[1], "floor") == 0) {
    bad = floors(batches);
  } else if (argc == 5) {
    bad = wex(batches, argv[3], argv[4]);
  }
  dup2(figures, STDOUT_FILENO);
  printf("}\n");
  return bad;
}

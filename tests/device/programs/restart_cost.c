/* What the restart of one service (stamp FILE) costs.
 *
 *   restart_cost instructions FILE    prints the instructions from its SIGKILL to the main() of its
 * replacement, of the whole device; only where the clock counts instructions, and on MIPS restart_cost calls
 * FILE DAEMON    prints how many system calls the daemon and its child made meanwhile, and in the half second
 * after the replacement was executed */
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { LIMIT_MS = 200000, AFTER_MS = 500, ENTERS_CALL = 1 };

static const char* file_name;

static long long now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

static void sleep_ms(long ms) {
  struct timespec left;
  left.tv_sec = 0;
  left.tv_nsec = ms * 1000000;
  nanosleep(&left, NULL);
}

static void give_up(const char* what) {
  fprintf(stderr, "restart_cost: %s: %s\n", what, strerror(errno));
  exit(1);
}

/* The pid of the service, and when its main() began. */
static pid_t service(long long* began) {
  FILE* file = fopen(file_name, "r");
  int pid = 0;
  if (file == NULL || fscanf(file, "%d %lld", &pid, began) != 2 || pid <= 1) {
    give_up(file_name);
  }
  fclose(file);
  return pid;
}

/* How long the clock says that ten million instructions take: the kernel learns the speed of the clock at its
 * start, by a battery-driven one that does not count instructions. */
static long long ten_million_instructions(void) {
  const long long begin = now_ns();
#ifdef __mips__
  long left = 3333333;
  __asm__ volatile(
      ".set push\n.set noreorder\n"
      "1: addiu %0, %0, -1\n"
      "bnez %0, 1b\n"
      "nop\n"
      ".set pop"
      : "+r"(left));
#endif
  return now_ns() - begin;
}

static long long restart_instructions(void) {
  const long long unit = ten_million_instructions();
  long long began;
  const pid_t pid = service(&began);
  const long long killed = now_ns();
  kill(pid, SIGKILL);
  do {
    sleep_ms(50); /* the processor is the daemon's meanwhile */
    if (now_ns() - killed > LIMIT_MS * 1000000LL) {
      give_up("not restarted");
    }
  } while (service(&began) == pid);
  return (long long)((double)(began - killed) * 1e7 / (double)unit);
}

/* Every thread that the daemon has now, and from here on what it starts. */
static void trace(const char* daemon) {
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                       PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;
  char path[64];
  const struct dirent* entry;
  DIR* directory;
  snprintf(path, sizeof path, "/proc/%s/task", daemon);
  directory = opendir(path);
  while (directory != NULL && (entry = readdir(directory)) != NULL) {
    const pid_t thread = atoi(entry->d_name);
    if (thread > 0 && (ptrace(PTRACE_SEIZE, thread, NULL, (void*)options) != 0 ||
                       ptrace(PTRACE_INTERRUPT, thread, NULL, NULL) != 0)) {
      give_up(path);
    }
  }
  if (directory == NULL) {
    give_up(path);
  }
  closedir(directory);
}

static int enters_call(pid_t thread) {
  struct __ptrace_syscall_info about;
  memset(&about, 0, sizeof about);
  return ptrace(PTRACE_GET_SYSCALL_INFO, thread, (void*)sizeof about, &about) > 0 && about.op == ENTERS_CALL;
}

/* Lets one stopped thread go on. 1 when it was about to make a system call; *executed becomes true at an
 * exec, and what a replacement does is not counted. */
static int handle_stop(pid_t thread, int status, int* executed) {
  const int event = status >> 16;
  const int reason = WSTOPSIG(status);
  int calls = 0;
  if (event == PTRACE_EVENT_EXEC) {
    *executed = 1;
    ptrace(PTRACE_DETACH, thread, NULL, NULL);
    return 0;
  }
  if (reason == (SIGTRAP | 0x80)) {
    calls = enters_call(thread);
  }
  ptrace(PTRACE_SYSCALL, thread, NULL, (void*)(long)(event != 0 || reason == (SIGTRAP | 0x80) ? 0 : reason));
  return calls;
}

/* Counts until so long after *executed has become true, or for `ms` when it is true from the start. */
static int count_calls(int executed, long ms) {
  long long since = now_ns();
  int calls = 0;
  for (;;) {
    const int before = executed;
    int status;
    const pid_t thread = waitpid(-1, &status, __WALL | WNOHANG);
    if (thread > 0 && WIFSTOPPED(status)) {
      calls += handle_stop(thread, status, &executed);
    } else if (thread <= 0) {
      sleep_ms(1);
    }
    if (executed != before) {
      since = now_ns();
    }
    if (now_ns() - since > (executed ? ms : LIMIT_MS) * 1000000LL) {
      if (!executed) {
        give_up("not restarted");
      }
      return calls;
    }
  }
}

static int restart_calls(const char* daemon) {
  long long began;
  trace(daemon);
  count_calls(1, AFTER_MS); /* all threads are on their way, and what they did is left out */
  kill(service(&began), SIGKILL);
  return count_calls(0, AFTER_MS);
}

int main(int argc, char** argv) {
  if (argc < 3) {
    return 1;
  }
  file_name = argv[2];
  if (argc == 4 && strcmp(argv[1], "calls") == 0) {
    printf("%d\n", restart_calls(argv[3]));
  } else {
    printf("%lld\n", restart_instructions());
  }
  return 0;
}

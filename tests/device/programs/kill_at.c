/* SIGKILL at one certain moment: when a process is about to make its N-th call that changes a file, sends
 * something, or begins a process. The daemon's pwrite() is left out: it keeps the status table fresh, for
 * ever, and each daemon makes that table anew.
 *
 *   kill_at N daemon DAEMON SIGNAL PID    the daemon, which has the process DAEMON, after PID got the SIGNAL
 *   kill_at N start PROGRAM [WORD...]     a program from its start on, at the latest when it rests
 *
 * Prints the call. Status 0: it was killed there. 3: it made fewer; then the daemon lives on. */
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { RESTS_MS = 1500, AT_FIRST_MS = 10000, ALL_S = 100, ENTERS_CALL = 1, MADE_FEWER = 3 };

static const struct {
  long number;
  const char* name;
} kChanges[] = {
    {SYS_write, "write"},
    {SYS_writev, "writev"},
    {SYS_unlinkat, "unlinkat"},
    {SYS_linkat, "linkat"},
    {SYS_mkdirat, "mkdirat"},
    {SYS_ftruncate, "ftruncate"},
    {SYS_fsync, "fsync"},
    {SYS_fchmod, "fchmod"},
    {SYS_fchmodat, "fchmodat"},
    {SYS_sendto, "sendto"},
    {SYS_sendmsg, "sendmsg"},
    {SYS_clone, "clone"},
    {SYS_execve, "execve"},
    {SYS_clone3, "clone3"},
#ifdef SYS_ftruncate64
    {SYS_ftruncate64, "ftruncate64"},
#endif
#ifdef SYS_fork
    {SYS_fork, "fork"},
#endif
#ifdef SYS_vfork
    {SYS_vfork, "vfork"},
#endif
#ifdef SYS_send
    {SYS_send, "send"},
#endif
#ifdef SYS_unlink
    {SYS_unlink, "unlink"},
#endif
#ifdef SYS_link
    {SYS_link, "link"},
#endif
#ifdef SYS_rename
    {SYS_rename, "rename"},
#endif
#ifdef SYS_renameat
    {SYS_renameat, "renameat"},
#endif
#ifdef SYS_renameat2
    {SYS_renameat2, "renameat2"},
#endif
#ifdef SYS_mkdir
    {SYS_mkdir, "mkdir"},
#endif
#ifdef SYS_rmdir
    {SYS_rmdir, "rmdir"},
#endif
#ifdef SYS_chmod
    {SYS_chmod, "chmod"},
#endif
};

static void give_up(const char* what) {
  fprintf(stderr, "kill_at: %s: %s\n", what, strerror(errno));
  exit(1);
}

static long long now_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

/* The name of the call that the stopped thread is about to make, when it is one of those that count. */
static const char* change(pid_t thread) {
  struct __ptrace_syscall_info about;
  size_t at;
  memset(&about, 0, sizeof about);
  if (ptrace(PTRACE_GET_SYSCALL_INFO, thread, (void*)sizeof about, &about) <= 0 || about.op != ENTERS_CALL) {
    return NULL;
  }
  for (at = 0; at < sizeof kChanges / sizeof *kChanges; ++at) {
    if ((long)about.entry.nr == kChanges[at].number) {
      return kChanges[at].name;
    }
  }
  return NULL;
}

/* Lets a stopped thread go on, until its next call, with the signal that it was stopped by. A new thread's
 * SIGSTOP is only how it tells that it is traced. */
static void go_on(pid_t thread, int status) {
  const int reason = WSTOPSIG(status);
  const int is_signal = status >> 16 == 0 && reason != (SIGTRAP | 0x80) && reason != SIGSTOP;
  ptrace(PTRACE_SYSCALL, thread, NULL, (void*)(long)(is_signal ? reason : 0));
}

static void kill_now(pid_t process, const char* call) {
  kill(process, SIGKILL);
  printf("%s\n", call);
}

/* Its threads are traced, and stop at each call. */
static int kill_at(long wanted, pid_t process) {
  long long until = now_ms() + AT_FIRST_MS;
  while (now_ms() < until) {
    int status;
    const char* call = NULL;
    const struct timespec pause = {0, 1000000};
    const pid_t thread = waitpid(-1, &status, __WALL | WNOHANG);
    if (thread == process && !WIFSTOPPED(status)) {
      return MADE_FEWER;
    }
    if (thread <= 0 || !WIFSTOPPED(status)) {
      nanosleep(&pause, NULL);
      continue;
    }
    if (status >> 16 == 0 && WSTOPSIG(status) == (SIGTRAP | 0x80)) {
      call = change(thread);
    }
    if (call != NULL && --wanted == 0) {
      kill_now(process, call);
      return 0;
    }
    until = call != NULL ? now_ms() + RESTS_MS : until;
    go_on(thread, status);
  }
  return MADE_FEWER;
}

/* Every thread that the daemon has, and those that it starts; its children go their own way. */
static void trace_daemon(const char* daemon) {
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE;
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

static pid_t start_traced(char** words) {
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
  int status;
  const pid_t program = fork();
  if (program == 0) {
    ptrace(PTRACE_TRACEME, 0, NULL, NULL);
    raise(SIGSTOP);
    execv(words[0], words);
    _exit(127);
  }
  if (program < 0 || waitpid(program, &status, 0) != program || !WIFSTOPPED(status) ||
      ptrace(PTRACE_SETOPTIONS, program, NULL, (void*)options) != 0 ||
      ptrace(PTRACE_CONT, program, NULL, NULL) != 0 || waitpid(program, &status, 0) != program ||
      status >> 8 != (SIGTRAP | PTRACE_EVENT_EXEC << 8)) {
    give_up(words[0]);
  }
  ptrace(PTRACE_SYSCALL, program, NULL, NULL);
  return program;
}

int main(int argc, char** argv) {
  const long wanted = argc > 3 ? atol(argv[1]) : 0;
  alarm(ALL_S); /* a process that never rests */
  if (wanted > 0 && argc == 6 && strcmp(argv[2], "daemon") == 0 && atoi(argv[3]) > 1 && atoi(argv[4]) > 0 &&
      atoi(argv[5]) > 1) {
    trace_daemon(argv[3]);
    kill(atoi(argv[5]), atoi(argv[4]));
    return kill_at(wanted, atoi(argv[3]));
  }
  if (wanted > 0 && strcmp(argv[2], "start") == 0) {
    return kill_at(wanted, start_traced(argv + 3));
  }
  return 1;
}

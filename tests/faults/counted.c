/* A service whose lives are counted from outside. Each life takes the lock of its name, which the kernel
 * gives back when the life ends, and adds a line to one book: "NAME PID alone", or "NAME PID twin" when
 * another instance has the lock; then "NAME PID ready" once wex has acted on its registration.
 *
 * "counted NAME WORD..." registers itself. The WORD "shell" asks for its restart by a script, "core" lets it
 * leave core dumps. By any other program name it registers nothing; "detach_A_B..." lives on in a child: it
 * forks after A ms, and the parent ends B ms later.
 *
 * The real-time signal SIGRTMIN + n ends it with the status n. */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include "wex.h"

#define BASE "/data/f/"

enum { EXIT_STATUSES = 8, GAVE_UP = 120 };

static int open_or_end(const char* path, int flags) {
  const int file = open(path, flags | O_CREAT | O_CLOEXEC, 0666);
  if (file < 0) {
    _exit(GAVE_UP);
  }
  return file;
}

static void note(const char* name, const char* what) {
  char line[160];
  const int book = open_or_end(BASE "book", O_WRONLY | O_APPEND);
  const int length = snprintf(line, sizeof line, "%s %d %s\n", name, (int)getpid(), what);
  if (length < 0 || write(book, line, (size_t)length) != length) {
    _exit(GAVE_UP);
  }
  close(book);
}

static void end_with_status(int number) {
  _exit(number - SIGRTMIN);
}

static void begin_life(const char* name) {
  char path[256];
  snprintf(path, sizeof path, BASE "locks/%s", name);
  /* Kept open: the lock lasts as long as this process. */
  note(name, flock(open_or_end(path, O_RDWR), LOCK_EX | LOCK_NB) == 0 ? "alone" : "twin");
  /* A shell, which starts the programs of a domain, has these ignored by what it starts in the background. */
  signal(SIGINT, SIG_DFL);
  signal(SIGQUIT, SIG_DFL);
  for (int status = 0; status < EXIT_STATUSES; ++status) {
    signal(SIGRTMIN + status, end_with_status);
  }
}

static void register_at_wex(int argc, char** argv) {
  uint32_t type = WEX_RESTART;
  for (int at = 2; at < argc; ++at) {
    if (strcmp(argv[at], "shell") == 0) {
      type = WEX_SHELL_RESTART;
    } else if (strcmp(argv[at], "core") == 0) {
      const struct rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
      setrlimit(RLIMIT_CORE, &all);
    }
  }
  reg_process_exit_action(0, type);
  /* The answer to a request comes before it is acted on: the answer to the second of two proves that all
   * before them has been acted on. */
  wex_client_unreg_thread_notify(INT32_MAX);
  wex_client_unreg_thread_notify(INT32_MAX);
}

static void detach(unsigned before_ms, unsigned after_ms) {
  usleep(before_ms * 1000);
  if (fork() != 0) {
    usleep(after_ms * 1000);
    _exit(0);
  }
  setsid();
}

int main(int argc, char** argv) {
  const char* const slash = strrchr(argv[0], '/');
  const char* name = slash != NULL ? slash + 1 : argv[0];
  unsigned before_ms, after_ms;
  if (chdir("/") != 0) { /* where core dumps are looked for */
    return GAVE_UP;
  }
  if (strcmp(name, "counted") == 0 && argc > 1) {
    name = argv[1];
    begin_life(name);
    register_at_wex(argc, argv);
  } else {
    if (sscanf(name, "detach_%u_%u", &before_ms, &after_ms) == 2) {
      detach(before_ms, after_ms);
    }
    begin_life(name);
  }
  note(name, "ready");
  for (;;) {
    pause();
  }
}

/* A service of the device: registers with wex as an integrator's program does, then lives or dies as told.
 *
 *   service [--script [TEXT]] [--exit MS CODE] [--abort MS] [--grow MIB] [--tag WORD]
 *
 * Once the daemon has answered, the file /tmp/ready.PID says so. */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "wex.h"

static void wait_ms(long ms) {
  struct timespec left;
  left.tv_sec = ms / 1000;
  left.tv_nsec = ms % 1000 * 1000000;
  while (nanosleep(&left, &left) != 0) {
  }
}

static void tell_ready(void) {
  char path[64];
  int fd;
  snprintf(path, sizeof path, "/tmp/ready.%d", (int)getpid());
  fd = open(path, O_WRONLY | O_CREAT, 0644);
  if (fd >= 0) {
    close(fd);
  }
}

int main(int argc, char** argv) {
  const char* script = NULL;
  int by_script = 0, code = 0, at;
  long exit_ms = -1, abort_ms = -1;
  size_t grow = 0;

  for (at = 1; at < argc; at++) {
    if (strcmp(argv[at], "--script") == 0) {
      by_script = 1;
      if (at + 1 < argc && argv[at + 1][0] != '-') {
        script = argv[++at];
      }
    } else if (strcmp(argv[at], "--exit") == 0 && at + 2 < argc) {
      exit_ms = atol(argv[++at]);
      code = atoi(argv[++at]);
    } else if (strcmp(argv[at], "--abort") == 0 && at + 1 < argc) {
      abort_ms = atol(argv[++at]);
    } else if (strcmp(argv[at], "--grow") == 0 && at + 1 < argc) {
      grow = (size_t)atol(argv[++at]) << 20;
    } else if (strcmp(argv[at], "--tag") == 0) {
      at++;
    }
  }
  /* Named after what it is when started without arguments, as "wex add" starts it. */
  if (strcmp(strrchr(argv[0], '/') ? strrchr(argv[0], '/') + 1 : argv[0], "greedy") == 0) {
    grow = (size_t)24 << 20;
  }
  if (grow > 0) {
    char* memory = malloc(grow);
    if (memory == NULL) {
      return 2;
    }
    memset(memory, 1, grow);
  }
  if (script != NULL) {
    reg_process_exit_action_shell(0, WEX_SHELL_RESTART, script);
  } else {
    reg_process_exit_action(0, by_script ? WEX_SHELL_RESTART : WEX_RESTART);
  }
  tell_ready();
  if (exit_ms >= 0) {
    wait_ms(exit_ms);
    return code;
  }
  if (abort_ms >= 0) {
    wait_ms(abort_ms);
    abort();
  }
  for (;;) {
    pause();
  }
}

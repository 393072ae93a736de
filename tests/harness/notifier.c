/* A program that tells how it is through the real libsystemd. It knows nothing of wex.
 *
 * notifier FILE: writes what it was given to FILE, says that it is ready, and gives a sign of life ten times
 * a second. SIGUSR1: it falls silent; SIGUSR2: it ends with status 9; SIGTERM: as a program that does not
 * catch it. */
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <systemd/sd-daemon.h>
#include <time.h>
#include <unistd.h>

static volatile sig_atomic_t silent, over;

static void fall_silent(int number) {
  (void)number;
  silent = 1;
}

static void end(int number) {
  (void)number;
  over = 1;
}

static void tell_what_was_given(const char* path) {
  uint64_t period = 0;
  int watched = sd_watchdog_enabled(0, &period);
  FILE* file = fopen(path, "we");

  if (file == NULL || fprintf(file, "%d %d %llu\n", (int)getpid(), watched, (unsigned long long)period) < 0 ||
      fclose(file) != 0) {
    exit(3);
  }
}

int main(int argc, char** argv) {
  const struct timespec pause = {0, 100000000};

  if (argc != 2 || signal(SIGUSR1, fall_silent) == SIG_ERR || signal(SIGUSR2, end) == SIG_ERR) {
    return 2;
  }
  if (sd_notifyf(0, "READY=1\nSTATUS=up since %d\nMAINPID=%d", (int)getpid(), (int)getpid()) < 1) {
    return 4; /* nobody is there who wants to know */
  }
  tell_what_was_given(argv[1]);
  while (!over) {
    if (!silent && sd_notify(0, "WATCHDOG=1") < 1) {
      return 5;
    }
    nanosleep(&pause, NULL);
  }
  sd_notify(0, "STOPPING=1\nSTATUS=going down\nERRNO=5");
  return 9;
}

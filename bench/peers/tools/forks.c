/* Strangers: starts and ends processes that no supervisor knows. Usage: forks RATE MILLISECONDS, RATE 0: as
 * many as go. Prints how many a second there were. */
#include <stdio.h>
#include <sys/wait.h>

#include "bench.h"

static void one_stranger(void) {
  const pid_t pid = vfork();
  if (pid == 0) {
    _exit(0);
  }
  if (pid > 0) {
    waitpid(pid, NULL, 0);
  }
}

int main(int argc, char** argv) {
  const uint64_t rate = argc == 3 ? strtoull(argv[1], NULL, 10) : 0;
  const uint64_t duration = argc == 3 ? strtoull(argv[2], NULL, 10) * 1000000u : 0;
  const uint64_t begin = bench_now();
  uint64_t made = 0;
  uint64_t passed = 0;
  while ((passed = bench_now() - begin) < duration) {
    if (rate == 0 || made * 1000000000u < passed * rate) {
      one_stranger();
      ++made;
    } else {
      usleep(500); /* a burst each half millisecond: the mean is RATE */
    }
  }
  printf("{\"per_second\": %.0f}\n", passed > 0 ? (double)made * 1e9 / (double)passed : 0.0);
  return 0;
}

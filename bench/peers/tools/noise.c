/* What this machine does to a program that only waits, and to one that only computes: the lateness of sleeps
 * of 1 ms, and the gaps above 20 us that a busy loop sees. Usage: noise MILLISECONDS. Prints JSON. */
#include <stdio.h>

#include "bench.h"

static void lateness(uint64_t* late, uint64_t count) {
  uint64_t next = bench_now();
  uint64_t i;
  for (i = 0; i < count; ++i) {
    struct timespec until;
    uint64_t now;
    next += 1000000;
    until.tv_sec = (time_t)(next / 1000000000u);
    until.tv_nsec = (long)(next % 1000000000u);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, NULL);
    now = bench_now();
    late[i] = now - next;
    if (late[i] > 1000000) {
      next = now;
    }
  }
  qsort(late, count, sizeof *late, bench_by_size);
}

/* The share of the time that was taken from a loop that never sleeps. */
static double taken(uint64_t duration) {
  const uint64_t begin = bench_now();
  uint64_t lost = 0;
  uint64_t before = begin;
  while (before - begin < duration) {
    const uint64_t now = bench_now();
    if (now - before > 20000) {
      lost += now - before;
    }
    before = now;
  }
  return (double)lost / (double)(before - begin);
}

int main(int argc, char** argv) {
  const uint64_t count = argc > 1 ? strtoull(argv[1], NULL, 10) : 1000;
  uint64_t* late = calloc(count + 1, sizeof *late);
  if (late == NULL || count == 0) {
    return 1;
  }
  lateness(late, count);
  printf("{\"late_us\": {\"median\": %.1f, \"p99\": %.1f, \"max\": %.1f}, \"taken_share\": %.5f}\n",
         bench_quantile(late, count, 50), bench_quantile(late, count, 99), bench_quantile(late, count, 100),
         taken(count * 500000));
  return 0;
}

/* What the tools of the comparison share: the table in shared memory, into which each service writes its own
 * starts, and the clock. compare.py reads the same layout (measures.py, class Table). */
#ifndef BENCH_H
#define BENCH_H

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

enum { BENCH_SLOTS = 2048 };

typedef struct {
  uint64_t exec_at; /* stamped just before the supervisor is executed */
  uint32_t starts;  /* of all services together */
  uint32_t unused[13];
} bench_head;

typedef struct {
  uint32_t starts;
  uint32_t pid;
  uint64_t main_at; /* CLOCK_MONOTONIC, the first thing that main() asks for */
  uint32_t unused[12];
} bench_slot;

typedef struct {
  bench_head head;
  bench_slot slot[BENCH_SLOTS];
} bench_table;

static inline uint64_t bench_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

static inline bench_table* bench_map(const char* path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  void* bytes = MAP_FAILED;
  if (fd >= 0) {
    bytes = mmap(NULL, sizeof(bench_table), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
  }
  return bytes == MAP_FAILED ? NULL : (bench_table*)bytes;
}

static inline int bench_by_size(const void* left, const void* right) {
  const uint64_t a = *(const uint64_t*)left;
  const uint64_t b = *(const uint64_t*)right;
  return a < b ? -1 : a > b;
}

/* The number at this share (0 to 100) of sorted ones, in thousandths: microseconds of nanoseconds. */
static inline double bench_quantile(const uint64_t* sorted, uint64_t count, unsigned share) {
  return count == 0 ? 0.0 : (double)sorted[(count - 1) * share / 100] / 1000.0;
}

#endif

/* The supervised service of every measurement: tells when its main() began, then waits.
 * Usage: service TABLE NUMBER [-d PIDFILE]      -d: detach first, for supervisors that look at pid files
 *        service                                 TABLE from BENCH_TABLE, NUMBER from the digits that end the
 * working directory, for supervisors that give no arguments BENCH_READY_FD names a descriptor to write a
 * newline to once all is told. */
#include <stdio.h>
#include <string.h>

#include "bench.h"

static unsigned number_of_directory(void) {
  char path[512];
  char* digits;
  if (getcwd(path, sizeof path) == NULL) {
    return BENCH_SLOTS;
  }
  for (digits = path + strlen(path); digits > path && digits[-1] >= '0' && digits[-1] <= '9'; --digits) {
  }
  return (unsigned)atoi(digits);
}

/* The parent leaves the child's pid behind and ends. */
static int detach(const char* pidfile) {
  const pid_t pid = fork();
  FILE* file;
  if (pid == 0) {
    setsid();
    return 0;
  }
  file = pid > 0 ? fopen(pidfile, "we") : NULL;
  if (file == NULL || fprintf(file, "%d\n", (int)pid) < 0 || fclose(file) != 0) {
    _exit(1);
  }
  _exit(0);
}

static void tell(bench_table* table, unsigned number, uint64_t main_at) {
  bench_slot* slot = &table->slot[number];
  slot->main_at = main_at;
  slot->pid = (uint32_t)getpid();
  __atomic_fetch_add(&table->head.starts, 1, __ATOMIC_RELAXED);
  __atomic_fetch_add(&slot->starts, 1, __ATOMIC_RELEASE); /* last: compare.py waits for it */
  munmap(table, sizeof *table);
}

int main(int argc, char** argv) {
  const uint64_t main_at = bench_now();
  const char* path = argc >= 3 ? argv[1] : getenv("BENCH_TABLE");
  const unsigned number = argc >= 3 ? (unsigned)atoi(argv[2]) : number_of_directory();
  const char* ready = getenv("BENCH_READY_FD");
  bench_table* table;
  if (argc == 5 && strcmp(argv[3], "-d") == 0) {
    detach(argv[4]);
  }
  table = path != NULL ? bench_map(path) : NULL;
  if (table == NULL || number >= BENCH_SLOTS) {
    return 1;
  }
  tell(table, number, main_at);
  if (ready != NULL && write(atoi(ready), "\n", 1) == 1) {
    close(atoi(ready));
  }
  for (;;) {
    pause();
  }
}

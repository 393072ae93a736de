/* A service that tells when its main() began. Usage: stamp FILE: "PID NANOSECONDS" of the monotonic clock
 * goes there. */
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "wex.h"

int main(int argc, char** argv) {
  struct timespec now;
  char unfinished[256];
  FILE* file;
  clock_gettime(CLOCK_MONOTONIC, &now); /* the very first thing */
  if (argc != 2 || reg_process_exit_action(0, WEX_RESTART) != 0) {
    return 1;
  }
  snprintf(unfinished, sizeof unfinished, "%s.new", argv[1]);
  file = fopen(unfinished, "w");
  if (file == NULL ||
      fprintf(file, "%d %lld\n", (int)getpid(), now.tv_sec * 1000000000LL + now.tv_nsec) < 0 ||
      fclose(file) != 0 || rename(unfinished, argv[1]) != 0) {
    return 1;
  }
  for (;;) {
    pause();
  }
}

/* The service that the restart benchmark kills: tells when its main() began, then registers and waits.
 * Usage: service FIFO NUMBER [register] */
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "wex.h"

int main(int argc, char** argv) {
  struct timespec now;
  int64_t started[3];
  int fifo;
  clock_gettime(CLOCK_MONOTONIC, &now); /* the very first thing */
  if (argc < 3) {
    return 1;
  }
  if (argc > 3) {
    reg_process_exit_action(0, WEX_RESTART);
  }
  fifo = open(argv[1], O_WRONLY);
  started[0] = atoi(argv[2]);
  started[1] = getpid();
  started[2] = (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
  if (fifo < 0 || write(fifo, started, sizeof started) != (ssize_t)sizeof started) {
    return 1;
  }
  close(fifo);
  for (;;) {
    pause();
  }
}

/* setclock SECONDS: sets the device's clock, which the small userland cannot do beyond January 2038. */
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

int main(int argc, char** argv) {
  struct timespec now = {0};
  now.tv_sec = argc == 2 ? atoll(argv[1]) : 0;
  if (sizeof now.tv_sec < 8 || now.tv_sec == 0 || clock_settime(CLOCK_REALTIME, &now) != 0) {
    perror("setclock");
    return 1;
  }
  return 0;
}

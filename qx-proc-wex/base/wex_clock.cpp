// wex_clock: the clock of records and decisions. Alone in its file, so that a test links its own.
#include "wex_clock.h"

#include <time.h>

int32_t wex_clock_now(void) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int32_t>(now.tv_sec);
}

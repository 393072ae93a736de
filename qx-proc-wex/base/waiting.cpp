// waiting: sleeping, and measuring waits, on the monotonic clock.
#include "waiting.h"

#include <time.h>

#include <cerrno>
#include <limits>

namespace {

// An absolute deadline: an interrupted sleep goes on to the same end, without sums of remainders.
void sleep_for(int64_t nanoseconds) {
  constexpr int64_t kSecond = 1000000000;
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t fraction = now.tv_nsec + nanoseconds % kSecond;
  const int64_t end = int64_t{now.tv_sec} + nanoseconds / kSecond + fraction / kSecond;
  constexpr int64_t kEndOfTime = std::numeric_limits<time_t>::max();
  timespec deadline = {};
  deadline.tv_sec = static_cast<time_t>(end < kEndOfTime ? end : kEndOfTime);
  deadline.tv_nsec = static_cast<long>(fraction % kSecond);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
}

}  // namespace

void safe_sleep(unsigned seconds) {
  sleep_for(int64_t{seconds} * 1000000000);
}

void wex_sleep_ms(int milliseconds) {
  if (milliseconds > 0) {
    sleep_for(int64_t{milliseconds} * 1000000);
  }
}

int64_t wex_clock_ms() {
  return wex_clock_ns() / 1000000;
}

int64_t wex_clock_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

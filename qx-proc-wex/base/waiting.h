// waiting: sleeping, and measuring waits inside one process. Any thread.
#pragma once

#include <cstdint>

extern "C" {

// Sleeps all of it, whatever signals arrive.
void safe_sleep(unsigned seconds);
void wex_sleep_ms(int milliseconds);
}

// Milliseconds of the monotonic clock, for waits inside one process.
int64_t wex_clock_ms();
// Nanoseconds, to be compared with the kernel's own times.
int64_t wex_clock_ns();

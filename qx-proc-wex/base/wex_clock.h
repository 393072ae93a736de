// wex_clock: the clock of records and decisions.
#pragma once

#include <cstdint>

// Whole seconds of the monotonic clock: the only clock of records and decisions. Any thread.
extern "C" int32_t wex_clock_now(void);

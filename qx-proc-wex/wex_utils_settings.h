// wex_utils_settings: settings that an operator makes by files. The levels are declared in wex.h.
#pragma once

#include <cstdint>

// The self-check wait in seconds: the positive number in "/debug_time", else 300. Any thread.
extern "C" int32_t debug_time(void);

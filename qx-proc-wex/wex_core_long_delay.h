// wex_core_long_delay: lines about programs that want long restart delays.
#pragma once

#include <cstdint>

// Notes that the program of `process` asks for long restart delays; never waits. Control server only.
void wex_note_long_delay(const char* process, int32_t pid, int32_t delay);

// Writes what was noted to the running log, a program once a minute at most. Delay thread only.
void wex_log_long_delays();

// wexstat_watch: what goes on until it is ended: --watch, --wait.
#pragma once

#include <cstdint>

// The table every so many seconds, redrawn in place on a terminal; ends on q or a signal. The exit status.
int watch(const char* path, int32_t seconds);

// Until a registration of this name runs below a living daemon; at most so many seconds, -1 for ever. The
// exit status.
int wait_for(const char* path, const char* name, int32_t timeout);

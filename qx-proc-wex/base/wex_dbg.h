// wex_dbg: printing. Define WEX_MODULE before including this: it is the name the lines carry.
//
// Every line is formatted into one buffer and written with one write to descriptor 1, so that lines of
// different threads never mix and a forked child never repeats its parent's buffer. Printing keeps errno.
#pragma once

#include "wex_diagnostics.h"

// A line "[WEX:module:line]message", unless `level` (WEX_DBG_PUB, WEX_DBG_ALIVE) is silenced.
#define wex_dbg(level, ...) wex_dbg_as(WEX_MODULE, level, __VA_ARGS__)

// The same line at no level: always printed.
#define wex_say(...) wex_dbg_print(WEX_MODULE, __LINE__, __VA_ARGS__)

// From now on lines of `level` print, or not. Any thread.
void wex_set_dbg_level(int level, int32_t value);

// Writes the message alone to standard output, always. Keeps errno.
extern "C" void wex_print(const char* format, ...) WEX_PRINTF(1, 2);

// wexstat_machines: what programs read, as JSON and as OpenMetrics. docs/wexstat.md describes both; names
// there are never changed.
#pragma once

#include <cstdio>

#include "wexstat_health.h"
#include "wexstat_reader.h"

// The names of the counters, by their index in the table; null for what is none.
extern const char* const kCounterNames[WEX_STATUS_COUNTERS_USED];

void write_json(const status_copy& copy, const daemon_health& daemon, const moment& at, FILE* out);

// The copy's slots are sorted for that.
void write_openmetrics(status_copy* copy, const daemon_health& daemon, const moment& at, FILE* out);

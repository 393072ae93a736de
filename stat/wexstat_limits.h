// wexstat_limits: every tunable of wexstat, each with what it decides.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wex_limits.h"

// Exit statuses. Those of --check are a monitor's; the others have the same meaning where they can.
inline constexpr int kExitWell = 0;
inline constexpr int kExitTrouble = 1;  // something is parked, postponed or down; not found; not in time
inline constexpr int kExitDead = 2;     // wex is dead, stuck or not there
inline constexpr int kExitUnknown = 3;  // nobody can tell; also a wrong command line, and output that failed

// The table may come from anywhere. What it says about its own sizes is believed up to here.
inline constexpr uint32_t kRecordSizeMax = 4096;
inline constexpr uint32_t kRecordsMax = 65536;
inline constexpr uint32_t kHeadSizeMax = 1 << 20;
inline constexpr size_t kChunkSize = 16384;  // read at once; holds some records of the largest size

// A record is being written for microseconds. One that stays so was left by a daemon that was killed.
inline constexpr int kRecordTries = 8;   // looks at one record, at once
inline constexpr int kRecordWaits = 50;  // pauses of a millisecond between further looks, for one whole table

// wex is stuck when a thread has been at one thing for so long, or has not come round. The longest that it
// may need: forks that fail and the search for a program that detaches. The pauses that programs asked for
// before their restarts are added. The slowest thread comes round once a scan of the watchdog.
inline constexpr int64_t kBusyLimitMs = 120000;
inline constexpr int64_t kPassLimitMs = 150000;
inline constexpr int64_t kLongestForkMs = int64_t{kForkFailuresFatal} * kForkRetrySec * 1000;
inline constexpr int64_t kLongestSearchMs = int64_t{kFindStepMs} * kFindTries * (kFindTries + 1) / 2;
static_assert(kBusyLimitMs > 2 * (kLongestForkMs + kLongestSearchMs), "a slow restart would be called stuck");
static_assert(kPassLimitMs > 2 * int64_t{kScanSec} * 1000, "the watchdog would be called stuck");
static_assert((int64_t{kRecordsMax} + 1) * UINT32_MAX < INT64_MAX / 2000,
              "all pauses together would overflow");

inline constexpr uint32_t kHistoryLines = 20;       // of --history without a number
inline constexpr uint32_t kEventsOfOne = 12;        // below one registration
inline constexpr int32_t kWatchSec = 2;             // of --watch without a number
inline constexpr int32_t kWatchSecMax = 86400;      // and the largest
inline constexpr int32_t kWaitSecMax = 86400 * 30;  // of --timeout
inline constexpr int kWaitLookMs = 100;             // between two looks of --wait
inline constexpr int kNamedInCheck = 3;             // registrations that the line of --check names

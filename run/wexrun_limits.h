// wexrun_limits: every tunable of wexrun, each with what it decides.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wex_limits.h"

// Exit statuses of wexrun itself, as shells and their helpers have them.
inline constexpr int kExitOwnFailure = 125;   // wexrun refused, or could not go on
inline constexpr int kExitNotRunnable = 126;  // the program is there and cannot be executed
inline constexpr int kExitNotFound = 127;

// A daemon that has just started reads 255 bytes of a database file: pid, action and command line. With the
// longest pid there is, so much is left for the command line.
inline constexpr size_t kCommandMax = 255 - (sizeof "2147483647\n3\n" - 1);

inline constexpr int kLinkTries = 6;         // connections tried, one second apart
inline constexpr int kAnswerWaitMs = 30000;  // for each answer; a restart that waits holds the daemon up
inline constexpr int kBeatWaitMs = 200;      // the same for a thread's registration, while signals wait
inline constexpr int kLockDescriptor = 64;   // the lock stays at or above it, out of the way of shell scripts
inline constexpr int kDescriptorsLooked = 4096;  // among which the lock is looked for

// wexrun --notify.
inline constexpr int64_t kWatchdogUsec = int64_t{kShortPeriodSec} * 1000000;
inline constexpr int32_t kBeatEverySec = 1;      // a byte that counts to 255 must not come round in a minute
inline constexpr int32_t kRegisterEverySec = 2;  // tries to register the thread while the daemon is away
// From SIGABRT to SIGKILL: time to dump a core, and less than the minute after which wex aborts once more.
inline constexpr int64_t kAbortGraceMs = 50000;
inline constexpr size_t kNotifySize = 4096;  // bytes of one notification; longer ones are ignored
inline constexpr size_t kLoggedText = 200;   // characters of a status that are logged
inline constexpr int kNotifyAtOnce = 64;     // notifications read before signals are looked at again
inline constexpr int kAncestors = 64;        // generations between a sender and its service

// wex_core_process_event: the kernel's process events, as bytes and as the monitor hands them on.
#pragma once

#include <cstdint>

// Kinds of process events.
enum : uint32_t { kEventAck = 0, kEventFork = 1, kEventExec = 2, kEventExit = 0x80000000u };

constexpr uint32_t kCoreDumped = 0x80;  // in an exit code

// Offsets in a message from the start of its netlink header. The event inside is not aligned for its 64-bit
// time stamp, so fields are copied out one by one.
enum : uint32_t {
  kLenAt = 0,
  kTypeAt = 4,
  kKindAt = 36,
  kTimeAt = 44,
  kPidAt = 52,
  kTgidAt = 56,
  kCodeAt = 60,
  // of a fork
  kChildPidAt = 60,
  kChildTgidAt = 64
};

struct process_event {
  uint32_t kind;
  int32_t pid;  // of a fork: the child's
  int32_t tgid;
  uint32_t exit_code;  // exit events: kernel wait status
  uint64_t time_ns;    // the kernel's monotonic clock; 0 = no time stamp
};

// wex_core_netlink: the exit monitor's reading of bytes from the kernel, apart from its socket.
#pragma once

#include <cstddef>
#include <cstdint>

// Kinds of process events.
enum : uint32_t { kEventAck = 0, kEventExec = 2, kEventExit = 0x80000000u };

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
  kCodeAt = 60
};

struct process_event {
  uint32_t kind;
  int32_t pid;
  int32_t tgid;
  uint32_t exit_code;  // exit events: kernel wait status
  uint64_t time_ns;    // monotonic, as the kernel counts; 0 = not stamped
};

enum { kSubscriptionSize = 40 };

// The message that asks the connector for process events, in the name of process `pid`.
void wex_build_subscription(int32_t pid, uint8_t (&message)[kSubscriptionSize]);

// Calls `on_event` for each well-formed acknowledgement, exec and exit event of a datagram; anything else
// ends or skips as the message headers say. Any bytes are safe.
void wex_walk_datagram(const uint8_t* bytes, size_t size,
                       void (*on_event)(const process_event& event, void* context), void* context);

// Window (seconds) and count of the exit burst from the text of its configuration file; false leaves them
// alone.
bool wex_parse_burst(const char* text, int32_t* window, int32_t* count);

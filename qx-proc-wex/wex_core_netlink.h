// wex_core_netlink: the exit monitor's reading of bytes from the kernel, apart from its socket.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "wex_core_process_event.h"

enum { kSubscriptionSize = 40 };

// The exit monitor's thread; the argument is ignored.
extern "C" void* wex_process_netlink(void* unused);

// The message that asks the connector for process events, in the name of process `pid`.
void wex_build_subscription(int32_t pid, uint8_t (&message)[kSubscriptionSize]);

// Calls `on_event` for each well-formed acknowledgement, exec and exit event of a datagram; anything else
// ends or skips as the message headers say. Any bytes are safe.
void wex_walk_datagram(const uint8_t* bytes, size_t size,
                       void (*on_event)(const process_event& event, void* context), void* context);

// Until when (monotonic seconds) the monitor has read what the kernel reported: only a process that vanished
// before that may count as a lost exit. Written by the monitor only.
extern std::atomic<int32_t> wex_monitor_read_until;

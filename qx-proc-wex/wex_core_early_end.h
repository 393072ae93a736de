// wex_core_early_end: how processes ended whose registration was still under way.
//
// A registration is acknowledged before it has a record. A process that ends in between was registered for
// its starter, and has no record to which its reported end could go. Without its exit code a stop on purpose
// would be followed by a restart.
#pragma once

#include <cstdint>

#include "wex_lock_order.h"

// The process is about to be registered: from now on its end is reported, and kept. Never waits for the
// registry. Control server only, before it acknowledges.
void wex_expect_newcomer(int32_t pid);

// The kernel has reported the end of a process. Exit monitor only.
void __wex_note_early_end(int32_t pid, uint32_t exit_code) WEX_TSA(requires_capability(wex_chains));

// The exit code of the process when its end was reported since it was expected, else 0. Once.
uint32_t __wex_take_early_end(int32_t pid) WEX_TSA(requires_capability(wex_chains));

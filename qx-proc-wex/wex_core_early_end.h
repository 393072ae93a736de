// wex_core_early_end: how processes ended whose registration was still under way.
//
// A registration is acknowledged before it has a record. A process that ends in between was registered for
// its starter, and has no record to which its reported end could go. Without its exit code a stop on purpose
// would be followed by a restart.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "wex_lock_order.h"

// The process is about to be registered by this user: from now on its end is reported, and kept. There is
// room for a few. A user's make no room among root's, and in strict mode only those of users who have more
// among other users'. Never waits for the registry. Control server only, before it acknowledges.
void wex_expect_newcomer(int32_t pid, uid_t speaker);

// The registration of the process that started then, by this user, is refused for good (strict mode): nobody
// will ask how it ended. What another user registers is not meant.
void wex_forget_newcomer(int32_t pid, uint64_t start_time, uid_t speaker);

// The kernel has reported the end of a process, which was in this tick since the boot unless that is not
// known (0). Exit monitor only.
void __wex_note_early_end(int32_t pid, uint32_t exit_code, uint64_t exit_tick)
    WEX_TSA(requires_capability(wex_chains));

// The exit code of the process when its end was reported since it was expected, else 0. Once. In strict mode
// the process that started then, unless its `start_time` is not known (0), and that this user has named, or
// root.
uint32_t __wex_take_early_end(int32_t pid, uint64_t start_time, uid_t user)
    WEX_TSA(requires_capability(wex_chains));

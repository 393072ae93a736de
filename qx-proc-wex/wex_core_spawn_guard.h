// wex_core_spawn_guard: keeps the reaper away from fork until the new pid is in its record.
#pragma once

#include "priority_mutex.h"
#include "wex_lock_order.h"

// Taken by spawn_guard only; here so that what it guards can name it.
extern priority_mutex wex_spawn_mutex WEX_TSA(acquired_after(wex_chains));

// A reaped pid may be reused: between the fork and the moment when the record has the new pid, nothing is
// reaped. Recursive; taken with wex_chains held, or with no chain at all.
class WEX_TSA(scoped_lockable) spawn_guard {
 public:
  spawn_guard() noexcept WEX_TSA(acquire_capability(wex_spawn_mutex));
  ~spawn_guard() WEX_TSA(release_capability());
  spawn_guard(const spawn_guard&) = delete;
  spawn_guard& operator=(const spawn_guard&) = delete;
};

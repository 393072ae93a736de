// wex_core_spawn_guard: keeps the reaper away from fork until the new pid is in its record.
#pragma once

#include "priority_mutex.h"
#include "wex_lock_order.h"

// Guards the time from a fork until the new pid is in its record: a pid reaped before could be reused.
// Recursive: the exit handler holds it until then, the spawner inside it too. The reaper runs at normal
// priority and holds it as well, hence the inheritance. Taken with wex_chains held, or with no chain at all.
extern priority_mutex wex_spawn_mutex WEX_TSA(acquired_after(wex_chains));

// Whether another thread is starting a program right now. True also while the reaper has the guard.
bool wex_is_spawning();

class WEX_TSA(scoped_lockable) spawn_guard {
 public:
  spawn_guard() noexcept WEX_TSA(acquire_capability(wex_spawn_mutex));
  ~spawn_guard() WEX_TSA(release_capability());
  spawn_guard(const spawn_guard&) = delete;
  spawn_guard& operator=(const spawn_guard&) = delete;
};

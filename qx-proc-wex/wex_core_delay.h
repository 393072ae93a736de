// wex_core_delay: postponed restarts.
#pragma once

#include "wex_chain.h"

// A postponed restart whose wait is over.
struct ready_restart {
  int32_t pid;
  uint32_t exit_signal;
  int32_t force_restart;
  int32_t number;  // wex_pid::postponed of its record
};

// 1 when the restart of `rec` is postponed because its database file is still locked, 0 when it may start
// now. Takes the reserved memory; waits for memory when there is none.
extern "C" int wex_proc_restart_delay(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Reserves the memory of one postponed restart, so that it need not be waited for with the registry locked.
// May wait: never with a chain held.
void wex_reserve_delay() WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));
bool wex_delay_reserved() WEX_TSA(requires_capability(wex_chains));

// True while a postponed restart of `rec` waits. Since when it does, in seconds; -1 when none waits.
bool __wex_waits_for_restart(const wex_pid* rec) WEX_TSA(requires_capability(wex_chains));
int64_t __wex_waits_since(const wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Takes the first copy, in bucket order, that need not wait any longer. Delay thread only.
bool wex_take_ready_restart(ready_restart* ready);

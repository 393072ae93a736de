// expect: chain 'wex_chains' must be acquired before 'wex_spawn_mutex'
#include "chain_lock.h"
#include "wex_chain.h"
#include "wex_core_spawn_guard.h"

wex_pid* probe();
wex_pid* probe() {
  const spawn_guard guard;
  const chain_lock registry(wex_chains);
  return __wex_find_pid(&wex_chains, 1);
}

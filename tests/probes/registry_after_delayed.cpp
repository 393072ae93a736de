// expect: chain 'wex_chains' must be acquired before 'wex_chains_delay'
#include "chain_lock.h"
#include "wex_chain.h"

wex_pid* probe();
wex_pid* probe() {
  const chain_lock delayed(wex_chains_delay);
  const chain_lock registry(wex_chains);
  return __wex_find_pid(&wex_chains, 1);
}

// expect: chain 'wex_chains' must be acquired before 'wex_alive_chains'
#include "chain_lock.h"
#include "wex_chain.h"

wex_pid* probe();
wex_pid* probe() {
  const chain_lock threads(wex_alive_chains);
  const chain_lock registry(wex_chains);
  return __wex_find_pid(&wex_chains, 1);
}

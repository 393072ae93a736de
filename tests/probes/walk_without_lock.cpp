// expect: calling function 'record_walk' requires holding chain 'wex_chains'
#include "chain_lock.h"
#include "wex_chain.h"

wex_pid* probe();
wex_pid* probe() {
  const chain_lock another(wex_alive_chains);
  record_walk walk(wex_chains);
  return walk.next();
}

// Compiles: every lock is held, and in order. Were this refused, the errors in the others would prove
// nothing.
#include "chain_lock.h"
#include "wex_chain.h"
#include "wex_log.h"
#include "wex_proc.h"

int probe();
int probe() {
  const chain_lock registry(wex_chains);
  {
    const chain_lock threads(wex_alive_chains);
    record_walk walk(wex_alive_chains);
    walk.next();
  }
  const chain_lock delayed(wex_chains_delay);
  record_walk walk(wex_chains);
  int32_t new_pid = 0;
  wex_log("%d", wex_spawn(walk.next(), &new_pid));
  return wex_chains.count;
}

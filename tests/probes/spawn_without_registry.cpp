// expect: calling function 'wex_spawn' requires holding chain 'wex_chains'
#include "chain_lock.h"
#include "wex_proc.h"

int32_t probe(wex_pid* rec);
int32_t probe(wex_pid* rec) {
  const chain_lock delayed(wex_chains_delay);
  int32_t new_pid = 0;
  return wex_spawn(rec, &new_pid);
}

// expect: reading variable 'count' requires holding mutex 'wex_chains'
#include "wex_chain.h"

int probe();
int probe() {
  return wex_chains.count;
}

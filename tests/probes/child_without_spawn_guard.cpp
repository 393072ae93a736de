// expect: calling function 'wex_remember_start' requires holding mutex 'wex_spawn_mutex'
#include "wex_core_third_part.h"

uint32_t probe();
uint32_t probe() {
  return wex_remember_start(1, 0);
}

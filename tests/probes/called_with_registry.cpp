// expect: cannot call function 'wex_handle_netlink_exit' while chain 'wex_chains' is held
#include "chain_lock.h"
#include "wex_core_exit.h"

void probe();
void probe() {
  const chain_lock registry(wex_chains);
  wex_handle_netlink_exit(1, 0, 0);
}

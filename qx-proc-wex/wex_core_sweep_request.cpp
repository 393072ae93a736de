// wex_core_sweep_request: asks the delay thread to look for lost exits.
#include "wex_core_sweep_request.h"

#include <atomic>

namespace {
std::atomic<bool> g_sweep_wanted{false};
}  // namespace

void wex_request_sweep() {
  g_sweep_wanted.store(true, std::memory_order_release);
}

bool wex_take_sweep_request() {
  return g_sweep_wanted.exchange(false);
}

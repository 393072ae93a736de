// wex_core_sweep_request: asks the delay thread to look for lost exits.
#include "wex_core_sweep_request.h"

#include "request_flag.h"

namespace {
request_flag g_sweep_wanted;
}  // namespace

void wex_request_sweep() {
  g_sweep_wanted.raise();
}

bool wex_take_sweep_request() {
  return g_sweep_wanted.take();
}

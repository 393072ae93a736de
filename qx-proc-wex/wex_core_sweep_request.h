// wex_core_sweep_request: asks the delay thread to look for lost exits. Any thread, any lock held.
#pragma once

void wex_request_sweep();

// True once after each request, or after several.
bool wex_take_sweep_request();

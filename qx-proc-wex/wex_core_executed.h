// wex_core_executed: third-part programs that are executed, or found running. Monitor only.
#pragma once

#include <cstdint>

// wex_register_executed() registers `pid` when it runs a third-part program of which no other process is
// registered; wex_register_running() does so for every process that is not supervised yet. With no chain
// held. False when all processes are to be looked at: `pid` has ended, perhaps unseen, and one that it has
// forked may be the program; or some program was left out because of its pid, which may be free by now.
bool wex_register_executed(int32_t pid);
void wex_register_running();

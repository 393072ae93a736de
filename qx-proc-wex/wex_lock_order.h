// wex_lock_order: the three chains and the order in which their locks are taken, for clang's analysis.
//
// Declared here and nowhere else: clang looks at a variable's first declaration only, so the order would be
// lost in silence where another one comes before it. What must name a lock and knows no chain includes this.
#pragma once

#include "wex.h"

extern "C" {

extern wex_chains_t wex_alive_chains;  // threads registered for hang detection
extern wex_chains_t wex_chains_delay;  // copies of records whose restart is postponed

// Processes registered for restart. Whoever holds one of the others must not wait for this one.
extern wex_chains_t wex_chains WEX_TSA(acquired_before(wex_alive_chains, wex_chains_delay));
}

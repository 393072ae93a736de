// wex_core_watched_threads: what the status table gets by looking every few seconds: how many threads of each
// registered process are watched, and registrations that found no slot.
#pragma once

// Shows it; left to the next time while an exit is being handled. Delay thread.
void wex_show_watched_threads();

// wex_core_watched_threads: for the status table, how many threads of each registered process are watched.
#pragma once

// Shows it; left to the next time while an exit is being handled. Delay thread.
void wex_show_watched_threads();

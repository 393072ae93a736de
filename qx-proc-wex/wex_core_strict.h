// wex_core_strict: the file that decides whether the daemon runs in strict mode.
#pragma once

// Looks at it, once, before any directory is made. Without it this is one system call that fails.
void wex_choose_mode();

// Tells the running log of strict mode, and what in the file does not count.
void wex_log_mode();

// Tells it of names that were met and do not count, of each once. Delay thread only.
void wex_log_ignored_names();

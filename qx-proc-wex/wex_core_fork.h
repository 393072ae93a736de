// wex_core_fork: ends a daemon that cannot fork any more.
#pragma once

// Its thread; the argument is ignored.
extern "C" void* wex_inotify_fork_error(void* unused);

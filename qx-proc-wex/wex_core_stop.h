// wex_core_stop: the stop flag, the descriptor that wakes every wait, and the ways to end.
#pragma once

#include <atomic>
#include <cstdint>

// 0 while the daemon runs; 1 ends every loop at its next pass. Set it with wex_raise_exit_flag().
extern "C" std::atomic<int32_t> wex_exit_flag;

// Sets the flag and wakes every wait of every thread. Any thread.
void wex_raise_exit_flag();

// Readable for ever once the flag is set; -1 before wex_init_wakeup() or when it failed.
int wex_wakeup_fd();

// Creates the wake-up descriptor. Before any thread runs.
void wex_init_wakeup();

// Sleeps `milliseconds`, less when the flag is raised.
void wex_wait_exit(int64_t milliseconds);

// The same, but ends as well when `fd` (-1: none) can be read: then true.
bool wex_wait_exit_or(int fd, int64_t milliseconds);

// Writes "Thread ... exit" to the running log: the last line of a thread that ends the daemon.
void wex_log_thread_end(const char* thread, int code, int error);

// Ends the daemon at once because nothing can be restarted any more: running log, fork-failure file,
// status 1.
[[noreturn]] void wex_end_unable_to_restart();

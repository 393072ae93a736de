// wex_core_filter: which process events the kernel puts into the monitor's queue. Any thread.
#pragma once

// Who needs the ends of single threads that dumped no core. On a busy machine they are most of all events, so
// they pass only while one of these needs them.
enum class thread_ends_for {
  undecided_exits,  // a main thread has ended, and its process does once the others have
  registrations,    // a thread is registered as if it were a process
};

// Filters the events of `fd` from now on, until wex_release_filter(). Failing is not fatal: then every event
// is read and looked at.
void wex_attach_filter(int fd);
void wex_release_filter();

// Asks for them, or no longer. Threads that ended before the call were not reported, so the caller looks at
// /proc once more after it.
void wex_pass_thread_ends(thread_ends_for whom, bool pass);

// wex_core_filter: which process events the kernel puts into the monitor's queue. Any thread.
#pragma once

// Who needs the ends of single threads that dumped no core. They are most of what a busy machine reports, and
// nobody else does.
enum class thread_ends_for {
  undecided_exits,  // a main thread has ended, and its process does once the others have
  registrations,    // a thread is registered as if it were a process
};

// Filters the events of `fd` from now on, until wex_release_filter(). Failing is not fatal: then every event
// is read and looked at.
void wex_attach_filter(int fd);
void wex_release_filter();

// What ended before the call has not been reported: whoever calls it looks again.
void wex_pass_thread_ends(thread_ends_for whom, bool pass);

// wex_core_filter: which process events the kernel puts into the monitor's queue. Any thread.
//
// Only what the daemon acts on shall cost anything: the exits of registered processes, the births of those
// that get their pids next, and executions while the list of third-part programs names any. What ended before
// a call below asked for it was not reported, so each caller looks at /proc once more after the call.
#pragma once

#include <cstdint>

#include "pid_set.h"
#include "wex_lock_order.h"

// Why the ends of single threads that dumped no core are wanted. On a busy machine most events are of this
// kind, so they pass only while there is one of these reasons.
enum class thread_ends_for {
  undecided_exits,  // the main thread of a registered process has ended, and the process ends with its last
                    // thread: the ends of threads of registered processes pass
  registrations,    // a thread is registered as if it were a process: the ends of all threads pass
};

// Filters the events of `fd` from now on, until wex_release_filter(). Failing is not fatal: then more events
// than are needed are read and looked at.
void wex_attach_filter(int fd);
void wex_release_filter();

void wex_pass_thread_ends(thread_ends_for whom, bool pass);

void wex_pass_executions(bool pass);

// Passes the exits of this process, too. When there is no room for it those of all processes pass until
// wex_pass_exits_only_of(); the first time that happens the result is false.
bool wex_pass_exits_of(int32_t pid) WEX_TSA(requires_capability(wex_chains));

// To be called before the same is asked for this child. When children follow one another closely, the exits
// of those that will probably be next pass with its own: the kernel takes as long to exchange the filter as
// to fork.
void wex_pass_exits_after(int32_t child);

// Passes the exits of this process whose registration is under way, though it has no record that would keep
// it from being forgotten. It is kept until another one has its place, of kNewcomers. Never waits for the
// registry.
void wex_pass_exits_of_newcomer(int32_t pid, int place);

// Forgets all processes but these and the newcomers; null when they are too many. With the registry held, for
// a pid that is asked for meanwhile would be forgotten as well.
void wex_pass_exits_only_of(const pid_set* pids) WEX_TSA(requires_capability(wex_chains));

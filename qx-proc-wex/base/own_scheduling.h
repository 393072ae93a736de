// own_scheduling: policy and priority of the calling thread.
#pragma once

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

// 0, or -1 with the reason in errno. Asks the kernel itself: musl's sched_setscheduler() always fails,
// because by the letter of POSIX it is about all threads of a process.
inline int set_own_scheduling(int policy, int priority) {
  sched_param how = {};
  how.sched_priority = priority;
  return static_cast<int>(syscall(SYS_sched_setscheduler, 0, policy, &how));
}

// Signals to processes that a test knows by number.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

namespace wex_test {

// kill(2) takes 0 for the whole process group, -1 for every process of the machine, and 1 is init: exactly
// the numbers that a wait which timed out or a fork that failed leaves behind. Such a number fails the test
// instead.
inline bool send_signal(pid_t pid, int signal) {
  if (pid <= 1) {
    ADD_FAILURE() << "signal " << signal << " is not sent to process " << pid;
    return false;
  }
  return kill(pid, signal) == 0;
}

// The same for all processes of the group that `leader` leads.
inline bool send_group_signal(pid_t leader, int signal) {
  if (leader <= 1) {
    ADD_FAILURE() << "signal " << signal << " is not sent to process group " << leader;
    return false;
  }
  return kill(-leader, signal) == 0;
}

}  // namespace wex_test

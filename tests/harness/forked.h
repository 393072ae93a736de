// Work in a forked child: what must not stay in this process, such as the library's connection.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace forked {

// Runs `work` in a forked child and gives its result back as the child's exit status.
template <class Work>
pid_t start_child(Work work) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(100);
    _exit(work());
  }
  return pid;
}

inline int exit_status(pid_t pid) {
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <class Work>
int in_child(Work work) {
  return exit_status(start_child(work));
}

}  // namespace forked

// A process that has begun to exit and cannot end, as one is that writes a large core file or takes down a
// large memory: for as long as a test wants it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "send_signal.h"

namespace wex_test {

// The first process of a pid namespace cannot end before all others in it have been reaped. One of those has
// its parent outside, which reaps it only when told so.
class dying_process {
 public:
  dying_process() {
    int pid_pipe[2];
    int hold[2];
    EXPECT_EQ(0, pipe2(pid_pipe, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(hold, O_CLOEXEC));
    maker_ = fork();
    if (maker_ == 0) {
      close(hold[1]);
      keep_two(pid_pipe[1], hold[0]);
    }
    close(pid_pipe[1]);
    close(hold[0]);
    hold_ = hold[1];
    EXPECT_EQ(static_cast<ssize_t>(sizeof pid_), read(pid_pipe[0], &pid_, sizeof pid_)) << "no pid namespace";
    close(pid_pipe[0]);
  }
  ~dying_process() { let_it_end(); }
  dying_process(const dying_process&) = delete;
  dying_process& operator=(const dying_process&) = delete;

  pid_t pid() const { return pid_; }
  void begin_to_exit(int signal = SIGKILL) { send_signal(pid_, signal); }
  void let_it_end() {
    if (maker_ > 0) {
      close(hold_);
      waitpid(maker_, nullptr, 0);
      maker_ = 0;
    }
  }

 private:
  static pid_t paused_child() {
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) {
        pause();
      }
    }
    return pid;
  }

  [[noreturn]] static void keep_two(int pid_pipe, int hold) {
    if (unshare(CLONE_NEWPID) != 0) {
      _exit(1);
    }
    const pid_t first = paused_child();
    const pid_t other = paused_child();
    if (first < 0 || other < 0 ||
        write(pid_pipe, &first, sizeof first) != static_cast<ssize_t>(sizeof first)) {
      _exit(1);
    }
    char byte;
    while (read(hold, &byte, 1) > 0) {
    }
    send_signal(first, SIGKILL);
    waitpid(other, nullptr, 0);
    waitpid(first, nullptr, 0);
    _exit(0);
  }

  pid_t maker_ = 0;
  pid_t pid_ = 0;
  int hold_ = -1;
};

}  // namespace wex_test

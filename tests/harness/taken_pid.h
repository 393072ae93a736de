// taken_pid: a pid that is used again at once, and a daemon that stands still meanwhile.
#pragma once

#include <linux/sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "wex_test.h"

namespace wex_test {

// Every thread of the daemon has stopped when this returns: the signal alone stops them some time later.
inline void stop_all_threads(Daemon* daemon) {
  ASSERT_GT(daemon->pid(), 0);
  daemon->send(SIGSTOP);
  for (const std::string& task : list_dir("/proc/" + std::to_string(daemon->pid()) + "/task")) {
    const pid_t tid = static_cast<pid_t>(std::stol(task));
    EXPECT_TRUE(eventually(
        [tid] {
          const std::string state = status_field(tid, "State");
          return state.empty() || state[0] == 'T' || state[0] == 't';
        },
        20s))
        << status_field(tid, "State");
  }
}

// A fork whose child has this pid; -1 while somebody else has it.
inline pid_t fork_as(pid_t wanted) {
  clone_args how = {};
  how.exit_signal = SIGCHLD;
  how.set_tid = reinterpret_cast<uintptr_t>(&wanted);
  how.set_tid_size = 1;
  return static_cast<pid_t>(syscall(SYS_clone3, &how, sizeof how));
}

// Another process that has a pid which somebody else had: the kernel is asked for this very one, until the
// former owner is reaped. A tenth of a second later at the soonest: the kernel counts start times in
// hundredths, and by itself it gives a pid again only when it has given all the others.
class stranger {
 public:
  explicit stranger(pid_t wanted, const std::vector<std::string>& words = {"/bin/sleep", "1000"}) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
      arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    std::this_thread::sleep_for(100ms);
    eventually(
        [&] {
          pid_ = fork_as(wanted);
          if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execv(arguments[0], arguments.data());
            _exit(127);
          }
          return pid_ > 0;
        },
        20s);
    EXPECT_EQ(wanted, pid_) << strerror(errno);
    EXPECT_TRUE(pid_ <= 0 || eventually([&] {
                  // The kernel knows the words of a program a little later than its path.
                  return program_of(pid_) != program_of(getpid()) && !command_line(pid_).empty();
                }))
        << words[0] << " was not executed";
  }
  ~stranger() { end(); }
  stranger(const stranger&) = delete;
  stranger& operator=(const stranger&) = delete;

  pid_t pid() const { return pid_; }
  bool lives() const { return pid_ > 0 && is_alive(pid_); }
  void end() {
    if (pid_ > 0) {
      send_signal(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      pid_ = 0;
    }
  }

 private:
  pid_t pid_ = 0;
};

}  // namespace wex_test

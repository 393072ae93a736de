// A forked child of the test.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "wex_test.h"

namespace wex_test {

child::child(const std::function<bool()>& work) {
  int line[2];
  EXPECT_EQ(0, pipe2(line, O_CLOEXEC));
  fflush(stdout);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const char answer = work() && !testing::Test::HasFailure() ? 'y' : 'n';
    fflush(stdout);
    if (write(line[1], &answer, 1) != 1) {
      _exit(1);
    }
    close(line[1]);
    for (;;) {
      pause();
    }
  }
  close(line[1]);
  char answer = 0;
  EXPECT_EQ(1, read(line[0], &answer, 1)) << "the child did not come up";
  ready_ = answer == 'y';
  close(line[0]);
}

child::child(const char* path, const std::vector<std::string>& words) {
  int ready[2];
  int input[2];
  EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
  EXPECT_EQ(0, pipe2(input, O_CLOEXEC));
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(input[0], STDIN_FILENO);
    std::vector<char*> argv;
    for (const std::string& word : words) {
      argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    execv(path, argv.data());
    _exit(127);
  }
  close(ready[1]);
  close(input[0]);
  input_ = input[1];
  char byte;
  ready_ = read(ready[0], &byte, 1) == 0;  // nothing is written: exec closes it
  close(ready[0]);
}

child::~child() {
  end();
  if (input_ >= 0) {
    close(input_);
  }
}

void child::kill_only() const {
  send_signal(pid_, SIGKILL);
}

void child::end() {
  if (!ended()) {
    kill_only();
    waitpid(pid_, &status_, 0);
    ended_ = true;
  }
}

bool child::ended() {
  if (!ended_ && (pid_ <= 0 || waitpid(pid_, &status_, WNOHANG) == pid_)) {
    ended_ = true;
  }
  return ended_;
}

int child::signal(milliseconds limit) {
  return eventually([this] { return ended(); }, limit) && WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
}

pid_t child::reaped() {
  child gone;
  gone.end();
  return gone.pid();
}

}  // namespace wex_test

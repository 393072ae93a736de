// System calls that fail as a test wants them to. The call is refused below the program, by the kernel's
// filter or by strace beside it; the program that is tested stays as it is.
#pragma once

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "wex_test.h"

namespace wex_test {

// From now on the call `number` fails with `error` whenever its argument `index` has this value. For the rest
// of the process's life, so in a forked child only.
inline bool refuse_call(long number, unsigned index, unsigned value, unsigned error) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offsetof(seccomp_data, args) +
                                                               index * sizeof(uint64_t))),  // its low word
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {sizeof program / sizeof program[0], program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// Runs `work` in a forked child whose calls, and those of its children, fail as strace's `injections` say
// ("read:error=EIO:when=1"). They are counted from the beginning of `work`. Its exit status is the result of
// `work`, or 250 after a failed expectation.
inline int run_failing(const std::vector<std::string>& injections, const std::function<int()>& work) {
  constexpr pid_t kTraced = 424242;  // what getppid says once strace stands beside the child
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (getppid() != kTraced) {
      usleep(1000);
    }
    const int result = work();
    fflush(stdout);
    _exit(testing::Test::HasFailure() ? 250 : result);
  }
  std::vector<std::string> words = {
      "strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=getppid:retval=" + std::to_string(kTraced)};
  for (const std::string& injection : injections) {
    words.insert(words.end(), {"-e", "inject=" + injection});
  }
  words.insert(words.end(), {"-p", std::to_string(child)});
  Process strace;
  int status = -1;
  const bool ended =
      strace.start(words) && eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, 60s);
  if (!ended) {
    send_signal(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  EXPECT_TRUE(ended) << "strace did not attach, or the call did not come back";
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs `work` in a forked child for which this file stands on a disk that does not move, until the work is
// done: whoever opens the file, writes to it or syncs it waits. Its exit status is that of `work`, or 250
// after a failed expectation. A failure when the work does not end within a minute.
inline int run_with_stuck_file(const std::string& path, const std::function<int()>& work) {
  static constexpr char kTraced[] = "/tmp/strace-stands-beside";  // nowhere, but to whoever is traced
  static constexpr char kDone[] = "/tmp/work-is-done";
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (access(kTraced, F_OK) != 0) {
      usleep(1000);
    }
    const int result = work();
    fflush(stdout);
    mkdir(kDone, 0700);
    while (access(kTraced, F_OK) == 0) {  // strace cannot follow the end of a thread that it holds
      usleep(1000);
    }
    _exit(testing::Test::HasFailure() ? 250 : result);
  }
  Process strace;
  EXPECT_TRUE(strace.start({"strace", "-f", "-qq", "-o", "/dev/null", "-P", path, "-P",
                            path.substr(0, path.rfind('/')), "-P", kTraced, "-e",
                            "inject=openat,write,fsync:delay_enter=600000000", "-e",
                            "inject=?access,?faccessat,?faccessat2:retval=0", "-p", std::to_string(child)}));
  EXPECT_TRUE(eventually([] { return access(kDone, F_OK) == 0; }, 60s)) << "the work stands still, too";
  strace.kill_now();  // the disk moves again
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  rmdir(kDone);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace wex_test

// unit_support: what unit tests of the lower modules share. Tests here use true absolute paths, so they
// insist on the sandbox.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <regex.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "wex.h"
#include "wex_dbg.h"
#include "wex_test.h"

namespace unit {

using std::chrono::steady_clock;

constexpr uid_t kOtherUser = 1234;

using namespace wex_test;

// From now on every open with O_CREAT fails with EACCES, as on a kernel that guards sticky directories. For
// the rest of the process's life: in a forked child only.
inline void refuse_creation() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),  // its low word
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_CREAT, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EACCES),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {sizeof program / sizeof program[0], program};
  ASSERT_EQ(0, prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
  ASSERT_EQ(0, prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter));
  ASSERT_LT(open("/tmp/refused", O_WRONLY | O_CREAT, 0600), 0);
}

inline milliseconds time_of(const std::function<void()>& work) {
  const auto start = steady_clock::now();
  work();
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

// Replaces the part in parentheses of every match of an extended regular expression.
inline std::string with_group(const std::string& text, const char* expression, const char* replacement) {
  regex_t compiled;
  EXPECT_EQ(0, regcomp(&compiled, expression, REG_EXTENDED)) << expression;
  std::string result;
  const char* rest = text.c_str();
  regmatch_t match[2];
  while (regexec(&compiled, rest, 2, match, 0) == 0 && match[0].rm_eo > 0) {
    result.append(rest, static_cast<size_t>(match[1].rm_so)).append(replacement);
    result.append(rest + match[1].rm_eo, static_cast<size_t>(match[0].rm_eo - match[1].rm_eo));
    rest += match[0].rm_eo;
  }
  regfree(&compiled);
  return result + rest;
}

inline std::string lines_printed_by(const std::function<void()>& work) {
  return without_line_numbers(printed_by(work));
}

inline void set_levels(int32_t pub, int32_t alive) {
  g_wex_dbg_level[WEX_DBG_PUB] = pub;
  g_wex_dbg_level[WEX_DBG_ALIVE] = alive;
}

// Runs `work` in a child; its failed expectations fail this test too.
inline void in_child(const std::function<void()>& work) {
  fflush(stdout);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    work();
    fflush(stdout);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_EQ(0, status) << "what the child process found is printed above";
}

// Every case starts with empty /tmp, /data and /dev/shm of its own, and with silent levels.
class Sandboxed : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, unshare(CLONE_NEWNS)) << strerror(errno);
    for (const char* const directory : {"/tmp", "/data", "/dev/shm"}) {
      ASSERT_EQ(0, mount("unit", directory, "tmpfs", 0, "mode=1777")) << directory << ": " << strerror(errno);
    }
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
    g_wex_dbg_level[WEX_DBG_LIB] = WEX_DBG_SILENT;
  }
  void TearDown() override {
    for (const char* const directory : {"/tmp", "/data", "/dev/shm"}) {
      umount2(directory, MNT_DETACH);
    }
  }
};

}  // namespace unit

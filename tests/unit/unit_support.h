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

#include "send_signal.h"
#include "wex.h"
#include "wex_dbg.h"

namespace unit {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uid_t kOtherUser = 1234;

inline void write_file(const std::string& path, const std::string& text, mode_t mode = 0644) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
  ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size())) << path;
  close(fd);
}

// "<absent>" when there is no such file.
inline std::string contents(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return "<absent>";
  }
  std::string text;
  char chunk[4096];
  ssize_t got;
  while ((got = read(fd, chunk, sizeof(chunk))) > 0) {
    text.append(chunk, static_cast<size_t>(got));
  }
  close(fd);
  return text;
}

inline bool exists(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

inline mode_t mode_of(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777u : 0;
}

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

inline int open_descriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  }
  return count;
}

inline bool eventually(const std::function<bool()>& condition, milliseconds limit = milliseconds(5000)) {
  const auto deadline = steady_clock::now() + limit;
  while (!condition()) {
    if (steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(milliseconds(2));
  }
  return true;
}

inline milliseconds time_of(const std::function<void()>& work) {
  const auto start = steady_clock::now();
  work();
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

// What is written to descriptor 1 while `work` runs.
inline std::string output_of(const std::function<void()>& work) {
  fflush(stdout);
  char path[] = "/tmp/unit_output.XXXXXX";
  const int file = mkstemp(path);
  unlink(path);
  const int kept = dup(STDOUT_FILENO);
  dup2(file, STDOUT_FILENO);
  work();
  fflush(stdout);
  dup2(kept, STDOUT_FILENO);
  close(kept);
  std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
  EXPECT_EQ(static_cast<ssize_t>(text.size()), pread(file, &text[0], text.size(), 0));
  close(file);
  return text;
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

// Whether all of the text matches.
inline bool matches(const std::string& text, const std::string& expression) {
  regex_t compiled;
  EXPECT_EQ(0, regcomp(&compiled, ("^(" + expression + ")$").c_str(), REG_EXTENDED)) << expression;
  const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return found;
}

// The same output with the line numbers of the source, which are free, as "N".
inline std::string lines_of(const std::function<void()>& work) {
  const std::string text = with_group(output_of(work), "\\[WEX:[a-z_]+:([0-9]+)\\]", "N");
  return with_group(text, "\\[RAS\\]<[a-z_]+, [a-z_]+, ([0-9]+)>", "N");
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

// A child that runs `work` and then stays until it is ended.
class lasting_child {
 public:
  explicit lasting_child(const std::function<void()>& work = [] {}) {
    int ready[2];
    EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      work();
      close(ready[1]);
      for (;;) {
        pause();
      }
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(0, read(ready[0], &byte, 1)) << "the child writes nothing, it only closes";
    close(ready[0]);
  }
  // A program instead: ready once it has been executed.
  lasting_child(const char* path, const std::vector<std::string>& words) {
    int ready[2];
    EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(input_, O_CLOEXEC));
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(input_[0], STDIN_FILENO);
      std::vector<char*> argv;
      for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
      }
      argv.push_back(nullptr);
      execv(path, argv.data());
      _exit(127);
    }
    close(ready[1]);
    close(input_[0]);
    char byte;
    EXPECT_EQ(0, read(ready[0], &byte, 1)) << "the child writes nothing, exec closes it";
    close(ready[0]);
  }
  ~lasting_child() { end(); }
  lasting_child(const lasting_child&) = delete;
  lasting_child& operator=(const lasting_child&) = delete;

  pid_t pid() const { return pid_; }
  void end() {
    if (pid_ > 0) {
      wex_test::send_signal(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      pid_ = 0;
    }
    if (input_[1] >= 0) {
      close(input_[1]);
      input_[1] = -1;
    }
  }

 private:
  pid_t pid_ = 0;
  int input_[2] = {-1, -1};
};

// Every case runs on a private root with empty /tmp, /data and /dev/shm, starts with silent levels, and
// leaves no descriptor or child behind.
class Sandboxed : public testing::Test {
 protected:
  void SetUp() override {
    const char* const mark = getenv("WEX_SANDBOX");
    if (mark == nullptr || strcmp(mark, "1") != 0) {
      GTEST_FAIL() << "these cases write to absolute paths: start me through tools/sandbox";
    }
    ASSERT_EQ(0, unshare(CLONE_NEWNS)) << strerror(errno);
    for (const char* const directory : {"/tmp", "/data", "/dev/shm"}) {
      ASSERT_EQ(0, mount("unit", directory, "tmpfs", 0, "mode=1777")) << directory << ": " << strerror(errno);
    }
    before_ = open_descriptors();
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
    g_wex_dbg_level[WEX_DBG_LIB] = WEX_DBG_SILENT;
  }
  void TearDown() override {
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child outlived the case";
    EXPECT_EQ(before_, open_descriptors()) << "a descriptor outlived the case";
    for (const char* const directory : {"/tmp", "/data", "/dev/shm"}) {
      umount2(directory, MNT_DETACH);
    }
  }

 private:
  int before_ = 0;
};

}  // namespace unit

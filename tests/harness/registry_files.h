// registry_files: directories, files and processes around the registry, for tests inside the sandbox.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "wex_dbg.h"

namespace registry {

using namespace std::chrono_literals;

inline bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

inline void make_dirs(const std::string& path) {
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    mkdir(path.substr(0, at).c_str(), 0777);
    if (at == std::string::npos) {
      return;
    }
  }
}

inline std::string db_dir(int vsd) {
  return "/tmp/vsd/" + std::to_string(vsd) + "/wex/db";
}
inline std::string db_file(int vsd, const std::string& name, int pid) {
  return db_dir(vsd) + "/" + name + "." + std::to_string(pid);
}

inline void write_file(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
  ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
  close(fd);
}

inline std::string read_file(const std::string& path) {
  std::string text;
  char chunk[4096];
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  for (ssize_t got; fd >= 0 && (got = read(fd, chunk, sizeof chunk)) > 0;) {
    text.append(chunk, static_cast<size_t>(got));
  }
  if (fd >= 0) {
    close(fd);
  }
  return text;
}

inline bool exists(const std::string& path) {
  struct stat facts;
  return lstat(path.c_str(), &facts) == 0;
}

inline int open_descriptors() {
  int count = 0;
  DIR* const dir = opendir("/proc/self/fd");
  while (dir != nullptr && readdir(dir) != nullptr) {
    ++count;
  }
  closedir(dir);
  return count;
}

// A child that lives until it is ended; `prepare` runs in it first and its result is what ready() tells.
class service {
 public:
  explicit service(const std::function<bool()>& prepare = [] { return true; }) {
    int line[2];
    if (pipe2(line, O_CLOEXEC) != 0) {
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const char answer = prepare() ? 'y' : 'n';
      if (write(line[1], &answer, 1) == 1) {
        close(line[1]);
        for (;;) {
          pause();
        }
      }
      _exit(1);
    }
    close(line[1]);
    char answer = 'n';
    ready_ = read(line[0], &answer, 1) == 1 && answer == 'y';
    close(line[0]);
  }
  ~service() { end(); }
  service(const service&) = delete;
  service& operator=(const service&) = delete;

  int pid() const { return pid_; }
  bool ready() const { return ready_; }
  void kill_only() const { kill(pid_, SIGKILL); }
  void end() {
    if (pid_ > 0 && !ended_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      ended_ = true;
    }
  }

 private:
  int pid_ = -1;
  bool ready_ = false;
  bool ended_ = false;
};

// A pid that nothing has any more.
inline int dead_pid() {
  service gone;
  gone.end();
  return gone.pid();
}

// True when another process is refused the write lock of the whole file.
inline bool is_locked_for_others(const std::string& path) {
  const pid_t child = fork();
  if (child == 0) {
    const int fd = open(path.c_str(), O_RDWR);
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    _exit(fd >= 0 && fcntl(fd, F_SETLK, &whole) != 0 && (errno == EACCES || errno == EAGAIN) ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// What is printed to descriptor 1 while it lives, with public diagnostics on.
class captured_output {
 public:
  captured_output() : kept_(dup(STDOUT_FILENO)), level_(g_wex_dbg_level[WEX_DBG_PUB]) {
    fflush(stdout);
    char name[] = "/tmp/captured.XXXXXX";
    file_ = mkstemp(name);
    path_ = name;
    dup2(file_, STDOUT_FILENO);
    g_wex_dbg_level[WEX_DBG_PUB] = 0;
  }
  ~captured_output() {
    g_wex_dbg_level[WEX_DBG_PUB] = level_;
    fflush(stdout);
    dup2(kept_, STDOUT_FILENO);
    close(kept_);
    close(file_);
    unlink(path_.c_str());
  }
  captured_output(const captured_output&) = delete;
  captured_output& operator=(const captured_output&) = delete;

  std::string raw() const { return read_file(path_); }
  // With the line numbers of the source left out.
  std::string text() const {
    return std::regex_replace(raw(), std::regex("\\[WEX:([a-z_]+):[0-9]+\\]"), "[$1]");
  }

 private:
  int kept_;
  int32_t level_;
  int file_ = -1;
  std::string path_;
};

// Everything at an absolute path is private here, or no test runs at all.
class world : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_STREQ("1", getenv("WEX_SANDBOX")) << "start me through tools/sandbox";
    ASSERT_EQ(0, prctl(PR_CAPBSET_READ, 22)) << "a restart of the machine would be real";
    umask(022);
    for (int vsd = 0; vsd < 16; ++vsd) {
      make_dirs(db_dir(vsd));
    }
    before_ = open_descriptors();
  }
  void TearDown() override {
    EXPECT_EQ(before_, open_descriptors()) << "a descriptor outlived the test";
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child outlived the test";
  }
  int before_ = 0;
};

}  // namespace registry

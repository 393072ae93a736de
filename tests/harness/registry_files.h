// registry_files: directories, files and processes around the registry, for tests inside the sandbox.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "wex_dbg.h"
#include "wex_test.h"

namespace registry {

using wex_test::eventually;
using wex_test::exists;
using wex_test::make_dirs;
using wex_test::read_file;
using wex_test::write_file;
using namespace std::chrono_literals;

inline std::string db_dir(int vsd) {
  return "/tmp/vsd/" + std::to_string(vsd) + "/wex/db";
}
inline std::string db_file(int vsd, const std::string& name, int pid) {
  return db_dir(vsd) + "/" + name + "." + std::to_string(pid);
}

inline size_t count_descriptors() {
  return wex_test::open_descriptors().size();
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
  void kill_only() const { wex_test::send_signal(pid_, SIGKILL); }
  void end() {
    if (pid_ > 0 && !ended_) {
      wex_test::send_signal(pid_, SIGKILL);
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

// The world with the database directories of all domains, as the daemon's start leaves them.
struct RegistryWorld : wex_test::WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    umask(022);
    for (int vsd = 0; vsd < 16; ++vsd) {
      make_dirs(db_dir(vsd));
    }
    before_ = count_descriptors();
  }
  size_t before_ = 0;
};

}  // namespace registry

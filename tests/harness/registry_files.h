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
#include <string>
#include <vector>

#include "wex_dbg.h"
#include "wex_test.h"

namespace registry {

using wex_test::count_descriptors;
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

using service = wex_test::child;

inline int dead_pid() {
  return wex_test::child::reaped();
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

// What is printed, with public diagnostics on.
class captured_output {
 public:
  captured_output() { g_wex_dbg_level[WEX_DBG_PUB] = 0; }
  ~captured_output() { g_wex_dbg_level[WEX_DBG_PUB] = level_; }
  captured_output(const captured_output&) = delete;
  captured_output& operator=(const captured_output&) = delete;

  std::string raw() const { return out_.text(); }
  // With the line numbers of the source left out.
  std::string text() const { return wex_test::replace_matches(raw(), "\\[WEX:([a-z_]+):[0-9]+\\]", "[$1]"); }

 private:
  wex_test::printed out_;
  int32_t level_ = g_wex_dbg_level[WEX_DBG_PUB];
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

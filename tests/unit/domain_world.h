// domain_world: what the tests of domains share: real processes with real groups, texts of files and of
// standard output, the directories of a domain. Everything it starts it also ends.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dir_walk.h"
#include "send_signal.h"
#include "text_buffer.h"
#include "wex.h"
#include "wex_paths.h"
#include "wex_utils.h"

namespace domain_world {

inline std::string text_of(const std::string& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

inline void write_text(const std::string& path, const std::string& text = "") {
  std::ofstream file(path);
  file << text;
  file.close();
  ASSERT_TRUE(file) << path;
}

template <class... Arguments>
std::string path_of(const char* format, Arguments... arguments) {
  char path[kPathSize];
  EXPECT_TRUE(wex_format(path, sizeof path, format, arguments...));
  return path;
}

inline bool there(const std::string& path) {
  struct stat facts;
  return lstat(path.c_str(), &facts) == 0;
}

inline mode_t mode_of(const std::string& path) {
  struct stat facts;
  return stat(path.c_str(), &facts) == 0 ? facts.st_mode & 07777 : 0;
}

inline void make_dirs(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
    if (slash == std::string::npos) {
      break;
    }
  }
  ASSERT_TRUE(there(path)) << path;
}

inline std::set<std::string> entries_of(const std::string& path) {
  std::set<std::string> names;
  dir_walk dir(path.c_str());
  if (dir.valid()) {
    while (const dirent* entry = dir.next()) {
      names.insert(entry->d_name);
    }
  }
  return names;
}

inline bool eventually(const std::function<bool()>& holds, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// What `work` writes to descriptor 1, with the line numbers of diagnostics replaced by "N".
inline std::string printed_by(const std::function<void()>& work) {
  testing::internal::CaptureStdout();
  work();
  const std::string text = testing::internal::GetCapturedStdout();
  return std::regex_replace(text, std::regex("\\[WEX:([a-z_]+):[0-9]+\\]"), "[WEX:$1:N]");
}

// A child of the test. Waits for its end when it is let go.
class process {
 public:
  // Runs `work` and sleeps, in the given supplementary groups (or in the test's own).
  explicit process(
      const std::vector<gid_t>& groups, const std::function<void()>& work = [] {}) {
    int ready[2];
    EXPECT_EQ(0, pipe(ready));
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      if (setgroups(groups.size(), groups.data()) != 0) {
        _exit(2);
      }
      work();
      if (write(ready[1], "r", 1) != 1) {
        _exit(3);
      }
      for (;;) {
        pause();
      }
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(1, read(ready[0], &byte, 1)) << "the process did not come up";
    close(ready[0]);
  }
  ~process() {
    if (!ended()) {
      wex_test::send_signal(pid_, SIGKILL);
      waitpid(pid_, &status_, 0);
    }
  }
  process(const process&) = delete;
  process& operator=(const process&) = delete;

  pid_t pid() const { return pid_; }
  bool ended() {
    if (!over_ && waitpid(pid_, &status_, WNOHANG) == pid_) {
      over_ = true;
    }
    return over_;
  }
  // The signal that ended it within the limit, else 0.
  int signal(std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    return eventually([this] { return ended(); }, limit) && WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
  }

 private:
  pid_t pid_ = -1;
  int status_ = 0;
  bool over_ = false;
};

// Lays hands on this much memory, for the life of the process.
inline void hold_memory(size_t kib) {
  void* const block = mmap(nullptr, kib * 1024, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) {
    _exit(4);
  }
  memset(block, 1, kib * 1024);
}

inline void make_marker_dir(int vsd) {
  make_dirs(path_of(kFlagDirBareFmt, vsd));
}

inline void mark(int vsd, pid_t pid) {
  write_text(path_of(kFlagFileFmt, vsd, pid));
}

// A test in a world of its own: the sandbox. Diagnostics print.
struct World : testing::Test {
  void SetUp() override {
    ASSERT_STREQ("1", getenv("WEX_SANDBOX")) << "start me through tools/sandbox";
    g_wex_dbg_level[WEX_DBG_PUB] = 0;
    descriptors_ = entries_of("/proc/self/fd").size();
  }
  void TearDown() override {
    g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
    EXPECT_EQ(0, chdir("/"));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child outlived the test";
    EXPECT_EQ(descriptors_, entries_of("/proc/self/fd").size()) << "a descriptor outlived the test";
  }
  size_t descriptors_ = 0;
};

// A root of the test's own, empty but for what it puts there.
struct BareRoot : World {
  void SetUp() override {
    World::SetUp();
    make_dirs(kRoot);
  }
  void TearDown() override {
    umount2("/bare/tmp", MNT_DETACH);
    EXPECT_EQ(0, system("rm -rf /bare"));
    World::TearDown();
  }
  // A process as its status has it, under a pid that no kernel gives out.
  static void put_process(const char* pid, const std::string& status) {
    make_dirs(std::string(kRoot) + "/proc/" + pid);
    write_text(std::string(kRoot) + "/proc/" + pid + "/status", status);
  }
  // What `work` prints inside.
  static std::string printed_inside(const std::function<bool()>& work) {
    return printed_by([&] {
      const pid_t child = fork();
      if (child == 0) {
        _exit(chroot(kRoot) == 0 && chdir("/") == 0 && work() ? 0 : 1);
      }
      int status = -1;
      EXPECT_EQ(child, waitpid(child, &status, 0));
      EXPECT_EQ(0, status);
    });
  }
  static constexpr char kRoot[] = "/bare";
};

}  // namespace domain_world

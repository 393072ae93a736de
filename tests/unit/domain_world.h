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
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dir_walk.h"
#include "text_buffer.h"
#include "wex.h"
#include "wex_paths.h"
#include "wex_test.h"
#include "wex_utils.h"

namespace domain_world {

using namespace wex_test;

template <class... Arguments>
std::string path_of(const char* format, Arguments... arguments) {
  char path[kPathSize];
  EXPECT_TRUE(wex_format(path, sizeof path, format, arguments...));
  return path;
}

// A child in the given supplementary groups.
struct process : child {
  explicit process(
      const std::vector<gid_t>& groups, const std::function<void()>& work = [] {})
      : child([&] {
          const bool moved = setgroups(groups.size(), groups.data()) == 0;
          work();
          return moved;
        }) {
    EXPECT_TRUE(ready()) << "no right to choose groups";
  }
};

// With the line numbers of diagnostics as "N".
inline std::string lines_printed_by(const std::function<void()>& work) {
  return without_line_numbers(printed_by(work));
}

// Lays hands on this much memory, for the life of the process.
inline void hold_memory(size_t kib) {
  void* const block = mmap(nullptr, kib * 1024, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) {
    _exit(4);
  }
  memset(block, 1, kib * 1024);
}

inline void make_flag_dir(int vsd) {
  make_dirs(path_of(kFlagDirFmt, vsd));
}

inline void make_flag_file(int vsd, pid_t pid) {
  write_file(path_of(kFlagFileFmt, vsd, pid), "");
}

// Diagnostics print.
struct World : testing::Test {
  void SetUp() override { g_wex_dbg_level[WEX_DBG_PUB] = 0; }
  void TearDown() override {
    g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
    EXPECT_EQ(0, chdir("/"));
  }
};

// A root of the test's own, empty but for what it puts there.
struct BareRoot : World {
  void SetUp() override {
    World::SetUp();
    make_dirs(kRoot);
  }
  void TearDown() override {
    umount2("/bare/tmp", MNT_DETACH);
    remove_tree(kRoot);
    World::TearDown();
  }
  // A process as its status has it, under a pid that no kernel gives out.
  static void put_process(const char* pid, const std::string& status) {
    make_dirs(std::string(kRoot) + "/proc/" + pid);
    write_file(std::string(kRoot) + "/proc/" + pid + "/status", status);
  }
  static void run_inside(const std::function<bool()>& work) {
    const pid_t child = fork();
    if (child == 0) {
      _exit(chroot(kRoot) == 0 && chdir("/") == 0 && work() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
  }
  // What `work` prints inside.
  static std::string printed_inside(const std::function<bool()>& work) {
    return lines_printed_by([&] { run_inside(work); });
  }
  static constexpr char kRoot[] = "/bare";
};

}  // namespace domain_world

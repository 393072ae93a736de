// The daemon's own names: whatever lies there when it starts, it comes up; while it runs its lock is safe.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "wex_paths.h"
#include "wex_test.h"

namespace {

using namespace wex_test;
using texts = std::vector<std::string>;

constexpr uid_t kSomebody = 1234;
const texts kService = {"--register=RESTART", "--confirm", "--ready=/tmp/wex/ready", "--hold"};

struct Claims : WexWorld {
  void TearDown() override {
    for (const char* const directory : {"/tmp", "/dev/shm", "/data"}) {
      for (const std::string& name : list_dir(directory)) {
        if (name.compare(0, 6, "aside-") == 0) {
          remove_tree(std::string(directory) + "/" + name);
        }
      }
    }
    remove_tree("/data/theirs");
    WexWorld::TearDown();
  }
};

void make_link(const char* path) {
  ASSERT_EQ(0, symlink("/data/theirs", path));
  ASSERT_EQ(0, lchown(path, kSomebody, kSomebody));
}

void make_file(const char* path, const std::string& text) {
  write_file(path, text, 0666);
  ASSERT_EQ(0, chown(path, kSomebody, kSomebody));
}

uid_t owner_of(const char* path) {
  struct stat facts = {};
  EXPECT_EQ(0, stat(path, &facts)) << path;
  return facts.st_uid;
}

// Who holds the lock of the daemon, as the kernel tells; 0 when nobody does.
pid_t lock_holder() {
  const int fd = open(kLockFile, O_RDWR | O_CLOEXEC);
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  const bool locked = fd >= 0 && fcntl(fd, F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
  close(fd);
  return locked ? whole.l_pid : 0;
}

struct obstacle {
  const char* what;
  std::function<void()> make;
  texts moved, removed;
};

const obstacle kObstacles[] = {
    {"another user's lock file", [] { make_file(kLockFile, "theirs"); }, {kLockFile}, {}},
    {"what another user has who once typed wex",
     [] {
       make_file(kLockFile, "");
       ASSERT_EQ(0, chown(kRunDir, kSomebody, kSomebody));
       ASSERT_EQ(0, chmod(kRunDir, 0755));
     },
     {},
     {kLockFile}},
    {"his link in place of the directory, his FIFO in place of the table",
     [] {
       remove_tree("/tmp/wex");
       make_link("/tmp/wex");
       ASSERT_EQ(0, mkfifo(kAliveTableFile, 0666));
     },
     {kRunDir},
     {kAliveTableFile}},
    {"a file in place of the directory, a directory in place of the table",
     [] {
       remove_tree("/tmp/wex");
       make_file("/tmp/wex", "theirs");
       make_dirs(std::string(kAliveTableFile) + "/d");
     },
     {kRunDir, kAliveTableFile},
     {}},
    {"a FIFO in place of the lock, a directory in place of the socket, a link in place of the table",
     [] {
       ASSERT_EQ(0, mkfifo(kLockFile, 0666));
       make_dirs(std::string(kControlSocket) + "/d");
       make_link(kAliveTableFile);
     },
     {kAliveTableFile, kControlSocket},
     {kLockFile}},
    {"a directory in place of the lock", [] { make_dirs(std::string(kLockFile) + "/d"); }, {kLockFile}, {}},
    {"his link in place of the lock", [] { make_link(kLockFile); }, {kLockFile}, {}},
};

void expect_logged(const obstacle& row, const std::string& log) {
  EXPECT_EQ(row.moved.size() + row.removed.size(), occurrences(log, "in the way")) << row.what << ": " << log;
  for (const std::string& path : row.moved) {
    EXPECT_NE(std::string::npos, log.find(path + " was in the way and is now /")) << row.what << log;
  }
  for (const std::string& path : row.removed) {
    EXPECT_NE(std::string::npos, log.find(path + " was in the way and was removed.\r\n")) << row.what << log;
  }
}

TEST_F(Claims, WhateverLiesAtItsNamesTheDaemonStartsAndSaysWhatItMoved) {
  write_file("/data/theirs", "precious");
  for (const obstacle& row : kObstacles) {
    make_dirs("/tmp/wex");
    unlink(kLockFile);
    unlink(kRunningLog1);
    unlink(kAliveTableFile);
    row.make();
    Daemon daemon;
    ASSERT_TRUE(daemon.start()) << row.what << read_console();
    EXPECT_EQ(daemon.pid(), lock_holder()) << row.what;
    EXPECT_EQ(0u, owner_of(kLockFile)) << row.what;
    EXPECT_EQ(0777u, mode_of(kRunDir)) << row.what;
    expect_logged(row, read_file(kRunningLog1));
    daemon.stop();
    remove_tree("/tmp/wex");
  }
  EXPECT_EQ("precious", read_file("/data/theirs"));
}

TEST_F(Claims, OnlyALockThatSomebodyHoldsKeepsItFromStarting) {
  make_dirs("/tmp/wex");
  make_dirs("/ovix/vsd/0/utils/wex");
  make_file(kLockFile, "theirs");
  const int held = open(kLockFile, O_RDWR | O_CLOEXEC);
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(0, fcntl(held, F_SETLK, &whole));
  EXPECT_TRUE(exited_with(run({Daemon::binary()}), 255));
  EXPECT_TRUE(console_says("]wex is already running\n"));
  EXPECT_NE(std::string::npos, read_file(kRunningLog1)
                                   .find(": Start refused: /tmp/wex/wex.pid is locked by "
                                         "process " +
                                         std::to_string(getpid()) + ".\r\n"))
      << read_file(kRunningLog1);
  EXPECT_EQ("theirs", read_file(kLockFile));
  close(held);
  mark_console();
  ASSERT_EQ(0, mount("unit", "/tmp/wex", "tmpfs", MS_RDONLY, nullptr)) << strerror(errno);
  EXPECT_TRUE(exited_with(run({Daemon::binary()}), 255));
  EXPECT_EQ(0, umount("/tmp/wex"));
  EXPECT_NE(std::string::npos,
            read_file(kRunningLog1).find(": Start refused: /tmp/wex/wex.pid: Read-only file system.\r\n"))
      << read_file(kRunningLog1);
  EXPECT_EQ(std::string::npos, read_console().find("already running"));
}

// A directory that cannot be opened for the moment is not in the way: moving it would let a second daemon
// run.
TEST_F(Claims, AShortageAtTheLockLeavesTheRunningDaemonItsDirectory) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts no_leak_check = {"ASAN_OPTIONS=detect_leaks=0"};  // it needs ptrace itself
  texts words = {"strace", "-qq", "-e", "trace=openat", "-o", "/tmp/wex/opens", Daemon::binary()};
  EXPECT_TRUE(exited_with(run(words, 30s, no_leak_check), 255));
  int at_lock = 0;
  for (const std::string& line : lines_of(read_file("/tmp/wex/opens"))) {
    ++at_lock;
    if (line.find("\"wex.pid\"") != std::string::npos) {
      break;
    }
  }
  ASSERT_GT(at_lock, 2) << read_file("/tmp/wex/opens");
  const std::string when = ":when=" + std::to_string(at_lock - 2) + ".." + std::to_string(at_lock - 1);
  words = {"strace", "-qq", "-o", "/dev/null", "-e", "inject=openat:error=ENOMEM" + when, Daemon::binary()};
  for (int again = 0; again < 3; ++again) {
    EXPECT_TRUE(exited_with(run(words, 30s, no_leak_check), 255));
    EXPECT_EQ(daemon.pid(), lock_holder());
  }
  const std::string log = read_file(kRunningLog1);
  const std::string refusal = ": Start refused: /tmp/wex/wex.pid: Cannot allocate memory.\r\n";
  ASSERT_NE(std::string::npos, log.find(refusal)) << log;
  EXPECT_EQ(log.find(refusal), log.rfind(refusal)) << "a start that is tried again and again fills no log";
  daemon.stop();
}

TEST_F(Claims, AnotherNameOfItsLockFileDoesNotCostTheLock) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(exited_with(run({Daemon::binary(), "-c", "0"}), 255));
  EXPECT_EQ(std::string::npos, read_file(kRunningLog1).find("refused")) << "a command, not a start";
  Process service;
  ASSERT_TRUE(service.start(actor_words(kService)));
  const std::string database = "/tmp/vsd/0/wex/db/actor." + std::to_string(service.pid());
  ASSERT_TRUE(
      eventually([&] { return read_file("/tmp/wex/ready") == std::to_string(service.pid()) + "\n"; }));
  const pid_t old_pid = service.pid();
  for (const std::string& name : {std::string(kForkFile), database}) {
    ASSERT_EQ(0, link(kLockFile, "/tmp/wex/other"));
    ASSERT_EQ(0, rename("/tmp/wex/other", name.c_str()));
  }
  service.kill_now();  // the daemon tries the lock of the database file
  EXPECT_GT(wait_for_actor(kService, old_pid), 0) << read_console();
  EXPECT_EQ(daemon.pid(), lock_holder());
  daemon.stop();
}

}  // namespace

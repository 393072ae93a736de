// What the running log says when the daemon's socket, lock file or directory is taken away.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "unique_fd.h"
#include "wex_core_watched_names.h"
#include "wex_paths.h"
#include "wex_rpc.h"
#include "wex_test.h"

namespace {

using namespace wex_test;
using texts = std::vector<std::string>;

constexpr char kAway[] = "/tmp/away";

// The texts of the running log, without the time before each.
texts running_log() {
  texts lines;
  for (const std::string& line : lines_of(read_file(kRunningLog1))) {
    lines.push_back(line.substr(line.find(": ") + 2));
  }
  return lines;
}

struct WatchedNames : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    make_dirs("/ovix/vsd/0/utils/wex");
    make_dirs("/tmp/wex");
    directory_.reset(open(kRunDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    lock_.reset(open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0700));
    socket_ = bound_socket();
    note(WEX_NAME_DIRECTORY, kRunDir);
    note(WEX_NAME_LOCK, kLockFile);
    note(WEX_NAME_SOCKET, kControlSocket);
  }
  void TearDown() override {
    remove_tree(kAway);
    directory_.reset();
    lock_.reset();
    socket_.reset();
    WexWorld::TearDown();
  }
  static unique_fd bound_socket() {
    unique_fd made = wex_open_control_socket();
    sockaddr_un address;
    const socklen_t length = wex_control_address(kControlSocket, &address);
    EXPECT_EQ(0, bind(made.get(), reinterpret_cast<sockaddr*>(&address), length));
    return made;
  }
  static void note(wex_watched_name place, const char* path) {
    struct stat facts = {};
    ASSERT_EQ(0, stat(path, &facts)) << path;
    wex_watch_name(place, facts);
  }

 private:
  unique_fd directory_, lock_, socket_;
};

struct row {
  const char* path;
  const char* gone;
  const char* replaced;
};
constexpr row kRows[] = {
    {kControlSocket, "/tmp/wex/.wex is gone, no process can register.",
     "/tmp/wex/.wex was replaced, no process can register."},
    {kLockFile, "/tmp/wex/wex.pid is gone, a second wex may start.",
     "/tmp/wex/wex.pid was replaced, a second wex may start."},
};

}  // namespace

TEST_F(WatchedNames, NothingIsLoggedWhileAllNamesLeadToWhatIsHeld) {
  for (int minute = 0; minute < 3; ++minute) {
    wex_check_names();
  }
  write_file("/tmp/wex/forkfile", "a");  // what others do in the directory is nothing
  wex_check_names();
  EXPECT_EQ(texts{}, running_log());
}

TEST_F(WatchedNames, ANameThatIsGoneIsLoggedOnceAndSoIsItsReturn) {
  for (const row& one : kRows) {
    unlink(kRunningLog1);
    ASSERT_EQ(0, rename(one.path, kAway));
    wex_check_names();
    wex_check_names();
    EXPECT_EQ(texts{one.gone}, running_log());
    ASSERT_EQ(0, rename(kAway, one.path));
    wex_check_names();
    wex_check_names();
    EXPECT_EQ((texts{one.gone, std::string(one.path) + " is in place again."}), running_log());
  }
}

TEST_F(WatchedNames, ANameThatLeadsToAnotherFileIsLoggedForEachOther) {
  for (const row& one : kRows) {
    unlink(kRunningLog1);
    ASSERT_EQ(0, rename(one.path, kAway));
    write_file(one.path, "first");
    wex_check_names();
    wex_check_names();
    EXPECT_EQ(texts{one.replaced}, running_log());
    write_file("/tmp/second", "second");
    ASSERT_EQ(0, rename("/tmp/second", one.path));
    wex_check_names();
    EXPECT_EQ((texts{one.replaced, one.replaced}), running_log());
    unlink(one.path);
    ASSERT_EQ(0, symlink("/etc/passwd", one.path));
    wex_check_names();
    EXPECT_EQ((texts{one.replaced, one.replaced, one.replaced}), running_log()) << "a link leads there";
    ASSERT_EQ(0, rename(kAway, one.path));
    wex_check_names();
  }
}

TEST_F(WatchedNames, ACleanerThatEmptiesTheDirectoryIsLogged) {
  unlink(kControlSocket);
  unlink(kLockFile);
  wex_check_names();
  EXPECT_EQ((texts{kRows[1].gone, kRows[0].gone}), running_log());
}

TEST_F(WatchedNames, AReplacedDirectoryIsLoggedWithWhatWasInIt) {
  ASSERT_EQ(0, rename("/tmp/wex", kAway));
  wex_check_names();
  EXPECT_EQ((texts{"/tmp/wex/ is gone, failed forks go unseen.", kRows[1].gone, kRows[0].gone}),
            running_log());
  unlink(kRunningLog1);
  make_dirs("/tmp/wex");
  wex_check_names();
  EXPECT_EQ(texts{"/tmp/wex/ was replaced, failed forks go unseen."}, running_log());
  remove_tree("/tmp/wex");
  ASSERT_EQ(0, rename(kAway, "/tmp/wex"));
  unlink(kRunningLog1);
  wex_check_names();
  EXPECT_EQ((texts{"/tmp/wex/ is in place again.", "/tmp/wex/wex.pid is in place again.",
                   "/tmp/wex/.wex is in place again."}),
            running_log());
}

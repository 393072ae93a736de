// Strict mode: only root writes the table through which threads report, and users' threads report all the
// same.
#include <fcntl.h>
#include <sys/stat.h>

#include "strict_world.h"
#include "unique_fd.h"
#include "wex_sys_alive.h"

namespace {

using namespace strict_world;

struct StrictAliveTable : Strict {
  static uint8_t sequence_of(pid_t tid) {
    const std::string table = read_file(kAliveTableFile);
    const size_t at = WEX_ALIVE_SEQ_OFFSET + static_cast<size_t>(tid);
    return at < table.size() ? static_cast<uint8_t>(table[at]) : uint8_t{0};
  }
  // The thread of the actor that reports: the one that is not its first.
  static pid_t reporter(pid_t pid) {
    for (const std::string& task : list_dir("/proc/" + text(pid) + "/task")) {
      const pid_t tid = static_cast<pid_t>(std::stol(task));
      if (tid != pid && sequence_of(tid) != 0) {
        return tid;
      }
    }
    return 0;
  }
};

}  // namespace

// He has made the file before the first start, and writes it when root's service runs.
TEST_F(StrictAliveTable, AThreadOfRootsThatAUserExemptsGoesOnReporting) {
  ASSERT_EQ(0, chmod("/data", 0777));
  ASSERT_TRUE(as_user([] { return write_file(kExemptThreads, ""), exists(kExemptThreads); }));
  start();
  Process& roots = process();
  ASSERT_TRUE(roots.start(actor_words({"--tag=roots", "--thread=1", "--hold"})));
  pid_t tid = 0;
  ASSERT_TRUE(eventually([&] { return (tid = reporter(roots.pid())) != 0; }, 20s)) << read_console();
  ASSERT_TRUE(as_user([tid] { return write_file(kExemptThreads, text(tid) + "\n"), true; }));
  ASSERT_EQ(text(tid) + "\n", read_file(kExemptThreads));
  const uint8_t before = sequence_of(tid);
  EXPECT_TRUE(eventually([&] { return static_cast<uint8_t>(sequence_of(tid) - before) >= 2; }, 20s));
  EXPECT_TRUE(log_says("/data/.wex_debug_pid does not count"));
}

TEST_F(StrictAliveTable, OnlyRootsThreadsReportInItAndUsersByMessage) {
  ASSERT_TRUE(as_user([] {  // his service came first
    umask(0);
    write_file(kAliveTableFile, std::string(184356, '\1'), 0777);
    return true;
  }));
  struct stat before = {};
  ASSERT_EQ(0, stat(kAliveTableFile, &before));
  start();
  struct stat table = {};
  ASSERT_EQ(0, stat(kAliveTableFile, &table));
  EXPECT_EQ(0U, table.st_uid);
  EXPECT_EQ(0744U, mode_of(kAliveTableFile));
  EXPECT_NE(before.st_ino, table.st_ino) << "he may have his own one mapped";
  EXPECT_TRUE(as_user([] { return open(kAliveTableFile, O_RDWR) < 0 && errno == EACCES; }));

  Process& roots = process();
  ASSERT_TRUE(roots.start(actor_words({"--tag=roots", "--thread=1", "--hold"})));
  pid_t tid = 0;
  ASSERT_TRUE(eventually([&] { return (tid = reporter(roots.pid())) != 0; }, 20s)) << read_console();
  const uint8_t first = sequence_of(tid);
  EXPECT_TRUE(eventually([&] { return sequence_of(tid) != first; }, 20s));
  EXPECT_EQ(0744U, mode_of(kAliveTableFile)) << "root's programs leave it so";

  Process& users = process();
  ASSERT_TRUE(users.start(users_words({"--tag=users", "--thread=1", "--hold"})));
  EXPECT_TRUE(console_says("wex_dispatch_domain_msg type:4 err:0\n", 20s)) << read_console();
}

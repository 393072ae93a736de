// Strict mode: root's service gets the pid that a user's program had, while that program waits for its
// restart.
#include <signal.h>
#include <sys/stat.h>

#include "registry_files.h"
#include "strict_world.h"
#include "taken_pid.h"

namespace {

using namespace strict_world;

struct StrictPidReuse : Strict {
  static bool is_roots(pid_t pid) {
    for (const wex_status_slot& slot : StatusReader().slots()) {
      if (slot.pid == pid && slot.uid == 0 && slot.state == WEX_STATUS_RUNNING) {
        return true;
      }
    }
    return false;
  }
  static bool waits(pid_t pid) {
    for (const wex_status_slot& slot : StatusReader().slots()) {
      if (slot.pid == pid && slot.uid == kUser && slot.state == WEX_STATUS_RESTARTING) {
        return true;
      }
    }
    return false;
  }
  static uid_t owner_of(const std::string& path) {
    struct stat facts = {};
    return stat(path.c_str(), &facts) == 0 ? facts.st_uid : ~uid_t{0};
  }
};

}  // namespace

// The basenames of the programs are the same, so both have a database file of one name. One pause ends with a
// restart, the other one because the program runs already.
TEST_F(StrictPidReuse, TheEndOfAUsersPauseLeavesRootsServiceItsRegistration) {
  const struct {
    const char* what;
    bool runs_already;
  } rows[] = {{"restarted", false}, {"runs-already", true}};
  write_file(kStrictFile, "restart_delay 3\n");
  start();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string tag = std::string("--tag=") + row.what;
    const words paused = {"--time-set=3", tag};
    const words of_root = service_words({tag + "-roots"});
    Process& slow = process();
    ASSERT_TRUE(start_service(&slow, paused));
    const pid_t pid = slow.pid();
    send_signal(pid, SIGKILL);
    ASSERT_TRUE(eventually([&] { return waits(pid); }, 20s)) << read_console();
    slow.wait(20s);
    stranger roots(pid, actor_words(of_root));
    ASSERT_TRUE(eventually([&] { return is_roots(pid); }, 20s)) << read_console();
    Process& second = process();
    if (row.runs_already) {
      ASSERT_TRUE(second.start(users_words(service_words(paused))));
    }
    ASSERT_TRUE(eventually([&] { return !waits(pid); }, 20s)) << read_console();
    ASSERT_GT(wait_for_actor(service_words(paused), pid, 20s), 0) << read_console();
    EXPECT_TRUE(is_roots(pid)) << read_console();
    EXPECT_EQ(0U, owner_of(registry::db_file(0, "actor", pid)));
    EXPECT_TRUE(exists(std::string(kUsersDir) + "/" + text(pid)));
    roots.end();
    const pid_t next = wait_for_actor(of_root, pid, 20s);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_EQ("0 0 0 0", ids_of(next, "Uid"));
  }
}

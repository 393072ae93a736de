// The exit handler's decisions, on a registry that the test fills.
#include "parked_world.h"

using namespace parked;

namespace {

// A registered program that has died while nobody looked.
wex_pid* died(wex_pid* rec) {
  rec->flags = WEX_FLAG_SELF_CHECKING;
  rec->alarm_wait_flag = 0;
  rec->check_count = 0;
  return rec;
}

class Exit : public Parked {};

}  // namespace

TEST_F(Exit, OfAProgramStartsItAgainUnderAnotherPid) {
  const wex_pid* const rec = died(park_at(900));
  const int32_t old_pid = rec->pid;
  wex_handle_netlink_exit(old_pid, 9, 0);
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_EQ(0, kill(rec->pid, 0));
}

TEST_F(Exit, OfARecordWithAnotherActionKeepsItAndStartsNothing) {
  for (const int32_t action : {0, 1, 4, 7, -2}) {
    const wex_pid* const rec =
        died(park_at(900, ("/bin/sleep 100" + std::to_string(action)).c_str(), action));
    const int32_t old_pid = rec->pid;
    wex_handle_netlink_exit(old_pid, 9, 0);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << action << ": something was started";
    EXPECT_TRUE(exists(db_file(old_pid, rec->process))) << action;
    EXPECT_EQ(9u, rec->exit_signal) << action;
    EXPECT_EQ(0, rec->check_count) << action;
    chain_lock hold(wex_chains);
    EXPECT_EQ(rec, __wex_find_pid(&wex_chains, old_pid)) << action;
  }
  EXPECT_TRUE(g_syslog.empty()) << "nor announced";
}

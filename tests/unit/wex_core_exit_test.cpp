// The exit handler's decisions, on a registry that the test fills.
#include "failing_calls.h"
#include "parked_world.h"
#include "wex_core.h"

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

// A thread that saw the marker and is slow to say so, and another that looks when the marker is gone: the log
// ends with what holds.
TEST_F(Exit, LinesAboutATakeDownAreInTheOrderOfWhatWasSeen) {
  EXPECT_EQ(
      0, wex_test::run_failing({"write:delay_enter=1000000:when=1"}, [] {  // the diagnostic, before the log
        g_wex_dbg_level[WEX_DBG_PUB] = 0;
        write_file("/tmp/first", "x");  // of each thread the first is slow: this one has had it
        EXPECT_EQ(0, system("mkdir -p /tmp/vsd/3 /ovix/vsd/0/utils/wex"));
        std::string log;
        for (int round = 0; round < 20 && log.find("exists") == std::string::npos; ++round) {
          unlink(kRunningLog1);
          write_file("/tmp/vsd/3/delete_vsd", "");
          std::thread slow([] { wex_take_down_under_way(); });
          std::this_thread::sleep_for(
              std::chrono::milliseconds(300));  // or it saw nothing, and there is another round
          unlink("/tmp/vsd/3/delete_vsd");
          wex_take_down_under_way();
          slow.join();
          log = contents(kRunningLog1);
        }
        const size_t exists = log.find("/tmp/vsd/3/delete_vsd exists, exited processes are not restarted.");
        EXPECT_NE(std::string::npos, exists) << log;
        EXPECT_LT(exists, log.find("No domain is taken down any more")) << log;
        return 0;
      }));
}

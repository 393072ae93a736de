// The exit handler and third-part programs that ended before they were found.
#include "wex_core_exit.h"

#include "exit_world.h"
#include "leak_gate.h"
#include "registry_files.h"
#include "renamed_record.h"
#include "text_buffer.h"
#include "wex_chain_rebuild.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_takedown.h"
#include "wex_core_third_part.h"
#include "wex_signals_reaper.h"
#include "wex_status_image.h"
#include "wex_utils.h"

using namespace exit_world;

TEST_F(Exit, OfAMissedChildRestartsItsProgramOnceItHasBeenReaped) {
  const pid_t child = zombie();
  const wex_pid* const rec = missed(park_at(900), child);
  const int32_t old_pid = rec->pid;
  wex_handle_missed_exits();
  EXPECT_EQ(old_pid, rec->pid) << "its child has not been reaped";
  wex_chld_handler(SIGCHLD);
  wex_handle_missed_exits();
  ASSERT_NE(old_pid, rec->pid);
  EXPECT_EQ(0, kill(rec->pid, 0));
  EXPECT_EQ(0u, rec->exit_signal) << "the child's status";
  EXPECT_EQ(1, rec->check_count) << "throttled like any other";
  EXPECT_FALSE(exists(db_file(old_pid, rec->process)));
  const int32_t new_pid = rec->pid;
  reap(child, 9);
  EXPECT_EQ(new_pid, rec->pid) << "counted twice";
}

TEST_F(Exit, OfAMissedChildHasTheStatusThatTheReaperSaw) {
  const pid_t child = 4194304;  // above every pid there is
  const wex_pid* const rec = missed(park_at(900), child);
  const int32_t old_pid = rec->pid;
  reap(child, 11 | 0x80);
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_EQ(11u | 0x80u, rec->exit_signal);
  EXPECT_EQ(1000, rec->crash_time) << "it counts among the crashes";
  ASSERT_FALSE(g_system_log.empty());
  EXPECT_NE(std::string::npos, g_system_log[0].text.find(" receives event:008b and self-checking ...\n"));
}

TEST_F(Exit, OfAMissedChildStoppedOnPurposeDropsTheProgram) {
  const wex_pid* const rec = missed(park_at(900), 4194304);
  const int32_t old_pid = rec->pid;
  const std::string file = db_file(old_pid, rec->process);
  reap(4194304, SIGTERM);
  EXPECT_FALSE(registered(old_pid));
  EXPECT_FALSE(exists(file));
}

TEST_F(Exit, OfAMissedChildThatKeepsDyingParksTheProgram) {
  wex_pid* const rec = missed(park_at(900), 4194304);
  rec->check_start = 1000;
  rec->check_count = 4;
  reap(4194304, 9);
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(0, rec->restart_failed) << "it is parked, not forgotten";
}

TEST_F(Exit, OfAMissedChildMeansNothingOnceItsProgramHasBeenReplaced) {
  const wex_pid* const rec = missed(park_at(900), 4194304);
  const int32_t old_pid = rec->pid;
  {
    chain_lock hold(wex_chains);
    __wex_del_pid(&wex_chains, old_pid);
  }
  reap(4194304, 9);
  EXPECT_TRUE(g_system_log.empty());
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "something was started";
}

TEST_F(Exit, OfAMissedChildWhileADomainIsTakenDownOnlyDropsTheProgram) {
  const wex_pid* const rec = missed(park_at(900), 4194304);
  const int32_t old_pid = rec->pid;
  const std::string file = db_file(old_pid, rec->process);
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5 && touch /tmp/vsd/5/delete_vsd"));
  reap(4194304, 9);
  ASSERT_EQ(0, unlink("/tmp/vsd/5/delete_vsd"));
  EXPECT_FALSE(registered(old_pid));
  EXPECT_FALSE(exists(file));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "something was started";
}

// Its search takes 5.5 s.
TEST_F(Exit, OfAChildThatTheRebuildMissedIsHandledWithItsStatus) {
  write_file(kThirdPartList, "/bin/false WEX_RESTART\n");
  const int32_t old_pid = dead_pid();
  write_file(db_file(old_pid, "/bin/false").c_str(), std::to_string(old_pid) + "\n2\n/bin/false");
  ASSERT_EQ(0, wex_rebuild_chains(&wex_chains));
  wex_pid* rec = nullptr;
  {
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    rec = walk.next();
  }
  ASSERT_NE(nullptr, rec);
  ASSERT_NE(0, rec->restart_failed);
  rec->check_count = 4;  // it is parked instead of being looked for again
  wex_chld_handler(SIGCHLD);
  wex_handle_missed_exits();
  EXPECT_EQ(0x100u, rec->exit_signal);
  EXPECT_EQ(1, rec->alarm_wait_flag);
}

TEST_F(Exit, OfARestartThatCouldNotEvenForkIsTheExitBeforeItOnceMore) {
  const wex_pid* const rec = missed(park_at(900), -1);
  const int32_t old_pid = rec->pid;
  wex_handle_missed_exits();
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_EQ(9u, rec->exit_signal);
}

TEST_F(Exit, OfAChildIsStillKnownWhenManyOthersLiveUnfound) {
  const pid_t first = 5000000;
  const wex_pid* const rec = missed(park_at(900), first);
  const int32_t old_pid = rec->pid;
  for (unsigned other = 1; other < kStartsKept; ++other) {
    const spawn_guard guard;
    wex_remember_start(first + static_cast<pid_t>(other), 9);
  }
  reap(first, 9);
  EXPECT_NE(old_pid, rec->pid);
}

TEST_F(Exit, OfAMissedChildIsStillHandledAfterManyMoreStarts) {
  const pid_t first = 5000000;
  const wex_pid* const rec = missed(park_at(900), first);
  const int32_t old_pid = rec->pid;
  for (unsigned other = 1; other <= 2 * kStartsKept; ++other) {
    {
      const spawn_guard guard;
      wex_remember_start(first + static_cast<pid_t>(other), 9);
    }
    reap(first + static_cast<pid_t>(other), 9);
  }
  reap(first, 9);
  EXPECT_NE(old_pid, rec->pid) << "its entry was overwritten although others were free";
}

TEST_F(Exit, OfTheOldestMissedChildIsGivenUpWithALineWhenThereIsNoRoom) {
  const pid_t first = 5000000;
  const wex_pid* const oldest = missed(park_at(900), first);
  const wex_pid* const next = missed(park_at(900, "/bin/sleep 1001"), first + 1);
  const int32_t old_pid = oldest->pid;
  const int32_t next_pid = next->pid;
  registry::captured_output output;
  {
    const spawn_guard guard;
    for (unsigned other = 2; other <= kStartsKept; ++other) {
      wex_remember_start(first + static_cast<pid_t>(other), 9);
    }
  }
  EXPECT_EQ("[wex_core]wex_remember_start: no room, child 5000000 is forgotten\n", output.text());
  reap(first, 9);
  EXPECT_EQ(old_pid, oldest->pid);
  reap(first + 1, 9);
  EXPECT_NE(next_pid, next->pid);
}

TEST_F(Exit, OfARestartThatCouldNotEvenForkIsNoSecondCrash) {
  wex_pid* const rec = died(park_at(900));
  rec->exit_signal = 11 | 0x80;
  {
    const spawn_guard guard;
    rec->missed_start = wex_remember_start(-1, rec->exit_signal);
  }
  const int32_t old_pid = rec->pid;
  wex_handle_missed_exits();
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_EQ(0, rec->crash_time);
}

// ---- Several records under no pid -------------------------------------------------------------------------

namespace {

class ExitUnderNoPid : public Exit {
 protected:
  static constexpr pid_t kChild = 5000000;
  wex_pid* before_ = nullptr;
  wex_pid* own_ = nullptr;
  wex_pid* behind_ = nullptr;

  void SetUp() override {
    Exit::SetUp();
    before_ = unfound("/bin/sleep 1001", kChild + 1);
    own_ = unfound("/bin/sleep 1002", kChild);
    behind_ = unfound("/bin/sleep 1003", kChild + 2);
  }
  static void expect_others() {
    EXPECT_TRUE(holds("/bin/sleep 1001"));
    EXPECT_TRUE(holds("/bin/sleep 1003"));
  }
};

}  // namespace

TEST_F(ExitUnderNoPid, ACrashIsCountedForItsOwnProgram) {
  reap(kChild, 11 | 0x80);
  EXPECT_EQ(1000, own_->crash_time);
  EXPECT_GT(own_->pid, 0);
  EXPECT_EQ(0, before_->crash_time);
  EXPECT_EQ(0, behind_->crash_time);
  expect_others();
}

TEST_F(ExitUnderNoPid, ATakeDownDropsItsOwnProgram) {
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5 && touch /tmp/vsd/5/delete_vsd"));
  reap(kChild, 9);
  ASSERT_EQ(0, unlink("/tmp/vsd/5/delete_vsd"));
  EXPECT_FALSE(holds("/bin/sleep 1002"));
  EXPECT_TRUE(was_reported(WEX_STATUS_EV_DROPPED, -1, 0));
  expect_others();
}

TEST_F(ExitUnderNoPid, ADuplicateIsDroppedAlone) {
  own_->flags = 0;  // then it is the one that goes
  wex_pid* const twin = wex_new_record();
  twin->pid = getpid();
  snprintf(twin->process, sizeof twin->process, "%s", own_->process);
  {
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, twin);
  }
  reap(kChild, 9);
  expect_others();
  chain_lock hold(wex_chains);
  EXPECT_EQ(3, wex_chains.count);
  __wex_drop_record(&wex_chains, twin);
}

TEST_F(ExitUnderNoPid, AProgramThatRunsByNowIsRegisteredInPlaceOfItsOwnRecord) {
  const pid_t running = fork();
  if (running == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execl("/bin/sleep", "/bin/sleep", "4712", nullptr);
    _exit(1);
  }
  ASSERT_GT(running, 1);
  char command[256] = "";
  ASSERT_TRUE(eventually([&] {
    return pid_to_cmdline(running, command, sizeof command) != nullptr && strstr(command, " 4712") != nullptr;
  }));
  rtrim(command);
  rename_record(own_, command);
  write_file(kThirdPartList, std::string(command) + " WEX_RESTART\n");
  reap(kChild, 9);
  EXPECT_TRUE(registered(running));
  EXPECT_TRUE(was_reported(WEX_STATUS_EV_HANDED_OVER, -1, running));
  leaves_behind(kDescriptors, "/wex/db/", 1, "its registration is not taken back");
  expect_others();
}

TEST_F(ExitUnderNoPid, AProgramIsKnownToBeOfAClosingDomainByTheFlagFileOfItsLastChild) {
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5/wex/db && touch /tmp/vsd/5/wex/5000000 /tmp/vsd/5/delete_vsd"));
  {
    chain_lock hold(wex_chains);
    EXPECT_TRUE(__wex_dropped_with_domain(own_));
  }
  ASSERT_EQ(0, system("rm /tmp/vsd/5/wex/5000000 /tmp/vsd/5/delete_vsd"));
  EXPECT_FALSE(holds("/bin/sleep 1002"));
  expect_others();
}

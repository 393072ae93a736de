// The alarm: what happens at the end of a self-check wait, with a clock that the test sets.

#include "parked_world.h"
#include "wex_proc.h"
#include "wex_signals_alarm.h"

using namespace parked;

// ---- the end of a wait ------------------------------------------------------------------------------------

TEST_F(Parked, ADeadlineEqualToNowIsNotYetDue) {
  wex_pid* const rec = park_at(700);
  const int32_t old_pid = rec->pid;
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(old_pid, rec->pid);
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(1u, alarm(0)) << "what is due now is looked at again a second later";
}

TEST_F(Parked, ATakeDownOfAnotherDomainHoldsNothingBack) {
  const wex_pid* const rec = park_at(699);
  const int32_t old_pid = rec->pid;
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5 && touch /tmp/vsd/5/delete_vsd"));
  wex_alrm_handler(SIGALRM);
  ASSERT_EQ(0, unlink("/tmp/vsd/5/delete_vsd"));
  EXPECT_NE(old_pid, rec->pid) << "a marker left behind would keep it down for ever";
}

TEST_F(Parked, ATakeDownOfItsOwnDomainEndsItsRegistration) {
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5/wex/db"));
  wex_pid* const rec = park_at(699);
  const std::string old_file = db_file(rec->pid, rec->process, 5);
  rec->vsd = 5;
  write_file(old_file.c_str(), "1\n2\n/bin/sleep 1000");
  ASSERT_EQ(0, system("touch /tmp/vsd/5/delete_vsd"));
  wex_alrm_handler(SIGALRM);
  ASSERT_EQ(0, unlink("/tmp/vsd/5/delete_vsd"));
  EXPECT_EQ(0, wex_chains.count);
  EXPECT_FALSE(exists(old_file));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "it was started outside of its domain";
}

TEST_F(Parked, ADeadlinePassedRestartsTheProgramAndSaysSo) {
  wex_pid* const rec = park_at(699);
  const int32_t old_pid = rec->pid;
  const std::string old_file = db_file(old_pid, rec->process);
  wex_alrm_handler(SIGALRM);
  ASSERT_NE(old_pid, rec->pid);
  ASSERT_GT(rec->pid, 0);
  EXPECT_EQ(0, kill(rec->pid, 0));
  EXPECT_FALSE(exists(old_file));
  EXPECT_EQ(static_cast<uint32_t>(WEX_FLAG_SELF_CHECKING), rec->flags);
  EXPECT_EQ(0, rec->alarm_wait_flag);
  EXPECT_EQ(1, rec->check_count);
  EXPECT_EQ(1000, rec->check_start);
  EXPECT_EQ(1, rec->reboot_allow);
  EXPECT_EQ(1000, rec->reboot_ref_time);
  EXPECT_EQ(0u, alarm(0)) << "nothing waits any more";
  ASSERT_EQ(1u, g_system_log.size());
  EXPECT_EQ(5, g_system_log[0].severity);
  EXPECT_EQ("HA", g_system_log[0].facility);
  EXPECT_EQ("HA_SELF_CHECK_INFO", g_system_log[0].mnemonic);
  EXPECT_EQ(1, g_system_log[0].flag);
  EXPECT_EQ("Self-checking OK: 1 times and new id sleep 1000/" + std::to_string(rec->pid) + ".\n",
            g_system_log[0].text);
  chain_lock hold(wex_chains);
  EXPECT_EQ(rec, __wex_find_pid(&wex_chains, rec->pid));
  EXPECT_EQ(nullptr, __wex_find_pid(&wex_chains, old_pid));
}

TEST_F(Parked, AScriptIsRestartedThroughItsScriptAndHasItsOwnMnemonic) {
  write_file("/etc/cmdmap/gadget.sh", "exec sleep 1000\n");
  wex_pid* const rec = park_at(699, "/opt/bin/gadget", SHELL_RESTART);
  const int32_t old_pid = rec->pid;
  wex_alrm_handler(SIGALRM);
  ASSERT_NE(old_pid, rec->pid);
  ASSERT_EQ(1u, g_system_log.size());
  EXPECT_EQ("HA_SCRIPT_SELF_CHECK_INFO", g_system_log[0].mnemonic);
  EXPECT_EQ("Self-checking OK: 1 times and new id gadget/" + std::to_string(rec->pid) + ".\n",
            g_system_log[0].text);
}

TEST_F(Parked, TheShorterDelayIsReadAgainWhenTheAlarmFires) {
  write_file(kDebugTime, "2\n");
  wex_pid* const rec = park_at(997);
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(0, rec->alarm_wait_flag);
}

TEST_F(Parked, TheNextAlarmIsForTheLatestDeadlineAndRestartsBoth) {
  wex_pid* const first = park_at(710, "/bin/sleep 1001");
  wex_pid* const second = park_at(750, "/bin/sleep 1002");
  wex_alrm_handler(SIGALRM);
  const unsigned armed = alarm(0);
  EXPECT_GE(50u, armed);
  EXPECT_LE(49u, armed);
  g_now = 1051;
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(0, first->alarm_wait_flag);
  EXPECT_EQ(0, second->alarm_wait_flag);
  EXPECT_EQ(0u, alarm(0));
}

TEST_F(Parked, OnlyWhatIsDueIsRestarted) {
  const wex_pid* const due = park_at(600, "/bin/sleep 1001");
  const wex_pid* const later = park_at(900, "/bin/sleep 1002");
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(0, due->alarm_wait_flag);
  EXPECT_EQ(1, later->alarm_wait_flag);
  const unsigned armed = alarm(0);
  EXPECT_GE(200u, armed);
  EXPECT_LE(199u, armed);
}

TEST_F(Parked, AnEmptyRegistryArmsNothing) {
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(0u, alarm(0));
}

namespace {
class ParkedTwin : public Parked, public ::testing::WithParamInterface<int32_t> {};
}  // namespace

TEST_P(ParkedTwin, ThatRunsAgainByOtherMeansIsDroppedNotRestarted) {
  const wex_pid* const rec = park_at(600, "/bin/sleep 1000", GetParam());
  const int32_t old_pid = rec->pid;
  const std::string file = db_file(old_pid, rec->process);
  wex_pid* const other = wex_new_record();
  other->pid = static_cast<int32_t>(getpid());
  other->action = GetParam();
  snprintf(other->process, sizeof other->process, "/bin/sleep 1000");
  {
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, other);
  }
  wex_alrm_handler(SIGALRM);
  chain_lock hold(wex_chains);
  EXPECT_EQ(nullptr, __wex_find_pid(&wex_chains, old_pid));
  EXPECT_EQ(other, __wex_find_pid(&wex_chains, other->pid));
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_FALSE(exists(file));
  EXPECT_TRUE(g_system_log.empty());
}

INSTANTIATE_TEST_SUITE_P(Actions, ParkedTwin, ::testing::Values(RESPAWN, SHELL_RESTART, 7));

TEST_F(Parked, ARunningCopyInAnotherDomainDropsNothing) {
  const wex_pid* const rec = park_at(600);
  const int32_t old_pid = rec->pid;
  wex_pid* const other = wex_new_record();
  other->pid = static_cast<int32_t>(getpid());
  other->vsd = 1;
  snprintf(other->process, sizeof other->process, "/bin/sleep 1000");
  {
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, other);
  }
  wex_alrm_handler(SIGALRM);
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_EQ(2, wex_chains.count);
}

TEST_F(Parked, ADuplicateIsNotLookedForBeforeTheDeadline) {
  const wex_pid* const rec = park_at(900);
  wex_pid* const other = wex_new_record();
  other->pid = static_cast<int32_t>(getpid());
  snprintf(other->process, sizeof other->process, "/bin/sleep 1000");
  {
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, other);
  }
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(2, wex_chains.count);
  EXPECT_EQ(1, rec->alarm_wait_flag);
}

TEST_F(Parked, AnotherActionIsNeverRestartedByTheAlarm) {
  const wex_pid* const rec = park_at(600, "/bin/sleep 1000", 7);
  const int32_t old_pid = rec->pid;
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(old_pid, rec->pid);
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(0u, alarm(0));
}

TEST_F(Parked, AThirdPartProgramThatIsNotFoundKeepsItsOldPidAndIsNotWaitedForAgain) {
  write_file(kThirdPartList, "/bin/true WEX_RESTART\n");
  const wex_pid* const rec = park_at(600, "/bin/true");
  const int32_t old_pid = rec->pid;
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(old_pid, rec->pid);
  EXPECT_EQ(0u, rec->flags & WEX_FLAG_WAITING);
  EXPECT_EQ(0, rec->alarm_wait_flag);
  EXPECT_NE(0, rec->restart_failed) << "its next life must be able to take its place";
  EXPECT_EQ(0u, alarm(0));
  EXPECT_TRUE(g_system_log.empty());
}

// ---- reboot -----------------------------------------------------------------------------------------------

namespace {
struct calm_case {
  const char* name;
  int32_t since_last;  // seconds since the last restart at the end of a wait
  int32_t allowed;     // counted restarts so far
  bool reboots;
  int32_t allowed_after;
};

class CalmBetweenWaits : public Parked, public ::testing::WithParamInterface<calm_case> {};
}  // namespace

TEST_P(CalmBetweenWaits, DecidesAtTheEndOfTheNextWaitAboutTheReboot) {
  const calm_case& row = GetParam();
  g_now = 5000;
  wex_pid* const rec = park_at(4000);
  rec->reboot_allow = row.allowed;
  rec->reboot_ref_time = 5000 - row.since_last;
  wex_alrm_handler(SIGALRM);
  const std::string reason = "detect process /bin/sleep 1000 can not restart, so restart system.\n";
  EXPECT_EQ(row.reboots, reboot_reasons().find(reason) != std::string::npos);
  EXPECT_EQ(row.allowed_after, rec->reboot_allow);
  EXPECT_EQ(5000, rec->reboot_ref_time);
  EXPECT_EQ(0, rec->alarm_wait_flag) << "a refused reboot restarts the program all the same";
}

INSTANTIATE_TEST_SUITE_P(Rows, CalmBetweenWaits,
                         ::testing::Values(calm_case{"first", 0, 0, false, 1},
                                           calm_case{"after300s", 300, 1, true, 2},
                                           calm_case{"after600s", 600, 1, true, 2},
                                           calm_case{"after601s", 601, 1, false, 1},
                                           calm_case{"longAfterThree", 3000, 3, false, 1}),
                         [](const auto& row) { return std::string(row.param.name); });

namespace {
struct second_park_case {
  const char* name;
  int32_t since_last;
  int32_t allowed;
  bool reboots;
  int32_t action = RESPAWN;
};
class SecondPark : public Parked, public ::testing::WithParamInterface<second_park_case> {};
}  // namespace

TEST_P(SecondPark, RebootsOnlySoonAfterTheLastSelfCheckRestart) {
  const second_park_case& row = GetParam();
  g_now = 5000;
  wex_pid* const rec = park_at(0, "/bin/sleep 1000", row.action);
  rec->flags = WEX_FLAG_SELF_CHECKING;
  rec->alarm_wait_flag = 0;
  rec->check_start = 4990;
  rec->check_count = 4;
  rec->reboot_allow = row.allowed;
  rec->reboot_ref_time = 5000 - row.since_last;
  int32_t new_pid = 0;
  {
    chain_lock hold(wex_chains);
    EXPECT_EQ(-1, (row.action == RESPAWN ? wex_spawn : wex_shell_spawn)(rec, &new_pid));
  }
  EXPECT_EQ(-1, new_pid);
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(static_cast<uint32_t>(WEX_FLAG_WAITING), rec->flags);
  const std::string reason = "detect process /bin/sleep 1000 can not restart, so restart system.\n";
  EXPECT_EQ(row.reboots, reboot_reasons().find(reason) != std::string::npos) << reboot_reasons();
  EXPECT_EQ(row.reboots, exists(kRebootLog));
  EXPECT_EQ(row.allowed, rec->reboot_allow);
}

INSTANTIATE_TEST_SUITE_P(Rows, SecondPark,
                         ::testing::Values(second_park_case{"neverRestartedByTheAlarm", 10, 0, false},
                                           second_park_case{"after600s", 600, 1, true},
                                           second_park_case{"after601s", 601, 1, false},
                                           second_park_case{"scriptAfter600s", 600, 1, true, SHELL_RESTART},
                                           second_park_case{"scriptAfter601s", 601, 1, false, SHELL_RESTART}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Parked, TheReasonOfAVeryLongCommandLineIsCutAt127Characters) {
  g_now = 5000;
  const std::string process = "/bin/sleep 1000 " + std::string(300, ' ') + "x";
  wex_pid* const rec = park_at(4000, process.c_str());
  rec->reboot_allow = 1;
  rec->reboot_ref_time = 4900;
  wex_alrm_handler(SIGALRM);
  const std::string entry = reboot_reasons();
  const std::string whole = "detect process " + process;
  EXPECT_NE(std::string::npos, entry.find(" " + whole.substr(0, 127) + "\n")) << entry;
}

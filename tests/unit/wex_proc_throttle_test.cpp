// Starting programs: one that ends again and again is parked, and what a second park leads to.
#include "proc_world.h"

using namespace proc_world;

namespace {

TEST_F(ProcWorld, TheFifthRestartWithinTheWindowIsParkedWithoutAFork) {
  const auto rec = record_of("/bin/true", 812);
  for (int restart = 1; restart <= 4; ++restart) {
    const spawned got = spawn(rec.get());
    EXPECT_EQ(0, ended(got.result)) << restart;
    EXPECT_EQ(restart, rec->check_count);
  }
  EXPECT_TRUE(g_system_log.empty());
  g_now = 1119;
  const spawned got = spawn(rec.get());
  EXPECT_EQ(-1, got.result);
  EXPECT_EQ(-1, got.out_pid);
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "something was forked";
  EXPECT_EQ(WEX_FLAG_WAITING, static_cast<int>(rec->flags));
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(1119, rec->check_start);
  EXPECT_EQ(5, rec->check_count);
  EXPECT_EQ(812, rec->pid);
  ASSERT_EQ(1u, g_system_log.size());
  const system_log_call& said = g_system_log[0];
  EXPECT_EQ(
      (texts{"5", "HA", "HA_WAIT_SELF_CHECK", "1",
             "Task: true had checked more than 5 times. After 5 mimutes, task will finish self-checking.\n"}),
      (texts{std::to_string(said.severity), said.facility, said.mnemonic, std::to_string(said.flag),
             said.text}));
  const unsigned left = alarm(0);
  EXPECT_GE(left, 299u);
  EXPECT_LE(left, 300u);
}

TEST_F(ProcWorld, ARestart120SecondsAfterTheFirstOpensANewWindow) {
  const auto rec = record_of("/bin/true");
  for (int restart = 1; restart <= 4; ++restart) {
    ended(spawn(rec.get()).result);
  }
  g_now = 1120;
  ended(spawn(rec.get()).result);
  EXPECT_EQ(1, rec->check_count);
  EXPECT_EQ(1120, rec->check_start);
}

TEST_F(ProcWorld, WhileTheDeviceMonitorWorksNothingIsParked) {
  write_file("/etc/dev_mon", "");
  const auto rec = record_of("/bin/true");
  for (int restart = 1; restart <= 12; ++restart) {
    const spawned got = spawn(rec.get());
    EXPECT_GT(got.result, 0) << restart;
    EXPECT_EQ(0, ended(got.result)) << restart;
  }
  EXPECT_EQ(0, rec->alarm_wait_flag);
}

TEST_F(ProcWorld, WhileTheDeviceMonitorWorksNoScriptIsParked) {
  write_file("/etc/dev_mon", "");
  write_file("/etc/cmdmap/gadget.sh", "exit 0\n");
  const auto rec = record_of("/opt/bin/gadget", 0, SHELL_RESTART);
  for (int restart = 1; restart <= 6; ++restart) {
    const spawned got = spawn(rec.get(), wex_shell_spawn);
    ASSERT_GT(got.result, 0) << restart;
    EXPECT_EQ(0, ended(got.result)) << restart;
    EXPECT_EQ(restart, rec->check_count);
  }
  EXPECT_EQ(0, rec->alarm_wait_flag);
  unlink("/etc/dev_mon");
  EXPECT_EQ(-1, spawn(rec.get(), wex_shell_spawn).result) << "the count goes on where it was";
}

TEST_F(ProcWorld, OnlyItsOwnActionIsThrottled) {
  const auto rec = record_of("/bin/true", 0, SHELL_RESTART);
  for (int restart = 1; restart <= 8; ++restart) {
    EXPECT_EQ(0, ended(spawn(rec.get()).result)) << restart;
  }
  EXPECT_EQ(0, rec->check_count);
}

unsigned alarm_after_parking(unsigned pending) {
  const auto rec = record_of("/bin/true");
  rec->check_start = g_now;
  rec->check_count = 4;
  alarm(pending);
  EXPECT_EQ(-1, spawn(rec.get()).result);
  return alarm(0);
}

TEST_F(ProcWorld, TheEarlierOfTwoAlarmsHolds) {
  EXPECT_NEAR(50, alarm_after_parking(50), 1);
  EXPECT_NEAR(300, alarm_after_parking(400), 1);
  EXPECT_NEAR(300, alarm_after_parking(0), 1);
  write_file("/debug_time", "120\n");
  EXPECT_NEAR(120, alarm_after_parking(299), 1);
  EXPECT_NE(std::string::npos, g_system_log.back().text.find("After 2 mimutes,"));
}

TEST_F(ProcWorld, TheParkedProgramIsNamedWithoutItsDirectory) {
  const auto rec = record_of("/usr/sbin/app -f /etc/app.conf  ");
  rec->check_start = g_now;
  rec->check_count = 4;
  EXPECT_EQ(-1, spawn(rec.get()).result);
  EXPECT_NE(std::string::npos, g_system_log.back().text.find("Task: app.conf had checked"))
      << g_system_log.back().text;
}

std::string reboot_record_after_parking(int32_t reboot_allow, int32_t since, const std::string& command) {
  const auto rec = record_of(command);
  rec->check_start = g_now;
  rec->check_count = 4;
  rec->reboot_allow = reboot_allow;
  rec->reboot_ref_time = g_now - since;
  EXPECT_EQ(-1, spawn(rec.get()).result);
  const std::string text = read_file(kRebootLog);
  unlink(kRebootLog);
  return text;
}

TEST_F(ProcWorld, ASecondParkWithin600SecondsOfTheLastSelfCheckRestartsTheDevice) {
  const std::string entry = reboot_record_after_parking(1, 600, "/bin/true");
  ASSERT_GT(entry.size(), 25u);
  EXPECT_EQ("detect process /bin/true can not restart, so restart system.\n\n", entry.substr(25));
  EXPECT_EQ("", reboot_record_after_parking(1, 601, "/bin/true"));
  EXPECT_EQ("", reboot_record_after_parking(0, 10, "/bin/true"));
}

TEST_F(ProcWorld, TheReasonOfARestartIsCutAt127Characters) {
  const std::string entry = reboot_record_after_parking(1, 1, "/bin/" + std::string(300, 'x'));
  ASSERT_EQ(25u + 127u + 1u, entry.size());
  EXPECT_EQ("detect process /bin/x", entry.substr(25, 21));
}

}  // namespace

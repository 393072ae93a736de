// Programs that keep dying: they are parked, restarted by the alarm, and at last the reason of a reboot.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "handled_exits.h"
#include "restart_policy.h"
#include "status_reader.h"

using namespace policy;

namespace {

using SelfCheck = WexWorld;

constexpr char kParkedText[] =
    " had checked more than 5 times. After 0 mimutes, task will finish self-checking.";

size_t starts_in(const std::string& path) {
  return lines_of(read_file(path)).size();
}

std::string parked_line(const std::string& mnemonic, const std::string& name) {
  return "%HA-5-" + mnemonic + ": Task: " + name + kParkedText;
}

}  // namespace

TEST_F(SelfCheck, ACrashLoopIsParkedAfterFourRestartsAndRestartedByTheAlarm) {
  SyslogSink log;
  write_file(kDebugTime, "6\n");  // more than it may take until this case looks
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("loop");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.park());
  EXPECT_TRUE(log.says(parked_line("HA_WAIT_SELF_CHECK", service.name())));
  EXPECT_TRUE(console_says("HA_WAIT_SELF_CHECK Task: " + service.name() + kParkedText + "\n"));
  const pid_t parked = service.pid();
  EXPECT_EQ(0, wait_for_actor(service.options(), parked, 1500ms)) << "parked programs are left alone";
  ASSERT_TRUE(service.comes_back(20s));
  EXPECT_TRUE(
      log.says("%HA-5-HA_SELF_CHECK_INFO: Self-checking OK: 1 times and new id " + service.id() + "."));
  EXPECT_TRUE(
      console_says("HA_SELF_CHECK_INFO Self-checking OK: 1 times and new id " + service.id() + ".\n"));
  EXPECT_FALSE(exists(db_file("actor", parked)));
  EXPECT_TRUE(eventually([&] { return exists(db_file("actor", service.pid())); }));
  EXPECT_FALSE(exists(kRebootLog)) << "the first wait is no reason to restart the device";
  EXPECT_TRUE(service.ends_and_comes_back()) << "it is supervised as before";
}

TEST_F(SelfCheck, ParkedAgainSoonAfterTheAlarmRestartTheDeviceIsRebootedWithTheReasonRecorded) {
  write_file(kDebugTime, "2\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=reboot"}));
  ASSERT_TRUE(daemon.wait_ready());
  Service service("again");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.park());
  ASSERT_TRUE(service.comes_back());
  EXPECT_FALSE(exists(kRebootLog));
  for (int restart = 2; restart <= 4; ++restart) {
    ASSERT_TRUE(service.ends_and_comes_back());
  }
  service.end();
  const std::string reason =
      ("detect process " + service.command() + " can not restart, so restart system.\n").substr(0, 127);
  ASSERT_TRUE(eventually([&] {
    return read_file(kRebootLog).find(" " + reason + "\n") != std::string::npos;
  })) << read_file(kRebootLog);
  EXPECT_TRUE(eventually([] {
    return Daemon::trace().find(
               "reboot(LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2, LINUX_REBOOT_CMD_RESTART) = -1 "
               "EPERM") != std::string::npos;
  })) << Daemon::trace();
  const auto asked = wait_for_event(WEX_STATUS_EV_REBOOT_ASKED);
  ASSERT_TRUE(asked);
  EXPECT_EQ(WEX_STATUS_REBOOT_SELF_CHECK, asked->value);
  const std::string history = read_file(kHistory);
  EXPECT_NE(std::string::npos, history.find(" wex restarts the device: detect process ")) << history;
  EXPECT_NE(std::string::npos, history.find(" registered actor pid ")) << history;
  EXPECT_NE(std::string::npos, history.find(" reboot_asked ")) << history;
  EXPECT_NE(std::string::npos, history.find("\nparked: actor pid " + std::to_string(service.pid())))
      << history;
  EXPECT_TRUE(daemon.running()) << "a refused reboot changes nothing";
  EXPECT_TRUE(service.comes_back()) << "and the alarm restarts it all the same";
}

TEST_F(SelfCheck, TheSwitchThatForbidsRebootsKeepsTheRecordClean) {
  write_file(kDebugTime, "2\n");
  write_file(kNoReboot, "");
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=reboot"}));
  ASSERT_TRUE(daemon.wait_ready());
  Service service("kept");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.park());
  ASSERT_TRUE(service.comes_back());
  for (int restart = 2; restart <= 4; ++restart) {
    ASSERT_TRUE(service.ends_and_comes_back());
  }
  service.end();
  ASSERT_TRUE(service.comes_back());
  const auto refused = wait_for_event(WEX_STATUS_EV_REBOOT_REFUSED);
  ASSERT_TRUE(refused);
  EXPECT_EQ(WEX_STATUS_REBOOT_SELF_CHECK, refused->value);
  EXPECT_FALSE(exists(kRebootLog));
  EXPECT_EQ(std::string::npos, Daemon::trace().find("reboot("));
}

TEST_F(SelfCheck, TwoParkedProgramsWithDifferentDeadlinesBothComeBack) {
  write_file(kDebugTime, "4\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service early("early");
  Service late("late");
  ASSERT_TRUE(early.start());
  ASSERT_TRUE(late.start());
  ASSERT_TRUE(early.park());
  const auto parked = std::chrono::steady_clock::now();
  ASSERT_TRUE(console_says("HA_WAIT_SELF_CHECK Task: " + early.name()));
  std::this_thread::sleep_until(parked + 2s);
  ASSERT_TRUE(late.park());
  ASSERT_TRUE(console_says("HA_WAIT_SELF_CHECK Task: " + late.name()));
  const auto both_parked = std::chrono::steady_clock::now();
  EXPECT_TRUE(early.comes_back(20s));
  EXPECT_LE(4s, std::chrono::steady_clock::now() - parked);
  EXPECT_TRUE(late.comes_back(20s));
  EXPECT_LE(6s, std::chrono::steady_clock::now() - parked);
  EXPECT_GE(10s, std::chrono::steady_clock::now() - both_parked);
}

TEST_F(SelfCheck, AParkedProgramThatSomebodyStartedIsDroppedAndTheNewOneIsSupervised) {
  write_file(kDebugTime, "3\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("manual");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.park());
  const pid_t parked = service.pid();
  ASSERT_TRUE(console_says("HA_WAIT_SELF_CHECK"));
  ASSERT_TRUE(service.start());
  const pid_t by_hand = service.pid();
  EXPECT_TRUE(console_says("wex_alrm_handler--> " + service.command() + "/" + std::to_string(parked) +
                           " is running!\n"));
  const auto handed_over = wait_for_event(WEX_STATUS_EV_HANDED_OVER, parked);
  ASSERT_TRUE(handed_over);
  EXPECT_EQ(by_hand, handed_over->new_pid);
  EXPECT_TRUE(stays_down(service.options(), by_hand)) << "started beside the one by hand";
  EXPECT_TRUE(is_alive(by_hand));
  EXPECT_TRUE(service.ends_and_comes_back());
}

TEST_F(SelfCheck, WithADeviceMonitorRestartUnderWayNothingIsParkedAndNothingIsSaid) {
  write_file("/etc/debug_log", "");
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Service service("monitored");
  ASSERT_TRUE(service.start());
  for (int restart = 1; restart <= 7; ++restart) {
    write_file(kDeviceMonitor, "");
    ASSERT_TRUE(service.ends_and_comes_back()) << "restart " << restart;
    EXPECT_TRUE(eventually([] { return !exists(kDeviceMonitor); })) << "the marker is used up";
  }
  EXPECT_EQ(0u, log.count("%HA-5-"));
  EXPECT_FALSE(exists("/tmp/wex/wex.log1"));
  service.end();
  EXPECT_TRUE(log.says("%HA-5-HA_WAIT_SELF_CHECK")) << "without the marker the count goes on where it was";
}

TEST_F(SelfCheck, AScriptThatKeepsDyingIsParkedAndRestartedInTheSameWay) {
  SyslogSink log;
  write_file(kDebugTime, "2\n");
  Service service("script", "--register-shell=revive");
  write_file("/etc/cmdmap/revive", "exec " + service.command() + "\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.park());
  EXPECT_TRUE(log.says(parked_line("HA_WAIT_SCRIPT_SELF_CHECK", service.name())));
  EXPECT_TRUE(console_says("HA_WAIT_SCRIPT_SELF_CHECK Task: " + service.name() + kParkedText + "\n"));
  ASSERT_TRUE(service.comes_back());
  EXPECT_TRUE(log.says("%HA-5-HA_SCRIPT_SELF_CHECK_INFO: Self-checking OK: 1 times and new id " +
                       service.id() + "."));
  EXPECT_TRUE(
      console_says("HA_SCRIPT_SELF_CHECK_INFO Self-checking OK: 1 times and new id " + service.id() + ".\n"));
  EXPECT_EQ(0u, log.count("HA-5-HA_WAIT_SELF_CHECK"));
}

TEST_F(SelfCheck, AProgramThatCrashesByItselfIsStartedFiveTimesThenParked) {
  const std::string starts = "/tmp/wex/starts";  // swept with the daemon's own files
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process first;
  ASSERT_TRUE(
      first.start(actor_words({"--register=RESTART", "--confirm", "--count=" + starts, "--crash=KILL"})));
  EXPECT_TRUE(ended_by(first.wait(), SIGKILL));
  EXPECT_TRUE(console_says("HA_WAIT_SELF_CHECK Task: "));
  EXPECT_EQ(5u, starts_in(starts)) << "once by us and four times by the daemon";
}

TEST_F(SelfCheck, AlarmsThatHitEveryThreadAtAnyTimeDisturbNothing) {
  write_file(kDebugTime, "2\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  std::vector<std::unique_ptr<Service>> services;
  for (const char* tag : {"storm1", "storm2", "storm3", "storm4"}) {
    services.push_back(std::make_unique<Service>(tag));
    ASSERT_TRUE(services.back()->start());
  }
  const std::string tasks = "/proc/" + std::to_string(daemon.pid()) + "/task";
  std::atomic<bool> calm{false};
  std::thread storm([&] {
    while (!calm) {
      for (const std::string& task : list_dir(tasks)) {
        syscall(SYS_tgkill, daemon.pid(), static_cast<pid_t>(std::stol(task)), SIGALRM);
      }
      usleep(500);
    }
  });
  for (const auto& service : services) {
    EXPECT_TRUE(service->park());
  }
  for (const auto& service : services) {
    EXPECT_TRUE(service->comes_back());
  }
  calm = true;
  storm.join();
  EXPECT_TRUE(daemon.running());
  EXPECT_TRUE(services[0]->ends_and_comes_back());
}

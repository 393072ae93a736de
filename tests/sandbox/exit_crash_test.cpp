// Crashes: what is told of a core dump, and the rule that restarts the device after too many.
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "exit_world.h"
#include "status_reader.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace {

// Each has a ready file of its own: the second life of one writes it while the next one crashes.
texts crasher(int number, const std::string& how = "--crash=SEGV") {
  return {"--tag=" + text(number),
          "--core",
          "--register=RESTART",
          "--confirm",
          "--ready=/tmp/wex/ready" + text(number),
          "--first-time=/tmp/wex/once" + text(number),
          how,
          "--hold"};
}

// Starts program `number`, which dumps core once and runs again.
void crash_once(int number, const std::string& how = "--crash=SEGV") {
  Process service;
  ASSERT_TRUE(service.start(actor_words(crasher(number, how))));
  const auto status = service.wait();
  ASSERT_TRUE(ended_by(status, SIGSEGV));
  ASSERT_NE(0, *status & 0x80) << "it did not dump core";
  ASSERT_GT(wait_for_actor(crasher(number, how), service.pid()), 0) << read_console();
}

TEST_F(ExitHandling, ACoreDumpIsReportedWithItsBitInFourHexadecimalDigits) {
  SyslogSink log;
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_NO_FATAL_FAILURE(crash_once(1));
  EXPECT_TRUE(log.says(" receives event:008b and self-checking ...")) << read_console();
  EXPECT_FALSE(exists(kRebootLog));
  daemon.stop();
}

TEST_F(ExitHandling, TheThirdProgramThatDumpsCoreWithinTheWindowRestartsTheDevice) {
  write_file(kBurstConfig, "60 3\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=reboot"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  ASSERT_NO_FATAL_FAILURE(crash_once(1));
  ASSERT_NO_FATAL_FAILURE(crash_once(2));
  EXPECT_FALSE(exists(kRebootLog));
  ASSERT_NO_FATAL_FAILURE(crash_once(3));  // refused here, the daemon goes on as if nothing had happened
  const std::string entry = read_file(kRebootLog);
  ASSERT_GT(entry.size(), 25u);
  EXPECT_EQ(0u, entry.find("detect more than 3 process exit in shorttime[60]s\n") - 25) << entry;
  for (int number = 1; number <= 3; ++number) {
    EXPECT_NE(std::string::npos, entry.find(actor_command(crasher(number)) + " ")) << entry;
  }
  EXPECT_EQ("\n\n", entry.substr(entry.size() - 2));
  const auto burst = wait_for_event(WEX_STATUS_EV_BURST);
  ASSERT_TRUE(burst);
  EXPECT_EQ(3, burst->value);
  const auto asked = wait_for_event(WEX_STATUS_EV_REBOOT_ASKED);
  ASSERT_TRUE(asked);
  EXPECT_EQ(WEX_STATUS_REBOOT_BURST, asked->value);
  EXPECT_TRUE(eventually([] {
    return Daemon::trace().find("LINUX_REBOOT_CMD_RESTART) = -1 EPERM") != std::string::npos;
  })) << Daemon::trace();
  EXPECT_TRUE(daemon.running());
  daemon.stop();
}

TEST_F(ExitHandling, ExitsWithoutACoreDumpNeverRestartTheDevice) {
  write_file(kBurstConfig, "60 1");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(start_service(&service));
  ASSERT_NO_FATAL_FAILURE(live_and_end(&service, [](pid_t pid, int life) {
    send_signal(pid, life == 0 ? SIGABRT : SIGKILL);  // without --core the limit keeps it from dumping
  }));
  const bool dumped = read_console().find("event:0086") != std::string::npos;
  EXPECT_EQ(dumped, exists(kRebootLog));
  daemon.stop();
}

struct NoRule {
  const char* name;
  void (*place)();  // what there is in place of two numbers
};

class WithoutARule : public ExitHandling, public ::testing::WithParamInterface<NoRule> {};

TEST_P(WithoutARule, TheTenthCrashWithinFifteenMinutesRestartsTheDevice) {
  GetParam().place();
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (int number = 1; number <= 9; ++number) {
    ASSERT_NO_FATAL_FAILURE(crash_once(number));
  }
  EXPECT_FALSE(exists(kRebootLog)) << read_file(kRebootLog);
  ASSERT_NO_FATAL_FAILURE(crash_once(10));
  EXPECT_NE(std::string::npos,
            read_file(kRebootLog).find("detect more than 10 process exit in shorttime[900]s\n"))
      << read_file(kRebootLog);
  EXPECT_EQ(0u, count_in(read_console(), "wex_config")) << "this is no failure to tell";
  daemon.stop();
}

INSTANTIATE_TEST_SUITE_P(Rows, WithoutARule,
                         ::testing::Values(NoRule{"missing", [] {}},
                                           NoRule{"loneNumber", [] { write_file(kBurstConfig, "60\n"); }},
                                           NoRule{"unreadable", [] { make_dirs(kBurstConfig); }}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ExitHandling, TheConfigurationIsReadAtEveryExit) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_NO_FATAL_FAILURE(crash_once(1));
  EXPECT_FALSE(exists(kRebootLog));
  write_file(kBurstConfig, "60 2");
  ASSERT_NO_FATAL_FAILURE(crash_once(2));
  EXPECT_TRUE(eventually([] { return exists(kRebootLog); })) << read_console();
  daemon.stop();
}

TEST_F(ExitHandling, ACrashOfAThreadCountsForItsProgram) {
  write_file(kBurstConfig, "60 1");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  ASSERT_NO_FATAL_FAILURE(crash_once(1, "--crash-in-thread=SEGV"));
  EXPECT_TRUE(eventually([] { return exists(kRebootLog); })) << read_console();
  EXPECT_NE(std::string::npos,
            read_file(kRebootLog).find("detect more than 1 process exit in shorttime[60]s\n"));
  daemon.stop();
}

TEST_F(ExitHandling, CrashesOfUnregisteredProgramsNeverRestartTheDevice) {
  write_file(kBurstConfig, "60 1");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(ended_by(run(actor_words({"--core", "--crash=SEGV"})), SIGSEGV));
  ASSERT_NO_FATAL_FAILURE([] {
    Process service;  // the next event proves that the one before has been looked at
    ASSERT_TRUE(start_service(&service));
    service.send(SIGTERM);
    service.wait();
    ASSERT_TRUE(eventually([] { return list_dir(kDbDir).empty(); }));
  }());
  EXPECT_FALSE(exists(kRebootLog));
  daemon.stop();
}

}  // namespace

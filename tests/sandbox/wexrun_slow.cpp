// A program under wexrun --notify that stops its signs of life, by the wall clock of the watchdog.
#include "raw_client.h"
#include "wexrun_support.h"

using namespace wexrun_test;

namespace {

using WexrunWatchdog = WexWorld;

// The countdown of ten minutes shortened to one silent look: what the library would not send.
bool shorten_countdown(pid_t pid) {
  return send_counters(WEX_NOTIFIER_RESET, pid, pid, 1, 1, 60);
}

}  // namespace

TEST_F(WexrunWatchdog, AProgramThatStopsItsSignsOfLifeIsAbortedLoggedAndStartedAgain) {
  const words program = {kNotifier, kFacts};
  const words command = wexrun({"--notify"}, program);
  const std::set<pid_t> own = processes_inside();
  unlink(kFacts);
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(command));
  ASSERT_TRUE(eventually([] { return !read_file(kFacts).empty(); }, 20s)) << read_console();
  ASSERT_TRUE(console_says("wex_dispatch_domain_msg type:3 err:0", 20s));
  ASSERT_TRUE(shorten_countdown(service.pid()));
  EXPECT_TRUE(never([&] { return !service.running(); }, 70s)) << "it reported, and was aborted";
  service.send(SIGUSR1);  // handed on: the program falls silent
  EXPECT_TRUE(ended_by(service.wait(200s), SIGABRT));
  EXPECT_NE(std::string::npos, read_file(kNotifyLog).find("thread wexrun:" + text(service.pid()) + " hung."));
  EXPECT_GT(wait_for_command(command, service.pid()), 0) << read_console();
  daemon.stop();
  end_all_but(own);
  unlink(kFacts);
}

TEST_F(WexrunWatchdog, AProgramThatIgnoresTheAbortIsKilledFiftySecondsLater) {
  const words options = {"--ignore=ABRT", "--hold"};
  const std::set<pid_t> own = processes_inside();
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(wexrun({"--notify"}, actor_words(options))));
  const pid_t program = wait_for_actor(options);
  ASSERT_GT(program, 0) << read_console();
  ASSERT_TRUE(eventually(
      [&] { return (strtoul(status_field(program, "SigIgn").c_str(), nullptr, 16) & 0x20U) != 0; }));
  const auto aborted = std::chrono::steady_clock::now();
  service.send(SIGABRT);
  EXPECT_TRUE(ended_by(service.wait(120s), SIGKILL));
  EXPECT_LE(49900ms, std::chrono::steady_clock::now() - aborted);
  daemon.stop();
  end_all_but(own);
}

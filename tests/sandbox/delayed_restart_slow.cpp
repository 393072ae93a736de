// A database file that is never released, by the wall clock.
#include <chrono>

#include "restart_policy.h"
#include "status_reader.h"

using namespace policy;

namespace {
using HeldForEver = WexWorld;
}

TEST_F(HeldForEver, TheRestartIsForcedAfter301Seconds) {
  const std::vector<std::string> options = {"--tag=forever", "--hold"};
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  ASSERT_EQ(service.pid(), pid);
  Holder holder({pid});
  const auto exit_at = std::chrono::steady_clock::now();
  service.send(SIGKILL);
  service.wait();
  EXPECT_NE(0, wait_for_actor(options, pid, 310s));
  const auto waited = std::chrono::steady_clock::now() - exit_at;
  EXPECT_LE(300s, waited);  // the clock of records counts whole seconds
  EXPECT_GE(303s, waited);
  EXPECT_TRUE(
      console_says(actor_command(options) + "/" + std::to_string(pid) + " more than 300s delay restart.\n"));
  EXPECT_TRUE(console_says("pid:" + std::to_string(pid) + ", exit_signal:0x9, force_restart:1\n"));
  const auto forced = wait_for_event(WEX_STATUS_EV_FORCED, pid);
  ASSERT_TRUE(forced);
  EXPECT_EQ(uint32_t{SIGKILL}, forced->exit_code);
  EXPECT_EQ(1U, StatusReader().counter(WEX_STATUS_FORCED));
}

// Ten silent scans of the real daemon, by the wall clock.
#include <chrono>

#include "wex_paths.h"
#include "wex_test.h"

using namespace wex_test;

namespace {
using TenMinutes = WexWorld;

// The worker has reported before it falls silent, so the first scan behind that is not a silent one.
std::vector<std::string> hanging(const std::string& ready) {
  return {"--register=RESTART",
          "--register-main-thread=7",
          "--thread=60",
          "--sleep=2000",
          "--hang",
          "--ready=" + ready,
          "--hold"};
}
}  // namespace

TEST_F(TenMinutes, AHungThreadEndsItsProcessAtTheTenthSilentScanAndAReportingOneDoesNot) {
  const std::vector<std::string> healthy = {"--register=RESTART", "--thread=60", "--thread=7", "--hold"};
  const std::vector<std::string> hung = hanging("/tmp/ready");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process works, hangs;
  ASSERT_TRUE(works.start(actor_words(healthy)));
  ASSERT_TRUE(hangs.start(actor_words(hung)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 20s));
  const auto silent_since = std::chrono::steady_clock::now();
  const pid_t pid = hangs.pid();
  EXPECT_TRUE(ended_by(hangs.wait(680s), SIGABRT));
  const auto silent = std::chrono::steady_clock::now() - silent_since;
  EXPECT_LE(599s, silent);
  EXPECT_GE(664s, silent)
      << "ten scans behind the one that saw the last report, which was at most a minute away";
  EXPECT_NE(0, wait_for_actor(hung, pid));
  EXPECT_TRUE(works.running());

  const std::string process = actor_command(hung);
  const std::string log = read_file(kNotifyLog);
  EXPECT_EQ(1U, occurrences(log, "hung.\n"));
  EXPECT_EQ(1U, occurrences(log, " detect process:[" + process.substr(process.rfind('/') + 1) + "/" +
                                     std::to_string(pid) + "] thread actor:"))
      << log;
  const std::string console = read_console();
  for (int missed = 1; missed <= 5; ++missed) {
    EXPECT_EQ(missed >= 3 ? 1U : 0U,
              occurrences(console, " not notify reset for " + std::to_string(missed) +
                                       " times, It will be killed after 5 times!!!\n"));
  }
  unlink("/tmp/ready");
}

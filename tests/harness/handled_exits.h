// Waiting until the monitor has handled the exits that have happened: for "nothing is started again".
#pragma once

#include <string>
#include <vector>

#include "wex_test.h"

namespace wex_test {

// Another program's exit comes behind them in the same queue. It stops on purpose, so that nothing of it is
// left, and its database file goes once that exit is handled.
inline void wait_until_exits_are_handled() {
  const std::vector<std::string> options = {"--tag=leaver", "--register=RESTART", "--confirm",
                                            "--ready=/tmp/wex/leaver", "--hold"};
  remove_tree("/tmp/wex/leaver");
  Process leaver;
  ASSERT_TRUE(leaver.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/wex/leaver"); }));
  const std::string file = "/tmp/vsd/0/wex/db/actor." + std::to_string(leaver.pid());
  ASSERT_TRUE(exists(file));
  leaver.send(SIGTERM);
  ASSERT_TRUE(eventually([&] { return !exists(file); }, 20s)) << read_console();
}

// No process with these options is there other than `not_this`, and what has happened leads to none.
inline bool stays_down(const std::vector<std::string>& options, pid_t not_this = 0) {
  wait_until_exits_are_handled();
  return !::testing::Test::HasFatalFailure() && wait_for_actor(options, not_this, milliseconds(0)) == 0;
}

}  // namespace wex_test

// A set-user-id program that ends between its database file and its message, beside a running daemon: the
// look that finds the file comes once a minute.
#include "strict_set_user_id.h"

using namespace strict_world;

namespace {

struct StrictSetUserIdBesideADaemon : StrictSetUserId {
  // Ended as it names its socket, which it does before it connects. Below strace of root's, which lets the
  // program have its owner's rights. (The look-up of a user, on the way there, connects, too.)
  static words ended_before_its_message(const words& program) {
    words all = {"strace", "-D", "-q", "-o", "/dev/null", "-e", "inject=bind:signal=KILL"};
    all.insert(all.end(), program.begin(), program.end());
    return all;
  }
  // Its pid; its file is whole, and nobody has heard of it.
  pid_t leave_file(const words& program, const std::string& tag) {
    Process& started = process();
    EXPECT_TRUE(started.start(ended_before_its_message(program), {"ASAN_OPTIONS=detect_leaks=0"}));
    EXPECT_TRUE(ended_by(started.wait(20s), SIGKILL)) << "as it names its socket";
    EXPECT_EQ(text(started.pid()) + "\n2\n" + command_of(tag), read_file(file_of(started.pid())));
    EXPECT_FALSE(is_registered(started.pid()));
    return started.pid();
  }
  // The first one that is started again, by the look of the next minute.
  static pid_t wait_for_program(const std::string& tag) {
    pid_t found = 0;
    eventually(
        [&] {
          const std::vector<pid_t> running = running_programs(tag);
          found = running.empty() ? 0 : running.front();
          return found > 0;
        },
        120s);
    return found;
  }
  // "pid user" of all registrations, sorted.
  static words registrations() {
    std::set<std::string> all;
    for (const wex_status_slot& slot : StatusReader().slots()) {
      all.insert(text(slot.pid) + " " + text(slot.uid));
    }
    return {all.begin(), all.end()};
  }
  static words sorted(const std::set<std::string>& all) { return {all.begin(), all.end()}; }
};

}  // namespace

TEST_F(StrictSetUserIdBesideADaemon, WhatAUserEndsBeforeItsMessageIsStartedAgainAsHimAndNeverAsRoot) {
  start();
  Process& roots = process();
  Process& users = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  ASSERT_TRUE(start_service(&users, {"--tag=users"}));
  const pid_t pid = leave_file(users_program({}, "set-user-id"), "set-user-id");
  EXPECT_EQ(kUser, facts_of(file_of(pid)).st_uid);
  const pid_t next = wait_for_program("set-user-id");
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("1234 0 0 0", ids_of(next, "Uid")) << "the user, who runs a program of root's";
  EXPECT_EQ("1235 1235 1235 1235", ids_of(next, "Gid"));
  EXPECT_EQ("", ids_of(next, "Groups"));
  const words wanted = sorted({text(roots.pid()) + " 0", text(users.pid()) + " 1234", text(next) + " 1234"});
  EXPECT_TRUE(eventually([&] { return registrations() == wanted; }, 20s)) << read_console();
  EXPECT_FALSE(exists(file_of(pid))) << "it would be found again";
  EXPECT_EQ(std::vector<pid_t>{next}, running_programs("set-user-id"));
  EXPECT_TRUE(roots.running() && users.running());
}

TEST_F(StrictSetUserIdBesideADaemon, WhatRootHasRunIsStartedAgainAsRoot) {
  start();
  Process& users = process();
  ASSERT_TRUE(start_service(&users, {"--tag=users"}));
  const pid_t pid = leave_file(program_words("roots"), "roots");
  EXPECT_EQ(0U, facts_of(file_of(pid)).st_uid);
  const pid_t next = wait_for_program("roots");
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("0 0 0 0", ids_of(next, "Uid"));
  const words wanted = sorted({text(users.pid()) + " 1234", text(next) + " 0"});
  EXPECT_TRUE(eventually([&] { return registrations() == wanted; }, 20s)) << read_console();
  EXPECT_FALSE(exists(file_of(pid)));
  EXPECT_EQ(std::vector<pid_t>{next}, running_programs("roots"));
}

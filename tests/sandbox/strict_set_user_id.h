// strict_set_user_id: the actor as a set-user-id program of root's that a user runs. He chooses what its
// registration says: how it is called, its options, and when it ends.
#pragma once

#include <sys/stat.h>

#include "registry_files.h"
#include "strict_world.h"

namespace strict_world {

struct StrictSetUserId : Strict {
  void SetUp() override {
    Strict::SetUp();
    write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nsomebody:x:1234:1235::/:/bin/sh\n");
    ASSERT_TRUE(exited_with(run({"cp", actor_binary(), kProgram}), 0));
    ASSERT_EQ(0, chown(kProgram, 0, 0));
    ASSERT_EQ(0, chmod(kProgram, 04755));
  }
  void TearDown() override {
    daemon.kill_now();
    for (const pid_t pid : running_programs()) {
      send_signal(pid, SIGKILL);
      EXPECT_TRUE(eventually([&] { return !is_alive(pid); }));
    }
    Strict::TearDown();
    EXPECT_EQ(0, unlink(kProgram));
  }
  // Registers itself and stays. The tag tells the command lines of different starters apart.
  static words program_words(const std::string& tag) {
    return {kProgram, "--tag=" + tag, "--register=RESTART", "--hold"};
  }
  // As the user, below what is said first.
  static words users_program(const words& below = {}, const std::string& tag = "users") {
    words all = below;
    all.insert(all.end(),
               {"setpriv", "--reuid=" + text(kUser), "--regid=" + text(kUsersGroup), "--clear-groups"});
    const words program = program_words(tag);
    all.insert(all.end(), program.begin(), program.end());
    return all;
  }
  // All of them, whoever has started them.
  static std::vector<pid_t> running_programs() {
    std::vector<pid_t> found;
    for (const pid_t pid : processes_inside()) {
      if (program_of(pid) == kProgram && is_alive(pid)) {
        found.push_back(pid);
      }
    }
    return found;
  }
  static std::vector<pid_t> running_programs(const std::string& tag) {
    return pids_with_command(command_of(tag));
  }
  static std::string command_of(const std::string& tag) {
    std::string command;
    for (const std::string& word : program_words(tag)) {
      command += (command.empty() ? "" : " ") + word;
    }
    return command;
  }
  // The database file of its process, and what is known of it.
  static std::string file_of(pid_t pid) { return registry::db_file(0, "suid", pid); }
  static struct stat facts_of(const std::string& path) {
    struct stat facts = {};
    EXPECT_TRUE(lstat(path.c_str(), &facts) == 0 || errno == ENOENT) << path;
    return facts;
  }
  static constexpr char kProgram[] = "/data/suid";
};

}  // namespace strict_world

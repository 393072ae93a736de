// Strict mode: a process gets the pid that another user's program had, while that program waits for its
// restart, or while no daemon runs.
#include <signal.h>
#include <sys/stat.h>

#include "registry_files.h"
#include "strict_world.h"
#include "taken_pid.h"

namespace {

using namespace strict_world;

struct StrictPidReuse : Strict {
  static bool is_roots(pid_t pid) {
    for (const wex_status_slot& slot : StatusReader().slots()) {
      if (slot.pid == pid && slot.uid == 0 && slot.state == WEX_STATUS_RUNNING) {
        return true;
      }
    }
    return false;
  }
  static bool waits(pid_t pid) {
    for (const wex_status_slot& slot : StatusReader().slots()) {
      if (slot.pid == pid && slot.uid == kUser && slot.state == WEX_STATUS_RESTARTING) {
        return true;
      }
    }
    return false;
  }
  static uid_t owner_of(const std::string& path) {
    struct stat facts = {};
    return stat(path.c_str(), &facts) == 0 ? facts.st_uid : ~uid_t{0};
  }
  // The pid that root's service had, which has ended and cannot be started again while the event log is a
  // directory; 0 when something failed.
  pid_t leave_failed_service() {
    Process& service = process();
    if (mkdir(kEventLog, 0755) != 0 || !start_service(&service, {"--tag=roots"}, 0)) {
      return 0;
    }
    const pid_t pid = service.pid();
    send_signal(pid, SIGKILL);
    service.wait(20s);
    return wait_for_event(WEX_STATUS_EV_FAILED, pid) ? pid : 0;
  }
  // The words of a user's program that a stranger executes, for a stranger is not looked for in PATH.
  static words strangers_words(const words& options) {
    words all = users_words(options);
    all[0] = "/usr/bin/setpriv";
    return all;
  }
  static bool registers(pid_t pid, const words& options) {
    return eventually([&] { return command_line(pid) == actor_command(options); }, 20s) && as_user([&] {
             const raw_client client;
             return client.send_body(WEX_RESTART, control_client::body_of(pid)) && client.acknowledged();
           });
  }

  static constexpr char kEventLog[] = "/tmp/wex/wex.log1";
};

}  // namespace

// The basenames of the programs are the same, so both have a database file of one name. One pause ends with a
// restart, the other one because the program runs already.
TEST_F(StrictPidReuse, TheEndOfAUsersPauseLeavesRootsServiceItsRegistration) {
  const struct {
    const char* what;
    bool runs_already;
  } rows[] = {{"restarted", false}, {"runs-already", true}};
  write_file(kStrictFile, "restart_delay 3\n");
  start();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string tag = std::string("--tag=") + row.what;
    const words paused = {"--time-set=3", tag};
    const words of_root = service_words({tag + "-roots"});
    Process& slow = process();
    ASSERT_TRUE(start_service(&slow, paused));
    const pid_t pid = slow.pid();
    send_signal(pid, SIGKILL);
    ASSERT_TRUE(eventually([&] { return waits(pid); }, 20s)) << read_console();
    slow.wait(20s);
    stranger roots(pid, actor_words(of_root));
    ASSERT_TRUE(eventually([&] { return is_roots(pid); }, 20s)) << read_console();
    Process& second = process();
    if (row.runs_already) {
      ASSERT_TRUE(second.start(users_words(service_words(paused))));
    }
    ASSERT_TRUE(eventually([&] { return !waits(pid); }, 20s)) << read_console();
    ASSERT_GT(wait_for_actor(service_words(paused), pid, 20s), 0) << read_console();
    EXPECT_TRUE(is_roots(pid)) << read_console();
    EXPECT_EQ(0U, owner_of(registry::db_file(0, "actor", pid)));
    EXPECT_TRUE(exists(std::string(kUsersDir) + "/" + text(pid)));
    roots.end();
    const pid_t next = wait_for_actor(of_root, pid, 20s);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_EQ("0 0 0 0", ids_of(next, "Uid"));
  }
}

// What could not be started again waits for the next daemon, which knows it by its file. The names of the
// programs are the same.
TEST_F(StrictPidReuse, OfRootsServiceThatCouldNotBeStartedAgainBothAreStartedByTheNextDaemon) {
  write_file(kDebugLog, "0\n");
  start();
  const pid_t pid = leave_failed_service();
  ASSERT_GT(pid, 0) << read_console();
  const words of_user = {"--tag=users", "--hold"};
  {
    const stranger users(pid, strangers_words(of_user));
    ASSERT_TRUE(registers(pid, of_user));
    EXPECT_TRUE(eventually([&] { return owner_of(registry::db_file(0, "actor", pid)) == kUser; }, 20s))
        << read_console();
    EXPECT_EQ(2U, list_dir(registry::db_dir(0)).size());
    daemon.kill_now();
  }
  ASSERT_EQ(0, rmdir(kEventLog));
  start();
  const pid_t roots = wait_for_actor(service_words({"--tag=roots"}), pid, 20s);
  const pid_t users = wait_for_actor(of_user, pid, 20s);
  ASSERT_TRUE(roots > 0 && users > 0) << roots << " " << users << read_console();
  EXPECT_EQ("0", uid_of(roots));
  EXPECT_EQ(text(kUser), uid_of(users));
}

// All that the user may have is registered already. What was made room for would be started a second time.
TEST_F(StrictPidReuse, ANewcomerThatIsRefusedLeavesRootsServiceThatCouldNotBeStartedAgainOneFile) {
  write_file(kStrictFile, "registrations 1\n");
  write_file(kDebugLog, "0\n");
  start();
  Process& his = process();
  ASSERT_TRUE(start_service(&his, {"--tag=his"}));
  const pid_t pid = leave_failed_service();
  ASSERT_GT(pid, 0) << read_console();
  const words of_user = {"--tag=users", "--hold"};
  {
    const stranger users(pid, strangers_words(of_user));
    ASSERT_TRUE(registers(pid, of_user));
    const auto said = [] { return read_file(kRunningLog1) + read_file(kRunningLog2); };
    ASSERT_TRUE(eventually([&] { return said().find("User 1234 was refused") != std::string::npos; }, 20s));
    EXPECT_EQ(2U, list_dir(registry::db_dir(0)).size()) << "one of root's, one of the user's";
    daemon.kill_now();
  }
  ASSERT_EQ(0, rmdir(kEventLog));
  start();
  EXPECT_GT(wait_for_actor(service_words({"--tag=roots"}), pid, 20s), 0) << read_console();
  EXPECT_EQ(1U, pids_with_command(actor_command(service_words({"--tag=roots"}))).size()) << read_console();
}

// ---- While no daemon runs ---------------------------------------------------------------------------------

namespace {

struct StrictPidReuseBeforeTheStart : StrictPidReuse {
  void TearDown() override {
    daemon.kill_now();
    for (const pid_t pid : pids_with_command(kSleeper[0] + " " + kSleeper[1])) {
      send_signal(pid, SIGKILL);
      EXPECT_TRUE(eventually([&] { return !is_alive(pid); }));
    }
    StrictPidReuse::TearDown();
  }
  // A program that does not register itself, so that another process can run the very same command line.
  bool start_sleeper(Process* sleeper, uid_t user) {
    words all = kSleeper;
    if (user != 0) {
      all.insert(all.begin(), {"setpriv", "--reuid=" + text(user), "--regid=1235", "--groups=77,3001"});
    }
    if (!sleeper->start(all) || !eventually([&] { return runs_sleeper(sleeper->pid()); }, 20s)) {
      return false;
    }
    const std::string file = file_of(sleeper->pid());
    write_file(file, text(sleeper->pid()) + "\n2\n" + kSleeper[0] + " " + kSleeper[1], 0700);
    const bool sent = chown(file.c_str(), user, user) == 0 &&
                      as_user(
                          [&] {
                            const raw_client client;
                            return client.send_body(WEX_RESTART, control_client::body_of(sleeper->pid())) &&
                                   client.acknowledged();
                          },
                          user);
    return sent && eventually([&] { return is_registered(sleeper->pid()); }, 20s);
  }
  // Its pid, once it has died after the daemon; 0 when it was not registered.
  pid_t leave_dead_sleeper(uid_t user) {
    Process& program = process();
    if (!start_sleeper(&program, user)) {
      return 0;
    }
    const pid_t pid = program.pid();
    daemon.kill_now();
    send_signal(pid, SIGKILL);
    program.wait(20s);
    return pid;
  }
  static bool runs_sleeper(pid_t pid) { return command_line(pid) == kSleeper[0] + " " + kSleeper[1]; }
  static std::string file_of(pid_t pid) { return registry::db_file(0, "sleep", pid); }
  // The registered process of this user's that is not this one.
  static pid_t other_of(uid_t user, pid_t not_this) {
    pid_t found = 0;
    eventually(
        [&] {
          for (const wex_status_slot& slot : StatusReader().slots()) {
            if (slot.uid == user && slot.pid > 0 && slot.pid != not_this && runs_sleeper(slot.pid)) {
              found = slot.pid;
            }
          }
          return found > 0;
        },
        20s);
    return found;
  }
  static const words kSleeper;
  static const words kOtherSleeper;  // another program of the user's
  // The user's program has died, and another process of his has its pid when the next daemon starts.
  void expect_restart_beside_stranger(pid_t pid) {
    const stranger users(pid, kOtherSleeper);
    ASSERT_TRUE(eventually([&] { return command_line(pid) == "/bin/sleep 777"; }, 20s));
    start();
    const pid_t next = other_of(kUser, pid);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_EQ("77 3001", ids_of(next, "Groups"));
    EXPECT_TRUE(users.lives());
  }
};
const words StrictPidReuseBeforeTheStart::kSleeper = {"/usr/bin/sleep", "43210"};
const words StrictPidReuseBeforeTheStart::kOtherSleeper = {"/usr/bin/setpriv", "--reuid=" + text(kUser),
                                                           "--clear-groups", "/bin/sleep", "777"};

}  // namespace

// The same command line, the other one's ids; by the pid the registration would be the other one's, and so
// would its domain.
TEST_F(StrictPidReuseBeforeTheStart, AProgramIsBackBesideAnotherUsersProcess) {
  const struct {
    const char* what;
    uid_t program;
    uid_t process;
  } rows[] = {{"a user's", kUser, 0}, {"root's", 0, kUser}, {"another user's", kUser, kOther}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    start();
    const pid_t pid = leave_dead_sleeper(row.program);
    ASSERT_GT(pid, 0);
    words other = {"/usr/bin/setpriv", "--reuid=" + text(row.process), "--clear-groups"};
    other.insert(other.end(), kSleeper.begin(), kSleeper.end());
    stranger taker(pid, other);
    ASSERT_TRUE(eventually([&] { return runs_sleeper(pid); }, 20s));
    const std::string flag = "/tmp/vsd/5/wex/" + text(pid);
    if (row.program != 0) {
      make_dirs("/data/var/run/vsd/5");
      write_file(flag, "");
    }
    start();
    const pid_t next = other_of(row.program, pid);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_EQ(text(row.program), ids_of(next, "Uid").substr(0, ids_of(next, "Uid").find(' ')));
    EXPECT_EQ(row.program == 0 ? "" : "77 3001", ids_of(next, "Groups"));
    EXPECT_FALSE(is_registered(pid)) << "nobody has registered it";
    EXPECT_TRUE(taker.lives());
    EXPECT_EQ(row.program != 0, exists(flag));
    unlink(flag.c_str());
    EXPECT_TRUE(eventually([&] { return exists(std::string(kUsersDir) + "/" + text(next)); }, 20s));
    EXPECT_FALSE(exists(std::string(kUsersDir) + "/" + text(pid)));
    daemon.kill_now();
    send_signal(next, SIGKILL);
    unlink(file_of(next).c_str());
    unlink(file_of(pid).c_str());
  }
}

// Its file alone tells then whose it was. What runs something else, and began later, is not the program.
TEST_F(StrictPidReuseBeforeTheStart, RootsProgramIsRootsAgainWhenAUserHasItsPidAndNothingWasKept) {
  start();
  const pid_t pid = leave_dead_sleeper(0);
  ASSERT_GT(pid, 0);
  ASSERT_EQ(0, unlink((std::string(kUsersDir) + "/" + text(pid)).c_str()));
  stranger users(pid, {"/usr/bin/setpriv", "--reuid=" + text(kUser), "--clear-groups", "/bin/sleep", "777"});
  ASSERT_TRUE(eventually([&] { return command_line(pid) == "/bin/sleep 777"; }, 20s));
  start();
  const pid_t next = other_of(0, pid);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("0 0 0 0", ids_of(next, "Uid")) << "and not in the status table alone";
  EXPECT_EQ(1U, pids_with_command(kSleeper[0] + " " + kSleeper[1]).size());
  EXPECT_FALSE(is_registered(pid));
  EXPECT_TRUE(users.lives());
}

// It has made the file anew under the same name, for the same command line.
TEST_F(StrictPidReuseBeforeTheStart, AFileOfTheOtherOnesIsItsOwn) {
  start();
  const pid_t pid = leave_dead_sleeper(kUser);
  ASSERT_GT(pid, 0);
  stranger roots(pid, kSleeper);
  ASSERT_EQ(0, chown(file_of(pid).c_str(), 0, 0));
  start();
  EXPECT_TRUE(is_roots(pid)) << read_console();
  EXPECT_EQ(1U, pids_with_command(kSleeper[0] + " " + kSleeper[1]).size());
}

// Two database files name one pid then. What was kept for it is the user's, whichever file is read first.
TEST_F(StrictPidReuseBeforeTheStart, BothAreRegisteredWhenTheOtherOneRegistersToo) {
  start();
  const pid_t pid = leave_dead_sleeper(kUser);
  ASSERT_GT(pid, 0);
  const words of_root = service_words({"--tag=roots"});
  stranger roots(pid, actor_words(of_root));
  ASSERT_TRUE(eventually([&] { return exists(registry::db_file(0, "actor", pid)); }, 20s));
  start();
  const pid_t next = other_of(kUser, pid);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("77 3001", ids_of(next, "Groups"));
  EXPECT_TRUE(eventually([&] { return is_roots(pid); }, 20s));
  EXPECT_TRUE(exists(registry::db_file(0, "actor", pid)));
  EXPECT_FALSE(exists(file_of(pid)));
  for (const pid_t kept : {pid, next}) {
    EXPECT_TRUE(eventually([&] { return exists(std::string(kUsersDir) + "/" + text(kept)); }, 20s)) << kept;
  }
  roots.end();
  const pid_t again = wait_for_actor(of_root, pid, 20s);
  ASSERT_GT(again, 0) << read_console();
  EXPECT_EQ("0 0 0 0", ids_of(again, "Uid"));
}

// What an earlier daemon has kept tells as whom, and not since when.
TEST_F(StrictPidReuseBeforeTheStart, WhatAnEarlierDaemonHasKeptIsUnderstood) {
  start();
  Process& lives = process();
  Process& ends = process();
  ASSERT_TRUE(start_sleeper(&lives, kUser));
  ASSERT_TRUE(start_sleeper(&ends, kUser));
  daemon.kill_now();
  for (const pid_t pid : {lives.pid(), ends.pid()}) {
    const std::string kept = std::string(kUsersDir) + "/" + text(pid);
    const std::string now = read_file(kept);
    const std::string before = replace_matches(now, "3001 [0-9]+ \n", "3001 \n");
    ASSERT_NE(before, now);
    write_file(kept, before, 0600);
  }
  send_signal(ends.pid(), SIGKILL);
  ends.wait(20s);
  start();
  EXPECT_TRUE(is_registered(lives.pid()));
  EXPECT_TRUE(runs_sleeper(lives.pid()));
  const pid_t next = other_of(kUser, lives.pid());
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("77 3001", ids_of(next, "Groups"));
}

// Then another process of his has the pid.
TEST_F(StrictPidReuseBeforeTheStart,
       AProgramOfWhichAnEarlierDaemonHasKeptIsBackBesideAnotherProcessOfItsUsers) {
  start();
  Process& program = process();
  ASSERT_TRUE(start_sleeper(&program, kUser));
  const pid_t pid = program.pid();
  daemon.kill_now();
  const std::string kept = std::string(kUsersDir) + "/" + text(pid);
  write_file(kept, replace_matches(read_file(kept), "3001 [0-9]+ \n", "3001 \n"), 0600);
  send_signal(pid, SIGKILL);
  program.wait(20s);
  expect_restart_beside_stranger(pid);
}

// Two more files of his name the pid that his other process has by now. They lie before and behind the
// program's, in whatever order they are read.
TEST_F(StrictPidReuseBeforeTheStart, WhatWasKeptOfAProgramIsNotLostToOtherFilesOfItsPid) {
  start();
  Process& program = process();
  ASSERT_TRUE(start_sleeper(&program, kUser));
  const pid_t pid = program.pid();
  daemon.kill_now();
  send_signal(pid, SIGKILL);
  program.wait(20s);
  const std::string said = read_file(file_of(pid));
  ASSERT_EQ(0, unlink(file_of(pid).c_str()));
  for (const char* name : {"before", "sleep", "behind"}) {
    const std::string file = registry::db_file(0, name, pid);
    write_file(file, name == std::string("sleep") ? said : text(pid) + "\n2\n/bin/" + name + " 1", 0700);
    ASSERT_EQ(0, chown(file.c_str(), kUser, kUser));
  }
  expect_restart_beside_stranger(pid);
}

// Before Linux 3.17 a thread that executes a program gives the process another start time; a set-user-id
// program may give it another user. Then the lock on its file is all that tells that it is the one.
TEST_F(StrictPidReuseBeforeTheStart, AProcessThatHasItsFileLockedIsTheRegisteredOneWhateverHasChanged) {
  start();
  Process& service = process();
  ASSERT_TRUE(start_service(&service, {"--tag=changed"}, 0));
  const pid_t pid = service.pid();
  daemon.kill_now();
  const std::string kept = std::string(kUsersDir) + "/" + text(pid);
  const std::string before = read_file(kept);
  write_file(kept, "0 2 1234 1235 0 7 " + before.substr(before.find('\n')), 0600);
  ASSERT_EQ(0, chown(registry::db_file(0, "actor", pid).c_str(), kUser, kUser));
  start();
  EXPECT_TRUE(is_registered(pid)) << read_console();
  EXPECT_EQ(1U, pids_with_command(actor_command(service_words({"--tag=changed"}))).size());
}

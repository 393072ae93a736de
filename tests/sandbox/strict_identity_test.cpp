// Strict mode: programs of several users with one command line, and programs that give up their rights.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include "strict_world.h"
#include "taken_pid.h"
#include "third_part_world.h"
#include "unique_fd.h"

namespace {

using namespace strict_world;

struct StrictIdentity : Strict {};

// The running process of this user's registration with this command line, other than `not_this`.
pid_t registered_for(uid_t user, const std::string& command, pid_t not_this) {
  pid_t found = 0;
  eventually(
      [&] {
        for (const wex_status_slot& slot : StatusReader().slots()) {
          if (slot.uid == user && slot.pid != not_this && slot.state == WEX_STATUS_RUNNING &&
              std::string(slot.command, strnlen(slot.command, sizeof slot.command)) == command) {
            found = slot.pid;
          }
        }
        return found > 0;
      },
      20s);
  return found;
}

struct StrictListed : third_part::ThirdPart {
  void SetUp() override {
    ThirdPart::SetUp();
    write_file(kStrictFile, "");
  }
  void list_and_start_as_user(const std::string& name) {
    app_ = install(name);
    describe(name, app_ + " WEX_RESTART");
    ASSERT_TRUE(start_daemon());
    ASSERT_TRUE(start_by_hand({"setpriv", "--reuid=1234", "--regid=1235", "--clear-groups", app_}));
    ASSERT_EQ(by_hand_.pid(), registered_for(kUser, app_, 0)) << read_console();
  }
  static void expect_own_file(pid_t pid, uid_t owner) {
    struct stat facts = {};
    EXPECT_TRUE(eventually(
        [&] {
          return stat(policy::db_file("plain", pid).c_str(), &facts) == 0 && facts.st_uid == owner &&
                 (facts.st_mode & 07777) == 0700;
        },
        20s))
        << facts.st_uid << " " << std::oct << facts.st_mode;
  }
  static bool is_parked(pid_t pid) {
    const auto slot = StatusReader().slot_of(pid);
    return slot.has_value() && slot->state == WEX_STATUS_PARKED;
  }
  static pid_t lock_holder(const std::string& path) {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    const unique_fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    return file.valid() && fcntl(file.get(), F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK ? whole.l_pid
                                                                                              : 0;
  }
};

std::string user_of(pid_t pid) {
  const std::string ids = ids_of(pid, "Uid");
  return ids.substr(0, ids.find(' '));
}

}  // namespace

// Of one user the second registration would end the first one with its process.
TEST_F(StrictIdentity, OneProgramOfTwoUsersIsBothOfTheirs) {
  start();
  const words options = {"--tag=both"};
  const std::string command = actor_command(service_words(options));
  Process& roots = process();
  Process& users = process();
  ASSERT_TRUE(start_service(&roots, options, 0));
  ASSERT_TRUE(start_service(&users, options));
  pid_t of_root = roots.pid();
  pid_t of_user = users.pid();
  for (const uid_t victim : {uid_t{0}, kUser}) {
    pid_t& pid = victim == 0 ? of_root : of_user;
    ASSERT_GT(pid, 0);
    send_signal(pid, SIGKILL);
    pid = registered_for(victim, command, pid);
    ASSERT_GT(pid, 0) << "the program of user " << victim << " is down\n" << read_console();
    EXPECT_EQ(text(victim), user_of(pid));
  }
  EXPECT_EQ(of_root, registered_for(0, command, 0));
}

// A listed program that ends is looked for by its command line: it may have started itself again.
TEST_F(StrictListed, AUsersProcessIsNotTakenForRootsProgram) {
  ASSERT_NO_FATAL_FAILURE(start_listed("plain"));
  Process users;
  ASSERT_TRUE(users.start({"setpriv", "--reuid=1234", "--regid=1235", "--clear-groups", app_}));
  ASSERT_EQ(users.pid(), registered_for(kUser, app_, 0)) << read_console();
  const pid_t first = by_hand_.pid();
  end_by_hand();
  const pid_t next = registered_for(0, app_, first);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("0", user_of(next));
  expect_own_file(next, 0);
  expect_own_file(users.pid(), kUser);
  EXPECT_EQ(daemon_.pid(), lock_holder(policy::db_file("plain", users.pid())))
      << "the daemon holds it for the program";
  EXPECT_EQ(users.pid(), registered_for(kUser, app_, 0));
}

// Root's is looked for, up to five seconds, with the registry locked.
TEST_F(StrictListed, AUsersProgramThatCannotBeFoundHoldsNobodyUp) {
  ASSERT_NO_FATAL_FAILURE(list_and_start_as_user("ending"));
  write_file(third_part::kGiveUp, "");
  mark_console();
  end_by_hand();
  const auto state = [&] {
    for (const wex_status_slot& slot : StatusReader().slots()) {
      if (slot.uid == kUser) {
        return int{slot.state};
      }
    }
    return int{WEX_STATUS_FREE};
  };
  EXPECT_TRUE(eventually([&] { return state() == WEX_STATUS_PARKED; }, 60s)) << read_console();
  EXPECT_EQ(std::string::npos, read_console().find("Not Found new pid"));
}

TEST_F(StrictListed, AUsersProgramThatDetachesIsFollowed) {
  write_file(third_part::kHoldStart, "");
  ASSERT_NO_FATAL_FAILURE(list_and_start_as_user("detaching"));
  unlink(third_part::kHoldStart);
  pid_t now = by_hand_.pid();
  EXPECT_TRUE(by_hand_.wait());
  for (int life = 1; life <= 2; ++life) {
    const pid_t before = now;
    now = settled(app_, before);
    ASSERT_GT(now, 0) << "life " << life << "\n" << read_console();
    EXPECT_EQ("1234", user_of(now));
    EXPECT_TRUE(eventually([&] { return registered_for(kUser, app_, before) == now; }, 20s));
    send_signal(now, SIGKILL);
  }
}

TEST_F(StrictListed, RootsProgramThatGivesUpItsRightsIsStartedAgainOnce) {
  ASSERT_NO_FATAL_FAILURE(start_listed("dropping"));
  const pid_t first = by_hand_.pid();
  write_file(third_part::kGiveUp, "");
  ASSERT_TRUE(eventually([&] { return user_of(first) == "1234"; }, 20s));
  end_by_hand();
  EXPECT_TRUE(console_says("third part Normal[" + app_ + "] new pid: ", 30s)) << read_console();
  const pid_t next = registered_for(0, app_, first);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("1234", user_of(next));
  EXPECT_EQ(next, wait_for(app_, first)) << "the only one";
}

// Its start tells that it is the one that was registered.
TEST_F(StrictListed, RootsProgramThatHasGivenUpItsRightsIsNotStartedBesideItselfByTheNextDaemon) {
  ASSERT_NO_FATAL_FAILURE(start_listed("dropping"));
  const pid_t first = by_hand_.pid();
  ASSERT_EQ(first, registered_for(0, app_, 0)) << read_console();
  ASSERT_TRUE(eventually([&] { return exists(policy::db_file("dropping", first)); }, 20s));
  write_file(third_part::kGiveUp, "");
  ASSERT_TRUE(eventually([&] { return user_of(first) == "1234"; }, 20s));
  daemon_.kill_now();
  ASSERT_TRUE(start_daemon());
  EXPECT_EQ(first, registered_for(0, app_, 0)) << read_console();
  EXPECT_EQ(1U, pids_with_command(app_).size());
}

// It has no file meanwhile, and nobody else would see to it.
TEST_F(StrictListed, RootsProgramThatHasThePidOfAParkedServiceIsRegisteredBehindThatOnesRestart) {
  write_file(kDebugTime, "8\n");
  command_ = app_ = install("plain");
  describe("plain", app_ + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  policy::Service parked("parked");
  ASSERT_TRUE(parked.start());
  ASSERT_TRUE(parked.park());
  const pid_t pid = parked.pid();
  stranger listed(pid, {app_});
  ASSERT_TRUE(console_says("To register to wex, process: " + app_ + ", pid: " + text(pid), 20s));
  EXPECT_TRUE(is_parked(pid)) << "it has given its pid up already";
  ASSERT_TRUE(parked.comes_back(30s)) << read_console();
  ASSERT_EQ(pid, registered_for(0, app_, 0)) << read_console();
  expect_own_file(pid, 0);
  listed.end();
  EXPECT_GT(wait_for(app_, pid, 20s), 0) << read_console();
}

// ---- Listed programs of users: nobody waits for them ------------------------------------------------------

namespace {

struct StrictListedUsers : StrictListed {
  // Installs and lists a program, and starts the daemon and, as a user, the program. Its registered pid.
  pid_t start_users(const std::string& name) {
    command_ = app_ = install(name);
    describe(name, app_ + " WEX_RESTART");
    if (!start_daemon() ||
        !start_by_hand({"setpriv", "--reuid=1234", "--regid=1235", "--clear-groups", app_})) {
      return 0;
    }
    return registered_for(kUser, app_, 0);
  }

  void start_users_without_daemon(const std::string& name) {
    command_ = app_ = install(name);
    describe(name, app_ + " WEX_RESTART");
    ASSERT_TRUE(start_by_hand({"setpriv", "--reuid=1234", "--regid=1235", "--clear-groups", app_}));
    ASSERT_TRUE(eventually([&] { return command_line(by_hand_.pid()) == app_; }));
  }

  // Ends the program, whose process was `first`, and starts a daemon, which starts it again.
  void expect_next_is_users(pid_t first) {
    end_by_hand();
    ASSERT_TRUE(start_daemon());
    const pid_t next = wait_for(app_, first, 20s);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_EQ("1234", user_of(next));
  }
};

}  // namespace

TEST_F(StrictListedUsers, AProgramThatDetachesIsFollowedAndItsRestartsAreCounted) {
  write_file(third_part::kHoldStart, "");  // until it is registered
  ASSERT_GT(start_users("detaching"), 0) << read_console();
  unlink(third_part::kHoldStart);
  EXPECT_TRUE(by_hand_.wait());
  pid_t now = settled(app_, by_hand_.pid());
  for (int restart = 1; restart <= 2; ++restart) {
    ASSERT_GT(now, 0) << read_console();
    EXPECT_EQ("1234", user_of(now));
    EXPECT_TRUE(eventually([&] { return registered_for(kUser, app_, 0) == now; }, 20s)) << read_console();
    send_signal(now, SIGKILL);
    EXPECT_TRUE(console_says("Self-checking OK: " + text(restart) + " times and new id detaching/", 20s))
        << read_console();
    now = settled(app_, now);
  }
}

// The file is root's until the program has its record.
TEST_F(StrictListedUsers, OfADaemonThatIsKilledAsItMakesTheFileNothingIsStartedAsRoot) {
  ASSERT_NO_FATAL_FAILURE(start_users_without_daemon("plain"));
  const pid_t first = by_hand_.pid();
  const std::string file = policy::db_file("plain", first);
  int call = 0;  // the one that locks the file, which has been written then
  do {
    unlink(file.c_str());
    const std::string when = text(++call);
    ASSERT_TRUE(daemon_.start_traced({file, "inject=fcntl,fcntl64:signal=KILL:when=" + when}));
    ASSERT_TRUE(ended_by(daemon_.wait(20s), SIGKILL)) << read_console();
  } while (read_file(file).empty());
  expect_next_is_users(first);
}

// With its record, when the file is still root's.
TEST_F(StrictListedUsers, OfADaemonThatIsKilledAsItKeepsTheUserAgainNothingIsStartedAsRoot) {
  ASSERT_NO_FATAL_FAILURE(start_users_without_daemon("plain"));
  const pid_t first = by_hand_.pid();
  const std::string file = policy::db_file("plain", first);
  const std::string kept = std::string(kUsersDir) + "/";
  int call = 0;  // the first one behind the making of the file
  do {
    unlink(file.c_str());
    ASSERT_TRUE(daemon_.start_traced(
        {kept + text(first), kept + "begun", "inject=write,rename:signal=KILL:when=" + text(++call)}));
    ASSERT_TRUE(ended_by(daemon_.wait(20s), SIGKILL)) << call << read_console();
  } while (read_file(file).empty());
  expect_next_is_users(first);
}

// As root's, the file would have it started as root by the next daemon.
TEST_F(StrictListedUsers, OneThatIsRefusedLeavesNoFile) {
  write_file(kStrictFile, "registrations 1\n");
  command_ = app_ = install("plain");
  describe("plain", app_ + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  const words options = {"--tag=first", "--register=RESTART", "--confirm", "--hold"};
  Process first;
  ASSERT_TRUE(first.start(users_words(options)));
  ASSERT_TRUE(eventually([&] { return StatusReader().slot_of(first.pid()).has_value(); }, 20s));
  ASSERT_TRUE(start_by_hand({"setpriv", "--reuid=1234", "--regid=1235", "--clear-groups", app_}));
  const auto said = [] { return read_file(kRunningLog1) + read_file(kRunningLog2); };
  ASSERT_TRUE(eventually([&] { return said().find("User 1234 was refused") != std::string::npos; }, 20s));
  EXPECT_FALSE(exists(policy::db_file("plain", by_hand_.pid())));
  daemon_.kill_now();
  end_by_hand();
  ASSERT_TRUE(start_daemon());
  for (const pid_t pid : pids_with_command(app_)) {
    ADD_FAILURE() << "runs as user " << user_of(pid);
    send_signal(pid, SIGKILL);
  }
  daemon_.kill_now();
}

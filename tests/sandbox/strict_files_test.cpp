// Strict mode: directories are root's, and files of users count for what is theirs alone.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <thread>

#include "registry_files.h"
#include "strict_world.h"
#include "taken_pid.h"
#include "unique_fd.h"
#include "waiting.h"

namespace {

using namespace strict_world;

struct StrictFiles : Strict {
  void TearDown() override {
    Strict::TearDown();
    EXPECT_EQ(0, chmod("/data", 0777));
  }
};

struct stat facts_of(const std::string& path) {
  struct stat facts = {};
  EXPECT_EQ(0, lstat(path.c_str(), &facts)) << path;
  return facts;
}

void give_to_user(const std::string& path, mode_t mode) {
  ASSERT_EQ(0, chown(path.c_str(), kUser, kUser));
  ASSERT_EQ(0, chmod(path.c_str(), mode));
}

std::string directory_of(pid_t pid) {
  char target[256] = {};
  return readlink(("/proc/" + text(pid) + "/cwd").c_str(), target, sizeof target - 1) > 0 ? target : "";
}

}  // namespace

TEST_F(StrictFiles, DirectoriesAreStickyOrClosedAndRoots) {
  for (const char* path : {"/tmp/wex", "/tmp/vsd/0/wex", "/tmp/vsd_common"}) {
    make_dirs(path);
    give_to_user(path, 0777);
  }
  give_to_user("/tmp/vsd", 0777);
  ASSERT_EQ(0, chmod("/data", 0777));
  make_dirs("/data/.ovix/vsd_common");
  ASSERT_EQ(0, chmod("/data/.ovix/vsd_common", 0700));
  start();
  for (const char* path : {"/tmp/wex", "/tmp/vsd/0/wex", "/tmp/vsd/0/wex/db"}) {
    EXPECT_EQ(01777U, facts_of(path).st_mode & 07777) << path;
    EXPECT_EQ(0U, facts_of(path).st_uid) << path;
  }
  for (const char* path : {"/tmp/vsd", "/tmp/vsd/0", "/tmp/vsd_common", "/data", "/data/.ovix", "/ovix",
                           "/qx_cfg", "/data/var/run/vsd", "/etc/vsd"}) {
    EXPECT_EQ(0755U, facts_of(path).st_mode & 07777) << path;
    EXPECT_EQ(0U, facts_of(path).st_uid) << path;
  }
  EXPECT_EQ(0700U, mode_of("/data/.ovix/vsd_common")) << "nothing is opened";
}

TEST_F(StrictFiles, AUsersProgramsOfADomainHaveWhereToMakeTheirFiles) {
  EXPECT_TRUE(exited_with(run({Daemon::binary(), "-c", "1"}), 0)) << read_console();
  for (const char* path : {"/tmp/vsd/1", "/tmp/vsd/1/wex", "/tmp/vsd/1/wex/db", "/data/var/run/vsd/1"}) {
    EXPECT_EQ(01777U, facts_of(path).st_mode & 07777) << path;
  }
  for (const char* path : {"/tmp/vsd", "/qx_cfg/vsd/1", "/etc/vsd/1"}) {
    EXPECT_EQ(0755U, facts_of(path).st_mode & 07777) << path;
  }
}

TEST_F(StrictFiles, AUserCannotRemoveOrReplaceWhatIsTheDaemons) {
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  ASSERT_TRUE(as_user([&] {
    const std::string database = std::string(kMainDbDir) + "/actor." + text(roots.pid());
    for (const std::string& path : {std::string(kControlSocket), std::string(kLockFile), database}) {
      if (unlink(path.c_str()) == 0 || rename(path.c_str(), "/tmp/taken") == 0 ||
          rename("/tmp/ready", path.c_str()) == 0) {
        return false;
      }
    }
    return rename("/tmp/wex", "/tmp/taken") != 0 && rename("/tmp/vsd", "/tmp/taken") != 0 &&
           rename("/tmp/vsd/0/wex", "/tmp/vsd/0/taken") != 0 && mkdir("/tmp/vsd/3", 0777) != 0 &&
           open(kKillDebug, O_CREAT | O_WRONLY, 0666) < 0 &&
           !exists(std::string(kUsersDir) + "/" + text(roots.pid()));
  }));
  EXPECT_TRUE(exists(std::string(kUsersDir) + "/" + text(roots.pid())));
}

// Out of a directory of his own, where it could be neither read nor written by him.
TEST_F(StrictFiles, AFileOfRootsThatAUserGivesTheNameOfHisDatabaseFileStaysRoots) {
  make_dirs("/tmp/his");
  give_to_user("/tmp/his", 0755);
  write_file("/tmp/his/secret", "root's");
  ASSERT_EQ(0, chmod("/tmp/his/secret", 0600));
  const int secret = open("/tmp/his/secret", O_RDONLY | O_CLOEXEC);
  start();
  Process& service = process();
  ASSERT_TRUE(service.start(users_words({"--hold"})));
  ASSERT_TRUE(eventually([&] { return read_file("/proc/" + text(service.pid()) + "/comm") == "actor\n"; }));
  const std::string name = std::string(kMainDbDir) + "/actor." + text(service.pid());
  ASSERT_TRUE(as_user([&] { return rename("/tmp/his/secret", name.c_str()) == 0; }));
  ASSERT_TRUE(as_user([&] {
    const raw_client client;
    return client.send_body(WEX_RESTART, control_client::body_of(service.pid())) && client.acknowledged();
  }));
  ASSERT_TRUE(eventually([&] { return is_registered(service.pid()); }, 20s));
  struct stat facts = {};
  ASSERT_EQ(0, fstat(secret, &facts));
  close(secret);
  EXPECT_EQ(0U, facts.st_uid);
  EXPECT_EQ(0600U, facts.st_mode & 07777);
  EXPECT_TRUE(eventually([&] { return facts_of(name).st_uid == kUser; }, 20s))
      << "the file that he has instead";
}

// Whoever can open it for a moment could keep it open, and write another program into it later.
TEST_F(StrictFiles, ADatabaseFileOfRootsIsNeverOpenToOthersWhateverTheUmask) {
  start();
  daemon.kill_now();  // which would close it
  Process& roots = process();
  words all = {"/bin/sh", "-c", "umask 0; exec \"$@\"", "sh"};
  const words program = actor_words({"--register=RESTART", "--hold"});
  all.insert(all.end(), program.begin(), program.end());
  ASSERT_TRUE(roots.start(all));
  const std::string name = std::string(kMainDbDir) + "/actor." + text(roots.pid());
  ASSERT_TRUE(eventually([&] { return exists(name); }, 20s)) << "made without a daemon";
  EXPECT_EQ(0700U, facts_of(name).st_mode & 07777);
}

namespace {

// Who keeps others from locking the whole file; 0 when nobody does.
pid_t lock_holder(int file) {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  return fcntl(file, F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK ? whole.l_pid : 0;
}

}  // namespace

// An older library leaves it readable, and whoever may read it may lock it as soon as its process is dead.
TEST_F(StrictFiles, AUsersLockOnADatabaseFileOfRootsHoldsNoRestartUp) {
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  const std::string name = registry::db_file(0, "actor", roots.pid());
  ASSERT_EQ(0, chmod(name.c_str(), 0755));
  const unique_fd file(open(name.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(roots.pid(), lock_holder(file.get()));
  const child user([&] {
    const int his = become(kUser) ? open(name.c_str(), O_RDONLY | O_CLOEXEC) : -1;
    std::thread([his] {
      struct flock whole = {};
      whole.l_type = F_RDLCK;
      fcntl(his, F_SETLKW, &whole);
      pause();
    }).detach();
    return his >= 0;
  });
  ASSERT_TRUE(user.ready());
  ASSERT_NO_FATAL_FAILURE(stop_all_threads(&daemon));
  send_signal(roots.pid(), SIGKILL);
  ASSERT_TRUE(eventually([&] { return lock_holder(file.get()) == user.pid(); }, 20s));
  daemon.send(SIGCONT);
  EXPECT_GT(wait_for_actor(service_words({"--tag=roots"}), roots.pid(), 20s), 0) << read_console();
  EXPECT_EQ(user.pid(), lock_holder(file.get()));
}

// An older library makes it with the program's umask.
TEST_F(StrictFiles, ADatabaseFileOfRootsThatOthersCouldWriteIsMadeAnew) {
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  daemon.kill_now();
  const std::string name = std::string(kMainDbDir) + "/actor." + text(roots.pid());
  ASSERT_EQ(0, chmod(name.c_str(), 0777));
  const ino_t before = facts_of(name).st_ino;
  const unique_fd held(open(name.c_str(), O_WRONLY | O_CLOEXEC));  // its inode is not used again meanwhile
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()) && facts_of(name).st_ino != before; }, 20s));
  EXPECT_EQ(0700U, facts_of(name).st_mode & 07777);
  send_signal(roots.pid(), SIGKILL);
  EXPECT_GT(wait_for_actor(service_words({"--tag=roots"}), roots.pid(), 20s), 0) << read_console();
}

// Whoever has it open could have his own program started as its owner, were what is kept of users lost.
TEST_F(StrictFiles, AUsersDatabaseFileThatOthersCouldWriteIsMadeAnew) {
  const std::string evil = actor_command({"--tag=evil", "--hold"});
  write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nsomebody:x:1234:1235::/:/bin/sh\n");
  for (const mode_t loose : {mode_t{0702}, mode_t{0720}}) {
    const std::string tag = "--tag=" + text(loose);
    SCOPED_TRACE(tag);
    start();
    Process& service = process();
    ASSERT_TRUE(start_service(&service, {tag}));
    const std::string name = std::string(kMainDbDir) + "/actor." + text(service.pid());
    ASSERT_EQ(0700U, facts_of(name).st_mode & 07777);
    daemon.kill_now();
    ASSERT_EQ(0, chmod(name.c_str(), loose));
    const ino_t before = facts_of(name).st_ino;
    const unique_fd held(open(name.c_str(), O_WRONLY | O_CLOEXEC));  // as another user could, and keeps it
    start();
    EXPECT_TRUE(eventually([&] { return facts_of(name).st_ino != before; }, 20s));
    EXPECT_EQ(0700U, facts_of(name).st_mode & 07777);
    EXPECT_EQ(kUser, facts_of(name).st_uid);
    const std::string said = text(service.pid()) + "\n2\n" + evil;
    ASSERT_EQ(static_cast<ssize_t>(said.size()), pwrite(held.get(), said.data(), said.size(), 0));
    daemon.kill_now();
    ASSERT_EQ(0, unlink((std::string(kUsersDir) + "/" + text(service.pid())).c_str()));
    send_signal(service.pid(), SIGKILL);
    service.wait(20s);
    start();
    EXPECT_GT(wait_for_actor(service_words({tag}), service.pid(), 20s), 0) << read_console();
    EXPECT_TRUE(pids_with_command(evil).empty());
    daemon.kill_now();
  }
}

// Killed before the new file has the name, the daemon leaves the old one, and a file that its next start
// removes.
TEST_F(StrictFiles, ADaemonThatIsKilledAsItMakesADatabaseFileAnewLosesNothing) {
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  daemon.kill_now();
  const std::string name = std::string(kMainDbDir) + "/actor." + text(roots.pid());
  const std::string said = read_file(name);
  ASSERT_EQ(0, chmod(name.c_str(), 0777));
  ASSERT_TRUE(daemon.start_traced({"inject=renameat,renameat2:signal=KILL", kMainDbDir}));
  EXPECT_TRUE(ended_by(daemon.wait(20s), SIGKILL)) << read_console();
  EXPECT_EQ(said, read_file(name));
  EXPECT_EQ(2U, list_dir(kMainDbDir).size()) << "one has been begun";
  write_file(std::string(kMainDbDir) + "/begun-1-0123456789abcdef", "",
             0700);  // as one that was killed before it wrote
  // What a user calls so is his, and read like any other file.
  const std::string his = std::string(kMainDbDir) + "/begun-1-fedcba9876543210";
  write_file(his, "nothing");
  give_to_user(his, 0700);
  start();
  EXPECT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s));
  EXPECT_EQ(0700U, facts_of(name).st_mode & 07777);
  EXPECT_EQ(said, read_file(name));
  const std::vector<std::string> left = {"actor." + text(roots.pid()), "begun-1-fedcba9876543210"};
  EXPECT_EQ(left, list_dir(kMainDbDir));
}

namespace {

// A user who makes all files "begun-PID-NUMBER" whose number is the time, each before its time has come, from
// the moment on that he is ready.
class foreseer {
 public:
  foreseer(pid_t pid, uid_t user)
      : user_([=] {
          if (!become(user)) {
            return false;
          }
          int64_t next = wex_clock_ms();
          plant(pid, &next);
          std::thread([=]() mutable {
            for (;;) {
              plant(pid, &next);
              std::this_thread::sleep_for(20ms);
            }
          }).detach();
          return true;
        }) {}
  bool ready() const { return user_.ready(); }

 private:
  static void plant(pid_t pid, int64_t* next) {
    constexpr int kAheadMs = 2000;
    for (const int64_t until = wex_clock_ms() + kAheadMs; *next < until; ++*next) {
      const std::string name = registry::db_dir(0) + "/begun-" + text(pid) + "-" + text(*next);
      close(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    }
  }
  child user_;
};

}  // namespace

// The new file is begun under another name. Whoever had that one first could keep root's file as it is.
TEST_F(StrictFiles, AUserWhoMakesFilesBeforehandKeepsRootsLooseFileFromNothing) {
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  daemon.kill_now();
  const std::string name = registry::db_file(0, "actor", roots.pid());
  ASSERT_EQ(0, chmod(name.c_str(), 0777));
  const foreseer user(roots.pid(), kUser);
  ASSERT_TRUE(user.ready());
  start();
  EXPECT_TRUE(is_registered(roots.pid()));
  EXPECT_EQ(0700U, facts_of(name).st_mode & 07777) << read_console();
}

// Without a file the registration would be lost with the daemon.
TEST_F(StrictFiles, AUserHasHisDatabaseFileThoughAnotherOneHasMadeAllFilesBeforehand) {
  start();
  Process& service = process();
  ASSERT_TRUE(service.start(users_words({"--hold"})));
  ASSERT_TRUE(eventually([&] { return read_file("/proc/" + text(service.pid()) + "/comm") == "actor\n"; }));
  const pid_t pid = service.pid();
  const std::string name = registry::db_file(0, "actor", pid);
  ASSERT_TRUE(as_user(
      [&] {
        const unique_fd taken(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        return taken.valid();
      },
      kOther));
  const foreseer other(pid, kOther);
  ASSERT_TRUE(other.ready());
  ASSERT_TRUE(as_user([&] {
    const raw_client client;
    return client.send_body(WEX_RESTART, control_client::body_of(pid)) && client.acknowledged();
  }));
  ASSERT_TRUE(eventually([&] { return is_registered(pid); }, 20s));
  struct stat facts = {};
  EXPECT_TRUE(eventually([&] { return lstat(name.c_str(), &facts) == 0 && facts.st_uid == kUser; }, 5s))
      << read_console();
  daemon.kill_now();
  start();
  EXPECT_TRUE(is_registered(pid)) << read_console();
}

// What such a file is called does not hide a program of that name.
TEST_F(StrictFiles, AProgramOfRootsThatIsCalledLikeOneIsStartedAgain) {
  const std::string actor = actor_command({"--tag=begun", "--hold"});
  const std::string path = "/tmp/begun-5-7";
  ASSERT_EQ(0, symlink(actor.substr(0, actor.find(' ')).c_str(), path.c_str()));
  const std::string command = path + actor.substr(actor.find(' '));
  const std::string pid = text(child::reaped());
  make_dirs(kMainDbDir);
  write_file(std::string(kMainDbDir) + "/begun-5-7." + pid, pid + "\n2\n" + command, 0700);
  start();
  EXPECT_TRUE(eventually([&] { return pids_with_command(command).size() == 1; }, 20s)) << read_console();
}

// A line in the list has a program of root's started again as root; one in the log may hide what was refused.
TEST_F(StrictFiles, AUserWritesNeitherTheListOfProgramsNorLogsWhateverTheUmaskOfTheDaemon) {
  write_file(kDebugLog, "0\n");
  make_dirs(kThirdPartDir);
  const mode_t before = umask(0);
  start();
  umask(before);
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  send_signal(roots.pid(), SIGKILL);
  ASSERT_GT(wait_for_actor(service_words({"--tag=roots"}), roots.pid(), 20s), 0) << read_console();
  for (const char* const path : {kThirdPartList, kRunningLog1, kEventLog1}) {
    ASSERT_TRUE(eventually([&] { return exists(path); }, 20s)) << path;
    EXPECT_TRUE(as_user([&] { return open(path, O_WRONLY) < 0 && errno == EACCES; })) << path;
  }
}

// As a daemon leaves them that was not strict and had the umask 0.
TEST_F(StrictFiles, AUserWhoHasTheListOrALogOpenFromBeforeWritesIntoNoneOfTheDaemons) {
  const char* const files[] = {kThirdPartList, kRunningLog1, kEventLog1, kRebootLog};
  write_file(kDebugLog, "0\n");
  make_dirs(kThirdPartDir);
  for (const char* const path : files) {
    make_dirs(std::string(path).substr(0, std::string(path).rfind('/')));
    write_file(path, "old\n", 0666);
  }
  const child user([&] {
    std::vector<unique_fd> held;
    bool written = become(kUser);
    for (const char* const path : files) {
      held.emplace_back(open(path, O_WRONLY | O_APPEND | O_CLOEXEC));
      written = written && held.back().valid();
    }
    std::thread([held = std::move(held)] {
      while (!exists("/tmp/now")) {
        std::this_thread::sleep_for(1ms);
      }
      for (const unique_fd& file : held) {
        EXPECT_EQ(6, write(file.get(), "user's", 6));
      }
      write_file("/tmp/written", "");
    }).detach();
    return written;
  });
  ASSERT_TRUE(user.ready());
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  send_signal(roots.pid(), SIGKILL);
  ASSERT_GT(wait_for_actor(service_words({"--tag=roots"}), roots.pid(), 20s), 0) << read_console();
  write_file("/tmp/now", "");
  ASSERT_TRUE(eventually([] { return exists("/tmp/written"); }, 20s));
  for (const char* const path : {kThirdPartList, kRunningLog1, kEventLog1}) {
    EXPECT_EQ(std::string::npos, read_file(path).find("user's")) << path;
    EXPECT_EQ(0644U, mode_of(path)) << path;
  }
}

// He gets no program of root's registered by it.
TEST_F(StrictFiles, OnlyRootsDescriptionsThatNobodyElseMayWriteAreOfTheListOfPrograms) {
  make_dirs(kThirdPartDir);
  const std::string directory = std::string(kThirdPartDir) + "/";
  write_file(directory + "roots", "/usr/bin/roots WEX_RESTART");
  write_file(directory + "open", "/usr/bin/open WEX_RESTART", 0666);
  write_file(directory + "users", "/usr/bin/users WEX_RESTART");
  give_to_user(directory + "users", 0644);
  start();
  EXPECT_EQ("/usr/bin/roots WEX_RESTART\n", read_file(kThirdPartList));
  EXPECT_TRUE(log_says(directory + "users does not count: its owner may not say what it says."));
  EXPECT_TRUE(log_says(directory + "open does not count"));
}

// His would not count, and what the take-down ends would be started again.
TEST_F(StrictFiles, ATakeDownHasAMarkerOfRootsThoughAUserHasMadeOneBefore) {
  ASSERT_TRUE(exited_with(run({Daemon::binary(), "-c", "1"}), 0)) << read_console();
  const std::string marker = "/tmp/vsd/1/delete_vsd";
  ASSERT_TRUE(as_user([&] { return write_file(marker, ""), exists(marker); }));
  Process& take_down = process();
  ASSERT_TRUE(take_down.start({Daemon::binary(), "-d", "1"}));
  EXPECT_TRUE(eventually(
      [&] {
        struct stat facts = {};
        return lstat(marker.c_str(), &facts) == 0 && facts.st_uid == 0;
      },
      10s))
      << read_console();
}

// Neither the end of the daemon nor that of a restart.
TEST_F(StrictFiles, AUsersForkFileAndTakeDownMarkerDoNotCount) {
  make_dirs("/tmp/vsd/5");
  write_file("/tmp/vsd/5/delete_vsd", "");
  give_to_user("/tmp/vsd/5/delete_vsd", 0666);
  start();
  Process& service = process();
  ASSERT_TRUE(start_service(&service, {"--tag=service"}));
  ASSERT_TRUE(watches_forks(daemon.pid()));
  ASSERT_TRUE(as_user([] {
    write_file(kForkFile, "aaaaaaaaaa");
    return read_file(kForkFile).size() == 10;
  }));
  EXPECT_TRUE(log_says("/tmp/wex/forkfile does not count: its owner may not say what it says."));
  send_signal(service.pid(), SIGKILL);
  EXPECT_GT(wait_for_actor(service_words({"--tag=service"}), service.pid(), 20s), 0) << read_console();
  EXPECT_TRUE(log_says("/tmp/vsd/5/delete_vsd does not count"));
  EXPECT_TRUE(daemon.running());
  ASSERT_EQ(0, chown("/tmp/vsd/5/delete_vsd", 0, 0));
  EXPECT_TRUE(log_says("/tmp/vsd/5/delete_vsd exists, exited processes are not restarted."));
}

// A user who has the name of the file must not keep a daemon that cannot fork from ending.
TEST_F(StrictFiles, ForksThatFailAreCountedThoughAUserHasMadeTheirFile) {
  ASSERT_TRUE(daemon.start_traced({"trace=clone,fork,vfork", "inject=clone,fork,vfork:error=ENOMEM"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  ASSERT_TRUE(watches_forks(daemon.pid()));
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  ASSERT_TRUE(as_user([] {
    write_file(kForkFile, "aaaaaaaaaa");
    return read_file(kForkFile).size() == 10;
  }));
  EXPECT_TRUE(log_says("/tmp/wex/forkfile does not count"));
  send_signal(roots.pid(), SIGKILL);
  struct stat facts = {};
  ASSERT_TRUE(eventually(
      [&] {
        return lstat(kForkFile, &facts) == 0 && facts.st_uid == 0 && read_file(kForkFile).substr(0, 1) == "a";
      },
      20s))
      << read_console();
  ASSERT_GT(7U, read_file(kForkFile).size()) << "what he wrote is counted as well";
  EXPECT_TRUE(daemon.running());
  const unique_fd failures(open(kForkFile, O_WRONLY | O_APPEND | O_CLOEXEC));
  ASSERT_EQ(6, write(failures.get(), "aaaaaa", 6));  // the other six would take half a minute
  EXPECT_TRUE(exited_with(daemon.wait(20s), 1)) << read_console();
  EXPECT_NE(std::string::npos, running_log().find("Unable to restart the process, wex will be restart."));
}

// He makes it anew whenever it has gone; the daemon is slow after each removal.
TEST_F(StrictFiles, ForksThatFailAreCountedThoughAUserMakesTheirFileAgainAndAgain) {
  ASSERT_TRUE(daemon.start_traced({"trace=clone,fork,vfork,unlinkat", "inject=clone,fork,vfork:error=ENOMEM",
                                   "inject=unlinkat:delay_exit=300000"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  const child user([] {
    if (!become(kUser)) {
      return false;
    }
    std::thread([] {
      for (;;) {
        close(open(kForkFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
        std::this_thread::sleep_for(1ms);
      }
    }).detach();
    return eventually([] { return exists(kForkFile); });
  });
  ASSERT_TRUE(user.ready());
  send_signal(roots.pid(), SIGKILL);
  ASSERT_TRUE(console_says("fork fail, err: ", 20s)) << read_console();
  EXPECT_EQ(0U, facts_of(kForkFile).st_uid);
  EXPECT_EQ("a", read_file(kForkFile));
}

TEST_F(StrictFiles, AFlagFileCountsForAProcessOfItsOwner) {
  make_dirs("/tmp/vsd/5/wex");
  make_dirs("/data/var/run/vsd/5");
  start();
  Process& roots = process();
  Process& own = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  ASSERT_TRUE(start_service(&own, {"--tag=own"}));
  for (const pid_t pid : {roots.pid(), own.pid()}) {
    const std::string flag = "/tmp/vsd/5/wex/" + text(pid);
    write_file(flag, "");
    give_to_user(flag, 0666);
    send_signal(pid, SIGKILL);
  }
  const pid_t next = wait_for_actor(service_words({"--tag=roots"}), roots.pid(), 20s);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("/", directory_of(next));
  EXPECT_TRUE(log_says("/tmp/vsd/5/wex/" + text(roots.pid()) + " does not count"));
  const pid_t owns = wait_for_actor(service_words({"--tag=own"}), own.pid(), 20s);
  ASSERT_GT(owns, 0) << read_console();
  EXPECT_EQ("/data/var/run/vsd/5", directory_of(owns));
  EXPECT_EQ("77 3001", ids_of(owns, "Groups")) << "the domain's group is more than it had";
}

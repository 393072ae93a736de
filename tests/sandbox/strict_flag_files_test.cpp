// Strict mode: flag files, which say in which domain a program is started again.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "registry_files.h"
#include "strict_domain.h"
#include "taken_pid.h"
#include "unique_fd.h"

namespace {

using namespace strict_world;

constexpr char kSetUserId[] = "/data/flagged";

struct StrictFlagFiles : StrictDomain {
  void SetUp() override {
    StrictDomain::SetUp();
    start();
  }
  void TearDown() override {
    StrictDomain::TearDown();
    unlink(kSetUserId);
  }
  static std::string directory_of(pid_t pid) {
    char target[256] = {};
    return readlink(("/proc/" + text(pid) + "/cwd").c_str(), target, sizeof target - 1) > 0 ? target : "";
  }
  bool cancel_as_user(pid_t pid) {
    return as_user([&] {
             const raw_client client;
             const wex_cons_info cancel = {WEX_CANCEL_PROC, pid};
             return client.send_body(WEX_CONS_MSG, cancel) && client.acknowledged();
           }) &&
           eventually([&] { return !is_registered(pid); }, 20s);
  }
};

}  // namespace

// It stays when its registration is cancelled. As root's it would count for whatever process has the pid
// next.
TEST_F(StrictFlagFiles, WhatIsMadeForAUsersProgramMovesNoServiceOfRoots) {
  Process& users = process();
  ASSERT_TRUE(start_service(&users, {"--tag=users"}));
  ASSERT_TRUE(as_user([&] {
    const unique_fd flag(open(flag_of(users.pid()).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    return flag.valid();
  }));
  send_signal(users.pid(), SIGKILL);
  const pid_t pid = wait_for_actor(service_words({"--tag=users"}), users.pid(), 20s);
  ASSERT_GT(pid, 0) << read_console();
  ASSERT_EQ(kRunOfDomain, directory_of(pid));
  ASSERT_TRUE(eventually([&] { return exists(flag_of(pid)) && is_registered(pid); }, 20s)) << read_console();
  EXPECT_EQ(kUser, owner_of(flag_of(pid)));
  ASSERT_TRUE(cancel_as_user(pid));
  send_signal(pid, SIGKILL);
  ASSERT_TRUE(eventually([&] { return !is_alive(pid); }, 20s));
  ASSERT_TRUE(exists(flag_of(pid)));
  const words of_root = service_words({"--tag=roots"});
  stranger roots(pid, actor_words(of_root));
  ASSERT_TRUE(eventually([&] { return is_registered(pid); }, 20s)) << read_console();
  roots.end();
  const pid_t next = wait_for_actor(of_root, pid, 20s);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("/", directory_of(next));
}

// A file of root's would stay just so.
TEST_F(StrictFlagFiles, OfASetUserIdProgramItIsItsUsers) {
  ASSERT_TRUE(exited_with(run({"cp", actor_binary(), kSetUserId}), 0));
  ASSERT_EQ(0, chown(kSetUserId, 0, 0));
  ASSERT_EQ(0, chmod(kSetUserId, 04755));
  Process& program = process();
  ASSERT_TRUE(program.start(words_of_domain({kSetUserId, "--register=RESTART", "--hold"}, kUser)));
  ASSERT_TRUE(eventually([&] { return is_registered(program.pid()); }, 20s)) << read_console();
  ASSERT_TRUE(eventually([&] { return exists(flag_of(program.pid())); }, 20s)) << read_console();
  EXPECT_EQ(kUser, owner_of(flag_of(program.pid())));
}

// Without a flag file that counts it would run in the main system from its next restart on. What he makes
// beforehand are files and directories, empty and not, and those of the database, without which the library
// makes no flag file.
TEST_F(StrictFlagFiles, AUserWhoHasTheirNamesFirstMovesNoServiceOfRootsOutOfItsDomain) {
  Process& roots = process();
  const words program =
      actor_words({"--tag=roots", "--wait-for=/tmp/go", "--register=RESTART", "--confirm", "--hold"});
  ASSERT_TRUE(roots.start(words_of_domain(program, 0)));
  ASSERT_TRUE(as_user([&] {
    bool made = true;
    for (pid_t pid = roots.pid(); pid < roots.pid() + 400; ++pid) {
      const std::string name = flag_of(pid);
      if (pid % 3 == 0) {
        made = made && mknod(name.c_str(), S_IFREG | 0666, 0) == 0;
      } else {
        made = made && mkdir(name.c_str(), 0777) == 0;
      }
      if (pid % 3 == 1) {
        made = made && mknod((name + "/full").c_str(), S_IFREG | 0666, 0) == 0;
      }
      made = made && mkdir((registry::db_dir(5) + "/actor." + text(pid)).c_str(), 0755) == 0;
    }
    return made;
  }));
  write_file("/tmp/go", "");
  ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s)) << read_console();
  pid_t last = roots.pid();
  for (int restart = 0; restart < 4; ++restart) {
    EXPECT_TRUE(eventually([&] { return owner_of(flag_of(last)) == 0; }, 5s)) << last << read_console();
    EXPECT_TRUE(eventually([&] { return owner_of(registry::db_file(5, "actor", last)) == 0; }, 5s));
    send_signal(last, SIGKILL);
    const pid_t next = wait_for_actor(
        {"--tag=roots", "--wait-for=/tmp/go", "--register=RESTART", "--confirm", "--hold"}, last, 20s);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_EQ(kRunOfDomain, directory_of(next));
    ASSERT_TRUE(eventually([&] { return is_registered(next); }, 20s)) << read_console();
    last = next;
  }
  unlink("/tmp/go");
}

// He makes it anew whenever it has gone; the daemon is slow after each removal.
TEST_F(StrictFlagFiles, AUserWhoMakesADirectoryAgainAndAgainDoesNotKeepRootsFromItsName) {
  daemon.kill_now();
  ASSERT_TRUE(daemon.start_traced({"inject=unlink,unlinkat,rmdir:delay_exit=100000"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process& roots = process();
  const words program =
      actor_words({"--tag=roots", "--wait-for=/tmp/go", "--register=RESTART", "--confirm", "--hold"});
  ASSERT_TRUE(roots.start(words_of_domain(program, 0)));
  const std::string names[] = {flag_of(roots.pid()), registry::db_file(5, "actor", roots.pid())};
  const child user([&] {
    if (!become(kUser)) {
      return false;
    }
    std::thread([names] {
      for (;;) {
        for (const std::string& name : names) {
          mkdir(name.c_str(), 0755);
        }
        std::this_thread::sleep_for(1ms);
      }
    }).detach();
    return eventually([&] { return exists(names[0]) && exists(names[1]); });
  });
  ASSERT_TRUE(user.ready());
  write_file("/tmp/go", "");
  EXPECT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s)) << read_console();
  for (const std::string& name : names) {
    struct stat facts = {};
    EXPECT_TRUE(eventually(
        [&] { return lstat(name.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_uid == 0; }, 10s))
        << name << " is user " << facts.st_uid << "'s";
  }
  unlink("/tmp/go");
}

namespace {

// What a user puts at the names of files that the daemon makes for him, before they have got their lasting
// names: each is his for a moment by then, and may be moved away.
void swap_what_is_begun(const std::string& directory, const std::string& precious, int* swapped) {
  for (const std::string& name : list_dir(directory)) {
    const std::string path = directory + "/" + name;
    struct stat facts = {};
    if (name.find("begun-") == std::string::npos || lstat(path.c_str(), &facts) != 0 ||
        facts.st_uid != kUser || !S_ISREG(facts.st_mode) ||
        rename(path.c_str(), (directory + "/mine" + text(++*swapped)).c_str()) != 0) {
      continue;
    }
    const int kind = *swapped % 3;
    const int result = kind == 0   ? symlink(precious.c_str(), path.c_str())
                       : kind == 1 ? mkfifo(path.c_str(), 0600)
                                   : mkdir(path.c_str(), 0700);
    mknod((directory + (result == 0 ? "/swapped" : "/failed") + text(kind)).c_str(), S_IFREG | 0600, 0);
  }
}

}  // namespace

// A link of his to a file of root's, a FIFO, a directory. The daemon is slow when it has given a file away.
TEST_F(StrictFlagFiles, AUserWhoChangesWhatIsMadeForHimTouchesNothingOfRoots) {
  const std::string precious = "/data/precious";
  write_file(precious, "root's", 0600);
  daemon.kill_now();
  ASSERT_TRUE(daemon.start_traced({"inject=?fchown,?fchown32:delay_exit=100000"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  const temporary ready("/tmp/ready.users");
  const words options = {"--tag=users", "--register=RESTART", "--confirm", "--ready=/tmp/ready.users",
                         "--hold"};
  Process& users = process();
  ASSERT_TRUE(users.start(words_of_domain(actor_words(options), kUser)));
  const child swapper([&] {
    if (!become(kUser)) {
      return false;
    }
    std::thread([precious] {
      for (int flags = 0, files = 0;;) {
        swap_what_is_begun("/tmp/vsd/5/wex", precious, &flags);
        swap_what_is_begun("/tmp/vsd/5/wex/db", precious, &files);
        std::this_thread::sleep_for(2ms);
      }
    }).detach();
    return true;
  });
  ASSERT_TRUE(swapper.ready());
  pid_t last = users.pid();
  for (int life = 1; life <= 3; ++life) {
    // It makes its own file anew until then.
    ASSERT_TRUE(eventually([&] { return read_file("/tmp/ready.users") == text(last) + "\n"; }, 20s))
        << read_console();
    ASSERT_TRUE(as_user([&] {  // others could write it: it is made anew
      const raw_client client;
      return chmod(registry::db_file(5, "actor", last).c_str(), 0777) == 0 &&
             client.send_body(WEX_RESTART, control_client::body_of(last)) && client.acknowledged();
    })) << life;
    EXPECT_TRUE(eventually([&] { return exists(kFlags + ("db/swapped" + text(life % 3))); }, 20s)) << life;
    send_signal(last, SIGKILL);
    const pid_t next = wait_for_actor(options, last, 30s);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_EQ(text(kUser), uid_of(next));
    EXPECT_TRUE(eventually([&] { return exists(kFlags + ("swapped" + text(life % 3))); }, 20s)) << life;
    last = next;
  }
  EXPECT_EQ("root's", read_file(precious));
  EXPECT_EQ(0600U, mode_of(precious));
  EXPECT_EQ(0U, owner_of(precious));
  Process& roots = process();
  const words of_root = {"--tag=roots", "--register=RESTART", "--confirm", "--hold"};
  ASSERT_TRUE(roots.start(words_of_domain(actor_words(of_root), 0)));
  ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s)) << read_console();
  send_signal(roots.pid(), SIGKILL);
  const pid_t next = wait_for_actor(of_root, roots.pid(), 20s);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ(kRunOfDomain, directory_of(next));
  EXPECT_EQ("0", uid_of(next));
  unlink(precious.c_str());
}

namespace {

// The domain's files are on a disk of their own, which is small.
struct StrictFullDomain : StrictFlagFiles {
  void SetUp() override {
    make_dirs(kFlags);
    ASSERT_EQ(0, mount("small", kFlags, "tmpfs", 0, "nr_inodes=100,mode=1777")) << strerror(errno);
    StrictFlagFiles::SetUp();
  }
  void TearDown() override {
    StrictFlagFiles::TearDown();
    umount2(kFlags, MNT_DETACH);
  }
};

}  // namespace

// There is no flag file for its next process, by which it would leave the domain with the restart after that.
// The daemon is slow after each removal.
TEST_F(StrictFullDomain, AUserWhoTakesAllRoomMovesNoServiceOfRootsOutOfIt) {
  daemon.kill_now();
  ASSERT_TRUE(daemon.start_traced({"inject=unlink,unlinkat,rmdir:delay_exit=100000"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process& roots = process();
  const words options = {"--tag=roots", "--register=RESTART", "--confirm", "--hold"};
  ASSERT_TRUE(roots.start(words_of_domain(actor_words(options), 0)));
  ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s)) << read_console();
  ASSERT_TRUE(eventually([&] { return owner_of(flag_of(roots.pid())) == 0; }, 10s)) << read_console();
  const child user([] {
    if (!become(kUser)) {
      return false;
    }
    static std::atomic<bool> full{false};
    std::thread([] {
      for (int number = 0;; ++number) {
        if (mknod((kFlags + std::string("room") + text(number)).c_str(), S_IFREG | 0600, 0) != 0) {
          full = errno == ENOSPC;
          std::this_thread::sleep_for(1ms);
        }
      }
    }).detach();
    return eventually([] { return full.load(); });
  });
  ASSERT_TRUE(user.ready());
  pid_t last = roots.pid();
  for (int restart = 1; restart <= 2; ++restart) {
    send_signal(last, SIGKILL);
    const pid_t next = wait_for_actor(options, last, 30s);
    ASSERT_GT(next, 0) << read_console();
    EXPECT_EQ(kRunOfDomain, directory_of(next)) << "restart " << restart;
    EXPECT_TRUE(eventually([&] { return is_registered(next); }, 20s)) << read_console();
    EXPECT_NE(0U, owner_of(flag_of(next))) << "there was room";
    last = next;
  }
}

// Names that stand for the same number were taken for it, and the one that counts stayed: root's service that
// has the pid next would be started again in that domain.
TEST_F(StrictFlagFiles, OfAStoppedServiceOfRootsIsGoneWhateverNamesAUserHasPutBesideIt) {
  const auto plant = [](const std::string& name) {
    return as_user([&] { return mknod((kFlags + name).c_str(), S_IFREG | 0666, 0) == 0; });
  };
  Process& roots = process();
  const words program =
      actor_words({"--tag=roots", "--wait-for=/tmp/go", "--register=RESTART", "--confirm", "--hold"});
  ASSERT_TRUE(roots.start(words_of_domain(program, 0)));
  ASSERT_TRUE(plant("0" + text(roots.pid())));
  write_file("/tmp/go", "");
  ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s)) << read_console();
  ASSERT_TRUE(eventually([&] { return owner_of(flag_of(roots.pid())) == 0; }, 5s));
  ASSERT_TRUE(plant("00" + text(roots.pid())));
  roots.send(SIGTERM);
  roots.wait();
  EXPECT_TRUE(eventually([&] { return !is_registered(roots.pid()); }, 20s)) << read_console();
  EXPECT_FALSE(exists(flag_of(roots.pid())));
  unlink("/tmp/go");
}

// Were each of them opened, and told of, nobody else's messages and ends would be dealt with meanwhile.
TEST_F(StrictFlagFiles, NamesWithoutEndDoNotHoldTheDaemonUpWhenAServiceIsStopped) {
  constexpr int kNames = 20000;
  Process& roots = process();
  const words options = {"--tag=roots", "--register=RESTART", "--confirm", "--hold"};
  ASSERT_TRUE(roots.start(words_of_domain(actor_words(options), 0)));
  ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s)) << read_console();
  ASSERT_TRUE(as_user([&] {
    for (int number = 0; number < kNames; ++number) {
      const std::string name = std::string(kFlags) + "x" + text(number);
      if ((number % 2 == 0 ? mkdir(name.c_str(), 0700) : mknod(name.c_str(), S_IFREG | 0600, 0)) != 0) {
        return false;
      }
    }
    return true;
  }));
  const size_t before = read_console().size();
  roots.send(SIGTERM);
  roots.wait();
  EXPECT_TRUE(eventually([&] { return !is_registered(roots.pid()); }, 60s)) << read_console();
  EXPECT_LT(read_console().size() - before, 4096U) << "it tells of each of them";
  EXPECT_FALSE(exists(flag_of(roots.pid())));
}

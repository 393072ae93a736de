// Strict mode: names that root's files take from what users have put there, on kernels that cannot exchange
// two names, and when the daemon is killed in the middle of it.
#include <signal.h>
#include <sys/stat.h>

#include <thread>

#include "registry_files.h"
#include "strict_domain.h"

namespace {

using namespace strict_world;
using names = std::vector<std::string>;

const words kOptions = {"--tag=roots", "--wait-for=/tmp/go", "--register=RESTART", "--confirm", "--hold"};
const names kNoForks = {"trace=clone,fork,vfork,renameat2,unlinkat", "inject=clone,fork,vfork:error=ENOMEM"};

struct StrictNames : StrictDomain {
  void TearDown() override {
    StrictDomain::TearDown();
    unlink("/tmp/go");
  }
  void start_traced(const names& expressions) {
    ASSERT_TRUE(daemon.start_traced(expressions));
    ASSERT_TRUE(daemon.wait_ready(30s));
  }
  // A service of root's in the domain, which makes its files when it is told to.
  Process& start_waiting() {
    unlink("/tmp/go");
    Process& roots = process();
    EXPECT_TRUE(roots.start(words_of_domain(actor_words(kOptions), 0)));
    return roots;
  }
  static names files_of(pid_t pid) { return {flag_of(pid), registry::db_file(5, "actor", pid)}; }
  static bool is_roots_file(const std::string& path) {
    struct stat facts = {};
    return lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_uid == 0;
  }
  static bool was_refused() {
    return eventually([] { return Daemon::trace().find("renameat2(") != std::string::npos; });
  }
  // What has no business to be there: files begun, and what was put aside.
  static names left_in(const std::string& directory) {
    names left;
    for (const std::string& name : list_dir(directory)) {
      if (name.find("begun-") != std::string::npos || name.find("aside-") != std::string::npos) {
        left.push_back(name);
      }
    }
    return left;
  }
  // A directory with something in it, which is removed here.
  static void expect_only_aside(const std::string& directory, bool may_be_full) {
    for (const std::string& name : left_in(directory)) {
      EXPECT_EQ(0U, name.find("aside-")) << name;
      EXPECT_TRUE(may_be_full) << name;
      EXPECT_EQ(0, rmdir((directory + "/" + name + "/full").c_str()));
      EXPECT_EQ(0, rmdir((directory + "/" + name).c_str()));
    }
  }
  static void expect_nothing_left() {
    for (const std::string& directory : {std::string(kFlags), registry::db_dir(5), std::string(kRunDir)}) {
      EXPECT_EQ(names(), left_in(directory)) << directory;
      EXPECT_EQ(01777U, mode_of(directory)) << directory << " is open as it was";
    }
  }
};

// A user who makes directories of these names whenever they are free.
class maker {
 public:
  explicit maker(const names& wanted)
      : user_([wanted] {
          if (!become(kUser)) {
            return false;
          }
          std::thread([wanted] {
            for (;;) {
              for (const std::string& name : wanted) {
                mkdir(name.c_str(), 0755);
              }
              std::this_thread::sleep_for(1ms);
            }
          }).detach();
          return eventually([&] { return exists(wanted.front()) && exists(wanted.back()); });
        }) {}
  bool ready() const { return user_.ready(); }

 private:
  child user_;
};

}  // namespace

// ENOSYS before Linux 3.15, EINVAL on some file systems since.
TEST_F(StrictNames, AreTakenFromAUsersDirectoriesWhereTwoCannotBeExchanged) {
  for (const char* const refusal : {"ENOSYS", "EINVAL"}) {
    SCOPED_TRACE(refusal);
    start_traced({"trace=renameat2", std::string("inject=renameat2:error=") + refusal});
    Process& roots = start_waiting();
    ASSERT_TRUE(as_user([&] {
      const names wanted = files_of(roots.pid());
      return mkdir(wanted[0].c_str(), 0755) == 0 && mkdir(wanted[1].c_str(), 0755) == 0;
    }));
    write_file("/tmp/go", "");
    ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s)) << read_console();
    for (const std::string& name : files_of(roots.pid())) {
      EXPECT_TRUE(eventually([&] { return is_roots_file(name); }, 5s)) << name << read_console();
    }
    EXPECT_TRUE(was_refused());
    expect_nothing_left();
    daemon.kill_now();
  }
}

TEST_F(StrictNames, OfFailedForksIsTakenFromAUsersDirectoryWhereTwoCannotBeExchanged) {
  for (const char* const refusal : {"ENOSYS", "EINVAL"}) {
    SCOPED_TRACE(refusal);
    names expressions = kNoForks;
    expressions.push_back(std::string("inject=renameat2:error=") + refusal);
    start_traced(expressions);
    Process& roots = process();
    ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
    ASSERT_TRUE(as_user([] { return mkdir(kForkFile, 0755) == 0; }));
    send_signal(roots.pid(), SIGKILL);
    EXPECT_TRUE(eventually([] { return is_roots_file(kForkFile) && read_file(kForkFile) == "a"; }, 20s))
        << read_console();
    EXPECT_TRUE(was_refused());
    expect_nothing_left();
    daemon.kill_now();
    unlink(kForkFile);
    unlink(registry::db_file(0, "actor", roots.pid()).c_str());
  }
}

// The daemon is slow after each removal, so that he is the first whenever a name is free.
TEST_F(StrictNames, AreNotKeptByAUserWhoIsAlwaysFirstWhereTwoCannotBeExchanged) {
  start_traced({"trace=renameat2,unlink,unlinkat,rmdir", "inject=renameat2:error=ENOSYS",
                "inject=unlink,unlinkat,rmdir:delay_exit=100000"});
  Process& roots = start_waiting();
  const maker user(files_of(roots.pid()));
  ASSERT_TRUE(user.ready());
  write_file("/tmp/go", "");
  ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s)) << read_console();
  for (const std::string& name : files_of(roots.pid())) {
    EXPECT_TRUE(eventually([&] { return is_roots_file(name); }, 10s)) << name;
  }
  EXPECT_TRUE(was_refused());
  expect_nothing_left();
}

TEST_F(StrictNames, OfFailedForksIsNotKeptByAUserWhoIsAlwaysFirstWhereTwoCannotBeExchanged) {
  names expressions = kNoForks;
  expressions.insert(expressions.end(),
                     {"inject=renameat2:error=ENOSYS", "inject=unlinkat:delay_exit=100000"});
  start_traced(expressions);
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  const maker user({kForkFile});
  ASSERT_TRUE(user.ready());
  send_signal(roots.pid(), SIGKILL);
  ASSERT_TRUE(console_says("fork fail, err: ", 20s)) << read_console();
  EXPECT_TRUE(is_roots_file(kForkFile));
  EXPECT_EQ("a", read_file(kForkFile));
  expect_nothing_left();
}

// A directory stays closed when the daemon is killed in that moment.
TEST_F(StrictNames, WhoseDirectoryADaemonHasClosedAreFreeAgainAfterTheNextStart) {
  start_traced({"trace=renameat2,unlink,unlinkat,rmdir,fchmod", "inject=renameat2:error=ENOSYS",
                "inject=unlink,unlinkat,rmdir:delay_exit=100000", "inject=fchmod:signal=KILL:when=2",
                "/tmp/vsd/5/wex"});
  Process& roots = start_waiting();
  const maker user({flag_of(roots.pid())});
  ASSERT_TRUE(user.ready());
  write_file("/tmp/go", "");
  EXPECT_TRUE(ended_by(daemon.wait(20s), SIGKILL)) << read_console();
  EXPECT_EQ(03755U, mode_of(kFlags));
  start();
  EXPECT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s));
  EXPECT_TRUE(eventually([&] { return is_roots_file(flag_of(roots.pid())); }, 10s));
  expect_nothing_left();
}

// Killed before the two names are exchanged it leaves the file, and behind that the user's directory.
TEST_F(StrictNames, ThatAKilledDaemonHasBegunToTakeAreFreeAfterTheNextStart) {
  for (const char* const call : {"renameat2", "unlinkat"}) {
    for (const bool is_flag : {true, false}) {
      for (const bool is_full : {false, true}) {
        SCOPED_TRACE(std::string(call) + (is_flag ? ", flag file" : ", database file") +
                     (is_full ? ", full" : ""));
        const std::string directory = is_flag ? "/tmp/vsd/5/wex" : registry::db_dir(5);
        start_traced({std::string("inject=") + call + ":signal=KILL", directory});
        Process& roots = start_waiting();
        const names files = files_of(roots.pid());
        const std::string& wanted = files[is_flag ? 0 : 1];
        ASSERT_TRUE(as_user([&] {
          return mkdir(wanted.c_str(), 0755) == 0 &&
                 (!is_full || mkdir((wanted + "/full").c_str(), 0755) == 0);
        }));
        write_file("/tmp/go", "");
        EXPECT_TRUE(ended_by(daemon.wait(20s), SIGKILL)) << read_console();
        const names left = left_in(directory);
        ASSERT_EQ(1U, left.size());
        struct stat facts = {};
        EXPECT_EQ(0, lstat((directory + "/" + left[0]).c_str(), &facts));
        EXPECT_EQ(is_roots_file(wanted), S_ISDIR(facts.st_mode)) << "they have been exchanged";
        start();
        EXPECT_TRUE(!is_flag || is_roots_file(wanted)) << read_console();
        expect_only_aside(directory, is_full);
        daemon.kill_now();
        roots.kill_now();
        for (const std::string& name : files) {
          rmdir((name + "/full").c_str());
          remove(name.c_str());
        }
      }
    }
  }
}

TEST_F(StrictNames, OfFailedForksThatAKilledDaemonHasBegunToTakeIsFreeAfterTheNextStart) {
  names expressions = kNoForks;
  expressions.push_back("inject=renameat2:signal=KILL");
  start_traced(expressions);
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  ASSERT_TRUE(as_user([] { return mkdir(kForkFile, 0755) == 0; }));
  send_signal(roots.pid(), SIGKILL);
  EXPECT_TRUE(ended_by(daemon.wait(20s), SIGKILL)) << read_console();
  EXPECT_EQ(1U, left_in(kRunDir).size());
  start();
  expect_nothing_left();
}

// Only those of the form that the daemon gives them are its own to judge, and no link is followed.
TEST_F(StrictNames, ThatOnlyLookLikeThoseOfAKilledDaemonStayAndLinksAreNotFollowed) {
  const std::string flags = kFlags;
  write_file("/tmp/precious", "root's");
  const names kept = {".begun-", ".begun-0123456789abcde", ".begun-0123456789abcdef0",
                      ".begun-0123456789ABCDEF", "begun-0123456789abcdef"};
  for (const std::string& name : kept) {
    write_file(flags + name, "");
  }
  ASSERT_EQ(0, symlink("/tmp/precious", (flags + ".begun-0123456789abcdef").c_str()));
  ASSERT_TRUE(as_user([&] { return mkdir((flags + ".begun-fedcba9876543210").c_str(), 0700) == 0; }));
  start();
  for (const std::string& name : kept) {
    EXPECT_TRUE(exists(flags + name)) << name;
    EXPECT_EQ(0, unlink((flags + name).c_str()));
  }
  struct stat facts = {};
  EXPECT_NE(0, lstat((flags + ".begun-0123456789abcdef").c_str(), &facts));
  EXPECT_FALSE(exists(flags + ".begun-fedcba9876543210"))
      << "a user's directory that root's file has replaced";
  EXPECT_EQ("root's", read_file("/tmp/precious"));
}

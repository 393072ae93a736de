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

// Strict mode: database files that are made anew, with and without room for them.
#include "wex_chain_user.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdarg>
#include <functional>
#include <string>
#include <utility>

#include "file_lock.h"
#include "registry_files.h"
#include "unique_fd.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_strict.h"

namespace {

using namespace registry;

constexpr uid_t kUser = 1234;
constexpr uid_t kOther = 1236;
constexpr char kCommand[] = "/bin/owned -d";

// What is done around the next opening of a file of this name.
struct around_opening {
  std::string name;
  std::function<void()> before;
  std::function<void()> after;
};
around_opening g_around;

// No file can grow meanwhile, as on a full disk.
class no_room {
 public:
  no_room() {
    EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &before_));
    const rlimit none = {0, before_.rlim_max};
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &none));
    signal(SIGXFSZ, SIG_IGN);
  }
  ~no_room() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, SIG_DFL);
  }
  no_room(const no_room&) = delete;
  no_room& operator=(const no_room&) = delete;

 private:
  rlimit before_ = {};
};

struct OwnedFile : RegistryWorld {
  void SetUp() override {
    RegistryWorld::SetUp();
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
  }
  void TearDown() override {
    wex_set_strict({});
    RegistryWorld::TearDown();
  }
  // The registration of a program of this user's.
  static wex_pid record_of(uid_t user, pid_t pid) {
    wex_pid rec = {};
    rec.pid = pid;
    rec.action = RESPAWN;
    strcpy(rec.process, kCommand);
    const service program(
        [user] { return setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0; });
    wex_pid other = {};
    other.pid = program.pid();
    EXPECT_TRUE(program.ready());
    wex_find_user(&other);
    rec.user = other.user;
    return rec;
  }
  static std::string leave(const wex_pid& rec, uid_t owner, mode_t mode) {
    const std::string path = db_file(0, "owned", rec.pid);
    write_file(path, text_of(rec));
    EXPECT_EQ(0, chown(path.c_str(), owner, owner));
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }
  static std::string text_of(const wex_pid& rec) {
    return std::to_string(rec.pid) + "\n" + std::to_string(RESPAWN) + "\n" + kCommand;
  }
  static struct stat facts_of(const std::string& path) {
    struct stat facts = {};
    EXPECT_EQ(0, lstat(path.c_str(), &facts)) << path;
    return facts;
  }
};

}  // namespace

extern "C" {

int __real_openat64(int at, const char* path, int flags, ...);

int __wrap_openat64(int at, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  around_opening now;
  if (g_around.name == path) {
    now = std::move(g_around);
    g_around = {};
    now.before();
  }
  const int file = __real_openat64(at, path, flags, mode);
  if (now.after) {
    now.after();
  }
  return file;
}

}  // extern "C"

TEST_F(OwnedFile, OneThatOthersCouldWriteIsAnotherOneAfterwards) {
  for (const uid_t user : {uid_t{0}, kUser}) {
    for (const mode_t mode : {0700U, 0755U, 0720U, 0702U, 0777U}) {
      SCOPED_TRACE(testing::Message() << user << " " << std::oct << mode);
      const bool loose = (mode & 022) != 0;
      const wex_pid rec = record_of(user, dead_pid());
      const std::string path = leave(rec, user, mode);
      const unique_fd before(open(path.c_str(), O_RDONLY | O_CLOEXEC));  // keeps its inode
      const struct stat old = facts_of(path);
      wex_own_database_file(&rec);
      const struct stat now = facts_of(path);
      EXPECT_EQ(loose, now.st_ino != old.st_ino);
      EXPECT_EQ(0700U, now.st_mode & 07777);
      EXPECT_EQ(user, now.st_uid);
      EXPECT_EQ(text_of(rec), read_file(path));
      unlink(path.c_str());
    }
  }
}

TEST_F(OwnedFile, WithoutRoomForAnotherOneItKeepsItsNameUntilThereIs) {
  for (const uid_t user : {uid_t{0}, kUser}) {
    const wex_pid rec = record_of(user, dead_pid());
    const std::string path = leave(rec, user, 0777);
    const ino_t old = facts_of(path).st_ino;
    {
      const no_room full;
      wex_own_database_file(&rec);
    }
    EXPECT_EQ(old, facts_of(path).st_ino);
    EXPECT_EQ(text_of(rec), read_file(path));
    EXPECT_EQ(1U, wex_test::list_dir(kMainDbDir).size()) << "what was begun is gone";
    wex_own_database_file(&rec);
    EXPECT_EQ(0700U, facts_of(path).st_mode & 07777);
    EXPECT_EQ(text_of(rec), read_file(path));
    unlink(path.c_str());
  }
}

TEST_F(OwnedFile, WithoutRoomForOneOfAnotherNumberItIsAsBefore) {
  const wex_pid rec = record_of(0, dead_pid());
  const std::string path = leave(rec, 0, 0700);
  {
    const no_room full;
    EXPECT_FALSE(wex_renumber_pidfile(&rec, -2, false));
  }
  EXPECT_EQ(text_of(rec), read_file(path));
  EXPECT_EQ(1U, wex_test::list_dir(kMainDbDir).size());
  EXPECT_TRUE(wex_renumber_pidfile(&rec, -2, false));
  EXPECT_FALSE(exists(path));
  wex_pid numbered = rec;
  numbered.pid = -2;
  EXPECT_EQ(text_of(numbered), read_file(db_file(0, "owned", -2)));
  unlink(db_file(0, "owned", -2).c_str());
}

// It does not count, and its room may be what is missing.
TEST_F(OwnedFile, WhatAnotherUserHasPutThereGoesAlsoWithoutRoom) {
  const wex_pid rec = record_of(kUser, dead_pid());
  const std::string path = leave(rec, kOther, 0700);
  {
    const no_room full;
    wex_own_database_file(&rec);
  }
  EXPECT_FALSE(exists(path));
  EXPECT_TRUE(wex_test::list_dir(kMainDbDir).empty());
}

// The daemon's lock was on the file that has lost its name.
TEST_F(OwnedFile, OneThatIsKeptLockedIsLetGoWhenAnotherHasItsName) {
  const wex_pid rec = record_of(0, dead_pid());
  const std::string path = leave(rec, 0, 0777);
  unique_fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(wex_lock_file(file.get()));
  keep_locked_file(path.c_str(), std::move(file));
  wex_own_database_file(&rec);
  EXPECT_EQ(-1, kept_file(path.c_str()));
  EXPECT_EQ(text_of(rec), read_file(path));
  EXPECT_EQ(before_, count_descriptors());
  unlink(path.c_str());
}

TEST_F(OwnedFile, ALinkThatHeHasPutThereIsReplacedAndNotFollowed) {
  const wex_pid rec = record_of(kUser, dead_pid());
  const std::string path = db_file(0, "owned", rec.pid);
  write_file("/tmp/target", "precious", 0600);
  ASSERT_EQ(0, symlink("/tmp/target", path.c_str()));
  ASSERT_EQ(0, lchown(path.c_str(), kUser, kUser));
  wex_own_database_file(&rec);
  EXPECT_TRUE(S_ISREG(facts_of(path).st_mode));
  EXPECT_EQ(kUser, facts_of(path).st_uid);
  EXPECT_EQ("precious", read_file("/tmp/target"));
  EXPECT_EQ(0U, facts_of("/tmp/target").st_uid);
  unlink(path.c_str());
  unlink("/tmp/target");
}

// An empty one and a full one. The registration would be lost with the daemon.
TEST_F(OwnedFile, ADirectoryThatAUserHasMadeThereMakesRoom) {
  for (const bool full : {false, true}) {
    const wex_pid rec = record_of(0, dead_pid());
    const std::string path = db_file(0, "owned", rec.pid);
    ASSERT_EQ(0, mkdir(path.c_str(), 0755));
    if (full) {
      write_file(path + "/full", "");
    }
    ASSERT_EQ(0, chown(path.c_str(), kOther, kOther));
    wex_own_database_file(&rec);
    EXPECT_TRUE(S_ISREG(facts_of(path).st_mode)) << full;
    EXPECT_EQ(text_of(rec), read_file(path));
    unlink(path.c_str());
    const std::vector<std::string> left = wex_test::list_dir(kMainDbDir);
    EXPECT_EQ(full ? 1U : 0U, left.size());
    for (const std::string& name : left) {
      EXPECT_EQ(0, unlink((std::string(kMainDbDir) + "/" + name + "/full").c_str()));
      EXPECT_EQ(0, rmdir((std::string(kMainDbDir) + "/" + name).c_str()));
    }
  }
}

// A user moves files of root's there, out of a directory of his own: the one that is looked at is not the one
// that is read.
TEST_F(OwnedFile, AFileOfRootsIsNotGivenAwayForWhatAnotherOneSays) {
  const wex_pid rec = record_of(kUser, dead_pid());
  const std::string path = leave(rec, 0, 0700);
  const std::string good = "/tmp/good";
  const std::string roots = "/tmp/roots";
  ASSERT_EQ(0, rename(path.c_str(), good.c_str()));
  write_file(path, "what is root's", 0700);
  const unique_fd precious(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  bool switched = false;
  g_around = {
      path.substr(path.rfind('/') + 1),
      [&] { switched = rename(path.c_str(), roots.c_str()) == 0 && rename(good.c_str(), path.c_str()) == 0; },
      [&] {
        switched =
            switched && rename(path.c_str(), good.c_str()) == 0 && rename(roots.c_str(), path.c_str()) == 0;
      }};
  wex_own_database_file(&rec);
  EXPECT_TRUE(switched);
  struct stat facts = {};
  ASSERT_EQ(0, fstat(precious.get(), &facts));
  EXPECT_EQ(0U, facts.st_uid) << "a file of root's is the user's";
  EXPECT_EQ(kUser, facts_of(path).st_uid);
  EXPECT_EQ(text_of(rec), read_file(path));
  unlink(path.c_str());
  unlink(good.c_str());
}

// A user has moved a program of root's there since it was read, out of a directory of his own.
TEST_F(OwnedFile, ARegistrationThatIsJudgedAgainIsNotThatOfAnotherFileOfItsName) {
  wex_pid rec = record_of(kUser, dead_pid());
  const std::string path = db_file(0, "owned", rec.pid);
  write_file(path, "#!/bin/sh");
  ASSERT_EQ(0, chmod(path.c_str(), 0755));
  EXPECT_FALSE(wex_judge_ended(&rec));
  EXPECT_EQ(kUnknownUser, rec.user);
  leave(rec, 0, 0700);
  EXPECT_TRUE(wex_judge_ended(&rec)) << "root's own";
  unlink(path.c_str());
}

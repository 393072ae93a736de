// guarded_file: names that root's files take from a user who makes directories of them, on kernels that
// cannot exchange two names.
#include "guarded_file.h"

#include <cstdarg>

#include "forked.h"
#include "unique_fd.h"
#include "unit_support.h"
#include "wex_limits.h"
#include "wex_strict.h"

using namespace unit;

namespace {

constexpr char kDir[] = "/tmp/d";
constexpr char kFrom[] = "begun";
constexpr char kName[] = "wanted";
constexpr char kWanted[] = "/tmp/d/wanted";

bool user_is_first = false;  // he makes the directory anew as soon as it is removed

void as_user(const std::function<bool()>& work) {
  in_child([&] {
    umask(0);
    EXPECT_EQ(0, setresgid(kOtherUser, kOtherUser, kOtherUser));
    EXPECT_EQ(0, setresuid(kOtherUser, kOtherUser, kOtherUser));
    EXPECT_TRUE(work());
  });
}

bool make_full(const std::string& path) {
  return mkdir(path.c_str(), 0755) == 0 && mkdir((path + "/full").c_str(), 0755) == 0;
}

struct GuardedFile : Sandboxed {
  void SetUp() override {
    Sandboxed::SetUp();
    ASSERT_EQ(0, mkdir(kDir, 0777));
    ASSERT_EQ(0, chmod(kDir, kClientDirMode));
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
  }
  void TearDown() override {
    user_is_first = false;
    wex_set_strict({});
    Sandboxed::TearDown();
  }
  static bool take() {
    write_file(std::string(kDir) + "/" + kFrom, "root's");
    const unique_fd directory(open(kDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return wex_take_name(directory.get(), kFrom, kName);
  }
};

}  // namespace

extern "C" {

int __real_unlinkat(int at, const char* path, int flags);
long __real_syscall(long number, ...);

int __wrap_unlinkat(int at, const char* path, int flags) {
  const int result = __real_unlinkat(at, path, flags);
  if (user_is_first && result == 0 && strcmp(path, kName) == 0) {
    forked::in_child([] {
      return setresuid(kOtherUser, kOtherUser, kOtherUser) == 0 && mkdir(kWanted, 0755) == 0 ? 0 : 1;
    });
  }
  return result;
}

// As the C library's, it takes six words whatever it was given.
__attribute__((no_sanitize("address"))) long __wrap_syscall(long number, ...) {
  long words[6];
  va_list arguments;
  va_start(arguments, number);
  for (long& word : words) {
    word = va_arg(arguments, long);
  }
  va_end(arguments);
  if (number == SYS_renameat2) {
    errno = ENOSYS;
    return -1;
  }
  return __real_syscall(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

}  // extern "C"

// An operator may have made it before the first start, with whatever bits.
TEST_F(GuardedFile, ADirectoryThatWasThereLetsNobodyDoMore) {
  const struct {
    mode_t before;
    mode_t for_clients;
    mode_t own;
  } rows[] = {{03777, 01777, 01755}, {03773, 01773, 01751}, {07755, 01755, 01755},
              {02777, 01777, 02755}, {03755, 01777, 01755}, {0700, 01700, 0700}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << std::oct << row.before);
    ASSERT_EQ(0, chmod(kDir, row.before));
    wex_set_dir_mode(kDir, kClientDirMode);
    EXPECT_EQ(row.for_clients, mode_of(kDir));
    ASSERT_EQ(0, chmod(kDir, row.before));
    wex_make_dir(kDir, kOwnDirMode);
    EXPECT_EQ(row.own, mode_of(kDir));
  }
}

TEST_F(GuardedFile, ADirectoryThatWasAUsersLosesItsSetIdBits) {
  ASSERT_EQ(0, chmod(kDir, 02755));
  wex_make_dir(kDir, kOwnDirMode);
  EXPECT_EQ(02755U, mode_of(kDir)) << "an operator's choice";
  ASSERT_EQ(0, chown(kDir, kOtherUser, 0));
  ASSERT_EQ(0, chmod(kDir, 02755));
  wex_make_dir(kDir, kOwnDirMode);
  EXPECT_EQ(0755U, mode_of(kDir));
}

TEST_F(GuardedFile, AUserWhoIsAlwaysFirstKeepsNoNameWhateverTheModeOfTheDirectory) {
  for (const mode_t mode : {01777U, 01773U, 03777U, 03773U, 0777U}) {
    SCOPED_TRACE(testing::Message() << std::oct << mode);
    ASSERT_EQ(0, chmod(kDir, mode));
    as_user([] { return mkdir(kWanted, 0755) == 0; });
    user_is_first = true;
    EXPECT_TRUE(take());
    user_is_first = false;
    EXPECT_EQ("root's", read_file(kWanted));
    EXPECT_EQ(mode, mode_of(kDir)) << "open as it was";
    remove_tree(kWanted);
    unlink("/tmp/d/begun");
  }
}

// He knows what the daemon begins by its name, which he sees.
TEST_F(GuardedFile, AUserKeepsNoNameByThoseThatMakeRoom) {
  as_user([] {
    bool made = make_full(kWanted);
    for (int number = 0; number < 10; ++number) {
      made = made && make_full(std::string(kDir) + "/aside-" + std::to_string(number) + "-" + kFrom);
    }
    return made;
  });
  EXPECT_TRUE(take());
  EXPECT_EQ("root's", read_file(kWanted));
  size_t aside = 0;
  for (const std::string& name : list_dir(kDir)) {
    aside += name.rfind("aside-", 0) == 0 && exists(std::string(kDir) + "/" + name + "/full") ? 1 : 0;
  }
  EXPECT_EQ(11U, aside) << "nothing of his is lost";
}

TEST_F(GuardedFile, AFileOfTheDaemonsIsWrittenByNobodyElseWhateverTheUmask) {
  const mode_t before = umask(0);
  EXPECT_TRUE(wex_open_own_file(kWanted, O_WRONLY | O_APPEND, 0666).valid());
  EXPECT_EQ(0644U, mode_of(kWanted));
  wex_set_strict({});
  EXPECT_TRUE(wex_open_own_file("/tmp/d/other", O_WRONLY | O_APPEND, 0666).valid());
  EXPECT_EQ(0666U, mode_of("/tmp/d/other")) << "without the mode";
  umask(before);
}

// What a user has open for writing stays his.
TEST_F(GuardedFile, AFileOfTheDaemonsThatOthersMayWriteGetsAsideForANewOne) {
  constexpr struct {
    uid_t owner;
    mode_t mode;
    bool stays;
  } kRows[] = {
      {0, 0644, true}, {0, 0600, true}, {0, 0666, false}, {0, 0660, false}, {kOtherUser, 0600, false}};
  for (const auto& row : kRows) {
    for (const bool emptied : {false, true}) {
      SCOPED_TRACE(testing::Message()
                   << row.owner << std::oct << " 0" << row.mode << (emptied ? " emptied" : ""));
      write_file(kWanted, "old");
      ASSERT_EQ(0, chown(kWanted, row.owner, 0));
      ASSERT_EQ(0, chmod(kWanted, row.mode));
      const unique_fd old(open(kWanted, O_RDONLY | O_CLOEXEC));
      const unique_fd file = wex_open_own_file(kWanted, O_WRONLY | (emptied ? O_TRUNC : O_APPEND), 0666);
      ASSERT_TRUE(file.valid()) << strerror(errno);
      ASSERT_EQ(3, write(file.get(), "new", 3));
      struct stat one = {};
      struct stat other = {};
      ASSERT_EQ(0, fstat(old.get(), &one));
      ASSERT_EQ(0, stat(kWanted, &other));
      EXPECT_EQ(row.stays, one.st_ino == other.st_ino);
      EXPECT_EQ(row.stays && !emptied ? "oldnew" : "new", read_file(kWanted));
      EXPECT_EQ(row.stays ? row.mode : 0644U, mode_of(kWanted));
      EXPECT_EQ(row.stays || emptied ? 1U : 2U, list_dir(kDir).size()) << "what was recorded is kept";
      remove_tree(kDir);
      ASSERT_EQ(0, mkdir(kDir, 0755));
    }
  }
}

// Of what is no file a user's makes room, and root's stays.
TEST_F(GuardedFile, WhatIsNoFileAndAUsersGetsAsideForAFileOfTheDaemons) {
  const std::function<int()> kinds[] = {[] { return mkfifo(kWanted, 0666); },
                                        [] { return mkdir(kWanted, 0755); },
                                        [] { return symlink("/tmp/victim", kWanted); }};
  for (const auto& make : kinds) {
    for (const int flags : {O_WRONLY | O_APPEND, O_WRONLY | O_TRUNC, O_RDWR}) {
      ASSERT_EQ(0, make());
      ASSERT_EQ(0, lchown(kWanted, kOtherUser, 0));
      EXPECT_TRUE(wex_open_own_file(kWanted, flags, 0666).valid()) << strerror(errno);
      struct stat facts = {};
      ASSERT_EQ(0, lstat(kWanted, &facts));
      EXPECT_TRUE(S_ISREG(facts.st_mode) && facts.st_uid == 0);
      EXPECT_FALSE(exists("/tmp/victim"));
      ASSERT_EQ(0, unlink(kWanted));
    }
  }
  ASSERT_EQ(0, mkfifo(kWanted, 0600));
  EXPECT_FALSE(wex_open_own_file(kWanted, O_WRONLY, 0666).valid());
  struct stat facts = {};
  EXPECT_TRUE(lstat(kWanted, &facts) == 0 && S_ISFIFO(facts.st_mode));
}

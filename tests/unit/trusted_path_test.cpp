// trusted_path, and what wex_utils opens and makes by it: links, second names and FIFOs that others may have
// planted.
#include "trusted_path.h"

#include <stdarg.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>

#include "file_lock.h"
#include "guarded_file.h"
#include "unique_fd.h"
#include "unit_support.h"
#include "wex_limits.h"

using namespace unit;

namespace {

// What a kernel makes of descriptors that only name a file.
enum class era {
  today,
  without_fstat,       // 2.6.39 to 3.5: fstat() refuses them
  without_empty_path,  // no such kernel, but a filter of calls may refuse the other way, too
  without_o_path,      // before 2.6.39: the flag is ignored
};
era kernel = era::today;
time_t clock_error = 0;                // what time() tells too much
unsigned slept = 0;                    // seconds, not really waited
std::function<void()> before_opening;  // called once, before the product opens a last component

struct kernel_of {
  explicit kernel_of(era past, time_t error = 0) {
    kernel = past;
    clock_error = error;
    slept = 0;
  }
  ~kernel_of() {
    kernel = era::today;
    clock_error = 0;
  }
};

bool only_names(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && (flags & O_PATH) != 0;
}

class OpenRule : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    umask(0022);
    mkdir("/tmp/r", 0777);
  }
  static void link_of(uid_t owner, const char* target, const char* path) {
    ASSERT_EQ(0, symlink(target, path));
    ASSERT_EQ(0, lchown(path, owner, owner));
  }
};

}  // namespace

// The C library's names of the calls depend on the width of its times.
#if defined(__USE_TIME64_REDIRECTS) || (defined(__USE_TIME_BITS64) && __SIZEOF_LONG__ == 4)
#define WRAPPED(call) __wrap___##call##64_time64
#define REAL(call) __real___##call##64_time64
#define WRAPPED_TIME __wrap___time64
#define REAL_TIME __real___time64
#else
#define WRAPPED(call) __wrap_##call##64
#define REAL(call) __real_##call##64
#define WRAPPED_TIME __wrap_time
#define REAL_TIME __real_time
#endif

extern "C" {

int __real_openat64(int at, const char* path, int flags, ...);
int REAL(fstat)(int fd, struct stat* facts);
int REAL(fstatat)(int at, const char* path, struct stat* facts, int flags);
time_t REAL_TIME(time_t* now);

int __wrap_openat64(int at, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if ((flags & O_PATH) == 0 && before_opening) {
    const std::function<void()> once = std::move(before_opening);
    before_opening = nullptr;
    once();
  }
  return __real_openat64(at, path, kernel == era::without_o_path ? flags & ~O_PATH : flags, mode);
}

int WRAPPED(fstat)(int fd, struct stat* facts) {
  if (kernel != era::today && only_names(fd)) {
    errno = EBADF;
    return -1;
  }
  return REAL(fstat)(fd, facts);
}

int WRAPPED(fstatat)(int at, const char* path, struct stat* facts, int flags) {
  const bool refused = kernel == era::without_empty_path || kernel == era::without_o_path;
  if (refused && (flags & AT_EMPTY_PATH) != 0) {
    errno = EINVAL;
    return -1;
  }
  return REAL(fstatat)(at, path, facts, flags);
}

time_t WRAPPED_TIME(time_t* now) {
  return REAL_TIME(now) + clock_error;
}

void __wrap_safe_sleep(unsigned seconds) {
  slept += seconds;
}

}  // extern "C"

TEST_F(OpenRule, AnHonestFileOpensBlockingAndCloseOnExec) {
  const unique_fd file = wex_open_file("/tmp/r/new", O_RDWR | O_CREAT | O_APPEND, 0777);
  ASSERT_TRUE(file.valid());
  EXPECT_EQ(0755u, mode_of("/tmp/r/new")) << "narrowed by the umask";
  EXPECT_NE(0, fcntl(file.get(), F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(0, fcntl(file.get(), F_GETFL) & O_NONBLOCK);
  EXPECT_NE(0, fcntl(file.get(), F_GETFL) & O_APPEND);
}

TEST_F(OpenRule, TruncationIsDoneForAnHonestFile) {
  write_file("/tmp/r/f", "old");
  EXPECT_TRUE(wex_open_file("/tmp/r/f", O_WRONLY | O_TRUNC).valid());
  EXPECT_EQ("", read_file("/tmp/r/f"));
}

TEST_F(OpenRule, SomebodyElsesLinkIsRefusedAndItsTargetKept) {
  write_file("/tmp/victim", "precious");
  link_of(kOtherUser, "/tmp/victim", "/tmp/r/link");
  EXPECT_FALSE(wex_open_file("/tmp/r/link", O_WRONLY | O_CREAT | O_TRUNC, 0666).valid());
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ("precious", read_file("/tmp/victim"));
  link_of(kOtherUser, "/tmp/fresh", "/tmp/r/dangling");
  EXPECT_FALSE(wex_open_file("/tmp/r/dangling", O_WRONLY | O_CREAT, 0666).valid());
  EXPECT_FALSE(exists("/tmp/fresh"));
}

TEST_F(OpenRule, RootsLinkIsFollowedAlsoRelativeAndDangling) {
  write_file("/tmp/r/target", "text");
  link_of(0, "target", "/tmp/r/relative");
  link_of(0, "/tmp/r/relative", "/tmp/r/twice");
  char text[8];
  EXPECT_EQ(4, wex_read_guarded("/tmp/r/twice", text, sizeof(text)));
  EXPECT_STREQ("text", text);
  link_of(0, "/tmp/r/made", "/tmp/r/dangling");
  EXPECT_TRUE(wex_open_file("/tmp/r/dangling", O_WRONLY | O_CREAT, 0600).valid());
  EXPECT_TRUE(exists("/tmp/r/made"));
}

TEST_F(OpenRule, RootsLinkToSomebodyElsesLinkIsRefused) {
  write_file("/tmp/victim", "precious");
  link_of(kOtherUser, "/tmp/victim", "/tmp/r/theirs");
  link_of(0, "/tmp/r/theirs", "/tmp/r/ours");
  EXPECT_FALSE(wex_open_file("/tmp/r/ours", O_WRONLY | O_TRUNC).valid());
  EXPECT_EQ("precious", read_file("/tmp/victim"));
}

TEST_F(OpenRule, LinksOnTheWayAreJudgedLikeThoseAtItsEnd) {
  ASSERT_EQ(0, mkdir("/tmp/private", 0700));
  write_file("/tmp/private/f", "precious");
  link_of(kOtherUser, "/tmp/private", "/tmp/r/way");
  link_of(0, "/tmp/r/way/f", "/tmp/r/ours");
  for (const char* const path : {"/tmp/r/way/f", "/tmp/r/way/new", "/tmp/r/ours", "/tmp/r/./way/../way/f"}) {
    EXPECT_FALSE(wex_open_file(path, O_WRONLY | O_CREAT | O_TRUNC, 0666).valid()) << path;
    EXPECT_EQ(ELOOP, errno) << path;
  }
  wex_make_dir("/tmp/r/way/d", 0777);
  EXPECT_FALSE(exists("/tmp/private/d"));
  EXPECT_FALSE(exists("/tmp/private/new"));
  EXPECT_EQ("precious", read_file("/tmp/private/f"));
}

TEST_F(OpenRule, RootsLinksOnTheWayAreFollowed) {
  ASSERT_EQ(0, mkdir("/tmp/disk", 0777));
  link_of(0, "../disk", "/tmp/r/relative");
  link_of(0, "/tmp/r/relative/", "/tmp/r/absolute");
  wex_make_dir("/tmp/r/absolute/d/", 0750);
  EXPECT_EQ(0750u, mode_of("/tmp/disk/d"));
  EXPECT_TRUE(wex_open_file("/tmp/r//absolute/./d/f", O_WRONLY | O_CREAT, 0600).valid());
  EXPECT_TRUE(exists("/tmp/disk/d/f"));
  EXPECT_FALSE(wex_open_file("/tmp/disk/d/f/g", O_RDONLY).valid());
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_FALSE(wex_open_file("", O_RDONLY).valid());
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(OpenRule, AWayTooLongForTheWalkIsRefused) {
  std::string path = "/tmp/r";
  for (int turn = 0; turn < 700; ++turn) {
    path += "/.";
  }
  EXPECT_FALSE(wex_open_file(path.c_str(), O_RDONLY).valid());
  EXPECT_EQ(ENAMETOOLONG, errno);
  link_of(0, std::string(600, 'x').c_str(), "/tmp/r/long");
  EXPECT_FALSE(wex_open_file("/tmp/r/long", O_RDONLY).valid());
  EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST_F(OpenRule, AUsersOwnLinksAreFollowedForThatUserOnly) {
  write_file("/tmp/r/f", "text");
  link_of(kOtherUser, "f", "/tmp/r/own");
  link_of(kOtherUser + 1, "f", "/tmp/r/theirs");
  in_child([] {
    ASSERT_EQ(0, setuid(kOtherUser));
    EXPECT_TRUE(wex_open_file("/tmp/r/own", O_RDONLY).valid());
    EXPECT_FALSE(wex_open_file("/tmp/r/theirs", O_RDONLY).valid());
  });
  EXPECT_FALSE(wex_open_file("/tmp/r/own", O_RDONLY).valid());
}

TEST_F(OpenRule, AFileWithASecondNameIsNeverTruncatedOrAppendedToButParted) {
  write_file("/tmp/victim", "precious");
  ASSERT_EQ(0, link("/tmp/victim", "/tmp/r/log"));
  for (const int flags : {O_WRONLY | O_TRUNC, O_WRONLY | O_APPEND}) {
    EXPECT_FALSE(wex_open_file("/tmp/r/log", flags).valid());
    EXPECT_EQ(EMLINK, errno);
  }
  EXPECT_TRUE(wex_open_file("/tmp/r/log", O_RDONLY).valid());
  EXPECT_TRUE(wex_open_file("/tmp/r/log", O_RDWR).valid()) << "its lock may be tried";
  const unique_fd log = wex_open_file("/tmp/r/log", O_WRONLY | O_CREAT | O_APPEND, 0666);
  ASSERT_EQ(1, write(log.get(), "+", 1));
  EXPECT_EQ("+", read_file("/tmp/r/log")) << "a file of its own, begun anew";
  EXPECT_TRUE(wex_open_file("/tmp/r/log", O_WRONLY | O_CREAT | O_TRUNC, 0666).valid());
  EXPECT_EQ("precious", read_file("/tmp/victim"));
}

TEST_F(OpenRule, AFileThatIsThereOpensAlsoWhereTheKernelRefusesToCreateIt) {
  write_file("/tmp/r/f", "old");
  in_child([] {
    refuse_creation();
    EXPECT_TRUE(wex_open_file("/tmp/r/f", O_WRONLY | O_CREAT | O_TRUNC, 0666).valid());
    EXPECT_FALSE(wex_open_file("/tmp/r/none", O_WRONLY | O_CREAT, 0666).valid());
    EXPECT_EQ(EACCES, errno) << "not why the second try failed";
  });
  EXPECT_EQ("", read_file("/tmp/r/f"));
}

TEST_F(OpenRule, ASecondNameOfRootsLinkIsNotFollowed) {
  write_file("/tmp/r/target", "text");
  link_of(0, "/tmp/r/target", "/tmp/r/ours");
  ASSERT_EQ(0, linkat(AT_FDCWD, "/tmp/r/ours", AT_FDCWD, "/tmp/r/log", 0));
  EXPECT_FALSE(wex_open_file("/tmp/r/log", O_RDONLY).valid());
  EXPECT_EQ(ELOOP, errno);
}

TEST_F(OpenRule, HoldsOnEveryKernelThatKnowsItsCallsOrNot) {
  ASSERT_EQ(0, mkdir("/tmp/r/dir", 0755));
  write_file("/tmp/r/dir/target", "text");
  link_of(0, "dir", "/tmp/r/ours");
  link_of(0, "target", "/tmp/r/dir/last");
  link_of(kOtherUser, "dir", "/tmp/r/theirs");
  for (const era past : {era::today, era::without_fstat, era::without_empty_path, era::without_o_path}) {
    const kernel_of simulated(past, 60);
    EXPECT_TRUE(wex_open_file("/tmp/r/ours/last", O_RDONLY).valid()) << static_cast<int>(past);
    EXPECT_TRUE(wex_open_file("/tmp/r/ours/last", O_RDWR).valid()) << static_cast<int>(past);
    EXPECT_FALSE(wex_open_file("/tmp/r/theirs/target", O_RDONLY).valid()) << static_cast<int>(past);
    EXPECT_EQ(ELOOP, errno) << static_cast<int>(past);
    EXPECT_FALSE(wex_open_file("/tmp/r/dir/target/f", O_RDONLY).valid()) << static_cast<int>(past);
    EXPECT_EQ(ENOTDIR, errno) << static_cast<int>(past);
    EXPECT_EQ(0u, slept) << static_cast<int>(past);
  }
}

TEST_F(OpenRule, WhereLinksCannotBeOpenedOnlyAFreshOneIsWaitedFor) {
  write_file("/tmp/r/target", "text");
  link_of(0, "target", "/tmp/r/ours");
  const struct {
    time_t clock_error;
    unsigned slept;
  } rows[] = {{0, kLinkRestSec}, {60, 0}, {-3600, 0}};  // the last: a clock that was not set yet
  for (const auto& row : rows) {
    const kernel_of simulated(era::without_o_path, row.clock_error);
    EXPECT_TRUE(wex_open_file("/tmp/r/ours", O_RDONLY).valid());
    EXPECT_EQ(row.slept, slept) << row.clock_error;
  }
}

TEST_F(OpenRule, ForAChangeALinkOfRootsCountsOnlyWhereNobodyElseCouldPutIt) {
  write_file("/tmp/r/target", "precious");
  ASSERT_EQ(0, mkdir("/tmp/open", 0777));
  ASSERT_EQ(0, chmod("/tmp/open", 0777));
  const struct {
    const char* above;
    mode_t mode;
    uid_t owner;
    gid_t group;
    bool usable;
  } rows[] = {{"/tmp/r", 0755, 0, 0, true},     {"/tmp/r", 0775, 0, 0, true},
              {"/tmp/r", 0775, 0, 1234, false}, {"/tmp/r", 0777, 0, 0, false},
              {"/tmp/r", 01777, 0, 0, false},   {"/tmp/r", 0755, kOtherUser, 0, false},
              {"/tmp/open", 0755, 0, 0, false}};
  for (const auto& row : rows) {
    const std::string directory = std::string(row.above) + "/d";
    const std::string link = directory + "/link";
    ASSERT_EQ(0, mkdir(directory.c_str(), 0755));
    ASSERT_EQ(0, chown(directory.c_str(), row.owner, row.group));
    ASSERT_EQ(0, chmod(directory.c_str(), row.mode));
    link_of(0, "/tmp/r/target", link.c_str());
    link_of(0, "/tmp/r", (directory + "/way").c_str());
    const std::string directory_text =
        directory + " " + std::to_string(row.mode) + " " + std::to_string(row.group);
    EXPECT_TRUE(wex_open_file(link.c_str(), O_RDONLY).valid()) << directory_text;
    for (const int flags : {O_WRONLY, O_RDWR, O_WRONLY | O_CREAT, O_RDONLY | O_CREAT}) {
      EXPECT_EQ(row.usable, wex_open_file(link.c_str(), flags, 0600).valid())
          << directory_text << " " << flags;
    }
    wex_make_dir((directory + "/way/made").c_str(), 0755);
    EXPECT_EQ(row.usable, exists("/tmp/r/made")) << directory_text;
    EXPECT_EQ(row.usable, open_trusted_dir(AT_FDCWD, (directory + "/way").c_str()).valid()) << directory_text;
    rmdir("/tmp/r/made");
    for (const char* const name : {"/link", "/way"}) {
      ASSERT_EQ(0, unlink((directory + name).c_str()));
    }
    ASSERT_EQ(0, rmdir(directory.c_str()));
  }
}

TEST_F(OpenRule, SomebodyElsesDirectoryLinkLeadsNoRemovalAndNoChangeOfPlace) {
  ASSERT_EQ(0, mkdir("/tmp/private", 0700));
  write_file("/tmp/private/f", "precious");
  link_of(kOtherUser, "/tmp/private", "/tmp/r/way");
  EXPECT_EQ(-1, wex_unlink("/tmp/r/way/f"));
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ("precious", read_file("/tmp/private/f"));
  in_child([] {
    ASSERT_EQ(0, wex_chdir("/tmp/r"));
    EXPECT_EQ(-1, wex_chdir("/tmp/r/way"));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_TRUE(exists("way")) << "still where it was";
  });
  EXPECT_EQ(0, wex_unlink("/tmp/r/way"));
  EXPECT_FALSE(exists("/tmp/r/way"));
  EXPECT_EQ(-1, wex_unlink("/tmp/r/way"));
  EXPECT_EQ(ENOENT, errno);
}

// ---- Other names of locked files --------------------------------------------------------------------------

TEST_F(OpenRule, AnotherNameOfALockedFileIsNotOpened) {
  write_file("/tmp/r/lock", "");
  write_file("/tmp/r/free", "");
  ASSERT_EQ(0, link("/tmp/r/lock", "/tmp/r/other"));
  in_child([] {
    unique_fd lock(open("/tmp/r/lock", O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(wex_lock_file(lock.get()));
    keep_locked_file("/tmp/r/lock", std::move(lock));
    for (const int flags : {O_RDONLY, O_RDWR, O_RDWR | O_CREAT, O_WRONLY | O_APPEND}) {
      EXPECT_FALSE(wex_open_file("/tmp/r/other", flags, 0600).valid()) << flags;
      EXPECT_EQ(EBUSY, errno) << flags;
    }
    EXPECT_TRUE(wex_open_file("/tmp/r/free", O_RDONLY).valid());
    // The name changes hands between the look at it and its opening.
    before_opening = [] { ASSERT_EQ(0, rename("/tmp/r/other", "/tmp/r/free")); };
    EXPECT_FALSE(wex_open_file("/tmp/r/free", O_RDONLY).valid());
    in_child([] {
      const unique_fd other(open("/tmp/r/lock", O_RDWR | O_CLOEXEC));
      EXPECT_FALSE(wex_lock_file(other.get())) << "our lock is gone";
      EXPECT_TRUE(wex_open_file("/tmp/r/lock", O_RDONLY).valid())
          << "a child holds no lock that it could lose";
    });
    drop_locked_file("/tmp/r/lock");
    EXPECT_TRUE(wex_open_file("/tmp/r/lock", O_RDONLY).valid());
  });
}

TEST_F(OpenRule, ACircleOfRootsLinksEnds) {
  link_of(0, "/tmp/r/b", "/tmp/r/a");
  link_of(0, "/tmp/r/a", "/tmp/r/b");
  EXPECT_FALSE(wex_open_file("/tmp/r/a", O_RDONLY).valid());
  EXPECT_EQ(ELOOP, errno);
  wex_make_dir("/tmp/r/a", 0777);
  EXPECT_FALSE(wex_open_file("/tmp/r/a/f", O_RDONLY).valid());
  EXPECT_EQ(ELOOP, errno);
}

TEST_F(OpenRule, WhatIsNoRegularFileIsRefusedWithoutBlocking) {
  ASSERT_EQ(0, mkfifo("/tmp/r/fifo", 0777));
  for (const int access : {O_RDONLY, O_WRONLY, O_RDWR}) {
    EXPECT_FALSE(wex_open_file("/tmp/r/fifo", access).valid());
    EXPECT_EQ(ENXIO, errno);
  }
  EXPECT_FALSE(wex_open_file("/tmp/r", O_RDONLY).valid());
  EXPECT_EQ(EISDIR, errno);
  EXPECT_FALSE(wex_open_file("/dev/null", O_RDWR).valid());
  EXPECT_FALSE(wex_open_file("/tmp/r/none", O_RDONLY).valid());
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(OpenRule, ADirectoryGetsItsModeWhateverTheUmask) {
  umask(0077);
  wex_make_dir("/tmp/r/dir/", 0777);
  EXPECT_EQ(0777u, mode_of("/tmp/r/dir"));
  ASSERT_EQ(0, chmod("/tmp/r/dir", 0700));
  wex_make_dir("/tmp/r/dir", 0777);
  EXPECT_EQ(0777u, mode_of("/tmp/r/dir"));
  wex_make_dir("/tmp/none/dir", 0777);
  EXPECT_FALSE(exists("/tmp/none"));
}

TEST_F(OpenRule, ADirectoryModeDoesNotTravelThroughSomebodyElsesLink) {
  ASSERT_EQ(0, mkdir("/tmp/private", 0700));
  write_file("/tmp/shadow", "secret", 0600);
  link_of(kOtherUser, "/tmp/private", "/tmp/r/d");
  link_of(kOtherUser, "/tmp/shadow", "/tmp/r/s");
  for (const char* const path : {"/tmp/r/d", "/tmp/r/d/", "/tmp/r/d///", "/tmp/r/s", "/tmp/r/s/"}) {
    wex_make_dir(path, 0777);
  }
  EXPECT_EQ(0700u, mode_of("/tmp/private"));
  EXPECT_EQ(0600u, mode_of("/tmp/shadow"));
  link_of(0, "/tmp/private", "/tmp/r/ours");
  wex_make_dir("/tmp/r/ours", 0777);
  EXPECT_EQ(0777u, mode_of("/tmp/private")) << "an installer may have made it a link";
}

TEST_F(OpenRule, AGuardedReadEndsItsText) {
  write_file("/tmp/r/f", "abcdef");
  char text[4] = "###";
  EXPECT_EQ(3, wex_read_guarded("/tmp/r/f", text, sizeof(text)));
  EXPECT_STREQ("abc", text);
  EXPECT_EQ(-1, wex_read_guarded("/tmp/r/none", text, sizeof(text)));
  EXPECT_STREQ("", text);
}

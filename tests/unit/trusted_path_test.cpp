// trusted_path, and what wex_utils opens and makes by it: links, second names and FIFOs that others may have
// planted.
#include "trusted_path.h"

#include <sys/prctl.h>
#include <sys/syscall.h>

#include "unit_support.h"
#include "wex_utils.h"

using namespace unit;

namespace {

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
  EXPECT_EQ("", contents("/tmp/r/f"));
}

TEST_F(OpenRule, SomebodyElsesLinkIsRefusedAndItsTargetKept) {
  write_file("/tmp/victim", "precious");
  link_of(kOtherUser, "/tmp/victim", "/tmp/r/link");
  EXPECT_FALSE(wex_open_file("/tmp/r/link", O_WRONLY | O_CREAT | O_TRUNC, 0666).valid());
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ("precious", contents("/tmp/victim"));
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
  EXPECT_EQ("precious", contents("/tmp/victim"));
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
  EXPECT_EQ("precious", contents("/tmp/private/f"));
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

TEST_F(OpenRule, AnOrdinaryUsersOwnLinksServeHimAlone) {
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

TEST_F(OpenRule, AFileWithASecondNameIsNeverTruncatedOrAppendedToButMakesRoom) {
  write_file("/tmp/victim", "precious");
  ASSERT_EQ(0, link("/tmp/victim", "/tmp/r/log"));
  for (const int flags : {O_WRONLY | O_TRUNC, O_WRONLY | O_APPEND}) {
    EXPECT_FALSE(wex_open_file("/tmp/r/log", flags).valid());
    EXPECT_EQ(EMLINK, errno);
  }
  EXPECT_TRUE(wex_open_file("/tmp/r/log", O_RDONLY).valid());
  EXPECT_TRUE(wex_open_file("/tmp/r/log", O_RDWR).valid()) << "its lock may be tried";
  EXPECT_TRUE(wex_open_file("/tmp/r/log", O_WRONLY | O_CREAT | O_APPEND, 0666).valid());
  EXPECT_EQ("", contents("/tmp/r/log")) << "a file of its own";
  EXPECT_EQ("precious", contents("/tmp/victim"));
}

TEST_F(OpenRule, AFileThatIsThereOpensAlsoWhereTheKernelRefusesToCreateIt) {
  write_file("/tmp/r/f", "old");
  in_child([] {
    refuse_creation();
    EXPECT_TRUE(wex_open_file("/tmp/r/f", O_WRONLY | O_CREAT | O_TRUNC, 0666).valid());
    EXPECT_FALSE(wex_open_file("/tmp/r/none", O_WRONLY | O_CREAT, 0666).valid());
    EXPECT_EQ(EACCES, errno) << "not why the second try failed";
  });
  EXPECT_EQ("", contents("/tmp/r/f"));
}

TEST_F(OpenRule, ASecondNameOfRootsLinkIsNotFollowed) {
  write_file("/tmp/r/target", "text");
  link_of(0, "/tmp/r/target", "/tmp/r/ours");
  ASSERT_EQ(0, linkat(AT_FDCWD, "/tmp/r/ours", AT_FDCWD, "/tmp/r/log", 0));
  EXPECT_FALSE(wex_open_file("/tmp/r/log", O_RDONLY).valid());
  EXPECT_EQ(ELOOP, errno);
}

// From now on a link cannot be opened, as on kernels that do not know O_PATH. In a forked child only.
void refuse_opened_links() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 4),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
      BPF_STMT(BPF_ALU | BPF_AND | BPF_K, O_PATH | O_NOFOLLOW | O_DIRECTORY),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, O_PATH | O_NOFOLLOW, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ELOOP),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {sizeof program / sizeof program[0], program};
  ASSERT_EQ(0, prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
  ASSERT_EQ(0, prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter));
}

TEST_F(OpenRule, WhereLinksCannotBeOpenedTheyAreReadWhenTheyHaveRestedForAWhile) {
  write_file("/tmp/r/target", "text");
  link_of(0, "target", "/tmp/r/ours");
  link_of(kOtherUser, "target", "/tmp/r/theirs");
  in_child([] {
    refuse_opened_links();
    EXPECT_LT(open("/tmp/r/ours", O_PATH | O_NOFOLLOW), 0);
    EXPECT_LE(milliseconds(1900),
              time_of([] { EXPECT_TRUE(wex_open_file("/tmp/r/ours", O_RDONLY).valid()); }));
    EXPECT_GT(milliseconds(1900),
              time_of([] { EXPECT_TRUE(wex_open_file("/tmp/r/ours", O_RDONLY).valid()); }))
        << "it has rested";
    EXPECT_FALSE(wex_open_file("/tmp/r/theirs", O_RDONLY).valid());
    EXPECT_EQ(ELOOP, errno);
    EXPECT_FALSE(wex_open_file("/tmp/r/target/f", O_RDONLY).valid());
    EXPECT_EQ(ENOTDIR, errno);
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

TEST_F(OpenRule, WhatIsNoRegularFileCannotBeOpenedAndStopsNobody) {
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

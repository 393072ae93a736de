// wex_pidfile: names, contents and locks of the files that carry registrations over a restart of the daemon.
#include "wex_pidfile.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include "failing_calls.h"
#include "registry_files.h"
#include "wex_chain.h"

using namespace registry;
using wex_test::refuse_call;
using wex_test::run_failing;
using wex_test::temporary;

namespace {

// By which fcntl() locks.
#ifdef SYS_fcntl64
constexpr long kLockCall = SYS_fcntl64;
#else
constexpr long kLockCall = SYS_fcntl;
#endif

class Pidfile : public RegistryWorld {
 protected:
  void TearDown() override {
    if (rec_ != nullptr) {
      wex_free_record(rec_);
    }
    RegistryWorld::TearDown();
  }
  wex_pid* record(int vsd, int pid, const char* process) {
    if (rec_ == nullptr) {
      rec_ = wex_new_record();
    }
    rec_->vsd = vsd;
    rec_->pid = pid;
    snprintf(rec_->process, sizeof rec_->process, "%s", process);
    return rec_;
  }
  wex_reg_info message(int vsd, int pid, const char* process) {
    wex_reg_info body = {};
    body.vsd = vsd;
    body.pid = pid;
    strncpy(body.process, process, sizeof body.process);
    return body;
  }
  static std::string name_of(int vsd, int pid, const std::string& text) {
    char name[512];
    EXPECT_LT(wex_get_db_file_name(vsd, pid, text.c_str(), name, sizeof name), 512);
    return name;
  }
  wex_pid* rec_ = nullptr;
};

// For what lasts until the process ends. 0 when `look` holds.
int in_child(const std::function<bool()>& look) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(look() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// In a process of its own, because the lock lives as long as the process does.
int create_in_child(int vsd, int action, const char* text, const std::function<bool(int)>& look) {
  return in_child([&] { return look(wex_db_create(vsd, getpid(), action, text)); });
}

// Write calls this thread has made.
long writes_so_far() {
  const std::string facts = read_file("/proc/thread-self/io");
  const size_t at = facts.find("syscw: ");
  return at == std::string::npos ? -1 : strtol(facts.c_str() + at + 7, nullptr, 10);
}

}  // namespace

TEST_F(Pidfile, NameIsTheFirstWordBehindItsLastSlash) {
  const struct {
    const char* text;
    const char* name;
  } rows[] = {{"/usr/sbin/foo -d", "foo"},
              {"/usr/sbin/foo", "foo"},
              {"plain", "plain"},
              {"plain /with/arguments", "plain"},
              {"/bin/sh /a/b.sh", "sh"},
              {"/ends/in/ x", ""},
              {"", ""},
              {" /led/by/a/blank", ""},
              {"/opt/my app/x", "my"},
              {"/a/tab\tstays", "tab\tstays"},
              {"//twice//b", "b"},
              {"/a/%s%n", "%s%n"},
              {"/a/..", ".."}};
  for (const auto& row : rows) {
    EXPECT_EQ(std::string("/tmp/vsd/0/wex/db/") + row.name + ".812", name_of(0, 812, row.text)) << row.text;
  }
  EXPECT_EQ("/tmp/vsd/15/wex/db/foo.-1", name_of(15, -1, "/x/foo"));
}

TEST_F(Pidfile, FirstWordIsCutAt255Characters) {
  const std::string longest(255, 'a');
  EXPECT_EQ("/tmp/vsd/0/wex/db/" + longest + ".1", name_of(0, 1, longest + "b"));
  EXPECT_EQ("/tmp/vsd/0/wex/db/" + longest + ".1", name_of(0, 1, longest + " b"));
  // The slash behind the cut is not seen any more.
  EXPECT_EQ("/tmp/vsd/0/wex/db/" + std::string(254, 'a') + ".1", name_of(0, 1, "/" + longest + "/b"));
  EXPECT_EQ("/tmp/vsd/0/wex/db/" + longest + ".1", name_of(0, 1, longest + std::string(5000, 'a')));
}

TEST_F(Pidfile, NameReportsTheLengthThatItWouldNeed) {
  char small[8];
  EXPECT_EQ(25, wex_get_db_file_name(0, 812, "/usr/sbin/foo", small, sizeof small));
  EXPECT_STREQ("/tmp/vs", small);
}

TEST_F(Pidfile, FileHoldsPidActionAndCommandWithoutANewline) {
  EXPECT_EQ(0, create_in_child(0, RESPAWN, "/usr/sbin/foo -d", [](int result) {
              const std::string expected = std::to_string(getpid()) + "\n2\n/usr/sbin/foo -d";
              return result == 0 && read_file(db_file(0, "foo", getpid())) == expected;
            }));
}

TEST_F(Pidfile, FileIsWrittenWithOneWrite) {
  EXPECT_EQ(0, create_in_child(0, RESPAWN, "/usr/sbin/foo -d", [](int) { return true; }));
  const pid_t child = fork();
  if (child == 0) {
    const long before = writes_so_far();
    wex_db_create(0, getpid(), RESPAWN, "/usr/sbin/foo -d");
    _exit(before >= 0 ? static_cast<int>(writes_so_far() - before) : 99);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(1, WEXITSTATUS(status));
}

TEST_F(Pidfile, FileModeIsNarrowedByTheUmaskOnly) {
  for (const mode_t mask : {0U, 022U, 077U}) {
    EXPECT_EQ(0, create_in_child(0, RESPAWN, "/a/unmasked", [](int) { return true; }));
    const pid_t child = fork();
    if (child == 0) {
      umask(mask);
      wex_db_create(0, getpid(), RESPAWN, "/a/masked");
      struct stat facts = {};
      stat(db_file(0, "masked", getpid()).c_str(), &facts);
      _exit((facts.st_mode & 07777) == (0777 & ~mask) ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status) << "umask " << mask;
  }
}

TEST_F(Pidfile, DescriptorIsKeptAndClosedByExec) {
  EXPECT_EQ(0, create_in_child(0, RESPAWN, "/a/kept", [](int) {
              const std::string name = db_file(0, "kept", getpid());
              for (int fd = 3; fd < 64; ++fd) {
                char link[512] = {};
                if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof link - 1) > 0 &&
                    name == link) {
                  return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
                }
              }
              return false;
            }));
}

TEST_F(Pidfile, OlderLongerContentIsGone) {
  const pid_t child = fork();
  if (child == 0) {
    write_file(db_file(0, "foo", getpid()), std::string(4000, 'x'));
    wex_db_create(0, getpid(), SHELL_RESTART, "/a/foo");
    _exit(read_file(db_file(0, "foo", getpid())) == std::to_string(getpid()) + "\n3\n/a/foo" ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
}

TEST_F(Pidfile, CreatingSaysWhatItDoes) {
  captured_output output;
  const service owner([] { return wex_db_create(0, 812, RESPAWN, "/usr/sbin/foo -d") == 0; });
  EXPECT_TRUE(owner.ready());
  EXPECT_EQ("[wex_pidfile]wex_db_create vsd:0 path:/usr/sbin/foo -d file:/tmp/vsd/0/wex/db/foo.812\n",
            output.text());
}

TEST_F(Pidfile, CreatingFailsWithoutTheDirectory) {
  captured_output output;
  EXPECT_EQ(-1, wex_db_create(16, 812, RESPAWN, "/usr/sbin/foo"));
  EXPECT_EQ(
      "[wex_pidfile]wex_db_create vsd:16 path:/usr/sbin/foo file:/tmp/vsd/16/wex/db/foo.812\n"
      "[wex_pidfile]wex_db_create: fd < 0: No such file or directory\n",
      output.text());
}

TEST_F(Pidfile, NameThatTheFileSystemCannotHoldIsRefused) {
  const std::string longest(NAME_MAX - 4, 'a');  // and ".812"
  EXPECT_EQ(0, create_in_child(0, RESPAWN, "/a/x", [&](int) {
              return wex_db_create(0, 812, RESPAWN, longest.c_str()) == 0 &&
                     wex_db_create(0, 812, RESPAWN, (longest + "a").c_str()) == -1 && errno != 0;
            }));
  EXPECT_FALSE(exists(db_dir(0) + "/" + longest + "a.8"));
  EXPECT_EQ(-1, wex_db_destroy(record(0, 812, (longest + "a").c_str())));
  EXPECT_EQ(1, wex_proc_is_exit(record(0, 812, (longest + "a").c_str())));
  EXPECT_EQ(0, wex_db_destroy(record(0, 812, longest.c_str())));
}

TEST_F(Pidfile, PlantedFifoDirectoryAndLinkAreNotOpened) {
  const std::string fifo = db_file(0, "fifo", 5);
  const std::string directory = db_file(0, "directory", 5);
  const std::string link = db_file(0, "link", 5);
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0666));
  ASSERT_EQ(0, mkdir(directory.c_str(), 0777));
  const temporary precious("/tmp/precious");
  write_file("/tmp/precious", "precious");
  ASSERT_EQ(0, symlink("/tmp/precious", link.c_str()));
  ASSERT_EQ(0, lchown(link.c_str(), 65534, 65534));
  for (const char* name : {"fifo", "directory", "link"}) {
    EXPECT_EQ(-1, wex_db_create(0, 5, RESPAWN, name)) << name;
    EXPECT_EQ(1, wex_proc_is_exit(record(0, 5, name))) << name;
    EXPECT_EQ(-1, wex_read_pidfile(db_file(0, name, 5).c_str(), record(0, 5, name))) << name;
  }
  EXPECT_EQ("precious", read_file("/tmp/precious"));
}

TEST_F(Pidfile, FileLockedByAnotherIsLeftAndItsDescriptorClosed) {
  const service owner([] { return wex_db_create(0, 77, RESPAWN, "/a/foo") == 0; });
  ASSERT_TRUE(owner.ready());
  const size_t fds = count_descriptors();
  captured_output output;
  EXPECT_EQ(0, wex_db_create(0, 77, RESPAWN, "/a/foo"));
  EXPECT_EQ(fds + 2, count_descriptors()) << "only the two of the captured output are new";
  EXPECT_NE(std::string::npos,
            output.text().find("[wex_pidfile]wex_db_create: file /tmp/vsd/0/wex/db/foo.77 fd < 0: Resource "
                               "temporarily unavailable\n"))
      << output.text();
  EXPECT_TRUE(is_locked_for_others(db_file(0, "foo", 77)));
}

TEST_F(Pidfile, OwnerLivesUntilItsLockIsGone) {
  service owner([] { return wex_db_create(2, getpid(), RESPAWN, "/a/foo -x") == 0; });
  ASSERT_TRUE(owner.ready());
  wex_pid* const rec = record(2, owner.pid(), "/a/foo -x");
  const std::string name = db_file(2, "foo", owner.pid());
  {
    captured_output output;
    EXPECT_EQ(0, wex_proc_is_exit(rec));
    EXPECT_EQ("[wex_pidfile]wex_proc_is_exit vsd:2 ps:/a/foo -x file:" + name +
                  "\n[wex_pidfile]be lock file " + name + ", Resource temporarily unavailable.\n",
              output.text());
  }
  EXPECT_EQ(0, wex_proc_is_exit(rec)) << "the first look took the lock away";
  owner.end();
  captured_output output;
  EXPECT_EQ(1, wex_proc_is_exit(rec));
  EXPECT_EQ("[wex_pidfile]wex_proc_is_exit vsd:2 ps:/a/foo -x file:" + name +
                "\n[wex_pidfile]Succeed to lock file " + name + ".\n",
            output.text());
  EXPECT_FALSE(is_locked_for_others(name)) << "the look itself kept the lock";
}

TEST_F(Pidfile, LockThatCannotBeTriedCountsAsExited) {
  write_file(db_file(0, "foo", 77), "77\n2\n/a/foo");
  wex_pid* const rec = record(0, 77, "/a/foo");
  const captured_output output;
  EXPECT_EQ(0, in_child([&] {
              const bool refused = refuse_call(kLockCall, 1, F_SETLK, ENOLCK);
              const size_t fds = count_descriptors();
              return refused && wex_proc_is_exit(rec) == 1 && count_descriptors() == fds;
            }));
  EXPECT_EQ(
      "[wex_pidfile]wex_proc_is_exit vsd:0 ps:/a/foo file:/tmp/vsd/0/wex/db/foo.77\n"
      "[wex_pidfile]Failed to lock file /tmp/vsd/0/wex/db/foo.77, No locks available.\n",
      output.text());
}

TEST_F(Pidfile, FileThatCannotBeLockedIsWrittenAllTheSameAndItsDescriptorKept) {
  const captured_output output;
  EXPECT_EQ(0, in_child([] {
              const bool refused = refuse_call(kLockCall, 1, F_SETLK, ENOLCK);
              const size_t fds = count_descriptors();
              return refused && wex_db_create(0, 77, RESPAWN, "/a/foo") == 0 &&
                     count_descriptors() == fds + 1;
            }));
  EXPECT_EQ("77\n2\n/a/foo", read_file(db_file(0, "foo", 77)));
  EXPECT_NE(std::string::npos,
            output.text().find("[wex_pidfile]wex_db_create: file /tmp/vsd/0/wex/db/foo.77 fd < 0: No locks "
                               "available\n"))
      << output.text();
}

TEST_F(Pidfile, FileThatCannotBeFilledIsReportedAndLockedAllTheSame) {
  const std::string dir = db_dir(5);
  ASSERT_EQ(0, mount("none", dir.c_str(), "tmpfs", 0, "size=4k"));
  write_file(dir + "/full", std::string(4096, 'f'));
  const captured_output output;
  EXPECT_EQ(0, create_in_child(5, RESPAWN, "/a/foo", [&](int result) {
              return result == 0 && is_locked_for_others(db_file(5, "foo", getpid()));
            }));
  EXPECT_NE(std::string::npos,
            output.text().find("[wex_pidfile]wex_db_create: write fail: No space left on device\n"))
      << output.text();
  EXPECT_EQ(0, umount2(dir.c_str(), MNT_DETACH));
}

TEST_F(Pidfile, MissingFileCountsAsExited) {
  captured_output output;
  EXPECT_EQ(1, wex_proc_is_exit(record(0, 4711, "/a/none")));
  EXPECT_EQ(
      "[wex_pidfile]wex_proc_is_exit vsd:0 ps:/a/none file:/tmp/vsd/0/wex/db/none.4711\n"
      "[wex_pidfile]wex_proc_is_exit: /tmp/vsd/0/wex/db/none.4711 fd < 0: No such file or directory\n",
      output.text());
}

TEST_F(Pidfile, FlagFileMarksTheDomainButNeverDomain0) {
  save_vsd_flag(0, 31);
  EXPECT_FALSE(exists("/tmp/vsd/0/wex/31"));
  save_vsd_flag(3, 31);
  struct stat facts = {};
  ASSERT_EQ(0, stat("/tmp/vsd/3/wex/31", &facts));
  EXPECT_EQ(0, facts.st_size);
  EXPECT_EQ(0755U, facts.st_mode & 07777);
  write_file("/tmp/vsd/3/wex/32", "left alone");
  save_vsd_flag(3, 32);
  EXPECT_EQ("left alone", read_file("/tmp/vsd/3/wex/32"));
  save_vsd_flag(77, 31);
  EXPECT_FALSE(exists("/tmp/vsd/77"));
}

TEST_F(Pidfile, FlagFileIsNotMadeThroughAPlantedLink) {
  ASSERT_EQ(0, symlink("/tmp/victim", "/tmp/vsd/3/wex/33"));
  ASSERT_EQ(0, lchown("/tmp/vsd/3/wex/33", 65534, 65534));
  save_vsd_flag(3, 33);
  EXPECT_FALSE(exists("/tmp/victim"));
}

TEST_F(Pidfile, OnlyKind1IsRespawn) {
  for (const uint32_t kind : {0U, 1U, 2U, 7U, 0xffffffffU}) {
    const pid_t child = fork();
    if (child == 0) {
      const wex_reg_info body = message(1, getpid(), "/a/foo -d");
      const std::string expected = std::to_string(getpid()) + (kind == 1 ? "\n2\n" : "\n3\n") + "/a/foo -d";
      const bool made = wex_mk_pidfile(&body, kind) == 0 &&
                        read_file(db_file(1, "foo", getpid())) == expected &&
                        exists("/tmp/vsd/1/wex/" + std::to_string(getpid()));
      _exit(made ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status) << "kind " << kind;
  }
}

TEST_F(Pidfile, FailedRegistrationIsReportedAndMakesNoFlag) {
  ASSERT_EQ(0, rmdir(db_dir(4).c_str()));
  captured_output output;
  const wex_reg_info body = message(4, 55, "/a/foo");
  EXPECT_EQ(-1, wex_mk_pidfile(&body, 1));
  EXPECT_EQ(
      "[wex_pidfile]wex_db_create vsd:4 path:/a/foo file:/tmp/vsd/4/wex/db/foo.55\n"
      "[wex_pidfile]wex_db_create: fd < 0: No such file or directory\n"
      "[wex_pidfile]wex_mk_pidfile: wex create db failed! (ret=-1)\r\n",
      output.text());
  EXPECT_EQ(-1, wex_mk_pidfile_held(&body, 1));
  EXPECT_FALSE(exists("/tmp/vsd/4/wex/55"));
}

TEST_F(Pidfile, CommandWithoutATerminatorIsReadToTheEndOfItsField) {
  wex_reg_info body = message(0, 66, "");
  memset(body.process, 'a', sizeof body.process);
  memcpy(body.process, "/a/foo ", 7);
  memset(body.tag, 'T', sizeof body.tag);
  ASSERT_EQ(0, wex_mk_pidfile_held(&body, 1));
  EXPECT_EQ("66\n2\n/a/foo " + std::string(sizeof body.process - 7, 'a'), read_file(db_file(0, "foo", 66)));
  EXPECT_EQ(0, wex_db_destroy(record(0, 66, "/a/foo")));
}

TEST_F(Pidfile, HeldFileStaysLockedThroughRegistrationsAndGoesWithTheFile) {
  const wex_reg_info body = message(0, 88, "/a/held");
  const std::string name = db_file(0, "held", 88);
  for (int round = 0; round < 50; ++round) {
    ASSERT_EQ(0, wex_mk_pidfile_held(&body, 1));
    ASSERT_TRUE(is_locked_for_others(name)) << "round " << round;
    ASSERT_EQ(before_ + 1, count_descriptors()) << "round " << round;
  }
  EXPECT_EQ(0, wex_db_destroy(record(0, 88, "/a/held")));
  EXPECT_FALSE(exists(name));
  EXPECT_EQ(before_, count_descriptors());
}

TEST_F(Pidfile, HeldFilesAreToldApartByTheirWholeName) {
  const struct {
    int vsd, pid;
    const char* process;
  } rows[] = {{0, 90, "/a/one"}, {1, 90, "/a/one"}, {0, 91, "/a/one"}, {0, 90, "/a/two"}};
  for (const auto& row : rows) {
    const wex_reg_info body = message(row.vsd, row.pid, row.process);
    ASSERT_EQ(0, wex_mk_pidfile_held(&body, 2));
  }
  EXPECT_EQ(before_ + 4, count_descriptors());
  EXPECT_EQ(0, wex_db_destroy(record(1, 90, "/a/one")));
  EXPECT_EQ(-1, wex_db_destroy(record(5, 90, "/a/one")));
  EXPECT_EQ(before_ + 3, count_descriptors());
  EXPECT_TRUE(is_locked_for_others(db_file(0, "one", 90)));
  for (const auto& row : rows) {
    wex_db_destroy(record(row.vsd, row.pid, row.process));
  }
}

TEST_F(Pidfile, HeldFileOfAnotherProcessIsNotKept) {
  const service owner([] { return wex_db_create(0, 92, RESPAWN, "/a/foo") == 0; });
  ASSERT_TRUE(owner.ready());
  const wex_reg_info body = message(0, 92, "/a/foo");
  EXPECT_EQ(0, wex_mk_pidfile_held(&body, 1));
  EXPECT_EQ(before_, count_descriptors());
}

// In directories where everybody may link files, any name may be a second one of a held file.
TEST_F(Pidfile, AnotherNameOfAHeldFileDoesNotCostItsLock) {
  const wex_reg_info body = message(0, 94, "/a/held");
  const std::string name = db_file(0, "held", 94);
  const std::string other = db_file(0, "other", 95);
  ASSERT_EQ(0, wex_mk_pidfile_held(&body, 1));
  ASSERT_EQ(0, link(name.c_str(), other.c_str()));
  EXPECT_EQ(1, wex_proc_is_exit(record(0, 95, "/a/other")));
  EXPECT_EQ(-1, wex_read_pidfile(other.c_str(), record(0, 95, "/a/other")));
  EXPECT_EQ(1, wex_proc_is_exit(record(0, 94, "/a/held"))) << "nobody else holds it";
  EXPECT_TRUE(is_locked_for_others(name));
  EXPECT_EQ(0, wex_db_destroy(record(0, 95, "/a/other")));
  EXPECT_EQ(0, wex_db_destroy(record(0, 94, "/a/held")));
}

TEST_F(Pidfile, NothingIsRemovedThroughSomebodysDirectoryLink) {
  const temporary victims("/tmp/victims");
  make_dirs("/tmp/victims");
  write_file("/tmp/victims/foo.96", "precious");
  write_file("/tmp/victims/96", "precious");
  ASSERT_EQ(0, rmdir(db_dir(7).c_str()));
  ASSERT_EQ(0, symlink("/tmp/victims", db_dir(7).c_str()));
  ASSERT_EQ(0, lchown(db_dir(7).c_str(), 1000, 1000));
  EXPECT_EQ(-1, wex_db_destroy(record(7, 96, "/a/foo")));
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ(-1, wex_rm_pidfile(record(7, 96, "/a/foo")));
  EXPECT_TRUE(exists("/tmp/victims/foo.96"));
  EXPECT_TRUE(exists("/tmp/victims/96"));
}

TEST_F(Pidfile, DestroyingTellsWhatUnlinkTold) {
  write_file(db_file(6, "foo", 93), "93\n2\n/a/foo");
  EXPECT_EQ(0, wex_db_destroy(record(6, 93, "/a/foo -with /arguments")));
  EXPECT_FALSE(exists(db_file(6, "foo", 93)));
  EXPECT_EQ(-1, wex_db_destroy(record(6, 93, "/a/foo")));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(Pidfile, OlderNamingIsRemovedByItsNumber) {
  write_file("/tmp/vsd/6/wex/db/94", "");
  EXPECT_EQ(0, wex_rm_pidfile(record(6, 94, "/a/foo")));
  EXPECT_FALSE(exists("/tmp/vsd/6/wex/db/94"));
  EXPECT_EQ(-1, wex_rm_pidfile(record(6, 94, "/a/foo")));
}

TEST_F(Pidfile, ReaderTakesWhatTheWriterWrote) {
  EXPECT_EQ(0, create_in_child(0, SHELL_RESTART, "/usr/sbin/foo -d", [](int) {
              wex_pid* const rec = wex_new_record();
              return wex_read_pidfile(db_file(0, "foo", getpid()).c_str(), rec) == 0 &&
                     rec->pid == getpid() && rec->action == SHELL_RESTART &&
                     strcmp(rec->script, "/usr/sbin/foo -d") == 0;
            }));
}

TEST_F(Pidfile, ReaderAcceptsAndRefusesByContent) {
  const std::string filling(300, 'b');
  const std::string head = "812\n2\n/";
  const struct {
    std::string content;
    int result, pid, action;
    std::string script;
  } rows[] = {
      {"812\n2\n/usr/sbin/foo -d", 0, 812, 2, "/usr/sbin/foo -d"},
      {"812\n2\nsh -c /x", 0, 812, 2, "/x"},
      {"  812   2 /same/line\n", 0, 812, 2, "/same/line\n"},
      {"812-3/x", 0, 812, -3, "/x"},
      {"-5\n7\n/x", 0, -5, 7, "/x"},
      {"+5\n7\n/x", 0, 5, 7, "/x"},
      {"2147483647\n-2147483648\n/x", 0, INT32_MAX, INT32_MIN, "/x"},
      {"/first\n2\n", -1, 0, 0, ""},
      {"812\n2\n", -1, 0, 0, ""},
      {"812\n2\nnone", -1, 0, 0, ""},
      {"812\n/x", -1, 0, 0, ""},
      {"812\nx2\n/x", -1, 0, 0, ""},
      {"", -1, 0, 0, ""},
      {"\n\n\n", -1, 0, 0, ""},
      {"2147483648\n2\n/x", -1, 0, 0, ""},
      {"812\n99999999999999999999999\n/x", -1, 0, 0, ""},
      {"-2147483649\n2\n/x", -1, 0, 0, ""},
      {std::string("812\n2\n\0/x", 9), -1, 0, 0, ""},
      {std::string("812\n2\n/x\0/y", 11), 0, 812, 2, "/x"},
      {head + filling.substr(0, 255 - head.size()), 0, 812, 2, "/" + filling.substr(0, 255 - head.size())},
      {head + filling.substr(0, 254 - head.size()), 0, 812, 2, "/" + filling.substr(0, 254 - head.size())},
      {head + filling, 0, 812, 2, "/" + filling.substr(0, 255 - head.size())},
      {"812\n2\n" + std::string(249, 'b') + "/", -1, 0, 0, ""},  // the only slash is byte 256
      {"812\n2\n" + std::string(248, 'b') + "/", 0, 812, 2, "/"},
  };
  const std::string path = db_file(0, "content", 1);
  for (const auto& row : rows) {
    write_file(path, row.content);
    wex_pid* const rec = record(0, 0, "");
    rec->action = 0;
    rec->script[0] = '\0';
    EXPECT_EQ(row.result, wex_read_pidfile(path.c_str(), rec)) << row.content;
    EXPECT_EQ(row.pid, rec->pid) << row.content;
    EXPECT_EQ(row.action, rec->action) << row.content;
    EXPECT_EQ(row.script, rec->script) << row.content;
  }
}

TEST_F(Pidfile, ReaderSaysWhyButNotForAMissingSlash) {
  captured_output output;
  wex_pid* const rec = record(0, 0, "");
  EXPECT_EQ(-1, wex_read_pidfile("/tmp/vsd/0/wex/db/none", rec));
  EXPECT_EQ("[wex_pidfile]wex_read_pidfile: open pid file fail: No such file or directory\n", output.text());
  write_file(db_file(0, "s", 1), "812\n2\nnone");
  EXPECT_EQ(-1, wex_read_pidfile(db_file(0, "s", 1).c_str(), rec));
  EXPECT_EQ("[wex_pidfile]wex_read_pidfile: open pid file fail: No such file or directory\n", output.text());
  write_file(db_file(0, "s", 1), "only 2 /x");
  EXPECT_EQ(-1, wex_read_pidfile(db_file(0, "s", 1).c_str(), rec));
  EXPECT_NE(std::string::npos, output.text().find("[wex_pidfile]wex_read_pidfile: read pid fail: "));
}

TEST_F(Pidfile, FileThatCannotBeReadIsReportedAndRefused) {
  write_file(db_file(0, "foo", 77), "77\n2\n/a/foo");
  wex_pid* const rec = record(1, 5, "/a/kept");
  const auto read_it = [&] { return wex_read_pidfile(db_file(0, "foo", 77).c_str(), rec) == 0 ? 0 : 1; };
  const captured_output output;
  EXPECT_EQ(1, run_failing({"read:error=EIO"}, [&] {
              const int result = read_it();
              EXPECT_EQ(5, rec->pid);
              return result;
            }));
  EXPECT_EQ("[wex_pidfile]wex_read_pidfile: read pid file fail: Input/output error\n", output.text());
  EXPECT_EQ(0, run_failing({"read:error=EINTR:when=1..3"}, read_it)) << "an interruption is no failure";
}

TEST_F(Pidfile, NothingHereKeepsADescriptor) {
  write_file(db_file(0, "foo", 95), "95\n2\n/a/foo");
  wex_pid* const rec = record(0, 95, "/a/foo");
  wex_read_pidfile(db_file(0, "foo", 95).c_str(), rec);
  snprintf(rec->process, sizeof rec->process, "/a/foo");
  wex_proc_is_exit(rec);
  save_vsd_flag(5, 95);
  EXPECT_EQ(before_, count_descriptors());
}

// Whoever else calls a file so has it read like any other.
TEST_F(Pidfile, OnlyFilesNamedLikeThoseThatWereBegunAreDropped) {
  const std::string path = db_dir(0) + "/";
  for (const char* name : {"begun-5-0123456789abcdef", "begun--5-0123456789abcdef"}) {
    write_file(path + name, "5\n2\n/a/foo");
    EXPECT_TRUE(wex_drop_begun_pidfile((path + name).c_str())) << name;
    EXPECT_FALSE(exists(path + name));
  }
  for (const char* name :
       {"begun-", "begun-5", "begun-5-", "begun-5-7", "begun-x-0123456789abcdef", "begun--0123456789abcdef",
        "begun-5-0123456789abcdeg", "begun-5-0123456789abcdef0", "begun-5-0123456789abcdef.7"}) {
    write_file(path + name, "5\n2\n/a/foo");
    EXPECT_FALSE(wex_drop_begun_pidfile((path + name).c_str())) << name;
    EXPECT_TRUE(exists(path + name));
  }
}

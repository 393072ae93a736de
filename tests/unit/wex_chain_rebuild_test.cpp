// wex_chain_rebuild: what a starting daemon makes of the database files it finds, with real programs.
#include <dirent.h>
#include <grp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>

#include "chain_lock.h"
#include "linked_name.h"
#include "registry_files.h"
#include "running_thread.h"
#include "verify_chain.h"
#include "wex_chain.h"
#include "wex_chain_rebuild.h"
#include "wex_core_filter.h"
#include "wex_domain.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_status_image.h"

using namespace registry;

namespace {

// How many calls find no memory from now on.
int short_of_memory = 0;

int pauses = 0;  // made so far

bool thread_ends_wanted = false;

bool memory_is_short() {
  if (short_of_memory <= 0) {
    return false;
  }
  --short_of_memory;
  errno = ENOMEM;
  return true;
}

}  // namespace

void wrap_pass_thread_ends(thread_ends_for whom,
                           bool pass) __asm__("__wrap__Z20wex_pass_thread_ends15thread_ends_forb");
void wrap_pass_thread_ends(thread_ends_for whom, bool pass) {
  thread_ends_wanted = pass && whom == thread_ends_for::registrations;
}

extern "C" {
DIR* __real_fdopendir(int fd);
void* __real_realloc(void* block, size_t size);
DIR* __wrap_fdopendir(int fd);
void* __wrap_realloc(void* block, size_t size);

DIR* __wrap_fdopendir(int fd) {
  return memory_is_short() ? nullptr : __real_fdopendir(fd);
}

int LINKED_NANOSLEEP(__real)(clockid_t clock, int flags, const timespec* time, timespec* left);
int LINKED_NANOSLEEP(__wrap)(clockid_t clock, int flags, const timespec* time, timespec* left);
int LINKED_NANOSLEEP(__wrap)(clockid_t clock, int flags, const timespec* time, timespec* left) {
  ++pauses;
  return LINKED_NANOSLEEP(__real)(clock, flags, time, left);
}

void* __wrap_realloc(void* block, size_t size) {
  return memory_is_short() ? nullptr : __real_realloc(block, size);
}
}

namespace {

struct Rebuild : RegistryWorld {
  void SetUp() override {
    RegistryWorld::SetUp();
    thread_ends_wanted = false;
    make_dirs(WEX_RUN);
    for (int vsd = 1; vsd < 16; ++vsd) {
      make_dirs("/data/var/run/vsd/" + std::to_string(vsd));
    }
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      ASSERT_EQ(0, wex_init_chains(chain));
    }
  }
  void TearDown() override {
    end_restarted();
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      wex_destroy_chains(chain);
    }
    RegistryWorld::TearDown();
  }
  // Programs that the rebuild started are children of this test.
  static void end_restarted() {
    for (const wex_pid* rec : records()) {
      if (rec->pid > 0 && waitpid(rec->pid, nullptr, WNOHANG) == 0) {
        wex_test::send_signal(rec->pid, SIGKILL);
        waitpid(rec->pid, nullptr, 0);
      }
    }
  }
  static std::vector<const wex_pid*> records() {
    std::vector<const wex_pid*> found;
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    while (const wex_pid* rec = walk.next()) {
      found.push_back(rec);
    }
    return found;
  }
  static const wex_pid* find(int pid) {
    chain_lock hold(wex_chains);
    return __wex_find_pid(&wex_chains, pid);
  }
  static void rebuild() {
    ASSERT_EQ(0, wex_rebuild_chains(&wex_chains));
    ASSERT_TRUE(chain_is_sound(wex_chains));
    ASSERT_TRUE(chain_is_sound(wex_chains_delay));
  }
  static std::string content(int pid, int action, const std::string& command) {
    return std::to_string(pid) + "\n" + std::to_string(action) + "\n" + command;
  }
};

// A process of the program that the cases list, in a domain when it has that domain's group.
class listed_program {
 public:
  explicit listed_program(int32_t domain_group = 0) {
    pid_ = fork();
    if (pid_ == 0) {
      const auto group = static_cast<gid_t>(domain_group);
      setgroups(group != 0 ? 1 : 0, &group);
      execl("/usr/bin/sleep", "/usr/bin/sleep", "4321", nullptr);
      _exit(127);
    }
    EXPECT_TRUE(eventually([&] { return wex_test::command_line(pid_) == "/usr/bin/sleep 4321"; }));
  }
  ~listed_program() {
    for (const pid_t pid : wex_test::pids_with_command("/usr/bin/sleep 4321")) {
      wex_test::send_signal(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  listed_program(const listed_program&) = delete;
  listed_program& operator=(const listed_program&) = delete;
  pid_t pid() const { return pid_; }
  static size_t instances() { return wex_test::pids_with_command("/usr/bin/sleep 4321").size(); }

 private:
  pid_t pid_ = -1;
};

}  // namespace

TEST_F(Rebuild, NothingToReadMakesNoRecord) {
  rebuild();
  for (int vsd = 0; vsd < 16; ++vsd) {
    rmdir(db_dir(vsd).c_str());
  }
  rebuild();
  EXPECT_EQ(0, wex_chains.count);
}

TEST_F(Rebuild, LivingProcessIsTakenOverUntouched) {
  const service alive([] { return wex_db_create(3, getpid(), SHELL_RESTART, "/opt/foo -d") == 0; });
  ASSERT_TRUE(alive.ready());
  rebuild();
  ASSERT_EQ(1, wex_chains.count);
  const wex_pid* const rec = find(alive.pid());
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(3, rec->vsd);
  EXPECT_EQ(SHELL_RESTART, rec->action);
  EXPECT_STREQ("/opt/foo -d", rec->process);
  EXPECT_STREQ("/opt/foo -d", rec->script);
  EXPECT_EQ(0, rec->alarm_wait_flag);
  EXPECT_EQ(0, rec->restart_delay);
  EXPECT_EQ(0U, rec->flags);
  EXPECT_TRUE(wex_record_lives(rec));
  EXPECT_TRUE(is_locked_for_others(db_file(3, "foo", alive.pid())));
}

TEST_F(Rebuild, NoRegistrationIsLeftOutBecauseMemoryIsShort) {
  const service alive;
  write_file(db_file(0, "foo", alive.pid()), content(alive.pid(), 2, "/opt/foo"));
  short_of_memory = 2;  // one for the directory, one for its names
  const auto start = std::chrono::steady_clock::now();
  rebuild();
  EXPECT_GE(std::chrono::steady_clock::now() - start, 10s) << "nothing was short";
  EXPECT_EQ(0, short_of_memory);
  EXPECT_NE(nullptr, find(alive.pid()));
}

TEST_F(Rebuild, AnotherProcessWithTheOldPidIsKeptAndLogged) {
  const service stranger;
  write_file(db_file(0, "foo", stranger.pid()), content(stranger.pid(), 2, "/opt/foo"));
  captured_output output;
  rebuild();
  EXPECT_NE(nullptr, find(stranger.pid()));
  EXPECT_NE(std::string::npos,
            output.text().find("pid (" + std::to_string(stranger.pid()) + ") of /opt/foo runs /"));
}

// It has the pid, runs something else, began after the registration, and nobody holds the lock of the file.
TEST_F(Rebuild, AnotherProcessThatBeganAfterTheRegistrationIsNotTakenForTheProgram) {
  const service kept, stranger;
  const auto registered = [](pid_t pid) { return wex_db_create(0, pid, RESPAWN, "/bin/sleep 1000") == 0; };
  const service holder([&] { return registered(kept.pid()); });
  service gone([&] { return registered(stranger.pid()); });
  gone.end();
  const timespec earlier = {time(nullptr) - 30, 0};
  const timespec times[] = {earlier, earlier};
  for (const service* const each : {&kept, &stranger}) {
    ASSERT_EQ(0, utimensat(AT_FDCWD, db_file(0, "sleep", each->pid()).c_str(), times, 0));
  }
  rebuild();
  EXPECT_EQ(2, wex_chains.count);
  ASSERT_NE(nullptr, find(kept.pid()));
  EXPECT_TRUE(wex_record_lives(find(kept.pid()))) << "somebody holds its lock";
  ASSERT_NE(nullptr, find(stranger.pid())) << "the sweep restarts it";
  EXPECT_FALSE(wex_record_lives(find(stranger.pid())));
}

TEST_F(Rebuild, TheEndOfAThreadThatWasRegisteredIsWanted) {
  const running_thread thread;
  const int32_t tid = thread.tid();
  write_file(db_file(0, "foo", tid), content(tid, 2, wex_test::command_line(tid)));
  rebuild();
  ASSERT_NE(nullptr, find(tid));
  EXPECT_EQ(getpid(), find(tid)->thread_of);
  EXPECT_TRUE(thread_ends_wanted);
}

TEST_F(Rebuild, DeadProgramIsRestartedAndItsOldFileRemoved) {
  const int old_pid = dead_pid();
  write_file(db_file(0, "sleep", old_pid), content(old_pid, 2, "/bin/sleep 1000"));
  captured_output output;
  rebuild();
  ASSERT_EQ(1, wex_chains.count);
  const wex_pid* const rec = records()[0];
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_TRUE(wex_record_lives(rec));
  EXPECT_EQ(0, rec->restart_failed);
  EXPECT_FALSE(exists(db_file(0, "sleep", old_pid)));
  EXPECT_TRUE(eventually([&] { return wex_test::command_line(rec->pid) == "/bin/sleep 1000"; }));
  EXPECT_EQ("0\n", read_file("/proc/" + std::to_string(rec->pid) + "/oom_score_adj"));
  const std::string text = output.text();
  EXPECT_NE(std::string::npos, text.find("[wex_chain]pid (" + std::to_string(old_pid) + ") is not exist\n"))
      << text;
  const std::string pid = std::to_string(rec->pid);
  EXPECT_NE(std::string::npos, text.find("[wex_chain]pid (" + pid + ") restart ret = " + pid + "\n")) << text;
}

TEST_F(Rebuild, ScriptRecordIsRestartedThroughTheCommandMap) {
  const int old_pid = dead_pid();
  make_dirs("/etc/cmdmap");
  write_file("/etc/cmdmap/foo.sh", "exec /bin/sleep \"$@\"\n");
  write_file(db_file(0, "foo", old_pid), content(old_pid, 3, "/opt/foo 1000"));
  captured_output output;
  rebuild();
  ASSERT_EQ(1, wex_chains.count);
  const int pid = records()[0]->pid;
  EXPECT_TRUE(eventually([&] { return wex_test::command_line(pid) == "/bin/sleep 1000"; }));
  EXPECT_NE(std::string::npos, output.text().find("[wex_chain]pid (" + std::to_string(pid) +
                                                  ") shell restart ret = " + std::to_string(pid) + "\n"));
}

TEST_F(Rebuild, UnknownActionIsStartedLikeAProgram) {
  const int old_pid = dead_pid();
  write_file(db_file(0, "sleep", old_pid), content(old_pid, 7, "/bin/sleep 1000"));
  rebuild();
  ASSERT_EQ(1, wex_chains.count);
  EXPECT_EQ(7, records()[0]->action);
  EXPECT_TRUE(wex_record_lives(records()[0]));
}

TEST_F(Rebuild, FileStillLockedByAnotherPostponesTheRestart) {
  const int old_pid = dead_pid();
  const service holder([&] { return wex_db_create(1, old_pid, RESPAWN, "/bin/sleep 1000") == 0; });
  ASSERT_TRUE(holder.ready());
  rebuild();
  ASSERT_EQ(1, wex_chains.count);
  EXPECT_NE(nullptr, find(old_pid));
  EXPECT_TRUE(exists(db_file(1, "sleep", old_pid)));
  ASSERT_EQ(1, wex_chains_delay.count);
  chain_lock hold(wex_chains_delay);
  const wex_pid* const copy = __wex_find_pid(&wex_chains_delay, old_pid);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(1, copy->vsd);
  EXPECT_STREQ("/bin/sleep 1000", copy->process);
}

TEST_F(Rebuild, FilesThatCannotBeReadAreReportedAndStay) {
  write_file(db_file(0, "noslash", 1), "812\n2\nnone");
  write_file(db_file(0, "nonumber", 1), "/opt/foo");
  write_file(db_file(0, "overflow", 1), "99999999999\n2\n/opt/foo");
  write_file(db_file(0, "empty", 1), "");
  ASSERT_EQ(0, mkfifo(db_file(0, "fifo", 1).c_str(), 0666));
  ASSERT_EQ(0, mkdir(db_file(0, "directory", 1).c_str(), 0777));
  write_file("/tmp/vsd/theirs", content(dead_pid(), 2, "/bin/sleep 1000"));
  ASSERT_EQ(0, symlink("/tmp/vsd/theirs", db_file(0, "link", 1).c_str()));
  ASSERT_EQ(0, lchown(db_file(0, "link", 1).c_str(), 65534, 65534));
  const std::string longest(255, 'n');
  write_file(db_dir(0) + "/" + longest, "none");
  captured_output output;
  rebuild();
  EXPECT_EQ(0, wex_chains.count);
  for (const std::string name : {"noslash.1", "nonumber.1", "overflow.1", "empty.1", "fifo.1", "directory.1",
                                 "link.1", longest.c_str()}) {
    EXPECT_TRUE(exists(db_dir(0) + "/" + name)) << name;
    EXPECT_NE(std::string::npos, output.text().find("[wex_chain]wex_read_pidfile " + name + " fail\n"))
        << name;
  }
}

TEST_F(Rebuild, AllSixteenDomainsAreReadInOrder) {
  std::vector<int> old_pids;
  for (int vsd = 0; vsd < 16; ++vsd) {
    const int pid = dead_pid();
    old_pids.push_back(pid);
    write_file(db_file(vsd, "sleep", pid), content(pid, 2, "/bin/sleep " + std::to_string(1000 + vsd)));
    if (vsd > 0) {
      write_file("/tmp/vsd/" + std::to_string(vsd) + "/wex/" + std::to_string(pid), "");
    }
  }
  captured_output output;
  rebuild();
  ASSERT_EQ(16, wex_chains.count);
  size_t at = 0;
  for (const int pid : old_pids) {
    at = output.text().find("pid (" + std::to_string(pid) + ") is not exist\n", at);
    ASSERT_NE(std::string::npos, at) << pid;
  }
  for (const wex_pid* rec : records()) {
    EXPECT_EQ("/bin/sleep " + std::to_string(1000 + rec->vsd), rec->process);
    EXPECT_TRUE(wex_record_lives(rec));
    if (rec->vsd > 0) {
      EXPECT_TRUE(exists("/tmp/vsd/" + std::to_string(rec->vsd) + "/wex/" + std::to_string(rec->pid)));
    }
  }
  ASSERT_EQ(0, chdir("/"));
}

TEST_F(Rebuild, FileThatARestartedProgramMakesAtOnceIsNoSecondRegistration) {
  write_file("/opt/service.sh",
             "echo \"$$\n2\n/bin/sh /opt/service.sh $1\" > " + db_dir(0) + "/sh.$$\nexec sleep 1000\n");
  constexpr int kPrograms = 6;
  for (int i = 0; i < kPrograms; ++i) {
    const int pid = dead_pid();
    write_file(db_file(0, "sh", pid), content(pid, 2, "/bin/sh /opt/service.sh " + std::to_string(i)));
  }
  rebuild();
  EXPECT_EQ(kPrograms, wex_chains.count);
  for (const wex_pid* rec : records()) {
    EXPECT_TRUE(eventually([&] { return exists(db_file(0, "sh", rec->pid)); }))
        << "its own file is not removed";
  }
  end_restarted();
  wex_test::remove_tree("/opt/service.sh");
}

TEST_F(Rebuild, ThirdPartProgramThatIsNotFoundIsFiledUnderNoPid) {
  const int old_pid = dead_pid();
  make_dirs("/etc/wex");
  write_file(kThirdPartList, "/bin/true WEX_RESTART\n");
  write_file(db_file(0, "true", old_pid), content(old_pid, 2, "/bin/true"));
  rebuild();
  ASSERT_EQ(1, wex_chains.count);
  const wex_pid* const rec = find(-1);
  ASSERT_NE(nullptr, rec);
  EXPECT_NE(0, rec->restart_failed);
  EXPECT_FALSE(exists(db_file(0, "true", old_pid)));
  waitpid(-1, nullptr, 0);  // the program itself
}

// A daemon that was killed while it looked for a program that it had started leaves the file of the one
// before.
TEST_F(Rebuild, AListedProgramThatRunsUnregisteredIsAdopted) {
  const int old_pid = dead_pid();
  make_dirs("/etc/wex");
  write_file(kThirdPartList, "/usr/bin/sleep 4321 WEX_RESTART\n");
  const listed_program running;
  write_file(db_file(0, "sleep", old_pid), content(old_pid, 2, "/usr/bin/sleep 4321"));
  rebuild();
  ASSERT_EQ(1, wex_chains.count);
  ASSERT_NE(nullptr, find(running.pid()));
  EXPECT_TRUE(wex_record_lives(find(running.pid())));
  EXPECT_EQ(1U, listed_program::instances());
  EXPECT_FALSE(exists(db_file(0, "sleep", old_pid)));
  EXPECT_TRUE(exists(db_file(0, "sleep", running.pid())));
  status_words words;
  wex_status_copy_words(&words);
  wex_status_event last = {};
  ASSERT_TRUE(wex_status_copy_event(words.event_next - 1, &last));
  EXPECT_EQ(uint32_t{WEX_STATUS_EV_RESTARTED}, last.kind);
  EXPECT_EQ(old_pid, last.pid);
  EXPECT_EQ(running.pid(), last.new_pid);
}

TEST_F(Rebuild, AListedProgramIsStartedBesideARegisteredOneAndOneOfAnotherDomain) {
  const int old_pid = dead_pid();
  make_dirs("/etc/wex");
  write_file(kThirdPartList, "/usr/bin/sleep 4321 WEX_RESTART\n");
  const listed_program registered;
  const listed_program elsewhere(wex_domain_group(3));
  write_file(db_file(0, "sleep", registered.pid()), content(registered.pid(), 2, "/usr/bin/sleep 4321"));
  write_file(db_file(0, "sleep", old_pid), content(old_pid, 2, "/usr/bin/sleep 4321"));
  rebuild();
  EXPECT_EQ(2, wex_chains.count);
  EXPECT_EQ(3U, listed_program::instances());
}

TEST_F(Rebuild, AFileOfAnotherNameThanItsContentGivesIsStartedOnceAndGone) {
  const int pid = dead_pid();
  for (const char* name : {"copy", "other.1", "sleep.1"}) {
    write_file(db_dir(0) + "/" + name, content(pid, 2, "/bin/sleep 1000"));
  }
  const int known = dead_pid();
  write_file(db_file(0, "sleep", known), content(known, 2, "/bin/sleep 1001"));
  write_file(db_dir(0) + "/copy_of_known", content(known, 2, "/bin/sleep 1001"));
  write_file(db_dir(0) + "/arguments", content(known, 2, "/bin/sleep 1002"));
  const int blocked = dead_pid();
  write_file(db_dir(0) + "/blocked", content(blocked, 2, "/bin/sleep 1003"));
  ASSERT_EQ(0, mkdir(db_file(0, "sleep", blocked).c_str(), 0777));
  rebuild();
  std::multiset<std::string> programs;
  for (const wex_pid* rec : records()) {
    EXPECT_TRUE(wex_record_lives(rec)) << rec->process;
    programs.insert(rec->process);
  }
  const std::multiset<std::string> once = {"/bin/sleep 1000", "/bin/sleep 1001", "/bin/sleep 1002",
                                           "/bin/sleep 1003"};
  EXPECT_EQ(once, programs);
  const std::vector<std::string> left = {"sleep." + std::to_string(blocked)};
  EXPECT_EQ(left, wex_test::list_dir(db_dir(0))) << "or the next start would start them again";
}

TEST_F(Rebuild, AFileOfAnotherNameOfALivingProgramGetsTheNameThatIsLookedForWhenItEnds) {
  service alive([] {
    return wex_db_create(0, getpid(), RESPAWN, "/opt/foo") == 0 &&
           rename(db_file(0, "foo", getpid()).c_str(), (db_dir(0) + "/other").c_str()) == 0;
  });
  ASSERT_TRUE(alive.ready());
  rebuild();
  const wex_pid* const rec = find(alive.pid());
  ASSERT_NE(nullptr, rec);
  EXPECT_FALSE(exists(db_dir(0) + "/other"));
  EXPECT_TRUE(exists(db_file(0, "foo", alive.pid())));
  EXPECT_EQ(0, wex_proc_is_exit(rec)) << "its lock goes with the file";
}

TEST_F(Rebuild, SamePidTwiceMakesTwoRecords) {
  const service alive([] { return wex_db_create(0, getpid(), RESPAWN, "/opt/foo") == 0; });
  write_file(db_file(0, "bar", alive.pid()), content(alive.pid(), 2, "/opt/bar"));
  rebuild();
  EXPECT_EQ(2, wex_chains.count);
}

TEST_F(Rebuild, FilesOfPidsBelow1AreRestartedWithoutHarm) {
  for (const int pid : {0, -1, INT32_MIN}) {
    write_file(db_file(0, "sleep", pid), content(pid, 2, "/bin/sleep 1000"));
  }
  rebuild();
  EXPECT_EQ(3, wex_chains.count);
  for (const wex_pid* rec : records()) {
    EXPECT_TRUE(wex_record_lives(rec)) << rec->pid;
  }
  EXPECT_TRUE(wex_test::list_dir(db_dir(0)).empty());
}

TEST_F(Rebuild, AHundredDeadProgramsAndOneDyingAreBackOnceEach) {
  constexpr int kPrograms = 100;
  for (int i = 0; i < kPrograms; ++i) {
    const int pid = dead_pid();
    write_file(db_file(i % 16, "sleep", pid), content(pid, 2, "/bin/sleep " + std::to_string(1000 + i)));
  }
  std::vector<std::unique_ptr<service>> zombies;
  for (int i = 0; i < 10; ++i) {
    zombies.push_back(std::make_unique<service>());
    const int pid = zombies.back()->pid();
    zombies.back()->kill_only();
    siginfo_t info = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT));
    write_file(db_file(0, "sleep", pid), content(pid, 2, "/bin/sleep " + std::to_string(2000 + i)));
  }
  pauses = 0;
  rebuild();
  EXPECT_EQ(3, pauses) << "the looks at the dying ones are common to all";
  EXPECT_EQ(kPrograms + 10, wex_chains.count);
  std::set<std::string> programs;
  for (const wex_pid* rec : records()) {
    EXPECT_TRUE(wex_record_lives(rec)) << rec->process;
    EXPECT_TRUE(programs.insert(rec->process).second) << rec->process << " twice";
  }
}

TEST_F(Rebuild, WithoutADyingProcessNothingIsWaitedFor) {
  const service alive;
  write_file(db_file(0, "foo", alive.pid()), content(alive.pid(), 2, "/opt/foo"));
  const int pid = dead_pid();
  write_file(db_file(0, "sleep", pid), content(pid, 2, "/bin/sleep 1000"));
  pauses = 0;
  rebuild();
  EXPECT_EQ(0, pauses);
  EXPECT_NE(nullptr, find(alive.pid()));
}

TEST_F(Rebuild, WhatDiedInADomainThatIsTakenDownIsForgotten) {
  const int dead = dead_pid();
  const service alive;
  write_file(db_file(5, "sleep", dead), content(dead, 2, "/bin/sleep 1000"));
  write_file(db_file(5, "foo", alive.pid()), content(alive.pid(), 2, "/opt/foo"));
  write_file("/tmp/vsd/5/delete_vsd", "");
  rebuild();
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_NE(nullptr, find(alive.pid()));
  EXPECT_FALSE(exists(db_file(5, "sleep", dead)));
}

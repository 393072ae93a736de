// ras_os_sem, and the lock between processes of ras_os: System V semaphores of the real kernel. Only failures
// that no kernel can be talked into are made by standing in front of the C library.
#include "ras_os_sem.h"

#include <dlfcn.h>
#include <grp.h>
#include <pthread.h>
#include <stdarg.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>

#include <algorithm>
#include <atomic>

#include "injection.h"
#include "ras_os.h"
#include "unit_support.h"

using namespace unit;

namespace {

injection ftok_fault;
injection create_fault;  // semget with creation flags
injection find_fault;    // semget without
injection setval_fault;
std::atomic<unsigned> slept_seconds{0};
bool quick_sleep = false;  // sleeps are counted, not slept

template <typename F>
F* libc(const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" unsigned __real_sleep(unsigned seconds);
extern "C" unsigned __wrap_sleep(unsigned seconds) {
  slept_seconds += seconds;
  return quick_sleep ? 0 : __real_sleep(seconds);
}

extern "C" key_t ftok(const char* path, int project) noexcept {
  return ftok_fault.now() ? key_t{-1} : libc<key_t(const char*, int)>("ftok")(path, project);
}

extern "C" int semget(key_t key, int count, int flags) noexcept {
  injection& mine = (flags & IPC_CREAT) != 0 ? create_fault : find_fault;
  return mine.now() ? -1 : libc<int(key_t, int, int)>("semget")(key, count, flags);
}

extern "C" int semctl(int id, int number, int command, ...) noexcept {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (command == SETVAL && setval_fault.now()) {
    return -1;
  }
  return libc<int(int, int, int, ...)>("semctl")(id, number, command, argument);
}

namespace {

class MutexSem : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    write_file("/tmp/key", "");
    drop("/tmp/key");
  }
  void TearDown() override {
    drop("/tmp/key");
    Sandboxed::TearDown();
  }
  static void drop(const char* path) {
    const int id = semget(ftok(path, 1), 1, 0);
    if (id >= 0) {
      semctl(id, 0, IPC_RMID, nullptr);
    }
  }
};

class SystemSem : public MutexSem {
 protected:
  void SetUp() override {
    MutexSem::SetUp();
    write_file(WEX_SEM_KEY_FILE, "");
    drop(WEX_SEM_KEY_FILE);
    unlink(WEX_SEM_KEY_FILE);
    g_wex_semid = -1;
    set_levels(0, WEX_DBG_SILENT);
  }
  void TearDown() override {
    write_file(WEX_SEM_KEY_FILE, "");
    drop(WEX_SEM_KEY_FILE);
    MutexSem::TearDown();
  }
};

int value_of(int id) {
  return semctl(id, 0, GETVAL, nullptr);
}

mode_t mode_of_set(int id) {
  semid_ds status = {};
  EXPECT_EQ(0, semctl(id, 0, IPC_STAT, &status));
  return status.sem_perm.mode & 0777u;
}

void raise_count(int id) {
  sembuf up = {0, 1, 0};
  ASSERT_EQ(0, semop(id, &up, 1));
}

}  // namespace

// ---- The lock between processes ---------------------------------------------------------------------------

TEST_F(MutexSem, TheFirstCreatesItOpenTheSecondFindsItUntouched) {
  int first = -1;
  ASSERT_EQ(0, ras_os_init_mutex_sem("/tmp/key", &first));
  EXPECT_EQ(1, value_of(first));
  EXPECT_EQ(0777u, mode_of_set(first));
  ASSERT_EQ(0, ras_os_lock_mutex_sem(first));
  in_child([&] {
    int second = -1;
    EXPECT_EQ(0, ras_os_init_mutex_sem("/tmp/key", &second));
    EXPECT_EQ(first, second);
    EXPECT_EQ(0, value_of(second)) << "still locked";
  });
  EXPECT_EQ(0, ras_os_unlock_mutex_sem(first));
  EXPECT_EQ(1, value_of(first));
}

TEST_F(MutexSem, EachFailedStepHasItsNumber) {
  int id = 77;
  EXPECT_EQ(-2, ras_os_init_mutex_sem(nullptr, &id));
  EXPECT_EQ(-2, ras_os_init_mutex_sem("/tmp/key", nullptr));
  EXPECT_EQ(-3, ras_os_init_mutex_sem("/tmp/none", &id));
  EXPECT_EQ(77, id);
  create_fault.fail(1, ENOSPC);
  EXPECT_EQ(-4, ras_os_init_mutex_sem("/tmp/key", &id));
  EXPECT_EQ(-1, id);
  setval_fault.fail(1, EACCES);
  EXPECT_EQ(-6, ras_os_init_mutex_sem("/tmp/key", &id));
  EXPECT_EQ(-1, semget(ftok("/tmp/key", 1), 1, 0)) << "the half-made set is removed";
  ASSERT_EQ(0, ras_os_init_mutex_sem("/tmp/key", &id));
  find_fault.fail(1, EACCES);
  EXPECT_EQ(-5, ras_os_init_mutex_sem("/tmp/key", &id));
  EXPECT_EQ(-7, ras_os_lock_mutex_sem(-1));
  EXPECT_EQ(-8, ras_os_unlock_mutex_sem(-1));
}

TEST_F(MutexSem, TheKernelGivesBackTheLockOfADeadHolder) {
  int id = -1;
  ASSERT_EQ(0, ras_os_init_mutex_sem("/tmp/key", &id));
  child holder([&] {
    EXPECT_EQ(0, ras_os_lock_mutex_sem(id));
    return true;
  });
  EXPECT_EQ(0, value_of(id));
  holder.end();
  EXPECT_EQ(1, value_of(id));
}

// Each operation is undone when its process ends, an unlock like a lock.
TEST_F(MutexSem, AnUnlockIsUndoneWithTheProcessThatDidIt) {
  int id = -1;
  ASSERT_EQ(0, ras_os_init_mutex_sem("/tmp/key", &id));
  child unlocker([&] {
    EXPECT_EQ(0, ras_os_unlock_mutex_sem(id));
    return true;
  });
  EXPECT_EQ(2, value_of(id));
  unlocker.end();
  EXPECT_EQ(1, value_of(id));
  ASSERT_EQ(0, ras_os_lock_mutex_sem(id));
  child stranger([&] {
    EXPECT_EQ(0, ras_os_unlock_mutex_sem(id));
    return true;
  });
  EXPECT_EQ(1, value_of(id)) << "given back by another process";
  stranger.end();
  EXPECT_EQ(0, value_of(id)) << "and locked again by that process's end";
  EXPECT_EQ(0, ras_os_unlock_mutex_sem(id));
}

TEST_F(MutexSem, AnInterruptedLockWaitsASecondAndGoesOn) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
  int id = -1;
  ASSERT_EQ(0, ras_os_init_mutex_sem("/tmp/key", &id));
  ASSERT_EQ(0, ras_os_lock_mutex_sem(id));
  int result = 1;
  std::thread waiter([&] { result = ras_os_lock_mutex_sem(id); });
  ASSERT_TRUE(eventually([&] { return semctl(id, 0, GETNCNT, nullptr) == 1; }));
  pthread_kill(waiter.native_handle(), SIGUSR1);
  ASSERT_TRUE(eventually([&] { return semctl(id, 0, GETNCNT, nullptr) == 0; }))
      << "it left the queue to sleep";
  EXPECT_EQ(0, ras_os_unlock_mutex_sem(id));
  EXPECT_GE(time_of([&] { waiter.join(); }), milliseconds(900)) << "free, but it is still asleep";
  EXPECT_EQ(0, result);
  EXPECT_EQ(0, value_of(id));
}

// ---- The system semaphore ---------------------------------------------------------------------------------

TEST_F(SystemSem, IsCreatedAtZeroWithItsKeyFile) {
  umask(0);
  EXPECT_EQ("", printed_by([] { EXPECT_EQ(0, wex_sem_init()); }));
  EXPECT_GE(g_wex_semid, 0);
  EXPECT_EQ(0754u, mode_of_set(g_wex_semid));
  EXPECT_EQ(0754u, mode_of(WEX_SEM_KEY_FILE));
  EXPECT_EQ(0, wex_get_semval());
  raise_count(g_wex_semid);
  EXPECT_EQ(1, wex_get_semval());
  EXPECT_EQ(g_wex_semid, wex_get_semid()) << "what a client finds";
}

TEST_F(SystemSem, AnotherUserReadsItAndChangesNothing) {
  umask(0);
  ASSERT_EQ(0, wex_sem_init());
  const int id = g_wex_semid;
  in_child([id] {
    ASSERT_EQ(0, setgroups(0, nullptr));
    ASSERT_EQ(0, setgid(kOtherUser));
    ASSERT_EQ(0, setuid(kOtherUser));
    sembuf raise = {0, 1, 0};
    EXPECT_EQ(-1, semop(id, &raise, 1));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(-1, semctl(id, 0, SETVAL, 7));
    EXPECT_EQ(-1, semctl(id, 0, IPC_RMID, nullptr));
    EXPECT_EQ(0, value_of(id));
  });
  EXPECT_EQ(0, wex_get_semval());
}

TEST_F(SystemSem, AnExistingOneKeepsItsValue) {
  ASSERT_EQ(0, wex_sem_init());
  const int id = g_wex_semid;
  raise_count(id);
  g_wex_semid = -1;
  EXPECT_EQ("[WEX:ras_os:N]System wex semaphore already inited.",
            lines_printed_by([] { EXPECT_EQ(0, wex_sem_init()); }));
  EXPECT_EQ(-1, g_wex_semid);
  EXPECT_EQ(1, wex_get_semval());
  EXPECT_EQ(id, g_wex_semid) << "the first look finds it";
}

TEST_F(SystemSem, AnExistingOneThatCannotBeLookedAtKeepsItsValue) {
  ASSERT_EQ(0, wex_sem_init());
  const int id = g_wex_semid;
  raise_count(id);
  for (const int error : {ENOMEM, ENOSPC, ENOENT}) {
    g_wex_semid = -1;
    find_fault.fail(1, error);
    EXPECT_EQ("[WEX:ras_os:N]System wex semaphore already inited.",
              lines_printed_by([] { EXPECT_EQ(0, wex_sem_init()); }))
        << strerror(error);
    EXPECT_EQ(1, wex_get_semval()) << strerror(error);
    EXPECT_EQ(id, g_wex_semid) << strerror(error) << ": no second set";
  }
}

TEST_F(SystemSem, AKeyFileThatCannotBeOpenedIsSaid) {
  rlimit before = {};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  EXPECT_EQ("[WEX:ras_os:N]Open file /tmp/.wex_semphore_path failed: Too many open files.",
            lines_printed_by([&] {
              const rlimit none = {0, before.rlim_max};
              EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
              EXPECT_EQ(-1, wex_sem_init());
              EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
            }));
}

TEST_F(SystemSem, WhatIsNoFileAtTheNameOfTheKeyMakesRoom) {
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"a directory", [] { EXPECT_EQ(0, mkdir(WEX_SEM_KEY_FILE, 0755)); }},
      {"a link", [] { EXPECT_EQ(0, symlink("/none", WEX_SEM_KEY_FILE)); }},
      {"a pipe", [] { EXPECT_EQ(0, mkfifo(WEX_SEM_KEY_FILE, 0666)); }}};
  for (const auto& [name, make] : rows) {
    make();
    EXPECT_EQ(0, wex_sem_init()) << name;
    struct stat facts = {};
    EXPECT_EQ(0, lstat(WEX_SEM_KEY_FILE, &facts)) << name;
    EXPECT_TRUE(S_ISREG(facts.st_mode)) << name;
    EXPECT_EQ(0, wex_get_semval()) << name;
    EXPECT_EQ(0, semctl(g_wex_semid, 0, IPC_RMID, nullptr)) << name;
    g_wex_semid = -1;
    EXPECT_EQ(0, system("rm -rf /tmp/aside-* /tmp/.wex_semphore_path"));
  }
}

TEST_F(SystemSem, EachFailedStepOfCreationIsSaid) {
  ftok_fault.fail(1, EIO);
  EXPECT_EQ("[WEX:ras_os:N]Get sem file key failed: Input/output error.",
            lines_printed_by([] { EXPECT_EQ(-1, wex_sem_init()); }));
  create_fault.fail(1, ENOSPC);
  EXPECT_EQ("[WEX:ras_os:N]Get wex sem on init failed: No space left on device.",
            lines_printed_by([] { EXPECT_EQ(-1, wex_sem_init()); }));
  EXPECT_EQ(-1, g_wex_semid);
  setval_fault.fail(1, ERANGE);
  EXPECT_EQ("[WEX:ras_os:N]Set wex sem initial value failed: Numerical result out of range.",
            lines_printed_by([] { EXPECT_EQ(-1, wex_sem_init()); }));
  EXPECT_NE(-1, g_wex_semid) << "keeps the id of the set it removed";
  EXPECT_EQ(-1, semget(ftok(WEX_SEM_KEY_FILE, 1), 1, 0));
}

TEST_F(SystemSem, AMissingKeyFileOrSetIsSaidTwice) {
  EXPECT_EQ(
      "[WEX:wex:N]Get sem file key failed: No such file or directory."
      "[WEX:ras_os:N]wex get semid failed!\n",
      lines_printed_by([] { EXPECT_EQ(-1, wex_get_semval()); }));
  write_file(WEX_SEM_KEY_FILE, "");
  EXPECT_EQ(
      "[WEX:wex:N]Get wex sem failed: No such file or directory."
      "[WEX:ras_os:N]wex get semid failed!\n",
      lines_printed_by([] { EXPECT_EQ(-1, wex_get_semval()); }));
  EXPECT_EQ(-1, g_wex_semid);
}

TEST_F(SystemSem, ASetRemovedFromOutsideStaysLost) {
  ASSERT_EQ(0, wex_sem_init());
  semctl(g_wex_semid, 0, IPC_RMID, nullptr);
  const std::string line = lines_printed_by([] { EXPECT_EQ(-1, wex_get_semval()); });
  EXPECT_EQ(0u, line.find("[WEX:ras_os:N]Get wex sem count failed: ")) << line;
  EXPECT_EQ('.', line.back());
  ASSERT_EQ(0, wex_sem_init());
  g_wex_semid = -1;
  EXPECT_EQ(0, wex_get_semval());
}

TEST_F(SystemSem, AKeyThatFailsForWantOfMemoryIsNotTriedForEver) {
  ASSERT_EQ(0, wex_sem_init());
  g_wex_semid = -1;
  ftok_fault.fail(WEX_SEM_KEY_TRIES, ENOMEM);
  quick_sleep = true;
  slept_seconds = 0;
  EXPECT_EQ(
      "[WEX:wex:N]Get sem file key failed: Cannot allocate memory.[WEX:ras_os:N]wex get semid failed!\n",
      lines_printed_by([] { EXPECT_EQ(-1, wex_get_semval()); }));
  quick_sleep = false;
  EXPECT_EQ(WEX_SEM_KEY_TRIES - 1u, slept_seconds);
  EXPECT_EQ(0, wex_get_semval()) << "the next look finds it";
}

TEST_F(SystemSem, ASecondNameOfItsKeyFileChangesNothing) {
  ASSERT_EQ(0, wex_sem_init());
  const int id = g_wex_semid;
  raise_count(id);
  ASSERT_EQ(0, link(WEX_SEM_KEY_FILE, "/tmp/second"));
  g_wex_semid = -1;
  EXPECT_EQ(0, wex_sem_init());
  EXPECT_EQ(1, wex_get_semval());
  EXPECT_EQ(id, g_wex_semid);
}

// What an unprivileged user may have made before the first start.
TEST_F(SystemSem, OnlyASetAndAKeyFileOfRootsCount) {
  const struct {
    const char* name;
    std::function<void()> by_root;  // before
    bool file, set;                 // what the user makes
  } rows[] = {{"file", [] {}, true, false},
              {"file and set", [] {}, true, true},
              {"set under the key of root's file", [] { write_file(WEX_SEM_KEY_FILE, ""); }, false, true},
              {"directory",
               [] { EXPECT_EQ(0, mkdir(WEX_SEM_KEY_FILE, 0777) + chown(WEX_SEM_KEY_FILE, kOtherUser, 0)); },
               false, false}};
  for (const auto& row : rows) {
    row.by_root();
    int theirs[2];
    ASSERT_EQ(0, pipe(theirs));
    in_child([&] {
      ASSERT_EQ(0, setuid(kOtherUser));
      if (row.file) {
        write_file(WEX_SEM_KEY_FILE, "", 0666);
      }
      const int id = row.set ? semget(ftok(WEX_SEM_KEY_FILE, 1), 1, IPC_CREAT | IPC_EXCL | 0600) : -1;
      EXPECT_EQ(row.set, id >= 0);
      EXPECT_EQ(static_cast<ssize_t>(sizeof id), write(theirs[1], &id, sizeof id));
    });
    int their_set = -1;
    ASSERT_EQ(static_cast<ssize_t>(sizeof their_set), read(theirs[0], &their_set, sizeof their_set));
    close(theirs[0]);
    close(theirs[1]);
    g_wex_semid = -1;
    EXPECT_EQ(0, wex_sem_init()) << row.name;
    const int ours = g_wex_semid;
    EXPECT_GE(ours, 0) << row.name;
    EXPECT_NE(their_set, ours) << row.name;
    EXPECT_EQ(ours, wex_get_semid()) << row.name << ": what a client finds";
    struct stat facts = {};
    EXPECT_EQ(0, stat(WEX_SEM_KEY_FILE, &facts)) << row.name;
    EXPECT_EQ(0u, facts.st_uid) << row.name;
    semctl(ours, 0, IPC_RMID, nullptr);
    if (row.set) {
      EXPECT_EQ(0, semctl(their_set, 0, IPC_RMID, nullptr)) << row.name << ": left alone";
    }
    unlink(WEX_SEM_KEY_FILE);
  }
}

TEST_F(SystemSem, AForeignSetThatTakesTheKeyLaterIsNotRead) {
  ASSERT_EQ(0, wex_sem_init());
  const int ours = g_wex_semid;
  raise_count(ours);
  ASSERT_EQ(0, unlink(WEX_SEM_KEY_FILE));
  in_child([] {
    ASSERT_EQ(0, setuid(kOtherUser));
    write_file(WEX_SEM_KEY_FILE, "");
    EXPECT_LE(0, semget(ftok(WEX_SEM_KEY_FILE, 1), 1, IPC_CREAT | IPC_EXCL | 0666));
  });
  g_wex_semid = -1;
  EXPECT_EQ(1, wex_get_semval());
  EXPECT_EQ(ours, g_wex_semid);
  semctl(ours, 0, IPC_RMID, nullptr);
}

TEST_F(SystemSem, AKeyThatFailsForWantOfMemoryIsTriedEverySecond) {
  ASSERT_EQ(0, wex_sem_init());
  g_wex_semid = -1;
  ftok_fault.fail(2, ENOMEM);
  slept_seconds = 0;
  const milliseconds taken = time_of([] { EXPECT_EQ(0, wex_get_semval()); });
  EXPECT_GE(taken, milliseconds(2000));
  EXPECT_EQ(2u, slept_seconds);
}

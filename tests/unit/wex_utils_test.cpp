// wex_utils: on real files, pipes and processes.
#include "wex_utils.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <climits>

#include "dying_process.h"
#include "failing_allocator.h"
#include "file_lock.h"
#include "read_calls.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "unique_fd.h"
#include "unit_support.h"
#include "waiting.h"
#include "wex_chain_identity.h"
#include "wex_clock.h"
#include "wex_paths.h"

using namespace unit;

namespace {
std::vector<int>* g_pauses_ms = nullptr;  // who wants to know them
}  // namespace

extern "C" void __real_wex_sleep_ms(int milliseconds);
extern "C" void __wrap_wex_sleep_ms(int milliseconds) {
  if (g_pauses_ms != nullptr) {
    g_pauses_ms->push_back(milliseconds);
  }
  __real_wex_sleep_ms(milliseconds);
}

namespace {

// As they were asked for: how long they last depends on the machine.
std::vector<int> pauses_of(const std::function<void()>& work) {
  std::vector<int> pauses;
  g_pauses_ms = &pauses;
  work();
  g_pauses_ms = nullptr;
  return pauses;
}

class Utils : public Sandboxed {};
void on_signal(int) {}

void interruptible(int signal) {
  struct sigaction action = {};
  action.sa_handler = on_signal;  // without SA_RESTART
  ASSERT_EQ(0, sigaction(signal, &action, nullptr));
}

std::string real(const char* path) {
  char text[PATH_MAX];
  return realpath(path, text) != nullptr ? text : "";
}

std::string cmdline(pid_t pid, size_t size) {
  std::vector<char> buffer(size + 1, '#');
  char* const result = pid_to_cmdline(pid, buffer.data(), size);
  EXPECT_EQ('#', buffer[size]) << "written behind the buffer";
  return result == nullptr ? "<null>" : result;
}

void copy_program(const char* from, const char* to) {
  write_file(to, read_file(from), 0755);
}

// A device with the low-memory killer's module, while this lives.
struct lowmem_dir {
  lowmem_dir() {
    EXPECT_EQ(0, mount("unit", "/sys/kernel", "tmpfs", 0, nullptr)) << strerror(errno);
    EXPECT_EQ(0, mkdir(WEX_LOWMEM, 0755));
  }
  ~lowmem_dir() { EXPECT_EQ(0, umount2("/sys/kernel", MNT_DETACH)); }
  lowmem_dir(const lowmem_dir&) = delete;
  lowmem_dir& operator=(const lowmem_dir&) = delete;
};

}  // namespace

// ---- Transfers --------------------------------------------------------------------------------------------

TEST_F(Utils, ReadGathersPiecesAndIsShortOnlyAtTheEnd) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  std::thread writer([&] {
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(3, write(ends[1], "abc", 3));
      std::this_thread::yield();
    }
    close(ends[1]);
  });
  char buffer[64] = {};
  EXPECT_EQ(20, safe_read(ends[0], buffer, 20));
  EXPECT_EQ(10, safe_read(ends[0], buffer, 20));
  EXPECT_EQ(0, safe_read(ends[0], buffer, 20));
  writer.join();
  close(ends[0]);
}

TEST_F(Utils, ReadGoesOnAfterAnInterruption) {
  interruptible(SIGUSR1);
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  const pthread_t reader = pthread_self();
  std::atomic<bool> written{false};
  std::thread other([&] {
    for (int i = 0; i < 50; ++i) {
      pthread_kill(reader, SIGUSR1);
      std::this_thread::sleep_for(milliseconds(1));
    }
    written = true;
    EXPECT_EQ(1, write(ends[1], "x", 1));
  });
  char byte = 0;
  EXPECT_EQ(1, safe_read(ends[0], &byte, 1));
  EXPECT_TRUE(written);
  other.join();
  close(ends[0]);
  close(ends[1]);
}

TEST_F(Utils, ATransferThatFailsHalfwayIsMinusOne) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_NONBLOCK));
  std::vector<char> much(1 << 21, 'm');
  EXPECT_EQ(-1, safe_write(ends[1], much.data(), much.size())) << "the pipe took a part, then was full";
  EXPECT_EQ(EAGAIN, errno);
  char byte;
  EXPECT_EQ(1, read(ends[0], &byte, 1));
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(-1, safe_read(-1, &byte, 1));
  EXPECT_EQ(-1, safe_write(-1, &byte, 1));
}

TEST_F(Utils, WritingAPathKeepsWhatIsBehind) {
  write_file("/tmp/f", "abcdef");
  EXPECT_EQ(2, safe_write_path("/tmp/f", "xy", 2));
  EXPECT_EQ("xycdef", read_file("/tmp/f"));
}

TEST_F(Utils, WritingAMissingPathCreatesNothingAndSaysWhy) {
  set_levels(0, WEX_DBG_SILENT);
  EXPECT_EQ("[WEX:wex_utils:N]safe_write_path: fd < 0: No such file or directory\n",
            lines_printed_by([] { EXPECT_EQ(-1, safe_write_path("/tmp/none", "x", 1)); }));
  EXPECT_FALSE(exists("/tmp/none"));
  set_levels(WEX_DBG_SILENT, 0);
  EXPECT_EQ("", printed_by([] { safe_write_path("/tmp/none", "x", 1); }));
}

TEST_F(Utils, ReadToBufTakesOneByteLessThanTheBufferAndEndsTheText) {
  write_file("/tmp/f", "abcdef");
  char buffer[5] = {'#', '#', '#', '#', '#'};
  EXPECT_EQ(3, wex_read_to_buf("/tmp/f", buffer, 4));
  EXPECT_STREQ("abc", buffer);
  EXPECT_EQ('#', buffer[4]);
  EXPECT_EQ(-1, wex_read_to_buf("/tmp/none", buffer, 4));
  EXPECT_EQ(-1, wex_read_to_buf("/tmp", buffer, 4)) << "a directory opens but does not read";
  EXPECT_STREQ("", buffer);
}

// ---- Time and memory --------------------------------------------------------------------------------------

TEST_F(Utils, SleepLastsItsWholeTimeUnderSignals) {
  interruptible(SIGALRM);
  const itimerval often = {{0, 20000}, {0, 20000}};
  ASSERT_EQ(0, setitimer(ITIMER_REAL, &often, nullptr));
  EXPECT_GE(time_of([] { safe_sleep(1); }), milliseconds(1000));
  EXPECT_GE(time_of([] { wex_sleep_ms(150); }), milliseconds(150));
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_LT(time_of([] { wex_sleep_ms(-5); }), milliseconds(1000));
}

TEST_F(Utils, MemoryIsZeroFilledAndNeverNull) {
  for (int round = 0; round < 50; ++round) {
    char* const block = static_cast<char*>(safe_malloc(400));
    ASSERT_NE(nullptr, block);
    for (int i = 0; i < 400; ++i) {
      ASSERT_EQ(0, block[i]);
    }
    memset(block, 0x5a, 400);
    free(block);
  }
  void* const nothing = safe_malloc(0);
  EXPECT_NE(nullptr, nothing);
  free(nothing);
}

TEST_F(Utils, MemoryShortageIsWaitedOutInStepsOfFiveSeconds) {
  in_child([] {
    struct sigaction action = {};
    action.sa_handler = [](int) {
      rlimit limit = {};
      getrlimit(RLIMIT_AS, &limit);
      limit.rlim_cur = limit.rlim_max;
      setrlimit(RLIMIT_AS, &limit);
    };
    ASSERT_EQ(0, sigaction(SIGALRM, &action, nullptr));
    rlimit limit = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &limit));
    limit.rlim_cur = 1 << 20;
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
    const itimerval soon = {{0, 0}, {1, 0}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    const auto start = steady_clock::now();
    void* const block = safe_malloc(64u << 20);
    const auto taken = steady_clock::now() - start;
    EXPECT_NE(nullptr, block);
    EXPECT_GE(taken, milliseconds(5000));
    EXPECT_LT(taken, milliseconds(9900));
    free(block);
  });
}

TEST_F(Utils, TheClockIsTheMonotonicOne) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int32_t clock_sec = wex_clock_now();
  EXPECT_GE(clock_sec, static_cast<int32_t>(now.tv_sec));
  EXPECT_LE(clock_sec, static_cast<int32_t>(now.tv_sec) + 5);
}

// ---- Command lines ----------------------------------------------------------------------------------------

TEST_F(Utils, CommandLineIsTheExecutableAndTheFurtherArguments) {
  const child process("/bin/sh", {"./nonsense", "-c", "read x", "a", "bc"});
  EXPECT_EQ(real("/bin/sh") + " -c read x a bc", cmdline(process.pid(), 4096));
}

TEST_F(Utils, CommandLineOfOneWordHasNoTrailingBlank) {
  const child process("/bin/cat", {"only"});
  EXPECT_EQ(real("/bin/cat"), cmdline(process.pid(), 4096));
}

TEST_F(Utils, ANewlineInAnArgumentEndsTheVisibleText) {
  const child process("/bin/sh", {"sh", "-c", "read x", "a\nb", "c"});
  EXPECT_EQ(real("/bin/sh") + " -c read x a", cmdline(process.pid(), 4096));
}

TEST_F(Utils, CommandLineFitsAnyBuffer) {
  const child process("/bin/sh", {"sh", "-c", "read x"});
  const std::string path = real("/bin/sh");
  EXPECT_EQ(path.substr(0, 3), cmdline(process.pid(), 4));
  EXPECT_EQ(path, cmdline(process.pid(), path.size() + 1));
  EXPECT_EQ(path, cmdline(process.pid(), path.size() + 2));
  EXPECT_EQ(path + " -", cmdline(process.pid(), path.size() + 3));
  EXPECT_EQ(path + " -c", cmdline(process.pid(), path.size() + 4));
  EXPECT_EQ(path + " -c", cmdline(process.pid(), path.size() + 5)) << "a blank at the end is not kept";
  EXPECT_EQ(path + " -c r", cmdline(process.pid(), path.size() + 6));
  EXPECT_EQ("<null>", cmdline(process.pid(), 1)) << "no room for a single character of the link";
}

TEST_F(Utils, CommandLineOfAProcessThatIsGoneIsNull) {
  char buffer[8] = "before";
  EXPECT_EQ(nullptr, pid_to_cmdline(INT32_MAX, buffer, sizeof(buffer)));
  EXPECT_STREQ("", buffer);
  EXPECT_EQ(nullptr, pid_to_cmdline(INT32_MIN, buffer, sizeof(buffer)));
  EXPECT_EQ(nullptr, pid_to_cmdline(1, nullptr, 8));
  EXPECT_EQ(nullptr, pid_to_cmdline(1, buffer, 0));
}

TEST_F(Utils, AReplacedProgramKeepsItsName) {
  const std::string program = "/tmp/program";
  copy_program("/bin/cat", program.c_str());
  const child process(program.c_str(), {"cat", "-"});
  copy_program("/bin/cat", "/tmp/newer");
  ASSERT_EQ(0, rename("/tmp/newer", program.c_str()));
  EXPECT_EQ(program + " -", cmdline(process.pid(), 4096));
  write_file(program + " (deleted)", "a file that is really called so");
  EXPECT_EQ(program + " (deleted) -", cmdline(process.pid(), 4096));
  unlink((program + " (deleted)").c_str());
  unlink(program.c_str());
  EXPECT_EQ(program + " (deleted) -", cmdline(process.pid(), 4096)) << "nothing there that could be started";
}

// ---- Facts about processes --------------------------------------------------------------------------------

TEST_F(Utils, AThreadBelongsToItsProcess) {
  int32_t owner = 0;
  std::thread([&] { owner = wex_get_ppid_form_pid(static_cast<int32_t>(syscall(SYS_gettid))); }).join();
  EXPECT_EQ(getpid(), owner);
  EXPECT_EQ(getpid(), wex_get_ppid_form_pid(getpid()));
  EXPECT_EQ(-1, wex_get_ppid_form_pid(INT32_MAX));
  EXPECT_EQ(-1, wex_get_ppid_form_pid(-3));
}

TEST_F(Utils, ANameIsCopiedAsFarAsItFits) {
  const child process([] {
    prctl(PR_SET_NAME, "a) b (c%s");
    return true;
  });
  char name[16] = {};
  EXPECT_EQ(0, wex_get_pid_name(process.pid(), name, sizeof(name)));
  EXPECT_STREQ("a) b (c%s", name);
  EXPECT_EQ(0, wex_get_pid_name(process.pid(), name, 3));
  EXPECT_STREQ("a)", name);
  EXPECT_EQ(0, wex_get_pid_name(process.pid(), name, 1));
  EXPECT_STREQ("", name);
  EXPECT_EQ(-1, wex_get_pid_name(process.pid(), nullptr, 16));
  EXPECT_EQ(-1, wex_get_pid_name(process.pid(), name, 0));
  EXPECT_EQ(-1, wex_get_pid_name(INT32_MAX, name, 16));
}

// Something else in the place of a process's stat file, as long as it exists.
class stand_in {
 public:
  stand_in(pid_t pid, const std::string& text) : path_("/proc/" + std::to_string(pid) + "/stat") {
    write_file("/tmp/stand_in", text);
    EXPECT_EQ(0, mount("/tmp/stand_in", path_.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
  }
  ~stand_in() { EXPECT_EQ(0, umount2(path_.c_str(), MNT_DETACH)) << strerror(errno); }
  stand_in(const stand_in&) = delete;
  stand_in& operator=(const stand_in&) = delete;

 private:
  std::string path_;
};

TEST_F(Utils, APidThatNobodyHasIsGoneAtOnce) {
  for (const int32_t pid : {INT32_MAX, 0, -1, -getpid(), INT32_MIN}) {
    EXPECT_EQ(0, reads_of([&] { EXPECT_EQ(-1, process_life(pid)) << pid; })) << pid << ": no look is needed";
    EXPECT_FALSE(wex_pid_exists(pid)) << pid;
    EXPECT_EQ(process_look::gone, wex_look_at(pid).sight) << pid;
  }
  EXPECT_TRUE(wex_pid_exists(1)) << "also when signals to it are not allowed";
}

TEST_F(Utils, AStatFileDecidesAboutLifeOnlyWhenAStateStandsBehindTheName) {
  const struct {
    const char* text;
    int life;
  } rows[] = {{"", -1},        {"1", -1},           {"1 (a", -1},        {"1 (a)", -1},
              {"1 (a) ", -1},  {"1 (a)S 1", -1},    {"1 (a)  S", 0},     {"1 (a) S", 0},
              {"1 (a) Z", -1}, {"1 (a) X 1 2", -1}, {"1 (a) Z) R 1", 0}, {"1 (a) R) Z", -1},
              {")) S", 0},     {"1 a S 1 1", -1},   {"1 (a) ?", 0}};
  const child process;
  for (const auto& row : rows) {
    const stand_in stat(process.pid(), row.text);
    EXPECT_EQ(row.life, process_life(process.pid())) << row.text;
  }
  EXPECT_EQ(0, process_life(process.pid()));
}

TEST_F(Utils, AProcessThatCannotBeSeenIsNotGone) {
  const child process;
  {
    const stand_in stat(process.pid(), "1 (a) S 1");
    EXPECT_EQ(process_look::unreadable, wex_look_at(process.pid()).sight) << "no start time in it";
  }
  rlimit before = {};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const rlimit none = {0, before.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  const process_look look = wex_look_at(process.pid());
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_EQ(process_look::unreadable, look.sight) << "there was no descriptor to look with";
  EXPECT_EQ(process_look::seen, wex_look_at(process.pid()).sight);
}

TEST_F(Utils, ALivingProcessLivesAtOnce) {
  EXPECT_EQ(std::vector<int>{}, pauses_of([] { EXPECT_EQ(0, process_life(getpid())); }));
}

TEST_F(Utils, ANameFullOfParenthesesDoesNotHideTheState) {
  const child process([] {
    prctl(PR_SET_NAME, "x) Z 1 (");
    return true;
  });
  EXPECT_EQ(0, process_life(process.pid()));
  char state = 0;
  EXPECT_TRUE(wex_proc_stat(process.pid(), &state, nullptr));
  EXPECT_NE('Z', state);
}

TEST_F(Utils, AZombieIsGoneAfterThreeLooks) {
  const pid_t zombie = fork();
  if (zombie == 0) {
    _exit(0);
  }
  siginfo_t info = {};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT));
  const milliseconds taken = time_of([&] { EXPECT_EQ(-1, process_life(zombie)); });
  EXPECT_GE(taken, milliseconds(30));
  EXPECT_FALSE(wex_proc_lives(zombie, 0));
  char state = 0;
  EXPECT_TRUE(wex_proc_stat(zombie, &state, nullptr));
  EXPECT_EQ('Z', state);
  waitpid(zombie, nullptr, 0);
  EXPECT_FALSE(wex_proc_stat(zombie, &state, nullptr));
}

TEST_F(Utils, OneLookAtALivingProcessIsEnoughAndThreeAtADeadOne) {
  const child living;
  const pid_t zombie = fork();
  if (zombie == 0) {
    _exit(0);
  }
  siginfo_t info = {};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT));
  const long one_look = reads_of([&] { EXPECT_TRUE(wex_proc_stat(zombie, nullptr, nullptr)); });
  ASSERT_GT(one_look, 0);
  EXPECT_EQ(one_look, reads_of([&] { EXPECT_EQ(0, process_life(living.pid())); }));
  EXPECT_EQ(3 * one_look, reads_of([&] { EXPECT_EQ(-1, process_life(zombie)); }));
  waitpid(zombie, nullptr, 0);
}

TEST_F(Utils, TheLooksAtADeadProcessAreTenMillisecondsApart) {
  const child process;
  const stand_in stat(process.pid(), "no such text");
  EXPECT_EQ((std::vector<int>{10, 10, 10}), pauses_of([&] { EXPECT_EQ(-1, process_life(process.pid())); }));
}

TEST_F(Utils, TheStartTimeTellsAProcessFromItsPid) {
  const child process;
  uint64_t started = 0;
  uint64_t own = 0;
  ASSERT_TRUE(wex_proc_stat(process.pid(), nullptr, &started));
  ASSERT_TRUE(wex_proc_stat(getpid(), nullptr, &own));
  EXPECT_GT(started, 0u);
  EXPECT_LE(own, started) << "a child starts later than its parent";
  EXPECT_TRUE(wex_proc_lives(process.pid(), started));
  EXPECT_TRUE(wex_proc_lives(process.pid(), 0));
  EXPECT_FALSE(wex_proc_lives(process.pid(), started + 1));
  EXPECT_FALSE(wex_proc_lives(0, 0));
  EXPECT_FALSE(wex_proc_lives(-1, 0));
}

bool is_present(pid_t pid, uint64_t start_time) {
  return wex_judge_presence(wex_look_at(pid), start_time) == presence::present;
}

TEST_F(Utils, AProcessThatIsStillExitingIsDeadButPresent) {
  wex_test::dying_process dying;
  uint64_t started = 0;
  ASSERT_TRUE(wex_proc_stat(dying.pid(), nullptr, &started));
  EXPECT_TRUE(wex_proc_lives(dying.pid(), started));
  EXPECT_TRUE(is_present(dying.pid(), started));
  dying.begin_to_exit();
  EXPECT_TRUE(eventually([&] { return !wex_proc_lives(dying.pid(), started); }));
  const std::string facts = read_file("/proc/" + std::to_string(dying.pid()) + "/stat");
  EXPECT_EQ(std::string::npos, facts.find(") Z ")) << facts;
  EXPECT_TRUE(is_present(dying.pid(), started));
  EXPECT_TRUE(is_present(dying.pid(), 0));
  EXPECT_FALSE(is_present(dying.pid(), started + 1)) << "another process with its pid";
  dying.let_it_end();
  EXPECT_FALSE(is_present(dying.pid(), started));
}

TEST_F(Utils, AProcessWhoseMainThreadEndedFirstIsPresentUntilItsLastThreadEnds) {
  int go_on[2];
  ASSERT_EQ(0, pipe2(go_on, O_CLOEXEC));
  const pid_t pid = fork();
  if (pid == 0) {
    close(go_on[1]);
    pthread_t other;
    const auto wait_and_end = [](void* input) -> void* {
      char byte;
      (void)!read(*static_cast<int*>(input), &byte, 1);
      return nullptr;
    };
    if (pthread_create(&other, nullptr, wait_and_end, &go_on[0]) != 0) {
      _exit(1);
    }
    syscall(SYS_exit, 0);  // the main thread alone
  }
  close(go_on[0]);
  EXPECT_TRUE(eventually([&] { return !wex_proc_lives(pid, 0); }));
  EXPECT_TRUE(is_present(pid, 0));
  close(go_on[1]);
  EXPECT_TRUE(eventually([&] { return !is_present(pid, 0); }));
  waitpid(pid, nullptr, 0);
}

TEST_F(Utils, AZombieIsNotPresent) {
  const pid_t zombie = fork();
  if (zombie == 0) {
    _exit(0);
  }
  EXPECT_TRUE(eventually([&] { return !is_present(zombie, 0); }));
  waitpid(zombie, nullptr, 0);
}

// ---- The single-instance lock -----------------------------------------------------------------------------

TEST_F(Utils, TheLockFileHoldsThePidAndOneZeroByte) {
  write_file("/tmp/lock", "a much longer text from before");
  umask(0);
  const int first = already_running("/tmp/lock");
  ASSERT_GE(first, 0);
  EXPECT_EQ(std::to_string(getpid()) + '\0', read_file("/tmp/lock"));
  EXPECT_NE(0, fcntl(first, F_GETFD) & FD_CLOEXEC);
  const int second = already_running("/tmp/lock");
  EXPECT_GE(second, 0) << "a record lock belongs to the process";
  close(first);
  close(second);
  const int fresh = already_running("/tmp/lock2");
  EXPECT_EQ(0700u, mode_of("/tmp/lock2"));
  close(fresh);
}

TEST_F(Utils, ASecondProcessIsKeptOutWhileTheFirstLives) {
  child first([] {
    EXPECT_GE(already_running("/tmp/lock"), 0);
    return true;
  });
  EXPECT_EQ(-1, already_running("/tmp/lock"));
  EXPECT_EQ(std::to_string(first.pid()) + '\0', read_file("/tmp/lock")) << "the loser changes nothing";
  first.end();
  const int lock = already_running("/tmp/lock");
  EXPECT_GE(lock, 0);
  close(lock);
}

TEST_F(Utils, AnUntrustworthyLockFileIsRefused) {
  EXPECT_EQ(-1, already_running("/tmp/none/lock"));
  EXPECT_EQ(ENOENT, errno);
  ASSERT_EQ(0, mkfifo("/tmp/fifo", 0777));
  EXPECT_EQ(-1, already_running("/tmp/fifo"));
  EXPECT_EQ(ENXIO, errno);
  mkdir("/tmp/open", 0777);
  write_file("/tmp/victim", "precious");
  ASSERT_EQ(0, symlink("/tmp/victim", "/tmp/open/link"));
  ASSERT_EQ(0, lchown("/tmp/open/link", kOtherUser, kOtherUser));
  EXPECT_EQ(-1, already_running("/tmp/open/link"));
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ("precious", read_file("/tmp/victim"));
}

TEST_F(Utils, ALockFileOfAnotherUsersIsReplacedUnlessItIsHeld) {
  write_file("/tmp/lock", "theirs", 0666);
  ASSERT_EQ(0, chown("/tmp/lock", kOtherUser, kOtherUser));
  child holder([] { return setuid(kOtherUser) == 0 && wex_lock_file(open("/tmp/lock", O_RDWR)); });
  EXPECT_EQ(-1, already_running("/tmp/lock"));
  EXPECT_EQ(EAGAIN, errno) << "that is what tells a running daemon";
  EXPECT_EQ("theirs", read_file("/tmp/lock"));
  holder.end();
  for (const bool guarded : {false, true}) {
    ASSERT_EQ(0, chown("/tmp/lock", kOtherUser, kOtherUser));
    in_child([=] {
      if (guarded) {
        refuse_creation();  // also of what is there: only the open without O_CREAT is left
        EXPECT_EQ(-1, already_running("/tmp/lock")) << "taken away, and no new one could be made";
        EXPECT_EQ(EACCES, errno);
        EXPECT_FALSE(exists("/tmp/lock"));
        return;
      }
      EXPECT_GE(already_running("/tmp/lock"), 0);
      struct stat status = {};
      EXPECT_EQ(0, stat("/tmp/lock", &status));
      EXPECT_EQ(0u, status.st_uid);
    });
  }
}

TEST_F(Utils, ALockFileThatIsAnotherFileTooMakesRoomUnlessItIsHeld) {
  write_file("/tmp/victim", "precious");
  ASSERT_EQ(0, link("/tmp/victim", "/tmp/lock"));
  unique_fd holder(open("/tmp/victim", O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(wex_lock_file(holder.get()));
  in_child([] { EXPECT_EQ(-1, already_running("/tmp/lock")) << "whoever holds it may be the daemon"; });
  holder.reset();
  in_child([] { EXPECT_GE(already_running("/tmp/lock"), 0) << "nobody holds it"; });
  EXPECT_EQ("precious", read_file("/tmp/victim"));
}

// ---- The low-memory killer --------------------------------------------------------------------------------

TEST_F(Utils, AScoreIsWrittenWithItsZeroByte) {
  write_file("/tmp/score", "");
  const std::string target = "/proc/" + std::to_string(getpid()) + "/oom_score_adj";
  ASSERT_EQ(0, mount("/tmp/score", target.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
  EXPECT_EQ(7, wex_ignore_lmk(getpid()));
  EXPECT_EQ(std::string("-1000\n\0", 7), read_file("/tmp/score"));
  write_file("/tmp/score", "");
  EXPECT_EQ(3, wex_reset_lmk(getpid()));
  EXPECT_EQ(std::string("0\n\0", 3), read_file("/tmp/score"));
  EXPECT_EQ(0, umount(target.c_str()));
}

TEST_F(Utils, TheKernelTakesTheScore) {
  const child process;
  const std::string path = "/proc/" + std::to_string(process.pid()) + "/oom_score_adj";
  EXPECT_EQ(5, wex_set_lmk(345, process.pid()));
  EXPECT_EQ("345\n", read_file(path));
  EXPECT_EQ(3, wex_reset_lmk(process.pid()));
  EXPECT_EQ("0\n", read_file(path));
  EXPECT_EQ(-1, wex_set_lmk(1, INT32_MAX));
}

TEST_F(Utils, OnlyTheFirstDigitOfTheDaemonStatusCounts) {
  const lowmem_dir lowmem;
  const struct {
    const char* text;
    int status;
  } rows[] = {{"12", 1}, {"0\n", 0}, {"9", 9}, {"x", 0}, {"-1", 0}, {" 3", 0}};
  for (const auto& row : rows) {
    write_file(kWexStatus, row.text);
    EXPECT_EQ(row.status, wex_get_proc_status()) << '"' << row.text << '"';
  }
}

TEST_F(Utils, AMissingOrEmptyDaemonStatusIsSaid) {
  const lowmem_dir lowmem;
  set_levels(0, WEX_DBG_SILENT);
  EXPECT_EQ("[WEX:wex_utils:N]wex_get_proc_status: open wex_status file fail: No such file or directory\n",
            lines_printed_by([] { EXPECT_EQ(-1, wex_get_proc_status()); }));
  write_file(kWexStatus, "");
  EXPECT_EQ("[WEX:wex_utils:N]wex_get_proc_status: read wex_status file fail: Success\n",
            lines_printed_by([] { EXPECT_EQ(-1, wex_get_proc_status()); }));
}

// ---- Failures ---------------------------------------------------------------------------------------------
TEST_F(Utils, CommandLineOnADeviceWithoutProcIsNull) {
  in_child([] {
    ASSERT_EQ(0, chroot("/tmp"));
    char buffer[8] = "before";
    EXPECT_EQ(nullptr, pid_to_cmdline(getpid(), buffer, sizeof(buffer)));
    EXPECT_STREQ("", buffer);
  });
}

TEST_F(Utils, WhateverFailsIsToldByTheResultAlone) {
  set_levels(0, 0);
  g_wex_dbg_level[WEX_DBG_LIB] = 0;
  EXPECT_EQ("", printed_by([] {
              char text[16];
              EXPECT_EQ(-1, safe_read(-1, text, 1));
              EXPECT_EQ(-1, safe_write(-1, text, 1));
              EXPECT_EQ(-1, wex_read_to_buf("/tmp/none", text, sizeof(text)));
              EXPECT_EQ(-1, wex_read_to_buf("/tmp", text, sizeof(text)));
              EXPECT_EQ(nullptr, pid_to_cmdline(INT32_MAX, text, sizeof(text)));
              EXPECT_EQ(-1, wex_get_ppid_form_pid(INT32_MAX));
              EXPECT_EQ(-1, wex_get_pid_name(INT32_MAX, text, sizeof(text)));
              EXPECT_EQ(-1, process_life(INT32_MAX));
              EXPECT_EQ(-1, already_running("/tmp/none/lock"));
            }));
}

TEST_F(Utils, TheTwoThatTellTheirFailuresAreSilentAtLevelFour) {
  const lowmem_dir lowmem;
  EXPECT_EQ("", printed_by([] {
              EXPECT_EQ(-1, wex_get_proc_status());
              EXPECT_EQ(-1, safe_write_path("/tmp/none", "x", 1));
            }));
  write_file(kWexStatus, "");
  EXPECT_EQ("", printed_by([] { EXPECT_EQ(-1, wex_get_proc_status()); }));
}

// ---- Text ---------------------------------------------------------------------------------------------

TEST(Text, FormatTellsWhetherItFits) {
  char text[5];
  EXPECT_TRUE(wex_format(text, sizeof(text), "%d", 1234));
  EXPECT_FALSE(wex_format(text, sizeof(text), "%d", 12345));
  EXPECT_STREQ("1234", text);
  EXPECT_FALSE(wex_format(text, 0, "x"));
}

TEST(Text, CopyCutsAndEnds) {
  char text[4] = "###";
  wex_copy_text(text, sizeof(text), "abcdef");
  EXPECT_STREQ("abc", text);
  wex_copy_text(text, sizeof(text), "");
  EXPECT_STREQ("", text);
  text[0] = '#';
  wex_copy_text(text, 0, "x");
  EXPECT_EQ('#', text[0]);
}

// wex_proc_child: a new process, from its start to its program.
//
// Forking copies the page tables of the daemon, which takes longer than all else that a restart does. So
// where nothing but system calls comes before the program, the child has the daemon's memory until then, and
// the thread that starts it stands still. Both ways of starting run the same steps, and these take no lock
// and no memory: a fork may have left a lock behind in another thread's hands.
#define WEX_MODULE "wex_proc"
#include "wex_proc_child.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "guarded_file.h"
#include "held_dir.h"
#include "own_scheduling.h"
#include "ras_os.h"
#include "safe_io.h"
#include "signals_held.h"
#include "text_buffer.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_platform.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"

#ifdef SYS_timer_settime32  // where time_t has 64 bits: the call whose times are two longs each
#define WEX_SET_TIMER_CALL SYS_timer_settime32
#else
#define WEX_SET_TIMER_CALL SYS_timer_settime
#endif

namespace {

// What a child needs: its program, and what the parent has found out or opened before the fork.
struct child_start {
  const launch* what;
  bool parent_waits;     // vfork(): the child has our memory, and we stand still until it executes
  int run_dir;           // held open, or -1
  int old_file_dir;      // the directory of the replaced process's database file: held open, or -1
  const char* old_file;  // that file's name in it, or its path without it; null when the file is to stay
  int starting;          // what tells a parent that waits, by its closing, that we are a program; or -1
  // Written by a child that has our memory, read here when it has executed its program or ended:
  bool normal_lmk;  // its low-memory-killer score is the normal one
  bool at_program;  // all is done but executing it
  bool gave_up;     // it ends without having executed it
  int ways_given;   // children so far that were to have the pid of another registration
};

std::atomic<int> g_nice{0};  // the nice value of programs, when a child may begin with another
// Children get a copy of our memory from now on: vfork() is refused by the kernel or by a filter of system
// calls, or a child with our memory did not get to its program.
std::atomic<bool> g_sharing_refused{false};

// A child that ended because it had the pid of another registration.
struct way_given {
  int32_t pid;
  uint64_t start_time;
};
way_given g_ways_given[kWaysKept] WEX_TSA(guarded_by(wex_chains)) = {};
unsigned g_ways_given_count WEX_TSA(guarded_by(wex_chains)) = 0;

int32_t g_normal_lmk_child WEX_TSA(guarded_by(wex_spawn_mutex)) = 0;
int32_t g_child_that_gave_up WEX_TSA(guarded_by(wex_spawn_mutex)) = 0;
std::atomic<bool> g_console_missed{false};  // it could not be opened lately; a child with our memory says so

// ---- domain -----------------------------------------------------------------------------------------------

// The child's own copies: setenv() could wait for a lock that another thread held at the fork.
char g_domain_texts[kDomainVariables][kPathSize];
char* g_child_environment[kEnvironmentMax];

// Whether one of the first `set` texts sets the variable of `entry`.
bool is_domain_variable(const char* entry, int set) {
  for (int i = 0; i < set; ++i) {
    const size_t length = strcspn(g_domain_texts[i], "=") + 1;
    if (strncmp(entry, g_domain_texts[i], length) == 0) {
      return true;
    }
  }
  return false;
}

void set_domain_environment(int32_t vsd) {
  int set = 0;
  for (const domain_dir& dir : kDomainDirs) {
    if (dir.variable == nullptr || (dir.second_disk && !wex_has_second_disk())) {
      continue;
    }
    char value[kPathSize - 32];
    wex_format(value, sizeof value, dir.format, vsd);
    wex_format(g_domain_texts[set], sizeof g_domain_texts[set], "%s=%s", dir.variable, value);
    g_child_environment[set] = g_domain_texts[set];
    ++set;
  }
  int count = set;
  for (char** entry = environ; entry != nullptr && *entry != nullptr && count < kEnvironmentMax - 1;
       ++entry) {
    if (!is_domain_variable(*entry, set)) {
      g_child_environment[count++] = *entry;
    }
  }
  g_child_environment[count] = nullptr;
  environ = g_child_environment;
}

// Of a domain's program its group and variables, too. A domain that cannot be entered in full is no reason
// not to start the program.
// False when there is no directory to be in.
bool enter_working_directory(const launch& start) {
  if (start.domain >= kFirstDomain) {
    set_proc_env(start.domain, start.old_pid);
    return true;
  }
  const int result = chdir(kRootDir);
  if (result != 0) {
    wex_mk_forkfile();
    wex_dbg(WEX_DBG_PUB, "%s--> chdir failed, ret: %d\n", start.action->spawner, result);
  }
  return result == 0;
}

// ---- standard descriptors ---------------------------------------------------------------------------------

// The console must not hang the opening, nor become the controlling terminal of whoever opens it.
int open_std_device(const char* path, bool cloexec) {
  int fd = -1;
  for (int attempt = 1; (fd = open(path, O_RDWR | O_NONBLOCK | O_NOCTTY)) < 0; ++attempt) {
    if (attempt == kConsoleTries) {
      return -1;
    }
    wex_sleep_ms(kConsoleRetryMs);
  }
  if (cloexec) {
    ras_os_set_fd_close_on_exec(fd);
  }
  fcntl(fd, F_SETFL, 0);  // O_NONBLOCK is the only one of the flags that can be taken back
  return fd;
}

// Without a console the number would go to the next file that is opened, and every diagnostic into that file.
void plug(int wanted, bool cloexec) {
  const int fd = open(kNullDevice, O_RDWR | O_NOCTTY);
  if (fd != wanted && fd >= 0) {
    close(fd);
  } else if (cloexec) {
    ras_os_set_fd_close_on_exec(fd);
  }
}

// Opens what is to become descriptor `number`. What the opening gave, or -1.
int open_std_fd(const char* path, int number, bool cloexec) {
  const int fd = open_std_device(path, cloexec);
  if (fd < 0) {
    plug(number, cloexec);
  }
  return fd;
}

// Standard error is a second descriptor of standard output's console.
int duplicate_std_fd(int console, bool cloexec) {
  const int fd = console >= 0 ? dup(console) : -1;
  if (fd >= 0 && cloexec) {
    ras_os_set_fd_close_on_exec(fd);
  }
  return fd;
}

// ---- child ------------------------------------------------------------------------------------------------

// What keeps the child from its program, a disk or somebody at a higher priority, must not keep the daemon
// standing still for ever. Executing a program removes the timer; the time limit is the one that a domain's
// child has. A child that no signal can wake, because its file system is gone, holds the daemon all the same.
void limit_time_to_program() {
#if defined(SYS_timer_create) && defined(WEX_SET_TIMER_CALL)
  sigevent deadly = {};
  deadly.sigev_notify = SIGEV_SIGNAL;
  deadly.sigev_signo = SIGKILL;
  int timer = 0;
  const long once[4] = {0, 0, kPlatformTimeLimitMs / 1000, 0};
  if (syscall(SYS_timer_create, CLOCK_MONOTONIC, &deadly, &timer) == 0) {
    syscall(WEX_SET_TIMER_CALL, timer, 0, once, nullptr);
  }
#endif
}

// A fork has succeeded, so the fork-failure file of earlier failures goes.
void withdraw_fork_failures(int run_dir) {
  if (run_dir < 0) {
    wex_rm_forkfile();
  } else if (unlinkat(run_dir, kForkFileName, 0) != 0) {
    wex_dbg(WEX_DBG_PUB, "unlink file %s error, reason is %s\n", kForkFile, strerror(errno));
  }
}

// Takes the replaced process's database file away in the very process that becomes the program: when the
// daemon is killed after the fork, its next life finds either the file and no program, or the program and no
// file. Only between here and the exec there is neither, and after an exec that failed in a child with memory
// of its own: then the program is known to the present daemon alone, whose record gets the child's exit.
// Where the child tells that it gave up, the file is made again. That of a third-part program stays until its
// process has been found.
void remove_old_file(const child_start& start) {
  if (start.old_file == nullptr) {
    return;
  }
  if (start.old_file_dir < 0) {
    wex_unlink(start.old_file);
  } else {
    unlinkat(start.old_file_dir, start.old_file, 0);
  }
}

// execvp() for a name with a slash in it. Older C libraries take memory there for a script without "#!".
void execute_path(char* const* argv) {
  execve(argv[0], argv, environ);
  if (errno != ENOEXEC) {
    return;
  }
  char* through_shell[kMaxWords + 4] = {const_cast<char*>(kShell)};
  for (int i = 0; i < kMaxWords + 2 && argv[i] != nullptr; ++i) {
    through_shell[i + 1] = argv[i];
  }
  execve(kShell, through_shell, environ);
}

bool names_path(const char* word) {
  return strchr(word, '/') != nullptr;
}

// Returns only when there is nothing to execute.
void execute(char* const* argv) {
  if (argv[0] == nullptr) {
    errno = ENOENT;
  } else if (names_path(argv[0])) {
    execute_path(argv);
  } else {
    execvp(argv[0], argv);
  }
}

// Root opened the console for reading, too. What somebody types there is nothing for a user's program.
bool only_write_to_console() {
  int console = open(kConsole, O_WRONLY | O_NONBLOCK | O_NOCTTY);
  if (console < 0) {
    console = open(kNullDevice, O_WRONLY);
  }
  fcntl(console, F_SETFL, 0);
  const bool done = dup2(console, STDOUT_FILENO) >= 0 && dup2(console, STDERR_FILENO) >= 0;
  close(console);
  return done;
}

// Of a user's program, in strict mode.
bool is_users(const launch& what) {
  return what.user != nullptr && what.user->uid != 0;
}

// The daemon's own are for the priority of its threads. A user's program must not reach it.
bool give_up_priorities() {
  const struct rlimit none = {0, 0};
  return setrlimit(RLIMIT_RTPRIO, &none) == 0 && setrlimit(RLIMIT_NICE, &none) == 0;
}

// Last, for what comes before needs root's rights. A program whose user is not known must not run as root.
bool is_its_user(const launch& what) {
  if (!wex_strict().on) {
    return true;
  }
  const wex_user* const user = what.user;
  if (user != nullptr && (user->uid == 0 || (only_write_to_console() && give_up_priorities())) &&
      become_user(user->uid, user->gid, user->groups, user->group_count)) {
    return true;
  }
  wex_dbg(WEX_DBG_PUB, "%s--> cannot become the user of the program: %s\n", what.action->spawner,
          user != nullptr ? strerror(errno) : "not known");
  return false;
}

// Whether the child has the pid of another registration, whose process has ended and whose exit has not been
// handled: from then on nobody could tell the two apart. It gives way, and the kernel has another pid for the
// next one. Parent and child find the same, for the registry is locked.
bool gives_way(const child_start& start, pid_t child) WEX_TSA(requires_capability(wex_chains)) {
  const wex_pid* const other =
      start.ways_given < kWaysGiven ? __wex_find_pid(&wex_chains, static_cast<int32_t>(child)) : nullptr;
  return other != nullptr && other != start.what->rec;
}

// Never back into the daemon's loops.
[[noreturn]] void give_up(child_start& start) {
  start.gave_up = true;
  _exit(1);
}

// All that comes between the start and the program, for both ways of starting. A handler of the daemon's must
// not run here: the memory may be the daemon's. So the handlers go before the signals are let through again,
// and what is ignored is still ignored then, for a signal may have been sent to the daemon's whole group.
[[noreturn]] void run_child(child_start& start) WEX_TSA(requires_capability(wex_chains)) {
  const launch& what = *start.what;
  if (gives_way(start, getpid())) {
    _exit(0);
  }
  set_own_scheduling(SCHED_OTHER, 0);  // first, where it did not begin so: opening the console may block, and
                                       // at real-time priority nobody else would run
  if (g_nice != 0) {
    setpriority(PRIO_PROCESS, 0, g_nice);
  }
  if (start.parent_waits) {
    limit_time_to_program();
  }
  wex_create_std_fd(0);
  ignore_handled_signals();
  clear_signal_mask();
  setsid();
  reset_signal_actions();
  if (!enter_working_directory(what)) {
    give_up(start);
  }
  withdraw_fork_failures(start.run_dir);
  if (!flush_tlb()) {
    wex_dbg(WEX_DBG_PUB, "%s find fail, error = %s.\n", kFlushTlb, strerror(errno));
  }
  start.normal_lmk = wex_reset_lmk(static_cast<int32_t>(getpid())) > 0;  // before the program can fork
  remove_old_file(start);
  if (is_users(what)) {
    close(start.starting);  // from now on he may stop the child, and choose how long its program takes to be
                            // read
  }
  if (!is_its_user(what)) {
    give_up(start);
  }
  start.at_program = true;
  execute(what.words.argv);
  wex_dbg(WEX_DBG_PUB, "%s execvp fail, error = %s.\n", what.action->begun_entry, strerror(errno));
  give_up(start);
}

// ---- parent -----------------------------------------------------------------------------------------------

// False once the child has executed its program or ended.
bool runs_our_code(pid_t child) {
  char path[kPathSize];
  char ours[kPathSize];
  char its[kPathSize];
  wex_format(path, sizeof path, kProcExeFmt, static_cast<int>(getpid()));
  const ssize_t our_length = readlink(path, ours, sizeof ours);
  wex_format(path, sizeof path, kProcExeFmt, static_cast<int>(child));
  const ssize_t its_length = readlink(path, its, sizeof its);
  return our_length > 0 && our_length == its_length &&
         memcmp(ours, its, static_cast<size_t>(its_length)) == 0;
}

// A domain's child runs foreign code before its program starts; one that never gets there would leave its
// program down with nobody noticing. The end of the pipe tells at once that the program runs. A process that
// the platform forked meanwhile may hold the pipe open, so the child itself is looked at, too.
void await_exec(pid_t child, const unique_fd& started) {
  struct pollfd end = {started.get(), POLLIN, 0};
  const int64_t deadline = wex_clock_ms() + kPlatformTimeLimitMs;
  wex_status_show_soon();
  do {
    if (poll(&end, 1, kPlatformLookMs) > 0 || !runs_our_code(child)) {
      return;
    }
  } while (wex_clock_ms() < deadline);
  wex_dbg(WEX_DBG_PUB, "%s: child %d did not get to its program, killed\n", __func__,
          static_cast<int>(child));
  kill(child, SIGKILL);
}

// A child that finds no console tries again for some time. A parent that lent its memory would stand still
// meanwhile, so no memory is lent as long as the console is missing.
bool console_is_there() {
  if (g_console_missed.load()) {
    const unique_fd console(open(kConsole, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    g_console_missed.store(!console.valid());
  }
  return !g_console_missed.load();
}

// Whether the child may have our memory: what it does takes only system calls, and no time. A domain's child
// calls foreign code, and the search for a bare word may take memory. A third-part program is looked for
// next: found as soon as it is executed, it would be taken for one that stays, though it may be about to
// detach. The kernel takes the memory of a process that has become a user for his, until the program is
// executed, so it must not be ours.
bool may_share_memory(const launch& what) {
  const char* const word = what.words.argv[0];
  const bool only_calls = what.domain < kFirstDomain && (word == nullptr || names_path(word));
  return only_calls && !what.third_part && !is_users(what) && !g_sharing_refused.load() && console_is_there();
}

// The stack is shared as well. So this function calls nothing that returns in the child, and is never inlined
// into one that does. Not clone(): with shared memory it makes C libraries before glibc 2.25 forget who the
// calling thread is, by which its mutexes know their holder.
__attribute__((noinline)) pid_t share_memory_with_child(child_start& start)
    WEX_TSA(requires_capability(wex_chains)) {
  // NOLINTBEGIN(clang-analyzer-security.insecureAPI.vfork, clang-analyzer-unix.Vfork)
  const pid_t child = vfork();
  if (child == 0) {
    run_child(start);
  }
  // NOLINTEND(clang-analyzer-security.insecureAPI.vfork, clang-analyzer-unix.Vfork)
  return child;
}

__attribute__((noinline)) pid_t fork_child(child_start& start) WEX_TSA(requires_capability(wex_chains)) {
  const pid_t child = fork();
  if (child == 0) {
    run_child(start);
  }
  return child;
}

// Whether the child was killed before it was a program. It is reaped then. It gives our memory back a moment
// before its end can be seen. One that lives, and has not told that it is about to execute, has memory of its
// own: some emulators and sanitizers fork where vfork() is called.
bool was_cut_short(const child_start& start, pid_t child, int64_t took_ms) {
  if (start.at_program && took_ms < kPlatformTimeLimitMs) {
    return false;
  }
  siginfo_t end = {};
  for (int look = 0; look < kKilledChildLooks && end.si_pid == 0; ++look) {
    wex_sleep_ms(kKilledChildMs);
    if (waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0) {
      return false;
    }
  }
  if (end.si_pid == 0) {
    g_sharing_refused.store(!start.at_program || g_sharing_refused.load());
    return false;
  }
  return end.si_code == CLD_KILLED && end.si_status == SIGKILL && waitpid(child, nullptr, WNOHANG) == child;
}

// Starts a child that has the daemon's memory until it is a program. False when one is to be forked instead:
// this way of starting is refused, or the child was killed on its way, by its time limit most likely. That is
// no end of the program, and the next child may take all the time it needs.
bool start_in_our_memory(child_start* start, pid_t* child) WEX_TSA(requires_capability(wex_chains)) {
  const int64_t begun = wex_clock_ms();
  *child = share_memory_with_child(*start);
  if (*child > 0) {
    return gives_way(*start, *child) || !was_cut_short(*start, *child, wex_clock_ms() - begun);
  }
  return errno == EAGAIN || errno == ENOMEM;
}

// The child's pid, or -1 with errno. Signals are held back, because a handler would run in shared memory.
pid_t share_or_fork(child_start* start) WEX_TSA(requires_capability(wex_chains)) {
  const signals_held all_signals;
  if (start->parent_waits) {
    pid_t child = -1;
    if (start_in_our_memory(start, &child)) {
      return child;
    }
    g_sharing_refused.store(true);
    start->parent_waits = false;
  }
  return fork_child(*start);
}

// Its end will be reported under the other registration's pid. It cannot have been reaped yet.
void note_way_given(pid_t child) WEX_TSA(requires_capability(wex_chains)) {
  const process_look look = wex_look_at(static_cast<int32_t>(child));
  if (look.sight == process_look::seen) {
    g_ways_given[g_ways_given_count++ % kWaysKept] = {static_cast<int32_t>(child), look.start_time};
  }
}

pid_t start_child(child_start* start) WEX_TSA(requires_capability(wex_chains)) {
  pid_t child = share_or_fork(start);
  while (child > 0 && gives_way(*start, child)) {
    note_way_given(child);
    ++start->ways_given;
    child = share_or_fork(start);
  }
  __wex_expect_child(static_cast<int32_t>(child));
  return child;
}

// The child of a domain, which gets its flag file, and is waited for until it has executed its program.
pid_t start_in_domain(child_start* start) WEX_TSA(requires_capability(wex_chains)) {
  int ends[2] = {-1, -1};
  if (pipe(ends) == 0) {
    ras_os_set_fd_close_on_exec(ends[0]);
    ras_os_set_fd_close_on_exec(ends[1]);
  }
  const unique_fd started(ends[0]);
  unique_fd starting(ends[1]);
  start->starting = starting.get();
  const pid_t child = start_child(start);
  starting.reset();
  if (child > 0) {
    const wex_user* const user = start->what->user;
    wex_save_proc_info_of(user != nullptr ? user->uid : 0, start->what->domain, static_cast<int32_t>(child));
    if (started.valid()) {
      await_exec(child, started);
    }
  }
  return child;
}

// Where the replaced process's database file is.
void find_old_file(child_start* start, char (&path)[kPathSize]) {
  const launch& what = *start->what;
  if (what.third_part || !wex_name_pidfile(what.rec, path)) {
    return;
  }
  start->old_file = path;
  start->old_file_dir = what.rec->vsd == kMainSystem ? wex_database_dir.get() : -1;
  if (start->old_file_dir >= 0) {
    start->old_file = strrchr(path, '/') + 1;
  }
}

}  // namespace

pid_t wex_start_child(const launch& what) {
  char path[kPathSize];
  child_start start = {&what, may_share_memory(what), wex_run_dir.get(), -1, nullptr, -1, false, false, false,
                       0};
  find_old_file(&start, path);
  const pid_t child = what.domain >= kFirstDomain ? start_in_domain(&start) : start_child(&start);
  g_normal_lmk_child = start.normal_lmk ? static_cast<int32_t>(child) : 0;
  g_child_that_gave_up = start.gave_up ? static_cast<int32_t>(child) : 0;
  return child;
}

bool __wex_gave_way_to(const wex_pid* rec, uint32_t exit_code, uint64_t exit_tick) {
  const auto is_its_end = [=](const way_given& way) {
    return way.pid == rec->pid && rec->start_time != 0 && rec->start_time < way.start_time &&
           exit_tick + kStartTickSlack >= way.start_time;
  };
  return exit_code == 0 && exit_tick != 0 &&
         std::any_of(std::begin(g_ways_given), std::end(g_ways_given), is_its_end);
}

void wex_start_children_at_normal_priority(int own_priority) {
#ifdef SCHED_RESET_ON_FORK
  errno = 0;
  const int nice = getpriority(PRIO_PROCESS, 0);
  if (errno == 0 && set_own_scheduling(SCHED_FIFO | SCHED_RESET_ON_FORK, own_priority) == 0) {
    g_nice = nice;  // such a child would have lost it; before 2.6.32 the call is refused
  }
#endif
}

bool wex_child_has_normal_lmk(int32_t pid) {
  return pid > 0 && pid == g_normal_lmk_child;
}

bool wex_child_gave_up(int32_t pid) {
  return pid > 0 && pid == g_child_that_gave_up;
}

extern "C" {

void wex_create_std_fd(int cloexec) {
  for (int fd = 0; fd <= 2; ++fd) {
    close(fd);
  }
  const bool hidden = cloexec != 0;
  const int input = open_std_fd(kNullDevice, STDIN_FILENO, hidden);
  const int output = open_std_fd(kConsole, STDOUT_FILENO, hidden);
  int error = duplicate_std_fd(output, hidden);
  if (error < 0) {
    error = open_std_fd(kConsole, STDERR_FILENO, hidden);
  }
  g_console_missed.store(output < 0);
  if (wex_is_open_pub_dbg() == 0) {
    return;
  }
  const int pid = static_cast<int>(getpid());
  wex_dbg(WEX_DBG_PUB, "pid:%d stdin(%s) fd %d\n", pid, kNullDevice, input);
  wex_dbg(WEX_DBG_PUB, "pid:%d stdout(%s) fd %d\n", pid, kConsole, output);
  wex_dbg(WEX_DBG_PUB, "pid:%d stderr(%s) fd %d\n", pid, kConsole, error);
}

void set_proc_env(int32_t vsd, int32_t old_pid) {
  if (fs_set_vsd_envs(vsd, old_pid) < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: fs set vsd envs fail\n", __func__);
    return;
  }
  set_domain_environment(vsd);
  if (wex_enter_run_dir(vsd) != 0) {
    return;
  }
  if (enter_domain_group(vsd) == 0) {
    wex_dbg(WEX_DBG_PUB, "setgroups success\n");
  }
  wex_remove_flag_files(vsd, old_pid);
}

int wex_mk_forkfile(void) {
  unique_fd file = wex_open_file(kForkFile, O_WRONLY | O_CREAT | O_APPEND | O_SYNC, kForkFileMode);
  struct stat facts = {};
  // A user's would never count. He may make his anew whenever it has gone, so root's takes the name from it.
  if (wex_strict().on && (!file.valid() || fstat(file.get(), &facts) != 0 || facts.st_uid != 0)) {
    file = wex_create_in_place(kForkFile, kForkFileMode);
  }
  if (!file.valid() || safe_write(file.get(), "a", 1) != 1) {
    return -1;
  }
  fsync(file.get());
  return 0;
}

void wex_rm_forkfile(void) {
  if (wex_unlink(kForkFile) != 0) {
    wex_dbg(WEX_DBG_PUB, "unlink file %s error, reason is %s\n", kForkFile, strerror(errno));
  }
}

}  // extern "C"

// The service that tests have supervised. What it does is its command line, done from left to right; it
// ends with status 0 behind the last word. Every option is one row of the table at the end.
//
// A restarted service gets the same command line again: --first-time guards what must not happen twice.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/sched.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "wex.h"

namespace {

bool skip_next = false;

// ---- Helpers ----------------------------------------------------------------------------------------------

[[noreturn]] void give_up(const char* what) {
  fprintf(stderr, "actor: %s: %s\n", what, strerror(errno));
  exit(120);
}

void wait_ms(long ms) {
  timespec left = {static_cast<time_t>(ms / 1000), ms % 1000 * 1000000};
  while (nanosleep(&left, &left) != 0) {
  }
}

int own_tid() {
  return static_cast<int>(syscall(SYS_gettid));
}

int signal_named(const char* name) {
  const struct {
    const char* name;
    int number;
  } kSignals[] = {{"SEGV", SIGSEGV}, {"ABRT", SIGABRT}, {"TERM", SIGTERM}, {"KILL", SIGKILL},
                  {"INT", SIGINT},   {"HUP", SIGHUP},   {"QUIT", SIGQUIT}, {"USR1", SIGUSR1},
                  {"USR2", SIGUSR2}, {"BUS", SIGBUS}};
  for (const auto& signal : kSignals) {
    if (strcmp(signal.name, name) == 0) {
      return signal.number;
    }
  }
  return atoi(name);
}

uint32_t type_named(const char* name) {
  return strcmp(name, "SHELL") == 0 ? WEX_SHELL_RESTART : WEX_RESTART;
}

std::string text_of(const std::string& path) {
  std::string text;
  FILE* file = fopen(path.c_str(), "re");
  for (int byte = file ? fgetc(file) : EOF; byte != EOF; byte = fgetc(file)) {
    text += static_cast<char>(byte);
  }
  if (file) {
    fclose(file);
  }
  return text;
}

bool try_to_write(const char* path, const std::string& text) {  // readers never see half of it
  const std::string draft = std::string(path) + ".draft";
  FILE* file = fopen(draft.c_str(), "we");
  if (!file) {
    return false;
  }
  const bool written = fwrite(text.data(), 1, text.size(), file) == text.size();
  return fclose(file) == 0 && written && rename(draft.c_str(), path) == 0;
}

// On a disk that a test has filled there is room again when others remove their files.
void write_whole(const char* path, const std::string& text) {
  constexpr int kTries = 5000;
  for (int tries = 1; !try_to_write(path, text); ++tries) {
    if (errno != ENOSPC || tries == kTries) {
      give_up(path);
    }
    usleep(10000);
  }
}

// ---- Facts about ourselves --------------------------------------------------------------------------------

void add(std::string* out, const char* key, const std::string& value) {
  *out += key + (" " + value) + "\n";
}
void add(std::string* out, const char* key, long value) {
  add(out, key, std::to_string(value));
}

void add_zero_parted(std::string* out, const char* key, const char* path) {
  const std::string text = text_of(path);
  for (size_t at = 0; at < text.size(); at += strlen(text.c_str() + at) + 1) {
    add(out, key, text.c_str() + at);
  }
}

void add_descriptors(std::string* out) {
  DIR* dir = opendir("/proc/self/fd");
  while (const dirent* entry = dir ? readdir(dir) : nullptr) {
    const int fd = atoi(entry->d_name);
    char target[512] = "";
    if (entry->d_name[0] == '.' || fd == dirfd(dir)) {
      continue;
    }
    if (readlinkat(dirfd(dir), entry->d_name, target, sizeof target - 1) > 0) {
      add(out, "fd", std::to_string(fd) + " " + target);
      add(out, "fd_flags",
          std::to_string(fd) + " " + std::to_string(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK)));
    }
  }
  closedir(dir);
}

void add_signals(std::string* out) {
  for (int number = 1; number <= 127; number++) {
    struct sigaction now;
    if (sigaction(number, nullptr, &now) == 0 && now.sa_handler != SIG_DFL) {
      add(out, now.sa_handler == SIG_IGN ? "signal_ignored" : "signal_caught", number);
    }
  }
  const std::string status = text_of("/proc/self/status");
  for (const char* key : {"SigIgn", "SigCgt", "SigBlk", "Groups", "Cpus_allowed_list"}) {
    const size_t at = status.find("\n" + std::string(key) + ":\t");
    add(out, key, status.substr(at + strlen(key) + 3, status.find('\n', at + 1) - at - strlen(key) - 3));
  }
}

// One fact a line, key first: pid, ppid, pgrp, session, cwd, umask, argv (one a word), fd "number target",
// fd_flags, signal_ignored, signal_caught, SigIgn..., policy, priority, nice, group, env, oom_score_adj,
// nofile "soft hard".
void tell_facts(const char* path) {
  std::string out;
  char cwd[4096];
  add(&out, "pid", getpid());
  add(&out, "ppid", getppid());
  add(&out, "pgrp", getpgrp());
  add(&out, "session", getsid(0));
  add(&out, "cwd", getcwd(cwd, sizeof cwd) ? cwd : "");
  const mode_t mask = umask(0);
  umask(mask);
  add(&out, "umask", mask);
  add_zero_parted(&out, "argv", "/proc/self/cmdline");
  add_zero_parted(&out, "env", "/proc/self/environ");
  add_descriptors(&out);
  add_signals(&out);
  sched_param how = {};
  sched_getparam(0, &how);
  add(&out, "policy", sched_getscheduler(0));
  add(&out, "priority", how.sched_priority);
  add(&out, "nice", getpriority(PRIO_PROCESS, 0));
  gid_t groups[64];
  const int count = getgroups(64, groups);
  for (int at = 0; at < count; at++) {
    add(&out, "group", static_cast<long>(groups[at]));
  }
  const std::string score = text_of("/proc/self/oom_score_adj");
  add(&out, "oom_score_adj", score.substr(0, score.find('\n')));
  rlimit files = {};
  getrlimit(RLIMIT_NOFILE, &files);
  add(&out, "nofile", std::to_string(files.rlim_cur) + " " + std::to_string(files.rlim_max));
  write_whole(path, out);
}

// ---- Registration -----------------------------------------------------------------------------------------

void reg(const char* type) {
  reg_process_exit_action(0, type_named(type));
}
void reg_shell(const char* path) {
  reg_process_exit_action_shell(0, WEX_SHELL_RESTART, path);
}

void reg_third(const char* action) {
  if (reg_third_part_process_exit_action(getpid(), action) != 0) {
    give_up("third-part registration");
  }
}

void delay_restarts(const char* seconds) {
  wex_time_set(0, WEX_RESTART, atoi(seconds));
}
void cancel(const char*) {
  wex_cancel_proc(0);
}
// The daemon answers a request before it acts on it, and the answer to an earlier request, for which nobody
// waited, may be taken for the answer to this one. So there are two requests: the answer to the second proves
// that the daemon has begun the first, and has acted on everything before it.
void confirm(const char*) {
  constexpr int32_t kNobody = INT32_MAX;
  wex_client_unreg_thread_notify(kNobody);
  wex_client_unreg_thread_notify(kNobody);
}

// ---- Threads under hang detection -------------------------------------------------------------------------

struct reporter {
  int period, count;
  bool keeps_process;  // registered so that a hang is logged but does not abort
  volatile bool silent;
  int result;
  pthread_barrier_t registered;
};

constexpr size_t kMaxReporters = 32;
reporter reporters[kMaxReporters];
size_t reporter_count = 0;

void* report_for_ever(void* data) {
  auto* self = static_cast<reporter*>(data);
  self->result = (self->keeps_process ? wex_client_reg_thread_notify_no_proc : wex_client_reg_thread_notify)(
      getpid(), own_tid(), self->period, self->count);
  pthread_barrier_wait(&self->registered);
  for (;;) {
    if (!self->silent) {
      wex_client_reset_thread_notify(getpid(), own_tid(), self->period, self->count);
    }
    wait_ms(100);
  }
}

void start_reporter(const char* period, bool keeps_process) {
  if (reporter_count == kMaxReporters) {
    give_up("too many threads");
  }
  reporter* self = &reporters[reporter_count++];
  self->period = atoi(period);
  self->count = strchr(period, ',') ? atoi(strchr(period, ',') + 1) : 1;
  self->keeps_process = keeps_process;
  pthread_barrier_init(&self->registered, nullptr, 2);
  pthread_t thread;
  if (pthread_create(&thread, nullptr, report_for_ever, self) != 0) {
    give_up("pthread_create");
  }
  pthread_barrier_wait(&self->registered);
  if (self->result != 0) {
    give_up("thread registration");
  }
}

void thread(const char* period) {
  start_reporter(period, false);
}
void thread_no_proc(const char* period) {
  start_reporter(period, true);
}

void hang(const char*) {
  if (reporter_count == 0) {
    give_up("no thread to hang");
  }
  reporters[reporter_count - 1].silent = true;
}

void resume(const char*) {
  for (reporter& each : reporters) {
    each.silent = false;
  }
}

void register_main_thread(const char* period) {
  wex_client_reg_thread_notify(getpid(), own_tid(), atoi(period), 1);
}

// ---- Ways to live -----------------------------------------------------------------------------------------

void ready(const char* path) {
  write_whole(path, std::to_string(getpid()) + "\n");
}

void count_start(const char* path) {  // one line a start, so that a test can count them
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  const std::string line = std::to_string(getpid()) + "\n";
  if (fd < 0 || write(fd, line.data(), line.size()) < 0) {
    give_up(path);
  }
  close(fd);
}

void first_time(const char* path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  skip_next = fd < 0;
  if (fd >= 0) {
    close(fd);
  }
}

void sleep_ms(const char* ms) {
  wait_ms(atol(ms));
}

void wait_for_file(const char* path) {
  while (access(path, F_OK) != 0) {
    wait_ms(10);
  }
}

void hold(const char*) {
  for (;;) {
    pause();
  }
}

// All is left where it is, but the arguments end where they begin.
void forget_words(const char*) {
  char text[1024] = "";
  const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  const char* at = read(fd, text, sizeof text - 1) > 0 ? strrchr(text, ')') : nullptr;
  close(fd);
  unsigned long long field[52] = {};
  for (int number = 3; at != nullptr && number < 52; ++number) {
    at = strchr(at + 1, ' ');
    field[number] = at != nullptr ? strtoull(at, nullptr, 10) : 0;
  }
  prctl_mm_map map = {};
  map.start_code = field[26], map.end_code = field[27], map.start_stack = field[28];
  map.start_data = field[45], map.end_data = field[46], map.start_brk = field[47];
  map.brk = reinterpret_cast<unsigned long>(sbrk(0));
  map.arg_start = map.arg_end = field[48];
  map.env_start = field[50], map.env_end = field[51];
  map.exe_fd = static_cast<unsigned>(-1);
  if (prctl(PR_SET_MM, PR_SET_MM_MAP, &map, sizeof map, 0) != 0) {
    give_up("prctl(PR_SET_MM)");
  }
}

void exec_without_name(const char* program) {
  char nothing_at_all[] = "";
  char* const words[] = {nothing_at_all, nullptr};
  execv(program, words);
  give_up(program);
}

void ignore(const char* name) {
  signal(signal_named(name), SIG_IGN);
}

volatile sig_atomic_t term_status = 0;

void exit_on_term(const char* code) {
  term_status = atoi(code);
  signal(SIGTERM, [](int) { _exit(term_status); });
}

void lock_file(const char* path) {  // kept open, and so locked, until we are gone
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0 || fcntl(fd, F_SETLK, &whole) != 0) {
    give_up(path);
  }
}

void lock_in_child(
    const char* path) {  // a child that lives on and keeps the file locked, for "MS," or for ever
  const char* comma = strchr(path, ',');
  int done[2];
  if (pipe2(done, O_CLOEXEC) != 0) {
    give_up("pipe");
  }
  if (fork() == 0) {
    lock_file(comma ? comma + 1 : path);
    close(done[0]);
    close(done[1]);
    comma ? sleep_ms(path) : hold(nullptr);
    _exit(0);
  }
  char byte;
  close(done[1]);
  if (read(done[0], &byte, 1) < 0) {
    give_up("pipe");
  }
  close(done[0]);
}

void daemonise(const char*) {
  if (fork() != 0) {
    _exit(0);
  }
  setsid();
}

void leave_child(const char* ms) {
  if (fork() == 0) {
    sleep_ms(ms);
    _exit(0);
  }
}

// This program anew, with its own words.
[[noreturn]] void execute_again() {
  char* words[64];
  size_t count = 0;
  const std::string line = text_of("/proc/self/cmdline");
  for (size_t at = 0; at < line.size() && count < 63; at += strlen(line.c_str() + at) + 1) {
    words[count++] = strdup(line.c_str() + at);
  }
  words[count] = nullptr;
  execv("/proc/self/exe", words);
  _exit(121);
}

void restart_self(
    const char*) {  // as a program that replaces itself: the new one runs before the old one ends
  if (fork() == 0) {
    setsid();
    execute_again();
  }
}

void join_group(const char* group) {
  const gid_t only = static_cast<gid_t>(atol(group));
  if (setgroups(1, &only) != 0) {
    give_up("setgroups");
  }
}

void grow(const char* mib) {
  const size_t size = static_cast<size_t>(atol(mib)) << 20;
  char* memory = static_cast<char*>(malloc(size));
  if (!memory) {
    give_up("malloc");
  }
  for (size_t at = 0; at < size; at += 4096) {
    static_cast<volatile char*>(memory)[at] = 1;
  }
}

void open_file(const char* path) {
  if (open(path, O_RDWR | O_CREAT, 0666) < 0) {
    give_up(path);
  }
}

void set_variable(const char* assignment) {
  const std::string name(assignment, strcspn(assignment, "="));
  setenv(name.c_str(), assignment[name.size()] ? assignment + name.size() + 1 : "", 1);
}

void change_dir(const char* path) {
  if (chdir(path) != 0) {
    give_up(path);
  }
}

void say(const char* text) {
  if (write(STDOUT_FILENO, text, strlen(text)) < 0 || write(STDOUT_FILENO, "\n", 1) < 0) {
    give_up("standard output");
  }
}

// ---- Ways to die ------------------------------------------------------------------------------------------

void dump_core(const char*) {  // let a crash dump core, which shows in the exit code
  const rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
  setrlimit(RLIMIT_CORE, &all);
}

void crash(const char* name) {
  const int number = signal_named(name);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, number);
  if (number != SIGKILL) {
    signal(number, SIG_DFL);
  }
  sigprocmask(SIG_UNBLOCK, &only, nullptr);
  kill(getpid(), number);
  hold(nullptr);
}

void crash_in_thread(const char* name) {  // the main thread does nothing about it
  pthread_t thread;
  pthread_create(
      &thread, nullptr,
      [](void* signal) -> void* {
        crash(static_cast<const char*>(signal));
        return nullptr;
      },
      const_cast<char*>(name));
  hold(nullptr);
}

void exec_in_thread(
    const char*) {  // this program anew under the same pid, from a thread that is not the first
  pthread_t thread;
  pthread_create(
      &thread, nullptr, [](void*) -> void* { execute_again(); }, nullptr);
  hold(nullptr);
}

void end_thread(const char* path) {
  pthread_t thread;
  const auto register_and_end = [](void* file) -> void* {
    const char* const tid_file = static_cast<const char*>(file);
    if (tid_file[0] != '\0') {
      reg_process_exit_action(own_tid(), WEX_RESTART);
      confirm(nullptr);
      write_whole(tid_file, std::to_string(own_tid()));
    }
    return nullptr;
  };
  if (pthread_create(&thread, nullptr, register_and_end, const_cast<char*>(path)) != 0) {
    give_up("pthread_create");
  }
  pthread_join(thread, nullptr);
}

void end(const char* code) {
  _exit(atoi(code));
}
// What is left of the process then is a thread that holds, and a first thread that is a zombie.
void end_main_thread(const char*) {
  pthread_t thread;
  const auto hold_on = [](void*) -> void* {
    hold(nullptr);
    return nullptr;
  };
  if (pthread_create(&thread, nullptr, hold_on, nullptr) != 0) {
    give_up("pthread_create");
  }
  pthread_exit(nullptr);
}

bool main_thread_has_ended() {
  char state = 0;
  FILE* const stat = fopen("/proc/self/stat", "r");
  const bool ended = stat != nullptr && fscanf(stat, "%*d (%*[^)]) %c", &state) == 1 && state == 'Z';
  if (stat != nullptr) {
    fclose(stat);
  }
  return ended;
}

// Reported is then the first thread, without a core dump, and the other one some time later.
void crash_without_main(const char* name) {
  pthread_t thread;
  const auto wait_and_crash = [](void* signal) -> void* {
    while (!main_thread_has_ended()) {
      usleep(1000);
    }
    crash(static_cast<const char*>(signal));
    return nullptr;
  };
  if (pthread_create(&thread, nullptr, wait_and_crash, const_cast<char*>(name)) != 0) {
    give_up("pthread_create");
  }
  pthread_exit(nullptr);
}

// A sibling that has the pid which stands in the file once that is there, and is a user's.
void crash_as_sibling(const char* file) {
  long wanted = 0;
  while (wanted == 0) {
    FILE* const text = fopen(file, "r");
    if (text == nullptr || fscanf(text, "%ld", &wanted) != 1) {
      wanted = 0;
    }
    if (text != nullptr) {
      fclose(text);
    }
    usleep(10000);
  }
  pid_t pid = static_cast<pid_t>(wanted);
  clone_args how = {};
  how.flags = CLONE_PARENT;
  how.set_tid = reinterpret_cast<uintptr_t>(&pid);
  how.set_tid_size = 1;
  const long child = syscall(SYS_clone3, &how, sizeof how);
  if (child < 0) {
    give_up("clone3");
  }
  if (child == 0) {
    if (chdir("/tmp") != 0 || setgroups(0, nullptr) != 0 || setresgid(1235, 1235, 1235) != 0 ||
        setresuid(1234, 1234, 1234) != 0) {
      give_up("user");
    }
    execl("/proc/self/exe", "actor", "--core", "--crash-without-main=SEGV", nullptr);
    give_up("execl");
  }
}

void nothing(const char*) {}

// ---- The table --------------------------------------------------------------------------------------------

const struct option_row {
  const char* name;
  void (*act)(const char* value);
  const char* help;
} kOptions[] = {
    {"--register", reg, "=RESTART|SHELL  reg_process_exit_action"},
    {"--register-shell", reg_shell, "=TEXT  reg_process_exit_action_shell with this restart command"},
    {"--register-third", reg_third, "=WEX_RESTART|...  reg_third_part_process_exit_action"},
    {"--time-set", delay_restarts, "=SEC  wex_time_set"},
    {"--cancel", cancel, "  wex_cancel_proc"},
    {"--confirm", confirm, "  until the daemon has acted on all before it"},
    {"--thread", thread, "=PERIOD[,COUNT]  a thread that registers and reports every 100 ms"},
    {"--thread-no-proc", thread_no_proc, "=PERIOD[,COUNT]  the same, logged but not aborted"},
    {"--register-main-thread", register_main_thread, "=PERIOD  the main thread registers and never reports"},
    {"--hang", hang, "  the thread started last stops reporting"},
    {"--resume", resume, "  all threads report again"},
    {"--facts", tell_facts, "=FILE  facts about this process, one a line"},
    {"--ready", ready, "=FILE  the pid, once all before it is done"},
    {"--count", count_start, "=FILE  append the pid"},
    {"--say", say, "=TEXT  a line on standard output"},
    {"--first-time", first_time, "=FILE  skip the next option when FILE exists; create it"},
    {"--sleep", sleep_ms, "=MS"},
    {"--wait-for", wait_for_file, "=FILE  until it exists"},
    {"--hold", hold, "  for ever"},
    {"--ignore", ignore, "=SIGNAL"},
    {"--exit-on-term", exit_on_term, "=CODE  SIGTERM is handled and ends us with this status"},
    {"--hold-lock", lock_file, "=FILE  write lock until the end"},
    {"--lock-in-child", lock_in_child, "=[MS,]FILE  the lock outlives this process"},
    {"--daemonise", daemonise, "  go on in a child of its own session"},
    {"--leave-child", leave_child, "=MS  a child that sleeps"},
    {"--restart-self", restart_self, "  start this program again beside this process"},
    {"--group", join_group, "=GID  the only supplementary group"},
    {"--forget-words", forget_words, "  the kernel shows an empty command line from now on"},
    {"--exec-without-name", exec_without_name, "=PROGRAM  executed with one word, which is empty"},
    {"--grow", grow, "=MIB  resident memory"},
    {"--open", open_file, "=FILE  a descriptor that stays open"},
    {"--set", set_variable, "=NAME=VALUE  environment"},
    {"--chdir", change_dir, "=DIR"},
    {"--core", dump_core, "  crashes dump core"},
    {"--crash", crash, "=SEGV|ABRT|KILL|...  end by this signal"},
    {"--crash-in-thread", crash_in_thread, "=SIGNAL  the same from a thread that is not the first"},
    {"--exec-in-thread", exec_in_thread, "  this program anew, executed by a thread that is not the first"},
    {"--end-thread", end_thread,
     "[=FILE]  a thread that ends; with FILE it registers itself as a program before, and tells its id"},
    {"--end-main-thread", end_main_thread, "  another thread holds for ever"},
    {"--crash-without-main", crash_without_main, "=SIGNAL  the main thread ends before"},
    {"--crash-as-sibling", crash_as_sibling, "=FILE  with the pid that it shall have"},
    {"--exit", end, "=CODE"},
    {"--tag", nothing, "=TEXT  nothing; tells command lines apart"},
};

void perform(const char* word) {
  const size_t length = strcspn(word, "=");
  for (const option_row& row : kOptions) {
    if (strlen(row.name) == length && strncmp(row.name, word, length) == 0) {
      return row.act(word[length] ? word + length + 1 : "");
    }
  }
  fprintf(stderr, "actor: unknown option %s\n", word);
  for (const option_row& row : kOptions) {
    fprintf(stderr, "  %s%s\n", row.name, row.help);
  }
  exit(2);
}

}  // namespace

// Without a word it holds: so it is started again when its words were not to be seen.
int main(int argc, char** argv) {
  if (argc < 2) {
    hold(nullptr);
  }
  for (int at = 1; at < argc; at++) {
    if (skip_next) {
      skip_next = false;
    } else {
      perform(argv[at]);
    }
  }
  return 0;
}

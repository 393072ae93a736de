// wex_xtach: the calls by which a service process puts itself, or one of its threads, under supervision, and
// by which it starts a program the way the daemon would.
//
// No state but the strike counter of the descriptor watch; the connection and its lock belong to wex_rpc.
#define WEX_MODULE "wex_xtach"

#include "wex_xtach.h"

#include <fcntl.h>
#include <glob.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdlib>

#include "cancel_held.h"
#include "guarded_file.h"
#include "own_scheduling.h"
#include "signals_held.h"
#include "text_buffer.h"
#include "text_reader.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_action.h"
#include "wex_alive_guard.h"
#include "wex_child.h"
#include "wex_clock.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_rpc.h"
#include "wex_strict.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"
#include "wex_vsd.h"

namespace {

std::atomic<int32_t> g_fd_watch_strikes{0};

// Kept: what stands behind the keyword is not looked at, see docs/decisions.md.
bool names(const char* text, const wex_action& action) {
  return strncmp(text, action.keyword, strlen(action.keyword)) == 0;
}

// ---- Registration of processes ----------------------------------------------------------------------------

int32_t caller_or(int32_t pid) {
  return pid == 0 ? getpid() : pid;
}

bool refuse_negative(int32_t pid) {
  if (pid >= 0) {
    return false;
  }
  wex_dbg(WEX_DBG_PUB, "The pid you enter is < 0 \n");
  return true;
}

void set_tag(wex_reg_info* body) {
  wex_format(body->tag, sizeof body->tag, "test-%d", body->pid % 20);
}

// Fills pid, domain (0 when it belongs to none or cannot be read) and command line, all else zero. False when
// the command line cannot be read.
bool describe_process(int32_t pid, wex_reg_info* body) {
  constexpr size_t kDescribed = 255;  // one byte of the field stays 0 behind the terminator
  static_assert(kDescribed < sizeof body->process, "the field holds the text and its terminator");
  const int32_t domain = get_vsdid(pid);
  memset(body, 0, sizeof *body);
  body->pid = pid;
  body->vsd = wex_domain_or_main(domain);
  return pid_to_cmdline(pid, body->process, kDescribed) != nullptr;
}

void tell_undescribed(const char* caller, int32_t pid) {
  wex_dbg(WEX_DBG_PUB, "%s: fail to get pid %d's cmdline\n", caller, pid);
}

// ---- Descriptor watch -------------------------------------------------------------------------------------

class path_list {
 public:
  explicit path_list(const char* pattern) noexcept : result_(glob(pattern, 0, nullptr, &list_)) {}
  ~path_list() { globfree(&list_); }
  path_list(const path_list&) = delete;
  path_list& operator=(const path_list&) = delete;
  bool valid() const noexcept { return result_ == 0; }
  size_t count() const noexcept { return list_.gl_pathc; }

 private:
  glob_t list_ = {};
  int result_;
};

void tell_too_many(int32_t pid) {
  char command[4095];
  if (pid_to_cmdline(pid, command, sizeof command) != nullptr) {
    wex_dbg(WEX_DBG_PUB, "process %s/%d: open files exceed the system upper limit.\n", command, pid);
  } else {
    wex_dbg(WEX_DBG_PUB, "process %d open files exceed the system upper limit.\n", pid);
  }
}

// The last strike ends the process while it can still be restarted in good order.
void count_strike() {
  if (++g_fd_watch_strikes >= kFdWatchStrikes) {
    g_fd_watch_strikes = 0;
    exit(1);
  }
}

// ---- Spawning ---------------------------------------------------------------------------------------------

// Forks with SIGCHLD held back, so that no reaper of the caller sees the child before its pid is stored. The
// mask of before is back on return, in the child too.
pid_t fork_program(const char* program, int32_t* pid_out) {
  const signals_held until_stored(SIGCHLD);
  const pid_t pid = fork();
  if (pid > 0) {
    *pid_out = pid;
    wex_dbg(WEX_DBG_PUB, "%s--> wex_pid->process = %s, new pid: %d\n", "wex_spawn_by_user", program,
            static_cast<int>(pid));
  }
  return pid;
}

// The child's part. Returns only when the child cannot change to "/".
int32_t become_program(const char* program, char* const* argv) {
  setsid();
  set_own_scheduling(SCHED_OTHER, 0);
  reset_signal_actions();
  const int result = chdir(kRootDir);
  if (result != 0) {
    wex_dbg(WEX_DBG_PUB, "%s--> chdir failed, ret: %d\n", "wex_spawn_by_user", result);
    return -1;
  }
  if (!flush_tlb()) {
    wex_dbg(WEX_DBG_PUB, "%s find fail, error = %s.\n", kFlushTlb, strerror(errno));
  }
  execvp(program, argv);
  wex_dbg(WEX_DBG_PUB, "HA_RESTART execvp fail, error = %s.\n", strerror(errno));
  _exit(1);
}

// ---- Thread liveness --------------------------------------------------------------------------------------

// A thread may register and report itself only.
bool acceptable(int32_t pid, int32_t tid, int32_t time, int32_t count) {
  if (pid < 1 || tid == 0 || time == 0 || count == 0) {
    wex_dbg(WEX_DBG_PUB, "parameter error(pid:%d, tid:%d, time:%d, count:%d)!\n", pid, tid, time, count);
    return false;
  }
  const int32_t own_pid = getpid();
  const int32_t own_tid = wex_thread_id();
  if (pid != own_pid || tid != own_tid) {
    wex_dbg(WEX_DBG_PUB, "not cur task reg!(pid:%d, tid:%d, cur_pid:%d, cur_tid:%d)!\n", pid, tid, own_pid,
            own_tid);
    return false;
  }
  return true;
}

wex_reg_info thread_body(int32_t pid, int32_t tid, int32_t time) {
  const bool odd = (time & 1) != 0;
  wex_reg_info body = {};
  body.pid = tid;
  body.ppid = pid;
  body.ntfy_cnt = odd ? kLongPeriodMisses : kShortPeriodMisses;
  body.cur_cnt = body.ntfy_cnt;
  body.ntfy_time = odd ? kLongPeriodSec : kShortPeriodSec;
  return body;
}

// True when an operator has exempted the thread from hang detection.
// Kept: an unfinished last line loses a digit, for the last byte counts as its end, see docs/decisions.md.
bool exempted(int32_t tid) {
  if (access(kExemptThreads, F_OK) != 0) {
    return false;  // the usual case, for one system call: a guarded opening takes several
  }
  const cancel_held whole;
  const unique_fd file = wex_open_file(kExemptThreads, O_RDONLY);
  struct stat facts = {};
  if (!file.valid() || fstat(file.get(), &facts) != 0 ||
      ((facts.st_uid != 0 || facts.st_nlink != 1) && wex_strict_is_wanted())) {
    return false;
  }
  char own[16];
  wex_format(own, sizeof own, "%d", tid);
  text_reader lines(file.get());
  char line[1024];
  while (lines.line(line, sizeof line)) {
    const size_t length = strlen(line);
    if (length > 0) {
      line[length - 1] = '\0';
    }
    if (strcmp(line, own) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

bool wex_begin_registration(int32_t pid, uint32_t type, wex_reg_info* body) {
  constexpr char kCaller[] = "reg_process_exit_action";
  const bool described = describe_process(pid, body);
  wex_dbg(WEX_DBG_PUB, "%s: pid %d type %d vsd %d\n", kCaller, body->pid, static_cast<int>(type), body->vsd);
  if (!described) {
    tell_undescribed(kCaller, body->pid);
  }
  return described;
}

void wex_make_database_file(const wex_reg_info& body, uint32_t type,
                            int (*make)(const wex_reg_info* body, uint32_t kind)) {
  if (make(&body, type) != 0) {
    wex_dbg(WEX_DBG_PUB, "wex_mk_pidfile fail. vsd %d pid %d name %s \n", body.vsd, body.pid, body.process);
  }
}

uint32_t wex_action_type(const char* action) {
  if (action == nullptr) {
    return 0;
  }
  if (names(action, kRespawn)) {
    return kRespawn.message;
  }
  return names(action, kShellRestart) ? kShellRestart.message : 0;
}

extern "C" {

int reg_process_exit_action(int32_t pid, uint32_t type) {
  wex_parse_dbg_file();
  const int32_t subject = refuse_negative(pid) ? 0 : caller_or(pid);  // the daemon refuses process 0
  wex_reg_info body;
  // The file is written before the message goes out: it is what a restarted daemon finds, whatever became of
  // the message. A process without a readable command line gets none, and its message is sent all the same.
  if (wex_begin_registration(subject, type, &body)) {
    wex_make_database_file(body, type, wex_mk_pidfile);
  }
  wex_rpc_persist(type, &body, sizeof body);
  return 0;
}

int reg_process_exit_action_shell(int32_t pid, uint32_t type, const char* path) {
  wex_parse_dbg_file();
  if (refuse_negative(pid)) {
    return -1;
  }
  wex_reg_info body;
  const bool described = describe_process(caller_or(pid), &body);
  set_tag(&body);
  wex_dbg(WEX_DBG_PUB, "%s: pid %d type %d vsd %d path %s\n", __func__, body.pid, static_cast<int>(type),
          body.vsd, path != nullptr ? path : "");
  if (described) {
    wex_make_database_file(body, type, wex_mk_pidfile);
  } else {
    tell_undescribed(__func__, body.pid);
  }
  return wex_rpc(type, path, &body, sizeof body, 0, 0);
}

int reg_third_part_process_exit_action(int32_t pid, const char* action) {
  const uint32_t type = wex_action_type(action);
  return type == 0 ? -1 : reg_process_exit_action(pid, type);
}

int wex_time_set(int32_t pid, uint32_t type, int32_t time) {
  if (refuse_negative(pid)) {
    return -1;
  }
  wex_reg_info body = {};
  body.pid = caller_or(pid);
  body.restart_delay = time;
  set_tag(&body);
  return wex_rpc(type, nullptr, &body, sizeof body, 0, 0);
}

void wex_client_watch_process_fd(int32_t pid) {
  char pattern[kPathSize];
  wex_format(pattern, sizeof pattern, kProcFdGlobFmt, pid);
  const path_list open_files(pattern);
  if (!open_files.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: %s\n", __func__, strerror(errno));
    return;
  }
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: %s\n", "get_resource_limit", strerror(errno));
    return;
  }
  const auto soft = static_cast<int32_t>(limit.rlim_cur);  // "no limit" is negative in 32 bits
  if (soft < 0) {
    return;
  }
  if (open_files.count() >= static_cast<size_t>(soft)) {
    tell_too_many(pid);
    count_strike();
  } else {
    g_fd_watch_strikes = 0;
  }
}

int32_t wex_start_user_process(const char* path) {
  if (path == nullptr) {
    wex_dbg(WEX_DBG_PUB, "proc_path is null\n");
    return -1;
  }
  if (access(path, F_OK) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s not exist: %s\n", path, strerror(errno));
    return -1;
  }
  wex_pid rec = {};
  wex_copy_text(rec.process, sizeof rec.process, path);
  int32_t started = -1;
  const int32_t result = wex_spawn_by_user(&rec, &started);
  if (result > 0) {
    wex_reset_lmk(result);  // a service may be killed for memory even when its starter may not
  }
  return result;
}

int32_t wex_spawn_by_user(wex_pid* rec, int32_t* pid_out) {
  *pid_out = -1;
  rec->flags |= WEX_FLAG_SELF_CHECKING;
  rec->check_start = wex_clock_now();
  rec->check_count = 1;
  child_words words;
  split_words(rec->process, &words);
  const char* const program = words.count > 0 ? words.argv[0] : "";
  for (;;) {
    const pid_t pid = fork_program(program, pid_out);
    if (pid > 0) {
      return pid;
    }
    if (pid == 0) {
      return become_program(program, words.argv);
    }
    wex_dbg(WEX_DBG_PUB, "%s--> fork fail, err: %s(%d)\n", __func__, strerror(errno), errno);
    safe_sleep(kForkRetrySec);
  }
}

int wex_client_reg_thread_notify(int32_t pid, int32_t tid, int32_t time, int32_t count) {
  wex_parse_dbg_file();
  if (!acceptable(pid, tid, time, count)) {
    return -1;
  }
  const wex_reg_info body = thread_body(pid, tid, time);
  const int result = wex_rpc_persist(WEX_NOTIFIER_START, &body, sizeof body);
  if (result != 0) {
    wex_dbg(WEX_DBG_PUB, "reg thread notify err(ret:%d)!\n", result);
  }
  return result;
}

int wex_client_reg_thread_notify_no_proc(int32_t pid, int32_t tid, int32_t time, int32_t count) {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  ignore.sa_flags = SA_RESTART;
  sigaction(SIGABRT, &ignore, nullptr);
  return wex_client_reg_thread_notify(pid, tid, time, count);
}

int wex_client_reset_thread_notify(int32_t pid, int32_t tid, int32_t time, int32_t count) {
  if (!acceptable(pid, tid, time, count)) {
    return -1;
  }
  if (exempted(tid)) {
    return 0;
  }
  const auto index = static_cast<uint32_t>(tid);
  const bool registered = wex_in_alive_table(tid) && wex_sys_isreg_alive_info(index) != 0;
  if (!registered && (!wex_in_alive_table(tid) || wex_alive_closed())) {
    const wex_reg_info body = thread_body(pid, tid, time);
    wex_rpc(WEX_NOTIFIER_RESET, nullptr, &body, sizeof body, 0,
            1);  // a report must not fail while the daemon is away
    return 0;
  }
  if (!registered) {
    wex_dbg(WEX_DBG_PUB, "reg alive info(pid:%d, tid:%d, time:%d, count:%d)!\n", pid, tid, time, count);
    return wex_client_reg_thread_notify(pid, tid, time, count);
  }
  const int result = wex_sys_update_alive_seq(index);
  if (result != 0) {
    wex_dbg(WEX_DBG_PUB, "update alive err!(pid:%d, tid:%d, ret:%d)!\n", pid, tid, result);
  }
  return result;
}

int wex_client_unreg_thread_notify(int32_t tid) {
  if (tid == 0) {
    wex_dbg(WEX_DBG_PUB, "parameter error\n");
  }
  wex_cons_info body = {};
  body.kind = WEX_CANCEL_THREAD_NOTIFY;
  body.pid = tid;
  wex_rpc(WEX_CONS_MSG, nullptr, &body, sizeof body, 1, 0);
  return 0;
}

}  // extern "C"

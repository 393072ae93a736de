// wex_core: the daemon's entry point. Prepares the file-system tree that everything else writes into, makes
// sure that only one daemon runs, restores the registry, starts the threads and waits for them.
#define WEX_MODULE "wex_core"
#include "wex_core.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "dir_walk.h"
#include "guarded_file.h"
#include "held_dir.h"
#include "ras_os_sem.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_chain_rebuild.h"
#include "wex_chain_user.h"
#include "wex_child.h"
#include "wex_core_claim.h"
#include "wex_core_fork.h"
#include "wex_core_netlink.h"
#include "wex_core_notify.h"
#include "wex_core_server.h"
#include "wex_core_stop.h"
#include "wex_core_strict.h"
#include "wex_core_upkeep.h"
#include "wex_core_watched_names.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_opt.h"
#include "wex_paths.h"
#include "wex_proc_child.h"
#include "wex_signals.h"
#include "wex_signals_alarm.h"
#include "wex_signals_reaper.h"
#include "wex_status_file.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"

namespace {

enum { kMonitor, kServer, kNotifier, kForkWatcher, kDelay, kThreads };

struct worker {
  void* (*body)(void*);
  const char* name;
  const char* suffix;  // Kept: one text has no "thread", see docs/decisions.md.
};
constexpr worker kWorkers[kThreads] = {
    {wex_process_netlink, "wex_process_netlink", " thread"},
    {wex_process_domain, "wex_process_domain", " thread"},
    {wex_notifer_run, "wex_notifer_run", ""},
    {wex_inotify_fork_error, "wex_inotify_fork_error", " thread"},
    {wex_delay_restart, "wex_delay_restart", " thread"},
};
constexpr int kJoined[] = {kNotifier, kServer, kMonitor};  // the process ends without the other two

struct threads {
  pthread_t handles[kThreads];
  int created = 0;
};

// ---- steps of the start -----------------------------------------------------------------------------------

// A limit as the diagnostics show it: unlimited is -1.
int shown(rlim_t limit) {
  return static_cast<int>(static_cast<int32_t>(limit));
}

void raise_open_file_limit() {
  struct rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    wex_print("[WEX]ULIMIT: Get ulimit error.\r\n");
    abort();
  }
  wex_dbg(WEX_DBG_PUB, "Origin ulimit cur %d, max %d\r\n", shown(limit.rlim_cur), shown(limit.rlim_max));
  if (limit.rlim_max < static_cast<rlim_t>(kOpenFileLimit)) {
    limit.rlim_max = kOpenFileLimit;
  }
  limit.rlim_cur = kOpenFileLimit;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    wex_print("[WEX]ULIMIT: Set ulimit error.\r\n");
    abort();
  }
  getrlimit(RLIMIT_NOFILE, &limit);
  wex_dbg(WEX_DBG_PUB, "Set ulimit cur %d, max %d\r\n", shown(limit.rlim_cur), shown(limit.rlim_max));
}

// The directory stays open for life like the lock: its inode number cannot become another one's.
void hold_names(int lock) {
  struct stat facts = {};
  if (fstat(lock, &facts) == 0) {
    wex_watch_name(WEX_NAME_LOCK, facts);
  }
  wex_run_dir.hold();
  if (fstat(wex_run_dir.get(), &facts) == 0) {
    wex_watch_name(WEX_NAME_DIRECTORY, facts);
  }
}

// What a daemon has left that was killed while a file of root's took its name from a user's. Database files
// are looked at when they are read.
void clear_begun_names() {
  if (!wex_strict().on) {
    return;
  }
  for (const char* const path : {kRunDir, kThirdPartListDir, kDataDir, kRunningLogDir}) {
    wex_clear_begun(path);
  }
  for (int32_t domain = kFirstDomain; domain < WEX_DOMAINS; ++domain) {
    char path[kPathSize];
    wex_name_flag_dir(domain, path);
    wex_clear_begun(path);
  }
}

void make_directories() {
  wex_make_main_dirs();
  for (int32_t domain = kMainSystem; domain < WEX_DOMAINS; ++domain) {
    wex_make_domain_dirs(domain, WEX_MADE_AT_START);
  }
  clear_begun_names();
}

bool restore_registry() {
  wex_init_chains(&wex_chains);
  wex_init_chains(&wex_alive_chains);
  wex_init_chains(&wex_chains_delay);
  wex_begin_users();
  if (wex_rebuild_chains(&wex_chains) < 0) {
    wex_dbg(WEX_DBG_PUB, "fail to rebuild chains\n");
    return false;
  }
  return true;
}

bool read_description(const char* name, char* text, size_t size) {
  char path[1024];
  wex_format(path, sizeof path, "%s/%s", kThirdPartDir, name);
  const unique_fd file = wex_open_file(path, O_RDONLY);
  const int32_t result = file.valid() ? safe_read(file.get(), text, size - 1) : -1;
  if (result < 0) {
    wex_dbg(WEX_DBG_PUB, "wex_read_file_string failed, ret = %d, reason: %s\n", result, strerror(errno));
    return false;
  }
  text[result] = '\0';
  return wex_is_believed(file.get(), path);
}

// ---- threads ----------------------------------------------------------------------------------------------

// The running log says which thread could not be created and why; no later one is tried then. The reason is
// errno, which tells "no memory" from "no more threads"; a C library that leaves it alone has only its
// result.
bool created(int error, const char* name, const char* suffix) {
  if (error != 0) {
    wex_running_log("Fail to create %s%s: %s\n", name, suffix, strerror(errno != 0 ? errno : error));
    wex_raise_exit_flag();
  }
  return error == 0;
}

void start_threads(threads* running) {
  wex_running_log("Start.\r\n");
  wex_log_mode();
  errno = 0;
  if (!created(wex_start_alarm_thread(), "wex_alarm", " thread")) {
    return;
  }
  wex_chld_handler(SIGCHLD);  // what the rebuild started and what died before the reaper was there
  for (const worker& next : kWorkers) {
    errno = 0;
    const int error = pthread_create(&running->handles[running->created], nullptr, next.body, nullptr);
    if (!created(error, next.name, next.suffix)) {
      return;
    }
    ++running->created;
  }
}

void open_status() {
  wex_status_open_news();
  wex_status_thread_is(kStatusMain);
  wex_status_busy(kStatusMain);
  wex_status_open();
}

// The main thread has nothing else to do until the daemon ends: no joined thread ends before that.
void show_status() {
  const int news = wex_status_open_news();
  bool woken = true;
  while (wex_exit_flag.load(std::memory_order_relaxed) == 0) {
    wex_status_busy(kStatusMain);
    wex_status_take_news();
    wex_status_publish();
    wex_status_idle(kStatusMain);
    if (woken) {
      wex_wait_exit(kStatusPassMs);
    }
    woken = news < 0 || wex_wait_exit_or(news, kStatusIdleMs);
  }
}

void join_threads(const threads& running) {
  for (const int number : kJoined) {
    if (number < running.created) {
      pthread_join(running.handles[number], nullptr);
    }
  }
}

// True once nothing but the main thread can reach the chains any more.
bool others_have_ended(const threads& running) {
  wex_stop_alarm_thread();
  for (int look = 0; running.created > kDelay && !wex_delay_ended.load(std::memory_order_acquire); ++look) {
    if (look == kDelayEndLooks) {
      return false;
    }
    wex_sleep_ms(kDelayEndLookMs);
  }
  return true;
}

[[noreturn]] void tear_down(const threads& running, unique_fd&& lock) {
  wex_status_end();  // before the chains are emptied: what was registered stays to be seen
  if (others_have_ended(running)) {
    wex_end_users();
    wex_destroy_chains(&wex_chains);
    wex_destroy_chains(&wex_alive_chains);
    wex_destroy_chains(&wex_chains_delay);
  }
  lock.reset();
  wex_running_log("Exit.\r\n");
  _exit(0);  // not exit(): the fork watcher still runs and uses what the clean-up would destroy
}

void leave_signals_of_starter() {
  clear_signal_mask();       // a starter that blocks signals may forget to unblock them
  signal(SIGCHLD, SIG_DFL);  // ignored, the kernel would reap our children and keep their status from us
}

}  // namespace

extern "C" void wex_third_part_proc_init(void) {
  const unique_fd list = wex_open_own_file(kThirdPartList, O_WRONLY | O_TRUNC, kLogMode);
  if (!list.valid()) {
    wex_dbg(WEX_DBG_PUB, "fopen failed, reason: %s\n", strerror(errno));
    return;
  }
  dir_walk descriptions(kThirdPartDir);
  if (!descriptions.valid()) {
    wex_dbg(WEX_DBG_PUB, "opendir failed, reason: %s\n", strerror(errno));
    return;
  }
  while (const dirent* const entry = descriptions.next()) {
    char text[1025];
    char line[sizeof text + 1];
    if (read_description(entry->d_name, text, sizeof text) && wex_format(line, sizeof line, "%s\n", text)) {
      safe_write(list.get(), line, strlen(line));
    }
  }
}

int main(int argc, char** argv) {
  leave_signals_of_starter();
  wex_choose_mode();
  wex_make_dir(kRunDir, wex_client_dir_mode());
  wex_parse_dbg_file();
  wex_create_std_fd(1);
  wex_handle_options(argc, argv);
  unique_fd lock(wex_claim_lock(argc > 1));
  if (!lock.valid()) {
    return -1;
  }
  hold_names(lock.get());
  hide_open_files();  // files that our starter left open are not inherited by the programs we start
  raise_open_file_limit();
  make_directories();
  wex_database_dir.hold();
  wex_log_moved_names();
  wex_init_wakeup();
  open_status();
  if (!restore_registry()) {
    return -1;
  }
  if (wex_sem_init() != 0) {
    wex_dbg(WEX_DBG_PUB, "fail to init wex semaphore!!!\n");
  }
  wex_ignore_lmk(static_cast<int32_t>(getpid()));
  wex_setup_signals();
  wex_third_part_proc_init();

  threads running;
  wex_clear_table_name();
  if (wex_sys_init_alive_info(1) != 0) {
    wex_dbg(WEX_DBG_PUB, "fail to init alive_info!!!\n");
    wex_raise_exit_flag();
  } else {
    start_threads(&running);
  }
  show_status();
  join_threads(running);
  tear_down(running, std::move(lock));
}

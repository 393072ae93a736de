// watchdog_world: a service whose threads report or are silent as they are told, and the daemon's side of
// hang detection. The table is mapped once a process, so each case has a process of its own that plays the
// daemon.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include <atomic>
#include <climits>
#include <memory>

#include "chain_lock.h"
#include "ras_os_sem.h"
#include "unit_support.h"
#include "verify_chain.h"
#include "wex_chain.h"
#include "wex_core_notify.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"

namespace watchdog {

inline std::string system_log;  // "<priority>text" of every line

}  // namespace watchdog

// In place of the device's system log. One source file of a test program includes this header.
extern "C" void qx_syslog(int priority, const char* format, ...) {
  char text[8192];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  watchdog::system_log += "<" + std::to_string(priority) + ">" + text;
}

namespace watchdog {

using namespace unit;

class Watchdog : public Sandboxed {};

constexpr char kRunningLog[] = "/ovix/vsd/0/utils/wex/running_log1";

// A process that reports through the client library. Number 0 is its main thread. A thread does what it is
// told and nothing in between, which is what a hung one looks like.
class service {
 public:
  explicit service(int threads = 2, bool ignores_abort = false) : count_(threads) {
    void* const memory =
        mmap(nullptr, sizeof(slot) * kSlots, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, memory);
    slots_ = static_cast<slot*>(memory);
    for (int i = 0; i < kSlots; ++i) {
      sem_init(&slots_[i].order, 1, 0);
      sem_init(&slots_[i].done, 1, 0);
    }
    fflush(stdout);
    pid_ = fork();
    if (pid_ == 0) {
      serve(ignores_abort);
    }
    for (int i = 0; i < count_; ++i) {
      wait_done(i);
    }
  }
  ~service() {
    end();
    munmap(slots_, sizeof(slot) * kSlots);
  }
  service(const service&) = delete;
  service& operator=(const service&) = delete;

  int32_t pid() const { return pid_; }
  int32_t tid(int i) const { return slots_[i].tid; }
  bool running() { return status() == kRunning; }
  bool aborted() {
    return eventually([this] { return status() != kRunning; }) && WIFSIGNALED(status_) &&
           WTERMSIG(status_) == SIGABRT;
  }
  void report(int i) {
    tell(i, 'r');
    wait_done(i);
    EXPECT_EQ(0, slots_[i].result) << "a report failed";
  }
  void end_thread(int i) {
    tell(i, 'e');
    const std::string state = "/proc/" + std::to_string(pid_) + "/task/" + std::to_string(tid(i)) + "/stat";
    EXPECT_TRUE(eventually([&] {
      const std::string text = read_file(state);
      return text.empty() || text.find(") Z ") != std::string::npos;
    })) << "thread "
        << tid(i) << " does not end";
  }
  // Of the whole process, from its main thread; `first` is the real one.
  void change_user(uid_t first, uid_t others) {
    slots_[0].first = first;
    slots_[0].others = others;
    tell(0, 'u');
    wait_done(0);
  }
  void become_another_program() {
    tell(0, 'x');
    EXPECT_TRUE(eventually([this] {
      return read_file("/proc/" + std::to_string(pid_) + "/cmdline") == std::string(
                                                                            "sleep\0"
                                                                            "600\0",
                                                                            10);
    }));
  }
  void end() {
    if (status() == kRunning) {
      if (!wex_test::send_signal(pid_, SIGKILL)) {  // the case has become another user
        tell(0, 'q');
      }
      waitpid(pid_, &status_, 0);
    }
  }

 private:
  static constexpr int kSlots = 12;
  static constexpr int kRunning = -1;
  struct slot {
    sem_t order, done;
    std::atomic<char> what;
    int32_t tid;
    int32_t result;
    uid_t first, others;
  };

  int status() {
    if (status_ == kRunning && waitpid(pid_, &status_, WNOHANG) != pid_) {
      status_ = kRunning;
    }
    return status_;
  }
  void tell(int i, char what) {
    slots_[i].what = what;
    sem_post(&slots_[i].order);
  }
  void wait_done(int i) {
    timespec limit = {};
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 20;
    EXPECT_EQ(0, sem_timedwait(&slots_[i].done, &limit)) << "thread " << i << " does not answer";
  }
  [[noreturn]] void serve(bool ignores_abort) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
    signal(SIGABRT, ignores_abort ? SIG_IGN : SIG_DFL);
    const rlimit none = {};
    setrlimit(RLIMIT_CORE, &none);
    for (int i = 1; i < count_; ++i) {
      std::thread([this, i] {
        prctl(PR_SET_NAME, i == 1 ? "worker" : "");
        obey(slots_[i]);
      }).detach();
    }
    obey(slots_[0]);
    syscall(SYS_exit, 0);  // this thread alone
    _exit(0);
  }
  static void obey(slot& mine) {
    mine.tid = static_cast<int32_t>(syscall(SYS_gettid));
    for (;;) {
      sem_post(&mine.done);
      while (sem_wait(&mine.order) != 0) {
      }
      switch (mine.what) {
        case 'r':
          mine.result = wex_client_reset_thread_notify(getpid(), mine.tid, 60, 1);
          break;
        case 'x':
          execl("/bin/sleep", "sleep", "600", static_cast<char*>(nullptr));
          _exit(127);
        case 'u':
          if (setresuid(mine.first, mine.others, mine.others) != 0) {
            _exit(126);
          }
          break;
        case 'q':
          _exit(0);
        default:
          return;
      }
    }
  }

  int count_;
  slot* slots_ = nullptr;
  pid_t pid_ = 0;
  int status_ = kRunning;
};

struct figures {
  int32_t count, left, period, elapsed;
};
constexpr figures kShort = {5, 5, 120, 0};
constexpr figures kLong = {4, 4, 180, 0};

// The daemon's side. Services are to be there before it, so that each maps the table for itself.
class daemon_side {
 public:
  daemon_side() {
    EXPECT_EQ(0, system("mkdir -p /ovix/vsd/0/utils/wex && rm -f /ovix/vsd/0/utils/wex/*"));
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      EXPECT_EQ(0, wex_init_chains(chain));
    }
    EXPECT_EQ(0, wex_sys_init_alive_info(1));
    EXPECT_EQ(0, wex_sem_init());
  }
  ~daemon_side() {
    verify_chain(wex_alive_chains);
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      wex_destroy_chains(chain);
    }
    semctl(g_wex_semid, 0, IPC_RMID);
  }
  daemon_side(const daemon_side&) = delete;
  daemon_side& operator=(const daemon_side&) = delete;

  static wex_pid* find(int32_t tid) {
    const chain_lock hold(wex_alive_chains);
    return __wex_find_pid(&wex_alive_chains, tid);
  }
  static void start(int32_t tid, int32_t pid, const figures& by) {
    message(wex_notifier_start, tid, pid, by);
  }
  static void start(const service& of, int i, const figures& by) { start(of.tid(i), of.pid(), by); }
  static void reset(const service& of, int i, const figures& by) {
    message(wex_notifier_reset, of.tid(i), of.pid(), by);
  }
  // What one scan prints, at both levels.
  static std::string scan() {
    set_levels(0, 0);
    const std::string text = lines_printed_by([] { wex_scan_alive_chains(); });
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
    return text;
  }
  static void scans(int count) {
    for (int i = 0; i < count; ++i) {
      wex_scan_alive_chains();
    }
  }

 private:
  static void message(int (*handler)(const wex_reg_info*), int32_t tid, int32_t pid, const figures& by) {
    wex_reg_info body = {};
    body.pid = tid;
    body.ppid = pid;
    body.ntfy_cnt = by.count;
    body.cur_cnt = by.left;
    body.ntfy_time = by.period;
    body.cur_ntfy_time = by.elapsed;
    EXPECT_EQ(0, handler(&body));
    EXPECT_NE(nullptr, find(tid));
  }
};

// left and elapsed of a registration.
inline void expect_state(int32_t tid, int32_t left, int32_t elapsed) {
  const wex_pid* const rec = daemon_side::find(tid);
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(left, rec->notify_info[WEX_CUR_CNT]);
  EXPECT_EQ(elapsed, rec->notify_info[WEX_CUR_NTFY_TIME]);
}

// Looked at under the lock, for the watchdog may be running.
inline int32_t elapsed(int32_t tid) {
  const chain_lock hold(wex_alive_chains);
  const wex_pid* const rec = __wex_find_pid(&wex_alive_chains, tid);
  return rec == nullptr ? -1 : rec->notify_info[WEX_CUR_NTFY_TIME];
}

inline std::string program_of(const wex_pid* rec) {
  const std::string process = rec->process;
  return process.substr(process.rfind('/') + 1);
}

inline std::string hang_line(const std::string& program, int32_t pid, const std::string& thread,
                             int32_t tid) {
  return " detect process:[" + program + "/" + std::to_string(pid) + "] thread " + thread + ":" +
         std::to_string(tid) + " hung.\n\n";
}

inline size_t hangs_logged() {
  return occurrences(read_file(kNotifyLog), "hung.\n");
}

inline std::string numbers(const char* format, int32_t a, int32_t b = 0, int32_t c = 0, int32_t d = 0) {
  char text[512];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  snprintf(text, sizeof text, format, a, b, c, d);
#pragma GCC diagnostic pop
  return text;
}

// "Words pid (...) ... cur_ntfy_time (...)" with the record's figures.
inline std::string state_line(const std::string& words, int32_t tid, int32_t pid, const figures& by) {
  return "[WEX:wex_core:N]" + words + numbers("pid (%d) ppid (%d) ", tid, pid) +
         numbers("ntfy_time (%d) ntfy_cnt (%d) cur_cnt (%d) cur_ntfy_time (%d)\n", by.period, by.count,
                 by.left, by.elapsed);
}

inline std::string warning(int32_t pid, int32_t tid, int32_t missed, int32_t of) {
  return numbers(
      "Process pid(%d) tid(%d) not notify reset for %d times, It will be killed after %d times!!!\n", pid,
      tid, missed, of);
}

inline void change_semaphore(int value) {
  union {
    int value;
    void* other;
  } argument = {};
  argument.value = value;
  ASSERT_EQ(0, semctl(g_wex_semid, 0, SETVAL, argument));
}

}  // namespace watchdog

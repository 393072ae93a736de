// The watchdog's scan, one after the other without the minute between them, on real processes and threads.
// The table is mapped once a process, so each case has a process of its own that plays the daemon.
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
#include "wex_core.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"

using namespace unit;

namespace {
std::string system_log;  // "<priority>text" of every line
}

// In place of the device's system log.
extern "C" void qx_syslog(int priority, const char* format, ...) {
  char text[8192];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  system_log += "<" + std::to_string(priority) + ">" + text;
}

namespace {

class Watchdog : public Sandboxed {};

constexpr char kRunningLog[] = "/ovix/vsd/0/utils/wex/running_log1";

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

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
      const std::string text = contents(state);
      return text == "<absent>" || text.find(") Z ") != std::string::npos;
    })) << "thread "
        << tid(i) << " does not end";
  }
  void become_another_program() {
    tell(0, 'x');
    EXPECT_TRUE(eventually([this] {
      return contents("/proc/" + std::to_string(pid_) + "/cmdline") == std::string(
                                                                           "sleep\0"
                                                                           "600\0",
                                                                           10);
    }));
  }
  void end() {
    if (status() == kRunning) {
      if (kill(pid_, SIGKILL) != 0) {  // the case has become another user
        tell(0, 'q');
      }
      waitpid(pid_, &status_, 0);
    }
  }

 private:
  static constexpr int kSlots = 4;
  static constexpr int kRunning = -1;
  struct slot {
    sem_t order, done;
    std::atomic<char> what;
    int32_t tid;
    int32_t result;
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
    const std::string text = lines_of([] { wex_scan_alive_chains(); });
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
void expect_state(int32_t tid, int32_t left, int32_t elapsed) {
  const wex_pid* const rec = daemon_side::find(tid);
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(left, rec->notify_info[WEX_CUR_CNT]);
  EXPECT_EQ(elapsed, rec->notify_info[WEX_CUR_NTFY_TIME]);
}

// Looked at under the lock, for the watchdog may be running.
int32_t elapsed(int32_t tid) {
  const chain_lock hold(wex_alive_chains);
  const wex_pid* const rec = __wex_find_pid(&wex_alive_chains, tid);
  return rec == nullptr ? -1 : rec->notify_info[WEX_CUR_NTFY_TIME];
}

std::string program_of(const wex_pid* rec) {
  const std::string process = rec->process;
  return process.substr(process.rfind('/') + 1);
}

std::string hang_line(const std::string& program, int32_t pid, const std::string& thread, int32_t tid) {
  return " detect process:[" + program + "/" + std::to_string(pid) + "] thread " + thread + ":" +
         std::to_string(tid) + " hung.\n\n";
}

size_t hangs_logged() {
  return occurrences(contents(kNotifyLog), "hung.\n");
}

std::string numbers(const char* format, int32_t a, int32_t b = 0, int32_t c = 0, int32_t d = 0) {
  char text[512];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  snprintf(text, sizeof text, format, a, b, c, d);
#pragma GCC diagnostic pop
  return text;
}

// "Words pid (...) ... cur_ntfy_time (...)" with the record's figures.
std::string state_line(const std::string& words, int32_t tid, int32_t pid, const figures& by) {
  return "[WEX:wex_core:N]" + words + numbers("pid (%d) ppid (%d) ", tid, pid) +
         numbers("ntfy_time (%d) ntfy_cnt (%d) cur_cnt (%d) cur_ntfy_time (%d)\n", by.period, by.count,
                 by.left, by.elapsed);
}

std::string warning(int32_t pid, int32_t tid, int32_t missed, int32_t of) {
  return numbers(
      "Process pid(%d) tid(%d) not notify reset for %d times, It will be killed after %d times!!!\n", pid,
      tid, missed, of);
}

void change_semaphore(int value) {
  union {
    int value;
    void* other;
  } argument = {};
  argument.value = value;
  ASSERT_EQ(0, semctl(g_wex_semid, 0, SETVAL, argument));
}

// The main thread reports before every scan, the worker is silent: nothing before scan `last`, at which the
// process is aborted.
void expect_abort_at(const figures& by, int scans_a_miss, int last) {
  service program;
  const daemon_side daemon;
  daemon.start(program, 0, kShort);
  daemon.start(program, 1, by);
  const std::string name = program_of(daemon.find(program.tid(1)));
  for (int scan = 1; scan < last; ++scan) {
    program.report(0);
    const std::string text = daemon.scan();
    expect_state(program.tid(1), by.count - scan / scans_a_miss, scan % scans_a_miss * 60);
    const int missed = scan / scans_a_miss;
    const bool warned = scan % scans_a_miss == 0 && missed >= 3;
    EXPECT_EQ(warned ? 1U : 0U, occurrences(text, "not notify reset")) << "scan " << scan;
    EXPECT_EQ(warned,
              text.find(warning(program.pid(), program.tid(1), missed, by.count)) != std::string::npos);
    EXPECT_EQ(0U, occurrences(text, "send SIGABRT"));
    ASSERT_TRUE(program.running()) << "after scan " << scan;
  }
  EXPECT_EQ("<absent>", contents(kNotifyLog));
  program.report(0);
  const std::string text = daemon.scan();
  EXPECT_TRUE(program.aborted());
  EXPECT_EQ(1U, occurrences(text, warning(program.pid(), program.tid(1), by.count, by.count)));
  EXPECT_EQ(
      1U, occurrences(text, numbers("]ntfy_cnt(%d), send SIGABRT to ppid (%d)\n", by.count, program.pid())));
  EXPECT_EQ(1U, hangs_logged());
  EXPECT_EQ(1U, occurrences(contents(kNotifyLog), hang_line(name, program.pid(), "worker", program.tid(1))));
  expect_state(program.tid(1), 0, 0);  // kept until it is found gone
  daemon.scans(1);
  EXPECT_EQ(0, wex_alive_chains.count);
  EXPECT_EQ(1U, hangs_logged());
}

}  // namespace

// ---- Counting
// ------------------------------------------------------------------------------------------------

TEST_F(Watchdog, AThreadOf120SecondsIsAbortedAtItsTenthSilentScan) {
  in_child([] { expect_abort_at(kShort, 2, 10); });
}

TEST_F(Watchdog, AThreadOf180SecondsIsAbortedAtItsTwelfthSilentScan) {
  in_child([] { expect_abort_at(kLong, 3, 12); });
}

TEST_F(Watchdog, TheHangEntryIsATimeTheTextAndAnEmptyLine) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    const std::string name = program_of(daemon.find(program.pid()));
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    const std::string entry = contents(kNotifyLog);
    const std::string own = contents("/proc/self/comm");
    const std::string line = hang_line(name, program.pid(), own.substr(0, own.size() - 1), program.pid());
    ASSERT_GT(entry.size(), line.size());
    EXPECT_EQ(line, entry.substr(entry.size() - line.size()));
    EXPECT_TRUE(matches(entry.substr(0, entry.size() - line.size()),
                        "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}"));
    EXPECT_EQ("1", contents(kNotifyCount));
  });
}

TEST_F(Watchdog, AThreadThatAllowsSixMissesIsWarnedAboutFromTheFifth) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {6, 6, 60, 0});
    for (int missed = 1; missed <= 6; ++missed) {
      EXPECT_EQ(missed >= 5 ? 1U : 0U,
                occurrences(daemon.scan(), warning(program.pid(), program.pid(), missed, 6)));
    }
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, AThreadThatReportsBetweenScansIsNeverCountedDown) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, kLong);
    for (int scan = 0; scan < 40; ++scan) {
      program.report(0);
      program.report(1);
      daemon.scans(1);
      expect_state(program.tid(0), 5, 0);
      expect_state(program.tid(1), 4, 0);
    }
    EXPECT_TRUE(program.running());
  });
}

TEST_F(Watchdog, OneReportInTheLastMomentRestoresTheFullCount) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(9);
    expect_state(program.pid(), 1, 60);
    program.report(0);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
    daemon.scans(9);
    EXPECT_TRUE(program.running());
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, ASequenceThatStartsOverIsAReport) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    const auto tid = static_cast<uint32_t>(program.pid());
    while (wex_sys_get_alive_seq(tid) != 255) {
      wex_sys_update_alive_seq(tid);
    }
    daemon.scans(2);
    EXPECT_EQ(255U, daemon.find(program.pid())->alive_seq);
    program.report(0);
    EXPECT_EQ(1U, wex_sys_get_alive_seq(tid));
    daemon.scans(1);
    EXPECT_EQ(1U, daemon.find(program.pid())->alive_seq);
    expect_state(program.pid(), 5, 0);
  });
}

TEST_F(Watchdog, APeriodThatIsNoMultipleOfAMinuteNeverEnds) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 5, 90, 0});
    std::string text;
    for (int scan = 0; scan < 40; ++scan) {
      text += daemon.scan();
    }
    expect_state(program.pid(), 5, 2400);
    EXPECT_EQ(0U, occurrences(text, "Decrease"));
    EXPECT_TRUE(program.running());
  });
}

TEST_F(Watchdog, WithoutItsMainThreadAProcessIsNeverCountedDown) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 1, kShort);
    const std::string complaint = numbers("[WEX:wex_core:N]pid:%d not reg alive!\n", program.pid());
    for (int scan = 1; scan <= 30; ++scan) {
      const std::string text = daemon.scan();
      EXPECT_EQ(scan % 2 == 0 ? 1U : 0U, occurrences(text, complaint)) << "scan " << scan;
      EXPECT_EQ(scan % 2 == 0 ? 1U : 0U,
                occurrences(text, state_line("Decrease ", program.tid(1), program.pid(), kShort)));
      expect_state(program.tid(1), 5, scan % 2 * 60);
    }
    EXPECT_TRUE(program.running());
    set_levels(0, WEX_DBG_SILENT);
    EXPECT_EQ(complaint, lines_of([&] { daemon.scans(2); })) << "a line of the public level";
    set_levels(WEX_DBG_SILENT, 0);
    EXPECT_EQ(0U, occurrences(lines_of([&] { daemon.scans(2); }), "not reg alive"));
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
    daemon.start(program, 0, kLong);
    daemon.scans(10);
    EXPECT_TRUE(program.aborted()) << "counted once the main thread is registered";
  });
}

TEST_F(Watchdog, ASilentMainThreadIsAHangAsAnyOther) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, kShort);
    for (int scan = 1; scan <= 10; ++scan) {
      EXPECT_TRUE(program.running());
      program.report(1);
      daemon.scans(1);
    }
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, EveryLineOfAScanIsAsItAlwaysWas) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    const int32_t pid = program.pid();
    daemon.start(program, 0, {3, 1, 120, 60});
    write_file(kNotifyCount, "0");  // or its absence would be told in between
    EXPECT_EQ(state_line("", pid, pid, {3, 1, 120, 60}) + "[WEX:wex_core:N]" + warning(pid, pid, 3, 3) +
                  state_line("Decrease ", pid, pid, {3, 0, 120, 0}) +
                  numbers("[WEX:wex_core:N]ntfy_cnt(3), send SIGABRT to ppid (%d)\n", pid) +
                  "[WEX:wex_core:N]sem_cnt = 0\n",
              daemon.scan());
  });
}

// ---- Aborting
// ------------------------------------------------------------------------------------------------

TEST_F(Watchdog, OnlyTheFirstInBucketOrderIsAbortedInOneScan) {
  in_child([] {
    service one(1);
    service two(1);
    const daemon_side daemon;
    daemon.start(one, 0, {5, 1, 60, 0});
    daemon.start(two, 0, {5, 1, 60, 0});
    const bool same = wex_hash_pid(one.pid()) == wex_hash_pid(two.pid());
    const bool one_first =
        !same && wex_hash_pid(one.pid()) < wex_hash_pid(two.pid());  // the newer is at the head
    service& first = one_first ? one : two;
    service& second = one_first ? two : one;
    daemon.scans(1);
    EXPECT_TRUE(first.aborted());
    EXPECT_TRUE(second.running());
    EXPECT_EQ(1U, hangs_logged());
    expect_state(second.pid(), 0, 0);
    daemon.scans(1);
    EXPECT_TRUE(second.aborted());
    EXPECT_EQ(2U, hangs_logged());
  });
}

TEST_F(Watchdog, TwoHungThreadsOfAProcessAreOneAbort) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    daemon.start(program, 1, {5, 0, 120, 0});
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    daemon.scans(2);
    EXPECT_EQ(1U, hangs_logged());
    EXPECT_EQ(0, wex_alive_chains.count);
  });
}

TEST_F(Watchdog, AProcessThatIgnoresTheAbortIsAbortedAndLoggedAtEveryScanUntilItReports) {
  in_child([] {
    service program(1, true);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(10);
    EXPECT_EQ(1U, hangs_logged());
    for (size_t more = 2; more <= 5; ++more) {
      EXPECT_EQ(1U, occurrences(daemon.scan(), "send SIGABRT"));
      EXPECT_EQ(more, hangs_logged());
    }
    EXPECT_TRUE(program.running());
    program.report(0);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
    EXPECT_EQ(5U, hangs_logged());
    daemon.scans(9);
    EXPECT_EQ(5U, hangs_logged()) << "it has its full count again";
    daemon.scans(1);
    EXPECT_EQ(6U, hangs_logged());
  });
}

TEST_F(Watchdog, AHungProcessCanStandInTheWayOfAllBehindIt) {
  in_child([] {
    service one(1, true);
    service two(1, true);
    const daemon_side daemon;
    daemon.start(one, 0, {5, 0, 120, 0});
    daemon.start(two, 0, {5, 0, 120, 0});
    const bool same = wex_hash_pid(one.pid()) == wex_hash_pid(two.pid());
    const bool one_first = !same && wex_hash_pid(one.pid()) < wex_hash_pid(two.pid());
    const int32_t first = one_first ? one.pid() : two.pid();
    std::string text;
    for (int scan = 0; scan < 4; ++scan) {
      text += daemon.scan();
    }
    EXPECT_EQ(4U, occurrences(text, "send SIGABRT"));
    EXPECT_EQ(4U, occurrences(text, numbers("send SIGABRT to ppid (%d)\n", first)));
  });
}

TEST_F(Watchdog, AThreadWithoutANameIsLoggedAsUnknown) {
  in_child([] {
    service program(3);
    const daemon_side daemon;
    daemon.start(program, 2, {5, 0, 120, 0});
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    EXPECT_EQ(1U, occurrences(contents(kNotifyLog), numbers("] thread unknown:%d hung.\n", program.tid(2))));
  });
}

// Its executable cannot be seen by a watchdog of another user, so nothing contradicts the registered text.
TEST_F(Watchdog, AProgramWithoutASlashIsLoggedByItsWholeCommandLine) {
  in_child([] {
    service program(1);
    ASSERT_EQ(0, system("mkdir -p /ovix/vsd/0/utils/wex && chmod -R 0777 /ovix"));
    ASSERT_EQ(0, setuid(kOtherUser));
    const daemon_side daemon;
    wex_pid* const rec = wex_new_record();
    rec->pid = rec->ppid = program.pid();
    strcpy(rec->process, "plain program");
    {
      const chain_lock hold(wex_alive_chains);
      __wex_add_record(&wex_alive_chains, rec);
    }
    daemon.scans(1);
    EXPECT_EQ(
        1U, occurrences(contents(kNotifyLog), numbers(" detect process:[plain program/%d] ", program.pid())));
  });
}

TEST_F(Watchdog, CountersThatMakeNoSenseAreSurvived) {
  struct {
    figures before;
    int32_t left, elapsed;
  } const rows[] = {
      {{5, -1, 60, 0}, -1, 0},
      {{5, INT32_MIN, 60, 0}, INT32_MIN, 0},
      {{INT32_MIN, INT32_MAX, 60, 0}, INT32_MAX - 1, 0},
      {{-7, 3, 60, 0}, 2, 0},
      {{INT32_MAX, 1000, 60, 0}, 999, 0},
      {{5, 5, 120, INT32_MAX}, 5, INT32_MIN + 59},
      {{5, 5, 120, INT32_MIN}, 5, INT32_MIN + 60},
      {{5, 5, 0, 0}, 5, 60},
      {{5, 5, 0, -60}, 4, 0},
      {{5, 5, -60, -120}, 4, 0},
      {{5, 5, INT32_MIN, INT32_MIN}, 5, INT32_MIN + 60},
  };
  for (const auto& row : rows) {
    in_child([&] {
      service program(1);
      const daemon_side daemon;
      daemon.start(program, 0, row.before);
      daemon.scans(1);
      expect_state(program.pid(), row.left, row.elapsed);
      EXPECT_EQ("<absent>", contents(kNotifyLog));
      EXPECT_TRUE(program.running());
    });
  }
}

TEST_F(Watchdog, AStartForAKnownThreadDoesNotSaveItAResetDoes) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, kShort);
    daemon.scans(9);
    daemon.start(program, 0, kShort);
    expect_state(program.tid(0), 1, 60);
    daemon.reset(program, 0, kShort);
    daemon.reset(program, 1, kLong);
    expect_state(program.tid(0), 5, 0);
    expect_state(program.tid(1), 4, 0);
    daemon.scans(9);
    daemon.start(program, 0, kShort);
    EXPECT_TRUE(program.running());
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
  });
}

// ---- Threads that are no more, or no more themselves
// -------------------------------------------------------------

TEST_F(Watchdog, AnEndedThreadIsRemovedFromChainAndTable) {
  in_child([] {
    service program;
    const daemon_side daemon;
    const auto tid = static_cast<uint32_t>(program.tid(1));
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, {5, 0, 120, 0});
    program.end_thread(1);
    const std::string text = daemon.scan();
    EXPECT_EQ(1U,
              occurrences(text, numbers("[WEX:wex_core:N]pid is not exist(%d, ret:-1)\n", program.tid(1))));
    EXPECT_EQ(nullptr, daemon.find(program.tid(1)));
    EXPECT_EQ(1, wex_alive_chains.count);
    EXPECT_EQ(0, wex_sys_isreg_alive_info(tid));
    EXPECT_EQ(0U, wex_sys_get_alive_seq(tid));
    EXPECT_EQ(1, wex_sys_isreg_alive_info(static_cast<uint32_t>(program.pid()))) << "its neighbour";
    EXPECT_EQ("<absent>", contents(kNotifyLog));
    EXPECT_TRUE(program.running());
  });
}

TEST_F(Watchdog, AMainThreadThatEndedAloneIsRemoved) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, kShort);
    program.end_thread(0);
    daemon.scans(2);
    EXPECT_EQ(nullptr, daemon.find(program.tid(0)));
    expect_state(program.tid(1), 5, 0);  // no longer counted
  });
}

TEST_F(Watchdog, AllThreadsOfADeadProcessAreRemovedInOneScan) {
  in_child([] {
    service program(3);
    const daemon_side daemon;
    for (int i = 0; i < 3; ++i) {
      daemon.start(program, i, {5, 0, 120, 0});
    }
    program.end();
    daemon.scans(1);
    EXPECT_EQ(0, wex_alive_chains.count);
    EXPECT_EQ("<absent>", contents(kNotifyLog));
    const std::string table = contents(kAliveTableFile);
    EXPECT_EQ(std::string(20481 + 163840, '\0'), table.substr(32, 184353 - 32));
  });
}

TEST_F(Watchdog, AThreadIdThatAnotherProcessHasNowIsRemovedBeforeItIsCounted) {
  in_child([] {
    auto former = std::make_unique<service>();
    const int32_t owner = former->pid();
    const int32_t reused = former->tid(1);
    const daemon_side daemon;
    daemon.start(*former, 1, {5, 0, 120, 0});
    former->end();
    std::unique_ptr<service> stranger;
    for (int tries = 0; tries < 200 && (stranger == nullptr || stranger->pid() != reused); ++tries) {
      write_file("/proc/sys/kernel/ns_last_pid", std::to_string(reused - 1));
      stranger = std::make_unique<service>(1);
    }
    ASSERT_EQ(reused, stranger->pid()) << "others take every pid";
    const std::string text = daemon.scan();
    EXPECT_EQ(state_line("", reused, owner, {5, 0, 120, 0}) +
                  numbers("[WEX:wex_core:N]wex_check_pid_exist: ppid info no match(reg:%d, now:%d)\n", owner,
                          reused) +
                  numbers("[WEX:wex_core:N]pid is not exist(%d, ret:-1)\n", reused) +
                  "[WEX:wex_core:N]sem_cnt = 0\n",
              text.substr(text.find("[WEX:wex_core:N]pid (")));
    EXPECT_EQ(0, wex_alive_chains.count);
    EXPECT_EQ(0, wex_sys_isreg_alive_info(static_cast<uint32_t>(reused)));
    EXPECT_TRUE(stranger->running());
    EXPECT_EQ("<absent>", contents(kNotifyLog));
  });
}

TEST_F(Watchdog, AProcessThatRunsAnotherProgramNowIsRemoved) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    const std::string before = daemon.find(program.pid())->process;
    program.become_another_program();
    char now[4096];
    ASSERT_NE(nullptr, pid_to_cmdline(program.pid(), now, sizeof now));
    EXPECT_EQ(1U, occurrences(daemon.scan(),
                              "[WEX:wex_core:N]wex_check_pid_exist: cmdline info no match(reg:" + before +
                                  ", now:" + now + ")\n"));
    EXPECT_EQ(0, wex_alive_chains.count);
    EXPECT_TRUE(program.running());
    EXPECT_EQ("<absent>", contents(kNotifyLog));
  });
}

TEST_F(Watchdog, ARegisteredLineThatBeginsWithTheCurrentOneIsTheSameProgram) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    wex_pid* const rec = daemon.find(program.pid());
    strcat(rec->process, " and an argument that is gone");
    daemon.scans(1);
    EXPECT_EQ(rec, daemon.find(program.pid()));
    rec->process[strlen(rec->process) / 4] = '?';
    daemon.scans(1);
    EXPECT_EQ(nullptr, daemon.find(program.pid()));
  });
}

TEST_F(Watchdog, OnlyTheFirst255CharactersOfALongLineAreCompared) {
  in_child([] {
    const lasting_child program("/bin/sleep", {"sleep", "600", std::string(400, '0')});
    const daemon_side daemon;
    daemon.start(program.pid(), program.pid(), kShort);
    wex_pid* const rec = daemon.find(program.pid());
    ASSERT_NE(nullptr, rec);
    ASSERT_GT(strlen(rec->process), 400U);
    strcpy(rec->process + 300, "changed");
    daemon.scans(1);
    EXPECT_EQ(rec, daemon.find(program.pid()));
    rec->process[200] = '?';
    daemon.scans(1);
    EXPECT_EQ(nullptr, daemon.find(program.pid()));
  });
}

TEST_F(Watchdog, AForgedOwnerIsRemovedAndNobodyIsAborted) {
  for (const int32_t owner : {0, -1, 1, INT32_MIN}) {
    in_child([owner] {
      service program(1);
      const daemon_side daemon;
      daemon.start(program.pid(), owner, {5, 0, 120, 0});
      daemon.scans(1);
      EXPECT_EQ(0, wex_alive_chains.count);
      EXPECT_TRUE(program.running());
      EXPECT_EQ("<absent>", contents(kNotifyLog));
    });
  }
}

// ---- Brakes
// --------------------------------------------------------------------------------------------------

TEST_F(Watchdog, TheOperatorsFileStopsTheCountButNotTheCycle) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(4);
    write_file(kKillDebug, "");
    for (int scan = 1; scan <= 30; ++scan) {
      const std::string text = daemon.scan();
      expect_state(program.pid(), 3, scan % 2 * 60);
      EXPECT_EQ(scan % 2 == 0 ? 1U : 0U,
                occurrences(text, state_line("Decrease ", program.pid(), program.pid(), {5, 3, 120, 0})));
    }
    unlink(kKillDebug);
    daemon.scans(6);
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, AThreadThatWasHungBeforeTheOperatorsFileCameStaysHung) {
  in_child([] {
    service program(1, true);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 1, 60, 0});
    daemon.scans(1);
    write_file(kKillDebug, "");
    daemon.scans(2);
    EXPECT_EQ(3U, hangs_logged());
  });
}

TEST_F(Watchdog, ARaisedSemaphoreStopsTheCountButNotTheCycle) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    change_semaphore(2);
    std::string text;
    for (int scan = 0; scan < 30; ++scan) {
      text += daemon.scan();
    }
    expect_state(program.pid(), 5, 0);
    EXPECT_EQ(15U, occurrences(text, "]Decrease pid ("));
    EXPECT_EQ(30U, occurrences(text, "]sem_cnt = 2\n"));
    change_semaphore(0);
    daemon.scans(10);
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, ASemaphoreThatCannotBeReadStopsTheCount) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    ASSERT_EQ(0, semctl(g_wex_semid, 0, IPC_RMID));
    std::string text;
    for (int scan = 0; scan < 30; ++scan) {
      text += daemon.scan();
    }
    expect_state(program.pid(), 5, 0);
    EXPECT_EQ(15U, occurrences(text, "]Decrease pid ("));
    EXPECT_EQ(30U, occurrences(text, "]sem_cnt = -1\n"));
    EXPECT_EQ(60U, occurrences(text, "Get wex sem count failed: ")) << "two looks a scan";
    EXPECT_TRUE(program.running());
  });
}

// ---- The table
// -----------------------------------------------------------------------------------------------

TEST_F(Watchdog, ATableCutShortIsMendedAndTheThreadsGoOn) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(3);
    ASSERT_EQ(0, truncate(kAliveTableFile, 0));
    daemon.scans(1);
    EXPECT_EQ(188416U, contents(kAliveTableFile).size());
    expect_state(program.pid(), 3, 0);
    daemon.start(program, 0, kShort);  // what the thread's next report leads to
    program.report(0);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
  });
}

TEST_F(Watchdog, ATableThatWasReplacedStopsTheCountAndIsSaidOnce) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(2);
    ASSERT_EQ(0, rename(kAliveTableFile, "/dev/shm/aside"));
    const std::string complaint =
        "/dev/shm/UTILS-wex-shm-001 is not the table that threads were registered in, hangs are not "
        "counted.\r\n";
    daemon.scans(2);
    EXPECT_EQ(1U, occurrences(contents(kRunningLog), complaint));
    write_file(kAliveTableFile, std::string(188416, '\xff'));
    daemon.scans(28);
    expect_state(program.pid(), 4, 0);
    EXPECT_EQ(1U, occurrences(contents(kRunningLog), complaint));
    ASSERT_EQ(0, rename("/dev/shm/aside", kAliveTableFile));
    daemon.scans(2);
    expect_state(program.pid(), 3, 0);
    unlink(kAliveTableFile);
    daemon.scans(1);
    EXPECT_EQ(2U, occurrences(contents(kRunningLog), complaint)) << "a new loss is said again";
  });
}

TEST_F(Watchdog, AThreadThatStillHasTheReplacedTableCanRecover) {
  in_child([] {
    service program(1, true);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 1, 60, 0});
    daemon.scans(1);
    EXPECT_EQ(1U, hangs_logged());
    program.report(0);  // maps the table
    daemon.start(program, 0, kShort);
    ASSERT_EQ(0, unlink(kAliveTableFile));
    daemon.scans(1);
    EXPECT_EQ(2U, hangs_logged());
    program.report(0);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
    EXPECT_EQ(2U, hangs_logged());
  });
}

// Thread ids that large need a pid namespace of their own.
TEST_F(Watchdog, TheLastIdOfTheTableReportsThroughItAndTheNextByMessage) {
  in_child([] {
    ASSERT_EQ(0, unshare(CLONE_NEWPID | CLONE_NEWNS));
    in_child([] {
      ASSERT_EQ(0, mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
      ASSERT_EQ(0, mount("proc", "/proc", "proc", 0, nullptr));
      write_file("/proc/sys/kernel/pid_max", "400000");
      // Downwards: under user-mode emulation each process takes one id more for a thread of the emulator.
      write_file("/proc/sys/kernel/ns_last_pid", "163839");
      service beyond(1);
      write_file("/proc/sys/kernel/ns_last_pid", "163838");
      service last(1);
      ASSERT_EQ(163839, last.pid());
      ASSERT_EQ(163840, beyond.pid());
      const daemon_side daemon;
      daemon.start(last, 0, kShort);
      const std::string before = contents(kAliveTableFile);
      set_levels(WEX_DBG_SILENT, 0);
      EXPECT_EQ("", lines_of([&] { daemon.start(beyond, 0, kShort); })) << "the table is not asked";
      set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
      EXPECT_EQ(before, contents(kAliveTableFile));
      EXPECT_EQ('\x80', before[20511]);
      EXPECT_EQ('\x01', before[184352]);
      daemon.scans(9);
      last.report(0);
      EXPECT_EQ('\x02', contents(kAliveTableFile)[184352]);
      daemon.reset(beyond, 0, kShort);
      daemon.scans(1);
      expect_state(163839, 5, 0);
      expect_state(163840, 5, 60);
      EXPECT_EQ(0U, occurrences(daemon.scan(), "pid err"));
      beyond.end();
      EXPECT_EQ(0U, occurrences(daemon.scan(), "pid err"));
      EXPECT_EQ(1, wex_alive_chains.count);
    });
  });
}

// ---- Dumps
// ---------------------------------------------------------------------------------------------------

TEST_F(Watchdog, WithPublicDebuggingTheChainsGoToTheSystemLogOrToTheConsole) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    const std::string node = numbers("pid: %-6d, vsd: 0 , regact: 0, pname:  ", program.pid()) +
                             daemon.find(program.pid())->process + ", \n";
    unlink(kDumpToConsole);
    EXPECT_EQ(0U, occurrences(daemon.scan(), "in wex:"));
    EXPECT_EQ("<6>register restart in wex:\n<6>node num:0\n<6>register hang in wex:\n<6>node num:1\n<6>" +
                  node + "<6>delay restart in wex:\n<6>node num:0\n",
              system_log);
    system_log.clear();
    write_file(kDumpToConsole, "");
    EXPECT_EQ(0U,
              daemon.scan().find("register restart in wex:\nnode num:0\nregister hang in wex:\nnode num:1\n" +
                                 node + "delay restart in wex:\nnode num:0\n[WEX:wex_core:N]pid ("));
    EXPECT_EQ("", system_log);
    set_levels(WEX_DBG_SILENT, 0);
    EXPECT_EQ(0U, occurrences(lines_of([&] { daemon.scans(1); }), "in wex:"))
        << "not without public debugging";
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
    unlink(kDumpToConsole);
    daemon.scans(1);
    EXPECT_EQ("", system_log);
  });
}

TEST_F(Watchdog, SilentLevelsPrintNothingAndStillAbortAndLog) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    EXPECT_EQ("", output_of([&] { daemon.scans(10); }));
    EXPECT_TRUE(program.aborted());
    EXPECT_EQ(1U, hangs_logged());
  });
}

// ---- The thread
// ----------------------------------------------------------------------------------------------

TEST_F(Watchdog, TheThreadHasItsNameAndPriorityScansAtOnceAndEndsWithTheFlag) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    wex_init_wakeup();
    std::atomic<int32_t> tid{0};
    void* result = &tid;
    std::thread watchdog([&] {
      tid = static_cast<int32_t>(syscall(SYS_gettid));
      result = wex_notifer_run(nullptr);
    });
    EXPECT_TRUE(eventually([&] { return elapsed(program.pid()) == 60; }));
    EXPECT_EQ("wex_thread_noti\n", contents("/proc/self/task/" + std::to_string(tid) + "/comm"));
    sched_param how = {};
    EXPECT_EQ(0, sched_getparam(tid, &how));
    EXPECT_EQ(SCHED_FIFO, sched_getscheduler(tid));
    EXPECT_EQ(99, how.sched_priority);
    const milliseconds taken = time_of([&] {
      wex_raise_exit_flag();
      watchdog.join();
    });
    EXPECT_GT(milliseconds(10000), taken);
    EXPECT_EQ(nullptr, result);
    expect_state(program.pid(), 5, 60);  // it waits before it looks again
  });
}

TEST_F(Watchdog, WithoutTheRightToItsPriorityTheThreadSaysSoAndScans) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    ASSERT_EQ(0, setuid(kOtherUser));
    wex_init_wakeup();
    set_levels(0, 0);
    const std::string text = lines_of([&] {
      std::thread watchdog([] { wex_notifer_run(nullptr); });
      EXPECT_TRUE(eventually([&] { return elapsed(program.pid()) == 60; }));
      wex_raise_exit_flag();
      watchdog.join();
    });
    EXPECT_EQ("[WEX:wex_core:N]wex_notifer_run: set priority fail: Operation not permitted\n" +
                  state_line("", program.pid(), program.pid(), kShort) + "[WEX:wex_core:N]sem_cnt = 0\n",
              text);
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
  });
}

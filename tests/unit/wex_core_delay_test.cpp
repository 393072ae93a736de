// Postponed restarts and lost exits, with a clock that the test sets: nobody waits 301 s here.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "chain_lock.h"
#include "dying_process.h"
#include "registry_files.h"
#include "verify_chain.h"
#include "wex_chain.h"
#include "wex_clock.h"
#include "wex_core.h"
#include "wex_core_delay.h"
#include "wex_core_exit.h"
#include "wex_core_files.h"
#include "wex_core_netlink.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_stop.h"
#include "wex_core_takedown.h"
#include "wex_core_third_part.h"
#include "wex_core_upkeep.h"
#include "wex_core_watched_names.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_signals_reaper.h"
#include "wex_utils.h"

namespace {

using namespace registry;

std::atomic<int32_t> g_now{1000};
std::atomic<int> g_asked{0};

// How often memory was taken, and how often by somebody who kept others from the registry.
struct memory_watch {
  std::atomic<int> taken{0};
  std::atomic<int> with_registry{0};
  void note() {
    ++taken;
    bool free = true;
    std::thread([&free] {
      free = pthread_mutex_trylock(&wex_chains.mutex) == 0;
      if (free) {
        pthread_mutex_unlock(&wex_chains.mutex);
      }
    }).join();
    with_registry += free ? 0 : 1;
  }
};
memory_watch g_memory;

constexpr char kProgram[] = "/bin/sleep 1000";

std::string file_of(int32_t pid) {
  return db_file(0, "sleep", pid);
}

// Another process that keeps a database file locked.
class lock_keeper {
 public:
  explicit lock_keeper(int32_t pid)
      : keeper_([pid] { return wex_db_create(0, pid, RESPAWN, kProgram) == 0; }) {
    EXPECT_TRUE(keeper_.ready());
    EXPECT_TRUE(is_locked_for_others(file_of(pid)));
  }
  void let_go() { keeper_.end(); }

 private:
  service keeper_;
};

class Delay : public RegistryWorld {
 protected:
  void SetUp() override {
    RegistryWorld::SetUp();
    make_dirs("/tmp/wex");
    for (const char* path : {kDebugTime, kThirdPartList, kRebootLog}) {
      unlink(path);
    }
    ASSERT_EQ(0, wex_init_chains(&wex_chains));
    ASSERT_EQ(0, wex_init_chains(&wex_alive_chains));
    ASSERT_EQ(0, wex_init_chains(&wex_chains_delay));
    g_now = 1000;
    wex_monitor_read_until = INT32_MAX;
    wex_exit_flag = 0;
    wex_delay_ended = false;
  }

  void TearDown() override {
    stop_thread();
    {
      chain_lock hold(wex_chains);
      record_walk walk(wex_chains);
      while (const wex_pid* const rec = walk.next()) {
        if (rec->pid > 1 && waitpid(rec->pid, nullptr, WNOHANG) == 0) {
          wex_test::send_signal(rec->pid, SIGKILL);
          waitpid(rec->pid, nullptr, 0);
        }
      }
    }
    for (wex_chains_t* chain : {&wex_chains, &wex_chains_delay, &wex_alive_chains}) {
      EXPECT_TRUE(chain_is_sound(*chain));
      wex_destroy_chains(chain);
    }
    wex_chld_handler(SIGCHLD);
    RegistryWorld::TearDown();
  }

  static wex_pid* add(int32_t pid, uint64_t start_time = 1) {
    wex_pid* const rec = wex_new_record();
    rec->pid = pid;
    rec->action = RESPAWN;
    rec->start_time = start_time;  // nobody started so early: the process is known to be gone
    snprintf(rec->process, sizeof rec->process, "%s", kProgram);
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, rec);
    return rec;
  }

  static int32_t count(wex_chains_t& chain) {
    const chain_lock hold(chain);
    return chain.count;
  }

  static int32_t present_pid(const wex_pid* rec) {
    chain_lock hold(wex_chains);
    return rec->pid;
  }

  // What is gone counts as lost then.
  static void sweep_twice() {
    wex_sweep_lost_exits();
    g_now = g_now + kSweepConfirmSec;
    wex_sweep_lost_exits();
  }

  void start_thread() {
    ASSERT_EQ(0, pthread_create(&thread_, nullptr, wex_delay_restart, nullptr));
    running_ = true;
  }

  // Without the wake-up descriptor the thread sees the flag at its next pass.
  void stop_thread() {
    if (running_) {
      wex_exit_flag = 1;
      EXPECT_TRUE(eventually([] { return wex_delay_ended.load(); }, 5s));
      running_ = false;
    }
  }

  pthread_t thread_;
  bool running_ = false;
};

}  // namespace

extern "C" int32_t wex_clock_now(void) {
  ++g_asked;
  return g_now;
}

// Memory may be short, and whoever takes some then waits for it.
extern "C" void* __real_safe_malloc(size_t size);
extern "C" void* __wrap_safe_malloc(size_t size) {
  g_memory.note();
  return __real_safe_malloc(size);
}

TEST_F(Delay, ACopyHoldsWhatTheRestartNeedsAndNothingElse) {
  const int32_t pid = dead_pid();
  wex_pid* const rec = add(pid);
  lock_keeper keeper(pid);
  rec->restart_delay = 7;
  rec->flags = 1;
  rec->check_count = 3;
  rec->reboot_allow = 2;
  rec->crash_time = 900;
  snprintf(rec->script, sizeof rec->script, "script a");
  wex_handle_netlink_exit(pid, 139, 0);
  EXPECT_EQ(pid, present_pid(rec)) << "the registered record stays under its old pid";
  chain_lock hold(wex_chains_delay);
  const wex_pid* const copy = __wex_find_pid(&wex_chains_delay, pid);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(1000, copy->delay_start);
  EXPECT_EQ(139u, copy->exit_signal);
  EXPECT_EQ(7, copy->restart_delay);
  EXPECT_EQ(RESPAWN, copy->action);
  EXPECT_EQ(0, copy->force_restart);
  EXPECT_EQ(0u, copy->flags);
  EXPECT_EQ(0, copy->check_count);
  EXPECT_EQ(0, copy->reboot_allow);
  EXPECT_EQ(0, copy->crash_time);
  EXPECT_STREQ(kProgram, copy->process);
  EXPECT_STREQ("script a", copy->script);
}

TEST_F(Delay, ASecondExitOfAWaitingPidMakesNoSecondCopy) {
  const int32_t pid = dead_pid();
  add(pid);
  lock_keeper keeper(pid);
  const captured_output printed;
  wex_handle_netlink_exit(pid, 9, 0);
  g_now = 1100;
  wex_handle_netlink_exit(pid, 11, 0);
  EXPECT_EQ(1, count(wex_chains_delay));
  EXPECT_NE(std::string::npos, printed.text().find("[wex_core]wex_proc_restart_delay pid " +
                                                   std::to_string(pid) + " exist in wex_chains_delay\n"))
      << printed.text();
  chain_lock hold(wex_chains_delay);
  EXPECT_EQ(1000, __wex_find_pid(&wex_chains_delay, pid)->delay_start)
      << "its 301 s began with the first exit";
  EXPECT_EQ(9u, __wex_find_pid(&wex_chains_delay, pid)->exit_signal);
}

TEST_F(Delay, NoMemoryIsWaitedForWithTheRegistryInHand) {
  std::vector<int32_t> pids;
  std::vector<std::unique_ptr<lock_keeper>> keepers;
  for (int i = 0; i < 3; ++i) {
    pids.push_back(dead_pid());
    wex_pid* const rec = add(pids.back());
    snprintf(rec->process, sizeof rec->process, "/bin/sleep 100%d", i);
    keepers.push_back(std::make_unique<lock_keeper>(pids.back()));
  }
  g_memory.taken = g_memory.with_registry = 0;
  for (const int32_t pid : pids) {
    wex_handle_netlink_exit(pid, 9, 0);
  }
  EXPECT_EQ(3, count(wex_chains_delay));
  EXPECT_LE(2, g_memory.taken) << "one piece may have been reserved before";
  EXPECT_EQ(0, g_memory.with_registry) << "clients and other exits would wait as well";
}

TEST_F(Delay, ExitsAtTheSameTimeDoNotTakeEachOthersMemory) {
  constexpr size_t kExits = 8;
  std::vector<int32_t> pids;
  std::vector<std::unique_ptr<lock_keeper>> keepers;
  for (size_t i = 0; i < kExits; ++i) {
    pids.push_back(dead_pid());
    wex_pid* const rec = add(pids.back());
    snprintf(rec->process, sizeof rec->process, "/bin/sleep 100%zu", i);
    keepers.push_back(std::make_unique<lock_keeper>(pids.back()));
  }
  std::vector<std::thread> reporters;
  for (const int32_t pid : pids) {
    reporters.emplace_back([pid] { wex_handle_netlink_exit(pid, 9, 0); });
  }
  for (std::thread& reporter : reporters) {
    reporter.join();
  }
  EXPECT_EQ(static_cast<int32_t>(kExits), count(wex_chains_delay));
}

TEST_F(Delay, OnceAMinuteItLooksWhetherTheDirectoryIsStillTheDaemons) {
  make_dirs("/ovix/vsd/0/utils/wex");
  struct stat facts = {};
  ASSERT_EQ(0, stat(kRunDir, &facts));
  wex_watch_name(WEX_NAME_DIRECTORY, facts);
  const char line[] = "/tmp/wex/ is gone, failed forks go unseen.\r\n";
  const auto told = [&] { return read_file(kRunningLog1).find(line) != std::string::npos; };
  const int asked = g_asked;
  start_thread();
  ASSERT_TRUE(eventually([&] { return g_asked >= asked + 2; })) << "its minute must have begun";
  ASSERT_EQ(0, rename("/tmp/wex", "/tmp/away"));
  g_now = 1000 + kNamesEverySec - 1;
  EXPECT_FALSE(eventually(told, 2200ms));
  g_now = 1000 + kNamesEverySec;
  EXPECT_TRUE(eventually(told, 3s)) << read_file(kRunningLog1);
  stop_thread();
  ASSERT_EQ(0, rename("/tmp/away", "/tmp/wex"));
}

TEST_F(Delay, AFileNobodyHoldsOrNobodyFindsPostponesNothing) {
  wex_pid* const rec = add(dead_pid());
  chain_lock hold(wex_chains);
  EXPECT_EQ(0, wex_proc_restart_delay(rec)) << "no file";
  registry::write_file(file_of(rec->pid), "1\n2\n/bin/sleep");
  EXPECT_EQ(0, wex_proc_restart_delay(rec)) << "not locked";
  EXPECT_EQ(0, wex_proc_restart_delay(nullptr));
  lock_keeper keeper(rec->pid);
  rec->force_restart = 1;
  EXPECT_EQ(0, wex_proc_restart_delay(rec)) << "forced";
  rec->force_restart = 0;
  EXPECT_EQ(1, wex_proc_restart_delay(rec));
}

TEST_F(Delay, HeldForEverItIsForcedAt301SecondsAndNotAt300) {
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  lock_keeper keeper(pid);
  const captured_output printed;
  wex_handle_netlink_exit(pid, 9, 0);
  g_now = 1300;
  start_thread();
  EXPECT_FALSE(eventually([&] { return present_pid(rec) != pid; }, 2200ms));
  EXPECT_EQ(std::string::npos, printed.text().find("more than 300s"));
  g_now = 1301;
  EXPECT_TRUE(eventually([&] { return present_pid(rec) != pid; }, 3s));
  const std::string text = printed.text();
  EXPECT_NE(std::string::npos, text.find("[wex_core]" + std::string(kProgram) + "/" + std::to_string(pid) +
                                         " more than 300s delay restart.\n"))
      << text;
  EXPECT_NE(std::string::npos,
            text.find("[wex_core]pid:" + std::to_string(pid) + ", exit_signal:0x9, force_restart:1\n"))
      << text;
  EXPECT_EQ(0, count(wex_chains_delay));
  EXPECT_EQ(0, rec->force_restart) << "the next exit may be postponed again";
  EXPECT_FALSE(exists(file_of(pid)));
}

TEST_F(Delay, ReleasedItIsRestartedAtTheNextPassUnforced) {
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  lock_keeper keeper(pid);
  const captured_output printed;
  wex_handle_netlink_exit(pid, 9, 0);
  start_thread();
  EXPECT_FALSE(eventually([&] { return present_pid(rec) != pid; }, 1200ms));
  keeper.let_go();
  EXPECT_TRUE(eventually([&] { return present_pid(rec) != pid; }, 2s));
  EXPECT_NE(std::string::npos, printed.text().find("force_restart:0\n"));
}

TEST_F(Delay, ATakeDownOfAnotherDomainHoldsNothingBack) {
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  lock_keeper keeper(pid);
  wex_handle_netlink_exit(pid, 9, 0);
  wex_test::write_file("/tmp/vsd/5/delete_vsd", "");  // stays, as after a take-down that was cut short
  start_thread();
  keeper.let_go();
  EXPECT_TRUE(eventually([&] { return present_pid(rec) != pid; }, 20s))
      << "a marker left behind would keep it down for ever";
}

TEST_F(Delay, ATakeDownForgetsWhatWaitsInItsDomainAndNothingElse) {
  struct waiting {
    const char* name;
    int32_t vsd;
    bool stays;
  };
  const waiting rows[] = {{"postponed", 5, false}, {"parked", 5, false}, {"failed", 5, false},
                          {"marked", 0, false},    {"living", 5, true},  {"elsewhere", 6, true},
                          {"main", 0, true}};
  service alive;
  std::vector<wex_pid*> records;
  for (const waiting& row : rows) {
    wex_pid* const rec = add(row.name == std::string("living") ? alive.pid() : dead_pid());
    snprintf(rec->process, sizeof rec->process, "/bin/%s", row.name);
    rec->vsd = row.vsd;
    write_file(db_file(row.vsd, row.name, rec->pid), "1\n2\n/bin/x");
    records.push_back(rec);
  }
  service keeper([&] { return wex_db_create(5, records[0]->pid, RESPAWN, "/bin/postponed") == 0; });
  wex_handle_netlink_exit(records[0]->pid, 9, 0);
  ASSERT_EQ(1, count(wex_chains_delay));
  for (wex_pid* const parked : {records[1], records[5], records[6]}) {
    parked->alarm_wait_flag = 1;
    parked->flags = WEX_FLAG_WAITING;
  }
  records[2]->restart_failed = 1;
  write_file("/tmp/vsd/5/wex/" + std::to_string(records[3]->pid), "");
  {
    chain_lock hold(wex_chains);
    wex_note_identity(records[4]);
  }
  std::vector<int32_t> pids;
  for (const wex_pid* const rec : records) {
    pids.push_back(rec->pid);
  }
  wex_test::write_file("/tmp/vsd/5/delete_vsd", "");
  wex_drop_domains_taken_down();
  for (size_t i = 0; i < std::size(rows); ++i) {
    chain_lock hold(wex_chains);
    EXPECT_EQ(rows[i].stays, __wex_find_pid(&wex_chains, pids[i]) != nullptr) << rows[i].name;
    EXPECT_EQ(rows[i].stays, exists(db_file(rows[i].vsd, rows[i].name, pids[i]))) << rows[i].name;
  }
  EXPECT_EQ(0, count(wex_chains_delay));
  chain_lock hold(wex_chains);
  for (const size_t left : {4u, 5u, 6u}) {
    __wex_drop_record(&wex_chains, records[left]);
  }
}

// A long restart may keep the registry from being looked through until the take-down is over.
TEST_F(Delay, ATakeDownThatWasSeenCountsUntilTheRegistryHasBeenLookedThrough) {
  wex_pid* const rec = add(dead_pid());
  rec->vsd = 5;
  wex_test::write_file("/tmp/vsd/5/delete_vsd", "");
  std::atomic<int32_t> looker{0};
  std::thread looking;
  {
    chain_lock hold(wex_chains);
    looking = std::thread([&looker] {
      looker = wex_thread_id();
      wex_drop_domains_taken_down();
    });
    ASSERT_TRUE(eventually(
        [&] {
          const std::string wait = read_file("/proc/self/task/" + std::to_string(looker) + "/syscall");
          return wait.find(std::to_string(SYS_futex) + " ") == 0;
        },
        20s))
        << "it must have seen the marker and wait for the registry";
    ASSERT_EQ(0, unlink("/tmp/vsd/5/delete_vsd"));
    EXPECT_TRUE(__wex_dropped_with_domain(rec)) << "its exit comes late; it would be started in no domain";
  }
  looking.join();
  EXPECT_EQ(0, count(wex_chains));
  wex_pid* const next = add(dead_pid());
  next->vsd = 5;
  chain_lock hold(wex_chains);
  EXPECT_FALSE(__wex_dropped_with_domain(next)) << "the domain may have been created anew";
}

TEST_F(Delay, ARecordRemovedMeanwhileMakesTheHandOverDoNothing) {
  const int32_t pid = dead_pid();
  wex_pid* const rec = add(pid);
  lock_keeper keeper(pid);
  wex_handle_netlink_exit(pid, 9, 0);
  {
    chain_lock hold(wex_chains);
    __wex_drop_record(&wex_chains, rec);
  }
  keeper.let_go();
  start_thread();
  EXPECT_TRUE(eventually([] { return count(wex_chains_delay) == 0; }, 3s));
  stop_thread();
  EXPECT_EQ(0, count(wex_chains));
}

TEST_F(Delay, APidRegisteredAgainByALivingProcessIsNotRestartedByAnOldCopy) {
  service alive;
  const int32_t pid = alive.pid();
  wex_pid* const rec = add(pid);  // of an earlier process with this pid
  lock_keeper keeper(pid);
  wex_handle_netlink_exit(pid, 9, 0);
  ASSERT_EQ(1, count(wex_chains_delay));
  {
    chain_lock hold(wex_chains);
    wex_note_identity(rec);
  }
  keeper.let_go();
  start_thread();
  EXPECT_TRUE(eventually([] { return count(wex_chains_delay) == 0; }, 3s));
  stop_thread();
  EXPECT_EQ(pid, present_pid(rec));
  chain_lock hold(wex_chains);
  __wex_drop_record(&wex_chains, rec);
}

TEST_F(Delay, SeveralReadyCopiesAreHandedOverOneAPassInBucketOrder) {
  std::vector<int32_t> pids;
  for (int i = 0; i < 3; ++i) {
    pids.push_back(dead_pid());
    wex_pid* const rec = add(pids.back());
    snprintf(rec->process, sizeof rec->process, "/bin/sleep 100%d", i);  // or they would be duplicates
  }
  std::vector<std::unique_ptr<lock_keeper>> keepers;
  for (const int32_t pid : pids) {
    keepers.push_back(std::make_unique<lock_keeper>(pid));
    wex_handle_netlink_exit(pid, 9, 0);
  }
  ASSERT_EQ(3, count(wex_chains_delay));
  for (const auto& keeper : keepers) {
    keeper->let_go();
  }
  std::sort(pids.begin(), pids.end(), [](int32_t a, int32_t b) { return wex_hash_pid(a) < wex_hash_pid(b); });
  start_thread();
  auto last = std::chrono::steady_clock::now() - 1s;
  for (int left = 2; left >= 0; --left) {
    ASSERT_TRUE(eventually([left] { return count(wex_chains_delay) == left; }, 3s));
    const auto now = std::chrono::steady_clock::now();
    EXPECT_LE(900ms, now - last);
    last = now;
    for (int i = 0; i < 3; ++i) {
      chain_lock hold(wex_chains_delay);
      EXPECT_EQ(i >= 3 - left, __wex_find_pid(&wex_chains_delay, pids[static_cast<size_t>(i)]) != nullptr);
    }
  }
}

TEST_F(Delay, NoSecondIsCountedWhileTheClockStandsStill) {
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  lock_keeper keeper(pid);
  wex_handle_netlink_exit(pid, 9, 0);
  start_thread();
  EXPECT_FALSE(eventually([&] { return present_pid(rec) != pid; }, 2500ms));
  EXPECT_EQ(1, count(wex_chains_delay));
}

// ---- lost exits -------------------------------------------------------------------------------------------

TEST_F(Delay, AVanishedProcessIsRestartedOnlyWhenItHasBeenGoneForAWhileAndTheMonitorIsIdle) {
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  wex_sweep_lost_exits();
  EXPECT_EQ(pid, present_pid(rec)) << "its event may be on its way";
  g_now = 1000 + kSweepConfirmSec;
  wex_monitor_read_until = 0;
  wex_sweep_lost_exits();
  EXPECT_EQ(pid, present_pid(rec)) << "its event may lie in the socket";
  wex_monitor_read_until = INT32_MAX;
  wex_sweep_lost_exits();
  EXPECT_NE(pid, present_pid(rec));
  EXPECT_EQ(0u, rec->exit_signal) << "the cause is unknown";
}

TEST_F(Delay, ALostExitOfAChildHasTheStatusThatTheReaperWasGiven) {
  for (const int sig : {SIGTERM, SIGKILL}) {
    const pid_t child = fork();
    if (child == 0) {
      signal(sig, SIG_DFL);
      for (;;) {
        pause();
      }
    }
    ASSERT_GT(child, 0);
    wex_pid* const rec = add(child);
    wex_note_identity(rec);
    ASSERT_TRUE(wex_record_lives(rec));
    wex_test::send_signal(child, sig);
    ASSERT_TRUE(eventually(
        [&] {
          wex_chld_handler(SIGCHLD);
          return !wex_pid_exists(child);
        },
        20s));
    sweep_twice();
    if (sig == SIGTERM) {
      EXPECT_EQ(0, count(wex_chains)) << "it was stopped on purpose";
    } else {
      EXPECT_NE(child, present_pid(rec));
      EXPECT_EQ(static_cast<uint32_t>(SIGKILL), rec->exit_signal);
    }
  }
}

TEST_F(Delay, ALostCrashOfAChildCountsAsOneButNotThatOfAnotherProcessWithItsPid) {
  constexpr int kCrashed = SIGABRT | 0x80;
  struct row {
    uint64_t started;  // the child that ended; the record's process started at 1
    uint32_t code;
    int32_t crash_time;
  };
  for (const row& expected : {row{2, 0, 0}, row{0, 0, 0}, row{1, kCrashed, 1000 + kSweepConfirmSec}}) {
    g_now = 1000;
    const int32_t pid = dead_pid();
    wex_pid* const rec = add(pid);
    {
      const spawn_guard guard;
      wex_note_child_end(pid, expected.started, kCrashed);
    }
    sweep_twice();
    EXPECT_NE(pid, present_pid(rec));
    EXPECT_EQ(expected.code, rec->exit_signal) << expected.started;
    EXPECT_EQ(expected.crash_time, rec->crash_time) << expected.started;
    chain_lock hold(wex_chains);
    rec->process[0] = '\0';  // the next one is another program
  }
}

TEST_F(Delay, AVanishedProcessIsRestartedOnABusyDeviceOnceLaterEventsHaveBeenRead) {
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  wex_sweep_lost_exits();  // gone since 1000
  g_now = 1100;
  wex_monitor_read_until = 1001;
  wex_sweep_lost_exits();
  EXPECT_EQ(pid, present_pid(rec)) << "its event may be the next one";
  wex_monitor_read_until = 1002;
  wex_sweep_lost_exits();
  EXPECT_NE(pid, present_pid(rec));
}

TEST_F(Delay, AProcessThatTakesItsTimeToExitIsNoLostExitUntilItIsGone) {
  wex_test::dying_process dying;
  wex_pid* const rec = add(dying.pid());
  wex_note_identity(rec);
  ASSERT_NE(0u, rec->start_time);
  dying.begin_to_exit();
  ASSERT_TRUE(eventually([&] { return !wex_record_lives(rec); }));
  for (const int32_t now : {1000, 1010, 1600}) {
    g_now = now;
    wex_sweep_lost_exits();
    EXPECT_EQ(dying.pid(), present_pid(rec)) << "its event is still to come, with the true cause";
    EXPECT_EQ(0, rec->gone_since);
  }
  dying.let_it_end();
  wex_sweep_lost_exits();
  EXPECT_EQ(dying.pid(), present_pid(rec));
  g_now = 1600 + kSweepConfirmSec;
  wex_sweep_lost_exits();
  EXPECT_NE(dying.pid(), present_pid(rec));
}

TEST_F(Delay, AnExitOfAParkedRecordIsLeftToTheAlarm) {
  wex_pid* const parked = add(dead_pid());
  const int32_t pid = parked->pid;
  parked->alarm_wait_flag = 1;
  parked->flags = WEX_FLAG_WAITING;
  const captured_output output;
  wex_handle_netlink_exit(pid, 15, 0);
  EXPECT_NE(std::string::npos,
            output.text().find("[wex_core]wex_handle_netlink_exit--> alarm_wait_flag = 1\n"))
      << output.text();
  EXPECT_EQ(pid, present_pid(parked)) << "neither restarted nor, though stopped with SIGTERM, dropped";
  EXPECT_EQ(1, count(wex_chains));
  EXPECT_EQ(0, parked->exit_seen);
}

TEST_F(Delay, TheSweepLeavesParkedWaitingAndLivingOnesAlone) {
  wex_pid* const parked = add(dead_pid());
  snprintf(parked->process, sizeof parked->process, "/bin/sleep 1001");
  parked->alarm_wait_flag = 1;
  parked->flags = WEX_FLAG_WAITING;
  wex_pid* const waiting = add(dead_pid());
  snprintf(waiting->process, sizeof waiting->process, "/bin/sleep 1002");
  lock_keeper keeper(waiting->pid);
  wex_handle_netlink_exit(waiting->pid, 9, 0);
  service alive;
  wex_pid* const living = add(alive.pid());
  wex_note_identity(living);
  const int32_t before[] = {parked->pid, waiting->pid, living->pid};
  for (const int32_t now : {1000, 1010, 1020}) {
    g_now = now;
    wex_sweep_lost_exits();
  }
  EXPECT_EQ(before[0], parked->pid);
  EXPECT_EQ(before[1], waiting->pid);
  EXPECT_EQ(before[2], living->pid);
  EXPECT_EQ(1, count(wex_chains_delay));
  chain_lock hold(wex_chains);
  __wex_drop_record(&wex_chains, living);
}

// ---- files without a record, and records without a file ---------------------------------------------------

TEST_F(Delay, AProgramThatDiedBeforeItsRegistrationWasReadIsRestartedOnce) {
  const int32_t pid = dead_pid();
  write_file(file_of(pid), std::to_string(pid) + "\n2\n" + kProgram);
  const auto restarted = [] {
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    const wex_pid* const rec = walk.next();
    return rec != nullptr && wex_record_lives(rec);
  };
  const int asked = g_asked;
  start_thread();
  ASSERT_TRUE(eventually([&] { return g_asked >= asked + 2; }, 20s)) << "its minute must have begun";
  g_now = 1000 + kSweepEverySec;
  ASSERT_TRUE(eventually([] { return count(wex_chains) == 1; }, 20s));
  EXPECT_FALSE(restarted()) << "seen once only";
  g_now = g_now + kSweepConfirmSec;
  EXPECT_TRUE(eventually(restarted, 20s));
  EXPECT_EQ(1, count(wex_chains));
  EXPECT_FALSE(exists(file_of(pid)));
}

TEST_F(Delay, OtherFilesWithoutARecordAreLeftAlone) {
  service living;
  const int32_t locked = dead_pid();
  const int32_t named = dead_pid();
  const int32_t odd = dead_pid();
  const int32_t known = dead_pid();
  const auto content = [](int32_t pid, int action) {
    return std::to_string(pid) + "\n" + std::to_string(action) + "\n" + kProgram;
  };
  add(known);
  write_file(file_of(known), content(known, 2));
  write_file(file_of(living.pid()), content(living.pid(), 2));
  write_file(db_file(0, "other", named), content(named, 2));
  write_file(file_of(odd), content(odd, 7));
  write_file(db_file(0, "sleep", INT32_MAX), "nothing");
  write_file(db_dir(0) + "/none", content(named, 2));
  const lock_keeper keeper(locked);
  wex_look_at_files();
  EXPECT_EQ(1, count(wex_chains));
  EXPECT_EQ(7u, wex_test::list_dir(db_dir(0)).size());
  const int32_t late = dead_pid();
  write_file(file_of(late), content(late, 2));
  write_file("/tmp/vsd/5/delete_vsd", "");
  wex_look_at_files();
  EXPECT_EQ(1, count(wex_chains)) << "while a domain is taken down nothing comes back";
}

TEST_F(Delay, ALivingProgramGetsTheFileThatItCouldNotMakeAndItsEndIsNotPostponed) {
  service missing;
  service empty;
  service held;
  std::vector<wex_pid*> records;
  for (const service* const one : {&missing, &empty, &held}) {
    wex_pid* const rec = add(one->pid());
    snprintf(rec->process, sizeof rec->process, "/bin/sleep %zu", 1000 + records.size());
    rec->vsd = 2;
    wex_note_identity(rec);
    records.push_back(rec);
  }
  wex_pid* const dead = add(dead_pid());
  write_file(db_file(2, "sleep", empty.pid()), "");
  write_file(db_file(2, "sleep", held.pid()), "as it is");
  wex_look_at_files();
  for (const wex_pid* const rec : {records[0], records[1]}) {
    EXPECT_EQ(std::to_string(rec->pid) + "\n2\n" + rec->process,
              wex_test::read_file(db_file(2, "sleep", rec->pid)));
    EXPECT_TRUE(exists("/tmp/vsd/2/wex/" + std::to_string(rec->pid)));
    EXPECT_EQ(1, wex_proc_is_exit(rec)) << "or its restart would wait";
  }
  EXPECT_EQ("as it is", wex_test::read_file(db_file(2, "sleep", held.pid())));
  EXPECT_FALSE(exists(file_of(dead->pid)));
  chain_lock hold(wex_chains);
  for (wex_pid* const rec : records) {
    __wex_drop_record(&wex_chains, rec);
  }
}

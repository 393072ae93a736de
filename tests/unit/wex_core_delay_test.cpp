// Postponed restarts, with a clock that the test sets.
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "delay_world.h"
#include "renamed_record.h"
#include "wex_core_files.h"
#include "wex_core_takedown.h"
#include "wex_core_third_part.h"
#include "wex_core_watched_names.h"
#include "wex_status_image.h"

using namespace delay_world;

namespace {

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

}  // namespace

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
    rename_record(rec, "/bin/sleep 100" + std::to_string(i));
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
    rename_record(rec, "/bin/sleep 100" + std::to_string(i));
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
  const auto logged = [&] { return read_file(kRunningLog1).find(line) != std::string::npos; };
  const int asked = g_asked;
  start_thread();
  ASSERT_TRUE(eventually([&] { return g_asked >= asked + 2; })) << "its minute must have begun";
  ASSERT_EQ(0, rename("/tmp/wex", "/tmp/away"));
  g_now = 1000 + kNamesEverySec - 1;
  EXPECT_FALSE(eventually(logged, 2200ms));
  g_now = 1000 + kNamesEverySec;
  EXPECT_TRUE(eventually(logged, 30s)) << read_file(kRunningLog1);
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
  EXPECT_TRUE(eventually([&] { return present_pid(rec) != pid; }, 30s));
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
  EXPECT_TRUE(eventually([&] { return present_pid(rec) != pid; }, 30s));
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

namespace {

// Whether this is told of `pid` among the last few events.
bool was_dropped(int32_t pid) {
  status_words words;
  wex_status_copy_words(&words);
  for (uint32_t number = words.event_next - 16; number != words.event_next; ++number) {
    wex_status_event event = {};
    if (wex_status_copy_event(number, &event) && event.kind == WEX_STATUS_EV_DROPPED && event.pid == pid) {
      return true;
    }
  }
  return false;
}

}  // namespace

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
    rename_record(rec, std::string("/bin/") + row.name);
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
    EXPECT_EQ(!rows[i].stays, was_dropped(pids[i])) << rows[i].name;
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
  EXPECT_TRUE(eventually([] { return count(wex_chains_delay) == 0; }, 30s));
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
  EXPECT_TRUE(eventually([] { return count(wex_chains_delay) == 0; }, 30s));
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
    rename_record(rec, "/bin/sleep 100" + std::to_string(i));  // or they would be duplicates
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
  // Counted from here: who is late to see one would take the next one for too early.
  auto earliest = std::chrono::steady_clock::now();
  start_thread();
  for (int left = 2; left >= 0; --left) {
    ASSERT_TRUE(eventually([left] { return count(wex_chains_delay) == left; }, 30s));
    EXPECT_LE(earliest, std::chrono::steady_clock::now());
    earliest += 1s;
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

// wex_chain: buckets, primitives, duplicates, identities and replaced pids. Every step of every case
// is followed by a check of the whole chain.
#include "wex_chain.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <random>

#include "chain_lock.h"
#include "pid_set.h"
#include "registry_files.h"
#include "verify_chain.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"

using namespace registry;

namespace {

int32_t clock_offset = 0;
pid_set g_expected;  // the processes whose exits are to pass since the last tidying

}  // namespace

void real_pass_exits_only_of(const pid_set* pids) __asm__("__real__Z22wex_pass_exits_only_ofPK7pid_set");
void wrap_pass_exits_only_of(const pid_set* pids) __asm__("__wrap__Z22wex_pass_exits_only_ofPK7pid_set");
void wrap_pass_exits_only_of(const pid_set* pids) {
  if (pids != nullptr) {
    g_expected = *pids;
  }
  real_pass_exits_only_of(pids);
}

// The clock of records, as these cases want it.
extern "C" int32_t wex_clock_now(void) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int32_t>(now.tv_sec) + clock_offset;
}

namespace {

class Chain : public RegistryWorld {
 protected:
  void SetUp() override {
    RegistryWorld::SetUp();
    for (wex_chains_t* chain : chains_) {
      ASSERT_EQ(0, wex_init_chains(chain));
    }
    clock_offset = 0;
  }
  void TearDown() override {
    for (wex_chains_t* chain : chains_) {
      EXPECT_TRUE(chain_is_sound(*chain));
      EXPECT_EQ(0, wex_destroy_chains(chain));
      EXPECT_EQ(0, chain->count);
      EXPECT_TRUE(chain_is_sound(*chain));
    }
    RegistryWorld::TearDown();
  }
  static wex_pid* make(int pid, const char* process = "/a/foo", int vsd = 0) {
    wex_pid* const rec = wex_new_record();
    rec->pid = pid;
    rec->vsd = vsd;
    rec->action = RESPAWN;
    snprintf(rec->process, sizeof rec->process, "%s", process);
    return rec;
  }
  static wex_pid* add(wex_chains_t& chain, wex_pid* rec) {
    {
      chain_lock hold(chain);
      __wex_add_record(&chain, rec);
    }
    EXPECT_TRUE(chain_is_sound(chain));
    return rec;
  }
  static wex_pid* add(int pid, const char* process = "/a/foo", int vsd = 0) {
    return add(wex_chains, make(pid, process, vsd));
  }
  static wex_pid* find(int pid) {
    chain_lock hold(wex_chains);
    return __wex_find_pid(&wex_chains, pid);
  }
  static void del(int pid) {
    {
      chain_lock hold(wex_chains);
      __wex_del_pid(&wex_chains, pid);
    }
    EXPECT_TRUE(chain_is_sound(wex_chains));
  }
  static wex_pid* other_of(wex_pid* rec) {
    chain_lock hold(wex_chains);
    return wex_proc_is_running(rec);
  }
  static void adopt(wex_pid* rec, int pid) {
    {
      chain_lock hold(wex_chains);
      __wex_adopt_pid(&wex_chains, rec, pid);
    }
    EXPECT_TRUE(chain_is_sound(wex_chains));
  }
  static int replaced_by(int pid) {
    chain_lock hold(wex_chains);
    return __wex_replaced_by(pid);
  }
  // Pids that share the bucket of `pid`, itself first.
  static std::vector<int> sharing_bucket(int pid, size_t count) {
    std::vector<int> pids;
    for (int next = pid; pids.size() < count; ++next) {
      if (wex_hash_pid(next) == wex_hash_pid(pid)) {
        pids.push_back(next);
      }
    }
    return pids;
  }
  // Its descriptors stay open for the life of a daemon, and its object on the device.
  static void forget_alive_table(const std::set<std::string>& open_before) {
    int error = 0;
    ras_os_close_record_memory(&g_wex_alive_info.memory, &error);
    g_wex_alive_info = {};
    for (const std::string& entry : wex_test::open_descriptors()) {
      const bool of_the_table =
          entry.find("-> pipe:") != std::string::npos || entry.find("-> /dev/shm/") != std::string::npos;
      if (of_the_table && open_before.count(entry) == 0) {
        close(atoi(entry.c_str()));
      }
    }
  }
  static std::vector<wex_pid*> all() {
    std::vector<wex_pid*> records;
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    while (wex_pid* const rec = walk.next()) {
      records.push_back(rec);
    }
    return records;
  }
  static std::vector<int> walk_order() {
    std::vector<int> pids;
    for (const wex_pid* rec : all()) {
      pids.push_back(rec->pid);
    }
    return pids;
  }
  wex_chains_t* const chains_[3] = {&wex_chains, &wex_alive_chains, &wex_chains_delay};
};

}  // namespace

TEST_F(Chain, BucketIsTheTopByteOfTheProduct) {
  const struct {
    int32_t pid;
    uint32_t bucket;
  } rows[] = {{0, 0}, {1, 158}, {2, 60}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.bucket, wex_hash_pid(row.pid)) << row.pid;
  }
  for (const int32_t pid : {-1, INT32_MIN, INT32_MAX, 812, 163839}) {
    const uint64_t product = static_cast<uint64_t>(static_cast<uint32_t>(pid)) * 0x9e370001ULL;
    EXPECT_EQ((product & 0xffffffffULL) >> 24, wex_hash_pid(pid)) << pid;
  }
}

TEST_F(Chain, NewRecordIsZeroAndItsSecondLinkPointsAtItself) {
  wex_pid* const rec = wex_new_record();
  EXPECT_EQ(&rec->list, rec->list.next);
  EXPECT_EQ(&rec->list, rec->list.prev);
  rec->list = {};
  const std::string zeros(sizeof(wex_pid), '\0');
  EXPECT_EQ(0, memcmp(zeros.data(), static_cast<void*>(rec), sizeof(wex_pid)));
  wex_free_record(rec);
}

TEST_F(Chain, RecordsAreFiledAtTheHeadOfTheirBucket) {
  const std::vector<int> pids = sharing_bucket(812, 4);
  for (const int pid : pids) {
    add(pid);
  }
  EXPECT_EQ(4, wex_chains.count);
  EXPECT_EQ((std::vector<int>{pids[3], pids[2], pids[1], pids[0]}), walk_order());
}

TEST_F(Chain, FindAnswersTheFirstRecordOfThePidOrNull) {
  EXPECT_EQ(nullptr, find(812));
  add(812);
  wex_pid* const second = add(812);
  EXPECT_EQ(second, find(812));
  EXPECT_EQ(nullptr, find(sharing_bucket(812, 2)[1]));
  EXPECT_EQ(nullptr, find(-1));
}

TEST_F(Chain, DeletingAPidTakesAllItsRecordsAndNoOther) {
  const std::vector<int> pids = sharing_bucket(812, 3);
  for (const int pid : {pids[0], pids[1], pids[0], pids[2], pids[1]}) {
    add(pid);
  }
  captured_output output;
  del(pids[0]);
  EXPECT_EQ(3, wex_chains.count);
  EXPECT_EQ("[wex_chain]__wex_del_pid del pid 812\n[wex_chain]__wex_del_pid del pid 812\n", output.text());
  EXPECT_EQ(nullptr, find(pids[0]));
  EXPECT_EQ((std::vector<int>{pids[1], pids[2], pids[1]}), walk_order());
  del(pids[0]);
  EXPECT_EQ(3, wex_chains.count);
}

TEST_F(Chain, RecyclingAPidTakesAllItsRecordsAndKeepsTheMemoryOfOne) {
  const std::vector<int> pids = sharing_bucket(5, 2);
  wex_pid* const first = add(pids[0], "/a/first");
  wex_pid* const second = add(pids[0], "/a/second");
  add(pids[1]);
  captured_output output;
  wex_pid* memory = nullptr;
  {
    chain_lock hold(wex_chains);
    memory = __wex_recycle_pid(&wex_chains, pids[0]);
    EXPECT_EQ(nullptr, __wex_recycle_pid(&wex_chains, pids[0]));
  }
  EXPECT_TRUE(memory == first || memory == second);
  EXPECT_EQ(std::vector<int>{pids[1]}, walk_order());
  EXPECT_EQ("[wex_chain]__wex_del_pid del pid 5\n[wex_chain]__wex_del_pid del pid 5\n", output.text());
  memset(memory, 0x5a, sizeof *memory);
  ASSERT_EQ(memory, wex_blank_record(memory));
  EXPECT_EQ(0, memory->pid);
  EXPECT_STREQ("", memory->process);
  EXPECT_EQ(&memory->list, memory->list.next);
  EXPECT_EQ(&memory->list, memory->list.prev);
  add(wex_chains, memory);  // it is a record like any other
}

TEST_F(Chain, DeletingHeadMiddleAndTailLeavesTheBucketWalkable) {
  for (size_t gone = 0; gone < 5; ++gone) {
    const std::vector<int> pids = sharing_bucket(100, 5);
    for (const int pid : pids) {
      add(pid);
    }
    for (size_t next = 0; next < 5; ++next) {
      del(pids[(gone + next) % 5]);
      EXPECT_EQ(4 - static_cast<int>(next), wex_chains.count);
    }
  }
}

TEST_F(Chain, DeletingAPidLeavesItsDatabaseFile) {
  write_file(db_file(0, "foo", 812), "812\n2\n/a/foo");
  add(812);
  del(812);
  EXPECT_TRUE(exists(db_file(0, "foo", 812)));
}

TEST_F(Chain, RemovedBucketLinkIsPoisoned) {
  wex_pid* const rec = add(812);
  chain_lock hold(wex_chains);
  hlist_del(&rec->hnode);
  EXPECT_EQ(0x100100U, reinterpret_cast<uintptr_t>(rec->hnode.next));
  EXPECT_EQ(0x200200U, reinterpret_cast<uintptr_t>(rec->hnode.pprev));
  EXPECT_EQ(nullptr, __wex_find_pid(&wex_chains, 812));
  wex_chains.count--;
  wex_free_record(rec);
}

TEST_F(Chain, WalkSurvivesTheRemovalOfTheRecordItJustReturned) {
  for (int pid = 1; pid <= 600; ++pid) {
    add(pid);
  }
  int seen = 0;
  {
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    while (wex_pid* const rec = walk.next()) {
      if (++seen % 3 != 0) {
        __wex_drop_record(&wex_chains, rec);
      }
    }
    EXPECT_EQ(nullptr, walk.next()) << "a walk that has ended stays ended";
  }
  EXPECT_EQ(600, seen);
  EXPECT_EQ(200, wex_chains.count);
}

TEST_F(Chain, WalkGoesFromBucket0ToBucket255) {
  for (int pid = 1; pid <= 2000; ++pid) {
    wex_pid* const rec = make(pid);
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, rec);
  }
  const std::vector<int> order = walk_order();
  ASSERT_EQ(2000U, order.size());
  for (size_t i = 1; i < order.size(); ++i) {
    ASSERT_LE(wex_hash_pid(order[i - 1]), wex_hash_pid(order[i]));
  }
  EXPECT_EQ(0U, wex_hash_pid(order.front()));
  EXPECT_EQ(255U, wex_hash_pid(order.back()));
}

TEST_F(Chain, AnyMixOfStepsLeavesItSound) {
  std::mt19937 random(1);
  std::vector<wex_pid*> model;
  const auto some_pid = [&] { return static_cast<int>(random() % 40) - 2; };
  for (int step = 0; step < 4000; ++step) {
    const int pid = some_pid();
    SCOPED_TRACE(step);
    switch (random() % 4) {
      case 0:
      case 1:
        if (model.size() < 200) {
          model.push_back(add(pid));
        }
        break;
      case 2:
        del(pid);
        model = all();
        EXPECT_EQ(nullptr, find(pid));
        break;
      default:
        if (!model.empty()) {
          adopt(model[random() % model.size()], some_pid());
        }
    }
    ASSERT_EQ(static_cast<int>(model.size()), wex_chains.count);
    ASSERT_TRUE(chain_is_sound(wex_chains)) << "step " << step;
  }
}

TEST_F(Chain, LockIsRecursiveAndKeepsOthersOut) {
  chain_lock hold(wex_chains);
  ASSERT_EQ(0, pthread_mutex_trylock(&wex_chains.mutex)) << "the holder may lock it again";
  pthread_mutex_unlock(&wex_chains.mutex);
  int other = 0;
  std::thread([&] { other = pthread_mutex_trylock(&wex_chains.mutex); }).join();
  EXPECT_EQ(EBUSY, other);
}

TEST_F(Chain, HolderRunsAtThePriorityOfTheThreadThatWaits) {
  const auto priority_of = [](pid_t tid) {
    const std::string stat = read_file("/proc/self/task/" + std::to_string(tid) + "/stat");
    int field = 0;
    const size_t at = stat.rfind(')');
    const int got = sscanf(stat.c_str() + at + 2,
                           "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %d", &field);
    return got == 1 ? field : 0;
  };
  std::atomic<pid_t> holder{0};
  std::atomic<bool> may_leave{false};
  std::thread low([&] {
    chain_lock hold(wex_chains);
    holder = static_cast<pid_t>(syscall(SYS_gettid));
    eventually([&] { return may_leave.load(); }, 20s);
  });
  ASSERT_TRUE(eventually([&] { return holder != 0; }));
  EXPECT_GE(priority_of(holder), 0);
  std::thread high([&] {
    sched_param parameters = {};
    parameters.sched_priority = 20;
    EXPECT_EQ(0, pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters));
    chain_lock hold(wex_chains);
  });
  EXPECT_TRUE(eventually([&] { return priority_of(holder) == -1 - 20; })) << priority_of(holder);
  may_leave = true;
  low.join();
  high.join();
}

TEST_F(Chain, DestroyedChainIsEmptyAndItsLockStillWorks) {
  for (int pid = 0; pid < 50; ++pid) {
    add(pid);
    add(wex_chains_delay, make(pid));
  }
  EXPECT_EQ(0, wex_destroy_chains(&wex_chains));
  EXPECT_EQ(0, wex_chains.count);
  EXPECT_EQ(nullptr, find(1));
  EXPECT_EQ(50, wex_chains_delay.count);
  add(7);
  EXPECT_EQ(1, wex_chains.count);
}

TEST_F(Chain, OnlyTheAliveChainTakesItsThreadsOutOfTheTable) {
  const std::set<std::string> open_before = wex_test::open_descriptors();
  ASSERT_EQ(0, wex_sys_init_alive_info(1));
  for (const uint32_t tid : {5U, 6U, 163839U}) {
    ASSERT_EQ(0, wex_sys_reg_alive_info(tid));
  }
  add(wex_alive_chains, make(5));
  add(wex_alive_chains, make(163839));
  add(wex_alive_chains, make(163840));
  add(wex_alive_chains, make(-3));
  add(wex_chains, make(6));
  {
    captured_output output;
    EXPECT_EQ(0, wex_destroy_chains(&wex_alive_chains));
    EXPECT_EQ(0, wex_destroy_chains(&wex_chains));
    EXPECT_EQ("", output.text()) << "ids without an entry must not be asked for";
  }
  EXPECT_EQ(0, wex_sys_isreg_alive_info(5));
  EXPECT_EQ(0, wex_sys_isreg_alive_info(163839));
  EXPECT_EQ(1, wex_sys_isreg_alive_info(6));
  forget_alive_table(open_before);
}

TEST_F(Chain, AnotherRegistrationIsOneOfTheSameProgramAndDomainWithAnotherPid) {
  wex_pid* const rec = add(812, "/a/foo -d", 3);
  EXPECT_EQ(nullptr, other_of(rec)) << "itself";
  add(812, "/a/foo -d", 3);
  EXPECT_EQ(nullptr, other_of(rec)) << "the same pid twice";
  add(813, "/a/foo -d", 4);
  EXPECT_EQ(nullptr, other_of(rec)) << "another domain";
  add(814, "/a/foo -d ", 3);
  add(815, "/a/foo", 3);
  EXPECT_EQ(nullptr, other_of(rec)) << "another command line";
  wex_pid* const other = add(816, "/a/foo -d", 3);
  EXPECT_EQ(rec, other_of(rec)) << "flags are 0: this one is to go";
  rec->flags = WEX_FLAG_WAITING;
  EXPECT_EQ(other, other_of(rec));
  rec->flags = WEX_FLAG_SELF_CHECKING;
  EXPECT_EQ(other, other_of(rec));
}

TEST_F(Chain, AnotherRegistrationIsFoundThoughBlanksBehindItsNameWereRemovedMeanwhile) {
  wex_pid* const rec = add(812, "/a/foo -d \t ");
  wex_pid* const other = add(816, "/a/foo -d");
  rec->flags = 1;
  other->flags = 1;
  EXPECT_EQ(nullptr, other_of(other)) << "another command line";
  wex_program_name(rec);
  EXPECT_EQ(rec, other_of(other));
  EXPECT_EQ(other, other_of(rec));
}

TEST_F(Chain, ANameIsFreeAgainWhenItsLastRegistrationIsGone) {
  chain_lock hold(wex_chains);
  EXPECT_FALSE(__wex_name_may_be_taken("/a/foo", nullptr));
  wex_pid* const rec = add(812);
  add(813);
  EXPECT_TRUE(__wex_name_may_be_taken("/a/foo", rec));
  del(813);
  EXPECT_FALSE(__wex_name_may_be_taken("/a/foo", rec));
  EXPECT_FALSE(__wex_name_may_be_taken("/a/fo", nullptr));
  del(812);
  EXPECT_FALSE(__wex_name_may_be_taken("/a/foo", nullptr));
}

TEST_F(Chain, FirstOtherRegistrationInBucketOrderCounts) {
  std::vector<int> pids = {11, 12, 13, 14, 15, 16, 17};
  wex_pid* const rec = add(10);
  rec->flags = 1;
  for (const int pid : pids) {
    add(pid);
  }
  std::sort(pids.begin(), pids.end(), [](int a, int b) { return wex_hash_pid(a) < wex_hash_pid(b); });
  EXPECT_EQ(pids.front(), other_of(rec)->pid);
}

TEST_F(Chain, TemporaryRecordFindsARegistrationWithoutBeingFiled) {
  wex_pid* const temporary = make(900);
  EXPECT_EQ(nullptr, other_of(temporary));
  add(812);
  EXPECT_EQ(temporary, other_of(temporary));
  wex_free_record(temporary);
}

TEST_F(Chain, AnotherRegistrationIsTold) {
  wex_pid* const rec = add(812, "/a/foo -d", 3);
  add(816, "/a/foo -d", 3);
  {
    captured_output output;
    other_of(rec);
    EXPECT_EQ(
        "[wex_chain]pwex_pid pid 812 vsd 3 process /a/foo -d!\n"
        "[wex_chain]wex_pid pid 816 vsd 3 process /a/foo -d!\n"
        "[wex_chain]/a/foo -d is running!\n"
        "[wex_chain]pwex_pid pid 812 flags:0\n",
        output.text());
  }
  rec->flags = 2;
  captured_output output;
  other_of(rec);
  EXPECT_EQ(
      "[wex_chain]pwex_pid pid 812 vsd 3 process /a/foo -d!\n"
      "[wex_chain]wex_pid pid 816 vsd 3 process /a/foo -d!\n"
      "[wex_chain]/a/foo -d is running!\n",
      output.text());
}

TEST_F(Chain, AdoptedPidMovesTheRecordAndForgetsTheOldProcess) {
  const service alive;
  wex_pid* const rec = add(812, "/a/foo -d", 2);
  rec->exit_seen = 1;
  rec->restart_failed = 1;
  rec->gone_since = 9;
  rec->check_count = 3;
  write_file(db_file(2, "foo", 812), "812\n2\n/a/foo -d");
  adopt(rec, alive.pid());
  EXPECT_FALSE(exists(db_file(2, "foo", 812)));
  EXPECT_EQ(nullptr, find(812));
  EXPECT_EQ(rec, find(alive.pid()));
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_EQ(0, rec->exit_seen);
  EXPECT_EQ(0, rec->restart_failed);
  EXPECT_EQ(0, rec->gone_since);
  EXPECT_EQ(3, rec->check_count);
  EXPECT_NE(0U, rec->start_time);
  EXPECT_EQ(alive.pid(), replaced_by(812));
}

TEST_F(Chain, AdoptedRecordComesFirstInItsNewBucket) {
  const std::vector<int> pids = sharing_bucket(812, 3);
  add(pids[0]);
  add(pids[1]);
  wex_pid* const rec = add(5000);
  adopt(rec, pids[2]);
  adopt(rec, pids[0]);
  EXPECT_EQ(rec, find(pids[0]));
}

TEST_F(Chain, PidThatWasNotFoundIsFiledButNeverReplacesAnother) {
  wex_pid* const rec = add(812);
  adopt(rec, -1);
  EXPECT_EQ(rec, find(-1));
  EXPECT_EQ(0U, rec->start_time);
  EXPECT_EQ(0, replaced_by(812));
  EXPECT_FALSE(wex_record_lives(rec));
}

TEST_F(Chain, ReplacedPidIsRememberedForSomeSeconds) {
  wex_pid* const rec = add(30000812);
  adopt(rec, 30000813);
  EXPECT_EQ(30000813, replaced_by(30000812));
  EXPECT_EQ(0, replaced_by(30000813));
  clock_offset = kReplacedKeepSec - 1;
  EXPECT_EQ(30000813, replaced_by(30000812));
  clock_offset = kReplacedKeepSec + 2;
  EXPECT_EQ(0, replaced_by(30000812));
}

// A thread that dumped core is reported after its process.
TEST_F(Chain, ReplacedPidStaysInTheFilterAsLongAsItIsRemembered) {
  wex_pid* const rec = add(814);
  adopt(rec, 815);
  for (const bool recent : {true, false}) {
    clock_offset = recent ? kReplacedKeepSec - 1 : kReplacedKeepSec + 2;
    const chain_lock hold(wex_chains);
    __wex_tidy_filter();
    EXPECT_TRUE(g_expected.has(815));
    EXPECT_EQ(recent, g_expected.has(814));
  }
}

TEST_F(Chain, ReplacedPidLeadsToTheLatestOne) {
  wex_pid* const rec = add(31000001);
  adopt(rec, 31000002);
  adopt(rec, 31000003);
  EXPECT_EQ(31000003, replaced_by(31000001));
  EXPECT_EQ(31000003, replaced_by(31000002));
  adopt(rec, 31000001);
  EXPECT_NE(0, replaced_by(31000001)) << "a circle must end";
}

TEST_F(Chain, OnlyTheLatestReplacementsAreRemembered) {
  wex_pid* const rec = add(32000000);
  for (int i = 0; i <= kReplacedKept; ++i) {
    adopt(rec, 32000001 + i);
  }
  EXPECT_EQ(0, replaced_by(32000000)) << "one more than there is room for";
  EXPECT_EQ(32000001 + kReplacedKept, replaced_by(32000001));
}

TEST_F(Chain, FailedRecordsOfTheProgramGoWithTheirFiles) {
  add(1, "/a/foo", 2)->restart_failed = 1;
  add(2, "/a/foo", 2)->restart_failed = 1;
  add(3, "/a/foo", 2);
  add(4, "/a/foo", 3)->restart_failed = 1;
  add(5, "/a/bar", 2)->restart_failed = 1;
  for (const int pid : {1, 2, 3, 5}) {
    write_file(db_file(2, pid == 5 ? "bar" : "foo", pid), "x");
  }
  {
    chain_lock hold(wex_chains);
    __wex_drop_failed("/a/foo", 2, 0);
  }
  EXPECT_TRUE(chain_is_sound(wex_chains));
  EXPECT_EQ(3, wex_chains.count);
  EXPECT_EQ(nullptr, find(1));
  EXPECT_EQ(nullptr, find(2));
  EXPECT_FALSE(exists(db_file(2, "foo", 1)));
  EXPECT_FALSE(exists(db_file(2, "foo", 2)));
  EXPECT_TRUE(exists(db_file(2, "foo", 3)));
  EXPECT_TRUE(exists(db_file(2, "bar", 5)));
}

TEST_F(Chain, ARecordWithoutAProcessDoesNotHideThatAnotherOneRuns) {
  add(1, "/a/foo", 2)->restart_failed = 1;
  const auto runs_elsewhere = [] {
    wex_pid newcomer = {};
    newcomer.pid = 7;
    newcomer.vsd = 2;
    snprintf(newcomer.process, sizeof newcomer.process, "/a/foo");
    chain_lock hold(wex_chains);
    return __wex_runs_elsewhere(&newcomer);
  };
  EXPECT_FALSE(runs_elsewhere());
  add(7, "/a/foo", 2);
  add(3, "/a/foo", 3);
  EXPECT_FALSE(runs_elsewhere());
  add(4, "/a/foo", 2);
  EXPECT_TRUE(runs_elsewhere());
  EXPECT_NE(nullptr, find(1));
}

TEST_F(Chain, ANewcomerWithTheDeadPidKeepsItsOwnFile) {
  add(1, "/a/foo", 2)->restart_failed = 1;
  write_file(db_file(2, "foo", 1), "x");
  {
    chain_lock hold(wex_chains);
    __wex_drop_failed("/a/foo", 2, 1);
  }
  EXPECT_EQ(nullptr, find(1));
  EXPECT_TRUE(exists(db_file(2, "foo", 1)));
}

TEST_F(Chain, ProgramNameIsBehindTheLastSlashAndTrimsTheRecord) {
  const struct {
    const char *process, *name, *after;
  } rows[] = {{"/usr/sbin/foo -d", "foo -d", "/usr/sbin/foo -d"},
              {"/usr/sbin/foo -c /etc/app.conf", "app.conf", "/usr/sbin/foo -c /etc/app.conf"},
              {"/usr/sbin/foo  \t ", "foo", "/usr/sbin/foo"},
              {"plain", "plain", "plain"},
              {"plain -x", "plain -x", "plain -x"},
              {"/ends/", "", "/ends/"},
              {"", "", ""},
              {"   ", "", ""}};
  wex_pid* const rec = make(1);
  for (const auto& row : rows) {
    snprintf(rec->process, sizeof rec->process, "%s", row.process);
    EXPECT_STREQ(row.name, wex_program_name(rec));
    EXPECT_STREQ(row.after, rec->process);
  }
  wex_free_record(rec);
}

TEST_F(Chain, RecordLivesOnlyAsTheProcessThatItKnows) {
  service alive;
  wex_pid* const rec = add(alive.pid());
  EXPECT_FALSE(wex_record_lives(rec)) << "nobody has looked at it yet: it may be any process";
  wex_note_identity(rec);
  ASSERT_NE(0U, rec->start_time);
  EXPECT_TRUE(wex_record_lives(rec));
  rec->start_time++;
  EXPECT_FALSE(wex_record_lives(rec)) << "a stranger with its pid";
  rec->start_time--;
  alive.kill_only();
  EXPECT_TRUE(eventually([&] { return !wex_record_lives(rec); })) << "a zombie is not alive";
  alive.end();
  EXPECT_FALSE(wex_record_lives(rec));
  wex_note_identity(rec);
  EXPECT_EQ(0U, rec->start_time);
}

TEST_F(Chain, NothingLivesUnderAPidBelow1) {
  for (const int pid : {0, -1, INT32_MIN}) {
    wex_pid* const rec = make(pid);
    wex_note_identity(rec);
    EXPECT_EQ(0U, rec->start_time);
    EXPECT_FALSE(wex_record_lives(rec));
    wex_free_record(rec);
  }
}

TEST_F(Chain, ThreadsThatAddFindAndDeleteLeaveItSound) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 2000; ++i) {
        wex_pid* const rec = make(1000 * t + i % 50);
        chain_lock hold(wex_chains);
        __wex_add_record(&wex_chains, rec);
        EXPECT_EQ(rec, __wex_find_pid(&wex_chains, rec->pid));
        if (i % 2 == 0) {
          __wex_del_pid(&wex_chains, rec->pid);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(chain_is_sound(wex_chains));
}

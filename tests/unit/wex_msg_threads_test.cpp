// What control messages do about threads, and what cancelling ends.
#include <climits>

#include "msg_world.h"
#include "wex_paths.h"

using namespace msg_world;

// ---- Cancelling -------------------------------------------------------------------------------------------

TEST_F(Registry, CancellingRemovesEveryRecordOfThePidAndItsFile) {
  const int32_t pid = 4321;
  add(wex_chains, pid, "/bin/first");
  add(wex_chains, pid, "/bin/second -x");
  add(wex_chains, pid + 1, "/bin/third");
  for (const char* name : {"first", "second"}) {
    std::ofstream(text_of(kDbFileFmt, 0, name, pid)) << "x";
  }
  std::ofstream(text_of(kDbFileFmt, 0, "third", pid + 1)) << "x";
  add(wex_alive_chains, pid);
  const wex_cons_info cancel = {WEX_CANCEL_PROC, pid};
  EXPECT_EQ(0, wex_process_cons_msg(&cancel));
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_EQ(nullptr, find(wex_chains, pid));
  EXPECT_NE(nullptr, find(wex_alive_chains, pid)) << "only processes were cancelled";
  EXPECT_FALSE(exists(text_of(kDbFileFmt, 0, "first", pid)));
  EXPECT_FALSE(exists(text_of(kDbFileFmt, 0, "second", pid)));
  EXPECT_TRUE(exists(text_of(kDbFileFmt, 0, "third", pid + 1)));
}

TEST_F(Registry, CancellingAThreadRemovesEveryRecordAndItsTableEntry) {
  const int32_t tid = 163839;
  ASSERT_EQ(0, wex_sys_reg_alive_info(tid));
  add(wex_alive_chains, tid);
  add(wex_alive_chains, tid);
  add(wex_alive_chains, 5);
  add(wex_chains, tid);
  const wex_cons_info cancel = {WEX_CANCEL_THREAD_NOTIFY, tid};
  EXPECT_EQ(0, wex_process_cons_msg(&cancel));
  EXPECT_EQ(1, wex_alive_chains.count);
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_EQ(0, wex_sys_isreg_alive_info(tid));
}

TEST_F(Registry, CancellingAThreadBeyondTheTableLeavesTheTableAlone) {
  const std::string before = read_file(kAliveTableFile);
  add(wex_alive_chains, 163840);
  g_wex_dbg_level[WEX_DBG_ALIVE] = 0;
  const control::printed out;
  const wex_cons_info cancel = {WEX_CANCEL_THREAD_NOTIFY, 163840};
  EXPECT_EQ(0, wex_process_cons_msg(&cancel));
  g_wex_dbg_level[WEX_DBG_ALIVE] = WEX_DBG_SILENT;
  EXPECT_EQ(0, wex_alive_chains.count);
  EXPECT_EQ("", out.text()) << "the table was asked for an id it does not have";
  EXPECT_EQ(before, read_file(kAliveTableFile));
}

TEST_F(Registry, CancellingWhatIsNotThereOrOfAnUnknownKindChangesNothing) {
  add(wex_chains, 7);
  add(wex_alive_chains, 7);
  for (const wex_cons_info& cancel :
       {wex_cons_info{0, 8}, wex_cons_info{1, 8}, wex_cons_info{2, 7}, wex_cons_info{7, 7},
        wex_cons_info{0xffffffffU, 7}, wex_cons_info{0, -1}, wex_cons_info{1, INT32_MIN}}) {
    EXPECT_EQ(0, wex_process_cons_msg(&cancel));
  }
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_EQ(1, wex_alive_chains.count);
}

// ---- Threads ----------------------------------------------------------------------------------------------

TEST_F(Registry, ANotifyStartRegistersTheThreadInChainAndTable) {
  const sleeper process;
  wex_reg_info body = thread_body(process.pid(), 5, 5, 120, 0);
  body.vsd = 3;
  EXPECT_EQ(0, wex_notifier_start(&body));
  const wex_pid* const rec = find(wex_alive_chains, process.pid());
  expect_counters(rec, 5, 5, 120, 0);
  EXPECT_EQ(getpid(), rec->ppid);
  EXPECT_EQ(0, rec->vsd);
  EXPECT_EQ(process.command(), rec->process);
  EXPECT_EQ(1U, rec->alive_seq);
  EXPECT_EQ(1, wex_sys_isreg_alive_info(static_cast<uint32_t>(process.pid())));
  EXPECT_EQ(0, wex_chains.count);
}

TEST_F(Registry, ANotifyStartOfAKnownThreadKeepsItsCountersAndStartsItsByteAgain) {
  const sleeper process;
  const auto tid = static_cast<uint32_t>(process.pid());
  const wex_reg_info first = thread_body(process.pid(), 5, 2, 120, 60);
  const wex_reg_info second = thread_body(process.pid(), 4, 4, 180, 0);
  EXPECT_EQ(0, wex_notifier_start(&first));
  ASSERT_EQ(0, wex_sys_update_alive_seq(tid));
  wex_pid* const rec = find(wex_alive_chains, process.pid());
  rec->alive_seq = 2;  // as the next scan would have seen it
  EXPECT_EQ(0, wex_notifier_start(&second));
  EXPECT_EQ(rec, find(wex_alive_chains, process.pid()));
  expect_counters(rec, 5, 2, 120, 60);
  EXPECT_EQ(1U, rec->alive_seq);
  EXPECT_EQ(1U, wex_sys_get_alive_seq(tid));
  EXPECT_EQ(1, wex_alive_chains.count);
}

TEST_F(Registry, ANotifyResetRenewsTheCountersOrRegisters) {
  const sleeper process;
  const wex_reg_info first = thread_body(process.pid(), 5, 2, 120, 60);
  const wex_reg_info second = thread_body(process.pid(), 4, 4, 180, 0);
  EXPECT_EQ(0, wex_notifier_reset(&first));
  expect_counters(find(wex_alive_chains, process.pid()), 5, 2, 120, 60);
  wex_pid* const rec = find(wex_alive_chains, process.pid());
  const auto tid = static_cast<uint32_t>(process.pid());
  ASSERT_EQ(0, wex_sys_update_alive_seq(tid));
  rec->alive_seq = 2;
  EXPECT_EQ(0, wex_notifier_reset(&second));
  expect_counters(rec, 4, 4, 180, 0);
  EXPECT_EQ(1U, rec->alive_seq) << "else the next scan takes the byte's new start for a report";
  EXPECT_EQ(1U, wex_sys_get_alive_seq(tid));
  EXPECT_EQ(1, wex_alive_chains.count);
}

TEST_F(Registry, NotifyCountersAreKeptAsTheyCame) {
  const sleeper process;
  const wex_reg_info odd = thread_body(process.pid(), INT32_MIN, -1, INT32_MAX, INT32_MAX);
  EXPECT_EQ(0, wex_notifier_start(&odd));
  expect_counters(find(wex_alive_chains, process.pid()), INT32_MIN, -1, INT32_MAX, INT32_MAX);
}

TEST_F(Registry, ANotifyOfAThreadWithoutACommandLineIsRefused) {
  const int32_t gone = end_of_a_pid();
  const wex_reg_info body = thread_body(gone, 5, 5, 120, 0);
  const control::printed out;
  EXPECT_EQ(-1, wex_notifier_start(&body));
  EXPECT_EQ(-1, wex_notifier_reset(&body));
  for (const char* name : {"wex_notifier_start", "wex_notifier_reset"}) {
    EXPECT_TRUE(out.has(text_of("]%s: fail to get pid %d's cmdline, ppid=%d\n", name, gone, getpid())));
  }
  EXPECT_EQ(0, wex_alive_chains.count);
  EXPECT_EQ(0, wex_sys_isreg_alive_info(static_cast<uint32_t>(gone)));
}

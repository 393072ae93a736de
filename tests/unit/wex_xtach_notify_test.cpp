// The calls of threads under hang detection, against a daemon played by the test at the true path.
#include <sched.h>

#include <atomic>
#include <fstream>

#include "control_peer.h"
#include "kept_connection.h"
#include "leak_gate.h"
#include "wex_sys_alive.h"
#include "wex_xtach.h"

using namespace control;

namespace {

// Answers one acknowledged request and gives it back.
message answer(const daemon_end& daemon) {
  const peer client = daemon.accept();
  message in = client.receive();
  client.acknowledge();
  return in;
}

}  // namespace

// The first case of this program: the others have the table mapped, and so have their children.
TEST(ThreadWithoutATable, ReportsByARegistration) {
  unlink(kAliveTableFile);
  ASSERT_EQ(0, mkdir(kAliveTableFile, 0755));
  const daemon_end daemon;
  g_wex_dbg_level[WEX_DBG_ALIVE] = 0;
  const control::printed out;
  const pid_t child = start_child([] { return wex_client_reset_thread_notify(getpid(), gettid(), 60, 5); });
  const message in = answer(daemon);
  EXPECT_EQ(3U, in.header.msg_type);
  EXPECT_EQ(child, in.body<wex_reg_info>().pid);
  EXPECT_EQ(0, exit_status(child));
  g_wex_dbg_level[WEX_DBG_ALIVE] = WEX_DBG_SILENT;
  EXPECT_TRUE(out.has("]fail to init alive_info(ret:-4)!!!\n"));
  EXPECT_EQ(0, rmdir(kAliveTableFile));
}

namespace {

const leaves_behind kTable(kDescriptors, "/dev/shm/", 2, "the table stays mapped");
const leaves_behind kGuard(kDescriptors, "pipe:", 2, "the pipe of the guarded copies stays");

class ThreadNotify : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(kExemptThreads);
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
  }
  void TearDown() override { unlink(kExemptThreads); }

  // Registers the calling thread as the daemon would, so that its reports go to the table.
  static uint32_t register_here() {
    const auto tid = static_cast<uint32_t>(gettid());
    EXPECT_EQ(0, wex_sys_reg_alive_info(tid));
    return tid;
  }
  daemon_end daemon_;
};

struct period {
  int32_t time;
  int32_t seconds;
  int32_t misses;
};

}  // namespace

TEST_F(ThreadNotify, RegistrationCarriesThePeriodOfTheLowestBit) {
  peer client(-1);
  for (const period row :
       {period{7, 180, 4}, {9, 180, 4}, {-1, 180, 4}, {60, 120, 5}, {2, 120, 5}, {-2, 120, 5}}) {
    std::atomic<int32_t> tid{0};
    auto result = calling([&] {
      tid = gettid();
      return wex_client_reg_thread_notify(getpid(), gettid(), row.time, 3);
    });
    if (!client.connected()) {
      client = daemon_.accept();
    }
    const message in = client.receive();
    client.acknowledge();
    EXPECT_EQ(0, result.get());
    const auto body = in.body<wex_reg_info>();
    wex_reg_info expected = {};
    expected.pid = tid;
    expected.ppid = getpid();
    expected.ntfy_cnt = expected.cur_cnt = row.misses;
    expected.ntfy_time = row.seconds;
    EXPECT_EQ(3U, in.header.msg_type);
    EXPECT_EQ(0, memcmp(&expected, &body, sizeof body)) << row.time;
  }
}

TEST_F(ThreadNotify, RefusesMissingParameters) {
  const int32_t pid = getpid();
  const int32_t tid = gettid();
  const int32_t rows[][4] = {
      {0, tid, 60, 5}, {-1, tid, 60, 5}, {pid, 0, 60, 5}, {pid, tid, 0, 5}, {pid, tid, 60, 0}};
  for (const auto& row : rows) {
    const control::printed out;
    EXPECT_EQ(-1, wex_client_reg_thread_notify(row[0], row[1], row[2], row[3]));
    EXPECT_EQ(-1, wex_client_reset_thread_notify(row[0], row[1], row[2], row[3]));
    EXPECT_EQ(2U, occurrences(out.text(), text_of("]parameter error(pid:%d, tid:%d, time:%d, count:%d)!\n",
                                                  row[0], row[1], row[2], row[3])));
  }
  EXPECT_FALSE(daemon_.has_caller(0ms));
}

TEST_F(ThreadNotify, RefusesToReportForAnotherThread) {
  const int32_t pid = getpid();
  const int32_t tid = gettid();
  const int32_t rows[][2] = {{pid + 1, tid}, {pid, tid + 1}, {pid, -tid}, {1, 1}};
  for (const auto& row : rows) {
    const control::printed out;
    EXPECT_EQ(-1, wex_client_reg_thread_notify(row[0], row[1], 60, 5));
    EXPECT_EQ(-1, wex_client_reset_thread_notify(row[0], row[1], 60, 5));
    EXPECT_EQ(2U,
              occurrences(out.text(), text_of("]not cur task reg!(pid:%d, tid:%d, cur_pid:%d, cur_tid:%d)!\n",
                                              row[0], row[1], pid, tid)));
  }
  EXPECT_FALSE(daemon_.has_caller(0ms));
}

TEST_F(ThreadNotify, OfARegisteredThreadAdvancesItsByteAndSendsNothing) {
  const uint32_t tid = register_here();
  const uint32_t before = wex_sys_get_alive_seq(tid);
  EXPECT_EQ(0, wex_client_reset_thread_notify(getpid(), gettid(), 60, 5));
  EXPECT_NE(before, wex_sys_get_alive_seq(tid));
  EXPECT_FALSE(daemon_.has_caller(0ms));
}

TEST_F(ThreadNotify, OfAnUnregisteredThreadRegistersIt) {
  const control::printed out;
  auto result = calling([] { return wex_client_reset_thread_notify(getpid(), gettid(), 60, 5); });
  const peer client = daemon_.accept();
  const message in = client.receive();
  client.acknowledge();
  EXPECT_EQ(0, result.get());
  EXPECT_EQ(3U, in.header.msg_type);
  EXPECT_TRUE(out.has(text_of("]reg alive info(pid:%d, tid:%d, time:60, count:5)!\n", getpid(),
                              in.body<wex_reg_info>().pid)));
}

TEST_F(ThreadNotify, OfAnExemptThreadDoesNothing) {
  const uint32_t tid = register_here();
  const std::string own = std::to_string(tid);
  const uint32_t before = wex_sys_get_alive_seq(tid);
  for (const std::string& text :
       {own + "\n", "1\n2\n" + own + "\n3\n", own + "x", std::string(1023, 'a') + own + "\n"}) {
    std::ofstream(kExemptThreads) << text;
    EXPECT_EQ(0, wex_client_reset_thread_notify(getpid(), gettid(), 60, 5));
    EXPECT_EQ(before, wex_sys_get_alive_seq(tid)) << text;
  }
  EXPECT_FALSE(daemon_.has_caller(0ms));
}

// The library is not the daemon: it looks whether the device is in strict mode.
TEST_F(ThreadNotify, OfAThreadThatAUserHasExemptedIsHeldBackWithoutStrictModeOnly) {
  const uint32_t tid = register_here();
  const uint32_t before = wex_sys_get_alive_seq(tid);
  std::ofstream(kExemptThreads) << tid << "\n";
  ASSERT_EQ(0, chown(kExemptThreads, 1234, 1234));
  EXPECT_EQ(0, wex_client_reset_thread_notify(getpid(), gettid(), 60, 5));
  EXPECT_EQ(before, wex_sys_get_alive_seq(tid));
  make_dirs("/etc/wex");
  std::ofstream(kStrictFile) << "";
  EXPECT_EQ(0, wex_client_reset_thread_notify(getpid(), gettid(), 60, 5));
  EXPECT_NE(before, wex_sys_get_alive_seq(tid));
  unlink(kStrictFile);
}

TEST_F(ThreadNotify, IsNotHeldBackByAnUnfinishedLineOrAnotherNumber) {
  const uint32_t tid = register_here();
  const std::string own = std::to_string(tid);
  for (const std::string& text :
       {own, own + "\r\n", " " + own + "\n", own + "0\n", std::string("\n"), std::string()}) {
    const uint32_t before = wex_sys_get_alive_seq(tid);
    std::ofstream(kExemptThreads) << text;
    EXPECT_EQ(0, wex_client_reset_thread_notify(getpid(), gettid(), 60, 5));
    EXPECT_NE(before, wex_sys_get_alive_seq(tid)) << text;
  }
}

namespace {

// What `work` gives back in a process whose id is `pid`. Ids that large need a pid namespace of their own, or
// the whole machine would count from there.
template <class Work>
pid_t start_as(int32_t pid, Work work) {
  return start_child([=] {
    if (unshare(CLONE_NEWPID) != 0) {
      return 90;
    }
    return in_child([=] {
      std::ofstream("/proc/sys/kernel/pid_max") << 400000 << std::flush;
      std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1 << std::flush;
      return in_child([=] { return getpid() == pid ? work() : 91; });
    });
  });
}

}  // namespace

TEST_F(ThreadNotify, TheFirstIdBeyondTheTableGoesAsAReport) {
  for (const int32_t pid : {163839, 163840}) {
    const pid_t outer = start_as(pid, [=] { return wex_client_reset_thread_notify(pid, pid, 7, 1); });
    const peer client = daemon_.accept();
    EXPECT_EQ(pid == 163840 ? 4U : 3U, client.receive().header.msg_type) << pid;
    if (pid != 163840) {
      client.acknowledge();
    }
    EXPECT_EQ(0, exit_status(outer)) << pid;
  }
}

TEST_F(ThreadNotify, BeyondTheTableGoesAsAMessageAndNeverFails) {
  const control::printed out;
  const pid_t outer = start_as(200000, [] {
    if (wex_client_reset_thread_notify(200000, 200000, 7, 1) != 0) {
      return 92;
    }
    unlink(kControlSocket);
    rename(WEX_RUN, WEX_RUN ".away");  // from here on no connection can be made
    const int away = in_child([] { return wex_client_reset_thread_notify(getpid(), gettid(), 7, 1); });
    rename(WEX_RUN ".away", WEX_RUN);
    return away == 0 ? 0 : 93;
  });
  const message in = daemon_.accept().receive();
  const auto body = in.body<wex_reg_info>();
  EXPECT_EQ(4U, in.header.msg_type);
  EXPECT_EQ(200000, body.pid);
  EXPECT_EQ(200000, body.ppid);
  EXPECT_EQ(4, body.ntfy_cnt);
  EXPECT_EQ(4, body.cur_cnt);
  EXPECT_EQ(180, body.ntfy_time);
  EXPECT_EQ(0, exit_status(outer));
  EXPECT_TRUE(out.has("]wex_rpc: connect fail(ret:-1)\n"));
}

TEST_F(ThreadNotify, WithdrawalNamesTheThread) {
  auto result = calling([] { return wex_client_unreg_thread_notify(1234); });
  const message in = answer(daemon_);
  EXPECT_EQ(0, result.get());
  EXPECT_EQ(5U, in.header.msg_type);
  EXPECT_EQ(1U, in.body<wex_cons_info>().kind);
  EXPECT_EQ(1234, in.body<wex_cons_info>().pid);
}

TEST_F(ThreadNotify, WithdrawalOfThreadZeroIsReportedAndSent) {
  const control::printed out;
  auto result = calling([] { return wex_client_unreg_thread_notify(0); });
  EXPECT_EQ(0, answer(daemon_).body<wex_cons_info>().pid);
  EXPECT_EQ(0, result.get());
  EXPECT_TRUE(out.has("]parameter error\n"));
}

TEST_F(ThreadNotify, WithdrawalSucceedsWhateverHappens) {
  EXPECT_EQ(0, in_child([this] {
              daemon_.close();
              rename(WEX_RUN, WEX_RUN ".away");
              const int result = wex_client_unreg_thread_notify(5);
              rename(WEX_RUN ".away", WEX_RUN);
              return result;
            }));
}

TEST_F(ThreadNotify, WithoutTheProcessIgnoresTheAbortSignal) {
  const pid_t child = start_child([] {
    const int result = wex_client_reg_thread_notify_no_proc(getpid(), gettid(), 60, 1);
    kill(getpid(), SIGABRT);
    return result;
  });
  EXPECT_EQ(3U, answer(daemon_).header.msg_type);
  EXPECT_EQ(0, exit_status(child));
}

// wex_core_netlink: a listed program that was left out because a registration has its pid, on a device on
// which nothing is executed.
#include <poll.h>

#include <atomic>
#include <thread>

#include "chain_lock.h"
#include "unit_support.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_core_netlink.h"
#include "wex_core_stop.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_strict.h"

using namespace unit;

namespace {

thread_local bool is_monitor = false;
std::atomic<int64_t> waited_ms{0};  // by the monitor, not really
std::atomic<int> waits{0};

wex_pid* record_of(pid_t pid) {
  const chain_lock hold(wex_chains);
  return __wex_find_pid(&wex_chains, pid);
}

// The start time of the process that the registration of this pid is of; 0 when there is none.
uint64_t start_of(pid_t pid) {
  const chain_lock hold(wex_chains);
  const wex_pid* const rec = __wex_find_pid(&wex_chains, pid);
  return rec != nullptr ? rec->start_time : 0;
}

bool waits_again() {
  const int before = waits;
  return eventually([before] { return waits > before + 3; }, 20s);
}

struct LeftOut : Sandboxed {
  void SetUp() override {
    Sandboxed::SetUp();
    make_dirs(kMainDbDir);
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      ASSERT_EQ(0, wex_init_chains(chain));
    }
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
  }
  void TearDown() override {
    wex_set_strict({});
    Sandboxed::TearDown();
  }
};

}  // namespace

extern "C" int __real_poll(pollfd* inputs, nfds_t count, int timeout);

// Nothing is reported to the monitor, and its waits last no time.
extern "C" int __wrap_poll(pollfd* inputs, nfds_t count, int timeout) {
  if (!is_monitor) {
    return __real_poll(inputs, count, timeout);
  }
  for (nfds_t at = 0; at < count; ++at) {
    inputs[at].revents = 0;
  }
  if (timeout != 0) {
    usleep(5000);
    waited_ms += timeout > 0 ? timeout : 0;
    ++waits;
  }
  return 0;
}

int64_t real_clock_ms() __asm__("__real__Z12wex_clock_msv");
int64_t wrap_clock_ms() __asm__("__wrap__Z12wex_clock_msv");
int64_t wrap_clock_ms() {
  return real_clock_ms() + waited_ms;
}

TEST_F(LeftOut, AListedProgramIsRegisteredWithinAMinuteAfterTheRegistrationOfItsPidIsCancelled) {
  const temporary list(kThirdPartList);
  write_file(kThirdPartList, "/usr/bin/sleep 4321 WEX_RESTART\n");
  const child program("/usr/bin/sleep", {"/usr/bin/sleep", "4321"});
  in_child([&] {
    wex_reg_info body = {};
    body.pid = program.pid();
    ASSERT_EQ(0, wex_register_process_by(0, body, kRespawn, ""));
    const uint64_t started = start_of(program.pid());
    ASSERT_GT(started, 1U);
    --record_of(program.pid())->start_time;  // another process has had the pid
    std::thread monitor([] {
      is_monitor = true;
      wex_process_netlink(nullptr);
    });
    EXPECT_TRUE(eventually([] { return wex_listed_left_out(); }, 20s));
    EXPECT_TRUE(waits_again());
    EXPECT_EQ(started - 1, start_of(program.pid()));
    wex_cancel_by(0, {WEX_CANCEL_PROC, program.pid()});
    const int64_t before = waited_ms;
    EXPECT_TRUE(eventually([&] { return start_of(program.pid()) == started; }));
    EXPECT_LE(waited_ms - before, 2 * 60000);
    EXPECT_TRUE(waits_again());
    const int64_t after = waited_ms;
    EXPECT_TRUE(waits_again());
    EXPECT_EQ(after, waited_ms) << "there is nothing more to look for";
    wex_raise_exit_flag();
    monitor.join();
  });
}

TEST_F(LeftOut, AProgramThatIsRegisteredIsNotLeftOutBecauseItsStartTimeIsNotKnown) {
  for (const uint64_t start_time : {uint64_t{0}, uint64_t{4711}}) {
    wex_pid* const rec = wex_new_record();
    rec->pid = getpid();
    rec->action = RESPAWN;
    rec->start_time = start_time;
    {
      const chain_lock hold(wex_chains);
      __wex_add_record(&wex_chains, rec);
    }
    wex_forget_listed_left_out();
    EXPECT_EQ(0, wex_register_third_part(getpid(), "WEX_RESTART", nullptr));
    EXPECT_EQ(start_time != 0, wex_listed_left_out()) << "whoever had the pid before keeps it";
    EXPECT_EQ(rec, record_of(getpid()));
    const chain_lock hold(wex_chains);
    __wex_drop_record(&wex_chains, rec);
  }
  wex_forget_listed_left_out();
}

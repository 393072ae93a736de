// Listed programs whose next process has a pid that another registration keeps: they wait for it, and what
// becomes of that process is theirs.
#include <optional>

#include "event_world.h"
#include "exit_world.h"
#include "leak_gate.h"
#include "pid_set.h"
#include "waiting.h"
#include "wex_chain_user_sets.h"
#include "wex_core_restart.h"
#include "wex_core_sweep_request.h"
#include "wex_strict.h"

using namespace event_world;
using exit_world::died;
using exit_world::holds;
using exit_world::missed;
using exit_world::reap;
using exit_world::registered;
using exit_world::unfound;

namespace {

constexpr uint64_t kSomeStart = 4711;  // of a process that has ended long ago
constexpr pid_t kNoChild = 5000000;    // above every pid there is

pid_set g_passed;  // whose exits are to pass since the filter was tidied last

// Of a process that has lived for a while.
uint64_t later_ns() {
  return now_ns() + 1000000000;
}

std::string path_of_sleep() {
  char path[kPathSize] = "";  // as /proc names it
  EXPECT_NE(nullptr, realpath("/bin/sleep", path));
  return path;
}

// Strict mode asks whose a registration is.
void be_roots(wex_pid* rec) {
  rec->user = wex_number_user({});
  wex_hold_user(rec);
}

wex_pid* keeper_of(pid_t pid) {
  wex_pid* const rec = wex_new_record();
  rec->pid = pid;
  rec->action = RESPAWN;
  rec->start_time = kSomeStart;
  rec->exit_seen = 1;
  rec->alarm_wait_flag = 1;
  snprintf(rec->process, sizeof rec->process, "/bin/sleep 2000");
  chain_lock hold(wex_chains);
  __wex_add_record(&wex_chains, rec);
  return rec;
}

// A listed program that runs as a process whose pid the registration of another one keeps.
struct detached {
  explicit detached(const std::string& seconds) : program(path_of_sleep() + " " + seconds) {
    write_file(kThirdPartList, read_file(kThirdPartList) + program + " WEX_RESTART\n");
    before_ns = now_ns();
    EXPECT_TRUE(process.start({path_of_sleep(), seconds}));
    wex_pid rec = {};
    snprintf(rec.process, sizeof rec.process, "%s", program.c_str());
    be_roots(&rec);
    int32_t found = 0;
    EXPECT_TRUE(eventually([&] { return wex_find_running(rec.process, &found, &rec); }));
    own_pid = process.pid();
    EXPECT_EQ(own_pid, found);
    wex_release_user(&rec);
    keeper = keeper_of(own_pid);
  }
  pid_t pid() const { return own_pid; }  // also when it has gone
  // Not listed any more, so that nobody looks for the process of its next start for seconds.
  void unlist() const {
    std::string list = read_file(kThirdPartList);
    const size_t at = list.find(program);
    ASSERT_NE(std::string::npos, at);
    write_file(kThirdPartList, list.erase(at, list.find('\n', at) + 1 - at));
  }
  void die() {
    process.kill_now();
    unlist();
  }
  // A zombie when this returns.
  void end(int signal) const {
    siginfo_t info = {};
    send_signal(pid(), signal);
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(pid()), &info, WEXITED | WNOWAIT));
    unlist();
  }

  std::string program;
  uint64_t before_ns = 0;
  Process process;
  pid_t own_pid = 0;
  wex_pid* keeper = nullptr;
};

class HandOver : public Event {
 protected:
  void SetUp() override {
    Event::SetUp();
    unlink(kThirdPartList);
  }
  void TearDown() override {
    wex_set_strict({});
    unlink(kThirdPartList);
    Event::TearDown();
  }

  static void be_strict() {
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
  }
  static bool waits(const wex_pid* rec, int32_t pid) {
    chain_lock hold(wex_chains);
    return rec->pid == pid && rec->start_time == kStartOfNobody && rec->exit_seen == 0 &&
           wex_status_waits(rec);
  }
  static void drop(wex_pid* rec) {
    chain_lock hold(wex_chains);
    __wex_drop_record(&wex_chains, rec);
  }
  // When all that waits now is due.
  static void sweep_when_due() { sweep_at({g_now + kHandOverAgainSec + kSweepConfirmSec}); }
  static void sweep_soon() { sweep_at({g_now + kSweepConfirmSec}); }
  // Its first process has ended, and its second has the kept pid.
  static wex_pid* awaiting(const detached& next) {
    wex_pid* const rec = died(park_at(900, next.program.c_str()));
    const int32_t pid = rec->pid;
    wex_handle_netlink_exit(pid, 9, 0);
    EXPECT_TRUE(waits(rec, pid));
    return rec;
  }
  static void expect_started(const wex_pid* rec, int32_t before) {
    chain_lock hold(wex_chains);
    EXPECT_NE(before, rec->pid);
    EXPECT_TRUE(wex_record_lives(rec));
  }
  static bool any_file_of(const char* program) {
    return system(("ls /tmp/vsd/0/wex/db | grep -q '^" + std::string(program) + "'").c_str()) == 0;
  }

  static void expect_programs_without_pid_to_wait() {
    detached one("4711");
    detached two("4712");
    wex_pid* const first = unfound(one.program.c_str(), kNoChild);
    wex_pid* const second = unfound(two.program.c_str(), kNoChild + 1);
    be_roots(first);
    be_roots(second);
    reap(kNoChild, 9);
    ASSERT_TRUE(holds(one.program.c_str()));
    ASSERT_TRUE(waits(first, -1));
    reap(kNoChild + 1, 9);
    ASSERT_TRUE(waits(second, -1));
    sweep_when_due();
    EXPECT_TRUE(waits(first, -1) && waits(second, -1));
    EXPECT_FALSE(any_file_of("sleep"));
    one.end(SIGKILL);
    wex_take_exit_event(exit_of(one.pid(), kDumped, later_ns()));
    sweep_soon();
    expect_started(first, -1);
    EXPECT_NE(0, first->crash_time);
    EXPECT_EQ(0, second->crash_time);
    EXPECT_TRUE(waits(second, -1));
    two.die();
    sweep_when_due();
    expect_started(second, -1);
    EXPECT_EQ(4, wex_chains.count);
  }
};

}  // namespace

void real_pass_exits_only_of(const pid_set* pids) __asm__("__real__Z22wex_pass_exits_only_ofPK7pid_set");
void wrap_pass_exits_only_of(const pid_set* pids) __asm__("__wrap__Z22wex_pass_exits_only_ofPK7pid_set");
void wrap_pass_exits_only_of(const pid_set* pids) {
  if (pids != nullptr) {
    g_passed = *pids;
  }
  real_pass_exits_only_of(pids);
}

TEST_F(HandOver, ProgramsWithoutAPidWaitAndAreStartedWhenTheirProcessesDie) {
  expect_programs_without_pid_to_wait();
}

TEST_F(HandOver, ProgramsWithoutAPidWaitAndAreStartedWhenTheirProcessesDieInStrictModeToo) {
  be_strict();
  expect_programs_without_pid_to_wait();
}

TEST_F(HandOver, AProgramWithoutAPidIsHandedOverOnceThePidIsFree) {
  detached next("4711");
  const wex_pid* const rec = unfound(next.program.c_str(), kNoChild);
  wex_pid* const failed = unfound("/bin/sleep 3000", kNoChild + 1);
  failed->start_time = kStartOfNobody;  // it has waited, too, and could not be started again
  failed->exit_seen = 1;
  reap(kNoChild, 9);
  ASSERT_TRUE(waits(rec, -1));
  drop(next.keeper);
  sweep_when_due();
  EXPECT_TRUE(registered(next.pid()));
  EXPECT_TRUE(holds("/bin/sleep 3000"));
  EXPECT_EQ(2, wex_chains.count);
  leaves_behind(kDescriptors, "/wex/db/", 1, "its registration is not taken back");
  next.process.kill_now();
}

// ---- A newcomer with the dead pid -------------------------------------------------------------------------

namespace {

class HandOverBesideNewcomer : public HandOver {
 protected:
  void SetUp() override {
    HandOver::SetUp();
    next_.emplace("4711");
    rec_ = died(park_at(900, next_->program.c_str()));
    newcomer_pid_ = lasting();
    {
      chain_lock hold(wex_chains);
      __wex_adopt_pid(&wex_chains, rec_, newcomer_pid_);
      rec_->start_time = kSomeStart;
    }
    wex_handle_netlink_exit(newcomer_pid_, 9, 0);
    ASSERT_TRUE(waits(rec_, newcomer_pid_));
    newcomer_ = add(newcomer_pid_, "/bin/sleep 3000");  // before it in the bucket
  }
  bool newcomer_is_there() const {
    chain_lock hold(wex_chains);
    return __wex_find_pid(&wex_chains, newcomer_pid_) == newcomer_;
  }

  std::optional<detached> next_;
  wex_pid* rec_ = nullptr;
  pid_t newcomer_pid_ = 0;
  wex_pid* newcomer_ = nullptr;
};

}  // namespace

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsIsStartedAgain) {
  next_->die();
  sweep_when_due();
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(newcomer_is_there());
}

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsIsHandedOverAndTheNewcomerKeepsItsRegistration) {
  drop(next_->keeper);
  sweep_when_due();
  EXPECT_TRUE(registered(next_->pid()));
  leaves_behind(kDescriptors, "/wex/db/", 1, "its registration is not taken back");
  EXPECT_TRUE(newcomer_is_there());
  next_->process.kill_now();
}

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsIsDroppedDuringATakeDownAndTheNewcomerIsNot) {
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5 && touch /tmp/vsd/5/delete_vsd"));
  sweep_when_due();
  ASSERT_EQ(0, system("rm -r /tmp/vsd/5"));
  EXPECT_FALSE(holds(next_->program.c_str()));
  EXPECT_TRUE(newcomer_is_there());
  next_->process.kill_now();
}

// ---- How the process ended --------------------------------------------------------------------------------

namespace {

class AwaitedEnd : public HandOver {
 protected:
  void SetUp() override {
    HandOver::SetUp();
    next_.emplace("4711");
    rec_ = awaiting(*next_);
    old_pid_ = rec_->pid;
    file_ = db_file(old_pid_, next_->program.c_str());
    ASSERT_TRUE(exists(file_));
  }
  void TearDown() override {
    next_->process.kill_now();
    HandOver::TearDown();
  }
  bool is_dropped() const { return !holds(next_->program.c_str()) && !exists(file_); }
  bool keeper_is_there() const {
    chain_lock hold(wex_chains);
    return __wex_find_pid(&wex_chains, next_->pid()) == next_->keeper;
  }
  uint32_t known_code() const {
    chain_lock hold(wex_chains);
    return rec_->known_code;
  }

  std::optional<detached> next_;
  wex_pid* rec_ = nullptr;
  int32_t old_pid_ = 0;
  std::string file_;
};

}  // namespace

TEST_F(AwaitedEnd, ByAStopDropsTheProgramSoon) {
  next_->end(SIGTERM);
  wex_take_sweep_request();
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  EXPECT_TRUE(wex_take_sweep_request());
  sweep_soon();
  EXPECT_TRUE(is_dropped());
  EXPECT_TRUE(keeper_is_there());
}

TEST_F(AwaitedEnd, OfAProcessThatHasBeenReapedByAStopDropsTheProgram) {
  next_->end(SIGTERM);
  next_->process.wait();
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  sweep_soon();
  EXPECT_TRUE(is_dropped());
}

TEST_F(AwaitedEnd, BehindThatOfTheKeepersRegistrationDropsTheProgramAllTheSame) {
  drop(next_->keeper);
  next_->end(SIGTERM);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  sweep_soon();
  EXPECT_TRUE(is_dropped());
}

// Its end was never handled, so what is reported under its pid would be its own.
TEST_F(AwaitedEnd, UnderThePidOfAKeeperWhoseEndIsNotKnownDropsTheProgram) {
  next_->keeper->exit_seen = 0;
  next_->end(SIGTERM);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  sweep_soon();
  EXPECT_TRUE(is_dropped());
  EXPECT_TRUE(keeper_is_there());
}

TEST_F(AwaitedEnd, ByACoreDumpCountsAndStartsTheProgram) {
  write_file(kBurstConfig, "60 1");
  next_->end(SIGKILL);
  wex_take_exit_event(exit_of(next_->pid(), kDumped, later_ns()));
  sweep_soon();
  EXPECT_EQ(1u, reboots());
  EXPECT_NE(0, rec_->crash_time);
  EXPECT_EQ(kDumped, rec_->exit_signal);
  expect_started(rec_, old_pid_);
}

TEST_F(AwaitedEnd, RightAfterTheBeginningDropsTheProgramToo) {
  next_->end(SIGTERM);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, next_->before_ns));
  sweep_soon();
  EXPECT_TRUE(is_dropped());
}

TEST_F(AwaitedEnd, IsNotThatOfTheKeepersProcess) {
  next_->die();
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, next_->before_ns - 1000000000));
  EXPECT_EQ(0u, known_code());
  next_->keeper->exit_seen = 0;
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, next_->before_ns));
  EXPECT_EQ(0u, known_code());
  sweep_when_due();
  expect_started(rec_, old_pid_);
}

TEST_F(AwaitedEnd, IsNotThatOfAProcessThatHasThePidByNow) {
  rec_->awaited_start -= 1000;  // the process is another one, then, that began long before its end
  next_->end(SIGKILL);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  EXPECT_EQ(0u, known_code());
  sweep_when_due();
  expect_started(rec_, old_pid_);
}

// Its own was not reported; the other one has ended, too, and been reaped.
TEST_F(AwaitedEnd, IsNotThatOfAProcessThatWasBornWithItsPid) {
  next_->die();
  wex_take_birth_event({kEventFork, next_->pid(), next_->pid(), 0, later_ns()});
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  EXPECT_EQ(0u, known_code());
  sweep_soon();
  expect_started(rec_, old_pid_);
}

TEST_F(AwaitedEnd, IsStillToComeWhenItsOwnBirthIsReportedLate) {
  wex_take_birth_event({kEventFork, next_->pid(), next_->pid(), 0, later_ns()});
  next_->end(SIGTERM);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  sweep_soon();
  EXPECT_TRUE(is_dropped());
}

TEST_F(AwaitedEnd, IsTheFirstThatIsReportedUnderItsPid) {
  next_->end(SIGKILL);
  wex_take_exit_event(exit_of(next_->pid(), SIGKILL, later_ns()));
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  EXPECT_EQ(static_cast<uint32_t>(SIGKILL), known_code());
  sweep_soon();
  expect_started(rec_, old_pid_);
}

TEST_F(AwaitedEnd, IsNoneOfAThreadNorOfAProcessThatGoesOn) {
  wex_take_exit_event(thread_end(next_->pid() + 1, next_->pid(), SIGTERM));
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  EXPECT_EQ(0u, known_code());
  sweep_when_due();
  EXPECT_TRUE(waits(rec_, old_pid_));
}

TEST_F(AwaitedEnd, IsNoneOfAnotherRegistration) {
  const pid_t other = lasting();
  add(other, "/bin/sleep 3000");
  send_signal(other, SIGTERM);
  waitpid(other, nullptr, 0);
  wex_take_exit_event(exit_of(other, SIGTERM, later_ns()));
  EXPECT_FALSE(registered(other)) << "it was stopped on purpose";
  EXPECT_EQ(0u, known_code());
  EXPECT_TRUE(waits(rec_, old_pid_));
  next_->end(SIGTERM);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  sweep_soon();
  EXPECT_TRUE(is_dropped()) << "its own";
}

// The events of a program that waited before, and has been started since, concern it no more.
TEST_F(AwaitedEnd, MeansNothingOnceTheProgramHasBeenStarted) {
  next_->end(SIGKILL);
  sweep_when_due();
  expect_started(rec_, old_pid_);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  EXPECT_EQ(0u, known_code());
}

// Its main thread has ended, and the others take long.
TEST_F(AwaitedEnd, ThatWasReportedIsStillKnownWhenTheProgramWaitsForTheSameProcessAgain) {
  gate hold;
  const pid_t child = without_main_thread(&hold);
  ASSERT_TRUE(eventually([&] { return wex_look_at(child).state == 'Z'; }));
  keeper_of(child);
  const auto await = [&](pid_t process) {
    chain_lock registry(wex_chains);
    return __wex_await_hand_over(rec_, process);
  };
  ASSERT_TRUE(await(child));
  wex_take_exit_event(exit_of(child, SIGTERM, later_ns()));
  EXPECT_EQ(static_cast<uint32_t>(SIGTERM), known_code());
  ASSERT_TRUE(await(child));
  EXPECT_EQ(static_cast<uint32_t>(SIGTERM), known_code());
  ASSERT_TRUE(await(next_->pid()));
  EXPECT_EQ(0u, known_code()) << "of another process";
  hold.open();
}

TEST_F(AwaitedEnd, IsReportedAlsoWhenNobodyKeepsThePidAnyMoreUntilTheProgramHasBeenStarted) {
  drop(next_->keeper);
  {
    chain_lock hold(wex_chains);
    __wex_tidy_filter();
  }
  EXPECT_TRUE(g_passed.has(next_->pid()));
  next_->end(SIGKILL);
  sweep_when_due();
  expect_started(rec_, old_pid_);
  {
    chain_lock hold(wex_chains);
    __wex_tidy_filter();
  }
  EXPECT_FALSE(g_passed.has(next_->pid()));
}

// ---- What the wait does not touch -------------------------------------------------------------------------

// Of the start before: it is not what the program waits for.
TEST_F(HandOver, AProgramThatWaitsIsNotDroppedByTheEndOfTheChildThatWasStartedBefore) {
  detached next("4711");
  wex_pid* const rec = missed(park_at(900, next.program.c_str()), kNoChild);
  const int32_t pid = rec->pid;
  wex_handle_netlink_exit(pid, 9, 0);
  ASSERT_TRUE(waits(rec, pid));
  reap(kNoChild, SIGTERM);
  EXPECT_TRUE(holds(next.program.c_str()));
  EXPECT_TRUE(waits(rec, pid));
  next.process.kill_now();
}

// Or the next restart would be made without its pause.
TEST_F(HandOver, AProgramThatWaitsHasNoPauseBehindIt) {
  detached next("4711");
  wex_pid* const rec = died(park_at(900, next.program.c_str()));
  rec->delay_start = -1;  // as the end of a pause leaves it
  rec->restart_delay = 1;
  const int32_t pid = rec->pid;
  wex_handle_netlink_exit(pid, 9, 0);
  ASSERT_TRUE(waits(rec, pid));
  next.die();
  const int64_t begin = wex_clock_ms();
  sweep_when_due();
  EXPECT_LE(begin + 1000, wex_clock_ms());
  expect_started(rec, pid);
}

// Root's that could not be started again leaves its pid to a newcomer, in strict mode: to one that registers.
TEST_F(HandOver, TheQuestionWhetherAPidIsKeptTakesNothingFromItsKeeper) {
  be_strict();
  detached next("4711");
  next.keeper->alarm_wait_flag = 0;
  be_roots(next.keeper);
  wex_note_failed(next.keeper);
  const std::string file = db_file(next.pid(), "/bin/sleep 2000");
  write_file(file, std::to_string(next.pid()) + "\n2\n/bin/sleep 2000");
  const wex_pid* const rec = park_at(900, next.program.c_str());
  uint64_t start_time = 0;
  {
    chain_lock hold(wex_chains);
    ASSERT_TRUE(__wex_leaves_pid(next.pid(), wex_look_at(next.pid()).start_time));
    EXPECT_FALSE(__wex_pid_is_kept(next.pid(), rec, &start_time));
    EXPECT_EQ(next.pid(), next.keeper->pid);
  }
  EXPECT_TRUE(exists(file));
  next.process.kill_now();
}

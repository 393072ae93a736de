// Listed programs whose next process has a pid that another registration keeps: they wait for it, and what
// becomes of that process is theirs.
#include <optional>

#include "hand_over_world.h"
#include "pid_set.h"
#include "waiting.h"

using namespace hand_over_world;

namespace {

pid_set g_passed;  // whose exits are to pass since the filter was tidied last

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
  wex_take_birth_event({kEventFork, next_->pid(), next_->pid(), 0, next_->before_ns});
  next_->end(SIGTERM);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  sweep_soon();
  EXPECT_TRUE(is_dropped());
}

// The end of the awaited process was lost, and the keeper has another pid by now.
TEST_F(AwaitedEnd, IsNotThatOfAProgramThatHasRegisteredWithThePidSince) {
  next_->die();
  next_->keeper->exit_seen = 0;
  next_->keeper->alarm_wait_flag = 0;
  next_->keeper->start_time = rec_->awaited_start + 50;  // it is the newcomer's here
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  EXPECT_EQ(0u, known_code());
  EXPECT_FALSE(registered(next_->pid())) << "it was stopped on purpose";
  sweep_soon();
  expect_started(rec_, old_pid_);
}

// It is told late, as the one that registered since still lives.
TEST_F(AwaitedEnd, FromBeforeTheStartOfAProgramThatHasRegisteredWithThePidDropsTheProgram) {
  next_->end(SIGTERM);
  next_->process.wait();
  next_->keeper->exit_seen = 0;
  next_->keeper->alarm_wait_flag = 0;
  next_->keeper->start_time = rec_->awaited_start + 1000;
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  EXPECT_TRUE(keeper_is_there());
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

// The process had gone when events were reported again; what is queued from before tells how.
TEST_F(AwaitedEnd, ThatIsQueuedFromBeforeEventsWereLostIsTheFirstOfThem) {
  next_->die();
  const uint64_t own = now_ns();
  wex_note_unreported_ends(static_cast<int64_t>(own));
  EXPECT_EQ(0u, known_code());
  wex_take_exit_event(exit_of(next_->pid(), SIGKILL, own));
  EXPECT_EQ(static_cast<uint32_t>(SIGKILL), known_code());
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, own));
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

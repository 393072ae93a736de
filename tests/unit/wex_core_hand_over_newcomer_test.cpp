// Programs that wait for their hand-over with the pid of a dead process, and others that get that pid:
// nothing that is done to one of them concerns the other.
#include <sys/syscall.h>

#include <atomic>
#include <thread>

#include "newcomer_world.h"
#include "waiting.h"

using namespace newcomer_world;

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsIsStartedAgain) {
  newcomer_registers();
  next_->die();
  sweep_when_due();
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(newcomer_is_there());
}

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsIsHandedOverAndTheNewcomerKeepsItsRegistration) {
  newcomer_registers();
  drop(next_->keeper);
  sweep_when_due();
  EXPECT_TRUE(registered(next_->pid()));
  leaves_behind(kDescriptors, "/wex/db/", 1, "its registration is not taken back");
  EXPECT_TRUE(newcomer_is_there());
}

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsIsDroppedDuringATakeDownAndTheNewcomerIsNot) {
  newcomer_registers();
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5 && touch /tmp/vsd/5/delete_vsd"));
  sweep_when_due();
  ASSERT_EQ(0, system("rm -r /tmp/vsd/5"));
  EXPECT_FALSE(holds(next_->program.c_str()));
  EXPECT_TRUE(newcomer_is_there());
}

TEST_F(HandOverBesideNewcomer,
       AProgramThatWaitsIsStartedAgainBesideANewcomerOfItsNameThatHoldsItsOwnFileLocked) {
  newcomer_registers();
  child owner([&] { return wex_db_create(0, newcomer_pid_, RESPAWN, "/bin/sleep 3000") == 0; });
  ASSERT_TRUE(owner.ready());
  next_->die();
  sweep_when_due();
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(newcomer_is_there());
}

// It locks its file before it registers, and the program is postponed by that.
TEST_F(HandOverBesideNewcomer, AProgramThatItsLockHasPostponedIsStartedAgainOnceItRegisters) {
  make_newcomers_file();
  child owner([&] { return wex_db_create(0, newcomer_pid_, RESPAWN, "/bin/sleep 3000") == 0; });
  ASSERT_TRUE(owner.ready());
  next_->die();
  sweep_when_due();
  EXPECT_EQ(newcomer_pid_, rec_->pid);
  ready_restart ready = {};
  ASSERT_FALSE(wex_take_ready_restart(&ready));
  newcomer_registers();
  ASSERT_TRUE(wex_take_ready_restart(&ready));
  wex_hand_back_restart(ready);
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(newcomer_is_there());
}

// The other one, whose end is still to come, has a number, too.
TEST_F(EndedWait, JustBeforeTheNewcomerRegistersHasTheProgramStartedAgainAndNoOther) {
  wex_pid* const other = without_process();
  int32_t number = -1;
  expect_started_beside(other, &number);
  EXPECT_EQ(number, other->pid);
  EXPECT_TRUE(newcomer_is_there());
}

// The other one waits for the end of its self-check behind a hand-over, with a number.
TEST_F(EndedWait, JustBeforeTheNewcomerRegistersHasTheProgramStartedAgainBesideAParkedOne) {
  wex_pid* const other = without_process();
  other->alarm_wait_flag = 1;
  other->exit_seen = 1;
  int32_t number = -1;
  expect_started_beside(other, &number);
}

// The rebuild enters them in the order of their files.
TEST_F(HandOverBesideNewcomerOfAnotherName, AProgramThatBeginsToWaitBeforeANewcomerInTheChainGivesThePidUp) {
  rec_->awaited = 0;
  rec_->exit_seen = 1;
  newcomer_registers_on_full_disk();
  ASSERT_EQ(newcomer_pid_, rec_->pid);
  chain_lock hold(wex_chains);
  hlist_del(&rec_->hnode);
  link_at_head(&wex_chains.heads[wex_hash_pid(newcomer_pid_)], &rec_->hnode);
  ASSERT_TRUE(__wex_await_hand_over(rec_, next_->pid()));
  EXPECT_LT(rec_->pid, -1);
}

// Its birth, and the end before, were among the events that were lost.
TEST_F(HandOver, AStopOfAStrangerThatGotTheAwaitedPidWhileEventsWereLostDoesNotStopTheProgram) {
  detached next("4711");
  wex_pid* const rec = awaiting(next);
  const int32_t pid = rec->pid;
  next.die();
  wex_note_unreported_ends(wex_clock_ns());
  wex_take_exit_event(exit_of(next.pid(), SIGTERM, later_ns()));
  sweep_soon();
  ASSERT_TRUE(holds(next.program.c_str()));
  expect_started(rec, pid);
}

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsIsStartedAgainInItsOwnDomainAndTheNewcomerStaysInIts) {
  newcomer_of_domain_registers();
  next_->die();
  sweep_when_due();
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(exists(flag_));
  EXPECT_FALSE(exists("/tmp/vsd/5/wex/" + std::to_string(rec_->pid)));
  EXPECT_TRUE(newcomer_is_there());
  ASSERT_EQ(0, system("rm -r /tmp/vsd/5 /data/var/run/vsd/5"));
}

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsForADomainIsStartedInItAgainAndTheNewcomerIsNotTakenForIts) {
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5/wex/db /data/var/run/vsd/5"));
  flag_ = "/tmp/vsd/5/wex/" + std::to_string(newcomer_pid_);
  write_file(flag_, "");
  rec_->vsd = 5;
  newcomer_registers();
  EXPECT_FALSE(exists(flag_));
  next_->die();
  sweep_when_due();
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(exists("/tmp/vsd/5/wex/" + std::to_string(rec_->pid)));
  EXPECT_FALSE(exists(flag_));
  ASSERT_EQ(0, system("rm -r /tmp/vsd/5 /data/var/run/vsd/5"));
}

TEST_F(HandOverBesideNewcomer, AStopOfTheAwaitedProcessLeavesTheNewcomerItsDomain) {
  newcomer_of_domain_registers();
  next_->end(SIGTERM);
  wex_take_exit_event(exit_of(next_->pid(), SIGTERM, later_ns()));
  sweep_soon();
  EXPECT_FALSE(holds(next_->program.c_str()));
  EXPECT_TRUE(newcomer_is_there());
  EXPECT_TRUE(exists(flag_));
  ASSERT_EQ(0, system("rm -r /tmp/vsd/5 /data/var/run/vsd/5"));
}

// There was no room for another file when the newcomer registered.
TEST_F(HandOverBesideNewcomer, AProgramThatBeginsToWaitWithThePidOfANewcomerGivesItUpThen) {
  rec_->awaited = 0;
  rec_->start_time = kSomeStart;
  rec_->exit_seen = 1;
  newcomer_registers_on_full_disk();
  ASSERT_EQ(newcomer_pid_, rec_->pid);
  {
    chain_lock hold(wex_chains);
    ASSERT_TRUE(__wex_await_hand_over(rec_, next_->pid()));
    EXPECT_LT(rec_->pid, -1);
  }
  next_->die();
  sweep_when_due();
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(newcomer_is_there());
}

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsGivesNothingUpToItsOwnNextProcess) {
  chain_lock hold(wex_chains);
  __wex_adopt_pid(&wex_chains, rec_, newcomer_pid_);
  EXPECT_EQ(newcomer_pid_, __wex_replaced_by(newcomer_pid_));
}

// The newcomer's process has written its own over it.
TEST_F(HandOverBesideNewcomer, AProgramThatWaitsKeepsAFileBesideThatOfItsName) {
  newcomer_registers();
  expect_files_of_both();
}

TEST_F(HandOverBesideNewcomer, AProgramThatWaitsKeepsItsFileBesideThatOfAListedNewcomerOfItsName) {
  newcomer_is_listed();
  EXPECT_EQ(0, wex_register_third_part(newcomer_pid_, "WEX_RESTART", nullptr));
  expect_files_of_both();
}

// There is no room for a file beside it: the newcomer's would be written over it.
TEST_F(HandOverBesideNewcomer, AListedNewcomerOfItsNameIsLeftOutUntilThereIsRoomForAnotherFile) {
  newcomer_is_listed();
  const std::string said = read_file(file_);
  {
    const no_room_in_files full;
    EXPECT_EQ(0, wex_register_third_part(newcomer_pid_, "WEX_RESTART", nullptr));
  }
  EXPECT_EQ(said, read_file(file_));
  EXPECT_TRUE(wex_listed_left_out());
  EXPECT_EQ(newcomer_pid_, rec_->pid);
  EXPECT_EQ(0, wex_register_third_part(newcomer_pid_, "WEX_RESTART", nullptr));
  wex_forget_listed_left_out();
  expect_files_of_both();
}

// Any thread has an id that no process has.
TEST_F(HandOver, AProgramThatWaitsGivesItsPidUpToAThreadThatRegisters) {
  detached next("4711");
  wex_pid* const rec = died(park_at(900, next.program.c_str()));
  std::atomic<pid_t> thread_id{0};
  std::atomic<bool> over{false};
  std::thread thread([&] {
    thread_id = static_cast<pid_t>(syscall(SYS_gettid));
    eventually([&] { return over.load(); });
  });
  EXPECT_TRUE(eventually([&] { return thread_id != 0; }));
  {
    chain_lock hold(wex_chains);
    __wex_adopt_pid(&wex_chains, rec, thread_id);
    rec->start_time = kSomeStart;
    EXPECT_TRUE(__wex_await_hand_over(rec, next.pid()));
    EXPECT_EQ(thread_id, rec->pid);
  }
  wex_reg_info body = {};
  body.pid = thread_id;
  EXPECT_EQ(0, wex_process_restart(&body));
  EXPECT_LT(rec->pid, -1);
  {
    chain_lock hold(wex_chains);
    wex_pid* const newcomer = __wex_find_pid(&wex_chains, thread_id);
    EXPECT_TRUE(newcomer != nullptr && newcomer->thread_of == getpid());
    if (newcomer != nullptr) {
      __wex_drop_registration(newcomer);
    }
  }
  over = true;
  thread.join();
  next.process.kill_now();
}

TEST_F(HandOverBesideNewcomerOfAnotherName, AProgramThatWaitsIsStartedByTheNextDaemonOnceAndLeavesNoFile) {
  newcomer_registers();
  EXPECT_FALSE(exists(file_));
  // That daemon was killed as it made such a file.
  write_file("/tmp/vsd/0/wex/db/begun-5-0123456789abcdef", "-7\n2\n" + next_->program);
  expect_files_of_both();
  EXPECT_FALSE(exists("/tmp/vsd/0/wex/db/begun-5-0123456789abcdef"));
}

TEST_F(HandOverBesideNewcomerOfAnotherName, AProgramThatWaitsAndHasNoFileGetsNone) {
  unlink(file_.c_str());
  newcomer_registers();
  EXPECT_LT(rec_->pid, -1);
  EXPECT_EQ("", numbered_files());
}

TEST_F(HandOverBesideNewcomerOfAnotherName, TheNextDaemonFindsTheProcessOfAProgramThatWaitsAndStartsNone) {
  newcomer_registers();
  wex_destroy_chains(&wex_chains);
  EXPECT_EQ(0, wex_rebuild_chains(&wex_chains));
  EXPECT_EQ("", numbered_files());
  EXPECT_EQ(2, wex_chains.count);
  EXPECT_TRUE(registered(next_->pid()));
  EXPECT_TRUE(registered(newcomer_pid_));
  EXPECT_EQ(1u, pids_with_command(next_->program).size());
  unlink(db_file(next_->pid(), next_->program.c_str()).c_str());
}

// As any other registration of his does that waits for its restart.
TEST_F(HandOver, InStrictModeAUsersProgramThatWaitsGivesItsPidUpToRootsService) {
  be_strict();
  wex_user user = {};
  user.uid = 1234;
  user.gid = 1235;
  detached next("4711");
  wex_pid* const rec = died(park_at(900, next.program.c_str()));
  rec->user = wex_number_user(user);
  wex_hold_user(rec);
  const pid_t pid = lasting();
  const wex_pid* roots = nullptr;
  {
    chain_lock hold(wex_chains);
    __wex_adopt_pid(&wex_chains, rec, pid);
    rec->start_time = kSomeStart;
    ASSERT_TRUE(__wex_await_hand_over(rec, next.pid()));
    wex_pid* const newcomer = wex_new_record();
    newcomer->pid = pid;
    newcomer->action = RESPAWN;
    snprintf(newcomer->process, sizeof newcomer->process, "/bin/sleep 3000");
    wex_note_identity(newcomer);
    newcomer->user = wex_number_user({});
    __wex_free_pid_of(newcomer);  // as its registration does
    __wex_add_record(&wex_chains, newcomer);
    roots = newcomer;
  }
  const std::string file = db_file(pid, "/bin/sleep 3000");
  write_file(file, std::to_string(pid) + "\n2\n/bin/sleep 3000");
  EXPECT_LT(rec->pid, -1);
  wex_cancel_by(1234, {WEX_CANCEL_PROC, pid});
  EXPECT_TRUE(exists(file)) << "it is that of root's service";
  EXPECT_FALSE(any_file_of("sleep[.]-")) << "a user's has none";
  {
    chain_lock hold(wex_chains);
    EXPECT_EQ(roots, __wex_find_pid(&wex_chains, pid));
  }
  unlink(file.c_str());
  next.process.kill_now();
}

// The daemon before knew both by their files.
TEST_F(HandOver, InStrictModeRootsProgramThatBeginsToWaitWithThePidOfANewcomerKeepsAFile) {
  be_strict();
  detached next("4711");
  wex_pid* const rec = died(park_at(900, next.program.c_str()));
  be_roots(rec);
  const pid_t pid = lasting();
  chain_lock hold(wex_chains);
  __wex_adopt_pid(&wex_chains, rec, pid);
  rec->start_time = kStartOfNobody;
  write_file(db_file(pid, rec->process), std::to_string(pid) + "\n2\n" + next.program);
  wex_pid* const newcomer = wex_new_record();
  newcomer->pid = pid;
  newcomer->action = RESPAWN;
  snprintf(newcomer->process, sizeof newcomer->process, "/bin/tail -f /dev/null");
  wex_note_identity(newcomer);
  newcomer->user = wex_number_user({});
  __wex_add_record(&wex_chains, newcomer);
  ASSERT_EQ(0, rec->restart_failed);
  ASSERT_TRUE(__wex_await_hand_over(rec, next.pid()));
  EXPECT_LT(rec->pid, -1);
  EXPECT_TRUE(any_file_of("sleep[.]-")) << "no daemon will know of it";
  system("rm -f /tmp/vsd/0/wex/db/*");
  next.process.kill_now();
}

// The daemon's own child gets the pid, not somebody who registers.
TEST_F(HandOverBesideNewcomer, AProgramThatIsPostponedIsStartedAgainThoughAnotherOneWasStartedWithItsPid) {
  {
    chain_lock hold(wex_chains);
    rec_->awaited = 0;
    rec_->restart_failed = 0;
    rec_->start_time = kSomeStart;
  }
  next_->die();
  {
    child owner([&] { return wex_db_create(0, newcomer_pid_, RESPAWN, next_->program.c_str()) == 0; });
    ASSERT_TRUE(owner.ready());
    wex_handle_lost_exit(newcomer_pid_, 9, kSomeStart);
    ASSERT_EQ(1, rec_->exit_seen);
    wex_pid* const other = died(park_at(900, "/bin/sleep 3000"));
    chain_lock hold(wex_chains);
    other->alarm_wait_flag = 0;
    __wex_adopt_pid(&wex_chains, other, newcomer_pid_);
  }
  g_now += kForceRestartSec;
  ready_restart ready = {};
  ASSERT_TRUE(wex_take_ready_restart(&ready));
  wex_hand_back_restart(ready);
  expect_started(rec_, newcomer_pid_);
}

TEST_F(HandOverBesideNewcomerOfAnotherName, AProgramThatIsParkedBehindItsWaitKeepsAFile) {
  expect_file_of_parked();
}

TEST_F(HandOverBesideNewcomerOfAnotherName, InStrictModeRootsProgramThatIsParkedBehindItsWaitKeepsAFile) {
  be_strict();
  expect_file_of_parked();
}

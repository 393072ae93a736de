// What the exit monitor makes of exits and core dumps of processes that have got the pid of a registration
// whose own process has ended before.
#include "event_world.h"
#include "older_kernel.h"
#include "running_thread.h"
#include "waiting.h"
#include "wex_chain_rebuild.h"
#include "wex_chain_user_sets.h"
#include "wex_core_exit.h"
#include "wex_proc_child.h"
#include "wex_strict.h"

using namespace event_world;

namespace {

constexpr uint64_t kSomeStart = 4711;  // of a process that has ended long ago

class StrangersEvent : public Event {
 protected:
  void SetUp() override {
    Event::SetUp();
    write_file(kBurstConfig, "60 1");
  }
  void TearDown() override {
    wex_test::remove_tree("/tmp/vsd/5");
    Event::TearDown();
  }

  // A record whose exit was handled, and that waits with its dead pid.
  static wex_pid* waiting(const char* process = "/bin/sleep 1000") {
    wex_pid* const rec = park_at(900, process);
    rec->start_time = kSomeStart;
    rec->seen_ns = wex_clock_ns() - 1000000000;
    rec->exit_seen = 1;
    rec->ended_by_ns = wex_clock_ns();
    wex_sleep_ms(2);
    return rec;
  }
  // The same as one that could not be started again.
  static wex_pid* failed() {
    wex_pid* const rec = waiting();
    rec->alarm_wait_flag = 0;
    rec->flags = 0;
    wex_note_failed(rec);
    return rec;
  }
  static void drop_all() {
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    while (wex_pid* const rec = walk.next()) {
      if (waitpid(rec->pid, nullptr, WNOHANG) == 0) {  // a child of ours that lives
        send_signal(rec->pid, SIGKILL);
        waitpid(rec->pid, nullptr, 0);
      }
      __wex_drop_registration(rec);
    }
  }
  static void take_domain_down() {
    ASSERT_EQ(0, mkdir("/tmp/vsd/5", 0777));
    write_file("/tmp/vsd/5/delete_vsd", "");
  }
  static bool is_there(const wex_pid* rec, int32_t pid) {
    chain_lock hold(wex_chains);
    return __wex_find_pid(&wex_chains, pid) == rec && exists(db_file(pid, rec->process));
  }
  // One whose end the kernel has not reported.
  static wex_pid* unreported() {
    wex_pid* const rec = waiting();
    rec->alarm_wait_flag = 0;
    rec->flags = 0;
    rec->exit_seen = 0;
    rec->ended_by_ns = 0;
    return rec;
  }
  static process_event birth_of(int32_t pid, uint64_t time_ns = now_ns()) {
    return {kEventFork, pid, pid, 0, time_ns};
  }
  // The record that is given is running again when this returns; the pid that it had.
  static int32_t replace(wex_pid* rec) {
    const int32_t old_pid = rec->pid;
    const pid_t next = lasting();
    chain_lock hold(wex_chains);
    rec->alarm_wait_flag = 0;
    EXPECT_TRUE(__wex_adopt_pid(&wex_chains, rec, next));
    return old_pid;
  }
};

}  // namespace

TEST_F(StrangersEvent, LeavesAProgramThatWaitsItsRegistrationDuringATakeDown) {
  const wex_pid* const rec = waiting();
  const int32_t pid = rec->pid;
  take_domain_down();
  wex_take_exit_event(exit_of(pid, 9));
  EXPECT_TRUE(is_there(rec, pid));
  wex_take_exit_event(thread_end(pid, getpid()));
  EXPECT_TRUE(is_there(rec, pid));
}

// The sweep finds that end, and has it dropped then.
TEST_F(StrangersEvent, OfAThreadLeavesAProcessWhoseEndWasLostItsRegistrationDuringATakeDown) {
  const running_thread other;  // of this process, which is registered, too, so that the event is looked at
  add(getpid(), "/bin/us");
  wex_pid* const rec = waiting();
  const int32_t pid = rec->pid;
  rec->exit_seen = 0;
  rec->alarm_wait_flag = 0;
  take_domain_down();
  wex_take_exit_event(thread_end(pid, getpid()));
  EXPECT_TRUE(is_there(rec, pid));
  chain_lock hold(wex_chains);
  __wex_drop_record(&wex_chains, __wex_find_pid(&wex_chains, getpid()));
}

// The sweep finds the end of the record's own process, and has it dropped then.
TEST_F(StrangersEvent, OfAChildThatGaveWayLeavesTheRegistrationOfThatPidDuringATakeDown) {
  bool gave_way = false;
  for (int round = 1; round <= 20 && !gave_way; ++round) {  // somebody else may be quicker
    wex_pid* const rec = waiting();
    rec->exit_seen = 0;
    rec->alarm_wait_flag = 0;
    const int32_t pid = rec->pid;
    const wex_pid* const other = add(dead_pid(), "/bin/sleep 2000");
    std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1 << std::flush;
    wex_handle_netlink_exit(other->pid, 9, 0);
    take_domain_down();
    {
      chain_lock hold(wex_chains);
      gave_way = __wex_gave_way_to(rec, 0, UINT64_MAX / 2);
    }
    if (gave_way) {
      wex_take_exit_event(exit_of(pid, 0));
      EXPECT_TRUE(is_there(rec, pid));
    }
    wex_test::remove_tree("/tmp/vsd/5");
    drop_all();
  }
  EXPECT_TRUE(gave_way) << "the pid was never given to a child";
}

TEST_F(StrangersEvent, WithTheCodeOfAStopDoesNotEndAProgramThatCouldNotBeStarted) {
  const wex_pid* const rec = failed();
  const int32_t pid = rec->pid;
  wex_take_exit_event(exit_of(pid, 15));
  EXPECT_TRUE(is_there(rec, pid));
  EXPECT_EQ(0u, rec->exit_tick);
}

// Its process had ended before the daemon was there.
TEST_F(StrangersEvent, WithTheCodeOfAStopDoesNotEndAProgramThatCouldNotBeStartedWithTheDaemon) {
  wex_pid* const rec = failed();
  const int32_t pid = rec->pid;
  rec->exit_seen = 0;
  rec->ended_by_ns = 0;
  wex_take_exit_event(exit_of(pid, 15));
  EXPECT_TRUE(is_there(rec, pid));
}

TEST_F(StrangersEvent, ThatCanStillBeSeenDoesNotEndAProgramThatCouldNotBeStarted) {
  const pid_t stranger = zombie();  // that nobody has reaped yet
  {
    chain_lock hold(wex_chains);
    wex_pid* const other = failed();
    __wex_adopt_pid(&wex_chains, other, stranger);
    other->start_time = kSomeStart;
    other->exit_seen = 1;
    other->ended_by_ns = wex_clock_ns();
    write_file(db_file(stranger, other->process), "");
  }
  wex_sleep_ms(2);
  wex_take_exit_event(exit_of(stranger, 15));
  EXPECT_TRUE(exists(db_file(stranger, "/bin/sleep 1000")));
  waitpid(stranger, nullptr, 0);
}

// By a thread of a process that ended with it; thread and process have got their ids again.
TEST_F(StrangersEvent, OfAThreadLeavesAProgramThatWasRegisteredByAThreadItsRegistrationDuringATakeDown) {
  wex_pid* const rec = failed();
  const int32_t tid = rec->pid;
  rec->thread_of = getpid();
  take_domain_down();
  wex_take_exit_event(thread_end(tid, getpid(), 9));
  EXPECT_TRUE(is_there(rec, tid));
  EXPECT_EQ(0u, rec->known_code);
}

TEST_F(StrangersEvent, OfACoreDumpCountsForNoProgramThatWaits) {
  const wex_pid* const rec = waiting();
  wex_take_exit_event(exit_of(rec->pid, kDumped));
  wex_take_exit_event(thread_end(rec->pid + 1, rec->pid, kDumped));
  wex_take_exit_event(thread_end(rec->pid, getpid(), kDumped));
  EXPECT_EQ(0, rec->crash_time);
  EXPECT_EQ(0u, reboots());
}

TEST_F(StrangersEvent, OfACoreDumpCountsForNoProgramThatHadItsPid) {
  wex_pid* const rec = waiting();
  const int32_t pid = replace(rec);
  wex_take_exit_event(exit_of(pid, kDumped));
  wex_take_exit_event(thread_end(pid + 1, pid, kDumped));
  EXPECT_EQ(0, rec->crash_time);
  EXPECT_EQ(0u, reboots());
  end(rec);
}

// It is still there to be looked at, so its time alone does not tell.
TEST_F(StrangersEvent, OfACoreDumpIsTheProgramsOwnWhenItStartedWithIt) {
  for (const bool own : {false, true}) {
    wex_pid* const rec = waiting();
    {
      chain_lock hold(wex_chains);
      __wex_adopt_pid(&wex_chains, rec, zombie());
    }
    const pid_t pid = rec->pid;
    ASSERT_NE(0u, rec->start_time);
    rec->start_time += own ? 0 : 1;
    rec->exit_seen = 1;
    rec->ended_by_ns = own ? wex_clock_ns() - 1000000000 : INT64_MAX;
    EXPECT_EQ(pid, replace(rec));
    wex_take_exit_event(thread_end(pid + 1, pid, kDumped));
    EXPECT_EQ(own, rec->crash_time != 0);
    EXPECT_EQ(own ? 1u : 0u, reboots());
    waitpid(pid, nullptr, 0);
    end(rec);
  }
}

// The thread that dumped core is reported last, when nothing is left of the process.
TEST_F(StrangersEvent, IsNoneWhenItHappenedBeforeTheProgramsOwnEndWasHandled) {
  const uint64_t dumped = now_ns();
  wex_pid* const rec = waiting();
  wex_take_exit_event(thread_end(rec->pid + 1, rec->pid, kDumped));
  EXPECT_EQ(0u, reboots());
  wex_take_exit_event({kEventExit, rec->pid + 1, rec->pid, kDumped, dumped});
  EXPECT_EQ(1u, reboots());
  rec->crash_time = 0;
  const int32_t pid = replace(rec);
  wex_take_exit_event({kEventExit, pid + 1, pid, kDumped, dumped});
  EXPECT_EQ(2u, reboots());
  end(rec);
}

// Its end was handled, for the main thread had ended and the others took long, and its restart waits for
// them.
TEST_F(StrangersEvent, IsNoneWhenAThreadOfAPostponedProgramDumpsCoreLater) {
  gate hold;
  const wex_pid* const rec = add_without_main_thread(&hold);
  const pid_t pid = pid_of(rec);
  const child keeper([&] {
    hold.open();  // its copy of it
    return wex_db_create(0, pid, RESPAWN, "/bin/sleep 1000") == 0;
  });
  ASSERT_TRUE(keeper.ready());
  wex_take_exit_event(exit_of(pid, 0));
  ASSERT_TRUE(eventually(settled));
  ASSERT_EQ(pid, pid_of(rec));
  ASSERT_NE(0, rec->exit_seen);
  hold.open();
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
  wex_sleep_ms(2);
  wex_take_exit_event(thread_end(pid + 1, pid, kDumped));
  EXPECT_EQ(1u, reboots());
  chain_lock registry(wex_chains);
  chain_lock hold_delay(wex_chains_delay);
  EXPECT_NE(nullptr, __wex_find_pid(&wex_chains_delay, pid));
  __wex_del_pid(&wex_chains_delay, pid);
}

TEST_F(StrangersEvent, OfAProgramPostponedAtTheStartOfTheDaemonTakesNoRegistrationDuringATakeDown) {
  const pid_t pid = dead_pid();
  const child keeper([&] { return wex_db_create(0, pid, RESPAWN, "/bin/sleep 1000") == 0; });
  ASSERT_TRUE(keeper.ready());
  wex_rebuild_chains(&wex_chains);
  {
    chain_lock registry(wex_chains);
    chain_lock hold_delay(wex_chains_delay);
    ASSERT_NE(nullptr, __wex_find_pid(&wex_chains, pid));
    ASSERT_NE(nullptr, __wex_find_pid(&wex_chains_delay, pid));
  }
  wex_sleep_ms(5);
  take_domain_down();
  wex_take_exit_event(exit_of(pid, 9));
  chain_lock registry(wex_chains);
  chain_lock hold_delay(wex_chains_delay);
  EXPECT_NE(nullptr, __wex_find_pid(&wex_chains, pid));
  __wex_del_pid(&wex_chains_delay, pid);
}

TEST_F(StrangersEvent, OfAPostponedProgramThatHadOnlyThreadsLeftTakesNoRegistrationDuringATakeDown) {
  gate hold;
  const wex_pid* const rec = add_without_main_thread(&hold);
  const pid_t pid = pid_of(rec);
  const child keeper([&] {
    hold.open();
    return wex_db_create(0, pid, RESPAWN, "/bin/sleep 1000") == 0;
  });
  ASSERT_TRUE(keeper.ready());
  wex_take_exit_event(exit_of(pid, 0));
  ASSERT_TRUE(eventually(settled));
  hold.open();
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
  wex_sleep_ms(20);
  take_domain_down();
  wex_take_exit_event(exit_of(pid, 9));  // a stranger's, which has been reaped
  chain_lock registry(wex_chains);
  chain_lock hold_delay(wex_chains_delay);
  EXPECT_NE(nullptr, __wex_find_pid(&wex_chains, pid));
  __wex_del_pid(&wex_chains_delay, pid);
}

// Unlocked, so it is replaced at once while its other thread is still there; that one dumps core 30 ms later.
TEST_F(StrangersEvent, IsNoneWhenAThreadThatOutlivedTheLooksDumpsCoreAfterTheRestart) {
  gate hold;
  wex_pid* const rec = add_without_main_thread(&hold);
  const pid_t pid = pid_of(rec);
  wex_take_exit_event(exit_of(pid, 0));
  ASSERT_TRUE(eventually(settled));
  ASSERT_NE(pid, pid_of(rec));
  hold.open();
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
  wex_sleep_ms(2);
  wex_take_exit_event(thread_end(pid + 1, pid, kDumped));
  EXPECT_EQ(1u, reboots());
  end(rec);
}

// Both have ended, one after the other, when the daemon comes to the first event.
TEST_F(StrangersEvent, ThatCameBeforeTheOwnEndWasHandledTakesNoRegistrationDuringATakeDown) {
  const pid_t pid = lasting();
  wex_pid* const rec = add(pid);
  const child keeper([&] { return wex_db_create(0, pid, RESPAWN, "/bin/sleep 1000") == 0; });
  ASSERT_TRUE(keeper.ready());
  send_signal(pid, SIGKILL);
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
  const uint64_t own_end = now_ns();
  wex_sleep_ms(50);
  const uint64_t strangers_end = now_ns();
  wex_sleep_ms(50);
  wex_take_exit_event(exit_of(pid, 9, own_end));
  ASSERT_EQ(1, rec->exit_seen);
  take_domain_down();
  wex_take_exit_event(exit_of(pid, 9, strangers_end));
  chain_lock registry(wex_chains);
  chain_lock hold_delay(wex_chains_delay);
  EXPECT_NE(nullptr, __wex_find_pid(&wex_chains, pid));
  __wex_del_pid(&wex_chains_delay, pid);
}

TEST_F(StrangersEvent, ThatDumpedCoreBeforeTheOwnEndWasHandledCountsForNoProgram) {
  const pid_t pid = lasting();
  wex_pid* const rec = add(pid);
  send_signal(pid, SIGKILL);
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
  const uint64_t own_end = now_ns();
  wex_sleep_ms(50);
  const uint64_t strangers_end = now_ns();
  wex_sleep_ms(50);
  wex_take_exit_event(exit_of(pid, 9, own_end));
  ASSERT_NE(pid, pid_of(rec));
  wex_take_exit_event(exit_of(pid, kDumped, strangers_end));
  EXPECT_EQ(0u, reboots());
  end(rec);
}

// The own end was lost, or it is behind the others in the hands of another thread.
TEST_F(StrangersEvent, AfterABirthUnderThePidDoesNotStopAProgramWhoseOwnEndWasNotReported) {
  const wex_pid* const rec = unreported();
  const int32_t pid = rec->pid;
  wex_take_birth_event(birth_of(pid));
  wex_take_exit_event(exit_of(pid, SIGTERM));
  EXPECT_TRUE(is_there(rec, pid));
  wex_take_exit_event(thread_end(pid + 1, pid, kDumped));
  EXPECT_EQ(0u, reboots());
  EXPECT_EQ(0u, rec->exit_tick);
}

TEST_F(StrangersEvent, AfterABirthIsNoneOfTheProgramThatHadThePidThoughItsOwnEndWasHandledLater) {
  wex_pid* const rec = unreported();
  const uint64_t own = now_ns();
  const uint64_t birth = own + 100000;
  wex_sleep_ms(5);
  const int32_t pid = replace(rec);
  wex_take_birth_event(birth_of(pid, birth));
  wex_take_exit_event({kEventExit, pid + 1, pid, kDumped, birth});
  EXPECT_EQ(0u, reboots()) << "by a coarse clock at the same time";
  wex_take_exit_event({kEventExit, pid + 1, pid, kDumped, own});
  EXPECT_EQ(1u, reboots());
  end(rec);
}

TEST_F(StrangersEvent, OfATimeWhenOnlyThreadsOfTheProgramWereLeftIsNoneAfterABirth) {
  const wex_pid* const rec = waiting();
  const_cast<wex_pid*>(rec)->ended_by_ns = INT64_MAX;
  wex_take_birth_event(birth_of(rec->pid));
  wex_take_exit_event(thread_end(rec->pid + 1, rec->pid, kDumped));
  EXPECT_EQ(0u, reboots());
}

// The daemon was busy when it was forked. Start times tell nothing about it: the clock of a namespace, or a
// suspend, may have moved them.
TEST_F(StrangersEvent, TheOwnBirthThatIsReadAfterTheEndHidesNoStop) {
  const pid_t pid = lasting();
  const uint64_t birth = now_ns();
  wex_pid* const rec = add(pid);
  rec->start_time -= 1000;
  write_file(db_file(pid, rec->process), "");
  wex_sleep_ms(50);
  send_signal(pid, SIGKILL);
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
  wex_take_birth_event(birth_of(pid, birth));
  wex_take_exit_event(exit_of(pid, SIGTERM));
  EXPECT_FALSE(exists(db_file(pid, "/bin/sleep 1000")));
}

TEST_F(StrangersEvent, ABirthWithoutATimeOrOfAThreadTellsNothing) {
  const wex_pid* const rec = unreported();
  wex_take_birth_event(birth_of(rec->pid, 0));
  process_event thread = birth_of(rec->pid);
  thread.tgid = getpid();
  wex_take_birth_event(thread);
  EXPECT_EQ(0, rec->ended_by_ns);
}

// When the kernel says that it could not report everything.
TEST_F(StrangersEvent, AfterALookForUnreportedEndsDoesNotStopAProgramThatHadEnded) {
  const pid_t lives = lasting();
  wex_pid* const other = add(lives, "/bin/sleep 2000");
  const wex_pid* const rec = unreported();
  const int32_t pid = rec->pid;
  const uint64_t own = now_ns();
  wex_note_unreported_ends(wex_clock_ns());
  EXPECT_EQ(0, other->ended_by_ns);
  wex_take_exit_event(exit_of(pid, SIGTERM));
  EXPECT_TRUE(is_there(rec, pid));
  wex_take_exit_event(exit_of(pid, SIGTERM, own));
  EXPECT_FALSE(exists(db_file(pid, "/bin/sleep 1000"))) << "its own was queued before events were lost";
  end(other);
}

// It was there when events were reported again.
TEST_F(StrangersEvent, IsNoneWhenALookForUnreportedEndsHasSeenTheZombie) {
  const pid_t pid = zombie();
  const wex_pid* const rec = add(pid);
  write_file(db_file(pid, rec->process), "");
  wex_note_unreported_ends(wex_clock_ns());
  wex_take_exit_event(exit_of(pid, SIGTERM));
  EXPECT_FALSE(exists(db_file(pid, "/bin/sleep 1000")));
}

TEST_F(StrangersEvent, AfterTheSweepHasMissedAProgramIsNotItsEnd) {
  const wex_pid* const rec = unreported();
  const int32_t pid = rec->pid;
  const uint64_t own = now_ns();
  wex_sleep_ms(1);
  sweep_at({g_now});
  wex_take_exit_event(exit_of(pid, SIGTERM, now_ns() + 2 * kReportSlackNs));
  EXPECT_TRUE(is_there(rec, pid));
  wex_take_exit_event(exit_of(pid, SIGTERM, own));
  EXPECT_FALSE(exists(db_file(pid, "/bin/sleep 1000"))) << "its own is read late";
}

// A process is a zombie some microseconds before the kernel stamps the report of its end.
TEST_F(StrangersEvent, IsNoneWhenItIsStampedRightAfterTheSweepSawAZombie) {
  const pid_t pid = zombie();
  const wex_pid* const rec = add(pid);
  write_file(db_file(pid, rec->process), "");
  sweep_at({g_now});
  ASSERT_NE(0, rec->ended_by_ns);
  wex_take_exit_event(exit_of(pid, SIGTERM, now_ns() + 5000));
  EXPECT_FALSE(exists(db_file(pid, "/bin/sleep 1000")));
}

// It looked dead to the sweep, and is not: its start time was not known before.
TEST_F(StrangersEvent, IsNoneWhenTheSweepSeesTheProcessAgain) {
  const pid_t pid = lasting();
  wex_pid* const rec = add(pid);
  rec->ended_by_ns = wex_clock_ns();
  sweep_at({g_now});
  EXPECT_EQ(0, rec->ended_by_ns);
  end(rec);
}

// Its exit was taken for one of the process, which went on: a thread of it had executed a program.
TEST_F(StrangersEvent, IsNoneWhenAProgramThatWasTakenForEndedIsFoundRunning) {
  const pid_t pid = lasting();
  wex_pid* const rec = add(pid);
  rec->exit_seen = 1;
  rec->ended_by_ns = wex_clock_ns();
  wex_note_failed(rec);
  wex_handle_netlink_exit(pid, 9, 1);
  EXPECT_EQ(0, rec->ended_by_ns);
  EXPECT_EQ(0, rec->restart_failed);
  send_signal(pid, SIGKILL);
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
  wex_take_exit_event(exit_of(pid, 9));
  EXPECT_NE(pid, pid_of(rec));
  end(rec);
}

// The pid is that of two registrations: one was started again as another process since, one waits with it.
TEST_F(StrangersEvent, ThatIsOfTheProgramBeforeLastLeavesTheOneThatWaitsWithThePidAlone) {
  const uint64_t first = now_ns();
  wex_pid* const before = waiting();
  const int32_t pid = replace(before);
  wex_pid* const rec = add(pid);
  rec->start_time = kSomeStart + 1;
  rec->exit_seen = 1;
  wex_note_failed(rec);
  write_file(db_file(pid, rec->process), "");
  wex_take_exit_event(exit_of(pid, SIGTERM, first));
  EXPECT_TRUE(is_there(rec, pid));
  EXPECT_EQ(0u, rec->exit_tick);
  end(before);
  unlink(db_file(pid, rec->process).c_str());
}

// There a process may have another start time than it had, but not another user.
TEST_F(StrangersEvent, OfAnotherUserHasThePidOnAnOlderKernelAndIsNotTakenForTheProgram) {
  const wex_test::older_kernel pretended;
  strict_settings settings;
  settings.on = true;
  wex_set_strict(settings);
  const pid_t pid = lasting();
  wex_pid* const rec = add(pid);
  wex_user users = {};
  users.uid = 1234;
  rec->user = wex_number_user(users);
  wex_hold_user(rec);
  rec->start_time -= 100;
  write_file(db_file(pid, rec->process), "");
  wex_take_exit_event(exit_of(pid, SIGTERM));
  EXPECT_FALSE(exists(db_file(pid, "/bin/sleep 1000")));
  send_signal(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  wex_set_strict({});
}

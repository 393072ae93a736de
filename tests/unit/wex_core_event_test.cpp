// What the exit monitor makes of one reported exit, with real processes and a registry that the test fills.
#include "wex_core_event.h"

#include <sys/resource.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "event_world.h"
#include "older_kernel.h"
#include "running_thread.h"
#include "waiting.h"
#include "wex_core_filter.h"
#include "wex_core_sweep_request.h"
#include "wex_utils.h"

using namespace event_world;

namespace {

// Called once, just before the ends of threads are let through.
std::function<void()> g_before_filter_passes;
bool g_asked = false;  // for the ends of threads that were registered
int64_t g_clock_stands_at = 0;

}  // namespace

int64_t real_clock_ms() __asm__("__real__Z12wex_clock_msv");
int64_t wrap_clock_ms() __asm__("__wrap__Z12wex_clock_msv");
int64_t wrap_clock_ms() {
  return g_clock_stands_at != 0 ? g_clock_stands_at : real_clock_ms();
}

void real_pass_thread_ends(thread_ends_for whom,
                           bool pass) __asm__("__real__Z20wex_pass_thread_ends15thread_ends_forb");
void wrap_pass_thread_ends(thread_ends_for whom,
                           bool pass) __asm__("__wrap__Z20wex_pass_thread_ends15thread_ends_forb");
void wrap_pass_thread_ends(thread_ends_for whom, bool pass) {
  if (pass && g_before_filter_passes) {
    std::exchange(g_before_filter_passes, nullptr)();
  }
  if (whom == thread_ends_for::registrations) {
    g_asked = pass;
  }
  real_pass_thread_ends(whom, pass);
}

// ---- whose exit it was ------------------------------------------------------------------------------------

TEST_F(Event, OfAProcessWhosePidAStrangerHasIsAnExit) {
  const uint64_t exit_time = now_ns();
  usleep(60000);  // some ticks of the stat file
  const pid_t stranger = lasting();
  wex_pid* const rec = add(stranger);
  rec->start_time -= 100;  // the record is of an earlier process
  wex_take_exit_event(exit_of(stranger, 9, exit_time));
  EXPECT_NE(stranger, pid_of(rec)) << "the program stays down until the stranger ends";
  EXPECT_EQ(9u, rec->exit_signal);
  EXPECT_TRUE(send_signal(stranger, SIGKILL));
  waitpid(stranger, nullptr, 0);
}

TEST_F(Event, OfAThreadThatGaveItsPlaceToAnotherIsNone) {
  const wex_test::older_kernel pretended;
  const pid_t child = lasting();
  wex_pid* const rec = add(child);
  const uint64_t start_time = rec->start_time;
  rec->start_time -= 100;  // as kernels before 3.17 have it: the thread's start time is the process's now
  rec->exit_seen = 1;      // an earlier report
  wex_take_exit_event(exit_of(child, 0));
  EXPECT_EQ(child, pid_of(rec));
  EXPECT_EQ(start_time, rec->start_time) << "the next exit would be taken for a stranger's";
  EXPECT_EQ(0, rec->exit_seen) << "it would never be looked for again";
  EXPECT_EQ(0u, rec->exit_tick);
  end(rec);
}

TEST_F(Event, OfAMainThreadWaitsForTheOthersWithoutTheRegistry) {
  gate hold;
  const wex_pid* const rec = add_without_main_thread(&hold);
  const pid_t child = pid_of(rec);
  ASSERT_EQ(2, wex_look_at(child).threads);
  wex_take_exit_event(exit_of(child, 139));
  EXPECT_EQ(child, pid_of(rec)) << "a thread of it may be about to execute a program";
  EXPECT_NE(-1, wex_judge_pending_exits());
  hold.open();
  ASSERT_TRUE(eventually([&] { return wex_look_at(child).threads == 1; }));
  wex_take_exit_event(thread_end(child + 1, child));
  EXPECT_EQ(-1, wex_judge_pending_exits()) << "the last thread's end must be enough for a decision";
  EXPECT_NE(child, pid_of(rec));
  EXPECT_EQ(139u, rec->exit_signal);
}

TEST_F(Event, OfAMainThreadIsNotDecidedEarlierBecauseManyOfTheOthersEnd) {
  gate hold;
  const wex_pid* const rec = add_without_main_thread(&hold);
  const pid_t child = pid_of(rec);
  const int64_t begin = wex_clock_ms();
  g_clock_stands_at = begin;
  wex_take_exit_event(exit_of(child, 139));
  for (int other = 1; other <= 2 * kExitLooks; ++other) {
    g_clock_stands_at = begin + (other < kExitLooks ? other * kExitLookMs : kExitLooks * kExitLookMs - 1);
    wex_take_exit_event(thread_end(child + other, child));
    wex_judge_pending_exits();
    EXPECT_EQ(child, pid_of(rec)) << other;
  }
  g_clock_stands_at = begin + kExitLooks * kExitLookMs;  // now the last look is due
  wex_judge_pending_exits();
  EXPECT_NE(child, pid_of(rec));
  g_clock_stands_at = 0;
  hold.open();
  ASSERT_TRUE(eventually(settled));
}

TEST_F(Event, OfAMainThreadBesideThreadsThatGoOnIsHandledAfterSomeLooks) {
  gate hold;
  const wex_pid* const rec = add_without_main_thread(&hold);
  const pid_t child = pid_of(rec);
  wex_take_exit_event(exit_of(child, 0));
  EXPECT_EQ(child, pid_of(rec));
  EXPECT_TRUE(eventually(settled));
  EXPECT_NE(child, pid_of(rec)) << "its file is not locked, so nothing postpones the restart";
}

TEST_F(Event, OfAChildOfOursIsHandledThoughItCannotBeSeenAndLeavesNoZombieBesideItsProgram) {
  const pid_t child = zombie();
  const wex_pid* const rec = add(child);
  {
    const unreadable_stat none(child);
    wex_take_exit_event(exit_of(child, 11));
  }
  EXPECT_EQ(-1, waitpid(child, nullptr, WNOHANG));
  EXPECT_NE(child, pid_of(rec));
  EXPECT_EQ(11u, rec->exit_signal);
}

TEST_F(Event, OfAProcessThatCannotBeSeenIsHandledOnceItCan) {
  gate hold;
  const pid_t child = zombie_of_another(&hold);
  ASSERT_TRUE(eventually([&] { return wex_look_at(child).state == 'Z'; }));
  const wex_pid* const rec = add(child);
  {
    const unreadable_stat none(child);
    wex_take_exit_event(exit_of(child, 11));
    for (int look = 0; look <= kExitLooks; ++look) {
      wex_sleep_ms(kExitLookMs + 1);
      EXPECT_NE(-1, wex_judge_pending_exits()) << look << ": what cannot be seen has not ended";
    }
    EXPECT_EQ(child, pid_of(rec));
  }
  EXPECT_TRUE(eventually(settled));
  EXPECT_NE(child, pid_of(rec));
  EXPECT_EQ(11u, rec->exit_signal);
}

TEST_F(Event, MoreUndecidedExitsThanThereIsRoomForAreNotLost) {
  constexpr int kExits = kPendingExits + 3;
  gate hold;
  std::vector<wex_pid*> records;
  for (int i = 0; i < kExits; ++i) {
    records.push_back(add_without_main_thread(&hold, "/bin/sleep " + std::to_string(1000 + i)));
  }
  std::vector<int32_t> before;
  for (const wex_pid* const rec : records) {
    before.push_back(rec->pid);
    wex_take_exit_event(exit_of(rec->pid, 9));
  }
  EXPECT_TRUE(eventually(settled, 20s));
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_NE(before[i], pid_of(records[i])) << i;
  }
}

TEST_F(Event, OfAThreadThatWasRegisteredAsAProgramIsNeverLookedForLater) {
  const int32_t tid = dead_pid();
  wex_pid* const rec = add(tid);
  wex_take_exit_event(thread_end(tid, getpid()));
  sweep_at({1000, 1000 + kSweepConfirmSec, 1000 + 2 * kSweepEverySec});
  EXPECT_EQ(tid, pid_of(rec)) << "a second instance beside the process that goes on";
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
}

// As the end of any process that is reported meanwhile.
TEST_F(Event, OfAThreadThatWasRegisteredAsAProgramDropsItsRecordDuringATakeDown) {
  running_thread thread;
  const int32_t tid = thread.tid();
  add(tid);
  const std::string file = db_file(tid, "/bin/sleep");
  write_file(file, std::to_string(tid) + "\n2\n/bin/sleep 1000");
  ASSERT_EQ(0, mkdir("/tmp/vsd/5", 0777));
  write_file("/tmp/vsd/5/delete_vsd", "");
  thread.end();
  wex_take_exit_event(thread_end(tid, getpid()));
  wex_test::remove_tree("/tmp/vsd/5");
  EXPECT_FALSE(exists(file));
  chain_lock hold(wex_chains);
  EXPECT_EQ(nullptr, __wex_find_pid(&wex_chains, tid));
}

// The kernel need not report it, and may have no room to.
TEST_F(Event, OfAThreadThatWasRegisteredAsAProgramMayBeLost) {
  running_thread thread;
  const int32_t tid = thread.tid();
  const wex_pid* const rec = add(tid);
  EXPECT_EQ(getpid(), rec->thread_of);
  thread.end();
  sweep_at({1000, 1000 + kSweepConfirmSec, 1000 + 2 * kSweepEverySec});
  EXPECT_EQ(tid, pid_of(rec)) << "a second instance beside the process that goes on";
}

// The descriptors may have run out when they were registered.
TEST_F(Event, OfThreadsThatCouldNotBeLookedAtMayBeLost) {
  running_thread thread;
  running_thread brief;
  wex_pid* rec = nullptr;
  wex_pid* other = nullptr;
  {
    const unreadable_stat none(thread.tid(), "status");
    rec = add(thread.tid());
  }
  {
    const unreadable_stat none(brief.tid(), "status");
    other = add(brief.tid(), "/bin/sleep 2000");
  }
  EXPECT_EQ(-1, rec->thread_of);
  brief.end();
  wex_sweep_lost_exits();
  EXPECT_TRUE(g_asked) << "the sweep sees that the thread runs, and that its end is wanted";
  EXPECT_EQ(getpid(), rec->thread_of);
  thread.end();
  sweep_at({1000, 1000 + kSweepConfirmSec, 1000 + 2 * kSweepEverySec});
  EXPECT_EQ(thread.tid(), pid_of(rec)) << "a second instance beside the process that goes on";
  EXPECT_EQ(brief.tid(), pid_of(other));
  EXPECT_FALSE(g_asked) << "nobody wants the ends of threads any more";
}

namespace {

// A process with a thread beside its main one.
pid_t with_a_thread(int32_t* tid) {
  int tid_pipe[2];
  EXPECT_EQ(0, pipe2(tid_pipe, O_CLOEXEC));
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const running_thread thread;
    const int32_t own = thread.tid();
    (void)!write(tid_pipe[1], &own, sizeof own);
    for (;;) {
      pause();
    }
  }
  EXPECT_EQ(ssize_t{sizeof *tid}, read(tid_pipe[0], tid, sizeof *tid));
  close(tid_pipe[0]);
  close(tid_pipe[1]);
  return child;
}

}  // namespace

// The record of the process itself goes as that of a program that is registered elsewhere, too.
TEST_F(Event, OfAProcessWhoseThreadWasRegisteredIsFoundByTheSweep) {
  int32_t tid = 0;
  const pid_t child = with_a_thread(&tid);
  ASSERT_GT(child, 0);
  const wex_pid* const rec = add(tid);
  EXPECT_EQ(child, rec->thread_of);
  sweep_at({1000});
  EXPECT_EQ(tid, pid_of(rec));
  send_signal(child, SIGKILL);
  waitpid(child, nullptr, 0);
  sweep_at({1000, 1000 + kSweepConfirmSec});
  EXPECT_NE(tid, pid_of(rec));
  EXPECT_EQ(0, rec->thread_of);
  EXPECT_EQ(0u, rec->exit_signal) << "nobody reported the cause";
}

// A signal that ends a process ends each of its threads with the same code, and the kernel reports those.
TEST_F(Event, OfAProcessWhoseThreadWasRegisteredHasTheCodeThatEndedTheThread) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    int32_t tid = 0;
    const pid_t child = with_a_thread(&tid);
    ASSERT_GT(child, 0);
    const wex_pid* const rec = add(tid);
    const std::string file = db_file(tid, "/bin/sleep");
    write_file(file, std::to_string(tid) + "\n2\n/bin/sleep 1000");
    send_signal(child, signal);
    waitpid(child, nullptr, 0);
    wex_take_sweep_request();
    wex_take_exit_event(thread_end(tid, child, static_cast<uint32_t>(signal)));
    EXPECT_TRUE(wex_take_sweep_request()) << "it would be found a minute later";
    sweep_at({1000, 1000 + kSweepConfirmSec});
    EXPECT_FALSE(exists(file));
    if (signal == SIGTERM) {
      chain_lock hold(wex_chains);
      EXPECT_EQ(0, wex_chains.count) << "it was stopped on purpose";
      EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "and was started again";
    } else {
      EXPECT_NE(tid, pid_of(rec));
      EXPECT_EQ(9u, rec->exit_signal);
      EXPECT_EQ(0u, rec->known_code) << "the next end of it is another one";
    }
  }
}

// The next end of the process is another matter: a thread may end by itself, with any code.
TEST_F(Event, OfAThreadThatEndedByItselfTellsNothingOfItsProcess) {
  const int32_t tid = dead_pid();
  wex_pid* const rec = add(tid);
  wex_take_exit_event(thread_end(tid, getpid(), 15 << 8));
  EXPECT_EQ(getpid(), rec->thread_of);
  EXPECT_EQ(0u, rec->known_code);
}

TEST_F(Event, OfAProcessThatGotTheIdOfAnEndedThreadIsNoEndOfTheThreadsProgram) {
  const pid_t child = lasting();
  wex_pid* const rec = add(child);
  rec->thread_of = getpid();
  send_signal(child, SIGKILL);
  waitpid(child, nullptr, 0);
  wex_take_exit_event(exit_of(child, kCoreDumped | SIGSEGV));
  EXPECT_EQ(child, pid_of(rec));
  EXPECT_EQ(0, rec->crash_time);
}

TEST_F(Event, OfAThreadThatGotTheIdOfALostProcessDoesNotHideTheLoss) {
  const pid_t child = lasting();
  wex_pid* const rec = add(child);
  send_signal(child, SIGKILL);  // this exit is lost
  waitpid(child, nullptr, 0);
  wex_take_exit_event(thread_end(child, getpid()));
  sweep_at({1000, 1000 + kSweepConfirmSec});
  EXPECT_NE(child, pid_of(rec));
}

TEST_F(Event, OfAMainThreadIsDecidedWhenTheLastThreadEndsBeforeItsEndIsReported) {
  gate hold;
  const wex_pid* const rec = add_without_main_thread(&hold);
  const pid_t child = pid_of(rec);
  g_before_filter_passes = [&] {
    hold.open();
    ASSERT_TRUE(eventually([&] { return wex_look_at(child).threads == 1; }));
  };
  wex_take_exit_event(exit_of(child, 139));
  EXPECT_NE(child, pid_of(rec)) << "nobody reports the thread, so it must be looked for";
  EXPECT_EQ(-1, wex_judge_pending_exits());
}

TEST_F(Event, ThatIsIgnoredLeavesTheProgramToTheSweep) {
  const pid_t child = lasting();
  wex_pid* const rec = add(child);
  rec->exit_seen = 1;
  wex_take_exit_event(exit_of(child, 0));
  ASSERT_EQ(child, pid_of(rec));
  send_signal(child, SIGKILL);  // this exit is lost
  waitpid(child, nullptr, 0);
  sweep_at({1000, 1000 + kSweepConfirmSec});
  EXPECT_NE(child, pid_of(rec));
}

TEST_F(Event, WhatCannotBeSeenIsNoLostExit) {
  const int32_t pid = zombie();
  const wex_pid* const rec = add(pid);
  {
    const unreadable_stat none(pid);
    sweep_at({1000, 1010, 1100});
    EXPECT_EQ(pid, pid_of(rec));
  }
  sweep_at({1100, 1100 + kSweepConfirmSec});
  EXPECT_NE(pid, pid_of(rec));
}

// The shift is kept for good, so it is noticed in a process of its own.
TEST_F(Event, HasTheSecondOfTheOwnClockInATimeNamespaceToo) {
  const pid_t child = fork();
  if (child == 0) {
    const uint64_t now = now_ns();
    int failed = wex_event_second(exit_of(5, 9, 7000000001)) == 7 ? 0 : 1;
    wex_expect_events_from(static_cast<int64_t>(now));
    wex_note_event_read(exit_of(5, 9, now + 100000000000));  // the kernel's clock is 100 s ahead
    const int32_t second = wex_event_second(exit_of(5, 9, now + 100000000000));
    failed |= std::abs(second - static_cast<int32_t>(now / 1000000000)) <= 60 ? 0 : 2;
    failed |= wex_event_second(exit_of(5, 9, 0)) == 0 ? 0 : 4;
    failed |= wex_event_second(exit_of(5, 9, UINT64_MAX)) == 0 ? 0 : 8;
    _exit(failed);
  }
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
}

// ---- crashes ----------------------------------------------------------------------------------------------

TEST_F(Event, ACrashThatIsOlderThanTheWindowDoesNotCount) {
  write_file(kBurstConfig, "60 2");
  const wex_pid* const first = crashing(add(dead_pid(), "/opt/first"));
  wex_pid* const second = crashing(add(dead_pid(), "/opt/second"));
  wex_take_exit_event(exit_of(first->pid, kDumped));
  g_now = 1061;
  dump_core(second);
  EXPECT_EQ(0u, reboots()) << "the first crash was 61 s ago";
  g_now = 1060;
  dump_core(second);
  EXPECT_EQ(1u, reboots()) << "60 s ago is within the window";
}

TEST_F(Event, AProgramThatDumpsCoreManyTimesCountsOnce) {
  write_file(kBurstConfig, "60 2");
  wex_pid* const rec = crashing(add(dead_pid(), "/opt/first"));
  for (int crash = 0; crash < 5; ++crash) {
    dump_core(rec);
  }
  EXPECT_EQ(0u, reboots());
}

TEST_F(Event, OnlyTheFirst256BytesOfTheBurstRuleAreRead) {
  wex_pid* const rec = crashing(add(dead_pid(), "/opt/first"));
  write_file(kBurstConfig, std::string(253, ' ') + "60 1");  // its last digit is byte 257
  dump_core(rec);
  EXPECT_EQ(0u, reboots()) << "one number is no rule";
  write_file(kBurstConfig, std::string(252, ' ') + "60 1");
  dump_core(rec);
  EXPECT_EQ(1u, reboots());
}

TEST_F(Event, TheListOfCrashedProgramsIsCutAt1023Characters) {
  write_file(kBurstConfig, "60 2");
  const std::string name = "/opt/" + std::string(1500, 'n');
  const wex_pid* const first = crashing(add(dead_pid(), name));
  const wex_pid* const second = crashing(add(dead_pid(), "/opt/second"));
  wex_take_exit_event(exit_of(second->pid, kDumped));
  wex_take_exit_event(exit_of(first->pid, kDumped));
  const std::string log = read_file(kRebootLog);
  const std::string reason = "detect more than 2 process exit in shorttime[60]s\n";
  const size_t at = log.find(reason);
  ASSERT_NE(std::string::npos, at) << log;
  const std::string list = log.substr(at + reason.size());
  EXPECT_NE(std::string::npos, list.find("/opt/nnn")) << list;
  EXPECT_EQ(std::string::npos, list.find(std::string(1024, 'n')));
  EXPECT_LE(list.find('\n'), 1023u) << list;
}

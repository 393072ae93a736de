// Exits that no event told of, files without a record, and records without a file; the clock is the test's.
#include <vector>

#include "delay_world.h"
#include "dying_process.h"
#include "renamed_record.h"
#include "wex_core_early_end.h"
#include "wex_core_event.h"
#include "wex_core_exit.h"
#include "wex_core_files.h"
#include "wex_core_process_event.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_takedown.h"
#include "wex_core_third_part.h"
#include "wex_status_image.h"
#include "wex_strict.h"

using namespace delay_world;

// ---- lost exits -------------------------------------------------------------------------------------------

TEST_F(Delay, AVanishedProcessIsRestartedOnlyWhenItHasBeenGoneForAWhileAndTheMonitorIsIdle) {
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  wex_sweep_lost_exits();
  EXPECT_EQ(pid, present_pid(rec)) << "its event may be on its way";
  g_now = 1000 + kSweepConfirmSec;
  wex_monitor_read_until = 0;
  wex_sweep_lost_exits();
  EXPECT_EQ(pid, present_pid(rec)) << "its event may lie in the socket";
  wex_monitor_read_until = INT32_MAX;
  wex_sweep_lost_exits();
  EXPECT_NE(pid, present_pid(rec));
  EXPECT_EQ(0u, rec->exit_signal) << "the cause is unknown";
}

namespace {

// Children that end by themselves, as restart scripts do.
void other_ends(int count) {
  const spawn_guard guard;
  for (int at = 0; at < count; ++at) {
    wex_note_child_end(1000000 + at, static_cast<uint64_t>(at), 0);
  }
}

}  // namespace

TEST_F(Delay, ALostExitOfAChildHasTheStatusThatTheReaperWasGiven) {
  for (const int sig : {SIGTERM, SIGKILL}) {
    const pid_t child = fork();
    if (child == 0) {
      signal(sig, SIG_DFL);
      for (;;) {
        pause();
      }
    }
    ASSERT_GT(child, 0);
    wex_pid* const rec = add(child);
    wex_note_identity(rec);
    ASSERT_TRUE(wex_record_lives(rec));
    wex_test::send_signal(child, sig);
    ASSERT_TRUE(eventually(
        [&] {
          wex_chld_handler(SIGCHLD);
          return !wex_pid_exists(child);
        },
        20s));
    other_ends(200);
    sweep_twice();
    if (sig == SIGTERM) {
      EXPECT_EQ(0, count(wex_chains)) << "it was stopped on purpose";
    } else {
      EXPECT_NE(child, present_pid(rec));
      EXPECT_EQ(static_cast<uint32_t>(SIGKILL), rec->exit_signal);
    }
  }
}

// Between the look that found it lost and its handling its domain may be taken down, or its exit come after
// all.
TEST_F(Delay, ALostExitIsToldOnlyWhenItIsHandledAsOne) {
  status_words begin;
  wex_status_copy_words(&begin);
  const auto lost_exit_codes = [&begin] {
    std::string codes;
    status_words words;
    wex_status_copy_words(&words);
    for (uint32_t number = begin.event_next; number != words.event_next; ++number) {
      wex_status_event event = {};
      if (wex_status_copy_event(number, &event) && event.kind == WEX_STATUS_EV_LOST_EXIT) {
        codes += std::to_string(event.exit_code) + " ";
      }
    }
    return codes;
  };
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  wex_handle_lost_exit(pid, 9, rec->start_time + 1);
  EXPECT_EQ(pid, present_pid(rec)) << "another process had that pid";
  EXPECT_EQ("", lost_exit_codes());
  wex_handle_lost_exit(pid, 9, rec->start_time);
  EXPECT_NE(pid, present_pid(rec));
  EXPECT_EQ("9 ", lost_exit_codes());
  wex_handle_lost_exit(pid, 9, rec->start_time);
  EXPECT_EQ("9 ", lost_exit_codes());
  const int32_t taken_down = dead_pid();
  add(taken_down);
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5 && touch /tmp/vsd/5/delete_vsd"));
  sweep_twice();
  ASSERT_EQ(0, unlink("/tmp/vsd/5/delete_vsd"));
  EXPECT_EQ("9 ", lost_exit_codes()) << "it was dropped with its domain";
}

TEST_F(Delay, ALostCrashOfAChildCountsAsOneButNotThatOfAnotherProcessWithItsPid) {
  constexpr int kCrashed = SIGABRT | 0x80;
  struct row {
    uint64_t started;  // the child that ended; the record's process started at 1
    uint32_t code;
    int32_t crash_time;
  };
  for (const row& expected : {row{2, 0, 0}, row{0, 0, 0}, row{1, kCrashed, 1000 + kSweepConfirmSec}}) {
    g_now = 1000;
    const int32_t pid = dead_pid();
    wex_pid* const rec = add(pid);
    {
      const spawn_guard guard;
      wex_note_child_end(pid, expected.started, kCrashed);
    }
    sweep_twice();
    EXPECT_NE(pid, present_pid(rec));
    EXPECT_EQ(expected.code, rec->exit_signal) << expected.started;
    EXPECT_EQ(expected.crash_time, rec->crash_time) << expected.started;
    rename_record(rec, "");  // the next one is another program
  }
}

TEST_F(Delay, AVanishedProcessIsRestartedOnABusyDeviceOnceLaterEventsHaveBeenRead) {
  const int32_t pid = dead_pid();
  const wex_pid* const rec = add(pid);
  wex_sweep_lost_exits();  // gone since 1000
  g_now = 1100;
  wex_monitor_read_until = 1001;
  wex_sweep_lost_exits();
  EXPECT_EQ(pid, present_pid(rec)) << "its event may be the next one";
  wex_monitor_read_until = 1002;
  wex_sweep_lost_exits();
  EXPECT_NE(pid, present_pid(rec));
}

TEST_F(Delay, AProcessThatTakesItsTimeToExitIsNoLostExitUntilItIsGone) {
  wex_test::dying_process dying;
  wex_pid* const rec = add(dying.pid());
  wex_note_identity(rec);
  ASSERT_NE(0u, rec->start_time);
  dying.begin_to_exit();
  ASSERT_TRUE(eventually([&] { return !wex_record_lives(rec); }));
  for (const int32_t now : {1000, 1010, 1600}) {
    g_now = now;
    wex_sweep_lost_exits();
    EXPECT_EQ(dying.pid(), present_pid(rec)) << "its event is still to come, with the true cause";
    EXPECT_EQ(0, rec->gone_since);
  }
  dying.let_it_end();
  wex_sweep_lost_exits();
  EXPECT_EQ(dying.pid(), present_pid(rec));
  g_now = 1600 + kSweepConfirmSec;
  wex_sweep_lost_exits();
  EXPECT_NE(dying.pid(), present_pid(rec));
}

TEST_F(Delay, AnExitOfAParkedRecordIsLeftToTheAlarm) {
  wex_pid* const parked = add(dead_pid());
  const int32_t pid = parked->pid;
  parked->alarm_wait_flag = 1;
  parked->flags = WEX_FLAG_WAITING;
  const captured_output output;
  wex_handle_netlink_exit(pid, 15, 0);
  EXPECT_NE(std::string::npos,
            output.text().find("[wex_core]wex_handle_netlink_exit--> alarm_wait_flag = 1\n"))
      << output.text();
  EXPECT_EQ(pid, present_pid(parked)) << "neither restarted nor, though stopped with SIGTERM, dropped";
  EXPECT_EQ(1, count(wex_chains));
  EXPECT_EQ(0, parked->exit_seen);
}

TEST_F(Delay, TheSweepLeavesParkedWaitingAndLivingOnesAlone) {
  wex_pid* const parked = add(dead_pid());
  rename_record(parked, "/bin/sleep 1001");
  parked->alarm_wait_flag = 1;
  parked->flags = WEX_FLAG_WAITING;
  wex_pid* const waiting = add(dead_pid());
  rename_record(waiting, "/bin/sleep 1002");
  lock_keeper keeper(waiting->pid);
  wex_handle_netlink_exit(waiting->pid, 9, 0);
  service alive;
  wex_pid* const living = add(alive.pid());
  wex_note_identity(living);
  const int32_t before[] = {parked->pid, waiting->pid, living->pid};
  for (const int32_t now : {1000, 1010, 1020}) {
    g_now = now;
    wex_sweep_lost_exits();
  }
  EXPECT_EQ(before[0], parked->pid);
  EXPECT_EQ(before[1], waiting->pid);
  EXPECT_EQ(before[2], living->pid);
  EXPECT_EQ(1, count(wex_chains_delay));
  chain_lock hold(wex_chains);
  __wex_drop_record(&wex_chains, living);
}

// ---- files without a record, and records without a file ---------------------------------------------------

TEST_F(Delay, AProgramThatDiedBeforeItsRegistrationWasReadIsRestartedOnce) {
  const int32_t pid = dead_pid();
  write_file(file_of(pid), std::to_string(pid) + "\n2\n" + kProgram);
  const auto restarted = [] {
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    const wex_pid* const rec = walk.next();
    return rec != nullptr && wex_record_lives(rec);
  };
  const int asked = g_asked;
  start_thread();
  ASSERT_TRUE(eventually([&] { return g_asked >= asked + 2; }, 20s)) << "its minute must have begun";
  g_now = 1000 + kSweepEverySec;
  ASSERT_TRUE(eventually([] { return count(wex_chains) == 1; }, 20s));
  EXPECT_FALSE(restarted()) << "seen once only";
  g_now = g_now + kSweepConfirmSec;
  EXPECT_TRUE(eventually(restarted, 20s));
  EXPECT_EQ(1, count(wex_chains));
  EXPECT_FALSE(exists(file_of(pid)));
}

TEST_F(Delay, OtherFilesWithoutARecordAreLeftAlone) {
  service living;
  const int32_t locked = dead_pid();
  const int32_t named = dead_pid();
  const int32_t odd = dead_pid();
  const int32_t known = dead_pid();
  const auto content = [](int32_t pid, int action) {
    return std::to_string(pid) + "\n" + std::to_string(action) + "\n" + kProgram;
  };
  add(known);
  write_file(file_of(known), content(known, 2));
  write_file(file_of(living.pid()), content(living.pid(), 2));
  write_file(db_file(0, "other", named), content(named, 2));
  write_file(file_of(odd), content(odd, 7));
  write_file(db_file(0, "sleep", INT32_MAX), "nothing");
  write_file(db_dir(0) + "/none", content(named, 2));
  const lock_keeper keeper(locked);
  wex_look_at_files();
  EXPECT_EQ(1, count(wex_chains));
  EXPECT_EQ(7u, wex_test::list_dir(db_dir(0)).size());
  const int32_t late = dead_pid();
  write_file(file_of(late), content(late, 2));
  write_file("/tmp/vsd/5/delete_vsd", "");
  wex_look_at_files();
  EXPECT_EQ(1, count(wex_chains)) << "while a domain is taken down nothing comes back";
}

namespace {

void add_thread_of(int32_t pid) {
  wex_pid* const thread = wex_new_record();
  thread->pid = pid;
  thread->ppid = pid;
  chain_lock hold(wex_alive_chains);
  __wex_add_record(&wex_alive_chains, thread);
}

}  // namespace

TEST_F(Delay, AProgramThatWasStoppedBeforeItsRegistrationWasHandledIsNotRestarted) {
  service stopped;
  service crashed;
  for (service* const each : {&stopped, &crashed}) {
    const int32_t pid = each->pid();
    const char* const program = each == &stopped ? kProgram : "/bin/sleep 1001";
    write_file(file_of(pid), std::to_string(pid) + "\n2\n" + program);
    wex_expect_newcomer(pid, 0);
    each->end();
    const uint32_t code = each == &stopped ? SIGTERM : SIGSEGV;
    wex_take_exit_event({kEventExit, pid, pid, code, 0});
  }
  wex_look_at_files();
  EXPECT_EQ(2, count(wex_chains));
  sweep_twice();
  EXPECT_FALSE(exists(file_of(stopped.pid())));
  ASSERT_EQ(1, count(wex_chains)) << "the other one was restarted";
  chain_lock hold(wex_chains);
  record_walk walk(wex_chains);
  const wex_pid* const rec = walk.next();
  EXPECT_EQ(static_cast<uint32_t>(SIGSEGV), rec->exit_signal);
  EXPECT_TRUE(wex_record_lives(rec));
}

TEST_F(Delay, ALostExitOfAnEarlierProcessCostsALaterOneOfItsPidNoRecord) {
  wex_pid* const rec = add(dead_pid(), 2);
  write_file("/tmp/vsd/5/delete_vsd", "");
  EXPECT_TRUE(wex_drop_taken_down(rec->pid, 1)) << "nothing is to be restarted";
  EXPECT_EQ(1, count(wex_chains));
  EXPECT_TRUE(wex_drop_taken_down(rec->pid, 2));
  EXPECT_EQ(0, count(wex_chains));
}

TEST_F(Delay, AFileIsOfAnEarlierProcessWhenItIsOlderThanTheOneThatHasThePidAndNamesAnotherProgram) {
  struct row {
    const char* program;
    int age_sec;
    int records;
  };
  constexpr row kRows[] = {
      {"/bin/sleep 2000", 100, 1},
      {"/bin/sleep 2000", -1, 0},  // it may have changed its command line
      {"own", 100, 0},             // the clock may have been set
  };
  service stranger;
  char own[WEX_PROCESS_SIZE] = {};
  ASSERT_NE(nullptr, pid_to_cmdline(stranger.pid(), own, sizeof own));
  for (const row& each : kRows) {
    SCOPED_TRACE(each.program + std::string(" ") + std::to_string(each.age_sec));
    const std::string program = strcmp(each.program, "own") == 0 ? own : each.program;
    const std::string path = program.substr(0, program.find(' '));
    const std::string file = db_file(0, path.substr(path.rfind('/') + 1), stranger.pid());
    write_file(file, std::to_string(stranger.pid()) + "\n2\n" + program);
    const timespec written = {time(nullptr) - each.age_sec, 0};
    const timespec times[] = {written, written};
    ASSERT_EQ(0, utimensat(AT_FDCWD, file.c_str(), times, 0));
    wex_look_at_files();
    ASSERT_EQ(each.records, count(wex_chains));
    if (each.records == 1) {
      add_thread_of(stranger.pid());
      wex_take_exit_event({kEventExit, stranger.pid(), stranger.pid(), SIGTERM, 0});
      EXPECT_TRUE(exists(file)) << "the end of the stranger is not that of the program";
      sweep_twice();
      EXPECT_EQ(1, count(wex_alive_chains)) << "the stranger's thread";
      EXPECT_FALSE(exists(file)) << "its program was started again";
      EXPECT_TRUE(wex_test::is_alive(stranger.pid()));
      chain_lock hold(wex_chains);
      record_walk walk(wex_chains);
      wex_pid* const rec = walk.next();
      EXPECT_TRUE(wex_record_lives(rec));
      wex_test::send_signal(rec->pid, SIGKILL);
      waitpid(rec->pid, nullptr, 0);
      __wex_drop_record(&wex_chains, rec);
    }
    unlink(file.c_str());
  }
}

TEST_F(Delay, ALivingProgramGetsItsFileOnceThereIsADirectoryForIt) {
  service early;
  wex_pid* const rec = add(early.pid());
  rec->vsd = 9;
  wex_note_identity(rec);
  ASSERT_TRUE(wex_record_lives(rec));
  wex_test::remove_tree("/tmp/vsd/9");
  wex_look_at_files();
  EXPECT_FALSE(exists(db_file(9, "sleep", early.pid())));
  make_dirs(db_dir(9));
  wex_look_at_files();
  EXPECT_TRUE(exists(db_file(9, "sleep", early.pid())));
  chain_lock hold(wex_chains);
  __wex_drop_record(&wex_chains, rec);
}

TEST_F(Delay, ALivingProgramGetsTheFileThatItCouldNotMakeAndItsEndIsNotPostponed) {
  service missing;
  service empty;
  service held;
  std::vector<wex_pid*> records;
  for (const service* const one : {&missing, &empty, &held}) {
    wex_pid* const rec = add(one->pid());
    rename_record(rec, "/bin/sleep " + std::to_string(1000 + records.size()));
    rec->vsd = 2;
    wex_note_identity(rec);
    records.push_back(rec);
  }
  wex_pid* const dead = add(dead_pid());
  write_file(db_file(2, "sleep", empty.pid()), "");
  write_file(db_file(2, "sleep", held.pid()), "as it is");
  wex_look_at_files();
  for (const wex_pid* const rec : {records[0], records[1]}) {
    EXPECT_EQ(std::to_string(rec->pid) + "\n2\n" + rec->process,
              wex_test::read_file(db_file(2, "sleep", rec->pid)));
    EXPECT_TRUE(exists("/tmp/vsd/2/wex/" + std::to_string(rec->pid)));
    EXPECT_EQ(1, wex_proc_is_exit(rec)) << "or its restart would wait";
  }
  EXPECT_EQ("as it is", wex_test::read_file(db_file(2, "sleep", held.pid())));
  EXPECT_FALSE(exists(file_of(dead->pid)));
  chain_lock hold(wex_chains);
  for (wex_pid* const rec : records) {
    __wex_drop_record(&wex_chains, rec);
  }
}

namespace {

struct StrictDelay : Delay {
  void SetUp() override {
    Delay::SetUp();
    strict_settings settings;
    settings.on = true;
    settings.registrations = 2;
    wex_set_strict(settings);
  }
  void TearDown() override {
    Delay::TearDown();
    wex_set_strict({});
  }
  // The registration of a program of this user's that has gone.
  static int32_t lose(uid_t user) {
    const int32_t pid = dead_pid();
    write_file(file_of(pid), std::to_string(pid) + "\n2\n" + kProgram, 0755);
    EXPECT_EQ(0, chown(file_of(pid).c_str(), user, user));
    return pid;
  }
  // How many of these have a record.
  static int known(const std::vector<int32_t>& pids) {
    const chain_lock hold(wex_chains);
    int found = 0;
    for (const int32_t pid : pids) {
      found += __wex_find_pid(&wex_chains, pid) != nullptr ? 1 : 0;
    }
    return found;
  }
};

}  // namespace

// Each file would be a record and a program. The users are two that every list of users has.
TEST_F(StrictDelay, OfFilesWithoutARecordAUserGetsNoMoreRecordsThanHeMayHave) {
  constexpr uid_t kUsers[] = {1, 2};
  std::vector<int32_t> of_first;
  std::vector<int32_t> of_root;
  for (int file = 0; file < 4; ++file) {
    of_first.push_back(lose(kUsers[0]));
    of_root.push_back(lose(0));
  }
  const int32_t of_second = lose(kUsers[1]);
  for (int minute = 1; minute <= 2; ++minute) {
    wex_look_at_files();
    EXPECT_EQ(2, known(of_first)) << "in minute " << minute;
    EXPECT_EQ(4, known(of_root));
    EXPECT_EQ(1, known({of_second}));
  }
  {
    const chain_lock hold(wex_chains);
    for (const int32_t pid : of_first) {
      wex_pid* const rec = __wex_find_pid(&wex_chains, pid);
      if (rec != nullptr) {
        __wex_drop_registration(rec);
        break;
      }
    }
  }
  EXPECT_EQ(1, known(of_first));
  wex_look_at_files();
  EXPECT_EQ(2, known(of_first)) << "there is room for one more";
}

// A flag file of his would keep root's program down for as long as a process has its pid.
TEST_F(StrictDelay, AUsersFlagFileIsNotAskedWhoseALostRegistrationIs) {
  constexpr uid_t kUser = 1234;
  service stranger;
  const std::string flag = "/tmp/vsd/5/wex/" + std::to_string(stranger.pid());
  const std::string file = file_of(stranger.pid());
  write_file(file, std::to_string(stranger.pid()) + "\n2\n/bin/sleep 2000");
  ASSERT_EQ(0, chmod(file.c_str(), 0700));
  const timespec written = {time(nullptr) - 100, 0};
  const timespec times[] = {written, written};
  ASSERT_EQ(0, utimensat(AT_FDCWD, file.c_str(), times, 0));
  write_file(flag, "");
  wex_look_at_files();
  EXPECT_EQ(0, count(wex_chains)) << "root's would lead it there";
  ASSERT_EQ(0, chown(flag.c_str(), kUser, kUser));
  wex_look_at_files();
  EXPECT_EQ(1, count(wex_chains));
}

// Another process has its pid by now, which the sweep would take for its own.
TEST_F(StrictDelay, ALostRegistrationOfRootsThatHasGivenItsPidUpIsStartedAgain) {
  const int32_t pid = lose(0);
  wex_look_at_files();
  const wex_pid* rec = nullptr;
  int32_t number = 0;
  {
    const chain_lock hold(wex_chains);
    rec = __wex_find_pid(&wex_chains, pid);
    ASSERT_NE(nullptr, rec);
    __wex_free_pid({pid, 77, 0, nullptr});
    number = rec->pid;
  }
  EXPECT_LT(number, -1);
  EXPECT_FALSE(exists(file_of(pid)));
  EXPECT_EQ(std::to_string(number) + "\n2\n" + kProgram, read_file(file_of(number)));
  sweep_twice();
  EXPECT_GT(present_pid(rec), 0);
  EXPECT_FALSE(exists(file_of(number)));
}

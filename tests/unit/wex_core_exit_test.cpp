// The exit handler's decisions, on a registry that the test fills.
#include "wex_core_exit.h"

#include "exit_world.h"
#include "wex_chain_names.h"
#include "wex_chain_user_sets.h"
#include "wex_core_stop.h"
#include "wex_core_takedown.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"

using namespace exit_world;

namespace {
std::function<void()> before_third_part;
}  // namespace

extern "C" int __real__Z23wex_register_third_partiPKcP7wex_pid(int32_t pid, const char* type,
                                                               wex_pid* memory);
extern "C" int __wrap__Z23wex_register_third_partiPKcP7wex_pid(int32_t pid, const char* type,
                                                               wex_pid* memory) {
  if (before_third_part) {
    before_third_part();
  }
  return __real__Z23wex_register_third_partiPKcP7wex_pid(pid, type, memory);
}

TEST_F(Exit, OfAProgramStartsItAgainUnderAnotherPid) {
  const wex_pid* const rec = died(park_at(900));
  const int32_t old_pid = rec->pid;
  wex_handle_netlink_exit(old_pid, 9, 0);
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_EQ(0, kill(rec->pid, 0));
}

TEST_F(Exit, OfARecordWithAnotherActionKeepsItAndStartsNothing) {
  for (const int32_t action : {0, 1, 4, 7, -2}) {
    const wex_pid* const rec =
        died(park_at(900, ("/bin/sleep 100" + std::to_string(action)).c_str(), action));
    const int32_t old_pid = rec->pid;
    wex_handle_netlink_exit(old_pid, 9, 0);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << action << ": something was started";
    EXPECT_TRUE(exists(db_file(old_pid, rec->process))) << action;
    EXPECT_EQ(9u, rec->exit_signal) << action;
    EXPECT_EQ(0, rec->check_count) << action;
    EXPECT_EQ(0, rec->restart_failed) << action;
    EXPECT_EQ(WEX_STATUS_DOWN, shown(rec).state) << action;
    chain_lock hold(wex_chains);
    EXPECT_EQ(rec, __wex_find_pid(&wex_chains, old_pid)) << action;
  }
  EXPECT_TRUE(g_system_log.empty()) << "nor announced";
}

TEST_F(Exit, OfAProgramThatIsNotShownStartsItAgain) {
  std::vector<wex_pid*> others;
  {
    chain_lock hold(wex_chains);
    for (int32_t number = 0; number < WEX_STATUS_SLOTS; ++number) {
      wex_pid* const rec = wex_new_record();
      rec->pid = 5000000 + number;
      __wex_add_record(&wex_chains, rec);
      others.push_back(rec);
    }
  }
  const wex_pid* const rec = died(park_at(900));
  ASSERT_EQ(0, rec->status_slot);
  const int32_t old_pid = rec->pid;
  wex_handle_netlink_exit(old_pid, 9, 0);
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_EQ(0, kill(rec->pid, 0));
  chain_lock hold(wex_chains);
  for (wex_pid* const other : others) {
    __wex_drop_record(&wex_chains, other);
  }
}

// It started itself again as another process, which ends just before it can be registered: nothing was handed
// over, and the record comes back.
TEST_F(Exit, OfAProgramWhoseNextProcessHasEndedTooGoesOnWithWhatIsShownOfIt) {
  char sleep[kPathSize];  // as /proc names it
  ASSERT_NE(nullptr, realpath("/bin/sleep", sleep));
  const std::string program = std::string(sleep) + " 1000";
  write_file(kThirdPartList, program + " WEX_RESTART\n");
  wex_pid* const rec = died(park_at(900, program.c_str()));
  wex_status_tell(WEX_STATUS_EV_REGISTERED, rec);
  wex_status_tell(WEX_STATUS_EV_RESTARTED, rec);
  const int64_t registered_at = shown(rec).registered;
  rec->check_start = 1000;
  rec->check_count = 4;  // it is parked: starting it would take 5.5 s of looking for its process
  const int32_t old_pid = rec->pid;
  status_words before;
  wex_status_copy_words(&before);
  Process next;
  ASSERT_TRUE(next.start({sleep, "1000"}));
  const pid_t child = next.pid();
  int32_t found = 0;
  ASSERT_TRUE(eventually([&] { return wex_find_running(rec->process, &found, rec) && found == child; }));
  before_third_part = [&] { next.kill_now(); };
  wex_handle_netlink_exit(old_pid, 9, 0);
  before_third_part = nullptr;
  status_words after;
  wex_status_copy_words(&after);
  EXPECT_EQ(before.counters[WEX_STATUS_HANDED_OVER], after.counters[WEX_STATUS_HANDED_OVER]);
  chain_lock hold(wex_chains);
  record_walk walk(wex_chains);
  const wex_pid* const now = walk.next();
  ASSERT_NE(nullptr, now);
  EXPECT_EQ(old_pid, now->pid);
  EXPECT_EQ(WEX_STATUS_PARKED, shown(now).state);
  EXPECT_EQ(1U, shown(now).restarts);
  EXPECT_EQ(registered_at, shown(now).registered);
  EXPECT_EQ(9U, shown(now).last_exit);
}

// ---- Twins ------------------------------------------------------------------------------------------------

namespace {

// Another registration of the same program, of a living process.
wex_pid* living_twin(const wex_pid* rec) {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
      pause();
    }
  }
  wex_pid* const twin = wex_new_record();
  twin->pid = child;
  twin->action = RESPAWN;
  snprintf(twin->process, sizeof twin->process, "%s", rec->process);
  wex_note_identity(twin);
  chain_lock hold(wex_chains);
  __wex_add_record(&wex_chains, twin);
  return twin;
}

}  // namespace

TEST_F(Exit, BesideATwinDependsOnWhetherTheTwinIsSurelyDead) {
  struct twin_case {
    const char* name;
    void (*change)(wex_pid* twin);
    bool dead;
  };
  const twin_case rows[] = {
      {"living", [](wex_pid*) {}, false},
      {"never looked at", [](wex_pid* twin) { twin->start_time = 0; }, false},
      {"a stranger has its pid", [](wex_pid* twin) { ++twin->start_time; }, true},
      {"a zombie",
       [](wex_pid* twin) {
         send_signal(twin->pid, SIGKILL);
         siginfo_t info = {};
         waitid(P_PID, static_cast<id_t>(twin->pid), &info, WEXITED | WNOWAIT);
       },
       true},
  };
  for (const twin_case& row : rows) {
    const wex_pid* const rec = died(park_at(900));
    const int32_t old_pid = rec->pid;
    wex_pid* const twin = living_twin(rec);
    const pid_t twin_pid = twin->pid;
    ASSERT_GT(twin_pid, 1);
    row.change(twin);
    wex_handle_netlink_exit(old_pid, 9, 0);
    EXPECT_FALSE(registered(old_pid)) << row.name;
    EXPECT_EQ(!row.dead, registered(twin_pid)) << row.name;
    EXPECT_EQ(row.dead, was_reported(WEX_STATUS_EV_REPLACED, twin_pid, old_pid)) << row.name;
    EXPECT_EQ(!row.dead, was_reported(WEX_STATUS_EV_HANDED_OVER, old_pid, twin_pid)) << row.name;
    EXPECT_EQ(1, wex_chains.count) << row.name << ": either the twin, or the one that was started again";
    send_signal(twin_pid, SIGKILL);
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    while (wex_pid* const left = walk.next()) {
      if (left->pid != twin_pid && left->pid > 1) {
        send_signal(left->pid, SIGKILL);
      }
      __wex_drop_record(&wex_chains, left);
    }
  }
}

TEST_F(Exit, OfAProcessEndsItsThreadRegistrationsAlsoThoseWithoutAByteInTheTable) {
  const wex_pid* const rec = died(park_at(900));
  const int32_t pid = rec->pid;
  const struct {
    int32_t tid;
    int32_t owner;
    bool stays;
  } rows[] = {{10, pid, false},        {163839, pid, false},    {163840, pid, false}, {4194304, pid, false},
              {INT32_MAX, pid, false}, {163841, pid + 1, true}, {12, pid + 1, true}};
  for (const auto& row : rows) {
    wex_pid* const thread = wex_new_record();
    thread->pid = row.tid;
    thread->ppid = row.owner;
    chain_lock hold(wex_alive_chains);
    __wex_add_record(&wex_alive_chains, thread);
  }
  wex_handle_netlink_exit(pid, 9, 0);
  {
    chain_lock hold(wex_alive_chains);
    for (const auto& row : rows) {
      EXPECT_EQ(row.stays, __wex_find_pid(&wex_alive_chains, row.tid) != nullptr) << row.tid;
    }
    EXPECT_EQ(2, wex_alive_chains.count);
  }
  wex_destroy_chains(&wex_alive_chains);
}

TEST_F(Exit, OfAProgramWhoseDomainIsTakenDownMeanwhileStartsNothing) {
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5/wex/db && rm -f /tmp/vsd/5/delete_vsd"));
  wex_pid* const rec = died(park_at(900));
  rec->vsd = 5;
  rec->restart_delay = 2;
  std::atomic<bool> ended{false};
  std::thread exit([&] {
    wex_handle_netlink_exit(rec->pid, 9, 0);
    ended = true;
  });
  ASSERT_TRUE(eventually([] {  // it has the registry: it is waiting out the delay
    const bool free = pthread_mutex_trylock(&wex_chains.mutex) == 0;
    if (free) {
      pthread_mutex_unlock(&wex_chains.mutex);
    }
    return !free;
  }));
  EXPECT_EQ(0, system("touch /tmp/vsd/5/delete_vsd"));
  EXPECT_TRUE(eventually([&] { return ended.load(); }, 20s));
  exit.join();
  EXPECT_EQ(0, wex_chains.count);
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a second instance, outside of the domain";
  EXPECT_EQ(0, system("rm -f /tmp/vsd/5/delete_vsd"));
}

// The pause of a user's program is not slept, so a stranger may get the dead process's pid, and end.
TEST_F(Exit, OfAStrangerInAPauseIsNone) {
  wex_pid* const rec = died(park_at(900));
  rec->alarm_wait_flag = 0;
  rec->delay_start = 1;
  wex_handle_netlink_exit(rec->pid, 15, 0);
  EXPECT_EQ(1, wex_chains.count) << "a stop of the program would drop it";
  rec->delay_start = 0;
}

TEST_F(Exit, LinesAboutATakeDownAreInTheOrderOfWhatWasSeen) {
  const std::string begin = "/tmp/vsd/3/delete_vsd exists, exited processes are not restarted.\r\n";
  const std::string end = "No domain is taken down any more, exited processes are restarted.\r\n";
  const auto log_of = [](bool marked, bool acted_on) {
    unlink(kRunningLog1);
    unlink("/tmp/vsd/3/delete_vsd");
    if (marked || acted_on) {
      write_file("/tmp/vsd/3/delete_vsd", "");
    }
    EXPECT_EQ(marked || acted_on, wex_take_down_under_way());
    EXPECT_EQ("", read_file(kRunningLog1)) << "whoever looks must not wait for the disk";
    if (!marked) {
      unlink("/tmp/vsd/3/delete_vsd");
    }
    wex_log_take_downs();
    return read_file(kRunningLog1);
  };
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/3 /ovix/vsd/0/utils/wex"));
  log_of(false, false);  // what earlier cases had taken down is told by now
  EXPECT_EQ("", log_of(false, false));
  const std::string begun = log_of(true, false);
  EXPECT_NE(std::string::npos, begun.find(begin)) << begun;
  EXPECT_EQ(std::string::npos, begun.find(end)) << begun;
  EXPECT_EQ("", log_of(true, false)) << "told once";
  const std::string ended = log_of(false, false);
  EXPECT_NE(std::string::npos, ended.find(end)) << ended;
  const std::string short_one = log_of(false, true);
  EXPECT_LT(short_one.find(begin), short_one.find(end)) << "begun and ended between two looks: " << short_one;
}

// ---- Pauses of users' programs (strict mode) --------------------------------------------------------------

namespace {

struct UsersExit : Exit {
  void SetUp() override {
    Exit::SetUp();
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
  }
  void TearDown() override {
    wex_exit_flag.store(0);
    Exit::TearDown();
    wex_set_strict({});
  }
  // A user's program that has died and wants a pause before its restart.
  static wex_pid* users_died() {
    wex_pid* const rec = died(park_at(900));
    rec->restart_delay = 100;
    rec->user = wex_number_user({1234, 1235, 0, {}});
    wex_hold_user(rec);
    return rec;
  }
};

}  // namespace

// The delay thread, which ends pauses, may have made its last look.
TEST_F(UsersExit, WhileTheDaemonEndsBeginsNoPause) {
  const wex_pid* const rec = users_died();
  const int32_t old_pid = rec->pid;
  wex_exit_flag.store(1);
  wex_handle_netlink_exit(old_pid, 9, 0);
  EXPECT_EQ(0, rec->delay_start);
  EXPECT_NE(old_pid, rec->pid);
}

// It may have begun after the delay thread asked whether there is any.
TEST_F(UsersExit, APauseIsEndedWithTheDaemonThoughNoneWasNoted) {
  wex_restart_paused();  // there is none
  wex_pid* const rec = users_died();
  const int32_t old_pid = rec->pid;
  rec->exit_seen = 1;
  rec->delay_start = 1;
  wex_exit_flag.store(1);
  wex_restart_paused();
  EXPECT_EQ(0, rec->delay_start);
  EXPECT_NE(old_pid, rec->pid);
}

// Another process has got the pid meanwhile, and is registered behind the end of the wait.
TEST_F(UsersExit, APostponedRestartIsThatOfTheRecordThatWaits) {
  wex_pid* const waiting = users_died();
  waiting->restart_delay = 0;
  const child other;
  const int32_t pid = other.pid();
  wex_pid* const younger = wex_new_record();
  snprintf(younger->process, sizeof younger->process, "%s", "/bin/sleep 2000");
  younger->pid = pid;
  younger->action = RESPAWN;
  const ready_restart ready = {pid, 9, 1, 7};
  {
    chain_lock hold(wex_chains);
    __wex_adopt_pid(&wex_chains, waiting, pid);
    waiting->start_time = kStartOfNobody;
    waiting->exit_seen = 1;
    waiting->postponed = 7;
    wex_note_start(younger);
    __wex_free_pid({pid, younger->start_time, 0, nullptr});
    EXPECT_LT(waiting->pid, -1);
    EXPECT_EQ(wex_hash_pid(pid), wex_hash_pid(waiting->pid));
    EXPECT_EQ(waiting, __wex_find_pid(&wex_chains, waiting->pid));
    __wex_add_record(&wex_chains, younger);
  }
  wex_hand_back_restart({pid, 9, 1, 6});
  EXPECT_LT(waiting->pid, -1) << "that one was of another registration, which has gone";
  wex_hand_back_restart(ready);
  EXPECT_GT(waiting->pid, 0) << "started again";
  EXPECT_NE(pid, waiting->pid);
  EXPECT_EQ(pid, younger->pid);
}

// Root's registration keeps its pid, as without strict mode.
TEST_F(UsersExit, OnlyAUsersRegistrationGivesItsPidUp) {
  wex_pid* const waiting = users_died();
  const int32_t pid = waiting->pid;
  chain_lock hold(wex_chains);
  waiting->exit_seen = 1;
  __wex_free_pid({pid, waiting->start_time, 0, nullptr});
  EXPECT_EQ(pid, waiting->pid) << "its own process";
  waiting->user = 0;
  __wex_free_pid({pid, waiting->start_time + 1, 0, nullptr});
  EXPECT_EQ(pid, waiting->pid) << "root's";
}

// The exit of such a process was reported before its child was reaped: it is the same end.
TEST_F(UsersExit, TheEndOfAMissedChildIsNoneInAPause) {
  const pid_t child = dead_pid();
  wex_pid* const rec = missed(users_died(), child);
  rec->restart_failed = 0;
  const int32_t old_pid = rec->pid;
  wex_handle_netlink_exit(old_pid, 9, 0);
  ASSERT_NE(0, rec->delay_start);
  reap(child, 9);
  EXPECT_NE(0, rec->delay_start) << "the pause goes on";
  EXPECT_EQ(old_pid, rec->pid);
  EXPECT_EQ(0, rec->check_count) << "nothing was started";
}

// The exit of that one's process has not been handled yet.
TEST_F(UsersExit, AHandOverToThePidOfAnotherUsersRegistrationLeavesThatOneTheCountOfItsRestarts) {
  char sleep[kPathSize];
  ASSERT_NE(nullptr, realpath("/bin/sleep", sleep));
  const std::string program = std::string(sleep) + " 1000";
  write_file(kThirdPartList, program + " WEX_RESTART\n");
  wex_pid* const rec = users_died();
  snprintf(rec->process, sizeof rec->process, "%s", program.c_str());
  {
    chain_lock hold(wex_chains);
    __wex_change_name(rec);  // it is kept when the pid of the next process is
  }
  rec->check_count = 4;
  Process next;
  ASSERT_TRUE(next.start({"setpriv", "--reuid=1234", "--regid=1235", "--clear-groups", sleep, "1000"}));
  int32_t found = 0;
  ASSERT_TRUE(eventually([&] { return wex_find_running(rec->process, &found, rec) && found == next.pid(); }));
  wex_pid* const others = wex_new_record();
  {
    chain_lock hold(wex_chains);
    others->pid = next.pid();
    others->action = RESPAWN;
    others->check_count = 1;
    others->user = wex_number_user({4321, 4321, 0, {}});
    snprintf(others->process, sizeof others->process, "%s", "/bin/sleep 2000");
    ASSERT_TRUE(wex_note_start(others));
    --others->start_time;
    __wex_add_record(&wex_chains, others);
  }
  wex_handle_netlink_exit(rec->pid, 9, 0);
  chain_lock hold(wex_chains);
  ASSERT_EQ(others, __wex_find_pid(&wex_chains, next.pid()));
  EXPECT_EQ(1, others->check_count);
  EXPECT_EQ(4321U, wex_user_of(others)->uid);
}

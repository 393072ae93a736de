// Programs that could not be started again, and others that get the pid of their dead process: nothing that
// is done to one of them concerns the other.
#include "newcomer_world.h"
#include "wex_action.h"
#include "wex_chain_names.h"

using namespace newcomer_world;

namespace {

// The start of a program found no process, and somebody has registered with its dead pid since.
struct FailedBesideNewcomer : HandOverBesideNewcomer {
  void fail(pid_t child) {
    drop(next_->keeper);
    {
      chain_lock hold(wex_chains);
      rec_->awaited = 0;
      rec_->start_time = kSomeStart;
      rec_->exit_seen = 1;
    }
    missed(rec_, child);
  }
  void hand_back_all() {
    ready_restart ready = {};
    while (wex_take_ready_restart(&ready)) {
      wex_hand_back_restart(ready);
    }
  }
  bool newcomer_lives() const {
    chain_lock hold(wex_chains);
    return wex_record_lives(newcomer_);
  }
};

struct FailedBesideNewcomerOfAnotherName : FailedBesideNewcomer {
  std::vector<std::string> newcomers_words() override {
    char path[kPathSize] = "";
    EXPECT_NE(nullptr, realpath("/usr/bin/tail", path));
    return {path, "-f", "/dev/null"};
  }
};

// In strict mode root's program waits with the pid of a user's process, whose program has the same name.
struct UserBesideRoots : HandOverBesideNewcomer {
  void expect_file_of_roots_kept(bool disk_is_full) {
    be_strict();
    be_roots(rec_);
    ASSERT_EQ(0, chmod("/tmp/vsd/0/wex/db", 01777));
    child his([] { return setresgid(1235, 1235, 1235) == 0 && setresuid(1234, 1234, 1234) == 0; });
    ASSERT_TRUE(his.ready());
    const std::string command = command_line(his.pid());
    {
      chain_lock hold(wex_chains);
      __wex_adopt_pid(&wex_chains, rec_, his.pid());
      rec_->start_time = kSomeStart;
      ASSERT_TRUE(__wex_await_hand_over(rec_, next_->pid()));
      snprintf(rec_->process, sizeof rec_->process, "%s roots", command.substr(0, command.find(' ')).c_str());
      __wex_change_name(rec_);
    }
    const std::string file = db_file(his.pid(), rec_->process);
    write_file(file, std::to_string(his.pid()) + "\n2\n" + rec_->process, 0700);
    {
      std::optional<no_room_in_files> full;
      if (disk_is_full) {
        full.emplace();
      }
      wex_reg_info body = {};
      body.pid = his.pid();
      EXPECT_EQ(0, wex_register_process_by(1234, body, *wex_find_action(RESPAWN), ""));
      wex_cancel_by(1234, {WEX_CANCEL_PROC, his.pid()});
    }
    EXPECT_TRUE(exists(file) || numbered_files() != "") << "no daemon will know of root's program";
    EXPECT_TRUE(holds(rec_->process));
    EXPECT_EQ(0, system("rm -f /tmp/vsd/0/wex/db/*"));
    next_->process.kill_now();
  }
};

}  // namespace

// Its child ends, and its program runs: it detached late.
TEST_F(FailedBesideNewcomerOfAnotherName, AProgramIsHandedOverAndTheNewcomerKeepsItsRegistration) {
  fail(kNoChild);
  newcomer_registers();
  ASSERT_TRUE(newcomer_is_there());
  reap(kNoChild, 0);
  EXPECT_TRUE(registered(next_->pid()));
  leaves_behind(kDescriptors, "/wex/db/", 1, "its registration is not taken back");
  EXPECT_TRUE(registered(newcomer_pid_)) << "nobody supervises it any more";
  EXPECT_EQ(0, system("rm -f /tmp/vsd/0/wex/db/*"));
}

// None could be forked; that counts as one more end.
TEST_F(FailedBesideNewcomerOfAnotherName, AProgramIsStartedInItsOwnDomainAndTheNewcomerStaysInIts) {
  fail(-1);
  newcomer_of_domain_registers();
  next_->die();
  wex_handle_missed_exits();
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(exists(flag_)) << "the newcomer's";
  EXPECT_FALSE(exists("/tmp/vsd/5/wex/" + std::to_string(rec_->pid))) << "it is of the main system";
  ASSERT_EQ(0, system("rm -r /tmp/vsd/5 /data/var/run/vsd/5"));
}

// The newcomer's file is locked when it ends, and the program is postponed by the same lock.
TEST_F(FailedBesideNewcomer, BothAreStartedAgainWhenBothArePostponed) {
  fail(kNoChild);
  newcomer_registers();
  ASSERT_TRUE(newcomer_is_there());
  {
    child owner([&] { return wex_db_create(0, newcomer_pid_, RESPAWN, "/bin/sleep 3000") == 0; });
    ASSERT_TRUE(owner.ready());
    next_->die();
    reap(kNoChild, 9);
    newcomer_process_.kill_now();
    wex_handle_netlink_exit(newcomer_pid_, 9, 0);
    EXPECT_EQ(1, newcomer_->exit_seen);
  }
  hand_back_all();
  sweep_when_due();
  expect_started(rec_, newcomer_pid_);
  EXPECT_TRUE(newcomer_lives()) << "it stays down";
}

// The program that gives the pid up was not postponed; the copy is the newcomer's.
TEST_F(FailedBesideNewcomer, APostponedNewcomerIsStartedAgainThoughAProgramGivesUpItsPidMeanwhile) {
  fail(kNoChild);
  keeper_of(next_->pid());
  newcomer_registers();
  ASSERT_TRUE(newcomer_is_there());
  child owner([&] { return wex_db_create(0, newcomer_pid_, RESPAWN, "/bin/sleep 3000") == 0; });
  ASSERT_TRUE(owner.ready());
  newcomer_process_.kill_now();
  wex_handle_netlink_exit(newcomer_pid_, 9, 0);
  ASSERT_EQ(1, newcomer_->exit_seen);
  {
    chain_lock hold(wex_chains);
    EXPECT_TRUE(__wex_waits_for_restart(newcomer_));
    ASSERT_TRUE(__wex_await_hand_over(rec_, next_->pid()));
    EXPECT_LT(rec_->pid, -1);
    EXPECT_TRUE(__wex_waits_for_restart(newcomer_)) << "its copy went with the other one's number";
  }
  owner.end();
  hand_back_all();
  EXPECT_TRUE(newcomer_lives()) << "it stays down";
}

// Its copy waits on; the newcomer ends of another cause, and that has not been handled yet.
TEST_F(FailedBesideNewcomer, AStopThatWasPostponedAndCancelledIsNotTakenForTheNewcomersEnd) {
  next_->die();
  drop(next_->keeper);
  {
    chain_lock hold(wex_chains);
    rec_->awaited = 0;
    rec_->restart_failed = 0;
    rec_->start_time = kSomeStart;
  }
  child owner([&] { return wex_db_create(0, newcomer_pid_, RESPAWN, next_->program.c_str()) == 0; });
  ASSERT_TRUE(owner.ready());
  wex_handle_netlink_exit(newcomer_pid_, SIGTERM, 0);
  ASSERT_EQ(1, rec_->exit_seen);
  wex_cancel_by(0, {WEX_CANCEL_PROC, newcomer_pid_});
  ASSERT_FALSE(registered(newcomer_pid_));
  rec_ = nullptr;  // its memory may become the newcomer's
  newcomer_registers();
  ASSERT_TRUE(newcomer_is_there());
  newcomer_process_.kill_now();
  owner.end();
  ready_restart ready = {};
  ASSERT_TRUE(wex_take_ready_restart(&ready));
  wex_hand_back_restart(ready);
  EXPECT_TRUE(registered(newcomer_pid_)) << "it was dropped";
  wex_handle_netlink_exit(newcomer_pid_, 9, 0);  // its own end, reported by now
  EXPECT_TRUE(newcomer_lives());
  EXPECT_EQ(0, system("rm -f /tmp/vsd/0/wex/db/*"));
}

// It pauses behind its own wait, with a number; nothing is to be done for it yet.
TEST_F(EndedWait, OfAProgramBesideOneThatPausesHasItStartedAgain) {
  wex_pid* const other = without_process();
  other->exit_seen = 1;
  other->restart_delay = 3600;
  other->delay_start = g_now;
  int32_t number = -1;
  expect_started_beside(other, &number);
}

TEST_F(EndedWait, OfAProgramBesideOneWhoseOwnRestartIsPostponedHasItStartedAgain) {
  wex_pid* const other = without_process();
  other->exit_seen = 1;
  int32_t number = -1;
  expect_started_beside(other, &number);
  EXPECT_EQ(number, other->pid) << "its own copy was to start it";
}

TEST_F(UserBesideRoots, ThatCancelsInStrictModeLeavesTheFileOfRootsProgram) {
  expect_file_of_roots_kept(false);
}

TEST_F(UserBesideRoots, ThatCancelsInStrictModeOnAFullDiskLeavesTheFileOfRootsProgram) {
  expect_file_of_roots_kept(true);
}

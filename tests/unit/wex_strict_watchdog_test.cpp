// Strict mode and the watchdog: whose process is aborted, and on whose word.
#include "watchdog_world.h"
#include "wex_strict.h"

using namespace watchdog;

namespace {

constexpr uid_t kRoot = 0;
constexpr figures kHung = {5, 0, 120, 0};

void be_strict() {
  strict_settings settings;
  settings.on = true;
  wex_set_strict(settings);
}

int register_by(uid_t speaker, int32_t tid, int32_t pid) {
  wex_reg_info body = {};
  body.pid = tid;
  body.ppid = pid;
  body.ntfy_cnt = kHung.count;
  body.cur_cnt = kHung.left;
  body.ntfy_time = kHung.period;
  return wex_register_thread_by(speaker, body, false);
}

struct owner_row {
  const char* what;
  uid_t before;  // the process's real user when its thread is registered, by itself,
  uid_t after;   // and when it hangs
  bool aborted;
};
constexpr owner_row kOwners[] = {
    {"a user's", kOtherUser, kOtherUser, true},
    {"root's", kRoot, kRoot, true},
    {"root's that has given up its rights", kRoot, kOtherUser, true},
    {"a user's that has become root's", kOtherUser, kRoot, false},
};

}  // namespace

TEST_F(Watchdog, InStrictModeAProcessIsAbortedWhileItIsItsRegistrationsUsers) {
  for (const owner_row& row : kOwners) {
    SCOPED_TRACE(row.what);
    unlink(kNotifyLog);
    in_child([&] {
      service program(1);
      be_strict();
      const daemon_side daemon;
      program.change_user(row.before, kRoot);
      ASSERT_EQ(0, register_by(row.before, program.pid(), program.pid()));
      program.change_user(row.after, row.after);
      daemon.scans(1);
      EXPECT_EQ(row.aborted, row.aborted ? program.aborted() : !program.running());
      EXPECT_EQ(row.aborted ? 1U : 0U, hangs_logged());
    });
  }
}

// The table may be written by everybody.
TEST_F(Watchdog, InStrictModeNobodyHasAnotherUsersProcessAborted) {
  in_child([] {
    service own(1);
    service roots(1);
    be_strict();
    const daemon_side daemon;
    own.change_user(kOtherUser, kOtherUser);
    ASSERT_EQ(0, register_by(kOtherUser, own.pid(), own.pid()));
    EXPECT_EQ(-1, register_by(kOtherUser, roots.pid(), roots.pid()));
    EXPECT_EQ(-1, register_by(kOtherUser, own.pid(), roots.pid()));
    EXPECT_EQ(-1, register_by(kOtherUser, roots.pid(), own.pid()));
    wex_sys_reg_alive_info(static_cast<uint32_t>(roots.pid()));
    for (int scan = 0; scan < 12; ++scan) {
      wex_sys_update_alive_seq(static_cast<uint32_t>(roots.pid()));
      daemon.scans(1);
    }
    EXPECT_TRUE(own.aborted());
    EXPECT_TRUE(roots.running());
    EXPECT_EQ(1U, hangs_logged());
  });
}

// Each of his ignores the signal, so he would have every scan's abort.
TEST_F(Watchdog, InStrictModeAUsersHungProcessesKeepNobodyElsesWaiting) {
  in_child([] {
    std::vector<std::unique_ptr<service>> users;
    for (int i = 0; i < 3; ++i) {
      users.push_back(std::make_unique<service>(1, true));
    }
    service roots(1);
    service others(1);
    be_strict();
    const daemon_side daemon;
    for (const auto& one : users) {
      one->change_user(kOtherUser, kOtherUser);
      ASSERT_EQ(0, register_by(kOtherUser, one->pid(), one->pid()));
    }
    others.change_user(kOtherUser + 1, kOtherUser + 1);
    ASSERT_EQ(0, register_by(kOtherUser + 1, others.pid(), others.pid()));
    ASSERT_EQ(0, register_by(kRoot, roots.pid(), roots.pid()));
    daemon.scans(1);
    EXPECT_TRUE(roots.aborted());
    EXPECT_TRUE(others.aborted());
    EXPECT_EQ(3U, hangs_logged()) << "one of his three";
    daemon.scans(2);
    EXPECT_EQ(5U, hangs_logged());
  });
}

// Each ignores the signal. There are fewer turns than users, so they change hands.
TEST_F(Watchdog, InStrictModeMoreUsersThanThereAreTurnsAreAllServed) {
  in_child([] {
    constexpr int kUsers = kHungUsers + 2;
    std::vector<std::unique_ptr<service>> stubborn;
    be_strict();
    const daemon_side daemon;
    for (int i = 0; i < kUsers; ++i) {
      stubborn.push_back(std::make_unique<service>(1, true));
      const uid_t user = kOtherUser + static_cast<uid_t>(i);
      stubborn.back()->change_user(user, user);
      ASSERT_EQ(0, register_by(user, stubborn.back()->pid(), stubborn.back()->pid()));
    }
    std::string printed;
    const auto served = [&](const auto& one) {
      return occurrences(printed, numbers("send SIGABRT to ppid (%d)", one->pid())) > 0;
    };
    for (int scan = 0; scan < kUsers && !std::all_of(stubborn.begin(), stubborn.end(), served); ++scan) {
      printed += daemon.scan();
    }
    EXPECT_EQ(kUsers, std::count_if(stubborn.begin(), stubborn.end(), served)) << printed;
  });
}

// Its process and thread ids went to another process of the same program between two scans.
TEST_F(Watchdog, InStrictModeARegistrationAnewIsOfTheProcessThatMakesIt) {
  in_child([] {
    service program(1);
    be_strict();
    const daemon_side daemon;
    ASSERT_EQ(0, register_by(kRoot, program.pid(), program.pid()));
    {
      const chain_lock hold(wex_alive_chains);
      --__wex_find_pid(&wex_alive_chains, program.pid())->start_time;
    }
    ASSERT_EQ(0, register_by(kRoot, program.pid(), program.pid()));
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
  });
}

// Its library finds no byte for it in a table that it may not write.
TEST_F(Watchdog, InStrictModeAThreadThatRegistersAgainHasReported) {
  in_child([] {
    service program(1);
    be_strict();
    const daemon_side daemon;
    program.change_user(kOtherUser, kOtherUser);
    ASSERT_EQ(0, register_by(kOtherUser, program.pid(), program.pid()));
    wex_reg_info body = {};
    body.pid = body.ppid = program.pid();
    body.ntfy_cnt = body.cur_cnt = 5;
    body.ntfy_time = 120;
    ASSERT_EQ(0, wex_register_thread_by(kOtherUser, body, false));
    daemon.scans(1);
    EXPECT_TRUE(program.running());
    EXPECT_EQ(0U, hangs_logged());
  });
}

TEST_F(Watchdog, InStrictModeOnlyRootsFilesStopTheCountOrShowTheDump) {
  in_child([] {
    service program(1, true);
    be_strict();
    const daemon_side daemon;
    daemon.start(program, 0, {5, 1, 60, 0});
    for (const char* const path : {kKillDebug, kDumpToConsole}) {
      write_file(path, "");
      ASSERT_EQ(0, chown(path, kOtherUser, kOtherUser));
    }
    EXPECT_EQ(0U, occurrences(daemon.scan(), "in wex:")) << "the dump is for the system log";
    EXPECT_EQ(1U, hangs_logged());
    for (const char* const path : {kKillDebug, kDumpToConsole}) {
      ASSERT_EQ(0, chown(path, kRoot, kRoot));
    }
    EXPECT_EQ(3U, occurrences(daemon.scan(), "in wex:"));
    for (const char* const path : {kKillDebug, kDumpToConsole}) {
      unlink(path);
    }
  });
}

TEST_F(Watchdog, InStrictModeAUserHasSoManyThreads) {
  in_child([] {
    service program(2);
    service other(1);
    strict_settings settings;
    settings.on = true;
    settings.registrations = 1;
    wex_set_strict(settings);
    const daemon_side daemon;
    program.change_user(kOtherUser, kOtherUser);
    other.change_user(kOtherUser + 1, kOtherUser + 1);
    EXPECT_EQ(0, register_by(kOtherUser, program.pid(), program.pid()));
    EXPECT_EQ(-1, register_by(kOtherUser, program.tid(1), program.pid()));
    EXPECT_EQ(0, register_by(kOtherUser + 1, other.pid(), other.pid()));
  });
}

// Strict mode and the watchdog: whose process is aborted, and on whose word.
#include "taken_pid.h"
#include "watchdog_world.h"
#include "wex_status_image.h"
#include "wex_strict.h"

using namespace watchdog;

namespace {

// What happens when a file of this name is opened, the second time.
std::string g_second_look_at;
std::atomic<int> g_looks{0};
std::function<void()> g_before_second_look;

}  // namespace

extern "C" int __real_open64(const char* path, int flags, mode_t mode);
extern "C" int __wrap_open64(const char* path, int flags, mode_t mode);
extern "C" int __wrap_open64(const char* path, int flags, mode_t mode) {
  if (g_second_look_at == path && ++g_looks == 2) {
    g_before_second_look();
  }
  return __real_open64(path, flags, mode);
}

namespace {

constexpr uid_t kRoot = 0;
constexpr figures kHung = {5, 0, 120, 0};

void be_strict(int32_t registrations = kUserRegistrations) {
  strict_settings settings;
  settings.on = true;
  settings.registrations = registrations;
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
      ASSERT_TRUE(scan > 0 || own.aborted())
          << "as long as it is about to die, each scan would abort it again";
    }
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
    be_strict(1);
    const daemon_side daemon;
    program.change_user(kOtherUser, kOtherUser);
    other.change_user(kOtherUser + 1, kOtherUser + 1);
    EXPECT_EQ(0, register_by(kOtherUser, program.pid(), program.pid()));
    EXPECT_EQ(-1, register_by(kOtherUser, program.tid(1), program.pid()));
    EXPECT_EQ(0, register_by(kOtherUser + 1, other.pid(), other.pid()));
  });
}

// The second registration is for the one that there is already, as the report of an older library is.
TEST_F(Watchdog, InStrictModeAThreadThatIsKnownNeedsNoMoreRoom) {
  in_child([] {
    service program(2);
    be_strict(1);
    const daemon_side daemon;
    program.change_user(kOtherUser, kOtherUser);
    ASSERT_EQ(0, register_by(kOtherUser, program.pid(), program.pid()));
    const auto refused = [] {
      status_words words;
      wex_status_copy_words(&words);
      return words.counters[WEX_STATUS_REFUSED];
    };
    const uint32_t before = refused();
    wex_reg_info body = {};
    body.pid = body.ppid = program.pid();
    EXPECT_EQ(0, register_by(kOtherUser, program.pid(), program.pid()));
    EXPECT_EQ(0, wex_register_thread_by(kOtherUser, body, true));
    EXPECT_EQ(before, refused());
    EXPECT_EQ(-1, register_by(kOtherUser, program.tid(1), program.pid())) << "this one is another";
    EXPECT_EQ(before + 1, refused());
  });
}

// Its ids went to another process between two scans: of the same user, for of another one it is known by
// that.
TEST_F(Watchdog, InStrictModeAProcessThatHasTheIdsOfAWatchedOneIsNotAborted) {
  for (const uid_t user : {kRoot, kOtherUser}) {
    SCOPED_TRACE(user);
    unlink(kNotifyLog);
    in_child([user] {
      service program(1);
      be_strict();
      const daemon_side daemon;
      program.change_user(user, user);
      for (const bool same : {false, true}) {
        ASSERT_EQ(0, register_by(user, program.pid(), program.pid()));
        if (!same) {
          --daemon_side::find(program.pid())->start_time;
        }
        daemon.scans(1);
        EXPECT_EQ(same, same ? program.aborted() : !program.running());
        EXPECT_EQ(same ? 1U : 0U, hangs_logged());
      }
    });
  }
}

// Both are the user's, so that nothing but the time of its start tells the one from the other.
TEST_F(Watchdog, InStrictModeAThreadIdThatAnotherProcessGetsInTheMiddleOfItsRegistrationIsRefused) {
  in_child([] {
    service first(1);
    be_strict();
    const daemon_side daemon;
    first.change_user(kOtherUser, kOtherUser);
    const int32_t id = first.pid();
    std::optional<stranger> second;
    const std::string name = std::to_string(kOtherUser);
    g_before_second_look = [&] {
      first.end();
      second.emplace(id, std::vector<std::string>{"/usr/bin/setpriv", "--reuid=" + name, "--regid=" + name,
                                                  "--clear-groups", "sleep", "600"});
      EXPECT_TRUE(eventually([&] { return status_field(id, "Uid").substr(0, name.size()) == name; }, 20s));
    };
    g_looks = 0;
    g_second_look_at = "/proc/" + std::to_string(id) + "/stat";
    EXPECT_EQ(-1, register_by(kOtherUser, id, id));
    g_second_look_at.clear();
    ASSERT_TRUE(second.has_value()) << "the process was not looked at twice";
    EXPECT_EQ(nullptr, daemon_side::find(id));
    EXPECT_EQ(0, register_by(kOtherUser, id, id)) << "it may be registered for what it is";
  });
}

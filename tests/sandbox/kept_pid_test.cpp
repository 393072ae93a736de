// Hand-overs to a process whose pid a registration keeps that waits for its restart: such a process cannot be
// registered yet.
#include <signal.h>

#include <algorithm>

#include "figures.h"
#include "status_reader.h"
#include "third_part_world.h"

using namespace third_part;

namespace {

constexpr int kLong = 600;  // seconds

struct HandOverToKeptPid : ThirdPart {
  // A listed program waits to detach; a service has been parked, for so many seconds, and has its file.
  void prepare(int wait) {
    write_file(kDebugTime, std::to_string(wait) + "\n");
    write_file(kHoldStart, "");
    command_ = app_ = install("detaching");
    describe("detaching", app_ + " WEX_RESTART");
    ASSERT_TRUE(start_daemon());
    ASSERT_TRUE(parked_.start());
    ASSERT_NO_FATAL_FAILURE(park());
    ASSERT_TRUE(start_by_hand({app_}));
    ASSERT_TRUE(registered(command_, by_hand_.pid(), "detaching"));
    ASSERT_TRUE(eventually([&] { return is_parked(); }, 20s)) << read_console();
  }

  void park() {
    for (int restart = 1; restart <= 4; ++restart) {
      ASSERT_TRUE(parked_.ends_and_comes_back());
      ASSERT_TRUE(console_says("/" + std::to_string(parked_.pid()) + ".\n", 10s)) << read_console();
    }
    ASSERT_TRUE(eventually([&] { return exists(db_file("actor", parked_.pid())); }, 20s));
    parked_.end();
  }

  // `*detached` is the process by then, which the daemon has found.
  void detach(pid_t* detached) {
    unlink(kHoldStart);
    ASSERT_TRUE(exited_with(by_hand_.wait(), 0));
    *detached = wait_for(app_, by_hand_.pid(), 20s);
    ASSERT_GT(*detached, 0);
    ASSERT_TRUE(console_says("found child pid_get = " + std::to_string(*detached) + "\n", 20s))
        << read_console();
  }

  void detach_to_kept_pid() {
    pid_t detached = 0;
    write_file(kDetachAs, std::to_string(parked_.pid()));
    // The next daemon tells it by a start that is surely later than the file.
    std::this_thread::sleep_for(200ms);
    ASSERT_NO_FATAL_FAILURE(detach(&detached));
    unlink(kDetachAs);
    ASSERT_EQ(parked_.pid(), detached);
    ASSERT_TRUE(is_parked()) << "it has given its pid up already";
  }

  void end(pid_t detached) {
    send_signal(detached, SIGKILL);
    ASSERT_TRUE(eventually([&] { return !is_alive(detached); }, 20s));
  }

  void expect_restart_of(pid_t detached) {
    end(detached);
    EXPECT_GT(wait_for(app_, detached, 30s), 0) << read_console();
  }

  void expect_hand_over_once_the_pid_is_free() {
    ASSERT_NO_FATAL_FAILURE(prepare(15));
    ASSERT_NO_FATAL_FAILURE(detach_to_kept_pid());
    const pid_t detached = parked_.pid();
    ASSERT_TRUE(parked_.comes_back(30s)) << read_console();
    EXPECT_TRUE(eventually([&] { return is_shown(detached, "detaching"); }, 30s)) << read_console();
    EXPECT_TRUE(eventually([&] { return exists(db_file("detaching", detached)); }));
    EXPECT_FALSE(exists(db_file("detaching", by_hand_.pid())));
    EXPECT_EQ(1U, pids_with_command(app_).size());
    expect_restart_of(detached);
  }

  // As an operator stops it, while it has no record of its own.
  void expect_drop_of_stopped() {
    ASSERT_NO_FATAL_FAILURE(prepare(kLong));
    ASSERT_NO_FATAL_FAILURE(detach_to_kept_pid());
    const std::string file = db_file("detaching", by_hand_.pid());
    ASSERT_TRUE(eventually([&] { return waits("detaching"); }));
    ASSERT_TRUE(exists(file));
    send_signal(parked_.pid(), SIGTERM);
    EXPECT_TRUE(eventually([&] { return !exists(file); }, 20s)) << read_console();
    EXPECT_TRUE(eventually([&] { return !is_listed("detaching"); }));
    EXPECT_EQ(std::vector<pid_t>{}, pids_with_command(app_)) << read_console();
    EXPECT_TRUE(is_parked());
  }

  bool is_parked() const {
    const auto slots = StatusReader().slots();
    return std::any_of(slots.begin(), slots.end(), [&](const wex_status_slot& slot) {
      return slot.pid == parked_.pid() && slot.state == WEX_STATUS_PARKED;
    });
  }

  static std::string name_in(const wex_status_slot& slot) {
    return std::string(slot.name, strnlen(slot.name, sizeof slot.name));
  }

  static bool is_shown(pid_t pid, const std::string& name) {
    const auto slots = StatusReader().slots();
    return std::any_of(slots.begin(), slots.end(), [&](const wex_status_slot& slot) {
      return slot.pid == pid && slot.state == WEX_STATUS_RUNNING && name_in(slot) == name;
    });
  }

  static bool waits(const std::string& name) {
    const auto slots = StatusReader().slots();
    return std::any_of(slots.begin(), slots.end(), [&](const wex_status_slot& slot) {
      return slot.state == WEX_STATUS_WAITING && name_in(slot) == name;
    });
  }

  static bool is_listed(const std::string& name) {
    const auto slots = StatusReader().slots();
    return std::any_of(slots.begin(), slots.end(),
                       [&](const wex_status_slot& slot) { return name_in(slot) == name; });
  }

  policy::Service parked_{"parked"};
};

struct StrictHandOverToKeptPid : HandOverToKeptPid {
  void SetUp() override {
    HandOverToKeptPid::SetUp();
    write_file(kStrictFile, "");
  }
};

}  // namespace

TEST_F(HandOverToKeptPid, AProgramThatDiesBeforeThePidIsFreeIsStartedAgain) {
  ASSERT_NO_FATAL_FAILURE(prepare(kLong));
  ASSERT_NO_FATAL_FAILURE(detach_to_kept_pid());
  expect_restart_of(parked_.pid());
  EXPECT_TRUE(is_parked());
  tell_figures("a program detaches to the pid of a parked one, and dies before that is back",
               "one listed program", 1, HasFailure() ? 1 : 0, "back once");
}

TEST_F(StrictHandOverToKeptPid, AProgramThatDiesBeforeThePidIsFreeIsStartedAgain) {
  ASSERT_NO_FATAL_FAILURE(prepare(kLong));
  ASSERT_NO_FATAL_FAILURE(detach_to_kept_pid());
  expect_restart_of(parked_.pid());
  EXPECT_TRUE(is_parked());
}

TEST_F(HandOverToKeptPid, AProgramThatIsStoppedBeforeThePidIsFreeIsDropped) {
  expect_drop_of_stopped();
}

TEST_F(StrictHandOverToKeptPid, AProgramThatIsStoppedBeforeThePidIsFreeIsDropped) {
  expect_drop_of_stopped();
}

TEST_F(StrictHandOverToKeptPid, AProgramThatDetachesToAFreePidIsHandedOverAtOnce) {
  ASSERT_NO_FATAL_FAILURE(prepare(kLong));
  pid_t detached = 0;
  ASSERT_NO_FATAL_FAILURE(detach(&detached));
  ASSERT_NE(parked_.pid(), detached);
  EXPECT_TRUE(eventually([&] { return is_shown(detached, "detaching"); }, 20s)) << read_console();
  expect_restart_of(detached);
}

TEST_F(HandOverToKeptPid, AProgramIsHandedOverOnceTheServiceHasBeenStartedAgain) {
  expect_hand_over_once_the_pid_is_free();
}

TEST_F(StrictHandOverToKeptPid, AProgramIsHandedOverOnceTheServiceHasBeenStartedAgain) {
  expect_hand_over_once_the_pid_is_free();
}

TEST_F(StrictHandOverToKeptPid, AProgramThatDiesAfterTheDaemonIsStartedByTheNextOne) {
  ASSERT_NO_FATAL_FAILURE(prepare(kLong));
  ASSERT_NO_FATAL_FAILURE(detach_to_kept_pid());
  daemon_.kill_now();
  end(parked_.pid());
  ASSERT_TRUE(start_daemon());
  EXPECT_GT(wait_for(app_, parked_.pid(), 30s), 0) << read_console();
}

// The files of both lie there, and the process runs.
TEST_F(StrictHandOverToKeptPid, AProgramThatOutlivesTheDaemonIsNotStartedBesideItselfByTheNextOne) {
  ASSERT_NO_FATAL_FAILURE(prepare(kLong));
  ASSERT_NO_FATAL_FAILURE(detach_to_kept_pid());
  const pid_t detached = parked_.pid();
  daemon_.kill_now();
  ASSERT_TRUE(start_daemon());
  EXPECT_TRUE(eventually([&] { return is_shown(detached, "detaching"); }, 30s)) << read_console();
  EXPECT_TRUE(parked_.comes_back(30s)) << read_console();
  EXPECT_EQ(std::vector<pid_t>{detached}, pids_with_command(app_)) << read_console();
  expect_restart_of(detached);
}

// Any short-lived program has all processes looked at.
TEST_F(HandOverToKeptPid, AProgramThatWaitsForItsPidGetsNoSecondFileAndIsNotStartedBesideItself) {
  ASSERT_NO_FATAL_FAILURE(prepare(kLong));
  ASSERT_NO_FATAL_FAILURE(detach_to_kept_pid());
  const pid_t detached = parked_.pid();
  const std::string second = db_file("detaching", detached);
  EXPECT_FALSE(eventually(
      [&] {
        EXPECT_TRUE(exited_with(run({"true"}), 0));
        return exists(second);
      },
      2s))
      << read_console();
  EXPECT_TRUE(exists(db_file("detaching", by_hand_.pid())));
  daemon_.kill_now();
  const std::string file = db_file("actor", detached);  // made anew: the next daemon reads it last, or first
  ASSERT_EQ(0, rename(file.c_str(), "/tmp/vsd/0/aside"));
  ASSERT_EQ(0, rename("/tmp/vsd/0/aside", file.c_str()));
  ASSERT_TRUE(start_daemon());
  EXPECT_FALSE(eventually([&] { return pids_with_command(app_) != std::vector<pid_t>{detached}; }, 8s))
      << read_console();
}

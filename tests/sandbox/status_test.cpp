// The status table of the real daemon, as real services go through every state.
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "control_client.h"
#include "restart_policy.h"
#include "status_reader.h"
#include "waiting.h"
#include "wex_status.h"
#include "wex_status_image.h"

using namespace policy;

namespace {

class Status : public WexWorld {
 protected:
  void SetUp() override {
    WexWorld::SetUp();
    write_file(kDebugTime, "2\n");
    ASSERT_TRUE(daemon_.start());
    ASSERT_TRUE(eventually([] { return StatusReader().valid(); }));
  }
  void TearDown() override {
    daemon_.kill_now();
    WexWorld::TearDown();
  }

  // Whether this event of this process comes to be seen.
  static bool has_event(wex_status_kind kind, pid_t pid, pid_t new_pid = 0, milliseconds limit = 20s) {
    return eventually(
        [=] {
          for (const wex_status_event& event : StatusReader().events()) {
            if (event.kind == static_cast<uint32_t>(kind) && event.pid == pid &&
                (new_pid == 0 || event.new_pid == new_pid)) {
              return true;
            }
          }
          return false;
        },
        limit);
  }
  static bool shows(pid_t pid, wex_status_state state, milliseconds limit = 20s) {
    return eventually(
        [=] {
          const auto slot = StatusReader().slot_of(pid);
          return slot && slot->state == state;
        },
        limit);
  }
  static int64_t busy_since(status_thread which) { return StatusReader().head().threads[which].busy_since; }
  static bool counts(int counter, uint32_t at_least) {
    return eventually([=] { return StatusReader().counter(counter) >= at_least; }, 20s);
  }

  Daemon daemon_;
};

// Field 22 of its stat file.
uint64_t start_time_of(pid_t pid) {
  const std::string text = read_file("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  for (int number = 3; number <= 22; ++number) {
    fields >> field;
  }
  return std::stoull(field);
}

// Start times count from the start of the machine, its sleep included; times of the table do not.
int64_t asleep_ms() {
  timespec since_boot = {};
  timespec awake = {};
  clock_gettime(CLOCK_BOOTTIME, &since_boot);
  clock_gettime(CLOCK_MONOTONIC, &awake);
  return (int64_t{since_boot.tv_sec} - awake.tv_sec) * 1000 + (since_boot.tv_nsec - awake.tv_nsec) / 1000000;
}

}  // namespace

TEST_F(Status, AServiceIsFollowedFromItsRegistrationThroughItsParkingToItsEnd) {
  Service service("walk");
  ASSERT_TRUE(service.start());
  pid_t pid = service.pid();
  EXPECT_TRUE(has_event(WEX_STATUS_EV_REGISTERED, pid));
  EXPECT_TRUE(shows(pid, WEX_STATUS_RUNNING));
  const auto first = StatusReader().slot_of(pid);
  ASSERT_TRUE(first);
  EXPECT_STREQ("actor", first->name);
  EXPECT_EQ(service.command().substr(0, sizeof first->command), std::string(first->command));
  EXPECT_EQ(RESPAWN, first->action);
  for (int restart = 1; restart <= 4; ++restart) {
    const auto wall = time(nullptr);
    const int64_t before = wex_clock_ms();
    ASSERT_TRUE(service.ends_and_comes_back());
    const auto exited = wait_for_event(WEX_STATUS_EV_EXITED, pid);
    ASSERT_TRUE(exited);
    EXPECT_EQ(uint32_t{SIGKILL}, exited->exit_code);
    EXPECT_STREQ("actor", exited->name);
    EXPECT_EQ(0, exited->domain);
    EXPECT_TRUE(exited->monotonic >= before && exited->monotonic <= wex_clock_ms()) << exited->monotonic;
    EXPECT_TRUE(exited->wall / 1000 >= wall - 1 && exited->wall / 1000 <= time(nullptr) + 1) << exited->wall;
    EXPECT_TRUE(has_event(WEX_STATUS_EV_RESTARTED, pid, service.pid()));
    pid = service.pid();
  }
  EXPECT_EQ(4U, StatusReader().slot_of(pid)->restarts_window);
  service.end();
  EXPECT_TRUE(has_event(WEX_STATUS_EV_PARKED, pid));
  EXPECT_TRUE(shows(pid, WEX_STATUS_PARKED));
  EXPECT_TRUE(has_event(WEX_STATUS_EV_TRIED_AGAIN, pid));
  ASSERT_TRUE(service.comes_back());
  pid = service.pid();
  EXPECT_TRUE(shows(pid, WEX_STATUS_RUNNING));
  const auto last = StatusReader().slot_of(pid);
  ASSERT_TRUE(last);
  EXPECT_EQ(5U, last->restarts);
  EXPECT_EQ(uint32_t{SIGKILL}, last->last_exit);
  EXPECT_GT(last->last_exit_wall, 0);
  EXPECT_EQ(5U, StatusReader().counter(WEX_STATUS_RESTARTS));
  EXPECT_EQ(5U, StatusReader().counter(WEX_STATUS_EXITS));
  EXPECT_EQ(1U, StatusReader().counter(WEX_STATUS_PARKS));
  service.end(SIGTERM);
  EXPECT_TRUE(has_event(WEX_STATUS_EV_STOPPED, pid));
  EXPECT_TRUE(eventually([] { return StatusReader().slots().empty(); }));
}

TEST_F(Status, APostponedRestartWaitsInTheTable) {
  Process service;
  ASSERT_TRUE(service.start(actor_words({"--tag=held", "--hold"})));
  const pid_t pid = wait_for_actor({"--tag=held", "--hold"});
  ASSERT_GT(pid, 0);
  Holder holder({pid});
  service.kill_now();
  EXPECT_TRUE(has_event(WEX_STATUS_EV_POSTPONED, pid));
  EXPECT_TRUE(shows(pid, WEX_STATUS_WAITING));
  const auto slot = StatusReader().slot_of(pid);
  ASSERT_TRUE(slot);
  EXPECT_NEAR(301000, static_cast<double>(slot->until - slot->since), 1000);
  holder.end();
  const pid_t next = wait_for_actor({"--tag=held", "--hold"}, pid);
  ASSERT_GT(next, 0);
  EXPECT_TRUE(has_event(WEX_STATUS_EV_RESTARTED, pid, next));
  EXPECT_EQ(1U, StatusReader().counter(WEX_STATUS_EXITS)) << "the same end came twice";
  EXPECT_EQ(1U, StatusReader().counter(WEX_STATUS_POSTPONED));
}

TEST_F(Status, WhatEndsARegistrationIsToldApart) {
  Process cancelled;
  ASSERT_TRUE(cancelled.start(
      actor_words({"--tag=c", "--register=SHELL", "--wait-for=/tmp/shown", "--cancel", "--hold"})));
  ASSERT_TRUE(shows(cancelled.pid(), WEX_STATUS_RUNNING));
  EXPECT_EQ(SHELL_RESTART, StatusReader().slot_of(cancelled.pid())->action);
  write_file("/tmp/shown", "");
  EXPECT_TRUE(has_event(WEX_STATUS_EV_CANCELLED, cancelled.pid()));
  Service dropped("dropped");
  ASSERT_TRUE(dropped.start());
  write_file("/tmp/vsd/5/delete_vsd", "");
  dropped.end();
  EXPECT_TRUE(has_event(WEX_STATUS_EV_DROPPED, dropped.pid()));
  unlink("/tmp/vsd/5/delete_vsd");
  Process twin;
  const std::vector<std::string> same = {"--tag=same", "--register=RESTART", "--confirm", "--hold"};
  Process one;
  ASSERT_TRUE(one.start(actor_words(same)));
  EXPECT_TRUE(has_event(WEX_STATUS_EV_REGISTERED, one.pid()));
  ASSERT_TRUE(twin.start(actor_words(same)));
  EXPECT_TRUE(has_event(WEX_STATUS_EV_REGISTERED, twin.pid()));
  const pid_t first = one.pid();
  one.kill_now();
  EXPECT_TRUE(has_event(WEX_STATUS_EV_HANDED_OVER, first));
  EXPECT_TRUE(counts(WEX_STATUS_HANDED_OVER, 1));
  EXPECT_TRUE(counts(WEX_STATUS_DROPPED, 1));
}

TEST_F(Status, ARestartThatWaitsOrLeavesNoProcessIsShown) {
  const child sleeper;
  const control_client::raw_client client;
  wex_reg_info body = {};
  body.pid = sleeper.pid();
  body.restart_delay = 3;
  ASSERT_TRUE(client.send_body(WEX_RESTART, body) && client.acknowledged());
  ASSERT_TRUE(has_event(WEX_STATUS_EV_REGISTERED, sleeper.pid()));
  ASSERT_TRUE(client.send_body(WEX_RESTART, body) && client.acknowledged());
  EXPECT_TRUE(counts(WEX_STATUS_NOT_REGISTERED, 1)) << "it is known";
  ASSERT_TRUE(client.send_body(WEX_RESTART, control_client::body_of(child::reaped())) &&
              client.acknowledged());
  EXPECT_TRUE(counts(WEX_STATUS_NOT_REGISTERED, 2)) << "it is gone";
  write_file("/etc/debug_log", "");
  unlink(kEventLog1);
  make_dirs(kEventLog1);  // what must be logged and cannot be is not done
  send_signal(sleeper.pid(), SIGKILL);
  EXPECT_TRUE(eventually(
      [&] {
        const StatusReader table;
        const auto slot = table.slot_of(sleeper.pid());
        return slot && slot->state == WEX_STATUS_RESTARTING && slot->until - slot->since == 3000 &&
               table.counter(WEX_STATUS_PAUSE) == 3 && busy_since(kStatusMonitor) > 0;
      },
      20s))
      << "the thread that makes it is at work, and others wait behind it, and may have no slot: the pause is "
         "told for itself, too";
  EXPECT_TRUE(has_event(WEX_STATUS_EV_FAILED, sleeper.pid()));
  EXPECT_TRUE(shows(sleeper.pid(), WEX_STATUS_DOWN));
  EXPECT_TRUE(counts(WEX_STATUS_FAILED, 1));
  remove_tree(kEventLog1);
  unlink("/etc/debug_log");
  const child next;  // the same program, started by somebody else
  body.pid = next.pid();
  ASSERT_TRUE(client.send_body(WEX_RESTART, body) && client.acknowledged());
  EXPECT_TRUE(has_event(WEX_STATUS_EV_REPLACED, sleeper.pid(), next.pid()));
  EXPECT_TRUE(shows(next.pid(), WEX_STATUS_RUNNING));
  EXPECT_EQ(1U, StatusReader().slots().size());
  EXPECT_TRUE(eventually([] { return busy_since(kStatusMonitor) == 0; }, 60s));
}

TEST_F(Status, ADaemonThatEndsByItselfSaysSo) {
  struct stat facts = {};
  ASSERT_EQ(0, stat(kStatusTable, &facts));
  EXPECT_EQ(0U, facts.st_uid);
  EXPECT_EQ(start_time_of(daemon_.pid()), StatusReader().head().daemon_start);
  ASSERT_TRUE(watches_forks(daemon_.pid()));
  write_file("/tmp/wex/forkfile", "1234567");  // as many failed forks as end it
  EXPECT_TRUE(has_event(WEX_STATUS_EV_DAEMON_ENDED, daemon_.pid()));
  EXPECT_TRUE(eventually([] { return (StatusReader().head().flags & WEX_STATUS_ENDED) != 0; }));
}

TEST_F(Status, RefusedMessagesAreCountedAndClientsThatLeaveAreNot) {
  Service service("plain");
  ASSERT_TRUE(service.start());
  {
    const control_client::raw_client leaves;
    ASSERT_TRUE(leaves.connected());
  }
  const control_client::raw_client unknown;
  ASSERT_TRUE(unknown.send_record(77, 0, control_client::kHeader));
  EXPECT_TRUE(counts(WEX_STATUS_REFUSED, 1));
  const control_client::raw_client lies;
  ASSERT_TRUE(lies.send_record(1, 5000, control_client::kHeader));
  EXPECT_TRUE(counts(WEX_STATUS_REFUSED, 2));
  EXPECT_EQ(2U, StatusReader().counter(WEX_STATUS_REFUSED));
}

// An even period has five misses, an odd one four.
TEST_F(Status, WatchedThreadsOfAProgramOfADomainAreCounted) {
  make_dirs("/data/var/run/vsd/3");
  Process service;
  ASSERT_TRUE(service.start(actor_words({"--group=3300", "--tag=t", "--register=RESTART",
                                         "--register-main-thread=120", "--thread=7", "--hold"})));
  EXPECT_TRUE(eventually(
      [&] {
        const auto slot = StatusReader().slot_of(service.pid());
        return slot && slot->watched_threads == 2 && slot->fewest_misses == 4;
      },
      20s));
  const auto registered = wait_for_event(WEX_STATUS_EV_REGISTERED, service.pid());
  ASSERT_TRUE(registered);
  EXPECT_EQ(3, registered->domain);
  EXPECT_EQ(3, StatusReader().slot_of(service.pid())->domain);
}

TEST_F(Status, TheThreadsOfTheDaemonComeRound) {
  EXPECT_TRUE(eventually([&] {
    const wex_status_head head = StatusReader().head();
    int named = 0;
    for (const wex_status_thread& thread : head.threads) {
      if (thread.tid > 0) {
        ++named;
        EXPECT_EQ(std::string(thread.name) + "\n",
                  read_file("/proc/" + std::to_string(daemon_.pid()) + "/task/" + std::to_string(thread.tid) +
                            "/comm"));
      }
    }
    return named == 7;
  }));
  const wex_status_head before = StatusReader().head();
  for (const status_thread worked :
       {kStatusMain, kStatusMonitor, kStatusServer, kStatusNotifier, kStatusDelay}) {
    EXPECT_GT(before.threads[worked].last_pass, 0) << before.threads[worked].name;
  }
  Service service("news");  // an idle daemon has its threads looked at every ten seconds only
  ASSERT_TRUE(service.start());
  for (const status_thread works : {kStatusMain, kStatusServer, kStatusDelay}) {
    EXPECT_TRUE(eventually(
        [&] { return StatusReader().head().threads[works].last_pass > before.threads[works].last_pass; },
        60s))
        << before.threads[works].name;
  }
}

TEST_F(Status, ATableThatIsCutShortUnderTheRunningDaemonIsWholeAgain) {
  Service service("cut");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(shows(service.pid(), WEX_STATUS_RUNNING));
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(0, truncate(kStatusTable, round * 4000));
    usleep(20000);
  }
  EXPECT_TRUE(service.ends_and_comes_back());
  EXPECT_TRUE(shows(service.pid(), WEX_STATUS_RUNNING));
  EXPECT_EQ(daemon_.pid(), StatusReader().head().daemon_pid);
  EXPECT_TRUE(daemon_.running());
}

TEST_F(Status, TheNextDaemonGoesOnAndADaemonThatWasKilledIsToldFromOneThatEnded) {
  Service service("next");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(shows(service.pid(), WEX_STATUS_RUNNING));
  const auto before = StatusReader().slot_of(service.pid());
  ASSERT_TRUE(before);
  daemon_.kill_now();
  EXPECT_EQ(0U, StatusReader().head().flags & WEX_STATUS_ENDED);
  EXPECT_EQ(1U, StatusReader().slots().size()) << "what it left";
  Daemon next;
  ASSERT_TRUE(next.start());
  EXPECT_TRUE(shows(service.pid(), WEX_STATUS_RUNNING));
  EXPECT_EQ(2U, StatusReader().head().generation);
  const auto slot = StatusReader().slot_of(service.pid());
  ASSERT_TRUE(slot);
  EXPECT_EQ(start_time_of(service.pid()), slot->pid_start);
  EXPECT_EQ(before->pid_start, slot->pid_start);
  EXPECT_NEAR(static_cast<double>(before->started), static_cast<double>(slot->started), 10000)
      << "when it was registered, and when it began";
  EXPECT_TRUE(has_event(WEX_STATUS_EV_REGISTERED, service.pid())) << "from the daemon before";
  next.kill_now();
}

// The slots are taken by the threads of one process, which may be registered like processes.
TEST_F(Status, ARegistrationWithoutASlotIsSupervisedAsEver) {
  const child crowd([] {
    for (int i = 0; i < WEX_STATUS_SLOTS; ++i) {
      std::thread([] { pause(); }).detach();
    }
    return true;
  });
  ASSERT_TRUE(crowd.ready());
  const control_client::raw_client client;
  for (const std::string& tid : list_dir("/proc/" + std::to_string(crowd.pid()) + "/task")) {
    wex_reg_info body = {};
    body.pid = std::stoi(tid);
    if (body.pid != crowd.pid()) {
      ASSERT_TRUE(client.send_body(WEX_RESTART, body) && client.acknowledged());
    }
  }
  Service service("unseen");
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(counts(WEX_STATUS_NOT_SHOWN, 1));
  EXPECT_TRUE(has_event(WEX_STATUS_EV_REGISTERED, service.pid()));
  for (int restart = 0; restart < 2; ++restart) {
    const pid_t pid = service.pid();
    ASSERT_TRUE(service.ends_and_comes_back());
    EXPECT_TRUE(has_event(WEX_STATUS_EV_RESTARTED, pid, service.pid()));
  }
  const uint64_t began = start_time_of(service.pid());
  EXPECT_FALSE(StatusReader().slot_of(service.pid()));
  const auto taken = StatusReader().slot(0);
  ASSERT_TRUE(taken);
  EXPECT_EQ(1, taken->is_thread);
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, wex_cons_info{WEX_CANCEL_PROC, taken->pid}) &&
              client.acknowledged());
  EXPECT_TRUE(shows(service.pid(), WEX_STATUS_RUNNING)) << "the slot that became free is its";
  const auto slot = StatusReader().slot_of(service.pid());
  ASSERT_TRUE(slot);
  EXPECT_EQ(began, slot->pid_start);
  EXPECT_EQ(slot->started, slot->since);
  const auto ticks = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  EXPECT_NEAR(static_cast<double>(began * 1000 / ticks), static_cast<double>(slot->started + asleep_ms()),
              2000)
      << "it tells since when the process has been running, not since when it is shown";
  EXPECT_TRUE(eventually([] { return StatusReader().counter(WEX_STATUS_NOT_SHOWN) == 0; }, 20s));
  daemon_.kill_now();  // or it would start them again
}

TEST_F(Status, AThousandRegistrationsHaveTheirSlots) {
  std::vector<std::unique_ptr<child>> sleepers;
  constexpr int kPrograms = 1000;
  std::vector<pid_t> pids;
  for (int number = 0; number < kPrograms; ++number) {
    sleepers.push_back(std::make_unique<child>());
    pids.push_back(sleepers.back()->pid());
  }
  const control_client::raw_client client;
  for (const pid_t pid : pids) {
    wex_reg_info body = {};
    body.pid = pid;
    ASSERT_TRUE(client.send_body(WEX_RESTART, body) && client.acknowledged());
  }
  EXPECT_TRUE(eventually([&] { return StatusReader().slots().size() == kPrograms; }, 60s))
      << StatusReader().slots().size();
  EXPECT_EQ(0U, StatusReader().counter(WEX_STATUS_NOT_SHOWN));
  daemon_.kill_now();  // or it would start them again
}

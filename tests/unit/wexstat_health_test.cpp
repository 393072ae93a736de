// Whether wex is well.
#include "wexstat_health.h"

#include <utility>

#include "wexstat_world.h"

using namespace wexstat_test;

namespace {

using WexstatHealth = WexstatWorld;

daemon_health judged(const status_table& table, char process = 'S') {
  return judge_daemon(read_back(table), now(), process);
}
answer checked(const status_copy& copy, daemon_state state = daemon_state::running) {
  const daemon_health daemon = {state, "TEXT"};
  char line[kHealthText * 4];
  const int status = judge_all(copy, daemon, line, sizeof line);
  return {status, line};
}

}  // namespace

TEST_F(WexstatHealth, AThreadThatIsBusyOrSilentForTooLongIsStuck) {
  const struct {
    const char* thread;
    int64_t pass_ago;
    int64_t busy_for;
    const char* text;
  } rows[] = {
      {"wex_delay_resta", 1000, 0, "it runs"},
      {"wex_delay_resta", 100000, 0, "it runs"},
      {"wex_delay_resta", 200000, 0, "its thread wex_delay_resta has not come round for 3 min 20 s"},
      {"wex_process_dom", 200000, 0, "its thread wex_process_dom has not come round for 3 min 20 s"},
      {"wex_process_net", 9000000, 0, "it runs"},
      {"wex_process_net", 9000000, 90000, "it runs"},
      {"wex_process_net", 1, 130000, "its thread wex_process_net has been at one thing for 2 min 10 s"},
      {"wex_delay_resta", 200000, 1000, "it runs"}};
  for (const auto& row : rows) {
    status_table table;
    table.add_thread("wex_alarm", 5000000);
    table.add_thread(row.thread, row.pass_ago, row.busy_for);
    EXPECT_STREQ(row.text, judged(table).text);
    EXPECT_EQ(row.text == std::string("it runs") ? daemon_state::running : daemon_state::stuck,
              judged(table).state);
  }
}

TEST_F(WexstatHealth, APauseThatAProgramAskedForIsNotStuck) {
  status_table table;
  table.add_thread("wex_process_net", 1, 200000);
  table.add("running").restart_delay = 3600;
  EXPECT_EQ(daemon_state::stuck, judged(table).state);
  wex_status_slot& users = table.add("users", WEX_STATUS_RESTARTING);
  users.restart_delay = 100;
  users.uid = 1234;
  EXPECT_EQ(daemon_state::stuck, judged(table).state) << "nobody waits behind a user's, in strict mode";
  table.add("restarting", WEX_STATUS_RESTARTING).restart_delay = 100;
  EXPECT_EQ(daemon_state::running, judged(table).state);
}

TEST_F(WexstatHealth, APauseOfARegistrationThatIsNotShownIsNotStuck) {
  status_table table;
  table.add_thread("wex_process_net", 1, 200000);
  table.add("running");
  const struct {
    uint32_t pause;
    daemon_state state;
  } rows[] = {{0, daemon_state::stuck},
              {79, daemon_state::stuck},
              {100, daemon_state::running},
              {UINT32_MAX, daemon_state::running}};
  for (const auto& row : rows) {
    table.head.counters[WEX_STATUS_PAUSE] = row.pause;
    EXPECT_EQ(row.state, judged(table).state) << row.pause;
  }
  table.slots[0].state = WEX_STATUS_RESTARTING;
  table.slots[0].restart_delay = 50;
  table.slots[0].since -= 150000;  // the thread waits behind it alone
  table.head.counters[WEX_STATUS_PAUSE] = 50;
  EXPECT_EQ(daemon_state::stuck, judged(table).state) << "the same pause counts once";
}

TEST_F(WexstatHealth, PausesFollowOneAnotherAndMayTakeAsLongAsAProgramCanAskFor) {
  const struct {
    uint32_t under_way;
    wex_status_state state;
    int32_t shown;
    int64_t busy_sec;
    daemon_state judged;
  } rows[] = {{600, WEX_STATUS_WAITING, 600, 1300, daemon_state::running},
              {600, WEX_STATUS_WAITING, 600, 1330, daemon_state::stuck},
              {600, WEX_STATUS_RESTARTING, 500, 1200, daemon_state::running},
              {600, WEX_STATUS_RESTARTING, 600, 730, daemon_state::stuck},
              {600, WEX_STATUS_PARKED, 600, 730, daemon_state::stuck},
              {90000, WEX_STATUS_RUNNING, 0, 90000, daemon_state::running},
              {0, WEX_STATUS_WAITING, INT32_MAX, INT32_MAX, daemon_state::running},
              {INT32_MAX, WEX_STATUS_WAITING, INT32_MAX, int64_t{2} * INT32_MAX, daemon_state::running},
              {INT32_MAX, WEX_STATUS_WAITING, INT32_MAX, int64_t{2} * INT32_MAX + 130, daemon_state::stuck}};
  for (const auto& row : rows) {
    status_table table;
    table.add_thread("wex_process_net", 1, 1);
    table.add("behind", row.state).restart_delay = row.shown;
    table.head.counters[WEX_STATUS_PAUSE] = row.under_way;
    moment later = now();
    later.monotonic_ms += row.busy_sec * 1000;
    EXPECT_EQ(row.judged, judge_daemon(read_back(table), later, 'S').state)
        << row.under_way << " and " << row.shown << " after " << row.busy_sec;
  }
}

TEST_F(WexstatHealth, APauseThatFollowedAnotherOfTheSameLengthIsAddedForWhoeverWaitedBehindBoth) {
  status_table table;
  const moment begin = now();
  table.add_thread("wex_delay_resta", 1, 1);
  wex_status_slot& behind = table.add("behind", WEX_STATUS_RESTARTING);
  behind.restart_delay = 600;
  behind.since = begin.monotonic_ms + 600000;
  table.head.counters[WEX_STATUS_PAUSE] = 600;  // of one that is not shown, then of this one
  const auto after = [&](int64_t seconds) {
    return judge_daemon(read_back(table), {begin.monotonic_ms + seconds * 1000, begin.wall_sec}, 'S').state;
  };
  EXPECT_EQ(daemon_state::running, after(1300));
  EXPECT_EQ(daemon_state::stuck, after(1330));
}

TEST_F(WexstatHealth, TheProcessDecides) {
  status_table table;
  EXPECT_EQ(daemon_state::running, judged(table, '?').state);
  EXPECT_EQ(daemon_state::stuck, judged(table, 'T').state);
  EXPECT_EQ(daemon_state::dead, judged(table, '\0').state);
  table.head.flags = WEX_STATUS_ENDED;
  EXPECT_EQ(daemon_state::ended, judged(table, '\0').state);
}

TEST_F(WexstatHealth, AnotherProcessWithItsPidIsNotTheDaemon) {
  status_table table;
  const moment at = now();
  EXPECT_EQ(daemon_state::running, look_at_daemon(read_back(table), at).state);
  table.head.daemon_start = 1;
  EXPECT_EQ(daemon_state::dead, look_at_daemon(read_back(table), at).state);
  table.head.daemon_start = 0;
  table.head.daemon_pid = child::reaped();
  EXPECT_EQ(daemon_state::dead, look_at_daemon(read_back(table), at).state);
  for (const int32_t pid : {0, -1, INT32_MIN}) {
    table.head.daemon_pid = pid;
    EXPECT_EQ(daemon_state::dead, look_at_daemon(read_back(table), at).state) << pid;
  }
}

TEST_F(WexstatHealth, ATableOfAnotherStartOfTheMachineIsToldApart) {
  status_table table;
  put_text(table.head.boot_id, lines_of(read_file("/proc/sys/kernel/random/boot_id")).at(0));
  EXPECT_EQ(daemon_state::running, look_at_daemon(read_back(table), now()).state);
  put_text(table.head.boot_id, "11111111-2222-3333-4444-555555555555");
  EXPECT_EQ(daemon_state::other_boot, look_at_daemon(read_back(table), now()).state);
}

TEST_F(WexstatHealth, TheCheckNamesWhatIsWrong) {
  status_table table;
  table.add("one");
  table.add("restarting", WEX_STATUS_RESTARTING);
  EXPECT_EQ("well: 2 supervised", checked(read_back(table)).text);
  EXPECT_EQ(0, checked(read_back(table)).status);
  table.add("torn").seq = 1;
  EXPECT_EQ(3, checked(read_back(table)).status);
  table.add("held", WEX_STATUS_WAITING);
  EXPECT_EQ("1 postponed: held", checked(read_back(table)).text);
  for (const char* name : {"a", "b\n", "c", "d", "e"}) {
    table.add(name, WEX_STATUS_PARKED);
  }
  table.add("gone", WEX_STATUS_DOWN);
  const answer trouble = checked(read_back(table));
  EXPECT_EQ("1 down: gone; 5 parked: a, b\\x0a, c and 2 more; 1 postponed: held", trouble.text);
  EXPECT_EQ(1, trouble.status);
  table.head.counters[WEX_STATUS_NOT_SHOWN] = 5;
  table.head.counters[WEX_STATUS_HIDDEN_TROUBLES] = 2;
  EXPECT_EQ(trouble.text + "; 2 not shown: parked, postponed or down", checked(read_back(table)).text);
  table.slots.clear();
  EXPECT_EQ("2 not shown: parked, postponed or down", checked(read_back(table)).text);
  EXPECT_EQ(1, checked(read_back(table)).status);
  table.head.counters[WEX_STATUS_HIDDEN_TROUBLES] = 0;
  EXPECT_EQ("well: 0 supervised; 5 registrations are not shown", checked(read_back(table)).text);
  EXPECT_EQ(0, checked(read_back(table)).status);
  EXPECT_EQ(2, checked(read_back(table), daemon_state::stuck).status);
  EXPECT_EQ("wex is stuck: TEXT", checked(read_back(table), daemon_state::stuck).text);
  for (const auto state :
       {daemon_state::dead, daemon_state::ended, daemon_state::other_boot, daemon_state::absent}) {
    EXPECT_EQ(2, checked({}, state).status);
  }
  EXPECT_EQ(3, checked({}, daemon_state::unknown).status);
}

// What stands in for wexstat answers as the case says. The first two of its answers may be older than that.
TEST_F(WexstatHealth, TheWatchdogIsFedWhileWexIsWellOrDoesItsWorkAndNotOtherwise) {
  const std::string dir = "/tmp/watchdog." + std::to_string(getpid());
  make_dirs(dir);
  const auto answers = [&dir](const char* status) {
    write_file(dir + "/answer", status);
    const size_t before = read_file(dir + "/calls").size();
    return eventually([&] { return read_file(dir + "/calls").size() >= before + 2; }, 30s);
  };
  const auto fed_within_three_calls = [&dir] {
    const size_t fed = read_file(dir + "/device").size();
    const size_t before = read_file(dir + "/calls").size();
    EXPECT_TRUE(eventually([&] { return read_file(dir + "/calls").size() >= before + 3; }, 30s));
    return read_file(dir + "/device").size() > fed;
  };
  write_file(dir + "/answer", "0\n");
  write_file(dir + "/wexstat",
             "#!/bin/sh\nread status < " + dir + "/answer\nprintf x >> " + dir + "/calls\nexit $status\n",
             0755);
  Process watchdog;
  ASSERT_TRUE(watchdog.start({"sh", WEX_SOURCE_DIR "/examples/fleet/wex-watchdog", dir + "/device", "0.02"},
                             {"PATH=" + dir + ":/usr/bin:/bin"}));
  for (const auto& [status, fed] :
       {std::pair("0\n", true), {"1\n", true}, {"2\n", false}, {"3\n", false}, {"0\n", true}}) {
    ASSERT_TRUE(answers(status)) << status;
    EXPECT_EQ(fed, fed_within_three_calls()) << status;
  }
  watchdog.send(SIGTERM);
  EXPECT_EQ(0, watchdog.wait().value_or(-1));
  EXPECT_EQ('V', read_file(dir + "/device").back()) << "taken out of service";
  remove_tree(dir);
}

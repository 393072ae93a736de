// The watchdog's scan, one after the other without the minute between them, on real processes and threads:
// counting, dumps, and the thread itself.
#include "failing_calls.h"
#include "leak_gate.h"
#include "watchdog_world.h"
#include "wex_core_stop.h"

using namespace watchdog;

namespace {

// The main thread reports before every scan, the worker is silent: nothing before scan `last`, at which the
// process is aborted.
void expect_abort_at(const figures& by, int scans_a_miss, int last) {
  service program;
  const daemon_side daemon;
  daemon.start(program, 0, kShort);
  daemon.start(program, 1, by);
  const std::string name = program_of(daemon.find(program.tid(1)));
  for (int scan = 1; scan < last; ++scan) {
    program.report(0);
    const std::string text = daemon.scan();
    expect_state(program.tid(1), by.count - scan / scans_a_miss, scan % scans_a_miss * 60);
    const int missed = scan / scans_a_miss;
    const bool warned = scan % scans_a_miss == 0 && missed >= 3;
    EXPECT_EQ(warned ? 1U : 0U, occurrences(text, "not notify reset")) << "scan " << scan;
    EXPECT_EQ(warned,
              text.find(warning(program.pid(), program.tid(1), missed, by.count)) != std::string::npos);
    EXPECT_EQ(0U, occurrences(text, "send SIGABRT"));
    ASSERT_TRUE(program.running()) << "after scan " << scan;
  }
  EXPECT_FALSE(exists(kNotifyLog));
  program.report(0);
  const std::string text = daemon.scan();
  EXPECT_TRUE(program.aborted());
  EXPECT_EQ(1U, occurrences(text, warning(program.pid(), program.tid(1), by.count, by.count)));
  EXPECT_EQ(
      1U, occurrences(text, numbers("]ntfy_cnt(%d), send SIGABRT to ppid (%d)\n", by.count, program.pid())));
  EXPECT_EQ(1U, hangs_logged());
  EXPECT_EQ(1U, occurrences(read_file(kNotifyLog), hang_line(name, program.pid(), "worker", program.tid(1))));
  expect_state(program.tid(1), 0, 0);  // kept until it is found gone
  daemon.scans(1);
  EXPECT_EQ(0, wex_alive_chains.count);
  EXPECT_EQ(1U, hangs_logged());
}

}  // namespace

// ---- Counting --------------------------------------------------------------------------------------------

TEST_F(Watchdog, AThreadOf120SecondsIsAbortedAtItsTenthSilentScan) {
  in_child([] { expect_abort_at(kShort, 2, 10); });
}

TEST_F(Watchdog, AThreadOf180SecondsIsAbortedAtItsTwelfthSilentScan) {
  in_child([] { expect_abort_at(kLong, 3, 12); });
}

TEST_F(Watchdog, TheHangEntryIsATimeTheTextAndAnEmptyLine) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    const std::string name = program_of(daemon.find(program.pid()));
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    const std::string entry = read_file(kNotifyLog);
    const std::string own = read_file("/proc/self/comm");
    const std::string line = hang_line(name, program.pid(), own.substr(0, own.size() - 1), program.pid());
    ASSERT_GT(entry.size(), line.size());
    EXPECT_EQ(line, entry.substr(entry.size() - line.size()));
    EXPECT_TRUE(matches(entry.substr(0, entry.size() - line.size()),
                        "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}"));
    EXPECT_EQ("1", read_file(kNotifyCount));
  });
}

TEST_F(Watchdog, AThreadThatAllowsSixMissesIsWarnedAboutFromTheFifth) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {6, 6, 60, 0});
    for (int missed = 1; missed <= 6; ++missed) {
      EXPECT_EQ(missed >= 5 ? 1U : 0U,
                occurrences(daemon.scan(), warning(program.pid(), program.pid(), missed, 6)));
    }
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, AThreadThatReportsBetweenScansIsNeverCountedDown) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, kLong);
    for (int scan = 0; scan < 40; ++scan) {
      program.report(0);
      program.report(1);
      daemon.scans(1);
      expect_state(program.tid(0), 5, 0);
      expect_state(program.tid(1), 4, 0);
    }
    EXPECT_TRUE(program.running());
  });
}

TEST_F(Watchdog, OneReportInTheLastMomentRestoresTheFullCount) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(9);
    expect_state(program.pid(), 1, 60);
    program.report(0);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
    daemon.scans(9);
    EXPECT_TRUE(program.running());
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
  });
}

// Its reports do nothing from then on, so it is counted down like a silent one.
TEST_F(Watchdog, ARegisteredThreadThatIsListedAsExemptIsAbortedThoughItReports) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    program.report(0);
    daemon.scans(1);
    write_file(kExemptThreads, std::to_string(program.pid()) + "\n");
    for (int scan = 0; scan < 9; ++scan) {
      program.report(0);
      daemon.scans(1);
    }
    EXPECT_TRUE(program.running());
    program.report(0);
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    EXPECT_EQ(1U, hangs_logged());
  });
}

TEST_F(Watchdog, ASequenceThatStartsOverIsAReport) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    const auto tid = static_cast<uint32_t>(program.pid());
    while (wex_sys_get_alive_seq(tid) != 255) {
      wex_sys_update_alive_seq(tid);
    }
    daemon.scans(2);
    EXPECT_EQ(255U, daemon.find(program.pid())->alive_seq);
    program.report(0);
    EXPECT_EQ(1U, wex_sys_get_alive_seq(tid));
    daemon.scans(1);
    EXPECT_EQ(1U, daemon.find(program.pid())->alive_seq);
    expect_state(program.pid(), 5, 0);
  });
}

TEST_F(Watchdog, APeriodThatIsNoMultipleOfAMinuteNeverEnds) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 5, 90, 0});
    std::string text;
    for (int scan = 0; scan < 40; ++scan) {
      text += daemon.scan();
    }
    expect_state(program.pid(), 5, 2400);
    EXPECT_EQ(0U, occurrences(text, "Decrease"));
    EXPECT_TRUE(program.running());
  });
}

TEST_F(Watchdog, WithoutItsMainThreadAProcessIsNeverCountedDown) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 1, kShort);
    const std::string complaint = numbers("[WEX:wex_core:N]pid:%d not reg alive!\n", program.pid());
    for (int scan = 1; scan <= 30; ++scan) {
      const std::string text = daemon.scan();
      EXPECT_EQ(scan % 2 == 0 ? 1U : 0U, occurrences(text, complaint)) << "scan " << scan;
      EXPECT_EQ(scan % 2 == 0 ? 1U : 0U,
                occurrences(text, state_line("Decrease ", program.tid(1), program.pid(), kShort)));
      expect_state(program.tid(1), 5, scan % 2 * 60);
    }
    EXPECT_TRUE(program.running());
    set_levels(0, WEX_DBG_SILENT);
    EXPECT_EQ(complaint, lines_printed_by([&] { daemon.scans(2); })) << "a line of the public level";
    set_levels(WEX_DBG_SILENT, 0);
    EXPECT_EQ(0U, occurrences(lines_printed_by([&] { daemon.scans(2); }), "not reg alive"));
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
    daemon.start(program, 0, kLong);
    daemon.scans(10);
    EXPECT_TRUE(program.aborted()) << "counted once the main thread is registered";
  });
}

TEST_F(Watchdog, ASilentMainThreadIsAHangAsAnyOther) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, kShort);
    for (int scan = 1; scan <= 10; ++scan) {
      EXPECT_TRUE(program.running());
      program.report(1);
      daemon.scans(1);
    }
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, EveryLineOfAScanIsAsItAlwaysWas) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    const int32_t pid = program.pid();
    daemon.start(program, 0, {3, 1, 120, 60});
    write_file(kNotifyCount, "0");  // or its absence would be told in between
    EXPECT_EQ(state_line("", pid, pid, {3, 1, 120, 60}) + "[WEX:wex_core:N]" + warning(pid, pid, 3, 3) +
                  state_line("Decrease ", pid, pid, {3, 0, 120, 0}) +
                  numbers("[WEX:wex_core:N]ntfy_cnt(3), send SIGABRT to ppid (%d)\n", pid) +
                  "[WEX:wex_core:N]sem_cnt = 0\n",
              daemon.scan());
  });
}

TEST_F(Watchdog, CountersThatMakeNoSenseAreSurvived) {
  struct {
    figures before;
    int32_t left, elapsed;
  } const rows[] = {
      {{5, -1, 60, 0}, -1, 0},
      {{5, INT32_MIN, 60, 0}, INT32_MIN, 0},
      {{INT32_MIN, INT32_MAX, 60, 0}, INT32_MAX - 1, 0},
      {{-7, 3, 60, 0}, 2, 0},
      {{INT32_MAX, 1000, 60, 0}, 999, 0},
      {{5, 5, 120, INT32_MAX}, 5, INT32_MIN + 59},
      {{5, 5, 120, INT32_MIN}, 5, INT32_MIN + 60},
      {{5, 5, 0, 0}, 5, 60},
      {{5, 5, 0, -60}, 4, 0},
      {{5, 5, -60, -120}, 4, 0},
      {{5, 5, INT32_MIN, INT32_MIN}, 5, INT32_MIN + 60},
  };
  for (const auto& row : rows) {
    in_child([&] {
      service program(1);
      const daemon_side daemon;
      daemon.start(program, 0, row.before);
      daemon.scans(1);
      expect_state(program.pid(), row.left, row.elapsed);
      EXPECT_FALSE(exists(kNotifyLog));
      EXPECT_TRUE(program.running());
    });
  }
}

TEST_F(Watchdog, AStartForAKnownThreadDoesNotSaveItAResetDoes) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, kShort);
    daemon.scans(9);
    daemon.start(program, 0, kShort);
    expect_state(program.tid(0), 1, 60);
    daemon.reset(program, 0, kShort);
    daemon.reset(program, 1, kLong);
    expect_state(program.tid(0), 5, 0);
    expect_state(program.tid(1), 4, 0);
    daemon.scans(9);
    daemon.start(program, 0, kShort);
    EXPECT_TRUE(program.running());
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
  });
}

// ---- Dumps -----------------------------------------------------------------------------------------------

TEST_F(Watchdog, WithPublicDebuggingTheChainsGoToTheSystemLogOrToTheConsole) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    const std::string node = numbers("pid: %-6d, vsd: 0 , regact: 0, pname:  ", program.pid()) +
                             daemon.find(program.pid())->process + ", \n";
    unlink(kDumpToConsole);
    EXPECT_EQ(0U, occurrences(daemon.scan(), "in wex:"));
    EXPECT_EQ("<6>register restart in wex:\n<6>node num:0\n<6>register hang in wex:\n<6>node num:1\n<6>" +
                  node + "<6>delay restart in wex:\n<6>node num:0\n",
              system_log);
    system_log.clear();
    write_file(kDumpToConsole, "");
    EXPECT_EQ(0U,
              daemon.scan().find("register restart in wex:\nnode num:0\nregister hang in wex:\nnode num:1\n" +
                                 node + "delay restart in wex:\nnode num:0\n[WEX:wex_core:N]pid ("));
    EXPECT_EQ("", system_log);
    set_levels(WEX_DBG_SILENT, 0);
    EXPECT_EQ(0U, occurrences(lines_printed_by([&] { daemon.scans(1); }), "in wex:"))
        << "not without public debugging";
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
    unlink(kDumpToConsole);
    daemon.scans(1);
    EXPECT_EQ("", system_log);
  });
}

TEST_F(Watchdog, SilentLevelsPrintNothingAndStillAbortAndLog) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    EXPECT_EQ("", printed_by([&] { daemon.scans(10); }));
    EXPECT_TRUE(program.aborted());
    EXPECT_EQ(1U, hangs_logged());
  });
}

// ---- The thread ------------------------------------------------------------------------------------------

TEST_F(Watchdog, TheThreadHasItsNameAndPriorityScansAtOnceAndEndsWithTheFlag) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    wex_init_wakeup();
    std::atomic<int32_t> tid{0};
    void* result = &tid;
    std::thread watchdog([&] {
      tid = static_cast<int32_t>(syscall(SYS_gettid));
      result = wex_notifer_run(nullptr);
    });
    EXPECT_TRUE(eventually([&] { return elapsed(program.pid()) == 60; }));
    EXPECT_EQ("wex_thread_noti\n", read_file("/proc/self/task/" + std::to_string(tid) + "/comm"));
    sched_param how = {};
    EXPECT_EQ(0, sched_getparam(tid, &how));
    EXPECT_EQ(SCHED_FIFO, sched_getscheduler(tid));
    EXPECT_EQ(99, how.sched_priority);
    const milliseconds taken = time_of([&] {
      wex_raise_exit_flag();
      watchdog.join();
    });
    EXPECT_GT(milliseconds(10000), taken);
    EXPECT_EQ(nullptr, result);
    expect_state(program.pid(), 5, 60);  // it waits before it looks again
  });
}

TEST_F(Watchdog, AThreadThatCannotBeNamedSaysSoAndScansAllTheSame) {
  EXPECT_EQ(0, wex_test::run_failing({"prctl:error=EPERM"}, [] {
              service program(1);
              const daemon_side daemon;
              daemon.start(program, 0, kShort);
              wex_init_wakeup();
              set_levels(0, WEX_DBG_SILENT);
              const std::string text = lines_printed_by([&] {
                std::thread thread([] { wex_notifer_run(nullptr); });
                EXPECT_TRUE(eventually([&] { return elapsed(program.pid()) == 60; }));
                wex_raise_exit_flag();
                thread.join();
              });
              set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
              EXPECT_EQ("[WEX:wex_core:N]wex_notifer_run: Operation not permitted", text);
              return 0;
            }));
}

TEST_F(Watchdog, WithoutTheRightToItsPriorityTheThreadSaysSoAndScans) {
  leaves_behind(kSemaphores, "", 1, "the process that made it gives up the right to remove it");
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    ASSERT_EQ(0, setuid(kOtherUser));
    wex_init_wakeup();
    set_levels(0, 0);
    const std::string text = lines_printed_by([&] {
      std::thread watchdog([] { wex_notifer_run(nullptr); });
      EXPECT_TRUE(eventually([&] { return elapsed(program.pid()) == 60; }));
      wex_raise_exit_flag();
      watchdog.join();
    });
    EXPECT_EQ("[WEX:wex_core:N]wex_notifer_run: set priority fail: Operation not permitted\n" +
                  state_line("", program.pid(), program.pid(), kShort) + "[WEX:wex_core:N]sem_cnt = 0\n",
              text);
    set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
  });
}

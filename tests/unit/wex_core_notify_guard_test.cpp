// What keeps the watchdog from aborting the wrong process: threads that are gone or are somebody else's, the
// operator's brakes, a table that is not whole.
#include "figures.h"
#include "unique_fd.h"
#include "watchdog_world.h"
#include "wex_utils.h"

using namespace watchdog;

namespace {
// write_file would give the file a mode, which the kernel refuses here.
void set_kernel(const char* path, int32_t number) {
  unique_fd file(open(path, O_WRONLY | O_CLOEXEC));
  EXPECT_LT(0, dprintf(file.get(), "%d", number)) << path << ": " << strerror(errno);
}
}  // namespace

// ---- Threads that are no more, or no more themselves -----------------------------------------------------

TEST_F(Watchdog, AnEndedThreadIsRemovedFromChainAndTable) {
  in_child([] {
    service program;
    const daemon_side daemon;
    const auto tid = static_cast<uint32_t>(program.tid(1));
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, {5, 0, 120, 0});
    program.end_thread(1);
    const std::string text = daemon.scan();
    EXPECT_EQ(1U,
              occurrences(text, numbers("[WEX:wex_core:N]pid is not exist(%d, ret:-1)\n", program.tid(1))));
    EXPECT_EQ(nullptr, daemon.find(program.tid(1)));
    EXPECT_EQ(1, wex_alive_chains.count);
    EXPECT_EQ(0, wex_sys_isreg_alive_info(tid));
    EXPECT_EQ(0U, wex_sys_get_alive_seq(tid));
    EXPECT_EQ(1, wex_sys_isreg_alive_info(static_cast<uint32_t>(program.pid()))) << "its neighbour";
    EXPECT_FALSE(exists(kNotifyLog));
    EXPECT_TRUE(program.running());
  });
}

TEST_F(Watchdog, AMainThreadThatEndedAloneIsRemoved) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.start(program, 1, kShort);
    program.end_thread(0);
    daemon.scans(2);
    EXPECT_EQ(nullptr, daemon.find(program.tid(0)));
    expect_state(program.tid(1), 5, 0);  // no longer counted
  });
}

TEST_F(Watchdog, AllThreadsOfADeadProcessAreRemovedInOneScan) {
  in_child([] {
    service program(3);
    const daemon_side daemon;
    for (int i = 0; i < 3; ++i) {
      daemon.start(program, i, {5, 0, 120, 0});
    }
    program.end();
    daemon.scans(1);
    EXPECT_EQ(0, wex_alive_chains.count);
    EXPECT_FALSE(exists(kNotifyLog));
    const std::string table = read_file(kAliveTableFile);
    EXPECT_EQ(std::string(20481 + 163840, '\0'), table.substr(32, 184353 - 32));
  });
}

TEST_F(Watchdog, AThreadIdThatAnotherProcessHasNowIsRemovedBeforeItIsCounted) {
  in_child([] {
    auto former = std::make_unique<service>();
    const int32_t owner = former->pid();
    const int32_t reused = former->tid(1);
    const daemon_side daemon;
    daemon.start(*former, 1, {5, 0, 120, 0});
    former->end();
    std::unique_ptr<service> stranger;
    for (int tries = 0; tries < 200 && (stranger == nullptr || stranger->pid() != reused); ++tries) {
      set_kernel("/proc/sys/kernel/ns_last_pid", reused - 1);
      stranger = std::make_unique<service>(1);
    }
    ASSERT_EQ(reused, stranger->pid()) << "others take every pid";
    const std::string text = daemon.scan();
    EXPECT_EQ(state_line("", reused, owner, {5, 0, 120, 0}) +
                  numbers("[WEX:wex_core:N]wex_check_pid_exist: ppid info no match(reg:%d, now:%d)\n", owner,
                          reused) +
                  numbers("[WEX:wex_core:N]pid is not exist(%d, ret:-1)\n", reused) +
                  "[WEX:wex_core:N]sem_cnt = 0\n",
              text.substr(text.find("[WEX:wex_core:N]pid (")));
    EXPECT_EQ(0, wex_alive_chains.count);
    EXPECT_EQ(0, wex_sys_isreg_alive_info(static_cast<uint32_t>(reused)));
    EXPECT_TRUE(stranger->running());
    EXPECT_FALSE(exists(kNotifyLog));
  });
  tell_figures("the thread id of a watched thread is used again",
               "by another process, before the watchdog looks", 1, HasFailure() ? 1 : 0,
               "forgotten, the other process is left alone");
}

TEST_F(Watchdog, AProcessThatRunsAnotherProgramNowIsRemoved) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    const std::string before = daemon.find(program.pid())->process;
    program.become_another_program();
    char now[4096];
    ASSERT_NE(nullptr, pid_to_cmdline(program.pid(), now, sizeof now));
    EXPECT_EQ(1U, occurrences(daemon.scan(),
                              "[WEX:wex_core:N]wex_check_pid_exist: cmdline info no match(reg:" + before +
                                  ", now:" + now + ")\n"));
    EXPECT_EQ(0, wex_alive_chains.count);
    EXPECT_TRUE(program.running());
    EXPECT_FALSE(exists(kNotifyLog));
  });
}

TEST_F(Watchdog, ARegisteredLineThatBeginsWithTheCurrentOneIsTheSameProgram) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    wex_pid* const rec = daemon.find(program.pid());
    strcat(rec->process, " and an argument that is gone");
    daemon.scans(1);
    EXPECT_EQ(rec, daemon.find(program.pid()));
    rec->process[strlen(rec->process) / 4] = '?';
    daemon.scans(1);
    EXPECT_EQ(nullptr, daemon.find(program.pid()));
  });
}

TEST_F(Watchdog, OnlyTheFirst255CharactersOfALongLineAreCompared) {
  in_child([] {
    const child program("/bin/sleep", {"sleep", "600", std::string(400, '0')});
    const daemon_side daemon;
    daemon.start(program.pid(), program.pid(), kShort);
    wex_pid* const rec = daemon.find(program.pid());
    ASSERT_NE(nullptr, rec);
    ASSERT_GT(strlen(rec->process), 400U);
    strcpy(rec->process + 300, "changed");
    daemon.scans(1);
    EXPECT_EQ(rec, daemon.find(program.pid()));
    rec->process[200] = '?';
    daemon.scans(1);
    EXPECT_EQ(nullptr, daemon.find(program.pid()));
  });
}

TEST_F(Watchdog, AForgedOwnerIsRemovedAndNobodyIsAborted) {
  for (const int32_t owner : {0, -1, 1, INT32_MIN}) {
    in_child([owner] {
      service program(1);
      const daemon_side daemon;
      daemon.start(program.pid(), owner, {5, 0, 120, 0});
      daemon.scans(1);
      EXPECT_EQ(0, wex_alive_chains.count);
      EXPECT_TRUE(program.running());
      EXPECT_FALSE(exists(kNotifyLog));
    });
  }
}

// ---- Brakes ----------------------------------------------------------------------------------------------

TEST_F(Watchdog, TheOperatorsFileStopsTheCountButNotTheCycle) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(4);
    write_file(kKillDebug, "");
    for (int scan = 1; scan <= 30; ++scan) {
      const std::string text = daemon.scan();
      expect_state(program.pid(), 3, scan % 2 * 60);
      EXPECT_EQ(scan % 2 == 0 ? 1U : 0U,
                occurrences(text, state_line("Decrease ", program.pid(), program.pid(), {5, 3, 120, 0})));
    }
    unlink(kKillDebug);
    daemon.scans(6);
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, AThreadThatWasHungBeforeTheOperatorsFileCameStaysHung) {
  in_child([] {
    service program(1, true);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 1, 60, 0});
    daemon.scans(1);
    write_file(kKillDebug, "");
    daemon.scans(2);
    EXPECT_EQ(3U, hangs_logged());
  });
}

TEST_F(Watchdog, ARaisedSemaphoreStopsTheCountButNotTheCycle) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    change_semaphore(2);
    std::string text;
    for (int scan = 0; scan < 30; ++scan) {
      text += daemon.scan();
    }
    expect_state(program.pid(), 5, 0);
    EXPECT_EQ(15U, occurrences(text, "]Decrease pid ("));
    EXPECT_EQ(30U, occurrences(text, "]sem_cnt = 2\n"));
    change_semaphore(0);
    daemon.scans(10);
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, ASemaphoreThatCannotBeReadStopsTheCount) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    ASSERT_EQ(0, semctl(g_wex_semid, 0, IPC_RMID));
    std::string text;
    for (int scan = 0; scan < 30; ++scan) {
      text += daemon.scan();
    }
    expect_state(program.pid(), 5, 0);
    EXPECT_EQ(15U, occurrences(text, "]Decrease pid ("));
    EXPECT_EQ(30U, occurrences(text, "]sem_cnt = -1\n"));
    EXPECT_EQ(60U, occurrences(text, "Get wex sem count failed: ")) << "two looks a scan";
    EXPECT_TRUE(program.running());
  });
}

// ---- The table -------------------------------------------------------------------------------------------

TEST_F(Watchdog, ATableCutShortIsMendedAndTheThreadsGoOn) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(3);
    ASSERT_EQ(0, truncate(kAliveTableFile, 0));
    daemon.scans(1);
    EXPECT_EQ(188416U, read_file(kAliveTableFile).size());
    expect_state(program.pid(), 3, 0);
    daemon.start(program, 0, kShort);  // what the thread's next report leads to
    program.report(0);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
  });
}

TEST_F(Watchdog, ATableThatWasReplacedStopsTheCountAndIsSaidOnce) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(2);
    ASSERT_EQ(0, rename(kAliveTableFile, "/dev/shm/aside"));
    const std::string complaint =
        "/dev/shm/UTILS-wex-shm-001 is not the table that threads were registered in, or is full, "
        "hangs are not counted.\r\n";
    daemon.scans(2);
    EXPECT_EQ(1U, occurrences(read_file(kRunningLog), complaint));
    write_file(kAliveTableFile, std::string(188416, '\xff'));
    daemon.scans(28);
    expect_state(program.pid(), 4, 0);
    EXPECT_EQ(1U, occurrences(read_file(kRunningLog), complaint));
    ASSERT_EQ(0, rename("/dev/shm/aside", kAliveTableFile));
    daemon.scans(2);
    expect_state(program.pid(), 3, 0);
    unlink(kAliveTableFile);
    daemon.scans(1);
    EXPECT_EQ(2U, occurrences(read_file(kRunningLog), complaint)) << "a new loss is said again";
  });
}

TEST_F(Watchdog, AThreadThatStillHasTheReplacedTableCanRecover) {
  in_child([] {
    service program(1, true);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 1, 60, 0});
    daemon.scans(1);
    EXPECT_EQ(1U, hangs_logged());
    program.report(0);  // maps the table
    daemon.start(program, 0, kShort);
    ASSERT_EQ(0, unlink(kAliveTableFile));
    daemon.scans(1);
    EXPECT_EQ(2U, hangs_logged());
    program.report(0);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
    EXPECT_EQ(2U, hangs_logged());
  });
}

// Thread ids that large need a pid namespace of their own.
TEST_F(Watchdog, TheLastIdOfTheTableReportsThroughItAndTheNextByMessage) {
  in_child([] {
    ASSERT_EQ(0, unshare(CLONE_NEWPID | CLONE_NEWNS));
    in_child([] {
      ASSERT_EQ(0, mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
      ASSERT_EQ(0, mount("proc", "/proc", "proc", 0, nullptr));
      set_kernel("/proc/sys/kernel/pid_max", 400000);
      // Downwards: under user-mode emulation each process takes one id more for a thread of the emulator.
      set_kernel("/proc/sys/kernel/ns_last_pid", 163839);
      service beyond(1);
      set_kernel("/proc/sys/kernel/ns_last_pid", 163838);
      service last(1);
      ASSERT_EQ(163839, last.pid());
      ASSERT_EQ(163840, beyond.pid());
      const daemon_side daemon;
      daemon.start(last, 0, kShort);
      const std::string before = read_file(kAliveTableFile);
      set_levels(WEX_DBG_SILENT, 0);
      EXPECT_EQ("", lines_printed_by([&] { daemon.start(beyond, 0, kShort); })) << "the table is not asked";
      set_levels(WEX_DBG_SILENT, WEX_DBG_SILENT);
      EXPECT_EQ(before, read_file(kAliveTableFile));
      EXPECT_EQ('\x80', before[20511]);
      EXPECT_EQ('\x01', before[184352]);
      daemon.scans(9);
      last.report(0);
      EXPECT_EQ('\x02', read_file(kAliveTableFile)[184352]);
      daemon.reset(beyond, 0, kShort);
      daemon.scans(1);
      expect_state(163839, 5, 0);
      expect_state(163840, 5, 60);
      EXPECT_EQ(0U, occurrences(daemon.scan(), "pid err"));
      beyond.end();
      EXPECT_EQ(0U, occurrences(daemon.scan(), "pid err"));
      EXPECT_EQ(1, wex_alive_chains.count);
    });
  });
}

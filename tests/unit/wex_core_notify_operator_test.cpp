// What docs/operator.md says about looking at a hanging program in peace, done as it says.
#include <sys/ptrace.h>

#include "watchdog_world.h"
#include "wex_test.h"

using namespace watchdog;

namespace {

char state_of(const service& program) {
  return wex_test::status_field(program.pid(), "State")[0];
}

// As a debugger does: the process stands still and its memory and registers can be read.
void attach(const service& program) {
  ASSERT_EQ(0, ptrace(PTRACE_ATTACH, program.pid(), nullptr, nullptr)) << strerror(errno);
  int status = 0;
  ASSERT_EQ(program.pid(), waitpid(program.pid(), &status, 0));
  ASSERT_TRUE(WIFSTOPPED(status));
}

}  // namespace

TEST_F(Watchdog, WithTheOperatorsFileAHangingProgramStandsInADebuggerAndLivesOn) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(8);
    expect_state(program.pid(), 1, 0);
    write_file(kKillDebug, "");
    attach(program);
    daemon.scans(30);
    EXPECT_FALSE(exists(kNotifyLog));
    ASSERT_EQ(0, ptrace(PTRACE_DETACH, program.pid(), nullptr, nullptr));
    program.report(0);  // it was not hanging after all
    unlink(kKillDebug);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
    EXPECT_TRUE(program.running());
    daemon.scans(10);
    EXPECT_TRUE(program.aborted()) << "the watchdog is back at work";
  });
}

TEST_F(Watchdog, AStoppedProgramIsAbortedOnlyWhenItGoesOn) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 1, 60, 0});
    EXPECT_TRUE(wex_test::send_signal(program.pid(), SIGSTOP));
    ASSERT_TRUE(eventually([&] { return state_of(program) == 'T'; }));
    write_file(kKillDebug, "");
    wex_pid* const rec = daemon.find(program.pid());
    ASSERT_NE(nullptr, rec);
    rec->notify_info[WEX_CUR_CNT] = 0;  // hung before the operator came
    daemon.scans(3);
    EXPECT_EQ(3U, hangs_logged());
    EXPECT_EQ('T', state_of(program)) << "there to be looked at";
    EXPECT_TRUE(wex_test::send_signal(program.pid(), SIGCONT));
    EXPECT_TRUE(program.aborted());
  });
}

TEST_F(Watchdog, ARegisteredThreadThatIsExemptedIsAborted) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    write_file(kExemptThreads, std::to_string(program.tid(0)) + "\n");
    for (int scan = 1; scan <= 10; ++scan) {
      EXPECT_TRUE(program.running()) << "scan " << scan;
      program.report(0);
      daemon.scans(1);
    }
    EXPECT_TRUE(program.aborted());
    unlink(kExemptThreads);
  });
}

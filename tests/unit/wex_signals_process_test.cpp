// The reaper, the dispositions, and what signals do to a running process.
#include "wex_signals.h"
#include "wex_test.h"

#include "parked_world.h"
#include "wex_core_spawn_guard.h"
#include "wex_proc.h"
#include "wex_signals_alarm.h"
#include "wex_signals_reaper.h"

using namespace parked;

namespace {

// What the thread that reaps does, in the tests that watch it.
thread_local bool g_watched = false;
std::atomic<int> g_pauses{0};  // which are left out
std::function<void()> g_before_first_child;

}  // namespace

extern "C" void __real_wex_sleep_ms(int milliseconds);
extern "C" void __wrap_wex_sleep_ms(int milliseconds) {
  if (g_watched) {
    ++g_pauses;
  } else {
    __real_wex_sleep_ms(milliseconds);
  }
}

extern "C" pid_t __real_waitpid(pid_t pid, int* status, int options);
extern "C" pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
  if (g_watched && g_before_first_child) {
    const auto once = std::move(g_before_first_child);
    g_before_first_child = nullptr;
    once();
  }
  return __real_waitpid(pid, status, options);
}

// ---- reaping ----------------------------------------------------------------------------------------------

TEST(Reaper, ReapsAllDeadChildrenThoughAnOlderCallLeftEchild) {
  pid_t children[5];
  for (pid_t& child : children) {
    child = zombie();
  }
  errno = ECHILD;
  wex_chld_handler(SIGCHLD);
  EXPECT_EQ(ECHILD, errno) << "the code around must find its own errno";
  for (const pid_t child : children) {
    EXPECT_EQ(-1, waitpid(child, nullptr, WNOHANG));
    EXPECT_EQ(-1, kill(child, 0));
  }
}

TEST(Reaper, LeavesLivingChildrenAlone) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  const pid_t living = fork();
  if (living == 0) {
    char byte;
    close(ends[1]);
    _exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);
  }
  const pid_t dead = zombie();
  wex_chld_handler(SIGCHLD);
  EXPECT_EQ(-1, kill(dead, 0));
  EXPECT_EQ(0, kill(living, 0));
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(living, waitpid(living, nullptr, 0));
}

TEST(Reaper, WaitsUntilTheSpawnInProgressHasStoredItsPid) {
  std::atomic<bool> done{false};
  pid_t child;
  std::thread reaper;
  {
    const spawn_guard spawning;
    {
      const spawn_guard again;  // the spawner inside the exit handler
    }
    child = zombie();
    reaper = std::thread([&done] {
      wex_chld_handler(SIGCHLD);
      done = true;
    });
    EXPECT_FALSE(eventually([&done] { return done.load(); }, 200ms));
    EXPECT_EQ(0, kill(child, 0)) << "reaped while its spawn was in progress: its pid is free for a stranger";
  }
  reaper.join();
  EXPECT_EQ(-1, kill(child, 0));
}

namespace {

bool is_zombie(pid_t child) {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// A thread that reaps at leisure, and whose pauses are counted and left out.
std::thread watched_reaper(bool hurry = false) {
  g_pauses = 0;
  return std::thread([hurry] {
    g_watched = true;
    const std::atomic<bool> in_a_hurry{hurry};
    wex_reap_at_leisure(in_a_hurry);
  });
}

}  // namespace

TEST(Reaper, LetsASpawnThatWaitsGoBeforeTheNextChild) {
  const std::vector<pid_t> children = {zombie(), zombie(), zombie()};
  const std::string own_stat = "/proc/self/task/" + std::to_string(gettid()) + "/stat";
  std::atomic<bool> at_guard{false};
  std::atomic<bool> begun{false};
  g_before_first_child = [&] {
    begun = true;
    EXPECT_TRUE(eventually(
        [&] { return at_guard.load() && read_file(own_stat.c_str()).find(") S ") != std::string::npos; }));
  };
  std::thread reaper = watched_reaper();
  while (!begun.load()) {
  }
  {
    at_guard = true;
    const spawn_guard spawning;
    EXPECT_EQ(2, std::count_if(children.begin(), children.end(), is_zombie));
  }
  reaper.join();
  EXPECT_EQ(0, std::count_if(children.begin(), children.end(), is_zombie));
}

TEST(Reaper, LeavesAChildAloneForAMoment) {
  const pid_t child = zombie();
  watched_reaper().join();
  EXPECT_EQ(1, g_pauses.load());
  EXPECT_FALSE(is_zombie(child));
}

TEST(Reaper, LeavesNoChildAloneWhenTheDaemonEnds) {
  const pid_t child = zombie();
  watched_reaper(true).join();
  EXPECT_EQ(0, g_pauses.load());
  EXPECT_FALSE(is_zombie(child));
}

TEST(Reaper, IsPutOffWhileAProgramIsBeingStartedButNotForEver) {
  const pid_t child = zombie();
  std::thread reaper;
  {
    const spawn_guard spawning;
    reaper = watched_reaper();
    EXPECT_TRUE(eventually([] { return g_pauses.load() == kReapsPutOff; })) << g_pauses.load();
    EXPECT_TRUE(is_zombie(child));
  }
  reaper.join();
  EXPECT_EQ(kReapsPutOff, g_pauses.load());
  EXPECT_FALSE(is_zombie(child));
}

TEST(Reaper, WhoeverKeepsAnUrgentSpawnWaitingRunsAtItsPriority) {
  std::atomic<pid_t> holder{0};
  std::atomic<bool> let_go{false};
  std::thread slow([&] {
    const spawn_guard spawning;
    holder = gettid();
    EXPECT_TRUE(eventually([&let_go] { return let_go.load(); }, 10s));
  });
  ASSERT_TRUE(eventually([&holder] { return holder.load() != 0; }));
  std::thread urgent([] {
    EXPECT_EQ(0, wex_set_priority(kMonitorPriority));
    const spawn_guard spawning;
  });
  const std::string stat = "/proc/self/task/" + std::to_string(holder.load()) + "/stat";
  EXPECT_TRUE(eventually([&stat] {  // its 18th field: -1 - priority for a thread that runs in real time
    const std::string text = read_file(stat.c_str());
    const size_t fields = text.rfind(") ");
    return fields != std::string::npos && text.find(" -100 ", fields) != std::string::npos;
  })) << read_file(stat.c_str());
  let_go = true;
  slow.join();
  urgent.join();
}

// ---- signals ----------------------------------------------------------------------------------------------

namespace {

// Runs the body in a process of its own, because it changes what signals do to it. Its exit status is the
// number of failed expectations.
class InAProcessOfItsOwn : public Parked {
 protected:
  void run(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(0);
      _exit(body());
    }
    int status = -1;
    ASSERT_TRUE(eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, 15s))
        << "it stands still";
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    EXPECT_EQ(0, WEXITSTATUS(status));
  }
};

int check_failed(const char* what) {
  fprintf(stderr, "failed: %s\n", what);
  return 1;
}
#define CHECK_THAT(condition) ((condition) ? 0 : check_failed(#condition))

// Every signal of the C library's own use is refused to everybody.
bool is_changeable(int signal) {
  return signal != SIGKILL && signal != SIGSTOP && (signal < 32 || signal >= SIGRTMIN) && signal <= SIGRTMAX;
}

}  // namespace

TEST_F(InAProcessOfItsOwn, EverySignalIsIgnoredButThree) {
  run([] {
    int failed = CHECK_THAT(wex_setup_signals() == 0);
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
      struct sigaction action = {};
      if (!is_changeable(signal)) {
        continue;
      }
      sigaction(signal, nullptr, &action);
      const bool handled = signal == SIGALRM || signal == SIGCHLD;
      if (handled) {
        failed += CHECK_THAT(action.sa_handler != SIG_IGN && action.sa_handler != SIG_DFL);
      } else {
        failed += CHECK_THAT(action.sa_handler == (signal == SIGINT ? SIG_DFL : SIG_IGN));
      }
      failed += CHECK_THAT((action.sa_flags & SA_RESTART) != 0);
      for (int masked = 1; masked <= SIGRTMAX; ++masked) {
        failed += CHECK_THAT(sigismember(&action.sa_mask, masked) != 1);
      }
    }
    return failed;
  });
}

TEST_F(InAProcessOfItsOwn, ASigalrmRestartsWhatIsDueOnTheAlarmThread) {
  wex_pid* const rec = park_at(600);
  run([rec] {
    const int32_t old_pid = rec->pid;
    wex_setup_signals();
    wex_start_alarm_thread();
    raise(SIGALRM);
    int failed = CHECK_THAT(eventually([rec, old_pid] {
      chain_lock hold(wex_chains);
      return rec->pid != old_pid;
    }));
    send_signal(rec->pid, SIGKILL);
    wex_stop_alarm_thread();
    return failed;
  });
}

TEST_F(InAProcessOfItsOwn, ASigalrmNeverEntersARegistryThatTheInterruptedThreadHasLocked) {
  wex_pid* const rec = park_at(600);
  run([rec] {
    const int32_t old_pid = rec->pid;
    int failed = 0;
    wex_setup_signals();
    wex_start_alarm_thread();
    {
      chain_lock hold(wex_chains);
      chain_lock hold_delay(wex_chains_delay);
      chain_lock hold_alive(wex_alive_chains);
      errno = EDOM;
      pthread_kill(pthread_self(), SIGALRM);  // delivered before this returns
      failed += CHECK_THAT(errno == EDOM);
      failed += CHECK_THAT(rec->pid == old_pid && rec->alarm_wait_flag == 1);
      failed += CHECK_THAT(!eventually([rec] { return rec->alarm_wait_flag == 0; }, 200ms));
    }
    failed += CHECK_THAT(eventually([rec, old_pid] {
      chain_lock hold(wex_chains);
      return rec->pid != old_pid;
    }));
    send_signal(rec->pid, SIGKILL);
    wex_stop_alarm_thread();
    return failed;
  });
}

TEST_F(InAProcessOfItsOwn, ASigalrmToAThreadInsideTheSecondLockLeavesTheLockOrderAlone) {
  park_at(600);
  run([] {
    std::atomic<int> rounds{0};
    wex_setup_signals();
    wex_start_alarm_thread();
    // What the exit handler does: the registry first, then the postponed restarts.
    std::thread exits([&rounds] {
      for (; rounds < 200; ++rounds) {
        chain_lock hold(wex_chains);
        chain_lock inner(wex_chains_delay);
      }
    });
    while (rounds < 200) {
      chain_lock hold(wex_chains_delay);
      pthread_kill(pthread_self(), SIGALRM);
    }
    exits.join();
    wex_stop_alarm_thread();
    chain_lock hold(wex_chains);
    record_walk walk(wex_chains);
    while (const wex_pid* const rec = walk.next()) {
      if (rec->flags != 0 && rec->alarm_wait_flag == 0) {
        send_signal(rec->pid, SIGKILL);
      }
    }
    return 0;
  });
}

TEST_F(InAProcessOfItsOwn, AThousandChildrenThatDieLeaveNoZombie) {
  run([] {
    wex_setup_signals();
    wex_start_alarm_thread();
    for (int i = 0; i < 1000; ++i) {
      const pid_t child = fork();
      if (child == 0) {
        _exit(0);
      }
      if (child < 0) {
        return check_failed("fork");
      }
    }
    const int failed = CHECK_THAT(eventually([] {
      siginfo_t info = {};
      return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
    }));
    wex_stop_alarm_thread();
    return failed;
  });
}

TEST_F(InAProcessOfItsOwn, AChildThatDiesWhileTheRegistryIsLockedIsReaped) {
  run([] {
    wex_setup_signals();
    wex_start_alarm_thread();
    chain_lock hold(wex_chains);
    const pid_t child = fork();
    if (child == 0) {
      _exit(0);
    }
    const int failed = CHECK_THAT(eventually([child] { return kill(child, 0) != 0; }));
    wex_stop_alarm_thread();
    return failed;
  });
}

TEST_F(InAProcessOfItsOwn, StoppingTheAlarmThreadCancelsThePendingAlarm) {
  run([] {
    wex_setup_signals();
    wex_start_alarm_thread();
    alarm(100);
    wex_stop_alarm_thread();
    return CHECK_THAT(alarm(0) == 0);
  });
}

TEST_F(InAProcessOfItsOwn, AProgramRestartedByTheAlarmRunsWithAnEmptyMaskAndDefaultActions) {
  // Without a child: while it starts one, the shell itself has signals blocked.
  const temporary program("/tmp/report");
  const temporary out("/tmp/report.out");
  write_file("/tmp/report",
             "#!/bin/sh\n"
             "while read -r line; do echo \"$line\"; done < /proc/$$/status > /tmp/report.part\n"
             "mv /tmp/report.part /tmp/report.out\nsleep 1000\n");
  chmod("/tmp/report", 0755);
  wex_pid* const rec = park_at(600, "/tmp/report");
  run([rec] {
    wex_setup_signals();
    wex_start_alarm_thread();
    raise(SIGALRM);
    int failed = CHECK_THAT(eventually([] { return exists("/tmp/report.out"); }));
    {
      chain_lock hold(wex_chains);
      send_group_signal(rec->pid, SIGKILL);
    }
    wex_stop_alarm_thread();
    return failed;
  });
  const std::string report = read_file("/tmp/report.out");
  EXPECT_NE(std::string::npos, report.find("SigBlk:\t0000000000000000\n")) << report;
  EXPECT_NE(std::string::npos, report.find("SigIgn:\t0000000000000000\n")) << report;
}

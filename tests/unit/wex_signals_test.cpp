// The alarm, the reaper and the dispositions, with a clock that the test sets.
#include "wex_signals.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "chain_lock.h"
#include "verify_chain.h"
#include "wex_chain.h"
#include "wex_core.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_platform.h"
#include "wex_proc.h"
#include "wex_utils.h"

namespace {

using namespace std::chrono_literals;

std::atomic<int32_t> g_now{1000};

struct syslog_line {
  int severity;
  std::string facility;
  std::string mnemonic;
  int flag;
  std::string text;
};
std::vector<syslog_line> g_syslog;

bool soon(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

std::string contents(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void write_file(const char* path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// A child that has ended and been reaped: nobody has its pid now.
int32_t dead_pid() {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  return static_cast<int32_t>(child);
}

// A child that has ended and is a zombie when this returns.
pid_t zombie() {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  siginfo_t info = {};
  waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
  return child;
}

std::string db_file(int32_t pid, const char* process, int32_t vsd = 0) {
  char name[kPathSize];
  wex_get_db_file_name(vsd, pid, process, name, sizeof name);
  return name;
}

class Parked : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_STREQ("1", getenv("WEX_SANDBOX")) << "start me through tools/sandbox";
    ASSERT_EQ(0, prctl(PR_CAPBSET_READ, CAP_SYS_BOOT)) << "a restart here would take the machine down";
    for (const char* dir : {"/tmp/wex", "/tmp/vsd", "/tmp/vsd/0", "/tmp/vsd/0/wex", "/tmp/vsd/0/wex/db",
                            "/data", "/etc/wex", "/etc/cmdmap"}) {
      mkdir(dir, 0777);
    }
    for (const char* file :
         {kDebugTime, kRebootLog, kThirdPartList, kDeviceMonitor, kNoReboot, kRebootSwitch}) {
      unlink(file);
    }
    ASSERT_EQ(0, wex_init_chains(&wex_chains));
    ASSERT_EQ(0, wex_init_chains(&wex_alive_chains));
    ASSERT_EQ(0, wex_init_chains(&wex_chains_delay));
    g_now = 1000;
    g_syslog.clear();
    alarm(0);
  }

  void TearDown() override {
    alarm(0);
    {
      chain_lock hold(wex_chains);
      record_walk walk(wex_chains);
      while (const wex_pid* const rec = walk.next()) {
        if (rec->pid > 1 && waitpid(rec->pid, nullptr, WNOHANG) == 0) {  // a child of ours that lives
          kill(rec->pid, SIGKILL);
        }
      }
    }
    EXPECT_TRUE(chain_is_sound(wex_chains));
    wex_destroy_chains(&wex_chains);
    EXPECT_EQ(0, wex_chains.count);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
  }

  // A record as parking leaves it: its process is dead, its database file is there.
  static wex_pid* park_at(int32_t check_start, const char* process = "/bin/sleep 1000",
                          int32_t action = RESPAWN) {
    wex_pid* const rec = wex_new_record();
    rec->pid = dead_pid();
    rec->action = action;
    rec->flags = WEX_FLAG_WAITING;
    rec->alarm_wait_flag = 1;
    rec->check_start = check_start;
    rec->check_count = 5;
    snprintf(rec->process, sizeof rec->process, "%s", process);
    write_file(db_file(rec->pid, process).c_str(), std::to_string(rec->pid) + "\n2\n" + process);
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, rec);
    return rec;
  }

  static std::string reboot_reasons() { return contents(kRebootLog); }
};

}  // namespace

extern "C" int32_t wex_clock_now(void) {
  return g_now;
}

extern "C" void printk_syslog_ext(int severity, const char* facility, const char* mnemonic, int flag,
                                  const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  g_syslog.push_back({severity, facility, mnemonic, flag, text});
}

// ---- the end of a wait ------------------------------------------------------------------------------------

TEST_F(Parked, ADeadlineEqualToNowIsNotYetDue) {
  wex_pid* const rec = park_at(700);
  const int32_t old_pid = rec->pid;
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(old_pid, rec->pid);
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(1u, alarm(0)) << "what is due now is looked at again a second later";
}

TEST_F(Parked, ADeadlinePassedRestartsTheProgramAndSaysSo) {
  wex_pid* const rec = park_at(699);
  const int32_t old_pid = rec->pid;
  const std::string old_file = db_file(old_pid, rec->process);
  wex_alrm_handler(SIGALRM);
  ASSERT_NE(old_pid, rec->pid);
  ASSERT_GT(rec->pid, 0);
  EXPECT_EQ(0, kill(rec->pid, 0));
  EXPECT_FALSE(exists(old_file));
  EXPECT_EQ(static_cast<uint32_t>(WEX_FLAG_SELF_CHECKING), rec->flags);
  EXPECT_EQ(0, rec->alarm_wait_flag);
  EXPECT_EQ(1, rec->check_count);
  EXPECT_EQ(1000, rec->check_start);
  EXPECT_EQ(1, rec->reboot_allow);
  EXPECT_EQ(1000, rec->reboot_ref_time);
  EXPECT_EQ(0u, alarm(0)) << "nothing waits any more";
  ASSERT_EQ(1u, g_syslog.size());
  EXPECT_EQ(5, g_syslog[0].severity);
  EXPECT_EQ("HA", g_syslog[0].facility);
  EXPECT_EQ("HA_SELF_CHECK_INFO", g_syslog[0].mnemonic);
  EXPECT_EQ(1, g_syslog[0].flag);
  EXPECT_EQ("Self-checking OK: 1 times and new id sleep 1000/" + std::to_string(rec->pid) + ".\n",
            g_syslog[0].text);
  chain_lock hold(wex_chains);
  EXPECT_EQ(rec, __wex_find_pid(&wex_chains, rec->pid));
  EXPECT_EQ(nullptr, __wex_find_pid(&wex_chains, old_pid));
}

TEST_F(Parked, AScriptIsRestartedThroughItsScriptAndHasItsOwnMnemonic) {
  write_file("/etc/cmdmap/gadget.sh", "exec sleep 1000\n");
  wex_pid* const rec = park_at(699, "/opt/bin/gadget", SHELL_RESTART);
  const int32_t old_pid = rec->pid;
  wex_alrm_handler(SIGALRM);
  ASSERT_NE(old_pid, rec->pid);
  ASSERT_EQ(1u, g_syslog.size());
  EXPECT_EQ("HA_SCRIPT_SELF_CHECK_INFO", g_syslog[0].mnemonic);
  EXPECT_EQ("Self-checking OK: 1 times and new id gadget/" + std::to_string(rec->pid) + ".\n",
            g_syslog[0].text);
}

TEST_F(Parked, TheShorterDelayIsReadAgainWhenTheAlarmFires) {
  write_file(kDebugTime, "2\n");
  wex_pid* const rec = park_at(997);
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(0, rec->alarm_wait_flag);
}

TEST_F(Parked, TheNextAlarmIsForTheLatestDeadlineAndRestartsBoth) {
  wex_pid* const first = park_at(710, "/bin/sleep 1001");
  wex_pid* const second = park_at(750, "/bin/sleep 1002");
  wex_alrm_handler(SIGALRM);
  const unsigned armed = alarm(0);
  EXPECT_GE(50u, armed);
  EXPECT_LE(49u, armed);
  g_now = 1051;
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(0, first->alarm_wait_flag);
  EXPECT_EQ(0, second->alarm_wait_flag);
  EXPECT_EQ(0u, alarm(0));
}

TEST_F(Parked, OnlyWhatIsDueIsRestarted) {
  const wex_pid* const due = park_at(600, "/bin/sleep 1001");
  const wex_pid* const later = park_at(900, "/bin/sleep 1002");
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(0, due->alarm_wait_flag);
  EXPECT_EQ(1, later->alarm_wait_flag);
  const unsigned armed = alarm(0);
  EXPECT_GE(200u, armed);
  EXPECT_LE(199u, armed);
}

TEST_F(Parked, AnEmptyRegistryArmsNothing) {
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(0u, alarm(0));
}

TEST_F(Parked, AProgramThatRunsAgainByOtherMeansIsDroppedNotRestarted) {
  const wex_pid* const rec = park_at(600);
  const int32_t old_pid = rec->pid;
  const std::string file = db_file(old_pid, rec->process);
  wex_pid* const other = wex_new_record();
  other->pid = static_cast<int32_t>(getpid());
  other->action = RESPAWN;
  snprintf(other->process, sizeof other->process, "/bin/sleep 1000");
  {
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, other);
  }
  wex_alrm_handler(SIGALRM);
  chain_lock hold(wex_chains);
  EXPECT_EQ(nullptr, __wex_find_pid(&wex_chains, old_pid));
  EXPECT_EQ(other, __wex_find_pid(&wex_chains, other->pid));
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_FALSE(exists(file));
  EXPECT_TRUE(g_syslog.empty());
}

TEST_F(Parked, ARunningCopyInAnotherDomainDropsNothing) {
  const wex_pid* const rec = park_at(600);
  const int32_t old_pid = rec->pid;
  wex_pid* const other = wex_new_record();
  other->pid = static_cast<int32_t>(getpid());
  other->vsd = 1;
  snprintf(other->process, sizeof other->process, "/bin/sleep 1000");
  {
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, other);
  }
  wex_alrm_handler(SIGALRM);
  EXPECT_NE(old_pid, rec->pid);
  EXPECT_EQ(2, wex_chains.count);
}

TEST_F(Parked, ADuplicateIsNotLookedForBeforeTheDeadline) {
  const wex_pid* const rec = park_at(900);
  wex_pid* const other = wex_new_record();
  other->pid = static_cast<int32_t>(getpid());
  snprintf(other->process, sizeof other->process, "/bin/sleep 1000");
  {
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, other);
  }
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(2, wex_chains.count);
  EXPECT_EQ(1, rec->alarm_wait_flag);
}

TEST_F(Parked, AnotherActionIsNeverRestartedByTheAlarm) {
  const wex_pid* const rec = park_at(600, "/bin/sleep 1000", 7);
  const int32_t old_pid = rec->pid;
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(old_pid, rec->pid);
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(0u, alarm(0));
}

TEST_F(Parked, AThirdPartProgramThatIsNotFoundKeepsItsOldPidAndIsNotWaitedForAgain) {
  write_file(kThirdPartList, "/bin/true WEX_RESTART\n");
  const wex_pid* const rec = park_at(600, "/bin/true");
  const int32_t old_pid = rec->pid;
  wex_alrm_handler(SIGALRM);
  EXPECT_EQ(old_pid, rec->pid);
  EXPECT_EQ(0u, rec->flags & WEX_FLAG_WAITING);
  EXPECT_EQ(0, rec->alarm_wait_flag);
  EXPECT_EQ(1, rec->restart_failed) << "its next life must be able to take its place";
  EXPECT_EQ(0u, alarm(0));
  EXPECT_TRUE(g_syslog.empty());
}

// ---- reboot -----------------------------------------------------------------------------------------------

namespace {
struct calm_case {
  const char* name;
  int32_t since_last;  // seconds since the last restart at the end of a wait
  int32_t allowed;     // counted restarts so far
  bool reboots;
  int32_t allowed_after;
};

class CalmBetweenWaits : public Parked, public ::testing::WithParamInterface<calm_case> {};
}  // namespace

TEST_P(CalmBetweenWaits, DecidesAtTheEndOfTheNextWaitAboutTheReboot) {
  const calm_case& row = GetParam();
  g_now = 5000;
  wex_pid* const rec = park_at(4000);
  rec->reboot_allow = row.allowed;
  rec->reboot_ref_time = 5000 - row.since_last;
  wex_alrm_handler(SIGALRM);
  const std::string reason = "detect process /bin/sleep 1000 can not restart, so restart system.\n";
  EXPECT_EQ(row.reboots, reboot_reasons().find(reason) != std::string::npos);
  EXPECT_EQ(row.allowed_after, rec->reboot_allow);
  EXPECT_EQ(5000, rec->reboot_ref_time);
  EXPECT_EQ(0, rec->alarm_wait_flag) << "a refused reboot restarts the program all the same";
}

INSTANTIATE_TEST_SUITE_P(Rows, CalmBetweenWaits,
                         ::testing::Values(calm_case{"first", 0, 0, false, 1},
                                           calm_case{"after300s", 300, 1, true, 2},
                                           calm_case{"after600s", 600, 1, true, 2},
                                           calm_case{"after601s", 601, 1, false, 1},
                                           calm_case{"longAfterThree", 3000, 3, false, 1}),
                         [](const auto& row) { return std::string(row.param.name); });

namespace {
struct second_park_case {
  const char* name;
  int32_t since_last;
  int32_t allowed;
  bool reboots;
};
class SecondPark : public Parked, public ::testing::WithParamInterface<second_park_case> {};
}  // namespace

TEST_P(SecondPark, RebootsOnlySoonAfterTheLastSelfCheckRestart) {
  const second_park_case& row = GetParam();
  g_now = 5000;
  wex_pid* const rec = park_at(0, "/bin/sleep 1000", RESPAWN);
  rec->flags = WEX_FLAG_SELF_CHECKING;
  rec->alarm_wait_flag = 0;
  rec->check_start = 4990;
  rec->check_count = 4;
  rec->reboot_allow = row.allowed;
  rec->reboot_ref_time = 5000 - row.since_last;
  int32_t new_pid = 0;
  {
    chain_lock hold(wex_chains);
    EXPECT_EQ(-1, wex_spawn(rec, &new_pid));
  }
  EXPECT_EQ(-1, new_pid);
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(static_cast<uint32_t>(WEX_FLAG_WAITING), rec->flags);
  EXPECT_EQ(row.reboots, exists(kRebootLog));
  EXPECT_EQ(row.allowed, rec->reboot_allow);
}

INSTANTIATE_TEST_SUITE_P(Rows, SecondPark,
                         ::testing::Values(second_park_case{"neverRestartedByTheAlarm", 10, 0, false},
                                           second_park_case{"after600s", 600, 1, true},
                                           second_park_case{"after601s", 601, 1, false}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Parked, TheReasonOfAVeryLongCommandLineIsCutAt127Characters) {
  g_now = 5000;
  const std::string process = "/bin/sleep 1000 " + std::string(300, ' ') + "x";
  wex_pid* const rec = park_at(4000, process.c_str());
  rec->reboot_allow = 1;
  rec->reboot_ref_time = 4900;
  wex_alrm_handler(SIGALRM);
  const std::string entry = reboot_reasons();
  const std::string whole = "detect process " + process;
  EXPECT_NE(std::string::npos, entry.find(" " + whole.substr(0, 127) + "\n")) << entry;
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
    EXPECT_FALSE(soon([&done] { return done.load(); }, 200ms));
    EXPECT_EQ(0, kill(child, 0)) << "reaped while its spawn was in progress: its pid is free for a stranger";
  }
  reaper.join();
  EXPECT_EQ(-1, kill(child, 0));
}

TEST(Reaper, WhoeverKeepsAnUrgentSpawnWaitingRunsAtItsPriority) {
  std::atomic<pid_t> holder{0};
  std::atomic<bool> let_go{false};
  std::thread slow([&] {
    const spawn_guard spawning;
    holder = gettid();
    EXPECT_TRUE(soon([&let_go] { return let_go.load(); }, 10s));
  });
  ASSERT_TRUE(soon([&holder] { return holder.load() != 0; }));
  std::thread urgent([] {
    EXPECT_EQ(0, wex_set_priority(kMonitorPriority));
    const spawn_guard spawning;
  });
  const std::string stat = "/proc/self/task/" + std::to_string(holder.load()) + "/stat";
  EXPECT_TRUE(soon([&stat] {  // its 18th field: -1 - priority for a thread that runs in real time
    const std::string text = contents(stat.c_str());
    const size_t fields = text.rfind(") ");
    return fields != std::string::npos && text.find(" -100 ", fields) != std::string::npos;
  })) << contents(stat.c_str());
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
    ASSERT_TRUE(soon([&] { return waitpid(child, &status, WNOHANG) == child; }, 15s)) << "it stands still";
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
    int failed = CHECK_THAT(soon([rec, old_pid] {
      chain_lock hold(wex_chains);
      return rec->pid != old_pid;
    }));
    kill(rec->pid, SIGKILL);
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
      failed += CHECK_THAT(!soon([rec] { return rec->alarm_wait_flag == 0; }, 200ms));
    }
    failed += CHECK_THAT(soon([rec, old_pid] {
      chain_lock hold(wex_chains);
      return rec->pid != old_pid;
    }));
    kill(rec->pid, SIGKILL);
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
        kill(rec->pid, SIGKILL);
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
    const int failed = CHECK_THAT(soon([] {
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
    const int failed = CHECK_THAT(soon([child] { return kill(child, 0) != 0; }));
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
  write_file("/tmp/report",
             "#!/bin/sh\ngrep '^Sig' /proc/$$/status > /tmp/report.part\n"
             "mv /tmp/report.part /tmp/report.out\nsleep 1000\n");
  chmod("/tmp/report", 0755);
  unlink("/tmp/report.out");
  wex_pid* const rec = park_at(600, "/tmp/report");
  run([rec] {
    wex_setup_signals();
    wex_start_alarm_thread();
    raise(SIGALRM);
    int failed = CHECK_THAT(soon([] { return exists("/tmp/report.out"); }));
    {
      chain_lock hold(wex_chains);
      kill(-rec->pid, SIGKILL);
    }
    wex_stop_alarm_thread();
    return failed;
  });
  const std::string report = contents("/tmp/report.out");
  EXPECT_NE(std::string::npos, report.find("SigBlk:\t0000000000000000\n")) << report;
  EXPECT_NE(std::string::npos, report.find("SigIgn:\t0000000000000000\n")) << report;
}

// Strict mode: what a user can do with a process that has got the pid of root's service, whose end was
// handled.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "handled_exits.h"
#include "registry_files.h"
#include "restart_policy.h"
#include "strict_world.h"
#include "taken_pid.h"

namespace {

using namespace strict_world;

const words kUsersSleep = {
    "/usr/bin/setpriv", "--reuid=" + text(kUser), "--regid=1235", "--clear-groups", "/bin/sleep", "777"};

struct StrictStrangersExit : Strict {
  // The user's process has the pid, and runs its program.
  static bool runs(const stranger& users) {
    return eventually([&] { return command_line(users.pid()) == "/bin/sleep 777"; }, 20s) &&
           uid_of(users.pid()) == text(kUser);
  }
  // With all its threads: then its end can be waited for.
  static bool has_ended(pid_t pid) {
    siginfo_t end = {};
    return waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT) == 0 && end.si_pid == pid;
  }
  static words crash_words(const std::string& how) {
    words all = {"/usr/bin/setpriv", "--reuid=1234", "--regid=1235", "--clear-groups",
                 "/usr/bin/env",     "-C",           "/tmp"};
    for (const std::string& word : actor_words({"--core", how})) {
      all.push_back(word);
    }
    return all;
  }
  // A root's service that has died, and is running again when this returns, or not to be.
  pid_t kill_service(const words& options) {
    Process& service = process();
    EXPECT_TRUE(start_service(&service, options, 0));
    const pid_t pid = service.pid();
    send_signal(pid, SIGKILL);
    service.wait(20s);
    return pid;
  }
};

}  // namespace

// A take-down drops what ends meanwhile. The service had ended before.
TEST_F(StrictStrangersExit, DuringATakeDownLeavesAParkedServiceOfRootsItsRegistration) {
  write_file(kDebugTime, "8\n");
  start();
  policy::Service parked("parked");
  ASSERT_TRUE(parked.start());
  ASSERT_TRUE(parked.park());
  ASSERT_TRUE(console_says("had checked more than 5 times", 20s));
  const std::string marker = "/tmp/vsd/5/delete_vsd";
  write_file(marker, "");
  {
    const stranger users(parked.pid(), kUsersSleep);
    ASSERT_TRUE(runs(users));
  }
  wait_until_exits_are_handled();
  unlink(marker.c_str());
  EXPECT_TRUE(parked.comes_back(30s)) << read_console();
}

// Whoever is ended by SIGTERM was stopped on purpose.
TEST_F(StrictStrangersExit, BySigtermLeavesAServiceOfRootsThatCouldNotBeStartedToTheNextDaemon) {
  constexpr char kEventLog[] = "/tmp/wex/wex.log1";
  for (const int signal : {SIGKILL, SIGTERM}) {
    SCOPED_TRACE(signal);
    write_file(kDebugLog, "0\n");
    start();
    ASSERT_EQ(0, mkdir(kEventLog, 0755)) << "without which nothing is started again";
    const std::string tag = "--tag=roots" + text(signal);
    const pid_t pid = kill_service({tag});
    ASSERT_TRUE(wait_for_event(WEX_STATUS_EV_FAILED, pid)) << read_console();
    {
      const stranger users(pid, kUsersSleep);
      ASSERT_TRUE(runs(users));
      ASSERT_TRUE(as_user([&] { return send_signal(pid, signal); }));
      EXPECT_TRUE(eventually([&] { return status_field(pid, "State")[0] == 'Z'; }, 20s));
    }
    wait_until_exits_are_handled();
    EXPECT_TRUE(exists(registry::db_file(0, "actor", pid))) << read_console();
    daemon.kill_now();
    ASSERT_EQ(0, rmdir(kEventLog));
    start();
    const pid_t roots = wait_for_actor(service_words({tag}), pid, 20s);
    EXPECT_GT(roots, 0) << read_console();
    daemon.kill_now();
    if (roots > 0) {
      send_signal(roots, SIGKILL);
      EXPECT_TRUE(eventually([&] { return !is_alive(roots); }, 20s));
    }
  }
}

// The service, and the user's process with its pid, have ended and been reaped when the daemon hears of both.
TEST_F(StrictStrangersExit, WithACoreDumpBeforeTheServicesOwnEndIsHandledDoesNotCountForIt) {
  write_file(kBurstConfig, "600 1\n");
  start();
  for (const std::string how : {"--crash=SEGV", "--crash-without-main=SEGV"}) {
    SCOPED_TRACE(how);
    const words options = {"--tag=early" + how};
    Process& service = process();
    ASSERT_TRUE(start_service(&service, options, 0));
    const pid_t pid = service.pid();
    ASSERT_NO_FATAL_FAILURE(stop_all_threads(&daemon));
    send_signal(pid, SIGKILL);
    service.wait(20s);
    {
      const stranger users(pid, crash_words(how));
      ASSERT_TRUE(eventually([&] { return has_ended(pid); }, 20s));
    }
    daemon.send(SIGCONT);
    EXPECT_GT(wait_for_actor(service_words(options), pid, 20s), 0) << read_console();
    wait_until_exits_are_handled();
    EXPECT_FALSE(exists(kRebootLog)) << read_file(kRebootLog);
    unlink(kRebootLog);
  }
}

// By the main thread, and by another one, which is reported by itself.
TEST_F(StrictStrangersExit, WithACoreDumpDoesNotCountForTheServiceOfRootsThatHadItsPid) {
  write_file(kBurstConfig, "600 1\n");
  start();
  for (const std::string how : {"--crash=SEGV", "--crash-without-main=SEGV"}) {
    SCOPED_TRACE(how);
    const std::string tag = "--tag=before" + how;
    const pid_t pid = kill_service({tag});
    const pid_t next = wait_for_actor(service_words({tag}), pid, 20s);
    ASSERT_GT(next, 0) << read_console();
    {
      const stranger users(pid, crash_words(how));
      ASSERT_TRUE(eventually([&] { return has_ended(pid); }, 20s));
    }
    wait_until_exits_are_handled();
    EXPECT_TRUE(is_alive(next));
    EXPECT_FALSE(exists(kRebootLog)) << read_file(kRebootLog);
    unlink(kRebootLog);
  }
}

// What becomes of an exit: take-down markers, threads, duplicates, postponed and lost exits.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "exit_world.h"
#include "handled_exits.h"
#include "raw_client.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace {

// ---- Take-down --------------------------------------------------------------------------------------------

TEST_F(ExitHandling, WhileAnyDomainIsTakenDownExitedProgramsAreForgotten) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (int domain = 1; domain <= 16; ++domain) {
    const std::string marker = "/tmp/vsd/" + text(domain) + "/delete_vsd";
    Process service;
    ASSERT_TRUE(start_service(&service)) << domain;
    write_file(marker, "");
    service.kill_now();
    EXPECT_TRUE(eventually([&] { return !exists(db_path(service.pid())) && list_dir(kDbDir).empty(); }))
        << domain;
    EXPECT_TRUE(never([] { return wait_for_actor(kService, 0, 0ms) > 0; }, 50ms)) << domain;
    unlink(marker.c_str());
  }
  EXPECT_EQ(0u, count_in(read_console(), "wex_handle_netlink_exit--> exit_signal"));
  // A record left over would make this one a duplicate, and duplicates are not started again.
  EXPECT_GT(wait_for_actor(kService, killed_service()), 0) << read_console();
  daemon.stop();
}

TEST_F(ExitHandling, AMarkerOfTheMainSystemOrBehindTheLastHasNoEffect) {
  write_file("/tmp/vsd/0/delete_vsd", "");
  write_file("/tmp/vsd/17/delete_vsd", "");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_GT(wait_for_actor(kService, killed_service()), 0) << read_console();
  daemon.stop();
}

TEST_F(ExitHandling, ATakeDownIsReportedOnceAndSoIsItsEnd) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (int round = 0; round < 3; ++round) {
    Process service;
    ASSERT_TRUE(start_service(&service));
    write_file("/tmp/vsd/5/delete_vsd", "");
    service.kill_now();
    ASSERT_TRUE(eventually([] { return list_dir(kDbDir).empty(); }));
  }
  unlink("/tmp/vsd/5/delete_vsd");
  Process service;
  ASSERT_TRUE(start_service(&service));
  service.send(SIGTERM);
  service.wait();
  ASSERT_TRUE(eventually([] { return list_dir(kDbDir).empty(); }));
  EXPECT_TRUE(eventually(
      [] { return count_in(read_file(kRunningLog1), "No domain is taken down any more") > 0; }, 20s))
      << "the delay thread looks once a second";
  const std::string log = read_file(kRunningLog1);
  EXPECT_EQ(1u, count_in(log, "/tmp/vsd/5/delete_vsd exists, exited processes are not restarted.\r\n"))
      << log;
  EXPECT_EQ(1u, count_in(log, "No domain is taken down any more, exited processes are restarted.\r\n"))
      << log;
  daemon.stop();
}

// ---- Threads --------------------------------------------------------------------------------------------

// Another program's exit comes behind the thread's in the same queue: its restart proves that the monitor has
// seen the thread's.
void wait_for_later_exit() {
  const texts options = {"--tag=witness", "--register=RESTART", "--confirm", "--ready=/tmp/wex/witness",
                         "--hold"};
  Process witness;
  ASSERT_TRUE(witness.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/wex/witness"); }));
  const pid_t old_pid = witness.pid();
  witness.kill_now();
  ASSERT_GT(wait_for_actor(options, old_pid), 0) << read_console();
}

// How often the daemon has started a program anew.
size_t restarts_logged() {
  return count_in(read_console(), "]wex_spawn--> wex_pid->process = ");
}

TEST_F(ExitHandling, AThreadThatEndsIsNoExit) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts options = {"--register=RESTART",     "--confirm", "--count=/tmp/wex/starts", "--end-thread",
                         "--ready=/tmp/wex/ready", "--hold"};
  Process service;
  ASSERT_TRUE(start_service(&service, options));
  ASSERT_NO_FATAL_FAILURE(wait_for_later_exit());
  EXPECT_TRUE(service.running());
  EXPECT_EQ(1u, starts("/tmp/wex/starts"));
  EXPECT_TRUE(exists(db_path(service.pid())));
  EXPECT_EQ(0u, count_in(read_console(), "/" + text(service.pid()) + " receives event:")) << read_console();
  daemon.stop();
}

// Only a whole process exits.
TEST_F(ExitHandling, AThreadThatRegisteredItselfAsAProgramIsNotHandedOverWhenItEnds) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts options = {"--end-thread=/tmp/wex/thread", "--ready=/tmp/wex/ready", "--hold"};
  Process service;
  ASSERT_TRUE(start_service(&service, options));
  const std::string thread = read_file("/tmp/wex/thread");
  ASSERT_TRUE(exists(std::string(kDbDir) + "/actor." + thread)) << "not registered: " << read_console();
  ASSERT_NO_FATAL_FAILURE(wait_for_later_exit());
  EXPECT_EQ(0u, count_in(read_console(), "/" + thread + " receives event:")) << read_console();
  daemon.stop();
}

TEST_F(ExitHandling, TheEndsOfStrangersThreadsDoNotReachTheMonitor) {
  constexpr int kThreads = 1000;
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=recvfrom", "signal=none"}));
  ASSERT_TRUE(daemon.wait_ready());
  for (int i = 0; i < kThreads; ++i) {
    std::thread([] {}).join();
  }
  ASSERT_NO_FATAL_FAILURE(wait_for_later_exit());
  EXPECT_LT(count_in(Daemon::trace(), "recvfrom("), kThreads / 2u);
  daemon.stop();
}

TEST_F(ExitHandling, AProgramExecutedByAThreadIsNoExit) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts options = {"--register=RESTART",
                         "--confirm",
                         "--count=/tmp/wex/starts",
                         "--ready=/tmp/wex/ready",
                         "--first-time=/tmp/wex/once",
                         "--exec-in-thread",
                         "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = service.pid();
  ASSERT_TRUE(eventually([] { return starts("/tmp/wex/starts") == 2; }));
  ASSERT_NO_FATAL_FAILURE(wait_until_exits_are_handled());
  EXPECT_EQ(0u, restarts_logged()) << read_console();
  EXPECT_EQ((texts{text(pid), text(pid)}), lines_of(read_file("/tmp/wex/starts")));
  EXPECT_TRUE(service.running());
  service.kill_now();
  EXPECT_TRUE(eventually([] { return starts("/tmp/wex/starts") == 3; })) << "no longer supervised";
  daemon.stop();
}

// ---- Duplicates -------------------------------------------------------------------------------------------

TEST_F(ExitHandling, OfTwoRunningAlikeTheOneThatDiesIsForgotten) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process first, second;
  ASSERT_TRUE(start_service(&first));
  ASSERT_TRUE(start_service(&second));
  const pid_t gone = second.pid();
  second.kill_now();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit--> del " + text(gone) + "\n")) << read_console();
  EXPECT_TRUE(eventually([&] { return !exists(db_path(gone)); }));
  EXPECT_TRUE(never([&] { return wait_for_actor(kService, 0, 0ms) != first.pid(); }, 300ms));
  const pid_t last = first.pid();
  first.kill_now();
  EXPECT_GT(wait_for_actor(kService, last), 0) << "the other one is no longer supervised";
  daemon.stop();
}

// Kills a service and gives the pid of its next life, whose record says that the daemon started it.
pid_t restarted(Process* service) {
  const pid_t old_pid = service->pid();
  service->kill_now();
  const pid_t next = wait_for_actor(kService, old_pid);
  EXPECT_TRUE(eventually([&] { return read_file(kReady) == text(next) + "\n"; })) << read_console();
  return next;
}

// The same for a service beside which another one is started then; 0 when one of them does not come.
pid_t restarted_beside(Process* twin) {
  Process first;
  const pid_t next = start_service(&first) ? restarted(&first) : 0;
  return next > 0 && start_service(twin) ? next : 0;
}

TEST_F(ExitHandling, ARestartedOneThatDiesBesideALivingTwinIsForgotten) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process twin;
  const pid_t again = restarted_beside(&twin);
  ASSERT_GT(again, 0);
  send_signal(again, SIGKILL);
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit--> pid " + text(twin.pid()) + " alive, del " +
                           text(again) + "\n"))
      << read_console();
  EXPECT_TRUE(
      never([&] { return wait_for_actor(kService, 0, 0ms) != twin.pid() && !is_alive(again); }, 300ms));
  const pid_t last = twin.pid();
  twin.kill_now();
  EXPECT_GT(wait_for_actor(kService, last), 0) << read_console();
  daemon.stop();
}

TEST_F(ExitHandling, TwinsThatDieTogetherComeBackAsOne) {
  for (const bool restarted_first : {true, false}) {
    mark_console();
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    Process twin;
    const pid_t again = restarted_beside(&twin);
    ASSERT_GT(again, 0);
    const pid_t twin_pid = twin.pid();
    send_signal(daemon.pid(), SIGSTOP);
    send_signal(restarted_first ? again : twin_pid, SIGKILL);
    ASSERT_TRUE(eventually([&] { return !is_alive(restarted_first ? again : twin_pid); }));
    send_signal(restarted_first ? twin_pid : again, SIGKILL);
    ASSERT_TRUE(eventually([&] { return !is_alive(again) && !is_alive(twin_pid); }));
    send_signal(daemon.pid(), SIGCONT);
    twin.wait();
    const pid_t one = wait_for_actor(kService);
    EXPECT_GT(one, 0) << read_console();
    ASSERT_NO_FATAL_FAILURE(wait_until_exits_are_handled());
    EXPECT_EQ(one, wait_for_actor(kService, 0, 0ms)) << "there are two, or none";
    EXPECT_EQ(2u, restarts_logged()) << read_console();
    EXPECT_TRUE(eventually([&] { return list_dir(kDbDir) == texts{"actor." + text(one)}; }));
    daemon.kill_now();
    send_signal(one, SIGKILL);
    clean_world();
    write_file("/data/.ovix/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", "g_wex_pub_dbg_level 0\n");
  }
}

TEST_F(ExitHandling, AlikeInTwoDomainsAreNoDuplicates) {
  make_dirs("/tmp/vsd/4");
  make_dirs("/data/var/run/vsd/4");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts options = {"--register=RESTART", "--confirm", "--count=/tmp/wex/starts", "--hold"};
  Process main_one, domain_one;
  ASSERT_TRUE(main_one.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return starts("/tmp/wex/starts") == 1; }));
  ASSERT_TRUE(domain_one.start({"python3", "-c",
                                "import os,sys; os.setgroups([3400]); os.execv(sys.argv[1], sys.argv[1:])",
                                actor_binary(), options[0], options[1], options[2], options[3]}));
  ASSERT_TRUE(eventually([] { return starts("/tmp/wex/starts") == 2; }));
  EXPECT_EQ(1u, list_dir("/tmp/vsd/4/wex/db").size());
  domain_one.kill_now();
  EXPECT_TRUE(eventually([] { return starts("/tmp/wex/starts") == 3; })) << read_console();
  main_one.kill_now();
  EXPECT_TRUE(eventually([] { return starts("/tmp/wex/starts") == 4; })) << read_console();
  daemon.stop();
}

// ---- Restart delay ----------------------------------------------------------------------------------------

TEST_F(ExitHandling, ARestartDelayIsWaitedFor) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts options = {"--time-set=2", "--register=RESTART", "--ready=/tmp/wex/ready", "--hold"};
  Process service;
  ASSERT_TRUE(start_service(&service, options));
  const pid_t old_pid = service.pid();
  const auto start = std::chrono::steady_clock::now();
  service.kill_now();
  const pid_t next = wait_for_actor(options, old_pid, 20s);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GT(next, 0) << read_console();
  EXPECT_GE(took, 2s);
  EXPECT_LT(took, 12s) << "a tenth of a second more than two on a quiet machine";
  daemon.stop();
}

TEST_F(ExitHandling, ADaemonEndedInTheMiddleOfADelayLeavesTheRestartToTheNext) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts options = {"--time-set=3600", "--register=RESTART", "--ready=/tmp/wex/ready", "--hold"};
  const pid_t old_pid = killed_service(options);
  ASSERT_TRUE(console_says("]wex_handle_netlink_exit--> exit_signal = 9\n"));  // now it waits
  ASSERT_TRUE(eventually([&] { return exists(db_path(old_pid)); }));
  daemon.kill_now();
  ASSERT_TRUE(daemon.start());
  EXPECT_GT(wait_for_actor(options, old_pid), 0) << read_console();
  daemon.stop();
}

// Without a database file the next daemon would not know the program.
TEST_F(ExitHandling, ADaemonThatEndsByItselfInTheMiddleOfADelayCutsItShortAndRestarts) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=accept4:error=ECONNABORTED:when=40"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  const texts options = {"--time-set=3600", "--confirm", "--ready=/tmp/wex/ready", "--hold"};
  Process service;
  ASSERT_TRUE(start_service(&service, options));
  const pid_t old_pid = service.pid();
  ASSERT_TRUE(list_dir(kDbDir).empty());
  service.kill_now();
  ASSERT_TRUE(console_says("]wex_handle_netlink_exit--> exit_signal = 9\n"));
  ASSERT_TRUE(end_through_server());
  EXPECT_TRUE(exited_with(daemon.wait(20s), 0)) << read_console();
  EXPECT_GT(wait_for_actor(options, old_pid), 0) << read_console();
}

TEST_F(ExitHandling, ADaemonThatEndsByItselfWhileForksFailTriesTheRestartAgainAtOnce) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced(
      {"inject=clone,fork,vfork:error=ENOMEM:when=1..3", "inject=accept4:error=ECONNABORTED:when=40"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  const texts options = {"--time-set=0", "--confirm", "--ready=/tmp/wex/ready", "--hold"};
  const pid_t old_pid = killed_service(options);
  ASSERT_TRUE(console_says("]wex_spawn--> fork fail, err: Cannot allocate memory(12)\n"));
  ASSERT_TRUE(end_through_server());
  EXPECT_TRUE(exited_with(daemon.wait(20s), 0)) << read_console();
  EXPECT_GT(wait_for_actor(options, old_pid), 0) << read_console();
  EXPECT_FALSE(exists(kForkFile));
}

// ---- Exit statuses that look like SIGTERM -----------------------------------------------------------------

namespace {
class HandledTerm : public ExitHandling, public ::testing::WithParamInterface<int> {};
}  // namespace

// Only death by the signal itself means "stopped on purpose".
TEST_P(HandledTerm, AndAnExitStatusThatNamesItIsAnExitLikeAnyOther) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts options = {"--register=RESTART", "--confirm", "--exit-on-term=" + text(GetParam()),
                         "--ready=/tmp/wex/ready", "--hold"};
  Process service;
  ASSERT_TRUE(start_service(&service, options));
  const pid_t old_pid = service.pid();
  service.send(SIGTERM);
  EXPECT_TRUE(exited_with(service.wait(), GetParam()));
  EXPECT_GT(wait_for_actor(options, old_pid), 0) << read_console();
  char event[64];
  snprintf(event, sizeof event, " receives event:%04x and self-checking ...\n",
           static_cast<unsigned>(GetParam()) << 8);
  EXPECT_TRUE(console_says(event)) << event;
  daemon.stop();
}

INSTANTIATE_TEST_SUITE_P(Statuses, HandledTerm, ::testing::Values(15, 143));

// ---- Lost exits -------------------------------------------------------------------------------------------

TEST_F(ExitHandling, AnExitLostInAnOverflowIsFound) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=setsockopt:error=EPERM"}));  // a small queue, and strangers in it
  ASSERT_TRUE(daemon.wait_ready());
  const texts options = {"--register=RESTART", "--confirm", "--count=/tmp/wex/starts",
                         "--ready=/tmp/wex/ready", "--hold"};
  Process service;
  ASSERT_TRUE(start_service(&service, options));
  const pid_t old_pid = service.pid();
  send_signal(daemon.pid(), SIGSTOP);
  for (const std::string& task : list_dir("/proc/" + text(daemon.pid()) + "/task")) {
    ASSERT_TRUE(eventually([&] {
      const std::string state = status_field(std::stoi(task), "State");
      return state[0] == 'T' || state[0] == 't';
    }));
  }
  for (int i = 0; i < 700; ++i) {
    const pid_t child = vfork();
    if (child == 0) {
      _exit(0);
    }
    ASSERT_EQ(child, waitpid(child, nullptr, 0));
  }
  service.kill_now();
  send_signal(daemon.pid(), SIGCONT);
  EXPECT_GT(wait_for_actor(options, old_pid, 25s), 0) << read_console().substr(0, 4000);
  EXPECT_TRUE(console_says("]wex_process_netlink: netlink recvfrom fail: No buffer space available\n"));
  EXPECT_TRUE(console_says(" exit of pid " + text(old_pid) + " was lost\n"));
  EXPECT_TRUE(eventually([] { return starts("/tmp/wex/starts") == 2; }));
  ASSERT_NO_FATAL_FAILURE(wait_until_exits_are_handled());
  EXPECT_EQ(1u, restarts_logged()) << "restarted twice";
  EXPECT_EQ(1u, count_in(read_console(), " exit of pid "));
  EXPECT_EQ(1u, list_dir(kDbDir).size()) << "the lost one is still registered";
  daemon.stop();
}

TEST_F(ExitHandling, AnInterruptedWaitForEventsIsTakenUpAgain) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=poll,ppoll:error=EINTR:when=3..40"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  EXPECT_GT(wait_for_actor(kService, killed_service()), 0) << read_console();
  EXPECT_NE(std::string::npos, Daemon::trace().find("EINTR (Interrupted system call) (INJECTED)"));
  EXPECT_EQ(0u, count_in(read_console(), "select sk_nl fail")) << read_console();
  daemon.stop();
}

TEST_F(ExitHandling, ADatagramWithAStrangeAddressIsReportedAndTheNextOneStillRead) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=recvfrom:poke_exit=@arg6=08000000:when=1"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  EXPECT_TRUE(console_says("]wex_process_netlink: bad address size reading netlink socket: "));
  EXPECT_GT(wait_for_actor(kService, killed_service()), 0) << read_console();
  daemon.stop();
}

TEST_F(ExitHandling, AnExitThatComesLateIsNotTakenForALostOne) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const texts options = {"--register=RESTART", "--confirm", "--count=/tmp/wex/starts",
                         "--ready=/tmp/wex/ready", "--hold"};
  Process service;
  ASSERT_TRUE(start_service(&service, options));
  send_signal(daemon.pid(), SIGSTOP);
  for (int i = 0; i < 3000; ++i) {
    const pid_t child = vfork();
    if (child == 0) {
      _exit(0);
    }
    ASSERT_EQ(child, waitpid(child, nullptr, 0));
  }
  service.send(SIGTERM);  // stopped on purpose: a made-up exit code would start it again
  service.wait();
  send_signal(daemon.pid(), SIGCONT);
  // The exit is handled once: that drops the registration, or gives it a new pid.
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit: hlist_del\n", 15s)) << read_console().substr(0, 4000);
  EXPECT_TRUE(eventually([] { return list_dir(kDbDir).empty(); }));
  EXPECT_EQ(0u, count_in(read_console(), " exit of pid ")) << "taken for lost";
  EXPECT_EQ(0u, restarts_logged());
  daemon.stop();
}

TEST_F(ExitHandling, WhatDiesTheMomentItRegistersIsRestartedOrRefused) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (int round = 0; round < 20; ++round) {
    const std::string count = "/tmp/wex/starts" + text(round);
    const texts options = {"--count=" + count,
                           "--first-time=/tmp/wex/once" + text(round),
                           "--tag=first",
                           "--register=RESTART",
                           "--first-time=/tmp/wex/twice" + text(round),
                           "--crash=KILL",
                           "--hold"};
    Process service;
    ASSERT_TRUE(service.start(actor_words(options)));
    EXPECT_TRUE(ended_by(service.wait(), SIGKILL));
    // A service that is gone before its command line was read is refused, which the console says.
    const std::string refused = "fail to get pid " + text(service.pid()) + "'s cmdline";
    EXPECT_TRUE(eventually(
        [&] { return starts(count) == 2 || read_console().find(refused) != std::string::npos; }, 15s))
        << round << "\n"
        << read_console();
  }
  daemon.stop();
}

// ---- Zombies ----------------------------------------------------------------------------------------------

TEST_F(ExitHandling, NoneOfItsChildrenStaysAZombie) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(start_service(&service));
  ASSERT_NO_FATAL_FAILURE(live_and_end(&service, [](pid_t pid, int) {
    send_signal(pid, SIGKILL);
    EXPECT_TRUE(eventually([&] { return !exists("/proc/" + text(pid)); })) << "a zombie stays";
  }));
  daemon.stop();
}

}  // namespace

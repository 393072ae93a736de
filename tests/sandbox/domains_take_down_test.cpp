// Programs of a domain are supervised there, and take-downs end them for good.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domains_world.h"

namespace {

struct DomainTakeDown : Domains {};

// Runs one operation in a process of its own, its standard output in a file.
pid_t begin(int (*operation)(int32_t), int vsd, const char* output) {
  const pid_t child = fork();
  if (child == 0) {
    dup2(open(output, O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    _exit(-operation(vsd));
  }
  return child;
}

std::string progress_of(int vsd) {
  const std::string number = std::to_string(vsd);
  return "Sending vsd: " + number + " all processes the TERM signal...\nAfter 5s, Sending vsd: " + number +
         " all processes the KILL signal...\nAfter 10s, Delete vsd: " + number + " OK.\n";
}

std::string only_progress(const std::string& text) {
  std::string kept;
  for (const std::string& line : lines_of(text)) {
    if (line.compare(0, 4, "[WEX") != 0) {
      kept += line + "\n";
    }
  }
  return kept;
}

TEST_F(DomainTakeDown, SupervisedProgramComesBackInItsDomain) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  service_script("--register=RESTART --ready=/data/trace");
  ASSERT_EQ(0, create_vsd(6));
  ASSERT_TRUE(eventually([] { return exists("/data/trace"); }));
  const auto before = processes_of(6);
  ASSERT_EQ(1u, before.size());
  const auto registered = [](pid_t pid) {
    return exists("/tmp/vsd/6/wex/" + std::to_string(pid)) && !list_dir("/tmp/vsd/6/wex/db").empty();
  };
  ASSERT_TRUE(eventually([&] { return registered(before[0]); }));
  remove_tree("/data/facts.6");
  send_signal(before[0], SIGKILL);
  ASSERT_TRUE(eventually([&] { return exists("/data/facts.6"); })) << read_console();
  const Facts facts = facts_of(6);
  expect_in_domain(facts, 6);
  const auto after = processes_of(6);
  ASSERT_EQ(1u, after.size());
  EXPECT_NE(before[0], after[0]);
  EXPECT_TRUE(eventually([&] {
    return exists("/tmp/vsd/6/wex/" + std::to_string(after[0])) &&
           !exists("/tmp/vsd/6/wex/" + std::to_string(before[0]));
  }));
  daemon.stop();
}

// Has the daemon restart the only program of a domain until it parks it.
void park_program_of(int vsd) {
  for (int exit = 1; exit <= 5; ++exit) {
    ASSERT_TRUE(eventually([&] { return processes_of(vsd).size() == 1; })) << exit << read_console();
    const pid_t pid = processes_of(vsd)[0];
    ASSERT_GT(pid, 1);
    send_signal(pid, SIGKILL);
    ASSERT_TRUE(eventually([&] { return !is_alive(pid); }));
  }
}

const std::vector<std::string> kMainService = {"--register=RESTART", "--ready=/data/facts.main", "--tag=main",
                                               "--hold"};
const std::vector<std::string> kStubborn = {"--ignore=TERM", "--tag=stubborn", "--hold"};

// Domains 5 to 7 with a service and control groups each; in domain 7 a program beside it that ignores
// SIGTERM.
void make_domains() {
  for (const int vsd : {5, 6, 7}) {
    ASSERT_EQ(0, create_vsd(vsd));
    ASSERT_TRUE(eventually([&] { return exists("/data/facts.ready" + std::to_string(vsd)); }));
    set_cgroups_all(vsd);
    ASSERT_TRUE(exists("/memory/vsd_" + std::to_string(vsd)));
  }
  write_file("/sbin/wex_app", "#!/bin/sh\nexec " + actor_command(kStubborn) + "\n", 0755);
  ASSERT_EQ(0, create_proc_to_vsd("wex_app", 7));
  ASSERT_TRUE(eventually([] { return processes_of(7).size() == 2; }));
  EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) > 0; })) << "the child that added it";
}

// Domain 7 is deleted, 6 stopped, 5 reloaded.
void expect_directories_of_their_take_downs() {
  for (const char* path : {"/tmp/vsd/%d", "/etc/vsd/%d", "/memory/vsd_%d", "/cpu/vsd_%d"}) {
    EXPECT_FALSE(exists(path_of(path, 7))) << path;
    EXPECT_FALSE(exists(path_of(path, 6))) << path;
    EXPECT_TRUE(exists(path_of(path, 5))) << path;
  }
  for (const char* path : {"/data/var/run/vsd/%d", "/data/.ovix/vsd/%d", "/data2/.ovix/vsd/%d",
                           "/data2/var/run/vsd/%d", "/qx_cfg/vsd/%d", "/ovix/vsd/%d"}) {
    EXPECT_FALSE(exists(path_of(path, 7))) << path;
    EXPECT_TRUE(exists(path_of(path, 6))) << path;
  }
}

void expect_progress_of_take_downs() {
  EXPECT_EQ(progress_of(6), only_progress(read_file("/data/facts.stop")));
  EXPECT_EQ(progress_of(5), only_progress(read_file("/data/facts.reload")));
  EXPECT_TRUE(eventually([] {
    const std::string text = read_console();
    return text.find("After 10s, Delete vsd: 7 OK.\n") != std::string::npos &&
           text.find("Sending vsd: 7 all processes the TERM signal...\n") <
               text.find("After 5s, Sending vsd: 7 all processes the KILL signal...\n");
  })) << read_console();
}

// Signals that a take-down has sent, in their order.
constexpr char kSignalsSent[] = "/data/trace";

bool was_sent(pid_t pid, const char* signal) {
  const std::string call = "kill(" + std::to_string(pid) + ", " + signal + ")";
  return read_file(kSignalsSent).find(call) != std::string::npos;
}

void expect_ends_well(pid_t operation) {
  int status = 0;
  EXPECT_EQ(operation, waitpid(operation, &status, 0));
  EXPECT_TRUE(exited_with(status, 0));
}

TEST_F(DomainTakeDown, TakeDownsEndTheDomainAndRestartNothingMeanwhile) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  make_dirs("/data2/.ovix/vsd");
  make_dirs("/data2/var/run/vsd");
  service_script("--register=RESTART --ready=/data/facts.ready$(basename $TMPDIR)");
  ASSERT_NO_FATAL_FAILURE(make_domains());
  const pid_t stubborn = wait_for_actor(kStubborn);
  ASSERT_LT(0, stubborn);
  Process main_service;
  ASSERT_TRUE(main_service.start(actor_words(kMainService)));
  ASSERT_TRUE(eventually([] { return exists("/data/facts.main"); }));
  write_file("/debug_time", "10");
  const std::vector<pid_t> deleted = processes_of(7);
  ASSERT_EQ(2u, deleted.size());
  const pid_t service = deleted[0] == stubborn ? deleted[1] : deleted[0];
  const std::string parked[] = {command_line(processes_of(5).at(0)), command_line(processes_of(6).at(0))};
  ASSERT_NO_FATAL_FAILURE(park_program_of(5));
  ASSERT_NO_FATAL_FAILURE(park_program_of(6));
  mark_console();

  const auto began = std::chrono::steady_clock::now();
  const pid_t stopping = begin(stop_vsd, 6, "/data/facts.stop");
  const pid_t reloading = begin(reload_vsd, 5, "/data/facts.reload");
  Process deleting;
  ASSERT_TRUE(deleting.start(
      {"strace", "-f", "-qq", "-e", "trace=kill", "-o", kSignalsSent, Daemon::binary(), "-d", "7"},
      {"ASAN_OPTIONS=detect_leaks=0"}));  // that check needs ptrace itself
  ASSERT_TRUE(eventually([] { return exists("/tmp/vsd/7/delete_vsd"); }, 20s));
  EXPECT_EQ(0754u, mode_of("/tmp/vsd/7/delete_vsd"));
  main_service.send(SIGKILL);
  // Ended by SIGTERM: dead before SIGKILL was sent to anybody, or, where this machine was too busy to see it,
  // without one. One that nobody has reaped would be sent one, too.
  EXPECT_TRUE(eventually([&] { return !is_alive(service); }, 20s));
  const std::vector<pid_t> left = processes_of(7);
  EXPECT_TRUE(left == std::vector<pid_t>{stubborn} || was_sent(stubborn, "SIGKILL"));
  EXPECT_TRUE(was_sent(service, "SIGTERM")) << read_file(kSignalsSent);
  EXPECT_TRUE(!was_sent(stubborn, "SIGKILL") || !was_sent(service, "SIGKILL")) << read_file(kSignalsSent);
  EXPECT_TRUE(eventually([&] { return processes_of(6).empty() && processes_of(5).empty(); }, 10s));
  EXPECT_TRUE(eventually([&] { return !is_alive(stubborn); }, 30s)) << "KILL";
  EXPECT_LE(5s, std::chrono::steady_clock::now() - began) << "too early for KILL";
  EXPECT_TRUE(was_sent(stubborn, "SIGTERM")) << read_file(kSignalsSent);
  EXPECT_TRUE(pids_with_command(actor_command(kMainService)).empty()) << "restarted during a take-down";

  EXPECT_TRUE(exited_with(deleting.wait(40s), 0));
  EXPECT_LE(15s, std::chrono::steady_clock::now() - began);
  expect_ends_well(stopping);
  expect_ends_well(reloading);
  EXPECT_GT(40s, std::chrono::steady_clock::now() - began);
  expect_progress_of_take_downs();
  expect_directories_of_their_take_downs();
  EXPECT_TRUE(eventually([] { return processes_of(5).size() == 1; })) << "reload starts the domain again";
  EXPECT_FALSE(exists("/tmp/vsd/5/delete_vsd"));
  EXPECT_TRUE(processes_of(6).empty());
  EXPECT_TRUE(never(
      [&] { return pids_with_command(parked[0]).size() > 1 || !pids_with_command(parked[1]).empty(); }, 2s))
      << "what was parked came back outside of its domain: " << read_console();
  daemon.stop();
}

TEST_F(DomainTakeDown, FailedSignallingLeavesTheMarkerAndEverythingElse) {
  const std::pair<int (*)(int32_t), std::string> rows[] = {
      {delete_vsd, "[WEX:wex_vsd:N]delete_vsd: ret < 0: No such file or directory\n"},
      {stop_vsd, "[WEX:wex_vsd:N]stop_vsd: ret < 0: No such file or directory\n"},
      {reload_vsd,
       "[WEX:wex_vsd:N]re_delete_vsd: ret < 0: No such file or directory\n"
       "[WEX:wex_vsd:N]delete 6 vsd fail, error =No such file or directory\n"}};
  const std::string progress = "Sending vsd: 6 all processes the TERM signal...\n";  // at every level
  for (const auto& [operation, line] : rows) {
    make_dirs("/data/trace/tmp/vsd/6");
    for (const int32_t level : {0, int32_t{WEX_DBG_SILENT}}) {
      g_wex_dbg_level[WEX_DBG_PUB] = level;
      testing::internal::CaptureStdout();
      const pid_t child = fork();
      if (child == 0) {
        if (chroot("/data/trace") != 0 || chdir("/") != 0) {
          _exit(100);
        }
        _exit(-operation(6));  // a root without "/proc"
      }
      int status = 0;
      EXPECT_EQ(child, waitpid(child, &status, 0));
      EXPECT_TRUE(exited_with(status, ENOENT));
      const std::string logged =
          "[WEX:wex_vsd:N]kill_proc_by_groups: opendir fail: No such file or directory\n" + line;
      EXPECT_EQ(progress + (level == 0 ? logged : ""),
                without_line_numbers(testing::internal::GetCapturedStdout()));
    }
    EXPECT_TRUE(exists("/data/trace/tmp/vsd/6/delete_vsd"));
    remove_tree("/data/trace");
  }
}

}  // namespace

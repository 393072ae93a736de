// Domains are created with their directories, and their start scripts run in them.
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domains_world.h"
#include "failing_calls.h"

namespace {

struct DomainCreate : Domains {};

TEST_F(DomainCreate, CreateMakesEachDomainAndRunsTheStartScriptsInIt) {
  service_script("");
  const auto status =
      run({"sh", "-c",  // whoever starts it is more likely to be killed than its domains
           "echo 500 > /proc/self/oom_score_adj && exec " + std::string(Daemon::binary()) + " -c 3"});
  ASSERT_TRUE(exited_with(status, 0));
  for (int vsd = 1; vsd <= 3; ++vsd) {
    const Facts facts = facts_of(vsd);
    expect_in_domain(facts, vsd);
    EXPECT_FALSE(names_variable(facts, "DATA_OVIX_DIR2"));
    EXPECT_TRUE(value_is(facts, "oom_score_adj", "0"));
    const auto argv = facts.find("argv");
    ASSERT_NE(facts.end(), argv);
    EXPECT_EQ(1, std::count(argv->second.begin(), argv->second.end(), "--tag=vsd"))
        << "the scripts' argument";
    for (const char* dir : {"/qx_cfg/vsd/%d", "/ovix/vsd/%d", "/data/.ovix/vsd/%d", "/etc/vsd/%d",
                            "/tmp/vsd/%d", "/tmp/vsd/%d/wex", "/tmp/vsd/%d/wex/db", "/data/var/run/vsd/%d"}) {
      EXPECT_EQ(0777u, mode_of(path_of(dir, vsd))) << path_of(dir, vsd);
    }
    const std::string start_time = read_file(path_of("/tmp/vsd/%d/starttime", vsd));
    EXPECT_TRUE(matches(start_time, "[0-9.]+ [0-9.]+\n")) << start_time;
    EXPECT_EQ(0754u, mode_of(path_of("/tmp/vsd/%d/starttime", vsd)));
    EXPECT_FALSE(exists(path_of("/memory/vsd_%d", vsd))) << "control groups are made by others";
  }
  EXPECT_EQ(0777u, mode_of(kLsmDevice));
  EXPECT_EQ(0777u, mode_of(kMapIpcDevice));
  EXPECT_FALSE(exists("/data2"));
  EXPECT_FALSE(exists("/tmp/vsd/4"));
  EXPECT_TRUE(console_says("]create_vsd: Setgroups success\n"));
}

TEST_F(DomainCreate, CreateMakesFlagFilesOfTheProcessesThatItsScriptsLeft) {
  script("10first", std::string(actor_binary()) + " --ready=/data/trace --tag=a --hold &\n" + actor_binary() +
                        " --tag=b --hold &\nwhile [ ! -e /data/trace ]; do sleep 0.01; done");
  EXPECT_EQ(0, create_vsd(6));
  std::vector<std::string> expected = {"db"};
  for (const pid_t pid : processes_of(6)) {
    expected.push_back(std::to_string(pid));
  }
  ASSERT_EQ(3u, expected.size());
  // There may be more: of dead processes of an earlier case that nobody has reaped yet.
  for (const std::string& name : expected) {
    EXPECT_TRUE(exists("/tmp/vsd/6/wex/" + name)) << name;
  }
  EXPECT_EQ(0754u, mode_of("/tmp/vsd/6/wex/" + std::to_string(processes_of(6)[0])));
}

TEST_F(DomainCreate, StartScriptsHaveTheThreeStandardDescriptors) {
  script("10trace", "for fd in 0 1 2; do name=$(readlink /proc/$$/fd/$fd); echo $name >> /data/trace; done");
  ASSERT_TRUE(exited_with(wex({"-c", "1"}), 0));
  EXPECT_EQ("/dev/null\n/dev/console\n/dev/console\n", read_file("/data/trace"));
}

TEST_F(DomainCreate, ProgramsOfADomainInheritNeitherFilesNorSignalsOfItsStarter) {
  service_script("");
  ASSERT_TRUE(exited_with(run({"sh", "-c", std::string(kBadStarter) + Daemon::binary() + " -c 1"}), 0));
  expect_clean_start(facts_of(1));
}

TEST_F(DomainCreate, DomainCreatedThroughTheLibraryInheritsNothing) {
  service_script("");
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGTERM, SIG_IGN);
    sigset_t blocked;
    sigfillset(&blocked);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    const sched_param real_time = {7};
    const bool ready = dup2(STDIN_FILENO, 700) == 700 && sched_setscheduler(0, SCHED_FIFO, &real_time) == 0;
    _exit(ready && create_vsd(6) == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(exited_with(status, 0));
  expect_clean_start(facts_of(6));
  EXPECT_TRUE(value_is(facts_of(6), "policy", "0")) << "at real-time priority it could starve the device";
}

TEST_F(DomainCreate, SecondDataDiskHasItsPartOfADomain) {
  make_dirs("/data2/.ovix/vsd");
  make_dirs("/data2/var/run/vsd");
  service_script("");
  ASSERT_TRUE(exited_with(wex({"-c", "1"}), 0));
  EXPECT_TRUE(has_variable(facts_of(1), "DATA_OVIX_DIR2=/data2/.ovix/vsd/1"));
  EXPECT_EQ(0777u, mode_of("/data2/.ovix/vsd/1"));
  EXPECT_EQ(0777u, mode_of("/data2/var/run/vsd/1"));
}

TEST_F(DomainCreate, CreateGoesOnWithTheNextDomainWhenOneFails) {
  script("10trace", "echo $TMPDIR >> /data/trace");
  write_file("/tmp/vsd/2", "in the way");
  EXPECT_TRUE(exited_with(wex({"-c", "3"}), 0));
  EXPECT_EQ("/tmp/vsd/1\n/tmp/vsd/3\n", read_file("/data/trace")) << "each domain once";
  EXPECT_TRUE(console_says("]create_vsd: open fail: Not a directory\n"));
}

TEST_F(DomainCreate, CreateBeforeTheFirstStartOfTheDaemonMakesWhatItNeeds) {
  service_script("");
  for (const char* path :
       {"/qx_cfg", "/ovix", "/data/.ovix", "/data/var", "/etc/vsd", "/tmp/vsd", "/tmp/wex"}) {
    remove_tree(path);
  }
  make_dirs("/data2");
  ASSERT_EQ(0, chmod("/data2", 0755));
  ASSERT_TRUE(exited_with(wex({"-c", "1"}), 0));
  expect_in_domain(facts_of(1), 1);
  for (const char* path : {"/qx_cfg", "/qx_cfg/vsd", "/ovix/vsd", "/data/.ovix", "/data/var/run", "/etc/vsd",
                           "/tmp/vsd", "/data2/.ovix/vsd", "/data2/var/run/vsd/1"}) {
    EXPECT_EQ(0777u, mode_of(path)) << path << ", as the daemon makes it";
  }
  EXPECT_EQ(0755u, mode_of("/data2")) << "what is there keeps its mode";
}

TEST_F(DomainCreate, CreateWithoutAPlaceForItsDirectoriesStartsNothingAndSaysSo) {
  script("10trace", "echo $TMPDIR >> /data/trace");
  remove_tree("/tmp/vsd");
  write_file("/tmp/vsd", "in the way");
  EXPECT_TRUE(exited_with(wex({"-c", "2"}), 0));
  EXPECT_FALSE(exists("/data/trace"));
  EXPECT_TRUE(console_says("]create_vsd: open fail: Not a directory\n"));
}

TEST_F(DomainCreate, CreateWaitsForSlowScriptsAlsoWhenItsStarterIgnoresChildren) {
  script("10slow", "sleep 0.5; echo done >> /data/trace");
  EXPECT_TRUE(
      exited_with(run({"sh", "-c", std::string("trap '' CHLD; exec ") + Daemon::binary() + " -c 1"}), 0));
  EXPECT_EQ("done\n", read_file("/data/trace"));
}

TEST_F(DomainCreate, ScriptThatFailsStopsNeitherTheOthersNorTheCreation) {
  script("10fails", "exit 3");
  script("20dies", "kill -KILL $$");
  script("30runs", "echo $1 >> /data/trace");
  EXPECT_TRUE(exited_with(wex({"-c", "1"}), 0));
  EXPECT_NE(std::string::npos, ("\n" + read_file("/data/trace")).find("\nvsd\n"));
}

TEST_F(DomainCreate, DeviceWithoutRunPartsHasItsDomainAllTheSame) {
  ASSERT_EQ(0, rename(kRunParts, "/bin/run-parts.away"));
  EXPECT_EQ(0, create_vsd(6));
  ASSERT_EQ(0, rename("/bin/run-parts.away", kRunParts));
  EXPECT_TRUE(exists("/tmp/vsd/6/starttime"));
  EXPECT_TRUE(exists("/tmp/vsd/6/wex/db"));
  EXPECT_TRUE(processes_of(6).empty());
}

TEST_F(DomainCreate, ChildThatFailsNeverRunsTheCallersCode) {
  device_answer = -1;
  script("10trace", "echo $TMPDIR >> /data/trace");
  write_file("/sbin/wex_app", "#!/bin/sh\n", 0755);
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, create_vsd(6));
  append("/data/trace", "after create\n");
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 5));
  append("/data/trace", "after add\n");
  int status = 0;
  EXPECT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 1));
  const std::string text = without_line_numbers(testing::internal::GetCapturedStdout());
  EXPECT_EQ("after create\nafter add\n", read_file("/data/trace"));
  EXPECT_EQ("6 0\n5 0\n", read_file(kDeviceCalls)) << "no process is replaced by a domain's start";
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]create_vsd: fs get vsd envs fail: Protocol error\n"));
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]create_proc_to_vsd: fs get vsd envs fail: Protocol error\n"));
  EXPECT_FALSE(exists("/tmp/vsd/6"));
  EXPECT_FALSE(exists("/tmp/vsd/5"));
}

// What is in the domain already is recorded all the same, and nobody is waited for.
TEST_F(DomainCreate, WithoutAForkNothingIsStartedAndTheCallersGoOn) {
  write_file("/sbin/wex_app", "#!/bin/sh\n", 0755);
  make_dirs("/tmp/vsd/6/wex");
  const pid_t member = fork();
  if (member == 0) {
    const gid_t group = 3600;
    _exit(setgroups(1, &group) == 0 && pause() != 0 ? 0 : 1);
  }
  ASSERT_TRUE(eventually([&] { return get_vsdid(member) == 6; }));
  EXPECT_EQ(0, run_failing({"clone,clone3,fork,vfork:error=EAGAIN"}, [] {
              return create_vsd(6) == 0 && create_proc_to_vsd("wex_app", 6) == 0 ? 0 : 1;
            }));
  EXPECT_TRUE(exists("/tmp/vsd/6/wex/" + std::to_string(member)));
  EXPECT_FALSE(exists(kDeviceCalls)) << "somebody entered the domain";
  EXPECT_FALSE(exists("/tmp/vsd/6/starttime"));
  send_signal(member, SIGKILL);
  EXPECT_EQ(member, waitpid(member, nullptr, 0));
}

TEST_F(DomainCreate, StandardOutputIsWhereAllDiagnosticsGo) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, create_vsd(6));
  const std::string text = without_line_numbers(testing::internal::GetCapturedStdout());
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]create_vsd: Setgroups success\n"));
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]create_vsd: parent proc: "));
}

}  // namespace

// Domains end to end: the shipped program's commands, real start scripts, real groups, the real supervisor.
// A take-down signals by group on the whole machine: domains 5 to 7 are used by nobody but these cases.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <regex>

#include "failing_calls.h"
#include "wex.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_test.h"
#include "wex_vsd.h"

using namespace wex_test;

namespace {
int device_answer = 0;  // of the platform call below, in this program and its children
void (*device_work)() = [] {};
const char* const kDeviceCalls = "/data/calls";

void append(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
  close(fd);
}
}  // namespace

// The device's own part of a domain's start, in place of the port for plain Linux boxes.
extern "C" int fs_set_vsd_envs(int vsd, int old_pid) {
  append(kDeviceCalls, std::to_string(vsd) + " " + std::to_string(old_pid) + "\n");
  device_work();
  errno = EPROTO;
  return device_answer;
}

namespace {

std::string path_of(const char* text, int vsd) {
  return std::regex_replace(text, std::regex("%d"), std::to_string(vsd));
}

std::string without_lines(const std::string& text) {
  return std::regex_replace(text, std::regex("\\[WEX:([a-z_]+):[0-9]+\\]"), "[WEX:$1:N]");
}

std::vector<pid_t> processes_of(int vsd) {
  std::vector<pid_t> found;
  for (const pid_t pid : processes_inside()) {
    if (get_vsdid(pid) == vsd && is_alive(pid)) {
      found.push_back(pid);
    }
  }
  return found;
}

bool value_is(const Facts& facts, const std::string& key, const std::string& value) {
  const auto found = facts.find(key);
  return found != facts.end() && found->second == std::vector<std::string>{value};
}

bool has_variable(const Facts& facts, const std::string& variable) {
  const auto found = facts.find("env");
  return found != facts.end() && std::count(found->second.begin(), found->second.end(), variable) == 1;
}

bool names_variable(const Facts& facts, const std::string& name) {
  const auto found = facts.find("env");
  return found != facts.end() &&
         std::any_of(found->second.begin(), found->second.end(), [&](const std::string& text) {
           return text.compare(0, name.size() + 1, name + "=") == 0;
         });
}

struct Domains : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    device_answer = 0;
    device_work = [] {};
    g_wex_dbg_level[WEX_DBG_PUB] = 0;
    for (const char* path : {"/qx_cfg/vsd", "/ovix/vsd", "/data/.ovix/vsd", "/etc/vsd", "/tmp/vsd",
                             "/data/var/run/vsd", "/etc/rc.d/rc.vsd"}) {
      make_dirs(path);
    }
    for (const char* device : {kLsmDevice, kMapIpcDevice}) {
      write_file(device, "", 0600);
    }
  }
  void TearDown() override {
    g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
    for (const char* path : {"/data/calls", "/data/trace", "/sbin/wex_app"}) {
      remove_tree(path);
    }
    for (const std::string& name : list_dir("/data")) {
      if (name.compare(0, 6, "facts.") == 0) {
        remove_tree("/data/" + name);
      }
    }
    WexWorld::TearDown();
  }

  static void script(const std::string& name, const std::string& text) {
    write_file(kStartScripts + name, "#!/bin/sh\n" + text + "\n", 0755);
  }
  // A start script that leaves a service behind, which tells its facts under the domain's number.
  static void service_script(const std::string& options) {
    script("20service", std::string(actor_binary()) + " --facts=/data/facts.$(basename $TMPDIR) --tag=$1 " +
                            options + " --hold &");
  }
  static Facts facts_of(int vsd) {
    const std::string path = "/data/facts." + std::to_string(vsd);
    EXPECT_TRUE(eventually([&] { return exists(path); })) << path;
    return read_facts(path);
  }
  static std::optional<int> wex(std::vector<std::string> words) {
    words.insert(words.begin(), Daemon::binary());
    return run(words);
  }
};

void expect_in_domain(const Facts& facts, int vsd) {
  EXPECT_TRUE(value_is(facts, "group", std::to_string(3000 + 100 * vsd)));
  EXPECT_TRUE(value_is(facts, "cwd", path_of("/data/var/run/vsd/%d", vsd)));
  EXPECT_TRUE(has_variable(facts, path_of("QX_CFG_DIR=/qx_cfg/vsd/%d", vsd)));
  EXPECT_TRUE(has_variable(facts, path_of("OVIX_DIR=/ovix/vsd/%d", vsd)));
  EXPECT_TRUE(has_variable(facts, path_of("DATA_OVIX_DIR=/data/.ovix/vsd/%d", vsd)));
  EXPECT_TRUE(has_variable(facts, path_of("TMPDIR=/tmp/vsd/%d", vsd)));
}

// ---- Create -----------------------------------------------------------------------------------------------

TEST_F(Domains, CreateMakesEachDomainAndRunsTheStartScriptsInIt) {
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
    EXPECT_TRUE(std::regex_match(start_time, std::regex("[0-9.]+ [0-9.]+\n"))) << start_time;
    EXPECT_EQ(0754u, mode_of(path_of("/tmp/vsd/%d/starttime", vsd)));
    EXPECT_FALSE(exists(path_of("/memory/vsd_%d", vsd))) << "control groups are made by others";
  }
  EXPECT_EQ(0777u, mode_of(kLsmDevice));
  EXPECT_EQ(0777u, mode_of(kMapIpcDevice));
  EXPECT_FALSE(exists("/data2"));
  EXPECT_FALSE(exists("/tmp/vsd/4"));
  EXPECT_TRUE(console_says("]create_vsd: Setgroups success\n"));
}

TEST_F(Domains, CreateMarksTheProcessesThatItsScriptsLeft) {
  script("10first", std::string(actor_binary()) + " --ready=/data/trace --tag=a --hold &\n" + actor_binary() +
                        " --tag=b --hold &\nwhile [ ! -e /data/trace ]; do sleep 0.01; done");
  EXPECT_EQ(0, create_vsd(6));
  std::vector<std::string> expected = {"db"};
  for (const pid_t pid : processes_of(6)) {
    expected.push_back(std::to_string(pid));
  }
  ASSERT_EQ(3u, expected.size());
  // Others may be marked beside them: dead ones of an earlier case that nobody has reaped yet.
  for (const std::string& name : expected) {
    EXPECT_TRUE(exists("/tmp/vsd/6/wex/" + name)) << name;
  }
  EXPECT_EQ(0754u, mode_of("/tmp/vsd/6/wex/" + std::to_string(processes_of(6)[0])));
}

TEST_F(Domains, StartScriptsHaveTheThreeStandardDescriptors) {
  script("10trace", "for fd in 0 1 2; do name=$(readlink /proc/$$/fd/$fd); echo $name >> /data/trace; done");
  ASSERT_TRUE(exited_with(wex({"-c", "1"}), 0));
  EXPECT_EQ("/dev/null\n/dev/console\n/dev/console\n", read_file("/data/trace"));
}

// A starter leaves behind what a service must not have: an open file, signals that are ignored or blocked.
const std::string kBadStarter =
    "exec 7</etc/passwd; trap '' TERM PIPE CHLD; exec env --block-signal=USR1,ALRM ";

void expect_clean_start(const Facts& facts) {
  const auto ignored = facts.find("signal_ignored");
  for (const std::string& number : ignored == facts.end() ? std::vector<std::string>{} : ignored->second) {
    EXPECT_GE(SIGQUIT, std::stoi(number)) << number << "; a script's shell itself adds SIGINT and SIGQUIT";
  }
  EXPECT_TRUE(value_is(facts, "SigBlk", "0000000000000000"));
  EXPECT_FALSE(value_is(facts, "session", std::to_string(getsid(0)))) << "the starter's session";
  for (const std::string& fd : facts.at("fd")) {
    EXPECT_GT(3, std::stoi(fd)) << fd;
  }
}

TEST_F(Domains, ProgramsOfADomainInheritNeitherFilesNorSignalsOfItsStarter) {
  service_script("");
  ASSERT_TRUE(exited_with(run({"sh", "-c", kBadStarter + Daemon::binary() + " -c 1"}), 0));
  expect_clean_start(facts_of(1));
}

TEST_F(Domains, DomainCreatedThroughTheLibraryInheritsNothing) {
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

TEST_F(Domains, SecondDataDiskHasItsPartOfADomain) {
  make_dirs("/data2/.ovix/vsd");
  make_dirs("/data2/var/run/vsd");
  service_script("");
  ASSERT_TRUE(exited_with(wex({"-c", "1"}), 0));
  EXPECT_TRUE(has_variable(facts_of(1), "DATA_OVIX_DIR2=/data2/.ovix/vsd/1"));
  EXPECT_EQ(0777u, mode_of("/data2/.ovix/vsd/1"));
  EXPECT_EQ(0777u, mode_of("/data2/var/run/vsd/1"));
}

TEST_F(Domains, CreateGoesOnWithTheNextDomainWhenOneFails) {
  script("10trace", "echo $TMPDIR >> /data/trace");
  write_file("/tmp/vsd/2", "in the way");
  EXPECT_TRUE(exited_with(wex({"-c", "3"}), 0));
  EXPECT_EQ("/tmp/vsd/1\n/tmp/vsd/3\n", read_file("/data/trace")) << "each domain once";
  EXPECT_TRUE(console_says("]create_vsd: open fail: Not a directory\n"));
}

TEST_F(Domains, CreateBeforeTheFirstStartOfTheDaemonMakesWhatItNeeds) {
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

TEST_F(Domains, CreateWithoutAPlaceForItsDirectoriesStartsNothingAndSaysSo) {
  script("10trace", "echo $TMPDIR >> /data/trace");
  remove_tree("/tmp/vsd");
  write_file("/tmp/vsd", "in the way");
  EXPECT_TRUE(exited_with(wex({"-c", "2"}), 0));
  EXPECT_FALSE(exists("/data/trace"));
  EXPECT_TRUE(console_says("]create_vsd: open fail: Not a directory\n"));
}

TEST_F(Domains, CreateWaitsForSlowScriptsAlsoWhenItsStarterIgnoresChildren) {
  script("10slow", "sleep 0.5; echo done >> /data/trace");
  EXPECT_TRUE(
      exited_with(run({"sh", "-c", std::string("trap '' CHLD; exec ") + Daemon::binary() + " -c 1"}), 0));
  EXPECT_EQ("done\n", read_file("/data/trace"));
}

TEST_F(Domains, ScriptThatFailsStopsNeitherTheOthersNorTheCreation) {
  script("10fails", "exit 3");
  script("20dies", "kill -KILL $$");
  script("30runs", "echo $1 >> /data/trace");
  EXPECT_TRUE(exited_with(wex({"-c", "1"}), 0));
  EXPECT_NE(std::string::npos, ("\n" + read_file("/data/trace")).find("\nvsd\n"));
}

TEST_F(Domains, DeviceWithoutRunPartsHasItsDomainAllTheSame) {
  ASSERT_EQ(0, rename(kRunParts, "/bin/run-parts.away"));
  EXPECT_EQ(0, create_vsd(6));
  ASSERT_EQ(0, rename("/bin/run-parts.away", kRunParts));
  EXPECT_TRUE(exists("/tmp/vsd/6/starttime"));
  EXPECT_TRUE(exists("/tmp/vsd/6/wex/db"));
  EXPECT_TRUE(processes_of(6).empty());
}

TEST_F(Domains, ChildThatFailsNeverRunsTheCallersCode) {
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
  const std::string text = without_lines(testing::internal::GetCapturedStdout());
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
TEST_F(Domains, WithoutAForkNothingIsStartedAndTheCallersGoOn) {
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

TEST_F(Domains, StandardOutputIsWhereAllDiagnosticsGo) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, create_vsd(6));
  const std::string text = without_lines(testing::internal::GetCapturedStdout());
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]create_vsd: Setgroups success\n"));
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]create_vsd: parent proc: "));
}

// ---- Add --------------------------------------------------------------------------------------------------

struct AddProgram : Domains {
  void SetUp() override {
    Domains::SetUp();
    write_file("/sbin/wex_app",
               std::string("#!/bin/sh\nexec ") + actor_binary() + " --facts=/data/facts.6 --hold\n", 0755);
  }
  static void reap_children() {
    EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }));
  }
};

TEST_F(AddProgram, StartsItInTheDomainAndMarksIt) {
  make_dirs("/data2/.ovix/vsd");
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  reap_children();
  const Facts facts = facts_of(6);
  expect_in_domain(facts, 6);
  EXPECT_FALSE(names_variable(facts, "DATA_OVIX_DIR2"));
  const auto pids = processes_of(6);
  ASSERT_EQ(1u, pids.size());
  EXPECT_EQ(std::vector<std::string>{std::to_string(pids[0])}, list_dir("/tmp/vsd/6/wex"));
  EXPECT_EQ(0754u, mode_of("/tmp/vsd/6/wex/" + std::to_string(pids[0])));
  EXPECT_FALSE(exists("/tmp/vsd/6/starttime"));
  EXPECT_FALSE(exists("/data2/.ovix/vsd/6"));
}

TEST_F(AddProgram, InheritsNeitherFilesNorSignalsOfTheStarter) {
  make_dirs("/tmp/vsd/6");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  run({"sh", "-c", kBadStarter + Daemon::binary() + " add wex_app 6"});
  expect_clean_start(facts_of(6));
  daemon.stop();
}

// The platform may hide or bring the programs of a domain: what counts is what the child sees.
TEST_F(AddProgram, IsLookedForInTheDomainsEnvironment) {
  device_work = [] { rename("/sbin/wex_hidden", "/sbin/wex_app"); };
  ASSERT_EQ(0, rename("/sbin/wex_app", "/sbin/wex_hidden"));
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  reap_children();
  expect_in_domain(facts_of(6), 6);
}

TEST_F(AddProgram, GivesItNoArgumentsButItsOwnName) {
  write_file("/sbin/wex_app", "#!/bin/sh\necho \"$0 $#\" > /data/trace\n", 0755);
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  reap_children();
  EXPECT_TRUE(eventually([] { return read_file("/data/trace") == "/sbin/wex_app 0\n"; }))
      << read_file("/data/trace");
}

TEST_F(AddProgram, NameThatIsNotInSbinStartsNothing) {
  testing::internal::CaptureStdout();
  for (const char* name : {"wex_nothing", "/sbin/wex_app", "%s%n"}) {
    EXPECT_EQ(0, create_proc_to_vsd(name, 6));
    int status = 0;
    EXPECT_LT(0, wait(&status));
    EXPECT_TRUE(exited_with(status, 0)) << name;
  }
  const std::string text = without_lines(testing::internal::GetCapturedStdout());
  for (const char* name : {"wex_nothing", "/sbin/wex_app", "%s%n"}) {
    EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]create_proc_to_vsd: /sbin/" + std::string(name) +
                                           " is not exist.\n"));
  }
  EXPECT_TRUE(list_dir("/tmp/vsd/6/wex").empty());
  EXPECT_TRUE(processes_of(6).empty());
}

TEST_F(AddProgram, ProgramThatCannotRunLeavesItsFlagFileAndNothingElse) {
  write_file("/sbin/wex_app", "", 0644);
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  int status = 0;
  EXPECT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 0));
  EXPECT_EQ(1u, list_dir("/tmp/vsd/6/wex").size());
  EXPECT_TRUE(eventually([] { return processes_of(6).empty(); }));
}

TEST_F(AddProgram, FailsInTheChildWhenItsFlagFileCannotBeMade) {
  write_file("/sbin/wex_app", "#!/bin/sh\n", 0755);
  write_file("/tmp/vsd/6/wex", "in the way of the directory");
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  int status = 0;
  EXPECT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 1));
}

// A domain whose group is refused is started all the same, and nothing claims the opposite.
TEST_F(AddProgram, AndCreateGoOnWhenTheGroupIsRefused) {
  service_script("");
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, run_failing({"setgroups:error=EPERM"}, [] { return create_vsd(6); }));
  EXPECT_TRUE(value_is(facts_of(6), "cwd", "/data/var/run/vsd/6"));
  EXPECT_FALSE(value_is(facts_of(6), "group", "3600"));
  remove_tree("/data/facts.6");
  EXPECT_EQ(0, run_failing({"setgroups:error=EPERM"}, [] { return create_proc_to_vsd("wex_app", 6); }));
  EXPECT_TRUE(value_is(facts_of(6), "cwd", "/data/var/run/vsd/6"));
  EXPECT_EQ(std::string::npos, testing::internal::GetCapturedStdout().find("Setgroups success"));
}

TEST_F(AddProgram, ThatCannotBeForkedLeavesNoFlagFile) {
  device_work = [] {  // in the child, so that only its own fork fails
    constexpr unsigned kFork = CLONE_CHILD_CLEARTID | CLONE_CHILD_SETTID | SIGCHLD;
    EXPECT_TRUE(refuse_call(SYS_clone, 0, kFork, EAGAIN));
  };
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  int status = 0;
  ASSERT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 0));
  EXPECT_TRUE(exists("/tmp/vsd/6/wex")) << "it got as far as its directories";
  EXPECT_TRUE(list_dir("/tmp/vsd/6/wex").empty());
  EXPECT_TRUE(processes_of(6).empty());
}

TEST_F(AddProgram, FailsInTheChildWithoutARunDirectory) {
  remove_tree("/data/var");
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, create_proc_to_vsd("wex_app", 6));
  int status = 0;
  EXPECT_LT(0, wait(&status));
  EXPECT_TRUE(exited_with(status, 1));
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find(
                                   "]create_proc_to_vsd: chdir fail: No such file or directory\n"));
}

// ---- The command line of the shipped program --------------------------------------------------------------

TEST_F(AddProgram, CommandReturnsToStartUpWhichFindsTheDaemon) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  make_dirs("/tmp/vsd/6");
  const auto status = wex({"add", "wex_app", "6"});
  ASSERT_TRUE(status.has_value() && WIFEXITED(*status));
  EXPECT_TRUE(daemon.running());
  expect_in_domain(facts_of(6), 6);
  const auto missing = wex({"add", "wex_app", "16"});
  ASSERT_TRUE(missing.has_value() && WIFEXITED(*missing));
  EXPECT_TRUE(console_says("vsd 16 is not exist\n"));
  daemon.stop();
}

TEST_F(Domains, WordThatIsNoCommandIsToldAndStartsTheDaemon) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start({"foo"}));
  EXPECT_TRUE(console_says("]input error!!!input wex -h for help!!!\n"));
  daemon.stop();
}

TEST_F(Domains, CommandsOfTheShippedProgramEndAsTheyAlwaysHave) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  mark_console();
  EXPECT_TRUE(exited_with(wex({"--version"}), 0));
  EXPECT_TRUE(exited_with(wex({"-x"}), 1));
  EXPECT_TRUE(exited_with(wex({"a", "b", "e", "f"}), 0));
  const auto status = wex({"-c", "0"});
  EXPECT_TRUE(status.has_value() && WIFEXITED(*status)) << "back to start-up, where the lock is taken";
  const std::string error = "[WEX:wex_opt:N]input error!!!input wex -h for help!!!\n";
  EXPECT_TRUE(eventually([&] {
    const std::string text = without_lines(read_console());
    return text.find("[WEX:wex_opt:N]This is WEX verison 1.0\n") != std::string::npos &&
           text.find(error + error) != std::string::npos;
  })) << read_console();
  EXPECT_TRUE(daemon.running());
  daemon.stop();
}

TEST_F(Domains, ShowListsTheDomainsOnTheConsole) {
  ASSERT_TRUE(exited_with(wex({"-c", "1"}), 0));
  mark_console();
  EXPECT_TRUE(exited_with(wex({"-s"}), 0));
  EXPECT_TRUE(console_says("Vsd_1: /tmp/vsd/1/wex/\n"));
  EXPECT_TRUE(console_says("\ndb\n")) << "beside it a script's shell that has not quite ended";
}

// ---- Supervision and take-down ----------------------------------------------------------------------------

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

TEST_F(Domains, SupervisedProgramComesBackInItsDomain) {
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

TEST_F(Domains, TakeDownsEndTheDomainAndRestartNothingMeanwhile) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  make_dirs("/data2/.ovix/vsd");
  make_dirs("/data2/var/run/vsd");
  service_script("--register=RESTART --ready=/data/facts.ready$(basename $TMPDIR)");
  for (const int vsd : {5, 6, 7}) {
    ASSERT_EQ(0, create_vsd(vsd));
    ASSERT_TRUE(eventually([&] { return exists("/data/facts.ready" + std::to_string(vsd)); }));
    set_cgroups_all(vsd);
    ASSERT_TRUE(exists("/memory/vsd_" + std::to_string(vsd)));
  }
  write_file("/sbin/wex_app",
             std::string("#!/bin/sh\nexec ") + actor_binary() + " --ignore=TERM --tag=stubborn --hold\n",
             0755);
  ASSERT_EQ(0, create_proc_to_vsd("wex_app", 7));
  ASSERT_TRUE(eventually([] { return processes_of(7).size() == 2; }));
  Process main_service;
  ASSERT_TRUE(main_service.start(
      actor_words({"--register=RESTART", "--ready=/data/facts.main", "--tag=main", "--hold"})));
  ASSERT_TRUE(eventually([] { return exists("/data/facts.main"); }));
  const pid_t stubborn = wait_for_actor({"--ignore=TERM", "--tag=stubborn", "--hold"});
  ASSERT_LT(0, stubborn);
  EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) <= 0; }));
  write_file("/debug_time", "10");
  const auto service_of = [](int vsd) { return command_line(processes_of(vsd).at(0)); };
  const std::string parked[] = {service_of(5), service_of(6)};
  ASSERT_NO_FATAL_FAILURE(park_program_of(5));
  ASSERT_NO_FATAL_FAILURE(park_program_of(6));
  mark_console();

  const auto began = std::chrono::steady_clock::now();
  const pid_t stopping = begin(stop_vsd, 6, "/data/facts.stop");
  const pid_t reloading = begin(reload_vsd, 5, "/data/facts.reload");
  Process deleting;
  ASSERT_TRUE(deleting.start({Daemon::binary(), "-d", "7"}));
  ASSERT_TRUE(eventually([] { return exists("/tmp/vsd/7/delete_vsd"); }));
  EXPECT_EQ(0754u, mode_of("/tmp/vsd/7/delete_vsd"));
  main_service.send(SIGKILL);
  EXPECT_TRUE(eventually([&] { return processes_of(7) == std::vector<pid_t>{stubborn}; }, 3s)) << "TERM";
  EXPECT_TRUE(eventually([&] { return processes_of(6).empty() && processes_of(5).empty(); }, 3s));
  EXPECT_TRUE(never([&] { return !is_alive(stubborn); }, 1s)) << "too early for KILL";
  EXPECT_TRUE(eventually([&] { return !is_alive(stubborn); }, 6s)) << "KILL";
  EXPECT_TRUE(pids_with_command(
                  actor_command({"--register=RESTART", "--ready=/data/facts.main", "--tag=main", "--hold"}))
                  .empty())
      << "restarted while a domain is taken down";

  EXPECT_TRUE(exited_with(deleting.wait(20s), 0));
  EXPECT_LE(15s, std::chrono::steady_clock::now() - began);
  int status = 0;
  EXPECT_EQ(stopping, waitpid(stopping, &status, 0));
  EXPECT_TRUE(exited_with(status, 0));
  EXPECT_EQ(reloading, waitpid(reloading, &status, 0));
  EXPECT_TRUE(exited_with(status, 0));
  EXPECT_GT(18s, std::chrono::steady_clock::now() - began);

  EXPECT_EQ(progress_of(6), only_progress(read_file("/data/facts.stop")));
  EXPECT_EQ(progress_of(5), only_progress(read_file("/data/facts.reload")));
  EXPECT_TRUE(eventually([] {
    const std::string text = read_console();
    return text.find("After 10s, Delete vsd: 7 OK.\n") != std::string::npos &&
           text.find("Sending vsd: 7 all processes the TERM signal...\n") <
               text.find("After 5s, Sending vsd: 7 all processes the KILL signal...\n");
  })) << read_console();
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
  EXPECT_TRUE(eventually([] { return processes_of(5).size() == 1; })) << "reload starts the domain again";
  EXPECT_FALSE(exists("/tmp/vsd/5/delete_vsd"));
  EXPECT_TRUE(processes_of(6).empty());
  EXPECT_TRUE(never(
      [&] { return pids_with_command(parked[0]).size() > 1 || !pids_with_command(parked[1]).empty(); }, 2s))
      << "what was parked came back outside of its domain: " << read_console();
  daemon.stop();
}

TEST_F(Domains, FailedSignallingLeavesTheMarkerAndEverythingElse) {
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
      const std::string told =
          "[WEX:wex_vsd:N]kill_proc_by_groups: opendir fail: No such file or directory\n" + line;
      EXPECT_EQ(progress + (level == 0 ? told : ""), without_lines(testing::internal::GetCapturedStdout()));
    }
    EXPECT_TRUE(exists("/data/trace/tmp/vsd/6/delete_vsd"));
    remove_tree("/data/trace");
  }
}

}  // namespace

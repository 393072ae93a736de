// Start-up: what is made, in which order, with which modes; who may start; which threads run; how it ends.
#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "unique_fd.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace {

using namespace wex_test;
using texts = std::vector<std::string>;

struct StartUp : WexWorld {
  void TearDown() override {
    umask(022);
    WexWorld::TearDown();
  }
};

std::string text(long number) {
  return std::to_string(number);
}

// The running log without its time stamps, whose form is checked on the way.
std::string running_log() {
  const std::regex stamp("[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}: ");
  std::string bare;
  std::string log = read_file(kRunningLog1);
  for (size_t at = 0; at < log.size();) {
    const size_t end = std::min(log.find('\n', at), log.size() - 1) + 1;
    const std::string line = log.substr(at, end - at);
    std::smatch found;
    EXPECT_TRUE(std::regex_search(line, found, stamp, std::regex_constants::match_continuous)) << line;
    bare += found.suffix().str();
    at = end;
  }
  return bare;
}

const texts kTree = {"/tmp/wex",
                     "/qx_cfg",
                     "/qx_cfg/vsd_common",
                     "/qx_cfg/vsd",
                     "/qx_cfg/vsd/0",
                     "/ovix",
                     "/ovix/vsd_common",
                     "/ovix/vsd",
                     "/ovix/vsd/0",
                     "/ovix/vsd/0/utils",
                     "/ovix/vsd/0/utils/wex",
                     "/data/.ovix",
                     "/data/.ovix/vsd_common",
                     "/data/.ovix/vsd",
                     "/data/.ovix/vsd/0",
                     "/tmp/vsd_common",
                     "/tmp/vsd",
                     "/tmp/vsd/0",
                     "/etc/vsd",
                     "/etc/vsd/0",
                     "/data/var",
                     "/data/var/run",
                     "/data/var/run/vsd",
                     "/data",
                     "/tmp/vsd/0/wex",
                     "/tmp/vsd/0/wex/db"};
const texts kSecondDisk = {"/data2/.ovix", "/data2/.ovix/vsd", "/data2/.ovix/vsd/0",
                           "/data2/var",   "/data2/var/run",   "/data2/var/run/vsd"};

TEST_F(StartUp, MakesItsDirectoriesOpenToAllWhateverTheUmask) {
  for (const mode_t mask : {022u, 077u, 0777u, 0u}) {
    clean_world();
    write_file("/data/.ovix/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", "g_wex_pub_dbg_level 0\n");
    umask(mask);
    Daemon daemon;
    ASSERT_TRUE(daemon.start()) << mask;
    umask(022);
    for (const std::string& path : kTree) {
      EXPECT_EQ(0777u, mode_of(path)) << path << ", umask " << std::oct << mask;
    }
    daemon.stop();
  }
}

TEST_F(StartUp, MakesNothingOnASecondDiskThatIsNotThere) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_FALSE(exists("/data2"));
  daemon.stop();
}

TEST_F(StartUp, MakesItsDirectoriesOnASecondDisk) {
  make_dirs("/data2");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (const std::string& path : kSecondDisk) {
    EXPECT_EQ(0777u, mode_of(path)) << path;
  }
  daemon.stop();
}

TEST_F(StartUp, ReadiesOnlyTheDomainsThatExist) {
  make_dirs("/tmp/vsd/7");
  make_dirs("/tmp/vsd/15");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ((texts{"0", "15", "7"}), list_dir("/tmp/vsd"));
  EXPECT_EQ(0777u, mode_of("/tmp/vsd/7/wex/db"));
  EXPECT_EQ(0777u, mode_of("/tmp/vsd/15/wex"));
  daemon.stop();
}

TEST_F(StartUp, StartGoesOnWhenADirectoryCannotBeMadeOrOpenedToAll) {
  const char* const refusals[] = {"inject=chmod,fchmod:error=EPERM:when=1..20",  // all of them directories
                                  "inject=mkdir,mkdirat:error=EROFS"};
  for (const char* const refusal : refusals) {  // the second finds what the first has made
    unlink(kRunningLog1);
    Daemon daemon;
    ASSERT_TRUE(daemon.start_traced({refusal}));
    ASSERT_TRUE(daemon.wait_ready(30s)) << refusal;
    EXPECT_TRUE(exists("/qx_cfg/vsd/0"));
    EXPECT_TRUE(exists("/tmp/vsd/0/wex/db"));
    EXPECT_EQ(0u, running_log().find("Start.\r\n"));
    daemon.stop();
    EXPECT_NE(std::string::npos, Daemon::trace().find("(INJECTED)")) << "nothing was refused";
  }
}

TEST_F(StartUp, ADirectoryNamedLikeTheFormatGetsItsDatabaseToo) {
  make_dirs("/tmp/vsd/%d/wex");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(texts{"db"}, list_dir("/tmp/vsd/%d/wex"));
  EXPECT_EQ(0777u, mode_of("/tmp/vsd/%d/wex/db"));
  daemon.stop();
}

// The trace with every name in full: most are opened relative to their directory, which strace tells.
std::string with_full_names(const std::string& trace) {
  const std::regex relative("(mkdir|open|fchmod)at\\([0-9]+<(/[^>]*)>, \"([^/\"][^\"]*)\"");
  const std::string full = std::regex_replace(trace, relative, "$1(\"$2/$3\"");
  return std::regex_replace(full, std::regex("\\(\"//"), "(\"/");
}

TEST_F(StartUp, GoesThroughItsStepsInOrder) {
  write_file("/etc/wex/proc/a", "/usr/sbin/a WEX_RESTART");
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced(
      {"decode-fds=path",
       "trace=mkdir,mkdirat,open,openat,chmod,fchmodat,setrlimit,prlimit64,socket,clone3"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  daemon.stop();
  const std::string trace = with_full_names(Daemon::trace());
  size_t at = 0;
  for (const char* step : {"mkdir(\"/tmp/wex",
                           "qx_utils_dbg_cfg.txt",
                           "\"/dev/console\"",
                           "\"/tmp/wex/wex.pid\"",
                           "RLIMIT_NOFILE",
                           "mkdir(\"/qx_cfg",
                           "mkdir(\"/qx_cfg/vsd_common",
                           "mkdir(\"/qx_cfg/vsd",
                           "mkdir(\"/qx_cfg/vsd/0",
                           "mkdir(\"/ovix",
                           "mkdir(\"/ovix/vsd_common",
                           "mkdir(\"/ovix/vsd",
                           "mkdir(\"/ovix/vsd/0",
                           "mkdir(\"/ovix/vsd/0/utils",
                           "mkdir(\"/ovix/vsd/0/utils/wex",
                           "mkdir(\"/data/.ovix",
                           "mkdir(\"/data/.ovix/vsd_common",
                           "mkdir(\"/data/.ovix/vsd",
                           "mkdir(\"/data/.ovix/vsd/0",
                           "mkdir(\"/tmp/vsd_common",
                           "mkdir(\"/tmp/vsd",
                           "mkdir(\"/tmp/vsd/0",
                           "mkdir(\"/etc/vsd",
                           "mkdir(\"/etc/vsd/0",
                           "mkdir(\"/data/var",
                           "mkdir(\"/data/var/run",
                           "mkdir(\"/data/var/run/vsd",
                           "open(\"/tmp/vsd/%d",
                           "(\"/data/\", 0777",
                           "mkdir(\"/tmp/vsd/0/wex",
                           "mkdir(\"/tmp/vsd/0/wex/db",
                           "open(\"/tmp/vsd/15",
                           "\"/tmp/vsd/0/wex/db\"",
                           "\"/tmp/.wex_semphore_path\"",
                           "oom_score_adj",
                           "\"/etc/wex/third_part_proc\"",
                           "\"/etc/wex/proc\"",
                           "\"/dev/shm/UTILS-wex-shm-001\"",
                           "running_log1"}) {
    const size_t found = trace.find(step, at);
    EXPECT_NE(std::string::npos, found) << step << " is missing behind " << trace.substr(at, 200);
    at = found == std::string::npos ? at : found;
  }
}

// ---- One at a time ----------------------------------------------------------------------------------------

TEST_F(StartUp, ASecondDaemonMakesNothingAndEndsWith255) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const std::string lock = read_file(kLockFile);
  for (const char* path : {"/qx_cfg", "/tmp/vsd_common", "/data/var", "/etc/vsd"}) {
    remove_tree(path);
  }
  mark_console();
  EXPECT_TRUE(exited_with(run({Daemon::binary()}), 255));
  EXPECT_TRUE(console_says("]wex is already running\n"));
  for (const char* path : {"/qx_cfg", "/tmp/vsd_common", "/data/var", "/etc/vsd"}) {
    EXPECT_FALSE(exists(path)) << path;
  }
  EXPECT_EQ(lock, read_file(kLockFile));
  EXPECT_EQ("Start.\r\nStart refused: /tmp/wex/wex.pid is locked by process " + text(daemon.pid()) + ".\r\n",
            running_log());
  EXPECT_TRUE(daemon.running());
  daemon.stop();
}

TEST_F(StartUp, TheLockFileHoldsThePidAndAZeroByte) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(text(daemon.pid()) + std::string(1, '\0'), read_file(kLockFile));
  EXPECT_EQ(0700u, mode_of(kLockFile));
  daemon.stop();
}

TEST_F(StartUp, ADaemonCanFollowAKilledOneAtOnce) {
  Daemon daemon;
  for (int life = 1; life <= 5; ++life) {
    ASSERT_TRUE(daemon.start()) << life;
    daemon.kill_now();
  }
}

TEST_F(StartUp, OfManyStartedAtOnceOneStays) {
  std::vector<Process> crowd(8);
  for (Process& one : crowd) {
    ASSERT_TRUE(one.start({Daemon::binary()}, {}, true));
  }
  EXPECT_TRUE(eventually([&] {
    return std::count_if(crowd.begin(), crowd.end(), [](Process& one) { return one.running(); }) == 1;
  }));
  EXPECT_TRUE(never(
      [&] { return std::none_of(crowd.begin(), crowd.end(), [](Process& one) { return one.running(); }); },
      300ms));
}

// ---- Descriptor limit -------------------------------------------------------------------------------------

std::string open_file_limit(pid_t pid) {
  rlimit limit = {};
  prlimit(pid, RLIMIT_NOFILE, nullptr, &limit);
  return text(static_cast<long>(limit.rlim_cur)) + " " + text(static_cast<long>(limit.rlim_max));
}

// prlimit(1) stands in front: the test itself keeps its limits.
Process started_with(const std::string& limits, bool traced = false) {
  std::vector<std::string> words = {"prlimit", "--nofile=" + limits};
  // A machine may refuse a higher limit, so the call is made to succeed: the test looks at what was asked
  // for.
  if (traced) {
    for (const char* word : {"strace", "-D", "-q", "-o", "/tmp/wex-limits", "-e", "trace=prlimit64,setrlimit",
                             "-e", "inject=prlimit64,setrlimit:retval=0:when=4"}) {
      words.push_back(word);
    }
  }
  words.push_back(Daemon::binary());
  Process process;
  process.start(words, {"ASAN_OPTIONS=detect_leaks=0"}, true);
  return process;
}

TEST_F(StartUp, KeepsAHardLimitThatIsHighEnough) {
  const char* const rows[][2] = {
      {"1024:4096", "2304 4096"}, {"4000:4096", "2304 4096"}, {"2304:2304", "2304 2304"}};
  for (const auto& row : rows) {
    mark_console();
    Process daemon = started_with(row[0]);
    EXPECT_TRUE(eventually([&] { return open_file_limit(daemon.pid()) == row[1]; })) << row[0];
    std::string origin = row[0];
    origin.replace(origin.find(':'), 1, ", max ");
    EXPECT_TRUE(console_says("]Origin ulimit cur " + origin + "\r\n"));
    std::string set = row[1];
    set.replace(set.find(' '), 1, ", max ");
    EXPECT_TRUE(console_says("]Set ulimit cur " + set + "\r\n"));
    daemon.kill_now();
  }
}

TEST_F(StartUp, RaisesAHardLimitThatIsTooLow) {
  Process daemon = started_with("512:1024", true);
  EXPECT_TRUE(console_says("]Origin ulimit cur 512, max 1024\r\n"));
  EXPECT_TRUE(eventually([&] {
    return read_file("/tmp/wex-limits").find("RLIMIT_NOFILE, {rlim_cur=2304, rlim_max=2304}") !=
           std::string::npos;
  })) << read_file("/tmp/wex-limits");
  daemon.kill_now();
  unlink("/tmp/wex-limits");
}

// Which call of its kind sets the limit: a sanitizer's runtime makes some of its own before.
int number_of_setting_call() {
  Daemon daemon;
  daemon.start_traced({"trace=prlimit64"});
  daemon.wait_ready(30s);
  daemon.stop();
  int number = 0;
  for (const std::string& line : lines_of(Daemon::trace())) {
    number += line.find("prlimit64(") != std::string::npos ? 1 : 0;
    if (line.find("RLIMIT_NOFILE, {rlim_cur=2304") != std::string::npos) {
      return number;
    }
  }
  ADD_FAILURE() << "the limit is never set: " << Daemon::trace();
  return 0;
}

TEST_F(StartUp, AbortsWhenTheLimitCannotBeSet) {
  const int setting = number_of_setting_call();
  remove_tree("/qx_cfg/vsd");
  mark_console();
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=prlimit64", "inject=prlimit64:error=EPERM:when=" + text(setting)}));
  EXPECT_TRUE(ended_by(daemon.wait(), SIGABRT));
  EXPECT_TRUE(console_says("[WEX]ULIMIT: Set ulimit error.\r\n")) << read_console();
  EXPECT_FALSE(exists("/qx_cfg/vsd"));
}

// No kernel gives an unlimited number of files, nor takes it.
TEST_F(StartUp, AnUnlimitedLimitIsPrintedAsMinusOne) {
  const int setting = number_of_setting_call();
  mark_console();
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced(
      {"inject=prlimit64:poke_exit=@arg4=" + std::string(32, 'f') + ":when=" + text(setting - 1)}));
  EXPECT_TRUE(ended_by(daemon.wait(15s), SIGABRT));
  EXPECT_TRUE(console_says("]Origin ulimit cur -1, max -1\r\n"));
  EXPECT_TRUE(console_says("[WEX]ULIMIT: Set ulimit error.\r\n"));
}

TEST_F(StartUp, AbortsWhenTheLimitCannotBeRead) {
  const int setting = number_of_setting_call();
  mark_console();
  Daemon daemon;
  ASSERT_TRUE(
      daemon.start_traced({"trace=prlimit64", "inject=prlimit64:error=EPERM:when=" + text(setting - 1)}));
  EXPECT_TRUE(ended_by(daemon.wait(), SIGABRT));
  EXPECT_TRUE(console_says("[WEX]ULIMIT: Get ulimit error.\r\n")) << read_console();
}

// ---- Third-part list --------------------------------------------------------------------------------------

TEST_F(StartUp, WithoutDescriptionsTheThirdPartListIsThereAndEmpty) {
  make_dirs("/etc/wex");
  write_file(kThirdPartList, "an older list\n");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(exists(kThirdPartList));
  EXPECT_EQ("", read_file(kThirdPartList));
  EXPECT_TRUE(console_says("]opendir failed, reason: No such file or directory\n"));
  daemon.stop();
}

TEST_F(StartUp, WithoutItsDirectoryThereIsNoThirdPartListAndTheDaemonRuns) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  EXPECT_FALSE(exists(kThirdPartList));
  EXPECT_TRUE(console_says("]fopen failed, reason: No such file or directory\n"));
  daemon.stop();
}

TEST_F(StartUp, EachDescriptionIsOneLineOfTheThirdPartList) {
  const texts contents = {"/usr/sbin/a -d WEX_RESTART", "/usr/sbin/b WEX_SHELL_RESTART\n", "",
                          std::string(3000, 'x')};
  std::string longest = contents[3].substr(0, 1024);
  for (size_t i = 0; i < contents.size(); ++i) {
    write_file("/etc/wex/proc/" + text(static_cast<long>(i)), contents[i]);
  }
  make_dirs("/etc/wex/proc/directory");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  texts lines = lines_of(read_file(kThirdPartList));
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ((texts{"", "", "/usr/sbin/a -d WEX_RESTART", "/usr/sbin/b WEX_SHELL_RESTART", longest}), lines);
  EXPECT_TRUE(console_says("]wex_read_file_string failed, ret = -1, reason: Is a directory\n"));
  daemon.stop();
}

// ---- Running ----------------------------------------------------------------------------------------------

texts thread_names(pid_t pid) {
  texts names;
  const std::string tasks = "/proc/" + text(pid) + "/task";
  for (const std::string& task : list_dir(tasks)) {
    std::string name = read_file(tasks + "/" + task + "/comm");
    names.push_back(name.substr(0, name.find('\n')));
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST_F(StartUp, ItsThreadsBearTheirNames) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  // The kernel keeps 15 characters.
  const texts wanted = {"wex",
                        "wex_alarm",
                        "wex_delay_resta",
                        "wex_inotify_for",
                        "wex_process_dom",
                        "wex_process_net",
                        "wex_thread_noti"};
  EXPECT_TRUE(eventually([&] { return thread_names(daemon.pid()) == wanted; }))
      << ::testing::PrintToString(thread_names(daemon.pid()));
  daemon.stop();
}

TEST_F(StartUp, ItKeepsNothingOpenThatAProgramCouldInherit) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const std::string dir = "/proc/" + text(daemon.pid()) + "/fdinfo";
  for (const std::string& fd : list_dir(dir)) {
    const std::string info = read_file(dir + "/" + fd);
    const size_t at = info.find("flags:\t");
    ASSERT_NE(std::string::npos, at);
    const long flags = strtol(info.c_str() + at + 7, nullptr, 8);
    EXPECT_NE(0, flags & O_CLOEXEC) << fd;
  }
  daemon.stop();
}

TEST_F(StartUp, AsksTheLowMemoryKillerNeverToChooseIt) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=write,openat"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  daemon.stop();
  const std::string trace = Daemon::trace();
  const size_t opened = trace.find("\"/proc/" + text(daemon.pid()) + "/oom_score_adj\"");
  ASSERT_NE(std::string::npos, opened);
  EXPECT_NE(std::string::npos, trace.find("\"-1000\\n\\0\", 7)", opened)) << trace.substr(opened, 300);
}

TEST_F(StartUp, SigintEndsItAndOtherSignalsDoNot) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (int number = 1; number <= 64; ++number) {
    const bool fatal = number == SIGINT || number == SIGKILL || number == SIGSTOP;
    const bool fault = number == SIGSEGV || number == SIGBUS || number == SIGFPE || number == SIGILL;
    if (!fatal && !fault && number != 32 && number != 33) {  // the library keeps two for itself
      daemon.send(number);
    }
  }
  EXPECT_TRUE(never([&] { return !daemon.running(); }, 300ms));
  EXPECT_TRUE(ended_by(daemon.stop(), SIGINT));
}

// ---- What fails -------------------------------------------------------------------------------------------

TEST_F(StartUp, WithoutTheAliveTableItWritesExitAndNothingElse) {
  ASSERT_EQ(0, mount("unit", "/dev/shm", "tmpfs", MS_RDONLY, nullptr));
  Daemon daemon;
  const bool started = daemon.start_traced({"trace=clone3"});
  EXPECT_TRUE(started && exited_with(daemon.wait(30s), 0));
  EXPECT_EQ(0, umount("/dev/shm"));
  EXPECT_EQ("Exit.\r\n", running_log());
  EXPECT_TRUE(console_says("]fail to init alive_info!!!\n"));
  EXPECT_EQ(std::string::npos, Daemon::trace().find("clone3(")) << "a thread was started";
}

namespace {

// The threads that the main thread has tried to create, and the ids of those that came to be.
struct creations {
  size_t calls = 0;
  std::vector<std::string> threads;
};

creations creations_of(pid_t daemon, const std::string& trace) {
  const std::string own = text(daemon) + " ";  // the control server makes a thread of its own
  creations made;
  for (const std::string& line : lines_of(trace)) {
    if (line.compare(0, own.size(), own) != 0 || line.find("clone3") == std::string::npos) {
      continue;
    }
    made.calls += line.find(" clone3(") != std::string::npos ? 1 : 0;
    const size_t result = line.rfind(" = ");
    if (result != std::string::npos && atoi(line.c_str() + result + 3) > 0) {
      made.threads.push_back(line.substr(result + 3));
    }
  }
  return made;
}

}  // namespace

TEST_F(StartUp, AThreadThatCannotBeCreatedEndsTheDaemonInGoodOrder) {
  // The first thread created is the one that takes the alarm; the five workers follow.
  const char* const lines[] = {
      "Fail to create wex_process_netlink thread: ", "Fail to create wex_process_domain thread: ",
      "Fail to create wex_notifer_run: ", "Fail to create wex_inotify_fork_error thread: ",
      "Fail to create wex_delay_restart thread: "};
  const std::string ended[] = {
      "Thread \"wex_process_netlink\" exit, wex will be restart. res=0, Success(0)\r\n",
      "Thread \"wex_process_domain\" exit, wex will be restart. res=0, Success(0)\r\n"};
  for (int worker = 1; worker <= 5; ++worker) {
    unlink(kRunningLog1);
    Daemon daemon;
    // The threads that exist are delayed, so that a main thread that does not wait for them would end first.
    ASSERT_TRUE(daemon.start_traced({"trace=clone3,write,sched_setscheduler",
                                     "inject=clone3:error=EAGAIN:when=" + text(worker + 1),
                                     "inject=sched_setscheduler:delay_enter=300000"}));
    EXPECT_TRUE(exited_with(daemon.wait(15s), 0)) << worker << "\n" << read_console();
    const std::string log = running_log();
    EXPECT_EQ(0u, log.find("Start.\r\n")) << log;
    EXPECT_NE(std::string::npos,
              log.find(std::string(lines[worker - 1]) + "Resource temporarily unavailable\n"))
        << worker << "\n"
        << log;
    EXPECT_EQ(log.size() - 7, log.find("Exit.\r\n")) << log;
    for (int joined = 1; joined <= 2; ++joined) {
      EXPECT_EQ(joined < worker, log.find(ended[joined - 1]) != std::string::npos) << worker << "\n" << log;
    }
    const creations made = creations_of(daemon.pid(), Daemon::trace());
    EXPECT_EQ(static_cast<size_t>(worker) + 1, made.calls) << "a later thread was tried";
  }
}

namespace {

// The number of the first line of this process or thread that has the text in it.
size_t place_of(const std::string& trace, const std::string& id, const std::string& wanted) {
  size_t place = 0;
  for (const std::string& line : lines_of(trace)) {
    if (line.compare(0, id.size() + 1, id + " ") == 0 && line.find(wanted) != std::string::npos) {
      return place;
    }
    ++place;
  }
  ADD_FAILURE() << id << " has no " << wanted;
  return place;
}

}  // namespace

// It reads the registries that the end of the daemon empties. Its first look takes its time here.
TEST_F(StartUp, TheWatchdogHasEndedBeforeADaemonThatLacksAThreadDoes) {
  for (int worker = 4; worker <= 5; ++worker) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start_traced({"trace=clone3,access,?faccessat,write",
                                     "inject=clone3:error=EAGAIN:delay_enter=300000:when=" + text(worker + 1),
                                     "inject=access,?faccessat:delay_enter=700000:when=1"}));
    EXPECT_TRUE(exited_with(daemon.wait(30s), 0)) << worker << "\n" << read_console();
    const std::string trace = Daemon::trace();
    const std::vector<std::string> made = creations_of(daemon.pid(), trace).threads;
    ASSERT_LT(3u, made.size()) << trace;
    const size_t ended = place_of(trace, made[3], "+++ exited");
    EXPECT_LT(place_of(trace, made[3], "access("), ended) << trace;
    EXPECT_LT(ended, place_of(trace, text(daemon.pid()), "Exit.")) << trace;
  }
}

// Any user may bind a socket to the number that the daemon's process will have.
TEST_F(StartUp, APortThatIsTakenDoesNotKeepTheMonitorFromListening) {
  constexpr int kTaken = 600;
  std::vector<unique_fd> thieves;
  const int last = atoi(read_file("/proc/sys/kernel/ns_last_pid").c_str());
  for (int pid = last + 1; pid <= last + kTaken; ++pid) {
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<uint32_t>(pid);
    thieves.emplace_back(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
    bind(thieves.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=bind"}));
  EXPECT_TRUE(eventually(
      [] {
        const std::string calls = Daemon::trace();
        const size_t refused = calls.find("EADDRINUSE");
        return refused != std::string::npos && calls.find("nl_pid=0, ", refused) != std::string::npos;
      },
      30s))
      << Daemon::trace();
  const std::vector<std::string> options = {"--register=RESTART", "--ready=/tmp/ready", "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 20s));
  const pid_t first = service.pid();
  service.kill_now();
  EXPECT_GT(wait_for_actor(options, first, 30s), 0) << "nobody heard of its end\n" << read_console();
}

TEST_F(StartUp, AMonitorThatCannotWorkTellsWhyAndEndsTheDaemon) {
  struct {
    const char* injection;
    const char* complaint;
    const char* line;
  } const rows[] = {
      {"inject=sched_setscheduler:error=EPERM:when=1", "set priority fail: Operation not permitted",
       "res=-1, Operation not permitted(1)\r\n"},
      {"inject=socket:error=EPROTONOSUPPORT:when=1", "socket sk_nl fail: Protocol not supported",
       "res=-2, Protocol not supported(93)\r\n"},
      {"inject=bind:error=EADDRINUSE:when=1..2", "binding sk_nl fail: Address already in use",
       "res=-3, Address already in use(98)\r\n"},
      {"inject=sendto:error=ECONNREFUSED", "send proc connector msg fail: Connection refused",
       "res=-4, Connection refused(111)\r\n"},
  };
  for (const auto& row : rows) {
    mark_console();
    unlink(kRunningLog1);
    Daemon daemon;
    ASSERT_TRUE(daemon.start_traced({row.injection}));
    EXPECT_TRUE(exited_with(daemon.wait(15s), 0)) << row.injection << "\n" << read_console();
    EXPECT_TRUE(console_says(std::string("]wex_process_netlink: ") + row.complaint + "\n")) << read_console();
    const std::string log = running_log();
    EXPECT_NE(std::string::npos,
              log.find("Thread \"wex_process_netlink\" exit, wex will be restart. " + std::string(row.line)))
        << row.injection << "\n"
        << log;
    EXPECT_EQ(log.size() - 7, log.find("Exit.\r\n")) << log;
  }
}

// Whatever a thread still does must be done before the registry is destroyed and the last line written.
TEST_F(StartUp, TheMainThreadWaitsForWatchdogServerAndMonitorToEnd) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=prctl,write,exit,sendto", "inject=exit:delay_enter=500000",
                                   "inject=sendto:error=ECONNREFUSED"}));  // the monitor subscribes in vain
  EXPECT_TRUE(exited_with(daemon.wait(30s), 0)) << read_console();
  const std::string trace = Daemon::trace();
  const size_t last_line = trace.find("Exit.\\r\\n\"");
  ASSERT_NE(std::string::npos, last_line) << trace;
  for (const char* const name : {"wex_thread_noti", "wex_process_dom", "wex_process_net"}) {
    std::smatch thread;
    ASSERT_TRUE(
        std::regex_search(trace, thread, std::regex("([0-9]+) +prctl\\(PR_SET_NAME, \"" + std::string(name))))
        << name << "\n"
        << trace;
    std::smatch end;  // numbers are padded to five characters
    ASSERT_TRUE(std::regex_search(trace, end, std::regex(thread[1].str() + " +\\+\\+\\+ exited with 0")))
        << name << "\n"
        << trace;
    EXPECT_LT(static_cast<size_t>(end.position()), last_line) << name << "\n" << trace;
  }
}

// The second wait of each thread fails. Sometimes the fork watcher, which ends the daemon, too, reaches its
// second wait before the monitor does; so there are several tries.
TEST_F(StartUp, AMonitorThatCannotWaitForEventsTellsWhyAndEndsTheDaemon) {
  const std::string line =
      "Thread \"wex_process_netlink\" exit, wex will be restart. res=-5, Cannot allocate memory(12)\r\n";
  for (int tries = 0; tries < 40 && running_log().find(line) == std::string::npos; ++tries) {
    mark_console();
    Daemon daemon;
    ASSERT_TRUE(daemon.start_traced({"inject=poll:error=ENOMEM:when=2"}));
    EXPECT_TRUE(daemon.wait(15s).has_value()) << read_console();
  }
  EXPECT_NE(std::string::npos, running_log().find(line)) << running_log();
  EXPECT_TRUE(console_says("]wex_process_netlink: select sk_nl fail: Cannot allocate memory\n"));
}

TEST_F(StartUp, AThreadThatCannotBeNamedEndsAloneAndInSilence) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=prctl:error=EPERM:when=1"}));
  EXPECT_TRUE(console_says("]wex_process_netlink: Operation not permitted"));
  EXPECT_TRUE(console_says("]wex_process_domain: Operation not permitted"));
  EXPECT_TRUE(never([&] { return !daemon.running(); }, 500ms)) << "the flag was raised";
  EXPECT_FALSE(exists(kControlSocket));
  EXPECT_EQ("Start.\r\n", running_log());
  daemon.stop();
}

TEST_F(StartUp, WithoutItsSemaphoreTheDaemonSaysSoAndRuns) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"inject=semget:error=ENOSPC"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  EXPECT_TRUE(console_says("]fail to init wex semaphore!!!\n"));
  EXPECT_EQ(0u, running_log().find("Start.\r\n"));
  daemon.stop();
}

TEST_F(StartUp, ItHoldsTheDirectoryItsLockIsIn) {
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const std::string files = "/proc/" + text(daemon.pid()) + "/fd";
  size_t found = 0;
  for (const std::string& fd : list_dir(files)) {
    char target[64] = {};
    found += readlink((files + "/" + fd).c_str(), target, sizeof target - 1) > 0 &&
                     std::string(target) == "/tmp/wex"
                 ? 1
                 : 0;
  }
  EXPECT_LE(1u, found) << "its inode number must not be given to another one";
  daemon.stop();
}

TEST_F(StartUp, PlantedLinksInItsWayAreNotFollowed) {
  write_file("/data/victim", "precious");
  ASSERT_EQ(0, symlink("/data/victim", "/tmp/victim-link"));
  make_dirs("/tmp/wex");
  ASSERT_EQ(0, symlink("/data/victim", "/tmp/wex/wex.pid"));
  ASSERT_EQ(0, lchown("/tmp/wex/wex.pid", 1234, 1234));
  Daemon daemon;
  EXPECT_TRUE(daemon.start());
  daemon.stop();
  EXPECT_EQ("precious", read_file("/data/victim"));
  unlink("/tmp/victim-link");
  unlink("/data/victim");
}

}  // namespace

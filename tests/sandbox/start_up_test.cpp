// Start-up: what is made, in which order, with which modes; who may start; which threads run.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "start_up_world.h"
#include "wex_limits.h"

using namespace start_up;

namespace {

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
  constexpr char kRelative[] = "(mkdir|open|fchmod)at\\([0-9]+<(/[^>]*)>, \"([^/\"][^\"]*)\"";
  return replace_matches(replace_matches(trace, kRelative, "$1(\"$2/$3\""), "\\(\"//", "(\"/");
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
  int seen = 0;
  for (const std::string& fd : list_dir(dir)) {
    const std::string info = read_file(dir + "/" + fd);
    const size_t at = info.find("flags:\t");
    if (at == std::string::npos) {
      continue;  // closed meanwhile
    }
    ++seen;
    const long flags = strtol(info.c_str() + at + 7, nullptr, 8);
    EXPECT_NE(0, flags & O_CLOEXEC) << fd;
  }
  EXPECT_GE(seen, 8);
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

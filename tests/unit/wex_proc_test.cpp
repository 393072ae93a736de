// Starting programs: words, domains, the search for detached programs, throttle and park, standard
// descriptors, the fork-failure marker, priorities. Real forks; only the clock belongs to the test.
#include "wex_proc.h"
#include "linked_name.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "chain_lock.h"
#include "dir_walk.h"
#include "failing_calls.h"
#include "registry_files.h"
#include "text_buffer.h"
#include "wex_chain.h"
#include "wex_child.h"
#include "wex_clock.h"
#include "wex_core_stop.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_test.h"

namespace {
int32_t g_now = 1000;
int g_platform_result = 0;
void (*g_platform_work)() = nullptr;
std::vector<std::string> g_system_log;
int g_directories_refused = 0;   // the next ones to be read
bool g_pauses_left_out = false;  // of the search
}  // namespace

// Their numbers where there are several of them.
#ifdef SYS_setgroups32
constexpr long kSetGroupsCall = SYS_setgroups32;
#else
constexpr long kSetGroupsCall = SYS_setgroups;
#endif
#ifdef SYS_newfstatat
constexpr long kStatCall = SYS_newfstatat;
#else
constexpr long kStatCall = SYS_fstatat64;
#endif

extern "C" DIR* __real_fdopendir(int fd);
extern "C" DIR* __wrap_fdopendir(int fd) {
  if (g_directories_refused > 0) {
    --g_directories_refused;
    errno = ENOENT;
    return nullptr;
  }
  return __real_fdopendir(fd);
}

extern "C" int LINKED_NANOSLEEP(__real)(clockid_t clock, int flags, const timespec* time, timespec* left);
extern "C" int LINKED_NANOSLEEP(__wrap)(clockid_t clock, int flags, const timespec* time, timespec* left) {
  return g_pauses_left_out ? 0 : LINKED_NANOSLEEP(__real)(clock, flags, time, left);
}

// At link level: the clock is the test's, and so is the device's system log.
extern "C" int32_t wex_clock_now(void) {
  return g_now;
}

extern "C" void printk_syslog_ext(int severity, const char* facility, const char* mnemonic, int flag,
                                  const char* format, ...) {
  char text[5000];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  g_system_log.push_back(std::to_string(severity) + " " + facility + " " + mnemonic + " " +
                         std::to_string(flag) + " " + text);
}

extern "C" int fs_set_vsd_envs(int /*vsd*/, int /*old_pid*/) {
  if (g_platform_work != nullptr) {
    g_platform_work();
  }
  return g_platform_result;
}

namespace {

using namespace wex_test;

std::vector<std::string> words_of(const std::string& command) {
  auto words = std::make_unique<child_words>();
  memset(static_cast<void*>(words.get()), 0xa5, sizeof *words);
  split_words(command.c_str(), words.get());
  std::vector<std::string> found;
  for (int i = 0; words->argv[i] != nullptr; ++i) {
    found.push_back(words->argv[i]);
  }
  EXPECT_EQ(static_cast<int>(found.size()), words->count);
  return found;
}

using texts = std::vector<std::string>;

TEST(Words, ArePartedByAnyNumberOfBlanksAndTabs) {
  struct {
    const char* command;
    texts words;
  } const rows[] = {{"", {}},
                    {" \t ", {}},
                    {"/bin/app", {"/bin/app"}},
                    {"/bin/app -d 3", {"/bin/app", "-d", "3"}},
                    {" \t/bin/app\t\t-d  3 \t", {"/bin/app", "-d", "3"}},
                    {"a\nb", {"a\nb"}}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.words, words_of(row.command)) << row.command;
  }
}

TEST(Words, BehindTheFourteenthAreIgnored) {
  std::string twenty;
  texts first;
  for (int i = 1; i <= 20; ++i) {
    twenty += "w" + std::to_string(i) + " ";
    if (i <= 14) {
      first.push_back("w" + std::to_string(i));
    }
  }
  EXPECT_EQ(first, words_of(twenty));
}

TEST(Words, AreTakenFromTheFirst4095Characters) {
  const texts found = words_of(std::string(4094, 'a') + " " + "tail");
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(std::string(4094, 'a'), found[0]);
  EXPECT_EQ(texts{std::string(4095, 'a')}, words_of(std::string(9000, 'a')));
}

TEST(Trim, TakesTrailingBlanksAndTabsOnly) {
  const char* const rows[][2] = {{"", ""},      {" \t ", ""},     {"a", "a"},
                                 {"a \t", "a"}, {" a b", " a b"}, {"a\n ", "a\n"}};
  for (const auto& row : rows) {
    char text[16];
    wex_copy_text(text, sizeof text, row[0]);
    rtrim(text);
    EXPECT_STREQ(row[1], text);
  }
}

// ---- The world --------------------------------------------------------------------------------------------

std::string domain_dir(int domain) {
  return "/tmp/vsd/" + std::to_string(domain) + "/wex";
}
std::string run_dir(int domain) {
  return "/data/var/run/vsd/" + std::to_string(domain);
}

void make_domain(int domain) {
  make_dirs(domain_dir(domain) + "/db");
  make_dirs(run_dir(domain));
}

struct ProcWorld : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    if (HasFatalFailure()) {
      return;
    }
    g_now = 1000;
    g_platform_result = 0;
    g_platform_work = nullptr;
    g_system_log.clear();
    make_dirs("/tmp/wex");
    make_dirs("/etc/wex");
    wex_parse_dbg_file();
    wex_init_chains(&wex_chains);
    signal(SIGALRM, SIG_IGN);
  }
  void TearDown() override {
    alarm(0);
    g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
    WexWorld::TearDown();
  }
};

std::unique_ptr<wex_pid> record_of(const std::string& command, int32_t pid = 0, int32_t action = RESPAWN) {
  auto rec = std::make_unique<wex_pid>();
  memset(static_cast<void*>(rec.get()), 0, sizeof *rec);
  rec->pid = pid;
  rec->action = action;
  wex_copy_text(rec->process, sizeof rec->process, command.c_str());
  return rec;
}

struct spawned {
  int32_t result;
  int32_t out_pid;
};

spawned spawn(wex_pid* rec, int32_t (*spawner)(wex_pid*, int32_t*) = wex_spawn) {
  chain_lock hold(wex_chains);
  spawned got = {0, 12345};
  got.result = spawner(rec, &got.out_pid);
  return got;
}

// Runs `body` in a child; what it returned, or -1 when it did not end by itself.
int in_child(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int ended(int32_t pid) {
  int status = -1;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// ---- Domains ----------------------------------------------------------------------------------------------

TEST_F(ProcWorld, AProcessIsFoundInTheLowestDomainThatHasItsFlagFile) {
  make_domain(3);
  make_domain(15);
  write_file(domain_dir(3) + "/812", "");
  write_file(domain_dir(15) + "/812", "");
  write_file(domain_dir(15) + "/900x", "");
  EXPECT_EQ(3, find_app(812));
  EXPECT_EQ(15, find_app(900));
  EXPECT_EQ(-1, find_app(81));
}

TEST_F(ProcWorld, AFlagFileIsFoundWithoutReadingItsCrowdedDirectory) {
  make_domain(3);
  write_file(domain_dir(3) + "/812", "");
  EXPECT_EQ(3, run_failing({"getdents64:error=EIO"}, [] { return find_app(812); }));
}

TEST_F(ProcWorld, TheMainSystemHasNoFlagFiles) {
  make_domain(0);
  write_file(domain_dir(0) + "/812", "");
  EXPECT_EQ(-1, find_app(812));
}

TEST_F(ProcWorld, AFlagFileIsMadeForThePidAndTheDirectoryMovesThere) {
  make_domain(2);
  umask(0);
  EXPECT_EQ(0, save_proc_info(2, 4711));
  umask(022);
  EXPECT_EQ(0754u, mode_of(domain_dir(2) + "/4711"));
  EXPECT_EQ("", read_file(domain_dir(2) + "/4711"));
  char where[64];
  EXPECT_STREQ(run_dir(2).c_str(), getcwd(where, sizeof where));
}

TEST_F(ProcWorld, WithoutARunDirectoryNoFlagFileIsMade) {
  make_dirs(domain_dir(2));
  EXPECT_EQ(-ENOENT, save_proc_info(2, 4711));
  EXPECT_FALSE(exists(domain_dir(2) + "/4711"));
  char where[64];
  EXPECT_STREQ("/", getcwd(where, sizeof where));
}

TEST_F(ProcWorld, SomebodysLinkInPlaceOfTheRunDirectoryIsNotEntered) {
  make_dirs(domain_dir(2));
  make_dirs("/data/var/run/vsd");
  ASSERT_EQ(0, symlink("/etc", run_dir(2).c_str()));
  ASSERT_EQ(0, lchown(run_dir(2).c_str(), 1000, 1000));
  EXPECT_EQ(-ELOOP, save_proc_info(2, 4711));
  EXPECT_FALSE(exists(domain_dir(2) + "/4711"));
  char where[64];
  EXPECT_STREQ("/", getcwd(where, sizeof where));
  EXPECT_EQ(0, in_child([] {
              set_proc_env(2, 812);
              char place[64] = "";
              return getcwd(place, sizeof place) != nullptr && std::string(place) == "/" ? 0 : 1;
            }));
}

std::string domain_report() {
  std::string report;
  for (const char* name : {"QX_CFG_DIR", "OVIX_DIR", "DATA_OVIX_DIR", "DATA_OVIX_DIR2", "TMPDIR", "KEPT"}) {
    const char* const value = getenv(name);
    report += std::string(name) + "=" + (value != nullptr ? value : "-") + "\n";
  }
  char where[64] = "?";
  report += std::string("cwd=") + getcwd(where, sizeof where) + "\n";
  gid_t groups[8];
  const int count = getgroups(8, groups);
  for (int i = 0; i < count; ++i) {
    report += "group=" + std::to_string(groups[i]) + "\n";
  }
  return report;
}

std::string in_domain(int domain, int32_t old_pid) {
  EXPECT_EQ(0, in_child([=] {
              setenv("KEPT", "yes", 1);
              setenv("OVIX_DIR", "/elsewhere", 1);
              wex_create_std_fd(0);
              set_proc_env(domain, old_pid);
              write_file("/tmp/wex/report", domain_report());
              return 0;
            }));
  return read_file("/tmp/wex/report");
}

TEST_F(ProcWorld, AProgramOfADomainGetsItsEnvironmentDirectoryAndGroup) {
  make_domain(15);
  for (const char* name : {"/812", "/812abc", "/813", "/8120"}) {
    write_file(domain_dir(15) + name, "");
  }
  EXPECT_EQ(
      "QX_CFG_DIR=/qx_cfg/vsd/15\nOVIX_DIR=/ovix/vsd/15\nDATA_OVIX_DIR=/data/.ovix/vsd/15\nDATA_OVIX_DIR2=-\n"
      "TMPDIR=/tmp/vsd/15\nKEPT=yes\ncwd=/data/var/run/vsd/15\ngroup=4500\n",
      in_domain(15, 812));
  EXPECT_EQ((texts{"813", "8120", "db"}).size(), list_dir(domain_dir(15)).size());
  EXPECT_TRUE(exists(domain_dir(15) + "/813"));
  EXPECT_TRUE(exists(domain_dir(15) + "/8120"));
  EXPECT_TRUE(exists(domain_dir(15) + "/db"));
  EXPECT_TRUE(console_says("]setgroups success\n"));
}

TEST_F(ProcWorld, ASecondDataDiskIsNamedOnlyWhereItIs) {
  make_domain(1);
  make_dirs("/data2");
  const std::string report = in_domain(1, 812);
  EXPECT_NE(std::string::npos, report.find("DATA_OVIX_DIR2=/data2/.ovix/vsd/1\n")) << report;
  EXPECT_NE(std::string::npos, report.find("group=3100\n")) << report;
}

TEST_F(ProcWorld, WhenThePlatformRefusesNothingIsSet) {
  make_domain(1);
  write_file(domain_dir(1) + "/812", "");
  g_platform_result = -1;
  const std::string report = in_domain(1, 812);
  EXPECT_NE(std::string::npos, report.find("TMPDIR=-\n")) << report;
  EXPECT_NE(std::string::npos, report.find("OVIX_DIR=/elsewhere\n")) << report;
  EXPECT_NE(std::string::npos, report.find("cwd=/\n")) << report;
  EXPECT_TRUE(exists(domain_dir(1) + "/812"));
  EXPECT_TRUE(console_says("]set_proc_env: fs set vsd envs fail\n"));
  EXPECT_EQ(std::string::npos, read_console().find("setgroups success"));
}

TEST_F(ProcWorld, WithoutARunDirectoryTheEnvironmentIsAllThatIsSet) {
  make_dirs(domain_dir(1));
  write_file(domain_dir(1) + "/812", "");
  const std::string report = in_domain(1, 812);
  EXPECT_NE(std::string::npos, report.find("TMPDIR=/tmp/vsd/1\n")) << report;
  EXPECT_NE(std::string::npos, report.find("cwd=/\n")) << report;
  EXPECT_EQ(std::string::npos, report.find("group=3100\n")) << report;
  EXPECT_TRUE(exists(domain_dir(1) + "/812"));
}

TEST_F(ProcWorld, AGroupThatCannotBeSetKeepsNothingElseFromTheProgram) {
  make_domain(1);
  write_file(domain_dir(1) + "/812", "");
  EXPECT_EQ(0, in_child([] {
              if (!refuse_call(kSetGroupsCall, 0, 1, EPERM)) {
                return 1;
              }
              wex_create_std_fd(0);
              set_proc_env(1, 812);
              write_file("/tmp/wex/report", domain_report());
              return 0;
            }));
  const std::string report = read_file("/tmp/wex/report");
  EXPECT_NE(std::string::npos, report.find("TMPDIR=/tmp/vsd/1\n")) << report;
  EXPECT_NE(std::string::npos, report.find("cwd=/data/var/run/vsd/1\n")) << report;
  EXPECT_EQ(std::string::npos, report.find("group=3100\n")) << report;
  EXPECT_FALSE(exists(domain_dir(1) + "/812"));
  EXPECT_EQ(std::string::npos, read_console().find("setgroups success"));
}

TEST_F(ProcWorld, ManyFlagFilesDoNotHideTheOldOne) {
  make_domain(1);
  for (int pid = 100000; pid < 100400; ++pid) {
    write_file(domain_dir(1) + "/" + std::to_string(pid), "");
  }
  in_domain(1, 100399);
  EXPECT_FALSE(exists(domain_dir(1) + "/100399"));
  EXPECT_EQ(400u, list_dir(domain_dir(1)).size());  // 399 and the directory of the database files
}

// ---- Looking for a process --------------------------------------------------------------------------------

// One look. Any process of the machine that ends meanwhile cuts it short, and then it says nothing.
int look_for(char* command, int32_t* found) {
  int result = -1;
  for (int look = 0; result < 0 && look < 1000; ++look) {
    result = wex_proc_to_pid(command, found, 0);
  }
  return result;
}

TEST_F(ProcWorld, ARunningProgramIsFoundByItsExactCommandLine) {
  Process sleeper;
  ASSERT_TRUE(sleeper.start({"/bin/sleep", "4711.25"}));
  ASSERT_TRUE(eventually([&] { return command_line(sleeper.pid()) == "/bin/sleep 4711.25"; }));
  const std::string program = program_of(sleeper.pid());
  int32_t found = 0;
  char command[256];
  wex_copy_text(command, sizeof command, (program + " 4711.25 \t ").c_str());
  EXPECT_EQ(1, look_for(command, &found));
  EXPECT_EQ(sleeper.pid(), found);
  EXPECT_EQ(program + " 4711.25", command);
  found = 0;
  wex_copy_text(command, sizeof command, (program + " 4711.2").c_str());
  EXPECT_EQ(0, look_for(command, &found));
  EXPECT_EQ(0, found);
}

TEST_F(ProcWorld, ASearchWithoutTextOrResultIsRefused) {
  char command[] = "x";
  int32_t found = 0;
  EXPECT_EQ(-1, wex_proc_to_pid(nullptr, &found, 0));
  EXPECT_EQ(-1, wex_proc_to_pid(command, nullptr, 0));
}

TEST_F(ProcWorld, ALookThatMustStopGivesItsNegatedReason) {
  char command[] = "/no/such/program";
  int32_t found = 0;
  EXPECT_EQ(EMFILE, in_child([&] {
              const rlimit none = {0, 0};
              setrlimit(RLIMIT_NOFILE, &none);
              return -wex_proc_to_pid(command, &found, 0);
            }));
  constexpr unsigned kFlagsOfStat = 3;  // 0 where an entry is looked at by its name
  EXPECT_EQ(EIO, in_child([&] {
              return refuse_call(kStatCall, kFlagsOfStat, 0, EIO) ? -wex_proc_to_pid(command, &found, 0) : 0;
            }));
}

TEST_F(ProcWorld, FurtherLooksComeAfterGrowingPauses) {
  char command[] = "/no/such/program";
  int32_t found = 0;
  const auto start = std::chrono::steady_clock::now();
  wex_proc_to_pid(command, &found, 3);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(0, found);
  EXPECT_GE(took, 600ms);
  EXPECT_LT(took, 2s);
}

TEST_F(ProcWorld, TheLastWordOfAThirdPartLineIsGivenWithItsLineEnd) {
  write_file("/etc/wex/third_part_proc", "/usr/sbin/app -d WEX_RESTART\n/usr/sbin/lonely\n");
  char word[32];
  EXPECT_EQ(1, wex_proc_in_wexdb2(kThirdPartList, "/usr/sbin/app", word, sizeof word));
  EXPECT_STREQ("WEX_RESTART\n", word);
  EXPECT_EQ(1, wex_proc_in_wexdb2(kThirdPartList, "/usr/sbin/lonely", word, sizeof word));
  EXPECT_EQ(0, wex_proc_in_wexdb2(kThirdPartList, "/usr/sbin/nobody", word, sizeof word));
  EXPECT_EQ(0, wex_proc_in_wexdb2("/etc/wex/no_list", "/usr/sbin/app", word, sizeof word));
  char small[4];
  EXPECT_EQ(1, wex_proc_in_wexdb2(kThirdPartList, "/usr/sbin/app", small, sizeof small));
  EXPECT_STREQ("WEX", small);
}

// ---- Spawning ---------------------------------------------------------------------------------------------

TEST_F(ProcWorld, AProgramIsStartedAndItsPidGiven) {
  const auto rec = record_of("/bin/sh -c 'exit\t7'");  // words are not unquoted: the shell complains and ends
  const spawned got = spawn(rec.get());
  EXPECT_GT(got.result, 0);
  EXPECT_EQ(got.result, got.out_pid);
  EXPECT_GT(ended(got.result), 0);
  EXPECT_EQ(0, rec->pid) << "the caller stores the new pid";
  EXPECT_EQ(WEX_FLAG_SELF_CHECKING, static_cast<int>(rec->flags));
  EXPECT_EQ(1, rec->check_count);
  EXPECT_EQ(1000, rec->check_start);
}

TEST_F(ProcWorld, AProgramIsSearchedInThePath) {
  const spawned got = spawn(record_of("true").get());
  EXPECT_EQ(0, ended(got.result));
}

TEST_F(ProcWorld, AProgramThatCannotBeExecutedEndsWithStatusOne) {
  for (const char* command : {"/no/such/program", "/etc/passwd", "", " \t ", "/"}) {
    const spawned got = spawn(record_of(command).get());
    EXPECT_GT(got.result, 0) << command;
    EXPECT_EQ(1, ended(got.result)) << command;
  }
  EXPECT_TRUE(console_says("]HA_RESTART execvp fail, error = No such file or directory.\n"));
  EXPECT_TRUE(console_says("]HA_RESTART execvp fail, error = Permission denied.\n"));
}

// ---- Platform code that hangs or stays behind -------------------------------------------------------------

void hang() {
  for (;;) {
    pause();
  }
}

// As a library does that leaves a helper running: it holds all that was open, and so the daemon's pipe.
void leave_a_helper() {
  const pid_t helper = fork();
  if (helper == 0) {
    hang();
  }
  write_file("/tmp/wex/helper", std::to_string(helper));
}

TEST_F(ProcWorld, AChildThatHangsInThePlatformIsKilledAfterTheLimit) {
  make_domain(2);
  write_file(domain_dir(2) + "/812", "");
  g_platform_work = hang;
  const auto start = std::chrono::steady_clock::now();
  const spawned got = spawn(record_of("/bin/true", 812).get());
  const auto took = std::chrono::steady_clock::now() - start;
  ASSERT_GT(got.result, 0);
  int status = 0;
  ASSERT_EQ(got.result, waitpid(got.result, &status, 0));
  EXPECT_TRUE(ended_by(status, SIGKILL)) << "its exit is what brings the program back";
  EXPECT_GE(took, milliseconds(kPlatformTimeLimitMs));
  EXPECT_LT(took, milliseconds(kPlatformTimeLimitMs + 5000));
}

TEST_F(ProcWorld, AProgramThatRunsIsNotKilledForWhatThePlatformLeftBehind) {
  make_domain(2);
  write_file(domain_dir(2) + "/812", "");
  g_platform_work = leave_a_helper;
  const auto start = std::chrono::steady_clock::now();
  const spawned got = spawn(record_of("/bin/sleep 1000", 812).get());
  const auto took = std::chrono::steady_clock::now() - start;
  ASSERT_GT(got.result, 0);
  const pid_t helper = static_cast<pid_t>(atoi(read_file("/tmp/wex/helper").c_str()));
  ASSERT_GT(helper, 0);
  EXPECT_LT(took, milliseconds(kPlatformTimeLimitMs)) << "waited for the pipe that the helper holds";
  EXPECT_TRUE(never([&] { return !is_alive(got.result); }, 300ms));
  EXPECT_NE(program_of(getpid()), program_of(got.result));
  wex_test::send_signal(helper, SIGKILL);
  wex_test::send_signal(got.result, SIGKILL);
  EXPECT_EQ(-1, ended(got.result));
}

TEST_F(ProcWorld, TheFifthRestartWithinTheWindowIsParkedWithoutAFork) {
  const auto rec = record_of("/bin/true", 812);
  for (int restart = 1; restart <= 4; ++restart) {
    const spawned got = spawn(rec.get());
    EXPECT_EQ(0, ended(got.result)) << restart;
    EXPECT_EQ(restart, rec->check_count);
  }
  EXPECT_TRUE(g_system_log.empty());
  g_now = 1119;
  const spawned got = spawn(rec.get());
  EXPECT_EQ(-1, got.result);
  EXPECT_EQ(-1, got.out_pid);
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "something was forked";
  EXPECT_EQ(WEX_FLAG_WAITING, static_cast<int>(rec->flags));
  EXPECT_EQ(1, rec->alarm_wait_flag);
  EXPECT_EQ(1119, rec->check_start);
  EXPECT_EQ(5, rec->check_count);
  EXPECT_EQ(812, rec->pid);
  EXPECT_EQ(
      texts{"5 HA HA_WAIT_SELF_CHECK 1 Task: true had checked more than 5 times. After 5 mimutes, task will "
            "finish self-checking.\n"},
      g_system_log);
  const unsigned left = alarm(0);
  EXPECT_GE(left, 299u);
  EXPECT_LE(left, 300u);
}

TEST_F(ProcWorld, ARestart120SecondsAfterTheFirstOpensANewWindow) {
  const auto rec = record_of("/bin/true");
  for (int restart = 1; restart <= 4; ++restart) {
    ended(spawn(rec.get()).result);
  }
  g_now = 1120;
  ended(spawn(rec.get()).result);
  EXPECT_EQ(1, rec->check_count);
  EXPECT_EQ(1120, rec->check_start);
}

TEST_F(ProcWorld, WhileTheDeviceMonitorWorksNothingIsParked) {
  write_file("/etc/dev_mon", "");
  const auto rec = record_of("/bin/true");
  for (int restart = 1; restart <= 12; ++restart) {
    const spawned got = spawn(rec.get());
    EXPECT_GT(got.result, 0) << restart;
    EXPECT_EQ(0, ended(got.result)) << restart;
  }
  EXPECT_EQ(0, rec->alarm_wait_flag);
}

TEST_F(ProcWorld, WhileTheDeviceMonitorWorksNoScriptIsParked) {
  write_file("/etc/dev_mon", "");
  write_file("/etc/cmdmap/gadget.sh", "exit 0\n");
  const auto rec = record_of("/opt/bin/gadget", 0, SHELL_RESTART);
  for (int restart = 1; restart <= 6; ++restart) {
    const spawned got = spawn(rec.get(), wex_shell_spawn);
    ASSERT_GT(got.result, 0) << restart;
    EXPECT_EQ(0, ended(got.result)) << restart;
    EXPECT_EQ(restart, rec->check_count);
  }
  EXPECT_EQ(0, rec->alarm_wait_flag);
  unlink("/etc/dev_mon");
  EXPECT_EQ(-1, spawn(rec.get(), wex_shell_spawn).result) << "the count goes on where it was";
}

TEST_F(ProcWorld, OnlyItsOwnActionIsThrottled) {
  const auto rec = record_of("/bin/true", 0, SHELL_RESTART);
  for (int restart = 1; restart <= 8; ++restart) {
    EXPECT_EQ(0, ended(spawn(rec.get()).result)) << restart;
  }
  EXPECT_EQ(0, rec->check_count);
}

unsigned alarm_after_parking(unsigned pending) {
  const auto rec = record_of("/bin/true");
  rec->check_start = g_now;
  rec->check_count = 4;
  alarm(pending);
  EXPECT_EQ(-1, spawn(rec.get()).result);
  return alarm(0);
}

TEST_F(ProcWorld, TheEarlierOfTwoAlarmsHolds) {
  EXPECT_NEAR(50, alarm_after_parking(50), 1);
  EXPECT_NEAR(300, alarm_after_parking(400), 1);
  EXPECT_NEAR(300, alarm_after_parking(0), 1);
  write_file("/debug_time", "120\n");
  EXPECT_NEAR(120, alarm_after_parking(299), 1);
  EXPECT_NE(std::string::npos, g_system_log.back().find("After 2 mimutes,"));
}

TEST_F(ProcWorld, TheParkedProgramIsNamedWithoutItsDirectory) {
  const auto rec = record_of("/usr/sbin/app -f /etc/app.conf  ");
  rec->check_start = g_now;
  rec->check_count = 4;
  EXPECT_EQ(-1, spawn(rec.get()).result);
  EXPECT_NE(std::string::npos, g_system_log.back().find("Task: app.conf had checked")) << g_system_log.back();
}

std::string reboot_record_after_parking(int32_t reboot_allow, int32_t since, const std::string& command) {
  const auto rec = record_of(command);
  rec->check_start = g_now;
  rec->check_count = 4;
  rec->reboot_allow = reboot_allow;
  rec->reboot_ref_time = g_now - since;
  EXPECT_EQ(-1, spawn(rec.get()).result);
  const std::string text = read_file(kRebootLog);
  unlink(kRebootLog);
  return text;
}

TEST_F(ProcWorld, ASecondParkWithin600SecondsOfTheLastSelfCheckRestartsTheDevice) {
  const std::string entry = reboot_record_after_parking(1, 600, "/bin/true");
  ASSERT_GT(entry.size(), 25u);
  EXPECT_EQ("detect process /bin/true can not restart, so restart system.\n\n", entry.substr(25));
  EXPECT_EQ("", reboot_record_after_parking(1, 601, "/bin/true"));
  EXPECT_EQ("", reboot_record_after_parking(0, 10, "/bin/true"));
}

TEST_F(ProcWorld, TheReasonOfARestartIsCutAt127Characters) {
  const std::string entry = reboot_record_after_parking(1, 1, "/bin/" + std::string(300, 'x'));
  ASSERT_EQ(25u + 127u + 1u, entry.size());
  EXPECT_EQ("detect process /bin/x", entry.substr(25, 21));
}

// ---- Third-part programs ----------------------------------------------------------------------------------

TEST_F(ProcWorld, AThirdPartProgramInTheForegroundIsItsOwnPid) {
  Process probe;  // what /bin/sleep really is, as /proc will name it
  ASSERT_TRUE(probe.start({"/bin/sleep", "30"}));
  ASSERT_TRUE(eventually([&] { return command_line(probe.pid()) == "/bin/sleep 30"; }));
  const std::string sleep = program_of(probe.pid());
  probe.kill_now();
  write_file(kThirdPartList, sleep + " 4711.5 WEX_RESTART\n");
  const auto rec = record_of(sleep + " 4711.5");
  const spawned got = spawn(rec.get());
  EXPECT_GT(got.result, 0);
  EXPECT_EQ(got.result, got.out_pid);
  EXPECT_EQ(sleep + " 4711.5", command_line(got.result));
  wex_test::send_signal(got.result, SIGKILL);
  ended(got.result);
}

TEST_F(ProcWorld, AThirdPartProgramThatIsNotFoundGivesNothing) {
  write_file(kThirdPartList, "/bin/true WEX_RESTART\n");
  const auto rec = record_of("/bin/true");
  const auto start = std::chrono::steady_clock::now();
  const spawned got = spawn(rec.get());
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(0, got.result);
  EXPECT_EQ(-1, got.out_pid);
  EXPECT_GE(took, 5500ms);
  EXPECT_LT(took, 9s);
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

// The spawn of a program that the list names, at a time when its fork fails; what it prints.
spawned spawn_without_fork(const std::string& program, std::string* printed) {
  const auto rec = record_of(program);
  const registry::captured_output output;
  const spawned got = spawn(rec.get());
  *printed = output.text();
  return got;
}

TEST_F(ProcWorld, AThirdPartProgramThatRunsAlreadyIsTakenWhenItCannotBeForked) {
  ASSERT_TRUE(exited_with(run({"cp", "/bin/cat", "/tmp/wex/cat"}), 0));
  ASSERT_EQ(0, mkfifo("/tmp/wex/fifo", 0600));
  write_file(kThirdPartList, "/tmp/wex/cat WEX_RESTART\n");
  Process running;
  ASSERT_TRUE(running.start({"sh", "-c", "exec /tmp/wex/cat <> /tmp/wex/fifo"}));
  ASSERT_TRUE(eventually([&] { return command_line(running.pid()) == "/tmp/wex/cat"; }));
  EXPECT_EQ(0, run_failing({"clone,fork,vfork:error=ENOMEM:when=1"}, [&] {
              std::string printed;
              const spawned got = spawn_without_fork("/tmp/wex/cat", &printed);
              EXPECT_EQ(running.pid(), got.result);
              EXPECT_EQ(running.pid(), got.out_pid);
              EXPECT_EQ("[wex_proc]wex_spawn--> third part Daemon[/tmp/wex/cat] new pid: " +
                            std::to_string(running.pid()) + "\n",
                        printed);
              return 0;
            }));
  EXPECT_FALSE(exists(kForkFile));
}

TEST_F(ProcWorld, AThirdPartProgramThatCannotBeForkedIsNotTriedAgain) {
  write_file(kThirdPartList, "/tmp/wex/none WEX_RESTART\n");
  EXPECT_EQ(0, run_failing({"clone,fork,vfork:error=ENOMEM:when=1"}, [] {
              std::string printed;
              const spawned got = spawn_without_fork("/tmp/wex/none", &printed);
              EXPECT_EQ(0, got.result);
              EXPECT_EQ(-1, got.out_pid);
              EXPECT_EQ("[wex_proc]wex_spawn--> third part[/tmp/wex/none] Not Found new pid!\n", printed);
              return 0;
            }));
  EXPECT_FALSE(exists(kForkFile)) << "counted as a failed fork";
}

// The looks of the search are followed by one more that is repeated until it is not cut short.
TEST_F(ProcWorld, AProgramOrScriptIsFoundThoughAllLooksOfTheSearchWereCutShort) {
  ASSERT_TRUE(exited_with(run({"cp", "/bin/cat", "/tmp/wex/cat"}), 0));
  ASSERT_EQ(0, mkfifo("/tmp/wex/fifo", 0600));
  write_file("/etc/cmdmap/cat.sh", "exit 0\n");
  write_file(kThirdPartList, "/tmp/wex/cat WEX_RESTART\n");
  Process running;
  ASSERT_TRUE(running.start({"sh", "-c", "exec /tmp/wex/cat <> /tmp/wex/fifo"}));
  ASSERT_TRUE(eventually([&] { return command_line(running.pid()) == "/tmp/wex/cat"; }));
  g_pauses_left_out = true;
  for (const auto spawner : {wex_spawn, wex_shell_spawn}) {
    g_directories_refused = kFindTries + 2;
    const spawned got = spawn(record_of("/tmp/wex/cat").get(), spawner);
    EXPECT_GT(got.result, 0);
    EXPECT_EQ(0, g_directories_refused);
  }
  g_pauses_left_out = false;
  running.kill_now();
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

// How many processes have a marker in a domain.
int markers_in(int32_t vsd) {
  int count = 0;
  dir_walk markers(domain_dir(vsd).c_str());
  while (const dirent* const entry = markers.next()) {
    count += entry->d_name[0] >= '1' && entry->d_name[0] <= '9' ? 1 : 0;
  }
  return count;
}

TEST_F(ProcWorld, ADetachedProcessOfADomainGetsAFlagFileAndItsNextStartFindsIt) {
  make_domain(2);
  write_file(domain_dir(2) + "/812", "");
  ASSERT_TRUE(exited_with(run({"cp", "/bin/cat", "/tmp/wex/cat"}), 0));
  ASSERT_EQ(0, mkfifo("/tmp/wex/fifo", 0600));
  write_file(kThirdPartList, "/tmp/wex/cat WEX_RESTART\n");
  Process detached;
  ASSERT_TRUE(detached.start({"sh", "-c", "exec /tmp/wex/cat <> /tmp/wex/fifo"}));
  ASSERT_TRUE(eventually([&] { return command_line(detached.pid()) == "/tmp/wex/cat"; }));
  ASSERT_EQ(0, chmod("/tmp/wex/cat", 0600));  // so the child ends at once
  EXPECT_EQ(detached.pid(), spawn(record_of("/tmp/wex/cat", 812).get()).result);
  EXPECT_EQ(2, find_app(detached.pid()));
  EXPECT_EQ(1, markers_in(2)) << "the marker of the child that has ended stays";
  detached.kill_now();
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

// ---- Forks that fail while the daemon ends ----------------------------------------------------------------

// A spawn whose first `failures` forks fail, with the stop flag set.
spawned spawn_at_the_end(const std::string& failures) {
  spawned got = {0, 0};
  const std::string file = "/tmp/wex/spawned";
  EXPECT_EQ(0, run_failing({"clone,fork,vfork:error=ENOMEM" + failures}, [&] {
              wex_raise_exit_flag();
              got = spawn(record_of("/bin/true").get());
              write_file(file, std::to_string(got.result) + " " + std::to_string(got.out_pid));
              return 0;
            }));
  EXPECT_EQ(2, sscanf(read_file(file).c_str(), "%d %d", &got.result, &got.out_pid));
  return got;
}

TEST_F(ProcWorld, WhileTheDaemonEndsAFailedForkIsRepeatedSoonAndSevenTimesAtTheMost) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_GT(spawn_at_the_end(":when=1..6").result, 0);
  EXPECT_FALSE(exists(kForkFile)) << "the child withdraws the marker";
  const spawned got = spawn_at_the_end("");
  EXPECT_EQ(-1, got.result);
  EXPECT_EQ(-1, got.out_pid);
  EXPECT_EQ("aaaaaaa", read_file(kForkFile));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s) << "five seconds apart it would be a minute";
}

TEST_F(ProcWorld, TheSeventhFailureEndsTheDaemonAlsoWhenItsFileCannotBeWritten) {
  make_dirs("/ovix/vsd/0/utils/wex");
  make_dirs(kForkFile);
  EXPECT_EQ(1, run_failing({"clone,fork,vfork:error=ENOMEM"}, [] {
              wex_raise_exit_flag();
              spawn(record_of("/bin/true").get());
              return 0;
            }));
  EXPECT_NE(std::string::npos,
            read_file(kRunningLog1).find(": Unable to restart the process, wex will be restart.\r\n"));
}

// ---- Low-memory killer ------------------------------------------------------------------------------------

TEST_F(ProcWorld, AProgramOrScriptThatStartsTellsTheLowMemoryKillerWhereItIs) {
  ASSERT_EQ(0, mount("test", "/sys/kernel", "tmpfs", 0, nullptr)) << strerror(errno);
  write_file("/etc/cmdmap/true.sh", "exit 0\n");
  for (const auto spawner : {wex_spawn, wex_shell_spawn}) {
    write_file(kFlushTlb, "");
    EXPECT_EQ(0, ended(spawn(record_of("/bin/true").get(), spawner).result));
    EXPECT_EQ("1\n", read_file(kFlushTlb));
  }
  EXPECT_EQ(std::string::npos, read_console().find("flush_tlb find fail"));
  EXPECT_EQ(0, umount("/sys/kernel"));
}

// ---- Standard descriptors ---------------------------------------------------------------------------------

std::string target_of(int fd) {
  char target[128];
  const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
  return length < 0 ? "-" : std::string(target, static_cast<size_t>(length));
}

// Targets, close-on-exec flags and non-blocking flags of descriptors 0 to 2 after the call, in a child.
std::string std_fds_after(int cloexec, const std::function<void()>& before) {
  EXPECT_EQ(0, in_child([&] {
              before();
              wex_create_std_fd(cloexec);
              std::string report;
              for (int fd = 0; fd <= 2; ++fd) {
                report += target_of(fd) + " " + std::to_string(fcntl(fd, F_GETFD)) + " " +
                          ((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 ? "n" : "b") + "\n";
              }
              write_file("/tmp/wex/report", report);
              return 0;
            }));
  return read_file("/tmp/wex/report");
}

TEST_F(ProcWorld, StandardDescriptorsAreTheNullDeviceAndTheConsole) {
  EXPECT_EQ("/dev/null 1 b\n/dev/console 1 b\n/dev/console 1 b\n", std_fds_after(1, [] {}));
  EXPECT_EQ("/dev/null 0 b\n/dev/console 0 b\n/dev/console 0 b\n", std_fds_after(0, [] {}));
  EXPECT_TRUE(console_says(" stdin(/dev/null) fd 0\n"));
  EXPECT_TRUE(console_says(" stdout(/dev/console) fd 1\n"));
  EXPECT_TRUE(console_says(" stderr(/dev/console) fd 2\n"));
}

TEST_F(ProcWorld, StandardDescriptorsThatWereClosedAreReopenedUnderTheirNumbers) {
  EXPECT_EQ("/dev/null 0 b\n/dev/console 0 b\n/dev/console 0 b\n", std_fds_after(0, [] {
              close(0);
              close(2);
            }));
}

TEST_F(ProcWorld, WithoutAConsoleTheNextFileIsNotTakenForIt) {
  ASSERT_EQ(0, rename("/dev/console", "/dev/console.away"));
  const auto start = std::chrono::steady_clock::now();
  const std::string report = std_fds_after(1, [] {});
  const auto took = std::chrono::steady_clock::now() - start;
  ASSERT_EQ(0, rename("/dev/console.away", "/dev/console"));
  EXPECT_EQ("/dev/null 1 b\n/dev/null 1 b\n/dev/null 1 b\n", report);
  EXPECT_GE(took, 80ms) << "five attempts, 10 ms apart, for each of the two";
}

// ---- The fork-failure marker ------------------------------------------------------------------------------

TEST_F(ProcWorld, TheForkFailureFileGrowsByOneByteAFailure) {
  umask(0);
  for (size_t failures = 1; failures <= 3; ++failures) {
    EXPECT_EQ(0, wex_mk_forkfile());
    EXPECT_EQ(std::string(failures, 'a'), read_file(kForkFile));
  }
  umask(022);
  EXPECT_EQ(0755u, mode_of(kForkFile));
  wex_rm_forkfile();
  EXPECT_FALSE(exists(kForkFile));
}

TEST_F(ProcWorld, AFlagFileThatCannotBeMadeIsAFailure) {
  make_dirs(kForkFile);
  EXPECT_EQ(-1, wex_mk_forkfile());
}

TEST_F(ProcWorld, TheChildThatStartsRemovesTheForkFailureFile) {
  wex_mk_forkfile();
  const spawned got = spawn(record_of("/bin/true").get());
  EXPECT_EQ(0, ended(got.result));
  EXPECT_FALSE(exists(kForkFile));
  mark_console();
  EXPECT_EQ(0, ended(spawn(record_of("/bin/true").get()).result));
  EXPECT_TRUE(console_says("]unlink file /tmp/wex/forkfile error, reason is No such file or directory\n"));
}

// ---- Priorities -------------------------------------------------------------------------------------------

TEST_F(ProcWorld, PriorityIsThatOfTheCallingThreadAlone) {
  int raised = -1, priority = -1, back = -1;
  std::thread other([&] {
    wex_set_priority(kMonitorPriority);
    sched_param param = {};
    raised = sched_getscheduler(0);
    sched_getparam(0, &param);
    priority = param.sched_priority;
    wex_reset_priority();
    back = sched_getscheduler(0);
  });
  other.join();
  EXPECT_EQ(SCHED_FIFO, raised);
  EXPECT_EQ(99, priority);
  EXPECT_EQ(SCHED_OTHER, back);
  EXPECT_EQ(SCHED_OTHER, sched_getscheduler(0));
}

}  // namespace

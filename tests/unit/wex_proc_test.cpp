// Starting programs: words, the search for detached programs, standard descriptors, the fork-failure marker,
// priorities. Real forks; only the clock belongs to the test.
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <thread>

#include "failing_calls.h"
#include "proc_world.h"
#include "wex_child.h"
#include "wex_core_stop.h"

using namespace proc_world;

// How stat() looks at a name: the call, which of its arguments are the flags, and what they are then. With
// 64-bit times a 32-bit C library makes another call.
#ifdef SYS_newfstatat
constexpr long kStatCall = SYS_newfstatat;
constexpr unsigned kFlagsOfStat = 3, kFlagsOfName = 0;
#else
constexpr long kStatCall = SYS_statx;
constexpr unsigned kFlagsOfStat = 2, kFlagsOfName = AT_NO_AUTOMOUNT;
#endif

namespace {

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
  EXPECT_EQ(EIO, in_child([&] {
              return refuse_call(kStatCall, kFlagsOfStat, kFlagsOfName, EIO)
                         ? -wex_proc_to_pid(command, &found, 0)
                         : 0;
            }));
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
  EXPECT_GE(took, milliseconds(kPlatformTimeLimitMs - 1)) << "the daemon's clock has whole milliseconds";
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
  EXPECT_TRUE(eventually([] { return !exists(kForkFile); }, 20s)) << "the child withdraws the marker";
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

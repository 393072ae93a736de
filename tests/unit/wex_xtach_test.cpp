// The client calls, against a daemon played by the test at the true path.
#include "wex_xtach.h"
#include "leak_gate.h"
#include "wex_test.h"

#include <dirent.h>

#include <atomic>
#include <fstream>

#include "control_peer.h"
#include "failing_calls.h"
#include "kept_connection.h"
#include "unique_fd.h"
#include "wex_clock.h"
#include "wex_utils.h"

using namespace control;

namespace {

constexpr char kDomain0Db[] = "/tmp/vsd/0/wex/db";

std::string own_command() {
  char text[255] = {};
  return pid_to_cmdline(getpid(), text, sizeof text) == nullptr ? "" : text;
}

// The database file of a process in domain 0, whatever its program is called; empty when there is none.
std::string database_file(int32_t pid) {
  const std::string ending = "." + std::to_string(pid);
  DIR* const dir = opendir(kDomain0Db);
  std::string found;
  while (const dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
    const std::string name = entry->d_name;
    if (name.size() > ending.size() &&
        name.compare(name.size() - ending.size(), ending.size(), ending) == 0) {
      found = std::string(kDomain0Db) + "/" + name;
    }
  }
  if (dir != nullptr) {
    closedir(dir);
  }
  return found;
}

bool locked_by_another(const std::string& path) {
  const unique_fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  return fcntl(file.get(), F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
}

const leaves_behind kHeldFile(kDescriptors, "/wex/db/", 1, "whoever registers holds its database file");

class Registration : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("mkdir -p /tmp/vsd/0/wex/db /tmp/wex && rm -f /tmp/vsd/0/wex/db/*"));
  }
  daemon_end daemon_;
};

// Answers one acknowledged request and gives it back.
message answer(const daemon_end& daemon) {
  const peer client = daemon.accept();
  message in = client.receive();
  in.peer = client.path();
  client.acknowledge();
  return in;
}

}  // namespace

// ---- Registration -----------------------------------------------------------------------------------------

TEST_F(Registration, SendsTheCallersPidDomainAndCommandLineAndWaits) {
  const control::printed out;
  auto result = calling([] { return reg_process_exit_action(0, WEX_RESTART); });
  const message in = answer(daemon_);
  EXPECT_EQ(0, result.get());
  const auto body = in.body<wex_reg_info>();
  wex_reg_info expected = {};
  expected.pid = getpid();
  strcpy(expected.process, own_command().c_str());
  EXPECT_EQ(1U, in.header.msg_type);
  EXPECT_EQ(320, in.header.msg_len);
  EXPECT_EQ('\0', in.header.name[0]);
  EXPECT_EQ(0, memcmp(&expected, &body, sizeof body));
  EXPECT_TRUE(out.has(text_of("]reg_process_exit_action: pid %d type 1 vsd 0\n", getpid())));
}

TEST_F(Registration, WritesAndLocksTheDatabaseFileBeforeItSends) {
  const pid_t child = start_child([] { return reg_process_exit_action(0, WEX_SHELL_RESTART); });
  const peer client = daemon_.accept();
  EXPECT_EQ(2U, client.receive().header.msg_type);
  const std::string file = database_file(child);
  EXPECT_EQ(std::to_string(child) + "\n3\n" + own_command(), read_file(file));
  EXPECT_TRUE(locked_by_another(file));
  client.acknowledge();
  EXPECT_EQ(0, exit_status(child));
}

TEST_F(Registration, OfTypeOneWritesTheActionRespawn) {
  const pid_t child = start_child([] { return reg_process_exit_action(0, WEX_RESTART); });
  answer(daemon_);
  EXPECT_EQ(0, exit_status(child));
  EXPECT_EQ(std::to_string(child) + "\n2\n" + own_command(), read_file(database_file(child)));
}

TEST_F(Registration, CanNameAnotherProcess) {
  const sleeper other;
  auto result = calling([&] { return reg_process_exit_action(other.pid(), WEX_RESTART); });
  const auto body = answer(daemon_).body<wex_reg_info>();
  EXPECT_EQ(0, result.get());
  EXPECT_EQ(other.pid(), body.pid);
  EXPECT_EQ(other.command(), body.process);
}

TEST_F(Registration, OfANegativePidIsStillSentWithPidZero) {
  const control::printed out;
  auto result = calling([] { return reg_process_exit_action(-5, WEX_RESTART); });
  const auto body = answer(daemon_).body<wex_reg_info>();
  EXPECT_EQ(0, result.get());
  EXPECT_EQ(0, body.pid);
  EXPECT_TRUE(out.has("]The pid you enter is < 0 \n"));
  EXPECT_TRUE(out.has("]reg_process_exit_action: fail to get pid 0's cmdline\n"));
  EXPECT_EQ("", database_file(0));
}

TEST_F(Registration, IsSentAlsoWhenNoDatabaseFileCanBeMade) {
  ASSERT_EQ(0, system("rm -rf /tmp/vsd/0"));
  const control::printed out;
  auto result = calling([] { return reg_process_exit_action(0, WEX_RESTART); });
  EXPECT_EQ(getpid(), answer(daemon_).body<wex_reg_info>().pid);
  EXPECT_EQ(0, result.get());
  EXPECT_TRUE(
      out.has(text_of("]wex_mk_pidfile fail. vsd 0 pid %d name %s \n", getpid(), own_command().c_str())));
}

TEST_F(Registration, WithAScriptCarriesItInTheNameAndDoesNotWait) {
  const control::printed out;
  const std::string script(300, 's');
  EXPECT_EQ(0, reg_process_exit_action_shell(0, WEX_SHELL_RESTART, script.c_str()));
  const message in = daemon_.accept().receive();
  const auto body = in.body<wex_reg_info>();
  EXPECT_EQ(2U, in.header.msg_type);
  EXPECT_EQ(script.substr(0, 255), in.header.name);
  EXPECT_EQ(getpid(), body.pid);
  EXPECT_EQ(text_of("test-%d", getpid() % 20), body.tag);
  EXPECT_EQ(own_command(), body.process);
  EXPECT_NE("", database_file(getpid()));
  EXPECT_TRUE(out.has(
      text_of("]reg_process_exit_action_shell: pid %d type 2 vsd 0 path %s\n", getpid(), script.c_str())));
}

TEST_F(Registration, WithAScriptTakesAnyTypeOfTheCaller) {
  for (const uint32_t type : {2U, 5U, 0U, 1U}) {
    const pid_t child = start_child([type] { return reg_process_exit_action_shell(0, type, "x"); });
    EXPECT_EQ(type, daemon_.accept().receive().header.msg_type);
    EXPECT_EQ(0, exit_status(child));
    const char* const action = type == WEX_RESTART ? "\n2\n" : "\n3\n";  // in the database file
    EXPECT_EQ(std::to_string(child) + action + own_command(), read_file(database_file(child))) << type;
  }
}

// The daemon refuses it later, for it reads the command line itself.
TEST_F(Registration, WithAScriptOfAProcessThatIsGoneIsStillSent) {
  const pid_t gone = start_child([] { return 0; });
  ASSERT_EQ(0, exit_status(gone));
  const control::printed out;
  EXPECT_EQ(0, reg_process_exit_action_shell(gone, WEX_SHELL_RESTART, "x"));
  const message in = daemon_.accept().receive();
  EXPECT_EQ(2U, in.header.msg_type);
  EXPECT_STREQ("x", in.header.name);
  EXPECT_EQ(gone, in.body<wex_reg_info>().pid);
  EXPECT_STREQ("", in.body<wex_reg_info>().process);
  EXPECT_TRUE(out.has(text_of("]reg_process_exit_action_shell: fail to get pid %d's cmdline\n", gone)));
  EXPECT_EQ("", database_file(gone));
}

TEST_F(Registration, WithAScriptIsSentAlsoWhenNoDatabaseFileCanBeMade) {
  ASSERT_EQ(0, system("rm -rf /tmp/vsd/0"));
  const control::printed out;
  EXPECT_EQ(0, reg_process_exit_action_shell(0, WEX_SHELL_RESTART, "x"));
  EXPECT_EQ(getpid(), daemon_.accept().receive().body<wex_reg_info>().pid);
  EXPECT_TRUE(
      out.has(text_of("]wex_mk_pidfile fail. vsd 0 pid %d name %s \n", getpid(), own_command().c_str())));
}

TEST_F(Registration, WithAScriptRefusesANegativePid) {
  const control::printed out;
  EXPECT_EQ(-1, reg_process_exit_action_shell(-1, WEX_SHELL_RESTART, "x"));
  EXPECT_TRUE(out.has("]The pid you enter is < 0 \n"));
  EXPECT_FALSE(daemon_.has_caller(0ms));
}

// A client knows its levels from the file alone, which may have changed since its last call.
TEST_F(Registration, LoadsTheLevelsOfTheClientFirst) {
  const temporary levels("/tmp/levels");
  setenv("DATA_OVIX_DIR", "/tmp/levels", 1);
  ASSERT_EQ(0, system("mkdir -p /tmp/levels/qx_utils"));
  // The second is refused, and sends nothing, but has loaded them before.
  int (*const calls[])() = {[] { return reg_process_exit_action_shell(0, WEX_SHELL_RESTART, "x"); },
                            [] { return wex_client_reg_thread_notify(getpid(), gettid(), 0, 1) + 1; },
                            [] { return reg_process_exit_action(0, WEX_RESTART); }};
  int32_t level = 0;
  for (const auto call : calls) {
    const control::printed out;
    std::ofstream("/tmp/levels/qx_utils/qx_utils_dbg_cfg.txt") << "g_wex_pub_dbg_level " << ++level << "\n";
    const pid_t child = start_child([&] {
      g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
      const int result = call();
      return result == 0 ? g_wex_dbg_level[WEX_DBG_PUB] : 90;
    });
    if (level != 2) {
      const peer client = daemon_.accept();
      client.receive();
      if (level == 3) {
        client.acknowledge();
      }
    }
    EXPECT_EQ(level, exit_status(child));
  }
  unsetenv("DATA_OVIX_DIR");
}

struct keyword {
  const char* text;
  uint32_t type;
};

TEST(ActionType, IsFoundByPrefix) {
  for (const keyword row : {keyword{"WEX_RESTART", 1},
                            {"WEX_RESTART\n", 1},
                            {"WEX_RESTARTED", 1},
                            {"WEX_SHELL_RESTART", 2},
                            {"WEX_SHELL_RESTART and more", 2},
                            {"WEX_SHELL_RESTAR", 0},
                            {"WEX_RESTAR", 0},
                            {"wex_restart", 0},
                            {" WEX_RESTART", 0},
                            {"\n", 0},
                            {"", 0}}) {
    EXPECT_EQ(row.type, wex_action_type(row.text)) << row.text;
  }
  EXPECT_EQ(0U, wex_action_type(nullptr));
}

TEST_F(Registration, OfAThirdPartWithTheShellKeywordSendsNoScript) {
  const sleeper other;
  auto result = calling([&] { return reg_third_part_process_exit_action(other.pid(), "WEX_SHELL_RESTART"); });
  const message in = answer(daemon_);
  EXPECT_EQ(0, result.get());
  EXPECT_EQ(2U, in.header.msg_type);
  EXPECT_EQ('\0', in.header.name[0]);
  EXPECT_EQ(other.pid(), in.body<wex_reg_info>().pid);
}

TEST_F(Registration, OfAThirdPartWithAnUnknownKeywordIsRefused) {
  EXPECT_EQ(-1, reg_third_part_process_exit_action(getpid(), "\n"));
  EXPECT_FALSE(daemon_.has_caller(0ms));
}

TEST_F(Registration, OfADelayCarriesPidDelayAndTagOnly) {
  EXPECT_EQ(0, wex_time_set(0, WEX_RESTART, 7));
  const message in = daemon_.accept().receive();
  const auto body = in.body<wex_reg_info>();
  wex_reg_info expected = {};
  expected.pid = getpid();
  expected.restart_delay = 7;
  strcpy(expected.tag, text_of("test-%d", getpid() % 20).c_str());
  EXPECT_EQ(0, memcmp(&expected, &body, sizeof body));
  EXPECT_EQ("", database_file(getpid()));
}

TEST_F(Registration, OfADelayRefusesANegativePid) {
  const control::printed out;
  EXPECT_EQ(-1, wex_time_set(-2, WEX_RESTART, 7));
  EXPECT_TRUE(out.has("]The pid you enter is < 0 \n"));
  EXPECT_FALSE(daemon_.has_caller(0ms));
}

// ---- Starting programs ------------------------------------------------------------------------------------

namespace {

// A script that tells what it sees, then stays until it is ended.
class reporter {
 public:
  reporter() {
    // The signal sets are read by the shell itself: while it starts a program it blocks everything.
    std::ofstream(path()) << "#!/bin/sh\n{ echo \"count $#\"; echo \"args $*\"; echo \"cwd $(pwd)\"\n"
                             "while read key value; do\n"
                             "  case $key in SigBlk: | SigIgn:) echo \"$key $value\" ;; esac\n"
                             "done < /proc/$$/status\n"
                             "echo \"stat $(cut -d' ' -f6,41 /proc/$$/stat) $$\"; } > "
                          << report() << ".new\nmv " << report() << ".new " << report()
                          << "\nexec sleep 600\n";
    chmod(path(), 0755);
    unlink(report());
  }
  ~reporter() {
    unlink(report());
    unlink(path());
  }
  reporter(const reporter&) = delete;
  reporter& operator=(const reporter&) = delete;
  static const char* path() { return "/tmp/reporter"; }
  static const char* report() { return "/tmp/reporter.said"; }
  static std::string said() {
    EXPECT_TRUE(eventually([] { return exists(report()); }, 5s));
    return read_file(report());
  }
};

void end_program(pid_t pid) {
  ASSERT_GT(pid, 1);
  send_signal(pid, SIGKILL);
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
}

}  // namespace

TEST(StartUserProcess, RefusesNoPathAndAPathThatIsNotThere) {
  const control::printed out;
  EXPECT_EQ(-1, wex_start_user_process(nullptr));
  EXPECT_TRUE(out.has("]proc_path is null\n"));
  EXPECT_EQ(-1, wex_start_user_process("/bin/sleep 5"));
  EXPECT_TRUE(out.has(text_of("]/bin/sleep 5 not exist: %s\n", strerror(ENOENT))));
}

TEST(StartUserProcess, StartsAProgramThatMayBeKilledForMemory) {
  const reporter program;
  const std::string before = read_file("/proc/self/oom_score_adj");
  std::ofstream("/proc/self/oom_score_adj") << "500\n";  // the program inherits it
  const control::printed out;
  const pid_t pid = wex_start_user_process(reporter::path());
  std::ofstream("/proc/self/oom_score_adj") << before;
  const std::string said = reporter::said();
  EXPECT_TRUE(eventually([&] { return read_file(text_of("/proc/%d/oom_score_adj", pid)) == "0\n"; }));
  EXPECT_NE(std::string::npos, said.find("count 0\n"));
  EXPECT_TRUE(out.has(text_of("]wex_spawn_by_user--> wex_pid->process = /tmp/reporter, new pid: %d\n", pid)));
  end_program(pid);
}

// Whoever wants it supervised says so, or it does so itself.
TEST(StartUserProcess, RegistersNothing) {
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/0/wex/db"));
  const daemon_end daemon;
  const pid_t pid = wex_start_user_process("/bin/true");
  EXPECT_EQ(0, exit_status(pid));
  EXPECT_FALSE(daemon.has_caller(300ms));
  EXPECT_EQ("", database_file(pid));
}

TEST(SpawnByUser, GivesTheProgramACleanStart) {
  const reporter program;
  signal(SIGUSR2, SIG_IGN);
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
  sched_param rt = {};
  rt.sched_priority = 10;
  std::promise<pid_t> started;
  std::thread([&] {
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &rt);
    wex_pid rec = {};
    strcpy(rec.process, "/tmp/reporter one  \ttwo");
    int32_t pid = -7;
    const int32_t now = wex_clock_now();
    const int32_t result = wex_spawn_by_user(&rec, &pid);
    EXPECT_EQ(pid, result);
    EXPECT_EQ(1U, rec.flags & WEX_FLAG_SELF_CHECKING);
    EXPECT_GE(rec.check_start, now);
    EXPECT_EQ(1, rec.check_count);
    started.set_value(result);
  }).join();
  const pid_t pid = started.get_future().get();
  const std::string said = reporter::said();
  EXPECT_NE(std::string::npos, said.find("count 2\nargs one two\ncwd /\n")) << said;
  EXPECT_NE(std::string::npos, said.find("SigBlk: 0000000000000000")) << said;
  EXPECT_NE(std::string::npos, said.find("SigIgn: 0000000000000000")) << said;
  EXPECT_NE(std::string::npos, said.find(text_of("stat %d 0 %d\n", pid, pid)))
      << "session leader, ordinary policy: " << said;
  signal(SIGUSR2, SIG_DFL);
  end_program(pid);
}

TEST(SpawnByUser, LeavesTheCallersSignalMaskAlone) {
  const reporter program;
  wex_pid rec = {};
  strcpy(rec.process, reporter::path());
  int32_t pid = -1;
  wex_spawn_by_user(&rec, &pid);
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(0, sigismember(&mask, SIGCHLD));
  reporter::said();
  end_program(pid);
}

namespace {

int early_ends = 0;  // of children whose pid was not stored yet
int32_t stored_pid = -1;

}  // namespace

// The fork takes so long to come back that the program has ended before.
TEST(SpawnByUser, NoSigchldReachesTheCallerBeforeThePidIsStored) {
  EXPECT_EQ(0, run_failing({"clone,clone3,fork,vfork:delay_exit=300000:when=1"}, [] {
              struct sigaction note = {};
              note.sa_handler = [](int) { early_ends += stored_pid == -1 ? 1 : 0; };
              sigaction(SIGCHLD, &note, nullptr);
              wex_pid rec = {};
              strcpy(rec.process, "/tmp/not_there");
              const int32_t pid = wex_spawn_by_user(&rec, &stored_pid);
              EXPECT_EQ(1, exit_status(pid));
              return early_ends;
            }));
}

TEST(SpawnByUser, PassesFourteenWordsOfALongerLine) {
  const reporter program;
  wex_pid rec = {};
  std::string line = reporter::path();
  for (int word = 2; word <= 20; ++word) {
    line += " w" + std::to_string(word);
  }
  strcpy(rec.process, line.c_str());
  int32_t pid = -1;
  wex_spawn_by_user(&rec, &pid);
  EXPECT_NE(std::string::npos,
            reporter::said().find("count 13\nargs w2 w3 w4 w5 w6 w7 w8 w9 w10 w11 w12 w13 w14\n"));
  end_program(pid);
}

TEST(SpawnByUser, EndsTheChildWithStatusOneWhenNothingCanBeExecuted) {
  for (const char* text : {"/tmp/not_there", "", "   "}) {
    const control::printed out;
    wex_pid rec = {};
    strcpy(rec.process, text);
    int32_t pid = -1;
    EXPECT_GT(wex_spawn_by_user(&rec, &pid), 0);
    EXPECT_EQ(1, exit_status(pid)) << text;
    EXPECT_TRUE(out.has(text_of("]HA_RESTART execvp fail, error = %s.\n", strerror(ENOENT))));
    EXPECT_TRUE(out.has(text_of("]%s find fail, error = %s.\n", kFlushTlb, strerror(ENOENT))));
  }
}

TEST(SpawnByUser, AForkThatFailsIsReportedAndTriedAgainAfterFiveSeconds) {
  const control::printed out;
  const auto start = clock::now();
  EXPECT_EQ(0, run_failing({"clone,clone3,fork,vfork:error=EAGAIN:when=1"}, [] {
              wex_pid rec = {};
              strcpy(rec.process, "/bin/true");
              int32_t pid = -1;
              const int32_t result = wex_spawn_by_user(&rec, &pid);
              EXPECT_EQ(pid, result);
              return exit_status(pid);
            }));
  EXPECT_GE(seconds_since(start), 5.0);
  EXPECT_EQ(1U, occurrences(out.text(), text_of("]wex_spawn_by_user--> fork fail, err: %s(%d)\n",
                                                strerror(EAGAIN), EAGAIN)));
  EXPECT_TRUE(out.has("]wex_spawn_by_user--> wex_pid->process = /bin/true, new pid: "));
}

TEST(SpawnByUser, AChildThatCannotChangeToTheRootReturnsToTheCallersCode) {
  const control::printed out;
  EXPECT_EQ(77, run_failing({"chdir:error=EACCES"}, [] {
              wex_pid rec = {};
              strcpy(rec.process, "/bin/true");
              int32_t pid = -7;
              const int32_t result = wex_spawn_by_user(&rec, &pid);
              if (result == -1) {
                _exit(pid == -1 ? 77 : 78);
              }
              return exit_status(pid);
            }));
  EXPECT_EQ(1U, occurrences(out.text(), "]wex_spawn_by_user--> chdir failed, ret: -1\n"));
  EXPECT_FALSE(out.has("execvp fail"));
}

TEST(SpawnByUser, TellsTheLowMemoryKillerWhenItIsThere) {
  ASSERT_EQ(0, mount("tmpfs", "/sys/kernel", "tmpfs", 0, nullptr));
  ASSERT_EQ(0, mkdir("/sys/kernel/qx_lowmem_killer", 0755));
  std::ofstream(kFlushTlb) << "";
  {
    const control::printed out;
    wex_pid rec = {};
    strcpy(rec.process, "/bin/true");
    int32_t pid = -1;
    wex_spawn_by_user(&rec, &pid);
    EXPECT_EQ(0, exit_status(pid));
    EXPECT_FALSE(out.has("find fail"));
    EXPECT_EQ("1\n", read_file(kFlushTlb));
  }
  umount2("/sys/kernel", MNT_DETACH);
}

// Programs that know nothing of the daemon: registered when they are executed, found again when they detach.
#include <grp.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "restart_policy.h"
#include "unique_fd.h"

using namespace policy;

namespace {

constexpr char kApps[] = "/tmp/apps/";
constexpr char kHoldStart[] = "/tmp/apps/hold_start";  // while it exists, a detaching program stays attached

extern "C" void go_on(int) {}

[[noreturn]] void live() {
  for (;;) {
    pause();
  }
}

[[noreturn]] void detach() {
  while (access(kHoldStart, F_OK) == 0) {
    usleep(5000);
  }
  if (fork() != 0) {
    _exit(0);
  }
  setsid();
  live();
}

// On SIGUSR1 it starts itself again beside itself, and ends a moment later.
[[noreturn]] void replace_myself(const char* path) {
  signal(SIGUSR1, go_on);
  pause();
  if (fork() == 0) {
    setsid();
    execl(path, path, static_cast<char*>(nullptr));
    _exit(1);
  }
  usleep(300000);
  _exit(0);
}

// Command lines of one word are what these tests are about, so what a copy of this program does is its name.
__attribute__((constructor)) void act_by_name() {
  char path[512] = "";
  if (readlink("/proc/self/exe", path, sizeof path - 1) < 0 || strncmp(path, kApps, strlen(kApps)) != 0) {
    return;
  }
  const std::string name = path + strlen(kApps);
  if (name.rfind("detaching", 0) == 0) {
    detach();
  }
  if (name.rfind("replacing", 0) == 0) {
    replace_myself(path);
  }
  live();
}

// Processes that end one after the other, the first after `first_us`. Start them before the program that is
// to be found: older ones come first in /proc.
class PassersBy {
 public:
  PassersBy(useconds_t count, useconds_t first_us, useconds_t step_us) {
    for (useconds_t number = 0; number < count; ++number) {
      pids_.push_back(fork());
      if (pids_.back() == 0) {
        usleep(first_us + number * step_us);
        _exit(0);
      }
    }
    reaper_ = std::thread([this] {
      for (const pid_t pid : pids_) {
        waitpid(pid, nullptr, 0);
      }
    });
  }
  ~PassersBy() { reaper_.join(); }
  PassersBy(const PassersBy&) = delete;
  PassersBy& operator=(const PassersBy&) = delete;

 private:
  std::vector<pid_t> pids_;
  std::thread reaper_;
};

class ThirdPart : public WexWorld {
 protected:
  void SetUp() override {
    WexWorld::SetUp();
    remove_tree("/tmp/apps");
    make_dirs("/tmp/apps");
  }

  void TearDown() override {
    daemon_.kill_now();
    by_hand_.kill_now();
    for (const pid_t pid : processes_inside()) {
      if (program_of(pid).rfind(kApps, 0) == 0) {
        send_signal(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
    remove_tree("/tmp/apps");
    WexWorld::TearDown();
  }

  static std::string install(const std::string& name) {
    const std::string path = kApps + name;
    std::ifstream from("/proc/self/exe", std::ios::binary);
    std::ofstream(path, std::ios::binary) << from.rdbuf();
    chmod(path.c_str(), 0755);
    return path;
  }

  // One description file in the device's directory, as it is written there.
  static void describe(const std::string& name, const std::string& text) {
    write_file(std::string(kThirdPartDir) + "/" + name, text);
  }

  bool start_daemon() { return daemon_.start(); }
  bool start_by_hand(const std::vector<std::string>& words) { return by_hand_.start(words); }

  static bool registered(const std::string& command, pid_t pid, const std::string& program) {
    return console_says("wex_process_netlink--> To register to wex, process: " + command +
                            ", pid: " + std::to_string(pid) + ", type: ",
                        15s) &&
           eventually([&] { return exists(db_file(program, pid)); }, 15s);
  }

  // The one living process with this command line, other than `not_this`.
  static pid_t wait_for(const std::string& command, pid_t not_this, milliseconds limit = 10s) {
    pid_t found = 0;
    eventually(
        [&] {
          const std::vector<pid_t> pids = pids_with_command(command);
          found = pids.size() == 1 && pids[0] != not_this ? pids[0] : 0;
          return found != 0;
        },
        limit);
    return found;
  }

  // The same, once the registry has it too: a program that detaches shows two pids for a moment. One that is
  // found after its start has no file of its own: it was not executed, and registers nothing.
  static pid_t settled(const std::string& command, pid_t not_this) {
    pid_t found = 0;
    const bool known = eventually(
        [&] {
          found = wait_for(command, not_this, 0ms);
          const std::string console = read_console();
          return found != 0 &&
                 (console.find("third part Daemon[" + command + "] new pid: " + std::to_string(found)) !=
                      std::string::npos ||
                  console.find("found child pid_get = " + std::to_string(found)) != std::string::npos);
        },
        10s);
    return known ? found : 0;
  }

  static bool catches_usr1(pid_t pid) {
    return (strtoull(status_field(pid, "SigCgt").c_str(), nullptr, 16) >> (SIGUSR1 - 1) & 1) != 0;
  }

  void end_by_hand() {
    by_hand_.send(SIGKILL);
    by_hand_.wait();
  }

  Daemon daemon_;
  Process by_hand_;
};

}  // namespace

TEST_F(ThirdPart, AListedProgramStartedByHandIsRegisteredAndRestarted) {
  const std::string app = install("plain");
  describe("plain", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "plain"));
  EXPECT_EQ(std::to_string(by_hand_.pid()) + "\n2\n" + app, read_file(db_file("plain", by_hand_.pid())));
  const pid_t first = by_hand_.pid();
  end_by_hand();
  const pid_t second = wait_for(app, first);
  ASSERT_NE(0, second);
  EXPECT_TRUE(console_says("wex_spawn--> third part Normal[" + app + "] new pid: " + std::to_string(second)));
  EXPECT_FALSE(exists(db_file("plain", first)));
  EXPECT_TRUE(eventually([&] { return exists(db_file("plain", second)); }))
      << "its exec event makes the new file";
  send_signal(second, SIGKILL);
  const pid_t third = wait_for(app, second);
  EXPECT_NE(0, third) << "it stays supervised";
  EXPECT_TRUE(eventually([&] { return exists(db_file("plain", third)); }));
  EXPECT_EQ(1u, list_dir("/tmp/vsd/0/wex/db").size());
}

TEST_F(ThirdPart, AProgramThatWasExecutedBeforeTheDaemonIsRegisteredAllTheSame) {
  const std::string app = install("earlier");
  describe("earlier", app + " WEX_RESTART");
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(eventually([&] { return program_of(by_hand_.pid()) == app; }));
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(registered(app, by_hand_.pid(), "earlier"));
  const pid_t first = by_hand_.pid();
  end_by_hand();
  EXPECT_NE(0, wait_for(app, first));
}

TEST_F(ThirdPart, TheTypeForScriptsRestartsThroughTheCommandMap) {
  const std::string app = install("mapped");
  describe("mapped", app + " WEX_SHELL_RESTART\n");
  write_file("/etc/cmdmap/mapped.sh", "echo ran > /tmp/apps/ran\nexec " + app + "\n");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "mapped"));
  EXPECT_EQ(std::to_string(by_hand_.pid()) + "\n3\n" + app, read_file(db_file("mapped", by_hand_.pid())));
  const pid_t first = by_hand_.pid();
  end_by_hand();
  const pid_t second = wait_for(app, first);
  ASSERT_NE(0, second);
  EXPECT_TRUE(
      console_says("wex_shell_spawn--> third part Normal[" + app + "] new pid: " + std::to_string(second)));
  EXPECT_TRUE(exists("/tmp/apps/ran"));
}

TEST_F(ThirdPart, AProgramThatDetachesIsHandedOverToItsDetachedProcess) {
  const std::string app = install("detaching");
  describe("detaching", app + " WEX_RESTART");
  write_file(kHoldStart, "");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "detaching"));
  const pid_t parent = by_hand_.pid();
  unlink(kHoldStart);
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  const pid_t detached = wait_for(app, parent);
  ASSERT_NE(0, detached);
  EXPECT_TRUE(console_says("wex_handle_netlink_exit--> wex_pid->action == RESPAWN, found child pid_get = " +
                           std::to_string(detached) + "\n"));
  EXPECT_TRUE(eventually([&] { return exists(db_file("detaching", detached)); }));
  EXPECT_FALSE(exists(db_file("detaching", parent)));
  EXPECT_EQ(std::string::npos, read_console().find("wex_spawn-->")) << "nothing is started beside it";
}

TEST_F(ThirdPart, ARestartedProgramThatDetachesIsFoundByItsCommandLine) {
  const std::string app = install("detaching");
  describe("detaching", app + " WEX_RESTART");
  write_file(kHoldStart, "");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "detaching"));
  const pid_t first = by_hand_.pid();
  unlink(kHoldStart);
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  pid_t now = settled(app, first);
  ASSERT_NE(0, now);
  for (int life = 1; life <= 2; ++life) {
    send_signal(now, SIGKILL);
    now = settled(app, now);
    ASSERT_NE(0, now) << "life " << life;
  }
  EXPECT_NE(std::string::npos, read_console().find("]wex_spawn--> third part Daemon[" + app +
                                                   "] new pid: " + std::to_string(now) + "\n"))
      << "it was started, not found";
}

TEST_F(ThirdPart, AProgramThatReplacesItselfIsHandedOverToItsNewProcess) {
  const std::string app = install("replacing");
  describe("replacing", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "replacing"));
  const pid_t first = by_hand_.pid();
  ASSERT_TRUE(eventually([first] { return catches_usr1(first); }));
  by_hand_.send(SIGUSR1);
  EXPECT_TRUE(console_says("wex_process_netlink--> " + app + " is running\n")) << "not registered twice";
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  const pid_t second = wait_for(app, first);
  ASSERT_NE(0, second);
  EXPECT_TRUE(console_says("found child pid_get = " + std::to_string(second)));
  EXPECT_TRUE(eventually([&] { return exists(db_file("replacing", second)); }));
  send_signal(second, SIGKILL);
  EXPECT_NE(0, wait_for(app, second)) << "the new process is supervised";
}

TEST_F(ThirdPart, AProgramWithAScriptThatReplacesItselfKeepsItsScript) {
  const std::string app = install("replacing");
  describe("replacing", app + " WEX_SHELL_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "replacing"));
  const pid_t first = by_hand_.pid();
  ASSERT_TRUE(eventually([first] { return catches_usr1(first); }));
  by_hand_.send(SIGUSR1);
  EXPECT_TRUE(exited_with(by_hand_.wait(), 0));
  const pid_t second = wait_for(app, first);
  ASSERT_NE(0, second);
  EXPECT_TRUE(
      console_says("]wex_handle_netlink_exit--> wex_pid->action == SHELL_RESTART, found child pid_get = " +
                   std::to_string(second) + "\n"));
  EXPECT_TRUE(eventually([&] {
    return read_file(db_file("replacing", second)) == std::to_string(second) + "\n3\n" + app;
  })) << read_file(db_file("replacing", second));
  write_file("/etc/cmdmap/replacing.sh", "echo ran > /tmp/apps/ran\nexec " + app + "\n");
  send_signal(second, SIGKILL);
  EXPECT_TRUE(eventually([] { return exists("/tmp/apps/ran"); })) << "not restarted through its script";
}

namespace {

// In the monitor, what happens to the reading of the link that names the executable of `pid`, from the second
// time on: the search reads it once, the registration after it.
bool inject_into_registration(pid_t daemon, pid_t pid, const std::string& injection, Process* strace) {
  pid_t monitor = 0;
  const std::string tasks = "/proc/" + std::to_string(daemon) + "/task/";
  for (const std::string& task : list_dir(tasks)) {
    monitor = read_file(tasks + task + "/comm") == "wex_process_net\n" ? std::stoi(task) : monitor;
  }
  return monitor != 0 &&
         strace->start({"strace", "-qq", "-o", "/tmp/wex-trace", "-P",
                        "/proc/" + std::to_string(pid) + "/exe", "-e",
                        "inject=readlink,readlinkat:" + injection, "-p", std::to_string(monitor)}) &&
         eventually([&] { return status_field(monitor, "TracerPid") != "0"; });
}

}  // namespace

TEST_F(ThirdPart, AHandOverToAProcessThatHasDiedMeanwhileRestartsTheProgram) {
  const std::string app = install("fleeting");
  describe("fleeting", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "fleeting"));
  Process second;
  ASSERT_TRUE(second.start({app}));
  ASSERT_TRUE(console_says("wex_process_netlink--> " + app + " is running\n"));
  const pid_t dead = second.pid();
  Process strace;
  ASSERT_TRUE(inject_into_registration(daemon_.pid(), dead, "delay_enter=2000000:when=2", &strace));
  end_by_hand();
  ASSERT_TRUE(console_says("found child pid_get = " + std::to_string(dead) + "\n")) << read_console();
  second.kill_now();
  EXPECT_TRUE(console_says("-->reg_third_part_process_exit_action error!\n")) << read_console();
  const pid_t third = wait_for(app, dead, 20s);
  ASSERT_GT(third, 0) << read_console();
  strace.kill_now();
  EXPECT_TRUE(eventually([&] { return exists(db_file("fleeting", third)); }));
  send_signal(third, SIGKILL);
  EXPECT_NE(0, wait_for(app, third, 20s)) << "it is supervised as before";
}

TEST_F(ThirdPart, AHandOverToAProcessThatCannotBeReadIsTold) {
  const std::string app = install("unreadable");
  describe("unreadable", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "unreadable"));
  Process second;
  ASSERT_TRUE(second.start({app}));
  ASSERT_TRUE(console_says("wex_process_netlink--> " + app + " is running\n"));
  Process strace;
  ASSERT_TRUE(inject_into_registration(daemon_.pid(), second.pid(), "error=EACCES:when=2+", &strace));
  end_by_hand();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit--> wex_pid->action == RESPAWN, found child pid_get = " +
                           std::to_string(second.pid()) + "\n"))
      << read_console();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit-->reg_third_part_process_exit_action error!\n"))
      << read_console();
  EXPECT_TRUE(list_dir("/tmp/vsd/0/wex/db").empty());
  strace.kill_now();
  second.kill_now();
}

TEST_F(ThirdPart, AHandOverSucceedsThoughOtherProcessesComeAndGo) {
  const std::string app = install("replacing");
  describe("replacing", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  PassersBy others(500, 300000, 5000);
  ASSERT_TRUE(start_by_hand({app}));
  EXPECT_TRUE(registered(app, by_hand_.pid(), "replacing"));
  pid_t now = by_hand_.pid();
  for (int round = 1; now != 0 && round <= 5; ++round) {
    EXPECT_TRUE(eventually([now] { return catches_usr1(now); }));
    send_signal(now, SIGUSR1);
    if (round == 1) {
      by_hand_.wait();
    }
    now = settled(app, now);
    EXPECT_NE(0, now) << "hand-over " << round;
  }
  EXPECT_EQ(std::string::npos, read_console().find("wex_spawn-->")) << "a second instance was started";
}

TEST_F(ThirdPart, ASecondInstanceIsNotRegistered) {
  const std::string app = install("twice");
  describe("twice", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "twice"));
  Process second;
  ASSERT_TRUE(second.start({app}));
  EXPECT_TRUE(console_says("wex_process_netlink--> " + app + " is running\n"));
  EXPECT_FALSE(exists(db_file("twice", second.pid())));
  EXPECT_TRUE(exists(db_file("twice", by_hand_.pid())));
}

TEST_F(ThirdPart, StoppedWithSigtermItIsForgotten) {
  const std::string app = install("stopped");
  describe("stopped", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "stopped"));
  const pid_t pid = by_hand_.pid();
  by_hand_.send(SIGTERM);
  EXPECT_TRUE(ended_by(by_hand_.wait(), SIGTERM));
  EXPECT_TRUE(eventually([&] { return !exists(db_file("stopped", pid)); }));
  EXPECT_TRUE(never([&] { return !pids_with_command(app).empty(); }, 500ms));
}

TEST_F(ThirdPart, AListLineWithoutABlankRegistersNothing) {
  const std::string app = install("blankless");
  const std::string other = install("witness");
  describe("blankless", app);
  describe("witness", other + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  Process unlisted;
  ASSERT_TRUE(unlisted.start({app}));
  ASSERT_TRUE(start_by_hand({other}));
  ASSERT_TRUE(registered(other, by_hand_.pid(), "witness"));
  EXPECT_FALSE(exists(db_file("blankless", unlisted.pid())));
}

TEST_F(ThirdPart, ATypeKeepsItsLineEndAndIsUnderstood) {
  const std::string app = install("lineend");
  describe("lineend", app + " WEX_RESTART\n");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "lineend"));
  EXPECT_TRUE(console_says("type: WEX_RESTART\n, type_len: 12\n"));
}

namespace {
struct refused_case {
  const char* name;
  const char* type;
};
class RefusedType : public ThirdPart, public ::testing::WithParamInterface<refused_case> {};
}  // namespace

TEST_P(RefusedType, RegistersNothingAndSaysSo) {
  const std::string app = install("refused");
  describe("refused", app + GetParam().type);
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  EXPECT_TRUE(console_says("wex_process_netlink--> reg_third_part_process_exit_action error!\n"));
  EXPECT_TRUE(list_dir("/tmp/vsd/0/wex/db").empty());
}

INSTANTIATE_TEST_SUITE_P(Rows, RefusedType,
                         ::testing::Values(refused_case{"trailingBlank", " WEX_RESTART \n"},
                                           refused_case{"unknownWord", " WEX_REBOOT"},
                                           refused_case{"lowerCase", " wex_restart"}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ThirdPart, ATypeThatOnlyBeginsLikeAKeywordIsUnderstood) {
  const std::string app = install("longer");
  describe("longer", app + " WEX_RESTARTING");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  EXPECT_TRUE(registered(app, by_hand_.pid(), "longer"));
}

TEST_F(ThirdPart, AProgramOfSeveralWordsIsFoundAgainByItsWholeCommandLine) {
  const std::string app = install("words");
  const std::string command = app + " -d --level 3";
  describe("words", command + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app, "-d", "--level", "3"}));
  ASSERT_TRUE(registered(command, by_hand_.pid(), "words"));
  const pid_t first = by_hand_.pid();
  end_by_hand();
  const pid_t second = wait_for(command, first, 30s);
  ASSERT_NE(0, second);
  EXPECT_TRUE(console_says("third part Normal[" + app + "] new pid: " + std::to_string(second), 10s));
  EXPECT_TRUE(eventually([&] { return exists(db_file("words", second)); }));
}

TEST_F(ThirdPart, AProgramOfSeveralWordsIsFoundThoughOtherProcessesComeAndGo) {
  const std::string app = install("words");
  const std::string command = app + " -d";
  describe("words", command + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app, "-d"}));
  ASSERT_TRUE(registered(command, by_hand_.pid(), "words"));
  const pid_t first = by_hand_.pid();
  PassersBy others(500, 5000000, 2000);  // at the look for the whole text, 5.5 s after the start
  end_by_hand();
  const pid_t second = wait_for(command, first);
  ASSERT_NE(0, second);
  EXPECT_TRUE(console_says("third part Normal[" + app + "] new pid: " + std::to_string(second), 10s));
}

TEST_F(ThirdPart, AProcessWithArgumentsThatTheListDoesNotNameIsNotRegistered) {
  const std::string app = install("words");
  describe("words", app + " -d WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app, "-x"}));
  EXPECT_TRUE(console_says(app + " -x is not in wexdb!\n"));
  EXPECT_TRUE(list_dir("/tmp/vsd/0/wex/db").empty());
}

TEST_F(ThirdPart, AfterARestartThatFoundNoProcessTheNextLifeIsSupervisedAgain) {
  const std::string app = install("vanishing");
  describe("vanishing", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "vanishing"));
  const pid_t first = by_hand_.pid();
  ASSERT_EQ(0, rename(app.c_str(), "/tmp/apps/hidden"));
  end_by_hand();
  ASSERT_TRUE(console_says("wex_spawn--> third part[" + app + "] Not Found new pid!\n", 10s));
  EXPECT_TRUE(console_says("HA_RESTART execvp fail, error = No such file or directory.\n"));
  ASSERT_TRUE(eventually([] { return occurrences(read_console(), "HA_RESTART execvp fail") == 2; }))
      << "that is one more exit, and the next search has begun";
  ASSERT_EQ(0, rename("/tmp/apps/hidden", app.c_str()));
  ASSERT_TRUE(start_by_hand({app}));
  const pid_t second = by_hand_.pid();
  EXPECT_TRUE(eventually([&] { return exists(db_file("vanishing", second)); }, 15s));
  EXPECT_FALSE(exists(db_file("vanishing", first)));
  end_by_hand();
  EXPECT_NE(0, wait_for(app, second));
}

// ---- Programs that end before they are found --------------------------------------------------------------

namespace {

constexpr char kLives[] = "/tmp/apps/lives";

// In place of the program, one that is never found: each of its lives adds its pid to kLives.
void replace_by_unfindable(const std::string& app) {
  ASSERT_EQ(0, rename(app.c_str(), (app + ".real").c_str()));
  write_file(app, std::string("#!/bin/sh\necho $$ >> ") + kLives + "\nexec sleep 1000\n", 0755);
}

// The pid of life `number`, once it has begun; 0 when it does not begin.
pid_t unfindable_life(size_t number) {
  eventually([&] { return lines_of(read_file(kLives)).size() >= number; }, 20s);
  const std::vector<std::string> lives = lines_of(read_file(kLives));
  return lives.size() == number ? std::stoi(lives.back()) : 0;
}

}  // namespace

TEST_F(ThirdPart, AProgramThatIsKilledWhileItIsLookedForComesBackEachTime) {
  const std::string app = install("unlucky");
  describe("unlucky", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "unlucky"));
  const pid_t first = by_hand_.pid();
  replace_by_unfindable(app);
  end_by_hand();
  const pid_t second = unfindable_life(1);
  ASSERT_GT(second, 0) << read_console();
  send_signal(second, SIGUSR1);
  EXPECT_TRUE(console_says(" receives event:000a and self-checking ...\n", 20s)) << "the child's status";
  const pid_t third = unfindable_life(2);
  ASSERT_GT(third, 0) << read_console();
  ASSERT_EQ(0, rename((app + ".real").c_str(), app.c_str()));
  send_signal(third, SIGKILL);
  const pid_t found = wait_for(app, first, 20s);
  ASSERT_NE(0, found) << read_console();
  EXPECT_TRUE(console_says("HA_SELF_CHECK_INFO Self-checking OK: 3 times and new id unlucky/" +
                           std::to_string(found) + ".\n"))
      << "the restarts that missed count in the throttle\n"
      << read_console();
  EXPECT_FALSE(exists(db_file("unlucky", first)));
}

// strace counts for each thread, so the fork of whoever tries again fails once, too.
TEST_F(ThirdPart, AProgramWhoseForkFailedOnceIsStartedAgain) {
  const std::string app = install("forkless");
  describe("forkless", app + " WEX_RESTART");
  ASSERT_TRUE(daemon_.start_traced({"inject=clone,fork,vfork:error=ENOMEM:when=1"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "forkless"));
  const pid_t first = by_hand_.pid();
  end_by_hand();
  const pid_t second = wait_for(app, first, 20s);
  EXPECT_NE(0, second) << read_console();
  EXPECT_TRUE(console_says("wex_spawn--> third part[" + app + "] Not Found new pid!\n"));
  EXPECT_FALSE(exists(kForkFile));
}

TEST_F(ThirdPart, AProgramOfADomainComesBackThereAlsoWhenItWasMissedOnce) {
  make_dirs("/tmp/vsd/2/wex/db");
  make_dirs("/data/var/run/vsd/2");
  const std::string app = install("inside");
  describe("inside", app + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  const gid_t group = 3200;
  const pid_t first = fork();
  if (first == 0) {
    setgroups(1, &group);
    execl(app.c_str(), app.c_str(), static_cast<char*>(nullptr));
    _exit(1);
  }
  ASSERT_GT(first, 0);
  EXPECT_TRUE(eventually([&] { return exists(db_file("inside", first, 2)); }, 15s)) << read_console();
  EXPECT_TRUE(eventually([&] { return exists("/tmp/vsd/2/wex/" + std::to_string(first)); }));
  replace_by_unfindable(app);
  send_signal(first, SIGKILL);
  waitpid(first, nullptr, 0);
  const pid_t missed = unfindable_life(1);
  ASSERT_GT(missed, 0) << read_console();
  EXPECT_EQ("3200 ", status_field(missed, "Groups"));
  ASSERT_EQ(0, rename((app + ".real").c_str(), app.c_str()));
  send_signal(missed, SIGKILL);
  const pid_t second = wait_for(app, first, 20s);
  ASSERT_GT(second, 0) << read_console();
  EXPECT_EQ("3200 ", status_field(second, "Groups"));
  EXPECT_TRUE(eventually([&] { return exists(db_file("inside", second, 2)); })) << read_console();
  EXPECT_TRUE(exists("/tmp/vsd/2/wex/" + std::to_string(second)));
  EXPECT_FALSE(exists("/tmp/vsd/2/wex/" + std::to_string(missed)));
}

// ---- Forged events ----------------------------------------------------------------------------------------

namespace {

// As the kernel tells that `pid` executed a program.
std::string exec_event(pid_t pid) {
  std::string message(76, '\0');
  const auto put = [&](size_t at, uint32_t value) { memcpy(&message[at], &value, sizeof value); };
  put(0, 76);
  put(4, NLMSG_DONE);
  put(16, 1);
  put(20, 1);
  put(32, 40);
  put(36, 2);
  put(52, static_cast<uint32_t>(pid));
  put(56, static_cast<uint32_t>(pid));
  return message;
}

// The number of the sender, 0 when it could not be sent.
uint32_t send_to_monitor(pid_t daemon, uint32_t groups, const std::string& message) {
  const unique_fd sender(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, 11));
  sockaddr_nl to = {};
  to.nl_family = AF_NETLINK;
  to.nl_pid = static_cast<uint32_t>(daemon);
  to.nl_groups = groups;
  sockaddr_nl own = {};
  socklen_t size = sizeof own;
  const bool sent = sendto(sender.get(), message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&to),
                           sizeof to) == static_cast<ssize_t>(message.size());
  return sent && getsockname(sender.get(), reinterpret_cast<sockaddr*>(&own), &size) == 0 ? own.nl_pid : 0;
}

}  // namespace

TEST_F(ThirdPart, EventsThatTheKernelDidNotSendAreDropped) {
  const std::string bystander = install("bystander");
  const std::string app = install("app");
  const std::string last = install("last");
  describe("app", app + " WEX_RESTART");
  describe("last", last + " WEX_RESTART");
  Process earlier;
  ASSERT_TRUE(earlier.start({bystander}));
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(eventually(
      [&] { return program_of(earlier.pid()) == bystander && program_of(by_hand_.pid()) == app; }));
  ASSERT_TRUE(daemon_.start_traced({"trace=recvfrom"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "app"));  // so the look at all processes is past the other one
  std::ofstream(kThirdPartList, std::ios::app) << bystander << " WEX_RESTART\n";
  const std::string event = exec_event(earlier.pid());
  for (const uint32_t groups : {0u, 1u}) {  // to the daemon alone, and to all who listen
    const uint32_t sender = send_to_monitor(daemon_.pid(), groups, event);
    ASSERT_NE(0u, sender) << strerror(errno);
    const std::string from =
        "nl_pid=" + std::to_string(sender) + ", nl_groups=" + (groups == 0 ? "0" : "0x") + "00000";
    EXPECT_TRUE(eventually([&] { return Daemon::trace().find(from) != std::string::npos; }))
        << from << " did not arrive\n"
        << Daemon::trace();
  }
  Process behind;  // in the same queue
  ASSERT_TRUE(behind.start({last}));
  ASSERT_TRUE(registered(last, behind.pid(), "last"));
  EXPECT_EQ(std::string::npos, read_console().find("To register to wex, process: " + bystander))
      << read_console();
  EXPECT_FALSE(exists(db_file("bystander", earlier.pid())));
  daemon_.kill_now();
  behind.kill_now();
  earlier.kill_now();
}

// As when a program has died before it was looked at. No text is part of every line, so it gets as far as the
// registration, with the type of the first.
TEST_F(ThirdPart, AProgramWhoseCommandLineCannotBeReadIsToldAndRefused) {
  const std::string app = install("unread");
  describe("unread", app + " WEX_RESTART");
  // Every program executed anywhere makes the monitor read one link, a listed one further ones.
  ASSERT_TRUE(daemon_.start_traced({"inject=readlink:error=EACCES:when=2+2"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  const auto told = [] {
    return read_console().find("]wex_process_netlink--> pid_to_proc error!\n") != std::string::npos;
  };
  for (int life = 0; life < 20 && !told(); ++life) {
    by_hand_.send(SIGTERM);
    by_hand_.wait();
    ASSERT_TRUE(start_by_hand({app}));
    eventually(told, 300ms);
  }
  EXPECT_TRUE(told()) << read_console();
  EXPECT_TRUE(console_says("]wex_process_netlink--> To register to wex, process: , pid: " +
                           std::to_string(by_hand_.pid()) + ", type: WEX_RESTART\n"));
  EXPECT_TRUE(console_says("]wex_process_netlink--> reg_third_part_process_exit_action error!\n"));
  EXPECT_FALSE(exists(db_file("unread", by_hand_.pid())));
  by_hand_.send(SIGTERM);
  by_hand_.wait();
}

// ---- The daemon ends in the middle ------------------------------------------------------------------------

TEST_F(ThirdPart, ADaemonThatEndsDuringASearchFinishesItAndLeavesOneInstance) {
  const std::string app = install("late");
  describe("late", app + " WEX_RESTART");
  ASSERT_TRUE(daemon_.start_traced({"inject=accept4:error=ECONNABORTED:when=40"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "late"));
  const pid_t first = by_hand_.pid();
  // Its next life takes a while to become the program that is looked for.
  ASSERT_EQ(0, rename(app.c_str(), "/tmp/apps/late.real"));
  write_file(app, "#!/bin/sh\nsleep 4\nmv /tmp/apps/late.real " + app + "\nexec " + app + "\n", 0755);
  end_by_hand();
  ASSERT_TRUE(console_says("receives event:0009 and self-checking ...\n"));
  std::vector<unique_fd> clients;
  ASSERT_TRUE(eventually([&] {  // one of them is refused, and that ends the daemon
    clients.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kControlSocket);
    return connect(clients.back().get(), reinterpret_cast<sockaddr*>(&address),
                   2 + sizeof kControlSocket - 1) != 0;
  })) << "the server still runs";
  EXPECT_EQ(std::string::npos, read_console().find("third part Normal[" + app))
      << "the search is over already";
  EXPECT_TRUE(exited_with(daemon_.wait(20s), 0)) << read_console();
  EXPECT_TRUE(console_says("wex_spawn--> third part Normal[" + app + "] new pid: "));
  const std::string log = read_file(kRunningLog1);
  EXPECT_EQ(log.size() - 7, log.find("Exit.\r\n")) << log;
  EXPECT_FALSE(exists(db_file("late", first)));
  const pid_t second = wait_for(app, first);
  ASSERT_NE(0, second);
  ASSERT_TRUE(start_daemon());
  EXPECT_TRUE(never([&] { return pids_with_command(app) != std::vector<pid_t>{second}; }, 1s));
}

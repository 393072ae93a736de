// Which process events reach the exit monitor, and that no exit of a registered process is kept from it, at
// whatever moment the process ends.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "control_client.h"
#include "restart_policy.h"

using namespace policy;
using control_client::body_of;
using control_client::raw_client;

namespace {

constexpr char kScript[] = "/tmp/brief.sh";
constexpr char kStarts[] = "/tmp/brief.starts";
constexpr char kList[] = "/etc/wex/third_part_proc";

// What slow_restart keeps the registry with; the path before it is the file system's choice.
constexpr char kSlow[] = "sleep 1000";

// Living processes that run kScript.
std::vector<pid_t> instances(const char* text = kScript) {
  std::vector<pid_t> found;
  for (const pid_t pid : processes_inside()) {
    if (command_line(pid).find(text) != std::string::npos && is_alive(pid)) {
      found.push_back(pid);
    }
  }
  return found;
}

struct EventFilter : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    make_dirs("/etc/wex");
  }
  void TearDown() override {
    daemon.kill_now();  // or it would start again what is ended here
    for (const char* const text : {kScript, kSlow}) {
      for (const pid_t pid : instances(text)) {
        send_signal(pid, SIGKILL);
      }
      EXPECT_TRUE(eventually([text] { return instances(text).empty(); }));
    }
    WexWorld::TearDown();
  }

  // Processes that nobody has registered; every other one executes a program.
  static void strangers(int count, bool execute = true) {
    for (int i = 0; i < count; ++i) {
      const pid_t child = vfork();
      if (child == 0) {
        if (execute && i % 2 == 0) {
          execl("/bin/true", "true", nullptr);
        }
        _exit(0);
      }
      ASSERT_EQ(child, waitpid(child, nullptr, 0));
    }
  }

  Daemon daemon;
};

// A program of which every start leaves a line in a file. The start of this number, if any, ends at once.
class Script {
 public:
  explicit Script(int brief_start) {
    for (const char* const path : {kScript, kStarts, "/tmp/brief.wait"}) {
      unlink(path);
    }
    EXPECT_EQ(0, mkfifo("/tmp/brief.wait", 0600));
    write_file(kScript, "echo >> /tmp/brief.starts\n[ $(wc -l < /tmp/brief.starts) = " +
                            std::to_string(brief_start) + " ] && exit 3\nread line < /tmp/brief.wait\n");
    EXPECT_TRUE(first_.start({"/bin/sh", kScript}));
    EXPECT_TRUE(eventually([] { return starts() == 1; }));
  }
  static size_t starts() { return lines_of(read_file(kStarts)).size(); }

  // The daemon has read the message; `handled` waits until it has acted on it.
  void registers(const raw_client& client, bool handled) {
    const wex_reg_info body = body_of(first_.pid());
    EXPECT_TRUE(client.send_body(WEX_RESTART, body) && client.acknowledged());
    if (handled) {
      EXPECT_TRUE(client.send_body(WEX_CONS_MSG, control_client::harmless()) && client.acknowledged());
    }
  }
  void end(int signal = SIGKILL) {
    first_.send(signal);
    first_.wait();
  }

  // Nothing is left of an exit that has been handled: the next one brings exactly one more start.
  static void comes_back_once_more() {
    const size_t before = starts();
    std::vector<pid_t> now;
    ASSERT_TRUE(eventually([&] { return (now = instances()).size() == 1; }, 20s));
    send_signal(now[0], SIGKILL);
    EXPECT_TRUE(eventually([&] { return starts() > before && instances().size() == 1; }, 20s)) << starts();
    EXPECT_EQ(before + 1, starts());
  }

 private:
  Process first_;
};

// When a call that changes the filter is held up: before it has an effect, or after.
struct moment {
  const char* name;
  const char* held;
  bool reported;
};
constexpr moment kMoments[] = {{"BeforeTheFilterKnowsIt", "delay_enter", false},
                               {"AfterTheFilterKnowsIt", "delay_exit", true}};

struct EndingProcess : EventFilter, ::testing::WithParamInterface<moment> {
  // Holds up each thread's calls of setsockopt() from the `from`th on: the first ones belong to the start.
  bool start_holding_up(int from, int ms) {
    const std::string each = GetParam().held + std::string("=") + std::to_string(ms) + "ms";
    return daemon.start_traced({"inject=setsockopt:" + each + ":when=" + std::to_string(from) + "+"}) &&
           daemon.wait_ready(30s);
  }
  // How often the thread has been held up while it changed the filter.
  size_t filters_held_up(const std::string& thread, int from) const {
    const std::string tid = control_client::thread_of(daemon.pid(), thread);
    size_t count = 0;
    for (const std::string& line : lines_of(Daemon::trace())) {
      if (line.compare(0, tid.size(), tid) == 0 && line.find(" setsockopt(") != std::string::npos &&
          --from <= 0 && line.find("SO_ATTACH_FILTER") != std::string::npos) {
        ++count;
      }
    }
    return count;
  }
};

}  // namespace

TEST_F(EventFilter, KeepsStrangersFromTheMonitor) {
  ASSERT_TRUE(daemon.start_traced({"trace=recvfrom"}));
  ASSERT_TRUE(daemon.wait_ready());
  Service service("watched");
  ASSERT_TRUE(service.start());
  const auto received = [] { return occurrences(Daemon::trace(), "AF_NETLINK"); };
  const size_t before = received();
  strangers(200);
  EXPECT_LE(received(), before + 10) << "what was on its way when the filter was attached";
  const size_t quiet = received();
  service.end();
  EXPECT_TRUE(service.comes_back());
  EXPECT_TRUE(eventually([&] { return received() > quiet; }));
  EXPECT_LE(received(), quiet + 2) << "the exit of the service alone";
}

TEST_F(EventFilter, StrangersDoNotFillTheQueue) {
  ASSERT_TRUE(daemon.start());
  Service service("unharmed");
  ASSERT_TRUE(service.start());
  daemon.send(SIGSTOP);
  strangers(7000, false);
  service.end();
  daemon.send(SIGCONT);
  EXPECT_TRUE(service.comes_back());
  EXPECT_EQ(0u, occurrences(read_console(), "netlink recvfrom fail"));
  EXPECT_EQ(0u, occurrences(read_console(), " was lost\n"));
}

TEST_P(EndingProcess, ComesBackWhenItEndsAsSoonAsItIsStarted) {
  ASSERT_TRUE(start_holding_up(4, 200));
  Script script(2);
  const raw_client client;
  script.registers(client, true);
  script.end();
  EXPECT_TRUE(eventually([] { return Script::starts() == 3; }, 20s)) << read_console();
  EXPECT_NE(0u, filters_held_up("wex_process_net", 4)) << Daemon::trace();
  Script::comes_back_once_more();
}

INSTANTIATE_TEST_SUITE_P(Moments, EndingProcess, ::testing::ValuesIn(kMoments),
                         [](const auto& row) { return row.param.name; });

namespace {

// Keeps the registry locked: the restart of a service waits for three seconds.
class slow_restart {
 public:
  explicit slow_restart(const raw_client& client) {
    EXPECT_TRUE(service_.start({"/bin/sleep", "1000"}));
    EXPECT_TRUE(eventually([] { return instances(kSlow).size() == 1; })) << "it has not executed its program";
    wex_reg_info body = body_of(service_.pid());
    body.restart_delay = 3;
    EXPECT_TRUE(client.send_body(WEX_RESTART, body) && client.acknowledged());
    EXPECT_TRUE(client.send_body(WEX_CONS_MSG, control_client::harmless()) && client.acknowledged());
  }
  void begin() {
    service_.send(SIGKILL);
    service_.wait();
    EXPECT_TRUE(console_says("]wex_handle_netlink_exit--> exit_signal = 9\n", 20s)) << read_console();
  }

 private:
  Process service_;
};

// A process that ends after its registration was acknowledged, and before it has its record.
struct EarlyEnd : EventFilter {
  void end_early(int signal) {
    ASSERT_TRUE(daemon.start());
    const raw_client client;
    slow_restart other(client);
    Script script(0);
    other.begin();
    script.registers(client, false);
    const std::string server = control_client::thread_of(daemon.pid(), "wex_process_dom");
    ASSERT_TRUE(eventually([&] {
      return std::strtol(read_file("/proc/" + server + "/syscall").c_str(), nullptr, 10) == SYS_futex;
    })) << "it waits for the registry";
    script.end(signal);
  }
};

}  // namespace

TEST_F(EarlyEnd, IsFollowedByARestart) {
  end_early(SIGKILL);
  EXPECT_TRUE(eventually([] { return Script::starts() == 2; }, 20s)) << read_console();
  Script::comes_back_once_more();
}

TEST_F(EarlyEnd, ThatWasAStopOnPurposeIsNotFollowedByARestart) {
  end_early(SIGTERM);
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit--> exit_signal = 15\n", 20s)) << read_console();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit: hlist_del\n", 20s)) << read_console();
  EXPECT_EQ(1u, Script::starts());
}

// The end of the process itself is reported under a pid that nobody registered.
TEST_F(EventFilter, PassesTheSignalThatEndedARegisteredThreadAndItsProcess) {
  const std::vector<std::string> options = {"--thread=120", "--ready=/tmp/ready", "--hold"};
  ASSERT_TRUE(daemon.start());
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }, 20s));
  int32_t thread = 0;
  for (const std::string& tid : list_dir("/proc/" + std::to_string(service.pid()) + "/task")) {
    thread = std::max(thread, atoi(tid.c_str()));
  }
  ASSERT_GT(thread, service.pid());
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_RESTART, body_of(thread)) && client.acknowledged());
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, control_client::harmless()) && client.acknowledged());
  service.send(SIGTERM);
  service.wait();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit--> exit_signal = 15\n", 30s)) << read_console();
  EXPECT_TRUE(console_says("]wex_handle_netlink_exit: hlist_del\n", 20s)) << read_console();
  EXPECT_TRUE(pids_with_command(actor_command(options)).empty()) << "it was stopped on purpose";
}

TEST_F(EventFilter, ThatIsRefusedLaterKeepsNoExitBack) {
  ASSERT_TRUE(daemon.start_traced({"inject=setsockopt:error=ENOMEM:when=4+"}));
  ASSERT_TRUE(daemon.wait_ready());
  Service service("refused");
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(service.ends_and_comes_back());
  const std::string file = db_file("actor", service.pid());
  ASSERT_TRUE(eventually([&] { return exists(file); }));
  service.end(SIGTERM);
  EXPECT_TRUE(eventually([&] { return !exists(file); }))
      << "it was stopped on purpose, which only its exit tells";
}

namespace {

// Ways in which a program comes to stand in the list while the daemon runs.
struct change {
  const char* name;
  void (*make)(const std::string& line);
  std::vector<std::string> injected;
};

void rename_into_place(const std::string& line) {
  write_file("/etc/wex/new", line);
  EXPECT_EQ(0, rename("/etc/wex/new", kList));
}

void link_into_place(const std::string& line) {
  write_file("/tmp/elsewhere", "");
  EXPECT_EQ(0, symlink("/tmp/elsewhere", "/etc/wex/new"));
  EXPECT_EQ(0, rename("/etc/wex/new", kList));
  write_file("/tmp/elsewhere", line);
}

void move_directory(const std::string& line) {
  EXPECT_EQ(0, rename("/etc/wex", "/etc/wex.old"));
  write_file(kList, line);
}

// The directory is not there when the daemon starts.
void make_directory(const std::string& line) {
  EXPECT_FALSE(exists(kList));
  write_file(kList, line);
}

const change kChanges[] = {
    {"Written", [](const std::string& line) { write_file(kList, line); }, {}},
    {"RenamedIntoPlace", rename_into_place, {}},
    {"ALinkThatIsWrittenThrough", link_into_place, {}},
    {"InANewDirectory", move_directory, {}},
    {"InTheFirstDirectory", make_directory, {}},
    {"NotWatched",
     [](const std::string& line) { write_file(kList, line); },
     {"inject=inotify_add_watch:error=ENOSPC", "/etc/wex"}},
};

struct NewList : EventFilter, ::testing::WithParamInterface<change> {
  void TearDown() override {
    EventFilter::TearDown();
    remove_tree("/etc/wex.old");
    unlink("/opt/listed");
  }
};

}  // namespace

TEST_P(NewList, RegistersWhatIsExecutedFromThenOn) {
  make_dirs("/opt");
  std::filesystem::copy_file("/bin/sleep", "/opt/listed");
  if (GetParam().make == make_directory) {
    remove_tree("/etc/wex");
  }
  ASSERT_TRUE(GetParam().injected.empty() ? daemon.start() : daemon.start_traced(GetParam().injected));
  ASSERT_TRUE(daemon.wait_ready());
  GetParam().make("/opt/listed 1000 WEX_RESTART\n");
  Process program;
  ASSERT_TRUE(program.start({"/opt/listed", "1000"}));
  EXPECT_TRUE(eventually([&] { return exists(db_file("listed", program.pid())); }, 20s)) << read_console();
  daemon.kill_now();  // or it would start the program again
}

INSTANTIATE_TEST_SUITE_P(Lists, NewList, ::testing::ValuesIn(kChanges),
                         [](const auto& row) { return row.param.name; });

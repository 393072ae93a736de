// third_part_world: what the tests of third-part programs share. Copies of the test program itself are the
// programs: each does what its name says, for a command line of one word is what most of these tests are
// about.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "restart_policy.h"
#include "taken_pid.h"

namespace third_part {

using namespace policy;

inline constexpr char kApps[] = "/tmp/apps/";
inline constexpr char kHoldStart[] =
    "/tmp/apps/hold_start";  // while it exists, a detaching program stays attached

// The pid of the detached process, where a test wants a certain one.
inline constexpr char kDetachAs[] = "/tmp/apps/detach_as";

inline constexpr char kGiveUp[] = "/tmp/apps/give_up";

[[noreturn]] inline void live() {
  for (;;) {
    pause();
  }
}

[[noreturn]] inline void detach() {
  while (access(kHoldStart, F_OK) == 0) {
    usleep(5000);
  }
  const pid_t wanted = atoi(read_file(kDetachAs).c_str());
  pid_t child = -1;
  while ((child = wanted > 0 ? fork_as(wanted) : fork()) < 0 && wanted > 0) {
    usleep(5000);  // its former owner is not reaped yet
  }
  if (child != 0) {
    _exit(0);
  }
  setsid();
  live();
}

extern "C" inline void go_on(int) {}

// At the first SIGUSR1 it starts itself again beside itself, at the second it ends.
[[noreturn]] inline void replace_myself(const char* path) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  sigprocmask(SIG_BLOCK, &mask, nullptr);  // a request that comes early waits
  signal(SIGUSR1, go_on);
  sigemptyset(&mask);
  sigsuspend(&mask);
  if (fork() == 0) {
    setsid();
    execl(path, path, static_cast<char*>(nullptr));
    _exit(1);
  }
  sigsuspend(&mask);
  _exit(0);
}

// Once there is a file that says so: at its first start that is when it has been registered.
inline void give_rights_up() {
  while (access(kGiveUp, F_OK) != 0) {
    usleep(5000);
  }
  if (setresuid(1234, 1234, 1234) != 0) {
    _exit(1);
  }
}

// What a copy of this program does.
__attribute__((constructor)) static void act_by_name() {
  char path[512] = "";
  if (readlink("/proc/self/exe", path, sizeof path - 1) < 0 || strncmp(path, kApps, strlen(kApps)) != 0) {
    return;
  }
  const std::string name = path + strlen(kApps);
  if (name.rfind("ending", 0) == 0 && access(kGiveUp, F_OK) == 0) {
    _exit(1);
  }
  if (name.rfind("dropping", 0) == 0) {
    give_rights_up();
  }
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

  // Installs a program, lists it, and starts the daemon and the program. It is registered then.
  void start_listed(const std::string& name, const std::string& type = "WEX_RESTART") {
    start_listed_with({}, name, type);
  }

  // The same for a program with arguments, all of which the list names.
  void start_listed_with(const std::vector<std::string>& arguments, const std::string& name,
                         const std::string& type = "WEX_RESTART") {
    command_ = app_ = install(name);
    std::vector<std::string> words = {app_};
    for (const std::string& argument : arguments) {
      words.push_back(argument);
      command_ += " " + argument;
    }
    describe(name, command_ + " " + type);
    ASSERT_TRUE(start_daemon());
    ASSERT_TRUE(start_by_hand(words));
    ASSERT_TRUE(registered(command_, by_hand_.pid(), name));
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

  // The same, once the registry has it too: a program that detaches shows two pids for a moment.
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

  // Has a "replacing" program start its next life, and ends it once the monitor has seen that life.
  static bool replaces_itself(const std::string& command, pid_t pid) {
    const auto catches_usr1 = [pid] {
      return (strtoull(status_field(pid, "SigCgt").c_str(), nullptr, 16) >> (SIGUSR1 - 1) & 1) != 0;
    };
    const std::string seen = "wex_process_netlink--> " + command + " is running\n";
    const size_t before = occurrences(read_console(), seen);
    if (!eventually(catches_usr1)) {
      return false;
    }
    send_signal(pid, SIGUSR1);
    const bool running = eventually([&] { return occurrences(read_console(), seen) > before; }, 20s);
    send_signal(pid, SIGUSR1);
    return running;
  }

  void end_by_hand() {
    by_hand_.send(SIGKILL);
    by_hand_.wait();
  }

  // Ends the program that was started by hand, and waits for the one that is started in its place.
  pid_t restarted(milliseconds limit = 10s) {
    const pid_t first = by_hand_.pid();
    end_by_hand();
    return wait_for(command_, first, limit);
  }

  std::string app_;      // of start_listed()
  std::string command_;  // the same with its arguments
  Daemon daemon_;
  Process by_hand_;
};

}  // namespace third_part

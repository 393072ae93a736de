// What the tests of the restart policy share: a registered service that can be ended and looked for again.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "wex.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace policy {

using namespace wex_test;

// The name that messages use: what stands behind the last "/" of the command line.
inline std::string name_of(const std::string& command) {
  return command.substr(command.rfind('/') + 1);
}

inline std::string db_file(const std::string& program, pid_t pid, int domain = 0) {
  return "/tmp/vsd/" + std::to_string(domain) + "/wex/db/" + program + "." + std::to_string(pid);
}

// Children of `parent` that have ended and that nobody has reaped.
inline size_t zombies_of(pid_t parent) {
  size_t count = 0;
  for (const std::string& entry : list_dir("/proc")) {
    const std::string stat = read_file("/proc/" + entry + "/stat");
    const size_t fields = stat.rfind(") ");
    if (entry[0] >= '0' && entry[0] <= '9' && fields != std::string::npos &&
        stat.compare(fields, 4 + std::to_string(parent).size() + 1, ") Z " + std::to_string(parent) + " ") ==
            0) {
      ++count;
    }
  }
  return count;
}

// An actor that registers and then lives until it is ended.
class Service {
 public:
  // It is ready when its registration has been acted on; the acknowledgement alone would not say that.
  explicit Service(const std::string& tag, const std::string& registration = "--register=RESTART")
      : ready_("/tmp/ready." + tag),
        options_{"--tag=" + tag, registration, "--confirm", "--ready=" + ready_, "--hold"} {}

  bool start() {
    unlink(ready_.c_str());
    if (!first_.start(actor_words(options_)) || !eventually([this] { return exists(ready_); })) {
      ADD_FAILURE() << command() << " did not register";
      return false;
    }
    pid_ = first_.pid();
    return true;
  }

  void end(int signal = SIGKILL) {
    send_signal(pid_, signal);
    if (pid_ == first_.pid()) {
      first_.wait();  // or it would stay a zombie, for it is ours
    }
  }

  bool comes_back(milliseconds limit = 10s) {
    const pid_t found = wait_for_actor(options_, pid_, limit);
    pid_ = found != 0 ? found : pid_;
    return found != 0;
  }

  bool ends_and_comes_back(int signal = SIGKILL) {
    end(signal);
    return comes_back();
  }

  // Four restarts, and the exit behind them parks it.
  bool park() {
    for (int restart = 1; restart <= 4; ++restart) {
      // The daemon has adopted it by then: a process that is killed on its way to the program is replaced,
      // not restarted.
      if (!ends_and_comes_back() || !console_says("/" + std::to_string(pid_) + ".\n", 10s)) {
        ADD_FAILURE() << "restart " << restart << " of " << command() << " did not happen";
        return false;
      }
    }
    end();
    return true;
  }

  pid_t pid() const { return pid_; }
  std::string command() const { return actor_command(options_); }
  std::string name() const { return name_of(command()); }
  const std::vector<std::string>& options() const { return options_; }
  std::string id() const { return name() + "/" + std::to_string(pid_); }

 private:
  std::string ready_;
  std::vector<std::string> options_;
  Process first_;
  pid_t pid_ = 0;
};

// Registers processes in their name, and so holds their database files until it is ended: as the other
// processes of a program do that outlive its first one.
class Holder : public child {
 public:
  explicit Holder(const std::vector<pid_t>& pids)
      : child([&] {
          for (const pid_t pid : pids) {
            reg_process_exit_action(pid, WEX_RESTART);
            reg_process_exit_action(pid, WEX_RESTART);  // answered when the first has been acted on
          }
          return true;
        }) {}
};

}  // namespace policy

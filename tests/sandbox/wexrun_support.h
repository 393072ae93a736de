// What the tests of wexrun share: starting it, and who is supervised after that.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "unique_fd.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace wexrun_test {

using namespace wex_test;
using words = std::vector<std::string>;

inline constexpr char kBinary[] = WEX_BUILD_DIR "/run/wexrun";
inline constexpr char kNotifier[] = WEX_BUILD_DIR "/tests/harness/notifier";
inline constexpr char kDbDir[] = "/tmp/vsd/0/wex/db";
inline constexpr char kFacts[] = "/tmp/wexrun-facts";

inline words operator+(words left, const words& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}
inline std::string joined(const words& list) {
  std::string text;
  for (const std::string& word : list) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}
inline words wexrun(const words& options, const words& program) {
  return words{kBinary} + options + words{"--"} + program;
}

// What it says on its standard error goes to a file.
inline words said(const words& command, const std::string& file) {
  return words{"sh", "-c", "exec \"$@\" 2> " + file, "sh"} + command;
}
// With a fault that strace makes; the pid is the command's own.
inline words below_strace(const std::string& fault, const words& command) {
  return words{"strace", "-D", "-q", "-o", "/dev/null", "-e", fault} + command;
}

inline std::string text(pid_t pid) {
  return std::to_string(pid);
}
inline words db_files() {
  return list_dir(kDbDir);
}
inline bool only_registered(pid_t pid) {
  return db_files() == words{"wexrun." + text(pid)};
}
// Who holds the lock of the database file; 0 when nobody does.
inline pid_t lock_holder(pid_t pid) {
  const std::string path = std::string(kDbDir) + "/wexrun." + text(pid);
  const unique_fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  return file.valid() && fcntl(file.get(), F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK ? whole.l_pid : 0;
}

// The one process with this command line other than `not_this`; 0 when there is none in time.
inline pid_t wait_for_command(const words& command, pid_t not_this = 0, milliseconds limit = 20s) {
  pid_t found = 0;
  eventually(
      [&] {
        const std::vector<pid_t> pids = pids_with_command(joined(command));
        found = pids.size() == 1 && pids[0] != not_this ? pids[0] : 0;
        return found != 0;
      },
      limit);
  return found;
}

// As Process::kill_now(), but the process keeps telling its pid.
inline void kill_and_reap(Process* process) {
  process->send(SIGKILL);
  EXPECT_TRUE(ended_by(process->wait(), SIGKILL));
}

// Ends whoever came since. A restart may be under way: its process executes its program a moment later.
inline void end_all_but(const std::set<pid_t>& before) {
  EXPECT_TRUE(eventually(
      [&] {
        bool none = true;
        for (const pid_t pid : processes_inside()) {
          if (before.count(pid) == 0) {
            none = false;
            send_signal(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
          }
        }
        return none;
      },
      20s));
}

}  // namespace wexrun_test

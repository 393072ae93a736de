// What tests of the running system share. Everything here works on the private device that tools/sandbox
// makes: true paths, real processes, the real kernel.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "send_signal.h"

namespace wex_test {

using namespace std::chrono_literals;
using milliseconds = std::chrono::milliseconds;

// ---- Waiting ----------------------------------------------------------------------------------------------

// Asks `cond` until it holds or `limit` has passed; what it said last. Never sleeps longer than needed to
// notice within some 10 ms.
bool eventually(const std::function<bool()>& cond, milliseconds limit = 5s);

// True when `cond` stayed false for the whole of `span`: for "nothing happens", where nothing can be waited
// for.
bool never(const std::function<bool()>& cond, milliseconds span);

// ---- Files ------------------------------------------------------------------------------------------------

bool exists(const std::string& path);
std::string read_file(const std::string& path);  // "" when it cannot be read
void write_file(const std::string& path, const std::string& text,
                mode_t mode = 0644);                         // makes directories above it
mode_t mode_of(const std::string& path);                     // permission bits; 0 when there is nothing
std::vector<std::string> list_dir(const std::string& path);  // sorted names
std::vector<std::string> lines_of(const std::string& text);  // without their line ends
size_t occurrences(const std::string& text, const std::string& part);
void make_dirs(const std::string& path);
void remove_tree(const std::string& path);  // follows no link

// ---- Regular expressions, in the syntax of ECMAScript -----------------------------------------------------

bool matches(const std::string& text, const std::string& expression);         // all of the text
bool contains_match(const std::string& text, const std::string& expression);  // some part of it
// The first match and what its groups have matched; empty when there is none.
std::vector<std::string> groups_of(const std::string& text, const std::string& expression);
std::vector<std::string> all_matches(const std::string& text, const std::string& expression,
                                     size_t group = 0);
std::string replace_matches(const std::string& text, const std::string& expression,
                            const std::string& replacement);

// Something of the test's own at this path, or below it: gone when the scope ends.
class temporary {
 public:
  explicit temporary(std::string path) : path_(std::move(path)) {}
  ~temporary() { remove_tree(path_); }
  temporary(const temporary&) = delete;
  temporary& operator=(const temporary&) = delete;

 private:
  std::string path_;
};

// ---- Processes and the machine ----------------------------------------------------------------------------

bool inside_sandbox();
bool may_restart_machine();                                     // CAP_SYS_BOOT in any set of this process
std::set<std::string> open_descriptors();                       // "number -> target" of this process
size_t count_descriptors();                                     // of this process
std::set<pid_t> processes_inside();                             // of this sandbox, this process excepted
bool is_alive(pid_t pid);                                       // exists and is no zombie
std::string command_line(pid_t pid);                            // words parted by one blank; "" when gone
std::string program_of(pid_t pid);                              // what /proc/PID/exe points to
std::string status_field(pid_t pid, const std::string& field);  // e.g. "SigIgn", from /proc/PID/status
std::vector<pid_t> pids_with_command(
    const std::string& command);  // exactly this command line, in this sandbox

// ---- The console ------------------------------------------------------------------------------------------

// The console is gathered in a file by another process: what was printed may take a moment to arrive.
inline constexpr char kConsoleLog[] = "/dev/console.log";
void mark_console();         // forget what was printed so far
std::string read_console();  // everything since the mark
bool console_says(const std::string& text, milliseconds limit = 5s);

// ---- A child of the test ----------------------------------------------------------------------------------

class Process {
 public:
  Process() = default;
  Process(Process&& from) noexcept;
  Process& operator=(Process&& from) noexcept;
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();  // SIGKILL, and reaped

  // `words[0]` is looked up in PATH. `env` adds to or overrides ours ("NAME=value"). Signals and mask start
  // as the kernel has them. False, and a test failure, when it could not be started.
  bool start(const std::vector<std::string>& words, const std::vector<std::string>& env = {},
             bool on_first_cpu = false);
  pid_t pid() const { return pid_; }  // 0 when none
  bool running();
  void send(int signal);
  std::optional<int> wait(milliseconds limit = 10s);  // wait status, once it has ended
  std::optional<int> kill_now();                      // SIGKILL and wait

 private:
  pid_t pid_ = 0;
  std::optional<int> status_;
};

// A forked child that does `work` and then stays until it is ended. It ends with this process at the latest.
class child {
 public:
  explicit child(const std::function<bool()>& work = [] { return true; });
  // A program instead, by its path, with a pipe as its input: there once it has been executed.
  child(const char* path, const std::vector<std::string>& words);
  ~child();  // SIGKILL, and reaped
  child(const child&) = delete;
  child& operator=(const child&) = delete;

  pid_t pid() const { return pid_; }
  bool ready() const { return ready_; }  // what `work` has returned
  void kill_only() const;                // a zombie until end()
  void end();
  bool ended();                         // and reaped
  int signal(milliseconds limit = 5s);  // the one that ended it within the limit, else 0
  static pid_t reaped();                // a pid that nobody has any more

 private:
  pid_t pid_ = -1;
  int status_ = 0;
  bool ready_ = false;
  bool ended_ = false;
  int input_ = -1;
};

// Runs to its end; the wait status, or nothing (a failure) when it took longer than `limit`.
std::optional<int> run(const std::vector<std::string>& words, milliseconds limit = 30s,
                       const std::vector<std::string>& env = {});

bool exited_with(std::optional<int> status, int code);
bool ended_by(std::optional<int> status, int signal);

// ---- What this process prints -----------------------------------------------------------------------------

// Everything written to descriptor 1 while it lives.
class printed {
 public:
  printed();
  ~printed();
  printed(const printed&) = delete;
  printed& operator=(const printed&) = delete;

  std::string text() const;
  bool has(const std::string& part) const { return text().find(part) != std::string::npos; }

 private:
  int file_ = -1;
  int before_ = -1;
};

std::string printed_by(const std::function<void()>& work);

// The line numbers of the sources, which are free, as "N".
std::string without_line_numbers(const std::string& text);

// ---- The daemon -------------------------------------------------------------------------------------------

// The shipped program, on the first processor only: its threads run at real-time priority 99, and a loop in
// one of them must not keep the test from telling so.
class Daemon {
 public:
  ~Daemon();

  // Starts it with all diagnostics on and waits until it answers. `env` as above.
  bool start(const std::vector<std::string>& args = {}, const std::vector<std::string>& env = {});

  // The same through a starter that becomes the daemon ("setpriv ..."): its words, and the daemon's name
  // behind them. The second does not wait until it answers.
  bool start_by(const std::vector<std::string>& starter);
  bool start_below(const std::vector<std::string>& words);

  // The same below strace: each of `expressions` is one -e argument ("inject=poll:error=EINVAL:when=2",
  // "trace=reboot"), or a path: then only calls that name one count. Does not wait until it answers. What
  // strace saw is in trace().
  bool start_traced(const std::vector<std::string>& expressions, const std::vector<std::string>& args = {},
                    const std::vector<std::string>& env = {});
  bool wait_ready(milliseconds limit = 10s);  // control socket, process events, all threads

  pid_t pid() const { return process_.pid(); }
  bool running() { return process_.running(); }
  void send(int signal) { process_.send(signal); }
  std::optional<int> wait(milliseconds limit = 10s) { return process_.wait(limit); }
  // Both return when what it forked last runs its own program, too.
  std::optional<int> stop();      // SIGINT, the one signal that ends it
  std::optional<int> kill_now();  // as a crash would

  static std::string trace();
  static const char* binary();

 private:
  Process process_;
};

// ---- The supervised service -------------------------------------------------------------------------------

// Command line of the actor with its options (see actor.cpp), as it stands in /proc.
std::string actor_command(const std::vector<std::string>& options);
std::vector<std::string> actor_words(const std::vector<std::string>& options);
const char* actor_binary();

// Pid of the one living actor with these options other than `not_this`; 0 when there is none within `limit`.
pid_t wait_for_actor(const std::vector<std::string>& options, pid_t not_this = 0, milliseconds limit = 10s);

// What an actor told about itself with --facts=FILE: key -> values in the order written.
using Facts = std::map<std::string, std::vector<std::string>>;
Facts read_facts(const std::string& path);

// ---- The system log ---------------------------------------------------------------------------------------

// Takes the place of the log daemon on the private /dev/log.
class SyslogSink {
 public:
  SyslogSink();
  ~SyslogSink();
  SyslogSink(const SyslogSink&) = delete;
  SyslogSink& operator=(const SyslogSink&) = delete;

  std::vector<std::string> lines();       // as received: "<priority>date tag: text"
  size_t count(const std::string& text);  // lines that contain it
  bool says(const std::string& text, milliseconds limit = 5s);
  void clear();

 private:
  void collect();
  int socket_ = -1;
  int stop_[2] = {-1, -1};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// ---- The world of a test ----------------------------------------------------------------------------------

// Sweeps away what wex and its tests leave behind. The leak gate does so around every case, so that each
// starts on a device that never ran wex. With WEX_STRICT in the environment it is one that asks for strict
// mode: what is root's must go on there as ever.
void clean_world();

// For cases that run the daemon: all diagnostics on, on a console that starts empty. A process or a sanitizer
// report that is left over is a failure, and a failed case shows the end of its console. Actors are the
// exception: services are meant to outlive the daemon, so they are ended.
struct WexWorld : ::testing::Test {
  void SetUp() override;
  void TearDown() override;

 private:
  std::set<pid_t> before_;
};

}  // namespace wex_test

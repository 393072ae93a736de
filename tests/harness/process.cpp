// Children of the test: any program, the daemon, the actor.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "wex_paths.h"
#include "wex_test.h"

namespace wex_test {
namespace {

constexpr char kTraceFile[] = "/tmp/wex-trace";
constexpr size_t kDaemonThreads = 7;  // main, its five workers, and the one that does the signals' work

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> list;
  for (std::string& text : texts) {
    list.push_back(text.data());
  }
  list.push_back(nullptr);
  return list;
}

std::vector<std::string> environment_with(const std::vector<std::string>& added) {
  std::map<std::string, std::string> by_name;
  for (char** entry = environ; *entry != nullptr; entry++) {
    by_name[std::string(*entry).substr(0, std::string(*entry).find('='))] = *entry;
  }
  for (const std::string& entry : added) {
    by_name[entry.substr(0, entry.find('='))] = entry;
  }
  std::vector<std::string> all;
  for (const auto& [name, entry] : by_name) {
    all.push_back(entry);
  }
  return all;
}

// In the child, between fork and exec.
[[noreturn]] void become(char* const* words, char* const* env, bool on_first_cpu) {
  for (int number = 1; number < NSIG; number++) {
    signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (on_first_cpu) {
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    sched_setaffinity(0, sizeof first, &first);
  }
  execvpe(words[0], words, env);
  _exit(127);
}

// Family 11 is the connector; a subscribed socket is a member of group 1.
bool holds_socket(pid_t pid, unsigned long inode) {
  const std::string descriptors = "/proc/" + std::to_string(pid) + "/fd/";
  const std::string wanted = "socket:[" + std::to_string(inode) + "]";
  for (const std::string& name : list_dir(descriptors)) {
    char target[64] = {};
    if (readlink((descriptors + name).c_str(), target, sizeof target - 1) > 0 && wanted == target) {
      return true;
    }
  }
  return false;
}

// By its number, or, where another test has taken that, by the socket itself.
bool hears_process_events(pid_t pid) {
  for (const std::string& line : lines_of(read_file("/proc/net/netlink"))) {
    int family = 0;
    long owner = 0;
    unsigned groups = 0;
    unsigned long inode = 0;
    if (sscanf(line.c_str(), "%*s %d %ld %x %*s %*s %*s %*s %*s %lu", &family, &owner, &groups, &inode) ==
            4 &&
        family == 11 && (groups & 1) != 0 && (owner == pid || holds_socket(pid, inode))) {
      return true;
    }
  }
  return false;
}

// A child that a daemon had just forked when it ended lives on, as a copy of the daemon until it executes its
// program. Whoever looks for services by their program would miss it.
void wait_for_execs() {
  eventually(
      [] {
        const std::set<pid_t> inside = processes_inside();
        return std::none_of(inside.begin(), inside.end(), [&](pid_t pid) {
          const pid_t parent = static_cast<pid_t>(atoi(status_field(pid, "PPid").c_str()));
          return parent != getpid() && inside.count(parent) == 0 && is_alive(pid) &&
                 program_of(pid) == Daemon::binary();
        });
      },
      5s);
}

bool accepts_connections() {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un to = {};
  to.sun_family = AF_UNIX;
  strncpy(to.sun_path, kControlSocket, sizeof to.sun_path - 1);
  const bool answered = connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
  close(fd);
  return answered;
}

}  // namespace

Process::Process(Process&& from) noexcept
    : pid_(std::exchange(from.pid_, 0)), status_(std::exchange(from.status_, std::nullopt)) {}

Process& Process::operator=(Process&& from) noexcept {
  kill_now();
  pid_ = std::exchange(from.pid_, 0);
  status_ = std::exchange(from.status_, std::nullopt);
  return *this;
}

Process::~Process() {
  kill_now();
}

bool Process::start(const std::vector<std::string>& words, const std::vector<std::string>& env,
                    bool on_first_cpu) {
  kill_now();
  status_.reset();
  std::vector<std::string> all_words = words;
  std::vector<std::string> all_env = environment_with(env);
  const std::vector<char*> argv = pointers(all_words);
  const std::vector<char*> envp = pointers(all_env);
  pid_ = fork();
  if (pid_ == 0) {
    become(argv.data(), envp.data(), on_first_cpu);
  }
  if (pid_ < 0) {
    pid_ = 0;
    ADD_FAILURE() << "cannot fork: " << strerror(errno);
    return false;
  }
  return true;
}

bool Process::running() {
  return pid_ > 0 && !wait(0ms).has_value();
}

void Process::send(int signal) {
  if (running()) {
    send_signal(pid_, signal);
  }
}

std::optional<int> Process::wait(milliseconds limit) {
  if (pid_ > 0 && !status_.has_value()) {
    eventually(
        [this] {
          int status = 0;
          if (waitpid(pid_, &status, WNOHANG) != pid_) {
            return false;
          }
          status_ = status;
          return true;
        },
        limit);
  }
  return status_;
}

std::optional<int> Process::kill_now() {
  if (running()) {
    send_signal(pid_, SIGKILL);
  }
  const std::optional<int> status = wait();
  if (status.has_value()) {
    pid_ = 0;
  }
  return status;
}

std::optional<int> run(const std::vector<std::string>& words, milliseconds limit,
                       const std::vector<std::string>& env) {
  Process process;
  if (!process.start(words, env)) {
    return std::nullopt;
  }
  const std::optional<int> status = process.wait(limit);
  EXPECT_TRUE(status.has_value()) << words[0] << " is still running after " << limit.count() << " ms";
  return status;
}

bool exited_with(std::optional<int> status, int code) {
  return status.has_value() && WIFEXITED(*status) && WEXITSTATUS(*status) == code;
}

bool ended_by(std::optional<int> status, int signal) {
  return status.has_value() && WIFSIGNALED(*status) && WTERMSIG(*status) == signal;
}

Daemon::~Daemon() {
  kill_now();
}

bool Daemon::start(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  std::vector<std::string> words = {binary()};
  words.insert(words.end(), args.begin(), args.end());
  return process_.start(words, env, true) && wait_ready();
}

bool Daemon::start_by(const std::vector<std::string>& starter) {
  return start_below(starter) && wait_ready();
}

bool Daemon::start_below(const std::vector<std::string>& words) {
  std::vector<std::string> all = words;
  all.emplace_back(binary());
  return process_.start(all, {}, true);
}

bool Daemon::start_traced(const std::vector<std::string>& expressions, const std::vector<std::string>& args,
                          const std::vector<std::string>& env) {
  // -D: strace stands beside the daemon, not above it, so that pid and wait status are the daemon's own.
  std::vector<std::string> words = {"strace", "-D", "-f", "-q", "-o", kTraceFile};
  for (const std::string& expression : expressions) {
    if (expression[0] != '-') {
      words.push_back(expression[0] == '/' ? "-P" : "-e");
    }
    words.push_back(expression);
  }
  words.push_back(binary());
  words.insert(words.end(), args.begin(), args.end());
  std::vector<std::string> all_env = {"ASAN_OPTIONS=detect_leaks=0"};  // the leak check needs ptrace itself
  all_env.insert(all_env.end(), env.begin(), env.end());
  return process_.start(words, all_env, true);
}

bool Daemon::wait_ready(milliseconds limit) {
  const std::string tasks = "/proc/" + std::to_string(pid()) + "/task";
  const bool ready = eventually(
      [&] {
        return !running() || (list_dir(tasks).size() >= kDaemonThreads && hears_process_events(pid()) &&
                              accepts_connections());
      },
      limit);
  if (ready && running()) {
    return true;
  }
  ADD_FAILURE() << (running() ? "the daemon does not answer" : "the daemon ended") << ", "
                << list_dir(tasks).size() << " threads, "
                << (hears_process_events(pid()) ? "hears events, " : "no events, ")
                << (accepts_connections() ? "" : "no ") << "connections; console:\n"
                << read_console();
  return false;
}

std::optional<int> Daemon::stop() {
  send(SIGINT);
  const std::optional<int> status = wait();
  EXPECT_TRUE(status.has_value()) << "SIGINT did not end the daemon";
  wait_for_execs();
  return status;
}

std::optional<int> Daemon::kill_now() {
  const bool was_started = pid() > 0;
  const std::optional<int> status = process_.kill_now();
  if (was_started) {
    wait_for_execs();
  }
  return status;
}

std::string Daemon::trace() {
  return read_file(kTraceFile);
}
const char* Daemon::binary() {
  const char* const another = getenv("WEX_BINARY");  // one that is linked in another way, of the same sources
  return another != nullptr ? another : WEX_BINARY;
}
const char* actor_binary() {
  return WEX_ACTOR;
}

std::vector<std::string> actor_words(const std::vector<std::string>& options) {
  std::vector<std::string> words = {actor_binary()};
  words.insert(words.end(), options.begin(), options.end());
  return words;
}

std::string actor_command(const std::vector<std::string>& options) {
  std::string command = actor_binary();
  for (const std::string& option : options) {
    command += " " + option;
  }
  return command;
}

pid_t wait_for_actor(const std::vector<std::string>& options, pid_t not_this, milliseconds limit) {
  pid_t found = 0;
  eventually(
      [&] {
        const std::vector<pid_t> pids = pids_with_command(actor_command(options));
        if (pids.size() != 1 || pids[0] == not_this || program_of(pids[0]) != actor_binary()) {
          return false;
        }
        found = pids[0];
        return true;
      },
      limit);
  return found;
}

Facts read_facts(const std::string& path) {
  Facts facts;
  for (const std::string& line : lines_of(read_file(path))) {
    const size_t blank = line.find(' ');
    facts[line.substr(0, blank)].push_back(blank == std::string::npos ? "" : line.substr(blank + 1));
  }
  return facts;
}

}  // namespace wex_test

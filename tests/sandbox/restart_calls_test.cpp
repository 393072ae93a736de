// How many system calls one restart takes: a budget, so that a call that creeps in is noticed. What they are
// for stands in the functions that make them.
#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include <string>
#include <vector>

#include "wex_paths.h"
#include "wex_test.h"

// Not in builds with a sanitizer, which makes calls of its own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

using namespace wex_test;

constexpr int kBeforeStart = 27;       // from the event's datagram to the start of the child
constexpr int kAfterStart = 13;        // from there until the daemon waits for the next event
constexpr int kOfChild = 22;           // up to its program, beside the signals
const int kSignalsOfChild = SIGRTMAX;  // an ignored signal stays ignored in a program: each is set

struct call {
  std::string pid;
  std::string name;
  std::string text;
};

// The calls in the order in which they began.
std::vector<call> calls_in(const std::string& trace) {
  std::vector<call> calls;
  for (const std::string& line : lines_of(trace)) {
    const size_t name = line.find_first_not_of(" 0123456789");
    const size_t bracket = line.find('(');
    if (name != std::string::npos && bracket != std::string::npos && line[name] != '<' && line[name] != '+' &&
        line[name] != '-') {
      calls.push_back({line.substr(0, line.find(' ')), line.substr(name, bracket - name), line});
    }
  }
  return calls;
}

bool starts_child(const call& one) {
  return one.name == "vfork" || one.name == "fork" || one.name == "clone" || one.name == "clone3";
}

struct counts {
  int before = 0;
  int after = 0;
  int child = 0;
  int child_signals = 0;
  std::string listing;
};

// Of the last start in the trace, which began with the last datagram before it.
counts count_restart(const std::vector<call>& calls) {
  counts found;
  size_t start = calls.size();
  while (start > 0 && !starts_child(calls[start - 1])) {
    --start;
  }
  if (start == 0) {
    ADD_FAILURE() << "nothing was started";
    return found;
  }
  const std::string parent = calls[--start].pid;
  size_t first = start;
  while (first > 0 && !(calls[first].pid == parent && calls[first].name.find("recv") == 0)) {
    --first;
  }
  std::string child;
  bool waits = false;
  for (size_t at = first; at < calls.size(); ++at) {
    const call& one = calls[at];
    if (one.pid == parent) {
      waits = waits || (at > start && one.name.find("nanosleep") != std::string::npos);
      found.before += at < start ? 1 : 0;
      found.after += at > start && !waits ? 1 : 0;
    } else if (at > start && (child.empty() ? one.name == "sched_setscheduler" : one.pid == child)) {
      child = one.pid;
      if (one.name == "execve") {
        child = "executed";
        continue;
      }
      (one.name == "rt_sigaction" ? found.child_signals : found.child) += 1;
    } else {
      continue;
    }
    found.listing += one.text + "\n";
  }
  return found;
}

bool is_registered(pid_t pid) {
  return read_file("/tmp/wex/ready") == std::to_string(pid) + "\n";
}

time_t age_of(const std::string& path) {
  struct stat facts = {};
  return stat(path.c_str(), &facts) == 0 ? time(nullptr) - facts.st_ctim.tv_sec : 0;
}

struct RestartCalls : WexWorld {};

TEST_F(RestartCalls, OfOneServiceStayWithinTheirBudget) {
  SyslogSink log;
  const std::vector<std::string> options = {"--register=RESTART", "--confirm", "--ready=/tmp/wex/ready",
                                            "--hold"};
  const temporary silent("/silent");
  write_file("/silent/qx_utils/qx_utils_dbg_cfg.txt", "g_wex_pub_dbg_level 4\n");
  make_dirs("/etc/wex/proc");  // a list of third-part programs, an empty one
  Daemon daemon;
  ASSERT_TRUE(daemon.start_traced({"trace=all"}, {}, {"DATA_OVIX_DIR=/silent"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([&] { return is_registered(service.pid()); }));
  // What changed a moment ago is looked at anew each time.
  ASSERT_TRUE(eventually([] { return age_of("/tmp/vsd") > 2 && age_of(kThirdPartList) > 2; }, 20s));
  // The second restart is like all that follow: the socket to the log is open, memory was asked for.
  pid_t pid = service.pid();
  for (const char* message : {"Self-checking OK: 1 times", "Self-checking OK: 2 times"}) {
    ASSERT_TRUE(send_signal(pid, SIGKILL));
    pid = wait_for_actor(options, pid, 20s);
    ASSERT_TRUE(log.says(message, 20s));
    ASSERT_TRUE(eventually([&] { return is_registered(pid); }));
  }
  daemon.stop();
  const counts found = count_restart(calls_in(Daemon::trace()));
  EXPECT_LE(found.before, kBeforeStart) << found.listing;
  EXPECT_LE(found.after, kAfterStart) << found.listing;
  EXPECT_LE(found.child, kOfChild) << found.listing;
  EXPECT_LE(found.child_signals, kSignalsOfChild) << found.listing;
  EXPECT_GT(found.before, 10) << "the restart was not seen";
  EXPECT_GT(found.after, 3) << "the restart was not seen";
  EXPECT_GT(found.child, 10) << "the child was not seen";
}

}  // namespace

#endif

// wex_core_filter: the packet filter on the socket of process events, so that unrelated processes can neither
// crowd out an exit nor keep the monitor busy.
//
// The filter holds the registered processes' ids. It may pass too much, never too little: when the kernel
// refuses one, a shorter one takes its place that passes the exits of all processes, and when that is refused
// there is none. A process that is no longer registered stays in the filter until the next tidying, for a
// thread of it may still be reported.
#define WEX_MODULE "wex_core"
#include "wex_core_filter.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "waiting.h"
#include "wex_core_filter_program.h"
#include "wex_core_sweep_request.h"
#include "wex_dbg.h"
#include "wex_limits.h"

namespace {

// What comes through.
struct passed_events {
  bool executions;
  thread_ends threads;
  bool every_exit;

  bool operator==(const passed_events& other) const noexcept {
    return executions == other.executions && threads == other.threads && every_exit == other.every_exit;
  }
  // Compares kinds of events. Which processes are in a filter that holds single ones is not compared here.
  bool includes(const passed_events& other) const noexcept {
    return executions >= other.executions && threads >= other.threads && every_exit >= other.every_exit;
  }
};

constexpr passed_events kUnfiltered = {true, thread_ends::all, true};

// How the processes in the filter that is in place differ from those that are wanted.
enum class difference { none, too_many, too_few };

priority_mutex g_lock;
int g_events WEX_TSA(guarded_by(g_lock)) = -1;
unsigned g_threads_for WEX_TSA(guarded_by(g_lock)) = 0;  // one bit for each thread_ends_for
bool g_executions WEX_TSA(guarded_by(g_lock)) = true;
pid_set g_exits WEX_TSA(guarded_by(g_lock));
bool g_overfull WEX_TSA(guarded_by(g_lock)) = false;       // more processes than the set holds
bool g_overfull_told WEX_TSA(guarded_by(g_lock)) = false;  // a caller knows
int32_t g_newcomers[kNewcomers] WEX_TSA(
    guarded_by(g_lock)) = {};  // registrations are under way, or were lately
int64_t g_last_child_ms WEX_TSA(guarded_by(g_lock)) = INT64_MIN / 2;
bool g_refused WEX_TSA(guarded_by(g_lock)) = false;                  // the kernel did not take the set
passed_events g_in_place WEX_TSA(guarded_by(g_lock)) = kUnfiltered;  // as the socket is, not as it should be
difference g_difference WEX_TSA(guarded_by(g_lock)) = difference::none;
sock_filter g_program[kFilterProgramMax] WEX_TSA(guarded_by(g_lock));

unsigned bit_of(thread_ends_for whom) {
  return 1U << static_cast<unsigned>(whom);
}

thread_ends wanted_threads() WEX_TSA(requires_capability(g_lock)) {
  if ((g_threads_for & bit_of(thread_ends_for::registrations)) != 0) {
    return thread_ends::all;
  }
  return g_threads_for != 0 ? thread_ends::of_passed_processes : thread_ends::none;
}

bool set_option(int option, const sock_fprog& program) WEX_TSA(requires_capability(g_lock)) {
  if (setsockopt(g_events, SOL_SOCKET, option, &program, sizeof program) == 0) {
    return true;
  }
  if (option == SO_ATTACH_FILTER) {
    wex_dbg(WEX_DBG_PUB, "%s: attach filter fail: %s\n", "wex_process_netlink", strerror(errno));
  }
  return false;
}

// The kernel exchanges the old filter for the new one at once: each event meets one of them.
bool attach(const passed_events& wanted) WEX_TSA(requires_capability(g_lock)) {
  const filter_program program = wex_build_filter(
      {wanted.executions, wanted.threads, wanted.every_exit ? nullptr : &g_exits}, g_program);
  if (!set_option(SO_ATTACH_FILTER, {program.length, program.first})) {
    return false;
  }
  g_in_place = wanted;
  g_difference = difference::none;
  return true;
}

// Removes the filter. When that fails, too, the sweep finds the exits that are not reported, and the minute's
// tidying tries again.
void detach() WEX_TSA(requires_capability(g_lock)) {
  if (!set_option(SO_DETACH_FILTER, {})) {
    wex_request_sweep();
    return;
  }
  g_in_place = kUnfiltered;
  g_difference = difference::none;
}

// True when the filter in place drops events that are needed.
bool drops_too_much(const passed_events& wanted) WEX_TSA(requires_capability(g_lock)) {
  return !g_in_place.includes(wanted) || (g_difference == difference::too_few && !g_in_place.every_exit);
}

// Brings the socket's filter into line with what is wanted.
void update() WEX_TSA(requires_capability(g_lock)) {
  passed_events wanted = {g_executions, wanted_threads(), g_overfull || g_refused};
  const bool same_exits = wanted.every_exit || g_difference == difference::none;
  if (g_events < 0 || (wanted == g_in_place && same_exits) || attach(wanted)) {
    return;
  }
  const bool must_pass_more = drops_too_much(wanted);
  if (!wanted.every_exit) {
    // The kernel limits the memory of a socket, and counts the filter in place until another has replaced it.
    // So a short filter is attached in between, which frees the memory of the long one before the next long
    // one comes.
    const passed_events exact = wanted;
    wanted.every_exit = true;
    const bool short_one = attach(wanted);
    g_refused = !short_one || !attach(exact);
    if (short_one) {
      return;
    }
  }
  if (must_pass_more) {
    detach();
  }
}

void add_process(int32_t pid) WEX_TSA(requires_capability(g_lock)) {
  if (!g_exits.has(pid)) {
    g_difference = difference::too_few;
    g_overfull = !g_exits.add(pid) || g_overfull;
  }
}

}  // namespace

void wex_attach_filter(int fd) {
  const mutex_lock hold(g_lock);
  g_events = fd;
  g_in_place = kUnfiltered;
  update();
}

void wex_release_filter() {
  const mutex_lock hold(g_lock);
  g_events = -1;
  std::fill(std::begin(g_newcomers), std::end(g_newcomers), 0);
}

void wex_pass_thread_ends(thread_ends_for whom, bool pass) {
  const mutex_lock hold(g_lock);
  g_threads_for = pass ? g_threads_for | bit_of(whom) : g_threads_for & ~bit_of(whom);
  update();
}

void wex_pass_executions(bool pass) {
  const mutex_lock hold(g_lock);
  g_executions = pass;
  update();
}

bool wex_pass_exits_of(int32_t pid) {
  const mutex_lock hold(g_lock);
  if (pid < 1) {
    return true;
  }
  add_process(pid);
  update();
  const bool news = g_overfull && !g_overfull_told;
  g_overfull_told = g_overfull;
  return !news;
}

// Ids follow one another, so 32 deaths in a row need one exchange or two. A stranger who gets one of the ids
// instead costs what any registered process costs, until the next tidying.
void wex_pass_exits_after(int32_t child) {
  const mutex_lock hold(g_lock);
  const int64_t now = wex_clock_ms();
  const bool one_of_many = now - g_last_child_ms < kChildrenInARowMs;
  g_last_child_ms = now;
  if (one_of_many && child > 0 && !g_exits.has(child) && g_exits.add_with_followers(child)) {
    g_difference = difference::too_few;
  }
}

void wex_pass_exits_of_newcomer(int32_t pid, int place) {
  const mutex_lock hold(g_lock);
  g_newcomers[place] = pid;
  add_process(pid);
  update();
}

void wex_pass_exits_only_of(const pid_set* pids) {
  const mutex_lock hold(g_lock);
  pid_set kept = pids != nullptr ? *pids : g_exits;
  bool all_fit = pids != nullptr;
  for (const int32_t newcomer : g_newcomers) {
    all_fit = (newcomer == 0 || kept.add(newcomer)) && all_fit;
  }
  if (!(kept == g_exits)) {
    g_exits = kept;
    const bool some_missing = g_overfull || g_difference == difference::too_few;
    g_difference = some_missing ? difference::too_few : difference::too_many;
  }
  g_overfull = g_overfull_told = !all_fit;
  g_refused = false;
  update();
}

// wex_core_early_end: how processes ended whose registration was still under way.
//
// The end may be noted after the registration has failed, because the kernel takes a process's command line
// away before it reports the end. The database file of such a process is found a minute later at most, so the
// last few newcomers are remembered.
#include "wex_core_early_end.h"

#include <algorithm>
#include <iterator>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "wex_core_filter.h"
#include "wex_limits.h"
#include "wex_utils.h"

namespace {

struct newcomer {
  int32_t pid;  // 0 = none
  uint32_t exit_code;
};

priority_mutex g_mutex;
newcomer g_newcomers[kNewcomers] WEX_TSA(guarded_by(g_mutex)) = {};
int g_next WEX_TSA(guarded_by(g_mutex)) = 0;  // the one that makes room when none is free

newcomer* find_newcomer(int32_t pid) WEX_TSA(requires_capability(g_mutex)) {
  newcomer* const found = std::find_if(std::begin(g_newcomers), std::end(g_newcomers),
                                       [pid](const newcomer& entry) { return entry.pid == pid; });
  return found != std::end(g_newcomers) ? found : nullptr;
}

newcomer* find_room(int32_t pid) WEX_TSA(requires_capability(g_mutex)) {
  for (newcomer* const entry : {find_newcomer(pid), find_newcomer(0)}) {
    if (entry != nullptr) {
      return entry;
    }
  }
  newcomer* const oldest = &g_newcomers[g_next];
  g_next = (g_next + 1) % kNewcomers;
  return oldest;
}

}  // namespace

void wex_expect_newcomer(int32_t pid) {
  if (pid < 1 || !wex_pid_exists(pid)) {
    return;  // its end has been reported, or never will be
  }
  {
    const mutex_lock hold(g_mutex);
    *find_room(pid) = {pid, 0};
  }
  wex_pass_exits_of_newcomer(pid);
}

void __wex_note_early_end(int32_t pid, uint32_t exit_code) {
  const mutex_lock hold(g_mutex);
  if (newcomer* const entry = find_newcomer(pid)) {
    entry->exit_code = exit_code;
  }
}

uint32_t __wex_take_early_end(int32_t pid) {
  const mutex_lock hold(g_mutex);
  newcomer* const entry = find_newcomer(pid);
  if (entry == nullptr) {
    return 0;
  }
  const uint32_t exit_code = entry->exit_code;
  *entry = {};
  return exit_code;
}

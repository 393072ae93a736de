// wex_core_takedown: what the daemon makes of a domain that is being taken down by the command line.
//
// While any domain's marker exists, no exit of any process is followed by a restart. Programs that wait for a
// restart are another matter: those of other domains come back as ever, those of the very domain are
// forgotten, or they would come back after the take-down, outside of the domain that they belonged to.
#define WEX_MODULE "wex_core"
#include <unistd.h>

#include "chain_lock.h"
#include "mutex_lock.h"
#include "priority_mutex.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_core.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_proc.h"
#include "wex_utils.h"

namespace {

priority_mutex take_down_lock;

// A take-down of the domain has been seen, and the registry has not been looked through since. The look may
// have to wait for the registry longer than the take-down takes.
std::atomic<bool> g_closing[kLastTakeDownDomain + 1];

bool marker_exists(int32_t domain, char* path, size_t size) {
  return wex_format(path, size, kTakeDownFmt, domain) && access(path, F_OK) == 0;
}

bool is_closing(int32_t domain) {
  char marker[kPathSize];
  return domain >= 1 && domain <= kLastTakeDownDomain &&
         (g_closing[domain].load() || marker_exists(domain, marker, sizeof marker));
}

bool any_is_closing() {
  for (int32_t domain = 1; domain <= kLastTakeDownDomain; ++domain) {
    if (is_closing(domain)) {
      return true;
    }
  }
  return false;
}

// A program that registered without naming its domain is known by its marker file, which takes a walk through
// all domains to find.
bool is_of_closing_domain(const wex_pid* rec) {
  if (rec->vsd >= 1) {
    return is_closing(rec->vsd);
  }
  const int32_t pid = wex_last_process(rec);
  return pid > 0 && any_is_closing() && is_closing(find_app(pid));
}

// Living programs of the domain are left to the exit monitor: the take-down may be cut short.
bool is_down(const wex_pid* rec) {
  return rec->alarm_wait_flag == 1 || rec->restart_failed != 0 || rec->pid < 1 ||
         wex_judge_presence(wex_look_at(rec->pid), rec->start_time) == presence::absent;
}

void forget(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  {
    chain_lock hold(wex_chains_delay);
    if (wex_pid* const copy = __wex_find_pid(&wex_chains_delay, rec->pid)) {
      __wex_drop_record(&wex_chains_delay, copy);
    }
  }
  wex_dbg(WEX_DBG_PUB, "%s del pid %d\n", "wex_drop_domains_taken_down", rec->pid);
  wex_db_destroy(rec);
  __wex_drop_record(&wex_chains, rec);
}

void drop_what_is_down() {
  chain_lock hold(wex_chains);
  record_walk walk(wex_chains);
  while (wex_pid* const rec = walk.next()) {
    const bool elsewhere = rec->vsd >= 1 && !is_closing(rec->vsd);
    if (!elsewhere && is_down(rec) && is_of_closing_domain(rec)) {
      forget(rec);
    }
  }
}

}  // namespace

// The marker of a take-down that was cut short stays and would switch supervision off in silence, hence the
// lines in the running log.
bool wex_take_down_under_way() {
  // The look and its line are one step: two threads that look at once would tell what no longer holds.
  const mutex_lock hold(take_down_lock.native);
  static bool told = false;
  for (int domain = 1; domain <= kLastTakeDownDomain; ++domain) {
    char marker[kPathSize];
    if (marker_exists(domain, marker, sizeof marker)) {
      if (!told) {
        wex_running_log("%s exists, exited processes are not restarted.\r\n", marker);
      }
      told = true;
      return true;
    }
  }
  if (told) {
    wex_running_log("No domain is taken down any more, exited processes are restarted.\r\n");
  }
  told = false;
  return false;
}

bool wex_drop_taken_down(int32_t pid) {
  if (!wex_take_down_under_way()) {
    return false;
  }
  chain_lock hold(wex_chains);
  if (wex_pid* const rec = __wex_find_pid(&wex_chains, pid)) {
    wex_db_destroy(rec);
    __wex_drop_record(&wex_chains, rec);
  }
  return true;
}

bool __wex_dropped_with_domain(wex_pid* rec) {
  if (!is_of_closing_domain(rec)) {
    return false;
  }
  forget(rec);
  return true;
}

void wex_drop_domains_taken_down() {
  bool any = false;
  for (int32_t domain = 1; domain <= kLastTakeDownDomain; ++domain) {
    char marker[kPathSize];
    if (marker_exists(domain, marker, sizeof marker)) {
      g_closing[domain].store(true);
      any = true;
    }
  }
  if (!any) {
    return;
  }
  drop_what_is_down();
  for (std::atomic<bool>& domain : g_closing) {
    domain.store(false);  // while the marker stays it speaks for itself
  }
}

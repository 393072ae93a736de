// wex_core_takedown: what the daemon makes of a domain that is being taken down by the command line.
//
// While any domain's take-down marker exists, no exit of any process is followed by a restart. A program that
// waits for a restart is started all the same when it belongs to another domain. One of the domain itself
// loses its registration: it would be started after the take-down, outside of its domain.
#define WEX_MODULE "wex_core"
#include "wex_core_takedown.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>

#include "chain_lock.h"
#include "text_buffer.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_chain_user.h"
#include "wex_core_stop.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_domain_present.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"

namespace {

// The domain whose marker was acted on since the running log was last written to; 0 for none.
std::atomic<int32_t> g_acted_on{0};

// A take-down of the domain has been seen, and the registry has not been looked through since. The look may
// have to wait for the registry longer than the take-down takes.
std::atomic<bool> g_closing[kLastTakeDownDomain + 1];

std::atomic<bool> g_registry_waits{false};

bool marker_exists(int32_t domain) {
  char marker[kPathSize];
  wex_take_down_marker(domain, marker);
  return access(marker, F_OK) == 0 && wex_counts(marker);
}

bool is_closing(int32_t domain) {
  return domain >= kFirstDomain && domain <= kLastTakeDownDomain &&
         (g_closing[domain].load() || marker_exists(domain));
}

// The domains that have a marker: bit n stands for domain n.
uint32_t marked_domains() {
  const uint32_t present = wex_domains_present();
  uint32_t marked = 0;
  for (int32_t domain = kFirstDomain; domain <= kLastTakeDownDomain; ++domain) {
    if ((present >> domain & 1) != 0 && marker_exists(domain)) {
      marked |= uint32_t{1} << domain;
    }
  }
  return marked;
}

// The lowest domain that has a marker, or 0.
int32_t first_marked_domain() {
  const uint32_t marked = marked_domains();
  int32_t domain = 0;
  while (marked != 0 && (marked >> domain & 1) == 0) {
    ++domain;
  }
  return domain;
}

// Whether a domain is closing whose marker need not be there any more.
bool any_was_closing() {
  return std::any_of(std::begin(g_closing), std::end(g_closing),
                     [](const std::atomic<bool>& domain) { return domain.load(); });
}

// False when no domain is closing.
bool note_closing_domains() {
  const uint32_t marked = marked_domains();
  for (int32_t domain = kFirstDomain; domain <= kLastTakeDownDomain; ++domain) {
    if ((marked >> domain & 1) != 0) {
      g_closing[domain].store(true);
    }
  }
  return any_was_closing();
}

bool any_is_closing() {
  return any_was_closing() || marked_domains() != 0;
}

// A program that registered without naming its domain is recognised by its flag file; finding that takes a
// walk through all domains.
bool is_of_closing_domain(const wex_pid* rec) {
  if (rec->vsd >= kFirstDomain) {
    return is_closing(rec->vsd);
  }
  const int32_t pid = wex_last_process(rec);
  return pid > 0 && any_is_closing() && is_closing(wex_domain_of(rec, pid));
}

// Living programs of the domain are left to the exit monitor: the take-down may be cut short.
bool is_down(const wex_pid* rec) {
  return rec->alarm_wait_flag == 1 || rec->restart_failed != 0 || rec->pid < 1 ||
         wex_judge_presence(wex_look_at(wex_process_of(rec)), rec->start_time) == presence::absent;
}

void drop_with_copy(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  {
    chain_lock hold(wex_chains_delay);
    if (wex_pid* const copy = __wex_find_postponed(&wex_chains_delay, rec->pid, rec->postponed)) {
      __wex_drop_record(&wex_chains_delay, copy);
    }
  }
  wex_dbg(WEX_DBG_PUB, "%s del pid %d\n", "wex_drop_domains_taken_down", rec->pid);
  wex_status_tell(WEX_STATUS_EV_DROPPED, rec);
  __wex_drop_registration(rec);
}

void drop_what_is_down() {
  chain_lock hold(wex_chains);
  record_walk walk(wex_chains);
  while (wex_pid* const rec = walk.next()) {
    const bool elsewhere = rec->vsd >= kFirstDomain && !is_closing(rec->vsd);
    if (!elsewhere && is_down(rec) && is_of_closing_domain(rec)) {
      drop_with_copy(rec);
    }
  }
}

}  // namespace

bool wex_take_down_under_way() {
  const int32_t domain = first_marked_domain();
  if (domain != 0) {
    g_acted_on.store(domain);
  }
  return domain != 0;
}

// The marker of a take-down that was cut short stays and keeps exited programs down, so the running log says
// that it is there.
void wex_log_take_downs() {
  static bool logged = false;  // delay thread only
  const int32_t acted_on = g_acted_on.exchange(0);
  const int32_t marked = first_marked_domain();
  const int32_t domain = marked != 0 ? marked : acted_on;
  if (domain != 0 && !logged) {
    char marker[kPathSize];
    wex_take_down_marker(domain, marker);
    wex_running_log("%s exists, exited processes are not restarted.\r\n", marker);
    logged = true;
  }
  if (marked == 0 && logged) {
    wex_running_log("No domain is taken down any more, exited processes are restarted.\r\n");
    logged = false;
  }
}

void wex_wait_with_registry(int64_t milliseconds) {
  wex_status_show_soon();
  g_registry_waits.store(true, std::memory_order_release);
  const int64_t deadline = wex_clock_ms() + milliseconds;
  for (int64_t left = milliseconds; left > 0 && wex_exit_flag.load(std::memory_order_relaxed) == 0;
       left = deadline - wex_clock_ms()) {
    wex_wait_exit(left < kDelayPassMs ? left : kDelayPassMs);
    note_closing_domains();
  }
  g_registry_waits.store(false, std::memory_order_release);
}

bool wex_registry_waits() {
  return g_registry_waits.load(std::memory_order_acquire);
}

bool wex_drop_taken_down(int32_t pid, uint64_t start_time) {
  if (!wex_take_down_under_way()) {
    return false;
  }
  chain_lock hold(wex_chains);
  wex_pid* const rec = __wex_find_ended(pid, start_time);
  if (rec != nullptr) {
    wex_status_tell(WEX_STATUS_EV_DROPPED, rec);
    __wex_drop_registration(rec);
  }
  return true;
}

bool __wex_dropped_with_domain(wex_pid* rec) {
  if (!is_of_closing_domain(rec)) {
    return false;
  }
  drop_with_copy(rec);
  return true;
}

void wex_drop_domains_taken_down() {
  if (!note_closing_domains()) {
    return;
  }
  drop_what_is_down();
  for (std::atomic<bool>& domain : g_closing) {
    domain.store(false);  // a marker that is still there is found by looking
  }
}

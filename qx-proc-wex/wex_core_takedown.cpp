// wex_core_takedown: what the daemon makes of a domain that is being taken down by the command line.
//
// While any domain's marker exists, no exit of any process is followed by a restart. Programs that wait for a
// restart are another matter: those of other domains come back as ever, those of the very domain are
// forgotten, or they would come back after the take-down, outside of the domain that they belonged to.
#define WEX_MODULE "wex_core"
#include <unistd.h>

#include "chain_lock.h"
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

bool marker_exists(int32_t domain, char* path, size_t size) {
  return wex_format(path, size, kTakeDownFmt, domain) && access(path, F_OK) == 0;
}

}  // namespace

// The marker of a take-down that was cut short stays and would switch supervision off in silence, hence the
// lines in the running log.
bool wex_take_down_under_way() {
  static std::atomic<bool> told{false};
  for (int32_t domain = 1; domain <= kLastTakeDownDomain; ++domain) {
    char marker[kPathSize];
    if (marker_exists(domain, marker, sizeof marker)) {
      if (!told.exchange(true)) {
        wex_running_log("%s exists, exited processes are not restarted.\r\n", marker);
      }
      return true;
    }
  }
  if (told.exchange(false)) {
    wex_running_log("No domain is taken down any more, exited processes are restarted.\r\n");
  }
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

// wex_core_crash: when programs dumped core, and the rule that restarts the device when too many did.
#include "wex_core_crash.h"

#include <cstring>

#include "chain_lock.h"
#include "guarded_file.h"
#include "text_buffer.h"
#include "text_number.h"
#include "wex_chain_user.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_status_image.h"

namespace {

// Programs that crashed within the window; their command lines, each with one blank, go to `list`.
int32_t count_crashed(int32_t now, int32_t window, char* list, size_t size) {
  int32_t crashed = 0;
  size_t used = 0;
  list[0] = '\0';
  chain_lock hold(wex_chains);
  record_walk walk(wex_chains);
  while (const wex_pid* const rec = walk.next()) {
    if (rec->crash_time == 0 || static_cast<int64_t>(now) - rec->crash_time > window) {
      continue;
    }
    ++crashed;
    wex_format(list + used, size - used, "%s ", rec->process);
    used += strlen(list + used);
  }
  return crashed;
}

}  // namespace

bool wex_parse_burst(const char* text, int32_t* window, int32_t* count) {
  int32_t first = 0;
  int32_t second = 0;
  if (!scan_number(&text, &first) || !scan_number(&text, &second)) {
    return false;
  }
  *window = first;
  *count = second;
  return true;
}

burst_rule wex_read_burst_rule() {
  char text[257];
  burst_rule rule = {kBurstWindowSec, kBurstCount};
  if (wex_read_guarded(kBurstConfig, text, sizeof text) >= 1) {
    wex_parse_burst(text, &rule.window, &rule.count);
  }
  return rule;
}

void __wex_note_crash(wex_pid* rec) {
  if (!wex_may_restart_device(rec)) {
    return;
  }
  const int32_t now = wex_clock_now();
  rec->crash_time = now != 0 ? now : 1;
}

void wex_apply_burst_rule(const burst_rule& rule, int32_t now) {
  char list[1024];
  const int32_t crashed = count_crashed(now, rule.window, list, sizeof list);
  if (crashed < rule.count) {
    return;
  }
  wex_status_tell_of(WEX_STATUS_EV_BURST, 0, "", {0, 0, 0, crashed});
  char reason[128];
  wex_format(reason, sizeof reason, "detect more than %d process exit in shorttime[%d]s\n", rule.count,
             rule.window);
  wex_reboot(reason, list);
}

void wex_judge_crashes() {
  const burst_rule rule = wex_read_burst_rule();
  wex_apply_burst_rule(rule, wex_clock_now());
}

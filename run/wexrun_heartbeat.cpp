// wexrun_heartbeat: wexrun's main thread under hang detection, reporting for the program.
//
// The library's call would register the thread again by itself when the daemon has been restarted, and wait
// for minutes while there is none. So that is done here, in one short try at a time.
#include "wexrun_heartbeat.h"

#include <unistd.h>

#include "wex.h"
#include "wex_alive_guard.h"
#include "wex_clock.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"
#include "wexrun_limits.h"
#include "wexrun_link.h"

namespace {

wex_reg_info thread_body(int32_t tid) {
  wex_reg_info body = {};
  body.pid = tid;
  body.ppid = getpid();
  body.ntfy_cnt = kShortPeriodMisses;
  body.cur_cnt = kShortPeriodMisses;
  body.ntfy_time = kShortPeriodSec;
  return body;
}

bool is_within(int32_t now, int32_t since, int32_t seconds) {
  return since != INT32_MIN && now - since < seconds;
}

}  // namespace

void heartbeat::ask_for_watch(int32_t tid) noexcept {
  const wex_reg_info body = thread_body(tid);
  control_link link;
  if (!link.open(1)) {
    return;
  }
  if (wex_in_alive_table(tid)) {
    link.ask(WEX_NOTIFIER_START, nullptr, &body, sizeof body, kBeatWaitMs);
  } else {
    link.send(WEX_NOTIFIER_RESET, nullptr, &body, sizeof body);  // has no byte of its own, and no answer
  }
}

void heartbeat::beat() noexcept {
  const int32_t now = wex_clock_now();
  const int32_t tid = wex_thread_id();
  if (is_within(now, last_beat_, kBeatEverySec)) {
    return;
  }
  if (wex_in_alive_table(tid) && wex_sys_isreg_alive_info(static_cast<uint32_t>(tid)) != 0) {
    wex_client_reset_thread_notify(getpid(), tid, kShortPeriodSec, kShortPeriodMisses);
    last_beat_ = now;
  } else if (!is_within(now, last_asked_, kRegisterEverySec)) {
    ask_for_watch(tid);
    last_asked_ = now;
  }
}

// wex_status_kinds: the names of events, as machines and files have them.
#pragma once

#include <cstddef>
#include <iterator>

#include "wex_status.h"

struct status_kind_name {
  wex_status_kind kind;
  const char* name;
};
inline constexpr status_kind_name kStatusKinds[] = {
    {WEX_STATUS_EV_NONE, "none"},
    {WEX_STATUS_EV_DAEMON_STARTED, "daemon_started"},
    {WEX_STATUS_EV_REGISTERED, "registered"},
    {WEX_STATUS_EV_CANCELLED, "cancelled"},
    {WEX_STATUS_EV_EXITED, "exited"},
    {WEX_STATUS_EV_RESTARTED, "restarted"},
    {WEX_STATUS_EV_PARKED, "parked"},
    {WEX_STATUS_EV_TRIED_AGAIN, "tried_again"},
    {WEX_STATUS_EV_POSTPONED, "postponed"},
    {WEX_STATUS_EV_FORCED, "forced"},
    {WEX_STATUS_EV_HANDED_OVER, "handed_over"},
    {WEX_STATUS_EV_STOPPED, "stopped"},
    {WEX_STATUS_EV_DROPPED, "dropped"},
    {WEX_STATUS_EV_HANG, "hang"},
    {WEX_STATUS_EV_BURST, "burst"},
    {WEX_STATUS_EV_REBOOT_ASKED, "reboot_asked"},
    {WEX_STATUS_EV_REBOOT_REFUSED, "reboot_refused"},
    {WEX_STATUS_EV_LOST_EXIT, "lost_exit"},
    {WEX_STATUS_EV_FAILED, "failed"},
    {WEX_STATUS_EV_DAEMON_ENDED, "daemon_ended"},
    {WEX_STATUS_EV_REPLACED, "replaced"},
};

// True for a table with one row for each kind of event, in their order: a row is found by the number of its
// kind.
template <typename Row, size_t kRows>
constexpr bool one_row_a_kind(const Row (&rows)[kRows]) {
  for (size_t at = 0; at < kRows; ++at) {
    if (static_cast<size_t>(rows[at].kind) != at) {
      return false;
    }
  }
  return kRows == WEX_STATUS_EV_KINDS;
}
static_assert(one_row_a_kind(kStatusKinds), "an event without a name");

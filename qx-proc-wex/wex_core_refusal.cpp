// wex_core_refusal: what users wanted and may not have.
//
// The control server must not wait for a disk: it only notes the refusal, and the delay thread writes the
// line. The table is small, and its oldest row makes room only when it may be logged again: whoever has many
// users at hand gets no more lines than it has rows in a minute.
#define WEX_MODULE "wex_core"
#include "wex_core_refusal.h"

#include <iterator>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_status_image.h"
#include "wex_strict.h"

namespace {

struct refused_user {
  uid_t user;
  refusal why;     // the last one
  uint32_t count;  // since it was logged; 0: nothing is to be logged
  bool logged;     // once at least, at:
  int32_t logged_at;
};

constexpr const char* kReasons[] = {"the process is not his", "too many connections",
                                    "too many registrations", "too many groups"};
static_assert(std::size(kReasons) == static_cast<size_t>(refusal::too_many_groups) + 1,
              "a refusal without a reason");

priority_mutex g_mutex;
refused_user g_refused[kRefusedUsers] WEX_TSA(guarded_by(g_mutex));
int g_rows WEX_TSA(guarded_by(g_mutex)) = 0;

bool may_be_logged(const refused_user& row, int32_t now) {
  return !row.logged || static_cast<int64_t>(now) - row.logged_at >= kRefusedLogSec;
}

// The user's row, or one for him; null when all are in use.
refused_user* find_row(uid_t user, int32_t now) WEX_TSA(requires_capability(g_mutex)) {
  refused_user* spare = nullptr;
  for (refused_user* row = g_refused; row < g_refused + g_rows; ++row) {
    if (row->user == user) {
      return row;
    }
    if (row->count == 0 && may_be_logged(*row, now)) {
      spare = row;
    }
  }
  if (g_rows < kRefusedUsers) {
    spare = &g_refused[g_rows++];
  }
  if (spare != nullptr) {
    *spare = {user, refusal::not_his, 0, false, 0};
  }
  return spare;
}

// Takes a row that is to be logged now. False when there is none.
bool take_row(refused_user* out) {
  const int32_t now = wex_clock_now();
  const mutex_lock hold(g_mutex);
  for (refused_user* row = g_refused; row < g_refused + g_rows; ++row) {
    if (row->count > 0 && may_be_logged(*row, now)) {
      *out = *row;
      row->count = 0;
      row->logged = true;
      row->logged_at = now;
      return true;
    }
  }
  return false;
}

}  // namespace

void wex_refuse(uid_t user, refusal why) {
  wex_status_count(WEX_STATUS_REFUSED);
  const int32_t now = wex_clock_now();
  const mutex_lock hold(g_mutex);
  if (refused_user* const row = find_row(user, now)) {
    row->why = why;
    ++row->count;
  }
}

void wex_log_refusals() {
  if (!wex_strict().on) {
    return;  // without a look at the clock, once a second
  }
  refused_user row = {};
  while (take_row(&row)) {
    wex_running_log("User %u was refused %u times: %s.\r\n", static_cast<unsigned>(row.user),
                    static_cast<unsigned>(row.count), kReasons[static_cast<int>(row.why)]);
  }
}

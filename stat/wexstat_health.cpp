// wexstat_health: a daemon that is killed or stopped cannot say so, so the reader compares: its pid with
// /proc, its threads' times with the clock.
#include "wexstat_health.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "text_buffer.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_paths.h"
#include "wex_utils.h"
#include "wexstat_limits.h"
#include "wexstat_words.h"

namespace {

// The threads that come round without anything to do, by the names the kernel has for them. The others wait
// for an event, which need not come.
constexpr const char* kComesRound[] = {"wex_process_dom", "wex_thread_noti", "wex_delay_resta"};

bool comes_round(const wex_status_thread& thread) {
  return std::any_of(std::begin(kComesRound), std::end(kComesRound),
                     [&](const char* name) { return strncmp(name, thread.name, sizeof thread.name) == 0; });
}

// Programs may ask for a pause before their restart, which the daemon sits out; all others wait behind it,
// and their pauses follow. The one under way may be that of a registration that is not shown. Should one of
// the same length be shown, it is the same, unless the thread has waited since before that began. In strict
// mode nobody waits behind a user's.
int64_t pauses_ms(const status_copy& copy, const wex_status_thread& thread) {
  const int64_t under_way = copy.head.counters[WEX_STATUS_PAUSE];
  int64_t all = 0;
  const int64_t waits_since = thread.busy_since > 0 ? thread.busy_since : thread.last_pass;
  bool is_shown = false;
  for (const wex_status_slot& slot : copy.slots) {
    const bool is_due = slot.state == WEX_STATUS_RESTARTING || slot.state == WEX_STATUS_WAITING;
    if (is_due && slot.restart_delay > 0 && slot.uid == 0) {
      all += slot.restart_delay;
      is_shown = is_shown || (slot.state == WEX_STATUS_RESTARTING && slot.restart_delay == under_way &&
                              slot.since <= waits_since);
    }
  }
  return (is_shown ? all : all + under_way) * 1000;
}

// How long it has been too long, and at what; 0 when all is well. Times of a hostile table may be anything.
int64_t late_ms(const status_copy& copy, const wex_status_thread& thread, int64_t now_ms, bool* busy) {
  const int64_t pauses = pauses_ms(copy, thread);
  const auto since = [now_ms](int64_t then) { return then > 0 && then < now_ms ? now_ms - then : 0; };
  *busy = thread.busy_since > 0;
  if (*busy) {
    return since(thread.busy_since) > kBusyLimitMs + pauses ? since(thread.busy_since) : 0;
  }
  return comes_round(thread) && since(thread.last_pass) > kPassLimitMs + pauses ? since(thread.last_pass) : 0;
}

bool is_stuck(const status_copy& copy, const moment& at, char* text, size_t size) {
  for (const wex_status_thread& thread : copy.threads) {
    bool busy = false;
    const int64_t late = late_ms(copy, thread, at.monotonic_ms, &busy);
    if (late > 0) {
      char name[sizeof thread.name * 4 + 1];
      char time[kWordsSize];
      say_field(thread.name, name, sizeof name);
      say_duration(late, time, sizeof time);
      wex_format(
          text, size,
          busy ? "its thread %s has been at one thing for %s" : "its thread %s has not come round for %s",
          name, time);
      return true;
    }
  }
  return false;
}

bool is_of_this_boot(const wex_status_head& head) {
  char present[sizeof head.boot_id + 1] = "";
  if (head.boot_id[0] == '\0' || wex_read_to_buf(kBootId, present, sizeof present) <= 0) {
    return true;  // then the pid and its start time decide
  }
  const size_t length = strcspn(present, "\n");
  return length >= sizeof head.boot_id ||
         (strncmp(head.boot_id, present, length) == 0 && head.boot_id[length] == '\0');
}

// 0 when it is not there.
char process_state(const wex_status_head& head) {
  if (head.daemon_pid <= 0) {
    return 0;
  }
  const process_look look = wex_look_at(head.daemon_pid);
  if (look.sight == process_look::seen) {
    const bool same = head.daemon_start == 0 || look.start_time == head.daemon_start;
    return same && strchr("ZXx", look.state) == nullptr ? look.state : '\0';
  }
  // /proc may hide the processes of others.
  return kill(head.daemon_pid, 0) == 0 || errno == EPERM ? '?' : '\0';
}

void say(daemon_health* out, daemon_state state, const char* text) {
  out->state = state;
  wex_copy_text(out->text, sizeof out->text, text);
}

daemon_health without_table(const status_copy& copy) {
  daemon_health out;
  switch (copy.look) {
    case table_look::absent:
      say(&out, daemon_state::absent, "it has not run since the device started: there is no table");
      break;
    case table_look::other_version:
      say(&out, daemon_state::unknown, "");
      wex_format(out.text, sizeof out.text, "the table has version %u, this wexstat reads version %d",
                 copy.version, WEX_STATUS_VERSION);
      break;
    case table_look::unreadable:
      say(&out, daemon_state::unknown, "");
      wex_format(out.text, sizeof out.text, "the table cannot be read: %s", strerror(copy.cause));
      break;
    case table_look::foreign:
      say(&out, daemon_state::unknown, "somebody else than root may have written the table");
      break;
    case table_look::other_machine:
      say(&out, daemon_state::unknown, "the table was written by a machine with another byte order");
      break;
    case table_look::no_table:
      say(&out, daemon_state::unknown, "what lies in the table's place is no table");
      break;
    case table_look::being_made:
      say(&out, daemon_state::unknown, "the table is being made");
      break;
    case table_look::damaged:
    case table_look::good:
      say(&out, daemon_state::unknown, "the table is damaged");
      break;
  }
  return out;
}

// The names of the first registrations in this state, "parked: a, b, and 3 more".
void add_names(const status_copy& copy, uint32_t state, char* line, size_t size) {
  uint32_t named = 0;
  uint32_t left = 0;
  for (const wex_status_slot& slot : copy.slots) {
    if (slot.state != state) {
      continue;
    }
    if (named == kNamedInCheck) {
      ++left;
      continue;
    }
    char name[sizeof slot.name * 4 + 1];
    say_field(slot.name, name, sizeof name);
    const size_t at = strlen(line);
    wex_format(line + at, size - at, "%s%s", named == 0 ? " " : ", ", name);
    ++named;
  }
  if (left > 0) {
    const size_t at = strlen(line);
    wex_format(line + at, size - at, " and %u more", left);
  }
}

constexpr uint32_t kTroubles[] = {WEX_STATUS_DOWN, WEX_STATUS_PARKED, WEX_STATUS_WAITING};

bool say_troubles(const status_copy& copy, const state_counts& counts, char* line, size_t size) {
  bool any = false;
  for (const uint32_t state : kTroubles) {
    if (counts.of[state] > 0) {
      const size_t at = strlen(line);
      wex_format(line + at, size - at, "%s%u %s:", any ? "; " : "", counts.of[state], state_word(state));
      add_names(copy, state, line, size);
      any = true;
    }
  }
  return any;
}

// Those of registrations that have no place in the table, which are counted only.
bool say_hidden_troubles(const status_copy& copy, bool any_shown, char* line, size_t size) {
  const uint32_t count = copy.head.counters[WEX_STATUS_HIDDEN_TROUBLES];
  if (count > 0) {
    const size_t at = strlen(line);
    wex_format(line + at, size - at, "%s%u not shown: parked, postponed or down", any_shown ? "; " : "",
               count);
  }
  return count > 0;
}

}  // namespace

moment now() {
  return {wex_clock_ms(), static_cast<int64_t>(time(nullptr))};
}

daemon_health judge_daemon(const status_copy& copy, const moment& at, char process) {
  daemon_health out = {};
  if (process == '\0') {
    if ((copy.head.flags & WEX_STATUS_ENDED) != 0) {
      say(&out, daemon_state::ended, "it has ended");
    } else {
      say(&out, daemon_state::dead, "it was killed");
    }
    return out;
  }
  if (process == 'T') {
    say(&out, daemon_state::stuck, "it is stopped by a signal");
  } else if (is_stuck(copy, at, out.text, sizeof out.text)) {
    out.state = daemon_state::stuck;
  } else {
    say(&out, daemon_state::running, "it runs");
  }
  return out;
}

daemon_health look_at_daemon(const status_copy& copy, const moment& at) {
  if (copy.look != table_look::good) {
    return without_table(copy);
  }
  if (!is_of_this_boot(copy.head)) {
    daemon_health out;
    say(&out, daemon_state::other_boot, "the table is from before the last start of the device");
    return out;
  }
  return judge_daemon(copy, at, process_state(copy.head));
}

const char* daemon_state_word(daemon_state state) {
  constexpr const char* kWords[] = {"running", "stuck", "dead", "ended", "other_boot", "absent", "unknown"};
  static_assert(std::size(kWords) == static_cast<size_t>(daemon_state::unknown) + 1,
                "every state has a word");
  return kWords[static_cast<size_t>(state)];
}

state_counts count_states(const status_copy& copy) {
  state_counts counts = {};
  for (const wex_status_slot& slot : copy.slots) {
    if (slot.state <= WEX_STATUS_DOWN) {
      ++counts.of[slot.state];
    }
    ++counts.all;
  }
  return counts;
}

int judge_all(const status_copy& copy, const daemon_health& daemon, char* line, size_t size) {
  if (daemon.state == daemon_state::unknown) {
    wex_format(line, size, "unknown: %s", daemon.text);
    return kExitUnknown;
  }
  if (daemon.state != daemon_state::running) {
    const bool stuck = daemon.state == daemon_state::stuck;
    wex_format(line, size, "wex is %s: %s", stuck ? "stuck" : "not running", daemon.text);
    return kExitDead;
  }
  const state_counts counts = count_states(copy);
  wex_copy_text(line, size, "");
  const bool any_shown = say_troubles(copy, counts, line, size);
  if (say_hidden_troubles(copy, any_shown, line, size) || any_shown) {
    return kExitTrouble;
  }
  if (copy.slots.unread > 0) {
    wex_format(line, size, "unknown: %u registrations are being written", copy.slots.unread);
    return kExitUnknown;
  }
  wex_format(line, size, "well: %u supervised", counts.all);
  if (const uint32_t hidden = copy.head.counters[WEX_STATUS_NOT_SHOWN]; hidden > 0) {
    const size_t at = strlen(line);
    wex_format(line + at, size - at, "; %u registrations are not shown", hidden);
  }
  return kExitWell;
}

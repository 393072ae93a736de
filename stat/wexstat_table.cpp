// wexstat_table: what people read. Lines are put together in full and cut to the terminal's width; texts of
// the table have no byte left that a terminal would obey.
#include "wexstat_table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "text_buffer.h"
#include "text_number.h"
#include "wexstat_limits.h"
#include "wexstat_words.h"

namespace {

constexpr size_t kLineSize = 2048;
constexpr char kRed[] = "\033[31m";
constexpr char kYellow[] = "\033[33m";
constexpr char kBold[] = "\033[1m";
constexpr char kPlain[] = "\033[0m";

// ---- Lines ------------------------------------------------------------------------------------------------

// One line, cut at the width of the terminal. `colour` may be null.
void put_line(const char* line, const char* colour, const look_and_feel& look, FILE* out) {
  const size_t length = strlen(line);
  const size_t shown = look.columns > 0 ? std::min<size_t>(length, look.columns) : length;
  const bool coloured = look.colour && colour != nullptr;
  fprintf(out, "%s%.*s%s\n", coloured ? colour : "", static_cast<int>(shown), line, coloured ? kPlain : "");
}

// A field that is full may hold the beginning of a longer name.
bool is_name(const char (&field)[WEX_STATUS_NAME_SIZE], const char* name) {
  size_t length;
  const char* const text = bounded(field, &length);
  return (length == sizeof field ? strlen(name) >= length : strlen(name) == length) &&
         memcmp(text, name, length) == 0;
}

// ---- Order ------------------------------------------------------------------------------------------------

int urgency(const wex_status_slot& slot) {
  switch (slot.state) {
    case WEX_STATUS_DOWN:
      return 0;
    case WEX_STATUS_PARKED:
      return 1;
    case WEX_STATUS_WAITING:
      return 2;
    case WEX_STATUS_RESTARTING:
      return 3;
    case WEX_STATUS_RUNNING:
      return slot.watched_threads > 0 && slot.fewest_misses <= 1 ? 4 : 5;
    default:
      return 0;
  }
}

bool comes_first(const wex_status_slot& a, const wex_status_slot& b) {
  const int difference = urgency(a) - urgency(b);
  const int names = strncmp(a.name, b.name, sizeof a.name);
  if (difference != 0) {
    return difference < 0;
  }
  if (names != 0) {
    return names < 0;
  }
  return a.domain != b.domain ? a.domain < b.domain : a.pid < b.pid;
}

const char* colour_of(const wex_status_slot& slot) {
  const int level = urgency(slot);
  return level <= 1 ? kRed : level <= 4 ? kYellow : nullptr;
}

// ---- Cells ------------------------------------------------------------------------------------------------

enum column { kName, kPid, kDomain, kState, kUp, kRestarts, kThreads, kLastExit, kColumns };
constexpr const char* kTitles[] = {"NAME",   "PID",      "DOMAIN",  "STATE",
                                   "UP FOR", "RESTARTS", "THREADS", "LAST EXIT"};
static_assert(std::size(kTitles) == kColumns, "every column has a title");
constexpr size_t kCellSize = sizeof wex_status_slot::name * 4 + 1;

void say_state(const wex_status_slot& slot, const moment& at, char* out, size_t size) {
  char time[kWordsSize];
  if (slot.state == WEX_STATUS_PARKED && slot.until > 0) {
    say_duration(time_between(at.monotonic_ms, slot.until), time, sizeof time);
    wex_format(out, size, "parked, %s more", time);
  } else if (slot.state == WEX_STATUS_RESTARTING && slot.until > at.monotonic_ms) {
    say_duration(time_between(at.monotonic_ms, slot.until), time, sizeof time);
    wex_format(out, size, "restarting in %s", time);
  } else if (slot.state != WEX_STATUS_RUNNING && slot.since > 0) {
    say_duration(time_between(slot.since, at.monotonic_ms), time, sizeof time);
    wex_format(out, size, "%s for %s", state_word(slot.state), time);
  } else {
    wex_copy_text(out, size, state_word(slot.state));
  }
}

void say_last_exit(const wex_status_slot& slot, const moment& at, char* out, size_t size) {
  if (slot.last_exit_wall == 0) {
    wex_copy_text(out, size, "-");
    return;
  }
  char exit[kWordsSize];
  char time[kWordsSize];
  say_exit(slot.last_exit, exit, sizeof exit);
  const int64_t ago = time_between(slot.last_exit_wall, at.wall_sec);
  say_duration(std::min(ago, INT64_MAX / 1000) * 1000, time, sizeof time);
  wex_format(out, size, "%s, %s ago", exit, time);
}

void say_threads(const wex_status_slot& slot, char* out, size_t size) {
  if (slot.watched_threads <= 0) {
    wex_copy_text(out, size, "-");
  } else if (slot.fewest_misses >= 0 && slot.fewest_misses <= 1) {
    wex_format(out, size, "%d, %d left", slot.watched_threads, slot.fewest_misses);
  } else {
    wex_format(out, size, "%d", slot.watched_threads);
  }
}

void say_up(const wex_status_slot& slot, const moment& at, char* out, size_t size) {
  if (slot.state == WEX_STATUS_RUNNING && slot.started > 0) {
    say_duration(time_between(slot.started, at.monotonic_ms), out, size);
  } else {
    wex_copy_text(out, size, "-");
  }
}

void say_cell(const wex_status_slot& slot, column which, const moment& at, char* out, size_t size) {
  switch (which) {
    case kName:
      say_field(slot.name, out, size);
      return;
    case kPid:
      wex_format(out, size, "%d", slot.pid);
      return;
    case kDomain:
      wex_format(out, size, "%d", slot.domain);
      return;
    case kState:
      say_state(slot, at, out, size);
      return;
    case kUp:
      say_up(slot, at, out, size);
      return;
    case kRestarts:
      wex_format(out, size, "%u", slot.restarts);
      return;
    case kLastExit:
      say_last_exit(slot, at, out, size);
      return;
    case kThreads:
      say_threads(slot, out, size);
      return;
    case kColumns:
      return;
  }
}

struct column_widths {
  size_t of[kColumns];
};

column_widths measure(const status_copy& copy, const moment& at) {
  column_widths widths;
  for (int at_column = 0; at_column < kColumns; ++at_column) {
    widths.of[at_column] = strlen(kTitles[at_column]);
    for (const wex_status_slot& slot : copy.slots) {
      char cell[kCellSize];
      say_cell(slot, static_cast<column>(at_column), at, cell, sizeof cell);
      widths.of[at_column] = std::max(widths.of[at_column], strlen(cell));
    }
  }
  return widths;
}

// Puts a cell behind what is in the line, padded unless it is the last one.
void add_cell(const char* cell, size_t width, char* line, size_t size) {
  const size_t at = strlen(line);
  wex_format(line + at, size - at, "%-*s", static_cast<int>(width), cell);
}

void put_titles(const column_widths& widths, const look_and_feel& look, FILE* out) {
  char line[kLineSize] = "";
  for (int which = 0; which < kColumns; ++which) {
    add_cell(kTitles[which], which + 1 < kColumns ? widths.of[which] + 2 : 0, line, sizeof line);
  }
  put_line(line, kBold, look, out);
}

void put_row(const wex_status_slot& slot, const column_widths& widths, const moment& at,
             const look_and_feel& look, FILE* out) {
  char line[kLineSize] = "";
  for (int which = 0; which < kColumns; ++which) {
    char cell[kCellSize];
    say_cell(slot, static_cast<column>(which), at, cell, sizeof cell);
    add_cell(cell, which + 1 < kColumns ? widths.of[which] + 2 : 0, line, sizeof line);
  }
  put_line(line, colour_of(slot), look, out);
}

// ---- One registration -------------------------------------------------------------------------------------

void put_fact(const char* what, const char* text, const look_and_feel& look, FILE* out) {
  char line[kLineSize];
  wex_format(line, sizeof line, "  %-11s %s", what, text);
  put_line(line, nullptr, look, out);
}

constexpr char kCut[] = " ...";

void put_command(const wex_status_slot& slot, const look_and_feel& look, FILE* out) {
  char command[sizeof slot.command * 4 + 8];
  size_t length;
  const char* const text = bounded(slot.command, &length);
  escape(text, length, command, sizeof command - sizeof kCut);
  if (length == sizeof slot.command) {
    memcpy(command + strlen(command), kCut, sizeof kCut);
  }
  put_fact("command", command, look, out);
}

void put_times(const wex_status_slot& slot, const moment& at, const look_and_feel& look, FILE* out) {
  char text[kWordsSize * 3];
  char time[kWordsSize];
  if (slot.registered > 0) {
    say_duration(time_between(slot.registered, at.monotonic_ms), time, sizeof time);
    wex_format(text, sizeof text, "%s ago", time);
    put_fact("registered", text, look, out);
  }
  say_up(slot, at, text, sizeof text);
  put_fact("up for", text, look, out);
  wex_format(text, sizeof text, "%u since its registration, %u within the window", slot.restarts,
             slot.restarts_window);
  put_fact("restarts", text, look, out);
  say_last_exit(slot, at, text, sizeof text);
  if (slot.last_exit_wall != 0) {
    say_time(slot.last_exit_wall, time, sizeof time);
    const size_t length = strlen(text);
    wex_format(text + length, sizeof text - length, " (%s)", time);
  }
  put_fact("last exit", text, look, out);
}

void put_rules(const wex_status_slot& slot, const look_and_feel& look, FILE* out) {
  char text[kWordsSize * 3];
  wex_format(text, sizeof text, "%s%s, domain %d, pause before a restart %d s", action_word(slot.action),
             slot.is_thread != 0 ? " of a thread" : "", slot.domain, slot.restart_delay);
  put_fact("action", text, look, out);
  if (slot.watched_threads > 0) {
    wex_format(text, sizeof text, "%d watched, %d misses left to one of them", slot.watched_threads,
               slot.fewest_misses);
    put_fact("threads", text, look, out);
  }
  if (slot.uid != 0) {
    wex_format(text, sizeof text, "%u", slot.uid);
    put_fact("user", text, look, out);
  }
}

void put_event(const wex_status_event& event, bool with_name, const look_and_feel& look, FILE* out) {
  char time[kWordsSize];
  char name[sizeof event.name * 4 + 1];
  char text[kWordsSize];
  char line[kLineSize];
  say_time(event.wall / 1000, time, sizeof time);
  say_field(event.name, name, sizeof name);
  say_event(event, text, sizeof text);
  if (with_name) {
    wex_format(line, sizeof line, "%s  %-15s %7d  %s", time, name, event.pid, text);
  } else {
    wex_format(line, sizeof line, "  %s  %7d  %s", time, event.pid, text);
  }
  put_line(line, nullptr, look, out);
}

bool belongs_to(const wex_status_event& event, const wex_status_slot& slot) {
  return strncmp(event.name, slot.name, sizeof event.name) == 0 && event.domain == slot.domain;
}

void put_events_of(const status_copy& copy, const wex_status_slot& slot, const look_and_feel& look,
                   FILE* out) {
  uint32_t skipped = 0;
  for (const wex_status_event& event : copy.events) {
    skipped += belongs_to(event, slot) ? 1 : 0;
  }
  skipped = skipped > kEventsOfOne ? skipped - kEventsOfOne : 0;
  for (const wex_status_event& event : copy.events) {
    if (!belongs_to(event, slot)) {
      continue;
    }
    if (skipped > 0) {
      --skipped;
      continue;
    }
    put_event(event, false, look, out);
  }
}

// ---- Headline ---------------------------------------------------------------------------------------------

void add(char* line, size_t size, const char* before, uint32_t count, const char* what) {
  if (count > 0) {
    const size_t at = strlen(line);
    wex_format(line + at, size - at, "%s%u %s", before, count, what);
  }
}

void say_daemon(const status_copy& copy, const daemon_health& daemon, const moment& at, char* out,
                size_t size) {
  char version[sizeof copy.head.daemon_version * 4 + 1];
  char time[kWordsSize];
  say_field(copy.head.daemon_version, version, sizeof version);
  if (daemon.state == daemon_state::running || daemon.state == daemon_state::stuck) {
    say_duration(time_between(copy.head.started_monotonic, at.monotonic_ms), time, sizeof time);
    wex_format(out, size, "wex %s, pid %d, %sup for %s%s%s", version, copy.head.daemon_pid,
               (copy.head.flags & WEX_STATUS_STRICT) != 0 ? "strict mode, " : "", time,
               daemon.state == daemon_state::stuck ? ", STUCK: " : "",
               daemon.state == daemon_state::stuck ? daemon.text : "");
  } else {
    wex_format(out, size, "wex is NOT RUNNING (%s); pid %d left this:", daemon.text, copy.head.daemon_pid);
  }
}

void say_totals(const status_copy& copy, char* out, size_t size) {
  const state_counts counts = count_states(copy);
  wex_format(out, size, "%u registered", counts.all);
  for (uint32_t state = WEX_STATUS_DOWN; state > WEX_STATUS_FREE; --state) {
    add(out, size, ", ", counts.of[state], state_word(state));
  }
  add(out, size, ", ", copy.slots.unread, "being written");
  const uint32_t* const counter = copy.head.counters;
  add(out, size, ", ", counter[WEX_STATUS_NOT_SHOWN], "not shown");
  const size_t at = strlen(out);
  wex_format(out + at, size - at, "; since its start %u exits, %u restarts", counter[WEX_STATUS_EXITS],
             counter[WEX_STATUS_RESTARTS]);
  add(out, size, ", ", counter[WEX_STATUS_PARKS], "parkings");
  add(out, size, ", ", counter[WEX_STATUS_HANGS], "hangs");
  add(out, size, ", ", counter[WEX_STATUS_LOST_EXITS], "lost exits");
}

}  // namespace

look_and_feel look_of_terminal() {
  look_and_feel look;
  winsize size = {};
  if (isatty(STDOUT_FILENO) == 0) {
    return look;
  }
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
    look.columns = size.ws_col;
    look.rows = size.ws_row;
  }
  const char* const none = getenv("NO_COLOR");
  const char* const terminal = getenv("TERM");
  look.colour = (none == nullptr || *none == '\0') && terminal != nullptr && strcmp(terminal, "dumb") != 0;
  return look;
}

void show_headline(const status_copy& copy, const daemon_health& daemon, const moment& at,
                   const look_and_feel& look, FILE* out) {
  char line[kLineSize];
  say_daemon(copy, daemon, at, line, sizeof line);
  put_line(line, daemon.state == daemon_state::running ? kBold : kRed, look, out);
  say_totals(copy, line, sizeof line);
  put_line(line, nullptr, look, out);
}

void show_table(status_copy* copy, const moment& at, const look_and_feel& look, FILE* out) {
  if (copy->slots.count == 0) {
    return;
  }
  std::sort(copy->slots.begin(), copy->slots.end(), comes_first);
  const column_widths widths = measure(*copy, at);
  put_titles(widths, look, out);
  // The headline has two lines, the titles one; the last one tells what is missing.
  const uint32_t room = look.rows > 5 ? look.rows - 5 : look.rows > 0 ? 1 : copy->slots.count;
  const uint32_t shown = std::min(copy->slots.count, room);
  for (uint32_t i = 0; i < shown; ++i) {
    put_row(copy->slots.records[i], widths, at, look, out);
  }
  if (shown < copy->slots.count) {
    fprintf(out, "and %u more\n", copy->slots.count - shown);
  }
}

bool is_called(const wex_status_slot& slot, const char* name) {
  const char* at = name;
  int32_t pid;
  return is_name(slot.name, name) ||
         (*name >= '0' && *name <= '9' && scan_number(&at, &pid) && *at == '\0' && pid == slot.pid);
}

uint32_t show_named(const status_copy& copy, const char* name, const moment& at, const look_and_feel& look,
                    FILE* out) {
  uint32_t found = 0;
  for (const wex_status_slot& slot : copy.slots) {
    if (!is_called(slot, name)) {
      continue;
    }
    char own[kCellSize];
    char state[kWordsSize];
    char line[kLineSize];
    say_field(slot.name, own, sizeof own);
    say_state(slot, at, state, sizeof state);
    wex_format(line, sizeof line, "%s, pid %d: %s", own, slot.pid, state);
    put_line(line, colour_of(slot) != nullptr ? colour_of(slot) : kBold, look, out);
    put_command(slot, look, out);
    put_rules(slot, look, out);
    put_times(slot, at, look, out);
    put_events_of(copy, slot, look, out);
    ++found;
  }
  return found;
}

void show_history(const status_copy& copy, const char* name, uint32_t lines, const look_and_feel& look,
                  FILE* out) {
  const auto wanted = [name](const wex_status_event& event) {
    return name == nullptr || is_name(event.name, name);
  };
  uint32_t skipped = 0;
  for (const wex_status_event& event : copy.events) {
    skipped += wanted(event) ? 1 : 0;
  }
  skipped = skipped > lines ? skipped - lines : 0;
  for (const wex_status_event& event : copy.events) {
    if (!wanted(event)) {
      continue;
    }
    if (skipped > 0) {
      --skipped;
      continue;
    }
    put_event(event, true, look, out);
  }
}

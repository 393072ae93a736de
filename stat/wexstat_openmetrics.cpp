// wexstat_openmetrics: the table as OpenMetrics text.
//
// Registrations of one name in one domain are one series: a process id in a label would begin a new one with
// each restart. Of the types only those appear that the older text format knows, too: the Prometheus node
// exporter reads its files in that format, and refuses the others.
#include <algorithm>
#include <cstring>
#include <iterator>

#include "wexstat_machines.h"
#include "wexstat_words.h"

namespace {

constexpr char kQuote = '\x22';

// ---- Text -------------------------------------------------------------------------------------------------

void put_family(const char* name, const char* type, const char* unit, const char* help, FILE* out) {
  fprintf(out, "# TYPE %s %s\n", name, type);
  if (unit != nullptr) {
    fprintf(out, "# UNIT %s %s\n", name, unit);
  }
  fprintf(out, "# HELP %s %s\n", name, help);
}

void put_label(const char* name, const char* value, size_t length, FILE* out) {
  fprintf(out, "%s=%c", name, kQuote);
  for (size_t at = 0; at < length;) {
    const size_t count = utf8_length(value + at, length - at);
    const char byte = value[at];
    if (count == 0) {
      fputs("\xef\xbf\xbd", out);  // the replacement character
    } else if (byte == '\n') {
      fputs("\\n", out);
    } else if (byte == kQuote || byte == '\\') {
      fprintf(out, "\\%c", byte);
    } else {
      fwrite(value + at, 1, count, out);
    }
    at += count == 0 ? 1 : count;
  }
  fputc(kQuote, out);
}

template <size_t N>
void put_field_label(const char* name, const char (&field)[N], FILE* out) {
  size_t length;
  const char* const text = bounded(field, &length);
  put_label(name, text, length, out);
}

void put_milliseconds(int64_t milliseconds, FILE* out) {
  fprintf(out, "%lld.%03d", static_cast<long long>(milliseconds / 1000),
          static_cast<int>(milliseconds % 1000));
}

void put_gauge(const char* name, const char* help, int64_t value, FILE* out) {
  put_family(name, "gauge", nullptr, help, out);
  fprintf(out, "%s %lld\n", name, static_cast<long long>(value));
}

// ---- The daemon -------------------------------------------------------------------------------------------

constexpr const char* kCounterHelp[] = {"Ends of supervised processes that were handled.",
                                        "Processes started again, whatever the occasion.",
                                        "Programs parked because they restarted too often.",
                                        "Restarts that waited for a held database file.",
                                        "Postponed restarts made after the longest wait.",
                                        "Exits of programs that had another registered process by then.",
                                        "Registrations dropped with a domain that was taken down.",
                                        "Restarts that left no process.",
                                        "Exits that the kernel did not report, found by looking.",
                                        "Times that the kernel dropped process events.",
                                        "Control messages that were not understood or not allowed.",
                                        "Hung threads reported.",
                                        "Registrations refused: the process was gone, or known already."};
static_assert(std::size(kCounterHelp) == WEX_STATUS_NOT_SHOWN, "every counter is explained");

void put_counters(const wex_status_head& head, FILE* out) {
  for (int index = 0; index < WEX_STATUS_NOT_SHOWN; ++index) {
    char name[64];
    snprintf(name, sizeof name, "wex_%s", kCounterNames[index]);
    put_family(name, "counter", nullptr, kCounterHelp[index], out);
    fprintf(out, "%s_total %u\n", name, head.counters[index]);
  }
}

void put_thread_ages(const status_copy& copy, const char* family, const char* help,
                     int64_t wex_status_thread::*time, const moment& at, FILE* out) {
  put_family(family, "gauge", "seconds", help, out);
  for (const wex_status_thread* thread = copy.threads.begin(); thread != copy.threads.end(); ++thread) {
    const auto same = [&](const wex_status_thread& other) {
      return strncmp(other.name, thread->name, sizeof other.name) == 0;
    };
    if (std::any_of(copy.threads.begin(), thread, same)) {
      continue;  // a series has its name once
    }
    fprintf(out, "%s{", family);
    put_field_label("thread", thread->name, out);
    fputs("} ", out);
    put_milliseconds(thread->*time > 0 ? time_between(thread->*time, at.monotonic_ms) : 0, out);
    fputc('\n', out);
  }
}

void put_daemon(const status_copy& copy, const moment& at, FILE* out) {
  const wex_status_head& head = copy.head;
  put_family("wex_build_info", "gauge", nullptr, "The version of the daemon.", out);
  fputs("wex_build_info{", out);
  put_field_label("version", head.daemon_version, out);
  fputs("} 1\n", out);
  put_family("wex_start_time_seconds", "gauge", "seconds", "When the daemon was started, since 1970.", out);
  fprintf(out, "wex_start_time_seconds %lld\n", static_cast<long long>(head.started_wall));
  put_gauge("wex_starts", "Starts of the daemon since the table was made.", head.generation, out);
  put_counters(head, out);
  put_family("wex_pause_seconds", "gauge", "seconds",
             "The pause before a restart that is under way; other restarts wait behind it.", out);
  fprintf(out, "wex_pause_seconds %u\n", head.counters[WEX_STATUS_PAUSE]);
  put_thread_ages(copy, "wex_thread_busy_seconds", "How long a thread of the daemon has been at one thing.",
                  &wex_status_thread::busy_since, at, out);
  put_thread_ages(copy, "wex_thread_last_pass_seconds", "How long ago a thread of the daemon came round.",
                  &wex_status_thread::last_pass, at, out);
}

// ---- Registrations ----------------------------------------------------------------------------------------

bool same_series(const wex_status_slot& a, const wex_status_slot& b) {
  return a.domain == b.domain && strncmp(a.name, b.name, sizeof a.name) == 0;
}

bool in_order(const wex_status_slot& a, const wex_status_slot& b) {
  const int names = strncmp(a.name, b.name, sizeof a.name);
  return names != 0 ? names < 0 : a.domain < b.domain;
}

// One series: the registrations from `first` to before `last`.
struct series {
  const wex_status_slot* first;
  const wex_status_slot* last;
};

// Calls `put` for each series.
template <typename Put>
void for_each_series(const status_copy& copy, const Put& put) {
  const wex_status_slot* first = copy.slots.begin();
  while (first != copy.slots.end()) {
    const wex_status_slot* last = first + 1;
    while (last != copy.slots.end() && same_series(*first, *last)) {
      ++last;
    }
    put(series{first, last});
    first = last;
  }
}

void put_labels(const series& one, const char* state, FILE* out) {
  fputc('{', out);
  put_field_label("name", one.first->name, out);
  fprintf(out, ",domain=%c%d%c", kQuote, one.first->domain, kQuote);
  if (state != nullptr) {
    fprintf(out, ",state=%c%s%c", kQuote, state, kQuote);
  }
  fputs("} ", out);
}

void put_states(const status_copy& copy, FILE* out) {
  put_family("wex_registration_state", "gauge", nullptr, "Registrations of this name in this state.", out);
  for_each_series(copy, [out](const series& one) {
    for (uint8_t state = WEX_STATUS_RUNNING; state <= WEX_STATUS_DOWN; ++state) {
      const auto count = std::count_if(one.first, one.last,
                                       [state](const wex_status_slot& slot) { return slot.state == state; });
      fputs("wex_registration_state", out);
      put_labels(one, state_word(state), out);
      fprintf(out, "%d\n", static_cast<int>(count));
    }
  });
}

// A number of a whole series.
template <typename Value>
void put_values(const status_copy& copy, const char* sample, const Value& value, FILE* out) {
  for_each_series(copy, [&](const series& one) {
    int64_t number;
    if (value(one, &number)) {
      fputs(sample, out);
      put_labels(one, nullptr, out);
      fprintf(out, "%lld\n", static_cast<long long>(number));
    }
  });
}

bool sum_of_restarts(const series& one, int64_t* out) {
  *out = 0;
  for (const wex_status_slot* slot = one.first; slot != one.last; ++slot) {
    *out += slot->restarts;
  }
  return true;
}

bool time_of_last_exit(const series& one, int64_t* out) {
  *out = 0;
  for (const wex_status_slot* slot = one.first; slot != one.last; ++slot) {
    *out = std::max(*out, slot->last_exit_wall);
  }
  return *out != 0;
}

bool sum_of_threads(const series& one, int64_t* out) {
  *out = 0;
  for (const wex_status_slot* slot = one.first; slot != one.last; ++slot) {
    *out += std::max(slot->watched_threads, 0);
  }
  return *out != 0;
}

bool least_of_misses(const series& one, int64_t* out) {
  bool any = false;
  for (const wex_status_slot* slot = one.first; slot != one.last; ++slot) {
    if (slot->watched_threads > 0 && slot->fewest_misses >= 0) {
      *out = any ? std::min<int64_t>(*out, slot->fewest_misses) : slot->fewest_misses;
      any = true;
    }
  }
  return any;
}

void put_registrations(const status_copy& copy, FILE* out) {
  const state_counts counts = count_states(copy);
  put_family("wex_registrations", "gauge", nullptr, "Registrations in each state.", out);
  for (uint32_t state = WEX_STATUS_RUNNING; state <= WEX_STATUS_DOWN; ++state) {
    fprintf(out, "wex_registrations{state=\"%s\"} %u\n", state_word(state), counts.of[state]);
  }
  put_gauge("wex_registrations_not_shown", "Registrations without a place in the table.",
            copy.head.counters[WEX_STATUS_NOT_SHOWN], out);
  put_gauge("wex_registrations_not_shown_in_trouble",
            "Registrations without a place in the table that are parked, postponed or down.",
            copy.head.counters[WEX_STATUS_HIDDEN_TROUBLES], out);
  put_states(copy, out);
  put_family("wex_registration_restarts", "counter", nullptr, "Restarts since the registration.", out);
  put_values(copy, "wex_registration_restarts_total", sum_of_restarts, out);
  put_family("wex_registration_last_exit_timestamp_seconds", "gauge", "seconds",
             "When a process last ended, since 1970.", out);
  put_values(copy, "wex_registration_last_exit_timestamp_seconds", time_of_last_exit, out);
  put_family("wex_registration_watched_threads", "gauge", nullptr, "Threads watched for hangs.", out);
  put_values(copy, "wex_registration_watched_threads", sum_of_threads, out);
  put_family("wex_registration_misses_left", "gauge", nullptr,
             "Misses left to a thread until it counts as hung, the fewest of all.", out);
  put_values(copy, "wex_registration_misses_left", least_of_misses, out);
}

// ---- Events -----------------------------------------------------------------------------------------------

void put_events(const status_copy& copy, FILE* out) {
  int64_t last[WEX_STATUS_EV_KINDS] = {};
  for (const wex_status_event& event : copy.events) {
    if (event.kind < WEX_STATUS_EV_KINDS) {
      last[event.kind] = std::max(last[event.kind], event.wall);
    }
  }
  put_family("wex_last_event_timestamp_seconds", "gauge", "seconds",
             "When something of this kind last happened, since 1970.", out);
  for (uint32_t kind = WEX_STATUS_EV_NONE + 1; kind < WEX_STATUS_EV_KINDS; ++kind) {
    if (last[kind] > 0) {
      fprintf(out, "wex_last_event_timestamp_seconds{event=\"%s\"} ", kind_word(kind));
      put_milliseconds(last[kind], out);
      fputc('\n', out);
    }
  }
}

}  // namespace

void write_openmetrics(status_copy* copy, const daemon_health& daemon, const moment& at, FILE* out) {
  const bool stuck = daemon.state == daemon_state::stuck;
  put_gauge("wex_up", "Whether the daemon is there.", daemon.state == daemon_state::running || stuck, out);
  put_gauge("wex_stuck", "Whether the daemon is there and does nothing.", stuck, out);
  if (copy->look == table_look::good) {
    std::sort(copy->slots.begin(), copy->slots.end(), in_order);
    put_daemon(*copy, at, out);
    put_registrations(*copy, out);
    put_events(*copy, out);
  }
  fputs("# EOF\n", out);
}

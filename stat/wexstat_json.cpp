// wexstat_json: the whole table as one JSON object.

#include "wexstat_limits.h"
#include "wexstat_machines.h"
#include "wexstat_words.h"

namespace {

constexpr char kQuote = '\x22';

// Puts the commas, and quotes texts.
class json_writer {
 public:
  explicit json_writer(FILE* out) : out_(out) {}

  void open(const char* key, char bracket) {
    start(key);
    fputc(bracket, out_);
    first_ = true;
  }
  void close(char bracket) {
    fputc(bracket, out_);
    first_ = false;
  }
  void number(const char* key, int64_t value) {
    start(key);
    fprintf(out_, "%lld", static_cast<long long>(value));
  }
  void truth(const char* key, bool value) {
    start(key);
    fputs(value ? "true" : "false", out_);
  }
  void nothing(const char* key) {
    start(key);
    fputs("null", out_);
  }
  void text(const char* key, const char* value, size_t length) {
    start(key);
    quote(value, length);
  }
  void word(const char* key, const char* value) { text(key, value, strnlen_of(value)); }
  template <size_t N>
  void field(const char* key, const char (&value)[N]) {
    size_t length;
    const char* const begin = bounded(value, &length);
    text(key, begin, length);
  }

 private:
  static size_t strnlen_of(const char* value) {
    size_t length = 0;
    while (value[length] != '\0') {
      ++length;
    }
    return length;
  }
  void start(const char* key) {
    fputs(first_ ? "" : ",", out_);
    first_ = false;
    if (key != nullptr) {
      fprintf(out_, "\"%s\":", key);
    }
  }
  // A byte that is no part of a character becomes the replacement character.
  void quote(const char* value, size_t length) {
    fputc(kQuote, out_);
    for (size_t at = 0; at < length;) {
      const size_t count = utf8_length(value + at, length - at);
      const unsigned char byte = static_cast<unsigned char>(value[at]);
      if (count == 0) {
        fputs("\\ufffd", out_);
      } else if (byte < 0x20 || byte == 0x7f || byte == kQuote || byte == '\\') {
        fprintf(out_, "\\u%04x", static_cast<unsigned>(byte));
      } else {
        fwrite(value + at, 1, count, out_);
      }
      at += count == 0 ? 1 : count;
    }
    fputc(kQuote, out_);
  }

  FILE* out_;
  bool first_ = true;
};

int64_t seconds(int64_t milliseconds) {
  return milliseconds / 1000;
}

// How long ago, or null for "never".
void write_age(json_writer* json, const char* key, int64_t then_ms, const moment& at) {
  if (then_ms <= 0) {
    json->nothing(key);
  } else {
    json->number(key, seconds(time_between(then_ms, at.monotonic_ms)));
  }
}

void write_exit(json_writer* json, const char* key, uint32_t status, int64_t when) {
  char words[kWordsSize];
  say_exit(status, words, sizeof words);
  json->open(key, '{');
  json->number("status", status);
  json->word("text", words);
  json->number("time", when);
  json->close('}');
}

void write_daemon(json_writer* json, const status_copy& copy, const daemon_health& daemon, const moment& at) {
  const wex_status_head& head = copy.head;
  json->open("daemon", '{');
  json->word("state", daemon_state_word(daemon.state));
  json->word("text", daemon.text);
  if (copy.look == table_look::good) {
    json->number("pid", head.daemon_pid);
    json->field("version", head.daemon_version);
    json->number("started", head.started_wall);
    write_age(json, "up_seconds", head.started_monotonic, at);
    json->number("generation", head.generation);
    json->truth("strict", (head.flags & WEX_STATUS_STRICT) != 0);
    json->field("boot_id", head.boot_id);
  }
  json->close('}');
}

void write_threads(json_writer* json, const status_copy& copy, const moment& at) {
  json->open("threads", '[');
  for (const wex_status_thread& thread : copy.threads) {
    json->open(nullptr, '{');
    json->field("name", thread.name);
    json->number("tid", thread.tid);
    write_age(json, "last_pass_seconds", thread.last_pass, at);
    write_age(json, "busy_seconds", thread.busy_since, at);
    json->close('}');
  }
  json->close(']');
}

void write_counters(json_writer* json, const status_copy& copy) {
  json->open("counters", '{');
  for (int index = 0; index < WEX_STATUS_COUNTERS_USED; ++index) {
    if (kCounterNames[index] != nullptr) {
      json->number(kCounterNames[index], copy.head.counters[index]);
    }
  }
  json->close('}');
}

void write_life(json_writer* json, const wex_status_slot& slot, const moment& at) {
  write_age(json, "registered_seconds", slot.registered, at);
  write_age(json, "up_seconds", slot.state == WEX_STATUS_RUNNING ? slot.started : 0, at);
  write_age(json, "state_seconds", slot.since, at);
  if (slot.until > 0) {
    json->number("until_seconds", seconds(time_between(at.monotonic_ms, slot.until)));
  } else {
    json->nothing("until_seconds");
  }
  json->number("restarts", slot.restarts);
  json->number("restarts_in_window", slot.restarts_window);
  if (slot.last_exit_wall != 0) {
    write_exit(json, "last_exit", slot.last_exit, slot.last_exit_wall);
  } else {
    json->nothing("last_exit");
  }
}

void write_slot(json_writer* json, const wex_status_slot& slot, const moment& at) {
  size_t length;
  const char* const command = bounded(slot.command, &length);
  json->open(nullptr, '{');
  json->field("name", slot.name);
  json->number("pid", slot.pid);
  json->number("domain", slot.domain);
  json->word("state", state_word(slot.state));
  json->word("action", action_word(slot.action));
  json->truth("thread", slot.is_thread != 0);
  json->text("command", command, length);
  json->truth("command_cut", length == sizeof slot.command);
  json->number("restart_delay_seconds", slot.restart_delay);
  json->number("uid", slot.uid);
  write_life(json, slot, at);
  json->number("watched_threads", slot.watched_threads);
  if (slot.watched_threads > 0 && slot.fewest_misses >= 0) {
    json->number("misses_left", slot.fewest_misses);
  } else {
    json->nothing("misses_left");
  }
  json->close('}');
}

void write_event(json_writer* json, const wex_status_event& event) {
  char words[kWordsSize];
  say_event(event, words, sizeof words);
  json->open(nullptr, '{');
  json->number("number", event.number);
  json->number("generation", event.generation);
  json->number("time_ms", event.wall);
  json->number("monotonic_ms", event.monotonic);
  json->word("kind", kind_word(event.kind));
  json->word("text", words);
  json->field("name", event.name);
  json->number("domain", event.domain);
  json->number("pid", event.pid);
  json->number("new_pid", event.new_pid);
  json->number("exit_status", event.exit_code);
  json->number("value", event.value);
  json->close('}');
}

}  // namespace

const char* const kCounterNames[WEX_STATUS_COUNTERS_USED] = {"exits",
                                                             "restarts",
                                                             "parks",
                                                             "postponed_restarts",
                                                             "forced_restarts",
                                                             "handovers",
                                                             "dropped_registrations",
                                                             "failed_restarts",
                                                             "lost_exits",
                                                             "event_overflows",
                                                             "refused_messages",
                                                             "hangs",
                                                             "refused_registrations",
                                                             nullptr,
                                                             nullptr,
                                                             nullptr};

void write_json(const status_copy& copy, const daemon_health& daemon, const moment& at, FILE* out) {
  char line[kHealthText * 2];
  json_writer json(out);
  json.open(nullptr, '{');
  json.number("schema", 1);
  json.number("time", at.wall_sec);
  json.number("check", judge_all(copy, daemon, line, sizeof line));
  json.word("check_text", line);
  write_daemon(&json, copy, daemon, at);
  write_threads(&json, copy, at);
  write_counters(&json, copy);
  json.number("not_shown", copy.head.counters[WEX_STATUS_NOT_SHOWN]);
  json.number("not_shown_in_trouble", copy.head.counters[WEX_STATUS_HIDDEN_TROUBLES]);
  json.number("pause_seconds", copy.head.counters[WEX_STATUS_PAUSE]);
  json.number("being_written", copy.slots.unread);
  json.open("registrations", '[');
  for (const wex_status_slot& slot : copy.slots) {
    write_slot(&json, slot, at);
  }
  json.close(']');
  json.open("events", '[');
  for (const wex_status_event& event : copy.events) {
    write_event(&json, event);
  }
  json.close(']');
  json.close('}');
  fputc('\n', out);
}

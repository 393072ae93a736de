// wexstat_words: tables of words, and the few numbers put between them.
#include "wexstat_words.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>

#include <cstdio>
#include <iterator>

#include "text_buffer.h"
#include "wex.h"
#include "wex_status_kinds.h"

namespace {

struct signal_name {
  int number;
  const char* name;
};
// Numbers differ from machine to machine, and older C libraries know no short names.
constexpr signal_name kSignals[] = {
    {SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},       {SIGQUIT, "SIGQUIT"}, {SIGILL, "SIGILL"},
    {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"},     {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},
    {SIGKILL, "SIGKILL"}, {SIGUSR1, "SIGUSR1"},     {SIGSEGV, "SIGSEGV"}, {SIGUSR2, "SIGUSR2"},
    {SIGPIPE, "SIGPIPE"}, {SIGALRM, "SIGALRM"},     {SIGTERM, "SIGTERM"}, {SIGXCPU, "SIGXCPU"},
    {SIGXFSZ, "SIGXFSZ"}, {SIGVTALRM, "SIGVTALRM"}, {SIGPROF, "SIGPROF"}, {SIGIO, "SIGIO"},
    {SIGPWR, "SIGPWR"},   {SIGSYS, "SIGSYS"}};

const char* signal_word(int number) {
  for (const signal_name& one : kSignals) {
    if (one.number == number) {
      return one.name;
    }
  }
  return nullptr;
}

constexpr const char* kStates[] = {"free", "running", "restarting", "parked", "postponed", "down"};
static_assert(std::size(kStates) == WEX_STATUS_DOWN + 1, "every state has a word");

constexpr const char* kRebootReasons[] = {"no reason told", "a program was parked again too soon",
                                          "too many programs dumped core"};
static_assert(std::size(kRebootReasons) == WEX_STATUS_REBOOT_BURST + 1, "every reason is explained");

// How the number of an event is put into its text.
enum class with { nothing, exit, new_pid, value, seconds, reason };

struct kind_words {
  uint32_t kind;
  with number;
  const char* before;
  const char* behind;
};
constexpr kind_words kKinds[] = {
    {WEX_STATUS_EV_NONE, with::nothing, "nothing", ""},
    {WEX_STATUS_EV_DAEMON_STARTED, with::nothing, "wex started", ""},
    {WEX_STATUS_EV_REGISTERED, with::nothing, "registered", ""},
    {WEX_STATUS_EV_CANCELLED, with::nothing, "registration cancelled", ""},
    {WEX_STATUS_EV_EXITED, with::exit, "exited: ", ""},
    {WEX_STATUS_EV_RESTARTED, with::new_pid, "restarted as pid ", ""},
    {WEX_STATUS_EV_PARKED, with::seconds, "parked for ", ": restarted too often"},
    {WEX_STATUS_EV_TRIED_AGAIN, with::nothing, "parking is over, tried again", ""},
    {WEX_STATUS_EV_POSTPONED, with::nothing, "restart postponed: its database file is held", ""},
    {WEX_STATUS_EV_FORCED, with::nothing, "postponed restart made after the longest wait", ""},
    {WEX_STATUS_EV_HANDED_OVER, with::new_pid, "handed over to pid ", ""},
    {WEX_STATUS_EV_STOPPED, with::nothing, "stopped on purpose (SIGTERM), not started again", ""},
    {WEX_STATUS_EV_DROPPED, with::nothing, "dropped with its domain", ""},
    {WEX_STATUS_EV_HANG, with::new_pid, "thread ", " hangs, the process is aborted"},
    {WEX_STATUS_EV_BURST, with::value, "", " programs dumped core in a short time"},
    {WEX_STATUS_EV_REBOOT_ASKED, with::reason, "wex restarts the device: ", ""},
    {WEX_STATUS_EV_REBOOT_REFUSED, with::reason, "restart of the device refused: ", ""},
    {WEX_STATUS_EV_LOST_EXIT, with::exit, "exit found that the kernel did not report: ", ""},
    {WEX_STATUS_EV_FAILED, with::nothing, "restart left no process", ""},
    {WEX_STATUS_EV_DAEMON_ENDED, with::nothing, "wex ended", ""},
    {WEX_STATUS_EV_REPLACED, with::new_pid, "its place was taken by pid ", ""}};
static_assert(one_row_a_kind(kKinds), "every kind of event has its words");

const char* reboot_reason(int32_t reason) {
  const bool known = reason >= 0 && static_cast<size_t>(reason) < std::size(kRebootReasons);
  return kRebootReasons[known ? reason : 0];
}

void say_number(const wex_status_event& event, with number, char* out, size_t size) {
  switch (number) {
    case with::nothing:
      wex_copy_text(out, size, "");
      return;
    case with::exit:
      say_exit(event.exit_code, out, size);
      return;
    case with::new_pid:
      wex_format(out, size, "%d", static_cast<int>(event.new_pid));
      return;
    case with::value:
      wex_format(out, size, "%d", static_cast<int>(event.value));
      return;
    case with::seconds:
      say_duration(int64_t{event.value} * 1000, out, size);
      return;
    case with::reason:
      wex_copy_text(out, size, reboot_reason(event.value));
      return;
  }
}

}  // namespace

void say_duration(int64_t milliseconds, char* out, size_t size) {
  const long long seconds = milliseconds > 0 ? milliseconds / 1000 : 0;
  if (seconds < 60) {
    wex_format(out, size, "%lld s", seconds);
  } else if (seconds < 3600) {
    wex_format(out, size, "%lld min %lld s", seconds / 60, seconds % 60);
  } else if (seconds < 86400) {
    wex_format(out, size, "%lld h %lld min", seconds / 3600, seconds / 60 % 60);
  } else {
    wex_format(out, size, "%lld d %lld h", seconds / 86400, seconds / 3600 % 24);
  }
}

int64_t time_between(int64_t from, int64_t to) {
  int64_t length;
  if (to <= from) {
    return 0;
  }
  return __builtin_sub_overflow(to, from, &length) ? INT64_MAX : length;
}

void say_exit(uint32_t status, char* out, size_t size) {
  const int code = static_cast<int>(status & 0xffff);
  if (WIFSIGNALED(code)) {
    const char* const name = signal_word(WTERMSIG(code));
    const char* const core = WCOREDUMP(code) ? ", core" : "";
    if (name != nullptr) {
      wex_format(out, size, "%s%s", name, core);
    } else {
      wex_format(out, size, "signal %d%s", WTERMSIG(code), core);
    }
  } else {
    wex_format(out, size, "exit %d", WEXITSTATUS(code));
  }
}

void say_time(int64_t seconds, char* out, size_t size) {
  const time_t time = static_cast<time_t>(seconds);
  tm local;
  if (seconds == 0 || time != seconds || localtime_r(&time, &local) == nullptr ||
      strftime(out, size, "%Y-%m-%d %H:%M:%S", &local) == 0) {
    wex_copy_text(out, size, "-");
  }
}

const char* state_word(uint32_t state) {
  return state < std::size(kStates) ? kStates[state] : "unknown";
}

const char* action_word(int32_t action) {
  return action == RESPAWN ? "respawn" : action == SHELL_RESTART ? "shell_restart" : "none";
}

const char* kind_word(uint32_t kind) {
  return kind < std::size(kStatusKinds) ? kStatusKinds[kind].name : "unknown";
}

void say_event(const wex_status_event& event, char* out, size_t size) {
  if (event.kind >= std::size(kKinds)) {
    wex_format(out, size, "event of kind %u", static_cast<unsigned>(event.kind));
    return;
  }
  const kind_words& words = kKinds[event.kind];
  char number[kWordsSize];
  say_number(event, words.number, number, sizeof number);
  wex_format(out, size, "%s%s%s", words.before, number, words.behind);
}

void escape(const char* text, size_t length, char* out, size_t size) {
  size_t at = 0;
  for (size_t i = 0; i < length; ++i) {
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    char one[5];
    if (byte == '\\') {
      wex_copy_text(one, sizeof one, "\\\\");
    } else if (byte >= 0x20 && byte < 0x7f) {
      one[0] = static_cast<char>(byte);
      one[1] = '\0';
    } else {
      wex_format(one, sizeof one, "\\x%02x", static_cast<unsigned>(byte));
    }
    for (const char* next = one; *next != '\0' && at + 1 < size; ++next) {
      out[at++] = *next;
    }
  }
  out[at] = '\0';
}

size_t utf8_length(const char* text, size_t length) {
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
  if (length == 0) {
    return 0;
  }
  const unsigned first = byte(0);
  const size_t count = first < 0x80                    ? 1
                       : first >= 0xc2 && first < 0xe0 ? 2
                       : (first & 0xf0) == 0xe0        ? 3
                       : first >= 0xf0 && first < 0xf5 ? 4
                                                       : 0;
  if (count == 0 || count > length) {
    return 0;
  }
  for (size_t at = 1; at < count; ++at) {
    if ((byte(at) & 0xc0) != 0x80) {
      return 0;
    }
  }
  // Longer than needed, halves of a pair, above the last character.
  const unsigned second = count > 2 ? byte(1) : 0;
  const bool wrong = (first == 0xe0 && second < 0xa0) || (first == 0xed && second >= 0xa0) ||
                     (first == 0xf0 && second < 0x90) || (first == 0xf4 && second >= 0x90);
  return wrong ? 0 : count;
}

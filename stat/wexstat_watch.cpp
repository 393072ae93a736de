// wexstat_watch: the table is opened anew at each look, for a daemon that starts may make another one.
#include "wexstat_watch.h"

#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "text_buffer.h"
#include "waiting.h"
#include "wex_utils.h"
#include "wexstat_health.h"
#include "wexstat_limits.h"
#include "wexstat_table.h"
#include "wexstat_words.h"

namespace {

volatile sig_atomic_t g_ended = 0;

void note_end(int /*signal*/) {
  g_ended = 1;
}

void note_nothing(int /*signal*/) {}  // a wait ends early, and the next picture has the new size

// The terminal gives single keys and does not show them, until the end of the scope.
class single_keys {
 public:
  single_keys() {
    if (tcgetattr(STDIN_FILENO, &before_) != 0) {
      return;
    }
    termios now = before_;
    now.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    now.c_cc[VMIN] = 1;
    now.c_cc[VTIME] = 0;
    now.c_cc[VSUSP] = _POSIX_VDISABLE;  // stopped in between it would leave the terminal so
    changed_ = tcsetattr(STDIN_FILENO, TCSADRAIN, &now) == 0;
  }
  ~single_keys() {
    if (changed_) {
      tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
    }
  }
  single_keys(const single_keys&) = delete;
  single_keys& operator=(const single_keys&) = delete;

  bool changed() const { return changed_; }

 private:
  termios before_ = {};
  bool changed_ = false;
};

// Cursor and screen, until the end of the scope. Nothing where there is no screen.
class drawing {
 public:
  explicit drawing(bool on) : on_(on) { put("\033[?25l\033[2J"); }
  ~drawing() { put("\033[?25h"); }
  drawing(const drawing&) = delete;
  drawing& operator=(const drawing&) = delete;

  void begin() { put("\033[H\033[J"); }

 private:
  void put(const char* sequence) const {
    if (on_) {
      fputs(sequence, stdout);
      fflush(stdout);
    }
  }
  bool on_;
};

void catch_ends(sigset_t* before) {
  struct sigaction action = {};
  sigset_t held;
  sigemptyset(&held);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    action.sa_handler = note_end;
    sigaction(signal, &action, nullptr);
    sigaddset(&held, signal);
  }
  action.sa_handler = note_nothing;
  sigaction(SIGWINCH, &action, nullptr);
  sigaddset(&held, SIGWINCH);
  sigprocmask(SIG_BLOCK, &held, before);  // delivered during the wait only, so that none is missed before it
}

// True when it is to end.
bool wait_for_end(int32_t seconds, bool keys, const sigset_t& open) {
  const timespec limit = {seconds, 0};
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  const int ready = ppoll(&input, keys ? 1 : 0, &limit, &open);
  if (g_ended != 0) {
    return true;
  }
  if (ready > 0) {
    char key = 0;
    return read(STDIN_FILENO, &key, 1) != 1 || key == 'q' || key == 'Q';
  }
  return false;
}

void draw(const char* path, drawing* screen) {
  const look_and_feel look = look_of_terminal();
  status_copy copy = read_status(path);
  const moment at = now();
  const daemon_health daemon = look_at_daemon(copy, at);
  screen->begin();
  if (copy.look == table_look::good) {
    show_headline(copy, daemon, at, look, stdout);
    show_table(&copy, at, look, stdout);
  } else {
    printf("wex: %s\n", daemon.text);
  }
  fflush(stdout);
}

bool runs(const status_copy& copy, const char* name) {
  return std::any_of(copy.slots.begin(), copy.slots.end(), [name](const wex_status_slot& slot) {
    return slot.state == WEX_STATUS_RUNNING && is_called(slot, name) &&
           wex_look_at(slot.pid).sight != process_look::gone;
  });
}

// What it was like at the last look.
void tell_timeout(const status_copy& copy, const daemon_health& daemon, const char* name) {
  if (daemon.state != daemon_state::running) {
    fprintf(stderr, "wexstat: %s does not run, nor does wex: %s\n", name, daemon.text);
    return;
  }
  for (const wex_status_slot& slot : copy.slots) {
    if (is_called(slot, name)) {
      fprintf(stderr, "wexstat: %s does not run, it is %s\n", name, state_word(slot.state));
      return;
    }
  }
  fprintf(stderr, "wexstat: %s does not run, it is not registered\n", name);
}

}  // namespace

int watch(const char* path, int32_t seconds) {
  sigset_t open;
  catch_ends(&open);
  const bool screen_there = isatty(STDOUT_FILENO) != 0;
  const single_keys keys;
  drawing screen(screen_there);
  do {
    draw(path, &screen);
    if (ferror(stdout) != 0) {
      return kExitUnknown;
    }
    if (!screen_there) {
      fputc('\n', stdout);
    }
  } while (!wait_for_end(seconds, keys.changed(), open));
  return kExitWell;
}

int wait_for(const char* path, const char* name, int32_t timeout) {
  const int64_t end = timeout >= 0 ? wex_clock_ms() + int64_t{timeout} * 1000 : INT64_MAX;
  for (;;) {
    const status_copy copy = read_status(path);
    const daemon_health daemon = look_at_daemon(copy, now());
    if (daemon.state == daemon_state::running && runs(copy, name)) {
      return kExitWell;
    }
    if (wex_clock_ms() >= end) {
      tell_timeout(copy, daemon, name);
      return kExitTrouble;
    }
    wex_sleep_ms(kWaitLookMs);
  }
}

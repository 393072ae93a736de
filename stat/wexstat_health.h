// wexstat_health: whether wex is well, by its table and by /proc.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wexstat_reader.h"

// The moment of a look, by both clocks.
struct moment {
  int64_t monotonic_ms;
  int64_t wall_sec;
};
moment now();

enum class daemon_state {
  running,
  stuck,       // see `text`
  dead,        // killed
  ended,       // by itself
  other_boot,  // the table is of another start of the machine
  absent,      // no table
  unknown      // a table that cannot be read
};
enum { kHealthText = 160 };
struct daemon_health {
  daemon_state state;
  char text[kHealthText];  // one line about it, without a name in front
};

// Looks for the daemon of this copy.
daemon_health look_at_daemon(const status_copy& copy, const moment& at);

// The same with what /proc shows: 0 when the daemon is not there, else its state's letter, '?' when nobody
// can tell more than that it is there.
daemon_health judge_daemon(const status_copy& copy, const moment& at, char process_state);

const char* daemon_state_word(daemon_state state);

// How many registrations are in each state.
struct state_counts {
  uint32_t of[WEX_STATUS_DOWN + 1];
  uint32_t all;
};
state_counts count_states(const status_copy& copy);

// The answer of --check: its exit status, and one line.
int judge_all(const status_copy& copy, const daemon_health& daemon, char* line, size_t size);

// wex_core_crash: when programs dumped core, and the rule that restarts the device when too many did.
#pragma once

#include <cstdint>

#include "wex_chain.h"

// So many programs that dump core within so many seconds are too many.
struct burst_rule {
  int32_t window;
  int32_t count;
};

// The rule as its configuration file has it at present, or the built-in one.
burst_rule wex_read_burst_rule();

// Window (seconds) and count of the exit burst from the text of its configuration file; false leaves them
// alone.
bool wex_parse_burst(const char* text, int32_t* window, int32_t* count);

// The record's program has dumped core now.
void __wex_note_crash(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Restarts the device when the crashes until `now` (monotonic seconds) break the rule. Called with no chain
// held.
void wex_apply_burst_rule(const burst_rule& rule, int32_t now)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// The same for the present rule and the present time.
void wex_judge_crashes() WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

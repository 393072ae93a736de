// wexstat_table: what people read.
#pragma once

#include <cstdint>
#include <cstdio>

#include "wexstat_health.h"
#include "wexstat_reader.h"

// How it is shown.
struct look_and_feel {
  bool colour = false;
  uint32_t columns = 0;  // lines are cut there; 0: nowhere
  uint32_t rows = 0;     // of a screen; 0: all lines
};

// Of the terminal that descriptor 1 is; colourless and boundless when it is none.
look_and_feel look_of_terminal();

// One line about the daemon, and one about its registrations.
void show_headline(const status_copy& copy, const daemon_health& daemon, const moment& at,
                   const look_and_feel& look, FILE* out);

// All registrations, problems first. The copy's slots are sorted for that.
void show_table(status_copy* copy, const moment& at, const look_and_feel& look, FILE* out);

// Those with this name, or the one with this pid, with their last events. How many there are.
uint32_t show_named(const status_copy& copy, const char* name, const moment& at, const look_and_feel& look,
                    FILE* out);

// The last events; those of one name unless it is null.
void show_history(const status_copy& copy, const char* name, uint32_t lines, const look_and_feel& look,
                  FILE* out);

// Whether this is the registration's name, or its pid in digits.
bool is_called(const wex_status_slot& slot, const char* name);

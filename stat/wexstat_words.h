// wexstat_words: what is said of states, exits, times and events. No function here looks at anything but its
// arguments.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wex_status.h"
#include "wexstat_reader.h"

constexpr size_t kWordsSize = 96;  // room for each of these

// "12 s", "4 min 10 s", "3 h 20 min", "3 d 4 h". What lies in the future is "0 s".
void say_duration(int64_t milliseconds, char* out, size_t size);

// How much later `to` is, 0 when it is not. The table may hold any numbers.
int64_t time_between(int64_t from, int64_t to);

// A status of wait(2): "exit 1", "SIGSEGV, core".
void say_exit(uint32_t status, char* out, size_t size);

// Local time, "2026-11-22 06:40:12"; "-" for 0.
void say_time(int64_t seconds, char* out, size_t size);

// "running", ...; "state 9" has none.
const char* state_word(uint32_t state);
const char* action_word(int32_t action);
// Stable names, for machines.
const char* kind_word(uint32_t kind);

// What happened, for people: "exited: SIGSEGV, core".
void say_event(const wex_status_event& event, char* out, size_t size);

// The text of a field for a terminal: what is not printable ASCII becomes "\xHH", a backslash "\\".
void escape(const char* text, size_t length, char* out, size_t size);
template <size_t N>
void say_field(const char (&field)[N], char* out, size_t size) {
  size_t length;
  const char* const text = bounded(field, &length);
  escape(text, length, out, size);
}

// The length of the valid UTF-8 character at the beginning of the text, 0 when there is none.
size_t utf8_length(const char* text, size_t length);

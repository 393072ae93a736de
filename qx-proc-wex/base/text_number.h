// text_number: decimal numbers written by others: leading blanks, a sign, digits. No width depends on the
// machine's.
#pragma once

#include <cstdint>
#include <cstdlib>

inline int32_t clamp_to_int32(int64_t value) {
  if (value > INT32_MAX) {
    return INT32_MAX;
  }
  return value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
}

// Reads the number at `*at` and steps behind it; saturates at 64 bits. False when there is none.
inline bool scan_integer(const char** at, int64_t* out) {
  char* end = nullptr;
  *out = strtoll(*at, &end, 10);
  const bool found = end != *at;
  *at = end;
  return found;
}

// As scan_integer; false also for what 32 bits do not hold.
inline bool scan_number(const char** at, int32_t* out) {
  int64_t value;
  if (!scan_integer(at, &value) || value != clamp_to_int32(value)) {
    return false;
  }
  *out = static_cast<int32_t>(value);
  return true;
}

// The number a text begins with, saturating at 32 bits; 0 when there is none.
inline int32_t text_to_number(const char* text) {
  return clamp_to_int32(strtoll(text, nullptr, 10));
}

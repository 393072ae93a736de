// wex_vsd_number: numbers written by others, as the device reads them.
#pragma once

#include <cstdint>
#include <cstdlib>

// Leading blanks, a sign and decimal digits; 0 when there are none. Saturates at 32 bits, whatever the width
// of a long.
inline int32_t text_to_number(const char* text) {
  const long long value = strtoll(text, nullptr, 10);
  if (value > INT32_MAX) {
    return INT32_MAX;
  }
  return value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
}

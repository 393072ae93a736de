// pid_set: a bounded set of process ids as a sparse bit table.
#include "pid_set.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t kBitNumber = 31;

uint32_t common_of(int32_t pid) {
  return htonl(static_cast<uint32_t>(pid) & ~kBitNumber);
}

uint32_t bit_of(int32_t pid) {
  return 1U << (static_cast<uint32_t>(pid) & kBitNumber);
}

}  // namespace

// Where the word of these ids is, or belongs.
pid_set::word* pid_set::place_of(uint32_t common) noexcept {
  const auto comes_before = [](const word& one, uint32_t other) { return one.common < other; };
  return std::lower_bound(words_, words_ + used_, common, comes_before);
}

// Of the word of this id.
bool pid_set::add_bits(int32_t pid, uint32_t bits) noexcept {
  if (pid < 1) {
    return false;
  }
  word* const place = place_of(common_of(pid));
  if (place == end() || place->common != common_of(pid)) {
    if (used_ == kWords) {
      return false;
    }
    memmove(place + 1, place, static_cast<size_t>(end() - place) * sizeof *place);
    *place = {common_of(pid), 0};
    ++used_;
  }
  place->bits |= bits;
  return true;
}

bool pid_set::add(int32_t pid) noexcept {
  return add_bits(pid, bit_of(pid));
}

bool pid_set::add_with_followers(int32_t pid) noexcept {
  return add_bits(pid, ~(bit_of(pid) - 1));
}

bool pid_set::has(int32_t pid) const noexcept {
  const word* const place = pid < 1 ? end() : const_cast<pid_set*>(this)->place_of(common_of(pid));
  return place != end() && place->common == common_of(pid) && (place->bits & bit_of(pid)) != 0;
}

bool pid_set::operator==(const pid_set& other) const noexcept {
  return used_ == other.used_ && memcmp(words_, other.words_, used_ * sizeof words_[0]) == 0;
}

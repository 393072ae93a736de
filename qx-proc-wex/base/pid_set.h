// pid_set: a bounded set of process ids as a sparse bit table, in the form in which a packet filter can
// search it (wex_core_filter_program).
#pragma once

#include <cstddef>
#include <cstdint>

class pid_set {
 public:
  // A program of four instructions a word, within the kernel's 4,096. A kernel that gives a socket less
  // memory for it (net.core.optmem_max) refuses a large set.
  static constexpr size_t kWords = 512;

  // 32 neighbouring ids. Their common part is in network order, and the words are sorted by that.
  struct word {
    uint32_t common;
    uint32_t bits;
  };

  // True when the id is in the set now; false when there is no room, or when it is that of no process.
  bool add(int32_t pid) noexcept;
  // The same for this id and the greater ones that share its word, which takes no more room.
  bool add_with_followers(int32_t pid) noexcept;
  bool has(int32_t pid) const noexcept;

  const word* begin() const noexcept { return words_; }
  const word* end() const noexcept { return words_ + used_; }
  bool operator==(const pid_set& other) const noexcept;

 private:
  word* place_of(uint32_t common) noexcept;
  bool add_bits(int32_t pid, uint32_t bits) noexcept;

  size_t used_ = 0;
  word words_[kWords] = {};
};

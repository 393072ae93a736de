// bounded_work: work that may take long, on a thread of its own that is waited for only so long.
//
// Whoever writes to a disk that stands still waits in the kernel, where no signal ends that. So such work has
// a thread that nobody joins. What it reads stays as it is until it is done, however late that is.
#pragma once

#include <atomic>
#include <cstdint>

// One kind of work, of which one piece is under way at a time. For the life of the program: its thread may
// come back late.
class bounded_work {
 public:
  bounded_work() = default;
  bounded_work(const bounded_work&) = delete;
  bounded_work& operator=(const bounded_work&) = delete;

  // False while the piece before is under way. Else what the work reads may be changed until run(), which
  // must follow.
  bool begin() noexcept { return busy_.exchange(1, std::memory_order_acquire) == 0; }

  // Starts work(of) and waits until it is done, `limit_ms` at the most. False when no thread could be
  // started: then the work is not done.
  bool run(void (*work)(void*), void* of, int64_t limit_ms) noexcept;

  // What the thread does.
  void perform() noexcept;

 private:
  std::atomic<int32_t> busy_{0};  // a whole word: see request_flag
  void (*work_)(void*) = nullptr;
  void* of_ = nullptr;
};

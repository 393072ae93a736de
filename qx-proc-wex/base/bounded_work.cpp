// bounded_work: work that may take long, on a thread of its own that is waited for only so long.
#include "bounded_work.h"

#include <pthread.h>

#include "waiting.h"
#include "wex_limits.h"

namespace {

extern "C" void* perform_bounded_work(void* piece) {
  static_cast<bounded_work*>(piece)->perform();
  return nullptr;
}

// On a thread that nobody joins. Its stack is small, so that there is one also when memory is short. A C
// library that wants more for a thread keeps its own size.
bool start_thread(bounded_work* piece) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) {
    return false;
  }
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kBoundedWorkStack);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, perform_bounded_work, piece) == 0;
  pthread_attr_destroy(&attributes);
  return started;
}

}  // namespace

bool bounded_work::run(void (*work)(void*), void* of, int64_t limit_ms) noexcept {
  work_ = work;
  of_ = of;
  if (!start_thread(this)) {
    busy_.store(0, std::memory_order_release);
    return false;
  }
  const int64_t deadline = wex_clock_ms() + limit_ms;
  while (busy_.load(std::memory_order_acquire) != 0 && wex_clock_ms() < deadline) {
    wex_sleep_ms(kBoundedWorkPauseMs);
  }
  return true;
}

void bounded_work::perform() noexcept {
  work_(of_);
  busy_.store(0, std::memory_order_release);
}

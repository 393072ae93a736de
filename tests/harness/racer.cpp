// Two threads that write to the same memory without a lock, or with one: what tsan_run is tried with.
#include <mutex>
#include <thread>

namespace {
int shared_number = 0;
std::mutex number_lock;

void write_often(bool with_lock) {
  for (int i = 0; i < 1000; ++i) {
    std::unique_lock<std::mutex> hold(number_lock, std::defer_lock);
    if (with_lock) {
      hold.lock();
    }
    ++shared_number;
  }
}
}  // namespace

int main(int argc, char** /*argv*/) {
  const bool with_lock = argc > 1;
  std::thread other(write_often, with_lock);
  write_often(with_lock);
  other.join();
  return 0;
}

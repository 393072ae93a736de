// wex.hpp: the supervision of a service, and of its threads, as objects. C++11 or later, without exceptions.
//
// clang-format off
//   wex::registration service;   // started again however it dies; withdrawn when `service` goes out of scope
//   wex::heartbeat heart;        // ten minutes without a beat of this thread, and the service is aborted
//   while (work()) heart.beat();
// clang-format on
//
// wex looks once a minute whether there was a beat. At the end of a whole period without one it counts down,
// and aborts the service at the last: five periods of two minutes here. The main thread needs a heartbeat of
// its own, or no other one counts. Link with libwex.
#ifndef WEX_HPP
#define WEX_HPP

#include <sys/syscall.h>
#include <unistd.h>
#include <wex.h>

namespace wex {

// One for a process. Its destructor stands for the end in good order: behind it wex leaves the process alone.
class registration {
 public:
  // Waits for the daemon, up to three minutes; then the service runs on without supervision.
  registration() noexcept : held_(reg_process_exit_action(0, WEX_RESTART) == 0) {}
  // Restarted by this script of the command map. Does not wait.
  explicit registration(const char* script) noexcept
      : held_(reg_process_exit_action_shell(0, WEX_SHELL_RESTART, script) == 0) {}
  registration(const registration&) = delete;
  registration& operator=(const registration&) = delete;
  ~registration() {
    if (held_) {
      wex_cancel_proc(0);
    }
  }

  bool held() const noexcept { return held_; }
  // The service is to be started again even after an end in good order.
  void keep() noexcept { held_ = false; }

 private:
  bool held_;
};

// How long a thread may be silent.
enum class patience : int32_t {
  ten_minutes = 120,    // five periods of 120 s
  twelve_minutes = 181  // four of 180 s
};

// One for a thread, made, used and destroyed by that thread.
class heartbeat {
 public:
  explicit heartbeat(patience limit = patience::ten_minutes) noexcept
      : tid_(static_cast<int32_t>(syscall(SYS_gettid))), period_(static_cast<int32_t>(limit)) {
    watched_ = wex_client_reg_thread_notify(getpid(), tid_, period_, 1) == 0;
  }
  heartbeat(const heartbeat&) = delete;
  heartbeat& operator=(const heartbeat&) = delete;
  ~heartbeat() { wex_client_unreg_thread_notify(tid_); }

  bool watched() const noexcept { return watched_; }
  // One byte of shared memory. Registers again by itself when the daemon has been restarted.
  bool beat() noexcept {
    watched_ = wex_client_reset_thread_notify(getpid(), tid_, period_, 1) == 0;
    return watched_;
  }

 private:
  int32_t tid_;
  int32_t period_;
  bool watched_;
};

}  // namespace wex

#endif

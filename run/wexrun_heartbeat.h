// wexrun_heartbeat: wexrun's main thread under hang detection, reporting for the program.
#pragma once

#include <cstdint>

class heartbeat {
 public:
  // One report. The first one registers the thread. Never waits long: signals must be handed on.
  void beat() noexcept;

 private:
  void ask_for_watch(int32_t tid) noexcept;

  int32_t last_beat_ = INT32_MIN;
  int32_t last_asked_ = INT32_MIN;
};

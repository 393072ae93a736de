// wex_core_stop: the stop flag, and the descriptor that ends every wait when the flag is raised. A daemon
// that has lost a thread must end at once: it still holds the lock that keeps the next daemon from starting.
#define WEX_MODULE "wex_core"
#include "wex_core_stop.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "guarded_file.h"
#include "ras_os.h"
#include "safe_io.h"
#include "waiting.h"
#include "wex_dbg.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_status_file.h"

namespace {
int g_wakeup[2] = {-1, -1};  // read end, write end; made before any thread runs, open for life
}  // namespace

extern "C" {
std::atomic<int32_t> wex_exit_flag{0};
}

void wex_init_wakeup() {
  if (pipe(g_wakeup) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: pipe fail: %s\n", __func__, strerror(errno));
    return;
  }
  for (const int end : g_wakeup) {
    ras_os_set_fd_close_on_exec(end);
    fcntl(end, F_SETFL, fcntl(end, F_GETFL) | O_NONBLOCK);
  }
}

int wex_wakeup_fd() {
  return g_wakeup[0];
}

void wex_raise_exit_flag() {
  wex_exit_flag.store(1, std::memory_order_relaxed);
  if (g_wakeup[1] >= 0) {
    safe_write(g_wakeup[1], "x", 1);  // never read again: the descriptor stays readable
  }
}

void wex_wait_exit(int64_t milliseconds) {
  wex_wait_exit_or(-1, milliseconds);
}

bool wex_wait_exit_or(int fd, int64_t milliseconds) {
  const int64_t deadline = wex_clock_ms() + milliseconds;
  struct pollfd wakeup[] = {{g_wakeup[0], POLLIN, 0}, {fd, POLLIN, 0}};
  for (int64_t left = milliseconds; left > 0 && wex_exit_flag.load(std::memory_order_relaxed) == 0;
       left = deadline - wex_clock_ms()) {
    constexpr int64_t kLongestPoll = 3600000;
    poll(wakeup, 2, static_cast<int>(left < kLongestPoll ? left : kLongestPoll));
    if (wakeup[1].revents != 0) {
      return true;
    }
  }
  return false;
}

void wex_log_thread_end(const char* thread, int code, int error) {
  wex_running_log("Thread \"%s\" exit, wex will be restart. res=%d, %s(%d)\r\n", thread, code,
                  strerror(error), error);
}

void wex_end_unable_to_restart() {
  wex_running_log("Unable to restart the process, wex will be restart.\r\n");
  wex_status_end();
  wex_unlink(kForkFile);
  _exit(1);  // not exit(): the other threads still use what its clean-up would take away
}

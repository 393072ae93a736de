// wex_core_fork: watches the fork-failure file. A daemon that cannot fork cannot restart anything; after
// the seventh failure it ends, so that it can be started afresh.
#define WEX_MODULE "wex_core"
#include "wex_core_fork.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "guarded_file.h"
#include "ras_os.h"
#include "safe_io.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_core_stop.h"
#include "wex_core_takedown.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_status_image.h"
#include "wex_strict.h"

namespace {

constexpr uint32_t kWatchMask = IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_ISDIR;
constexpr size_t kEventBytes = 1024;

[[noreturn]] void end_watch(int instance, int watch, int count) {
  wex_running_log("Thread \"%s\" exit, wex will be restart. inotifyfd: %d, wd: %d, fd_num: %d\r\n",
                  "wex_inotify_fork_error", instance, watch, count);
  _exit(1);
}

// A restart whose child could not become its program takes the database file of the former process away and
// puts another one in its place: ended in between, the daemon would leave nothing by which the next one knows
// the program. The registry is held until the end of the process. A restart that waits to begin, or to fork
// once more, has taken nothing away.
void wait_for_restart() WEX_TSA(no_thread_safety_analysis) {
  for (int look = 0; look < kDelayEndLooks && pthread_mutex_trylock(&wex_chains.mutex) != 0; ++look) {
    if (wex_registry_waits()) {
      return;
    }
    wex_sleep_ms(kDelayEndLookMs);
  }
}

// The file holds one byte for each failure.
void count_failures() {
  if (!wex_counts(kForkFile)) {
    return;
  }
  const unique_fd file = wex_open_file(kForkFile, O_RDONLY);
  if (!file.valid()) {
    wex_dbg(WEX_DBG_PUB, "open %s error, %s\n", kForkFile, strerror(errno));
    return;
  }
  char text[256] = {};
  if (safe_read(file.get(), text, sizeof text - 1) < 0) {
    wex_dbg(WEX_DBG_PUB, "read %s error, %s\n", kForkFile, strerror(errno));
    return;
  }
  if (strlen(text) >= static_cast<size_t>(kForkFailuresFatal)) {
    wait_for_restart();
    wex_end_unable_to_restart();
  }
}

void look_at_events(const char* bytes, size_t size) {
  size_t at = 0;
  while (size - at >= sizeof(inotify_event)) {
    inotify_event event;  // copied out: the bytes need not be aligned
    memcpy(&event, bytes + at, sizeof event);
    at += sizeof event;
    if (event.len > size - at) {
      return;
    }
    if (event.len >= sizeof kForkFileName && strncmp(bytes + at, kForkFileName, event.len) == 0) {
      count_failures();
    }
    at += event.len;
  }
}

int open_instance() {
  const int instance = inotify_init1(IN_CLOEXEC);
  return instance < 0 && (errno == ENOSYS || errno == EINVAL) ? inotify_init() : instance;
}

}  // namespace

extern "C" void* wex_inotify_fork_error(void* /*unused*/) {
  pthread_detach(pthread_self());
  prctl(PR_SET_NAME, "wex_inotify_fork");
  mkdir(kRunDir, wex_client_dir_mode());  // normally there since start-up

  const int instance = open_instance();
  if (instance < 0) {
    wex_dbg(WEX_DBG_PUB, "wex inotify_init failed, %s.\n", strerror(errno));
    end_watch(instance, -1, -1);
  }
  ras_os_set_fd_close_on_exec(instance);
  const int watch = inotify_add_watch(instance, kRunDir, kWatchMask);
  if (watch < 0) {
    wex_dbg(WEX_DBG_PUB, "inotify_add_watch failed, %s.\n", strerror(errno));
    end_watch(instance, -1, -1);
  }

  wex_status_thread_is(kStatusForkWatcher);
  while (true) {
    wex_status_idle(kStatusForkWatcher);
    struct pollfd input = {instance, POLLIN, 0};
    const int count = poll(&input, 1, -1);
    if (count < 0 && errno != EINTR) {
      end_watch(instance, watch, count);
    }
    if (count <= 0 || (input.revents & POLLIN) == 0) {
      continue;
    }
    wex_status_busy(kStatusForkWatcher);
    char events[kEventBytes];
    const ssize_t size = read(instance, events, sizeof events);
    if (size > 0) {
      look_at_events(events, static_cast<size_t>(size));
    }
  }
}

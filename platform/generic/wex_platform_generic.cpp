// platform/generic: the device's libraries as a plain Linux box has them.
//
// Weak, so that a program that links these objects into itself, as the tests do, may bring its own functions.
// A library cannot take their place that way, for it is loaded after them: it is named in WEX_PLATFORM_LIBS,
// and this file is left out then.
//
// Lines reach the system log as syslog(3) writes them, but not through it: syslog(3) waits for ever for a log
// that does not read, and who writes here may hold the registry.
#include "wex_platform.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>

#include <atomic>

#include "ras_os.h"
#include "text_buffer.h"
#include "unique_fd.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_paths.h"

namespace {

constexpr size_t kTextSize = 1024;
constexpr size_t kLineSize = 8192;  // a dump shows whole command lines

std::atomic<int32_t> g_backoff_until{0};  // monotonic seconds: the log is not waited for before

// The socket is not connected, so that it outlives a log daemon that is started again: the name is looked up
// for each line. -1 before the first line.
std::atomic<int> g_log{-1};

unique_fd open_log_socket() {
  unique_fd log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!log.valid() && errno == EINVAL) {  // kernels before 2.6.27
    log.reset(socket(AF_UNIX, SOCK_DGRAM, 0));
    ras_os_set_fd_close_on_exec(log.get());
  }
  const timeval moment = {0, suseconds_t{1000} * kSystemLogWaitMs};
  setsockopt(log.get(), SOL_SOCKET, SO_SNDTIMEO, &moment, sizeof moment);
  return log;
}

// The socket that all threads write to.
int log_socket() {
  int log = g_log.load(std::memory_order_acquire);
  if (log < 0) {
    unique_fd opened = open_log_socket();
    if (opened.valid() && g_log.compare_exchange_strong(log, opened.get())) {
      log = opened.release();
    }
  }
  return log;
}

ssize_t send_to_log(const char* line, size_t length, int flags) {
  sockaddr_un where = {};
  where.sun_family = AF_UNIX;
  memcpy(where.sun_path, kSystemLog, sizeof kSystemLog);
  ssize_t sent;
  do {
    sent = sendto(log_socket(), line, length, MSG_NOSIGNAL | flags, reinterpret_cast<const sockaddr*>(&where),
                  sizeof where);
  } while (sent == -1 && errno == EINTR);
  return sent;
}

// A dump may be more than the queue of the log holds, so each line waits for a short time. After a line that
// could not be sent in that time none waits during the back-off, or until one is sent.
void send_line(const char* line, size_t length) {
  const int32_t now = wex_clock_now();
  const bool patient = now >= g_backoff_until.load(std::memory_order_relaxed);
  const int flags = patient ? 0 : MSG_DONTWAIT;
  ssize_t sent = send_to_log(line, length, flags);
  if (sent == -1 && (errno == EBADF || errno == ENOTSOCK)) {  // somebody has closed all descriptors
    g_log.store(-1);
    sent = send_to_log(line, length, flags);
  }
  if (sent != -1) {
    g_backoff_until.store(0, std::memory_order_relaxed);
  } else if (errno == EAGAIN && patient) {
    g_backoff_until.store(now + kSystemLogBackoffSec, std::memory_order_relaxed);
  }
}

void write_line(int priority, const char* text) {
  const int cause = errno;
  char line[kLineSize];
  char date[32] = "";
  tm parts = {};
  const time_t now = time(nullptr);
  if (localtime_r(&now, &parts) != nullptr) {
    strftime(date, sizeof date, "%b %e %H:%M:%S", &parts);
  }
  const int facility = (priority & LOG_FACMASK) != 0 ? 0 : LOG_USER;
  wex_format(line, sizeof line, "<%d>%s %s: %s", priority | facility, date, program_invocation_short_name,
             text);
  send_line(line, strlen(line));
  errno = cause;
}

}  // namespace

extern "C" {

__attribute__((weak)) void printk_syslog_ext(int severity, const char* facility, const char* mnemonic,
                                             int /*flag*/, const char* format, ...) {
  char text[kTextSize];
  char line[kTextSize + kTextSize];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  wex_format(line, sizeof line, "%%%s-%d-%s: %s", facility, severity, mnemonic, text);
  write_line(severity, line);
}

__attribute__((weak)) void qx_syslog(int priority, const char* format, ...) {
  char text[kLineSize];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  write_line(priority, text);
}

__attribute__((weak)) int fs_set_vsd_envs(int /*vsd*/, int /*old_pid*/) {
  return 0;
}
}

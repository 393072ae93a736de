// wex_dbg: printing, and the levels that silence it.
#include "wex_dbg.h"

#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>

// No lock: plain words, each read and written whole; wex_dbg_on() is how every thread reads them.
int32_t g_wex_dbg_level[WEX_DBG_LEVELS] = {WEX_DBG_SILENT, WEX_DBG_SILENT, WEX_DBG_SILENT};

namespace {

constexpr size_t kLineSize = 8192;  // longest line: a command line of 4095 characters, twice

// One write, so that lines of different threads never mix; a console that takes less loses the rest.
void write_stdout(const char* text, size_t length) {
  ssize_t done;
  do {
    done = write(STDOUT_FILENO, text, length);
  } while (done < 0 && errno == EINTR);
}

// Appends to a line of `size` bytes that is `used` long. The new length, at most size - 1.
size_t append(char* line, size_t size, size_t used, const char* format, va_list arguments) {
  const int length = vsnprintf(line + used, size - used, format, arguments);
  if (length < 0) {
    return used;
  }
  const size_t wanted = used + static_cast<size_t>(length);
  return wanted < size ? wanted : size - 1;
}

}  // namespace

void wex_dbg_print(const char* module, int line_number, const char* format, ...) {
  const int kept = errno;
  char line[kLineSize];
  const int prefix = snprintf(line, sizeof(line), "[WEX:%s:%d]", module, line_number);
  size_t length = prefix < 0 ? 0 : static_cast<size_t>(prefix);
  if (length >= sizeof(line)) {
    length = sizeof(line) - 1;
  }
  va_list arguments;
  va_start(arguments, format);
  length = append(line, sizeof(line), length, format, arguments);
  va_end(arguments);
  write_stdout(line, length);
  errno = kept;
}

void wex_print(const char* format, ...) {
  const int kept = errno;
  char text[kLineSize];
  va_list arguments;
  va_start(arguments, format);
  const size_t length = append(text, sizeof(text), 0, format, arguments);
  va_end(arguments);
  write_stdout(text, length);
  errno = kept;
}

void wex_set_dbg_level(int level, int32_t value) {
  __atomic_store_n(&g_wex_dbg_level[level], value, __ATOMIC_RELAXED);
}

int wex_is_open_pub_dbg(void) {
  return wex_dbg_on(WEX_DBG_PUB) ? 1 : 0;
}

// wex_utils_dbg: the diagnostic lines, the levels that silence them, and the self-check wait.
//
// The levels are plain words that every thread reads; the daemon writes them before it has threads, a client
// at the start of its registration calls.
#define WEX_MODULE "wex_utils"

#include "wex_dbg.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <iterator>

#include "ras_comp_config.h"
#include "text_number.h"
#include "text_reader.h"
#include "unique_fd.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_utils.h"

int32_t g_wex_dbg_level[WEX_DBG_LEVELS] = {WEX_DBG_SILENT, WEX_DBG_SILENT, WEX_DBG_SILENT};

// "invlaid" is spelled so on the device.
const char* const wex_dbg_lvl_str_pre[WEX_DBG_LEVELS + 1] = {"g_wex_pub_dbg_level", "g_wex_alive_dbg_level",
                                                             "g_wex_lib_dbg_level", "invlaid"};

namespace {

constexpr size_t kLineSize = 8192;      // longest line: a command line of 4095 characters, twice
constexpr size_t kSettingSize = 128;    // a longer line of the configuration is seen in pieces
constexpr size_t kDebugTimeSize = 257;  // 256 bytes count, one ends them

constexpr const char* kLevelFormats[] = {"g_wex_pub_dbg_level %d", "g_wex_alive_dbg_level %d",
                                         "g_wex_lib_dbg_level %d"};
static_assert(std::size(kLevelFormats) == WEX_DBG_LEVELS, "a level without its format");

// One write, so that lines of different threads never mix; a console that takes less loses the rest.
void put(const char* text, size_t length) {
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

void take_setting(const char* line) {
  for (int level = 0; level < WEX_DBG_LEVELS; ++level) {
    const char* const key = wex_dbg_lvl_str_pre[level];
    if (strncmp(line, key, strlen(key)) != 0) {
      continue;
    }
    int value = 0;
    if (sscanf(line, kLevelFormats[level], &value) == 1) {
      __atomic_store_n(&g_wex_dbg_level[level], value, __ATOMIC_RELAXED);
    }
    return;
  }
}

int read_levels() {
  char path[RAS_PATH_SIZE];
  if (ras_make_vsd_data_ovix_path(RAS_WEX_DBG_FILE, path) != 0) {
    return -1;
  }
  const unique_fd file = wex_open_file(path, O_RDONLY);
  if (!file.valid()) {
    return -1;
  }
  text_reader settings(file.get());
  char line[kSettingSize];
  while (settings.line(line, sizeof(line))) {
    take_setting(line);
  }
  return 0;
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
  put(line, length);
  errno = kept;
}

void wex_print(const char* format, ...) {
  const int kept = errno;
  char text[kLineSize];
  va_list arguments;
  va_start(arguments, format);
  const size_t length = append(text, sizeof(text), 0, format, arguments);
  va_end(arguments);
  put(text, length);
  errno = kept;
}

int wex_parse_dbg_file(void) {
  read_levels();
  return 0;
}

int wex_is_open_pub_dbg(void) {
  return wex_dbg_on(WEX_DBG_PUB) ? 1 : 0;
}

int32_t debug_time(void) {
  if (access(kDebugTime, F_OK) != 0) {
    return kSelfCheckSec;
  }
  unique_fd file = wex_open_file(kDebugTime, O_RDWR);
  if (!file.valid()) {
    return kSelfCheckSec;
  }
  char text[kDebugTimeSize] = {};
  const int32_t got = safe_read(file.get(), text, sizeof(text) - 1);
  if (got < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: read fail: %s\n", __func__, strerror(errno));
    return kSelfCheckSec;
  }
  file.reset();
  const int32_t seconds = text_to_number(text);
  if (seconds > 0) {
    return seconds;
  }
  wex_dbg(WEX_DBG_PUB, "%s: atio fail or file is null: %s\n", __func__, strerror(errno));
  return kSelfCheckSec;
}

// wex_utils_settings: settings that an operator makes by files: the levels of diagnostics, and the self-check
// wait.
//
// The daemon reads the levels before it has threads, a client at the start of its registration calls.
#define WEX_MODULE "wex_utils"

#include "wex_utils_settings.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "guarded_file.h"
#include "ras_comp_config.h"
#include "safe_io.h"
#include "text_number.h"
#include "text_reader.h"
#include "unique_fd.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_strict.h"

// Kept: "invlaid", see docs/decisions.md.
const char* const wex_dbg_lvl_str_pre[WEX_DBG_LEVELS + 1] = {"g_wex_pub_dbg_level", "g_wex_alive_dbg_level",
                                                             "g_wex_lib_dbg_level", "invlaid"};

namespace {

constexpr size_t kSettingSize = 128;    // a longer line of the configuration is seen in pieces
constexpr size_t kDebugTimeSize = 257;  // 256 bytes count, one ends them

constexpr const char* kLevelFormats[] = {"g_wex_pub_dbg_level %d", "g_wex_alive_dbg_level %d",
                                         "g_wex_lib_dbg_level %d"};
static_assert(std::size(kLevelFormats) == WEX_DBG_LEVELS, "a level without its format");

void take_setting(const char* line) {
  for (int level = 0; level < WEX_DBG_LEVELS; ++level) {
    const char* const key = wex_dbg_lvl_str_pre[level];
    if (strncmp(line, key, strlen(key)) != 0) {
      continue;
    }
    int value = 0;
    if (sscanf(line, kLevelFormats[level], &value) == 1) {
      wex_set_dbg_level(level, value);
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

int wex_parse_dbg_file(void) {
  read_levels();
  return 0;
}

int32_t debug_time(void) {
  if (access(kDebugTime, F_OK) != 0 || !wex_counts(kDebugTime)) {
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
  // Kept: "atio", see docs/decisions.md.
  wex_dbg(WEX_DBG_PUB, "%s: atio fail or file is null: %s\n", __func__, strerror(errno));
  return kSelfCheckSec;
}

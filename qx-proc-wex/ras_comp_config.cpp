// ras_comp_config: where a component finds the configuration of its domain.
#define WEX_MODULE "ras_comp_config"

#include "ras_comp_config.h"

#include <stdlib.h>

#include <cstring>

#include "wex_dbg.h"

int ras_make_vsd_path(const char* prefix, const char* suffix, char* out, size_t capacity) {
  if (prefix == nullptr || suffix == nullptr || out == nullptr) {
    return -1;
  }
  const size_t prefix_length = strlen(prefix);
  const size_t suffix_length = strlen(suffix);
  if (prefix_length >= capacity || suffix_length >= capacity - prefix_length) {
    wex_print("[RAS]<%s, %s, %d>:not enough path memory(prefix:%s, suffix:%s, len:%d)!\n", WEX_MODULE,
              __func__, __LINE__, prefix, suffix, static_cast<int>(capacity));
    return -1;
  }
  memcpy(out, prefix, prefix_length);
  memcpy(out + prefix_length, suffix, suffix_length + 1);
  return 0;
}

int ras_make_vsd_data_ovix_path(const char* suffix, char* out) {
  const char* const directory = getenv(RAS_DATA_OVIX_ENV);
  if (directory == nullptr) {
    wex_print("[RAS]<%s, %s, %d>:get DATA_OVIX_DIR fail!\r\n", WEX_MODULE, __func__, __LINE__);
    return -1;
  }
  return ras_make_vsd_path(directory, suffix, out, RAS_PATH_SIZE);
}

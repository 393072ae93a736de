/* ras_comp_config: where a component finds the configuration of its domain. */
#ifndef RAS_COMP_CONFIG_H
#define RAS_COMP_CONFIG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The directory of a domain's persistent data; set for every program of a domain. */
#define RAS_DATA_OVIX_ENV "DATA_OVIX_DIR"

/* The debug levels of wex and of its clients, below that directory. */
#define RAS_WEX_DBG_FILE "/qx_utils/qx_utils_dbg_cfg.txt"

enum { RAS_PATH_SIZE = 256 };

/* Joins `prefix` and `suffix` into `out`. 0, or -1 (printed) when both and a terminator need more than
 * `capacity` bytes. */
int ras_make_vsd_path(const char* prefix, const char* suffix, char* out, size_t capacity);

/* Joins the data directory named by the environment and `suffix` into `out` (RAS_PATH_SIZE bytes). 0, or
 * -1 (printed) when the variable is unset or the path too long. */
int ras_make_vsd_data_ovix_path(const char* suffix, char* out);

#ifdef __cplusplus
}
#endif

#endif

/* wex_diagnostics: lines on standard output, and the levels that silence them. */
#ifndef WEX_DIAGNOSTICS_H
#define WEX_DIAGNOSTICS_H

#include <stdint.h>

#include "wex_attributes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Levels: 4 silences the lines it guards, every other value lets them print. */
enum { WEX_DBG_PUB, WEX_DBG_ALIVE, WEX_DBG_LIB, WEX_DBG_LEVELS };
enum { WEX_DBG_SILENT = 4 };

extern int32_t g_wex_dbg_level[WEX_DBG_LEVELS];
extern const char* const wex_dbg_lvl_str_pre[WEX_DBG_LEVELS + 1];

/* Reads the debug levels from the configuration file below DATA_OVIX_DIR. Always 0; what cannot be read
 * leaves the levels as they are. Any thread, but not two at once. */
int wex_parse_dbg_file(void);

/* 1 when public diagnostics print, else 0. Any thread. */
int wex_is_open_pub_dbg(void);

/* Writes "[WEX:module:line]" and the message to standard output in one write. Keeps errno. Any thread,
 * also between fork and exec. Use wex_dbg(), which looks at the level first. */
void wex_dbg_print(const char* module, int line, const char* format, ...) WEX_PRINTF(3, 4);

#define wex_dbg_on(level) (__atomic_load_n(&g_wex_dbg_level[level], __ATOMIC_RELAXED) != WEX_DBG_SILENT)
#define wex_dbg_as(module, level, ...)              \
  do {                                              \
    if (wex_dbg_on(level)) {                        \
      wex_dbg_print(module, __LINE__, __VA_ARGS__); \
    }                                               \
  } while (0)

#ifdef __cplusplus
}
#endif

#endif

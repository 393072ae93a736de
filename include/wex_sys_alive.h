/* wex_sys_alive: the table through which registered threads prove that they run.
 *
 * A shared-memory object indexed by thread id: one registration bit, one sequence byte. The daemon registers
 * and looks, a thread advances its own byte. No lock guards it: every exchange is a single byte. */
#ifndef WEX_SYS_ALIVE_H
#define WEX_SYS_ALIVE_H

#include <stddef.h>
#include <stdint.h>

#include "ras_os.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  WEX_ALIVE_SIZE_OFFSET = 8,    /* uint32: 184356 */
  WEX_ALIVE_BITMAP_OFFSET = 32, /* bit t: thread t is registered */
  WEX_ALIVE_BITMAP_BYTES = 20481,
  WEX_ALIVE_SEQ_OFFSET = 20513, /* byte t: sequence of thread t, 0 = not registered */
  WEX_ALIVE_SEQ_BYTES = 163840
};

/* The calling process's mapping. */
typedef struct wex_alive_info {
  ras_os_record_memory_t memory;
  uint8_t* base;
} wex_alive_info;

extern wex_alive_info g_wex_alive_info;

/* Maps the table once; `clear` drops every registration in it. 0, or negative (printed); -1 also when only
 * the mode could not be set, the table then being usable. Any thread. */
int wex_sys_init_alive_info(uint8_t clear);

/* Below: 0, or -1 for an id outside 0 to 163839 (printed). All but isreg need the table mapped. */
int wex_sys_reg_alive_info(uint32_t tid);
int wex_sys_unreg_alive_info(uint32_t tid);
int wex_sys_update_alive_seq(uint32_t tid);

/* The sequence byte, or all bits set for an id out of range. */
uint32_t wex_sys_get_alive_seq(uint32_t tid);

/* 1 registered, else 0. Maps the table when needed. */
int wex_sys_isreg_alive_info(uint32_t tid);

#ifdef __cplusplus
}
#endif

#endif

// wex_alive_guard: how the daemon reads the alive table, which any user may damage.
//
// Everybody can write the object, so everybody can also cut it short or replace it. A byte of a mapping that
// was cut short ends the process with SIGBUS, which cannot be ignored; the same byte fetched by the kernel is
// merely missing. The process that cleared the table keeps a pipe for that (guarded_copy).
#pragma once

#include <cstdint>

#include "wex.h"

// Whether a thread has its byte in the table. All others report with messages.
inline bool wex_in_alive_table(int32_t tid) {
  return tid >= 0 && tid < WEX_ALIVE_TIDS;
}

// Whether the mapped object is still the one that clients find by name. Restores its length when it was cut
// short. False also when the table is not mapped, and when a registration could not be written to it since
// the last call. Before each scan, one thread at a time.
bool wex_alive_table_intact();

// One sequence byte (0 to 255), one registration bit (0 or 1) of a thread, or -1 when it cannot be read.
int wex_alive_read_seq(uint32_t tid);
int wex_alive_read_bit(uint32_t tid);

// wex_alive_guard: how the daemon reads and writes the alive table, which any user may damage.
//
// Without strict mode everybody can write the object, so everybody can also cut it short or replace it. A
// byte of a mapping that was cut short ends the process with SIGBUS, which cannot be ignored; the same byte
// fetched by the kernel is merely missing. The process that cleared the table keeps a pipe for that
// (guarded_copy).
#pragma once

#include <cstddef>
#include <cstdint>

#include "unique_fd.h"
#include "wex.h"
#include "wex_sys_alive.h"

// Whether a thread has its byte in the table. All others report with messages.
inline bool wex_in_alive_table(int32_t tid) {
  return tid >= 0 && tid < WEX_ALIVE_TIDS;
}

// Whether the last attempt to map the table was refused: on a device in strict mode only root's processes
// write it. All others report with messages.
bool wex_alive_closed();

// Where a thread's registration bit and sequence byte are.
constexpr uint32_t wex_bit_offset(uint32_t tid) {
  return WEX_ALIVE_BITMAP_OFFSET + tid / 8;
}
constexpr uint8_t wex_bit_mask(uint32_t tid) {
  return static_cast<uint8_t>(1u << (tid % 8));
}
constexpr uint32_t wex_seq_offset(uint32_t tid) {
  return WEX_ALIVE_SEQ_OFFSET + tid;
}

// From here on this process is the one that guards its accesses to `table`, which lives on. False with errno
// when it cannot be. The file of the table is held once it is open.
bool wex_alive_guard_open(const wex_alive_info& table);
void wex_alive_hold(unique_fd&& file);
bool wex_alive_guarded();

// Only where wex_alive_guarded(). One byte, or -1 when the table ends before it; some bytes; one byte, with
// the table made whole when that is what it takes, or false.
int wex_alive_read(uint32_t offset);
bool wex_alive_write(uint32_t offset, const void* bytes, size_t size);
bool wex_alive_store(uint32_t offset, uint8_t byte);

// Whether the mapped object is still the one that clients find by name. Restores its length when it was cut
// short. False also when the table is not mapped, and when a registration could not be written to it since
// the last call. Before each scan, one thread at a time.
bool wex_alive_table_intact();

// One sequence byte (0 to 255), one registration bit (0 or 1) of a thread, or -1 when it cannot be read.
int wex_alive_read_seq(uint32_t tid);
int wex_alive_read_bit(uint32_t tid);

// wex_alive_guard: how the daemon reads and writes the alive table, which any user may damage.
//
// Not through the file: that may miss what is still in a client's cache, where caches know memory by its
// virtual address.
#include "wex_alive_guard.h"

#include <sys/stat.h>
#include <unistd.h>

#include "guarded_copy.h"
#include "request_flag.h"
#include "wex_limits.h"
#include "wex_paths.h"

namespace {

// Written in the daemon only, before it has threads, but for the descriptor: the watchdog looks at it.
guarded_copy g_table_bytes;
const wex_alive_info* g_table;
int g_table_fd = -1;  // lives as long as the process

// The daemon could not write a byte: its next scan must not count silence, for a registration may be missing.
request_flag g_write_failed;

int held_fd() {
  return __atomic_load_n(&g_table_fd, __ATOMIC_ACQUIRE);
}

// Missing pages come back empty: every registration in them is gone, and is renewed by the thread's next
// report.
bool restore_length(int fd) {
  return ftruncate(fd, static_cast<off_t>(g_table->memory.size)) == 0 &&
         wex_alive_write(WEX_ALIVE_SIZE_OFFSET, &kAliveTableSize, sizeof(kAliveTableSize));
}

}  // namespace

bool wex_alive_guard_open(const wex_alive_info& table) {
  g_table = &table;
  return g_table_bytes.valid() || g_table_bytes.open();
}

bool wex_alive_guarded() {
  return g_table_bytes.valid();
}

void wex_alive_hold(unique_fd&& file) {
  __atomic_store_n(&g_table_fd, file.release(), __ATOMIC_RELEASE);
}

int wex_alive_read(uint32_t offset) {
  const uint8_t* const base = g_table->base;
  uint8_t byte = 0;
  return base != nullptr && g_table_bytes.copy(&byte, base + offset, sizeof byte) ? byte : -1;
}

bool wex_alive_write(uint32_t offset, const void* bytes, size_t size) {
  uint8_t* const base = g_table->base;
  return base != nullptr && g_table_bytes.copy(base + offset, bytes, size);
}

bool wex_alive_store(uint32_t offset, uint8_t byte) {
  if (wex_alive_write(offset, &byte, sizeof byte) ||
      (restore_length(held_fd()) && wex_alive_write(offset, &byte, sizeof byte))) {
    return true;
  }
  g_write_failed.raise();
  return false;
}

bool wex_alive_table_intact() {
  const int fd = held_fd();
  struct stat held = {};
  struct stat named = {};
  if (fd < 0 || fstat(fd, &held) != 0 || stat(kAliveTableFile, &named) != 0 || held.st_dev != named.st_dev ||
      held.st_ino != named.st_ino) {
    return false;
  }
  const bool whole = held.st_size >= static_cast<off_t>(g_table->memory.size) || restore_length(fd);
  return whole && !g_write_failed.take();
}

int wex_alive_read_seq(uint32_t tid) {
  return !wex_alive_guarded() || tid >= WEX_ALIVE_TIDS ? -1 : wex_alive_read(wex_seq_offset(tid));
}

int wex_alive_read_bit(uint32_t tid) {
  const int byte = !wex_alive_guarded() || tid >= WEX_ALIVE_TIDS ? -1 : wex_alive_read(wex_bit_offset(tid));
  return byte < 0 ? -1 : (byte & wex_bit_mask(tid)) != 0 ? 1 : 0;
}

// wex_sys_alive: the table through which registered threads prove that they run.
//
// A client touches single bytes of its mapping: a report costs no system call and no lock. The daemon, which
// cleared the table at its start, has the kernel touch them for it (wex_alive_guard). The bitmap is written
// by the daemon alone, under the lock of wex_alive_chains.
#define WEX_MODULE "wex_sys_alive"

#include "wex_sys_alive.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cancel_held.h"
#include "guarded_file.h"
#include "mutex_lock.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex_alive_guard.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_strict.h"

wex_alive_info g_wex_alive_info;

static_assert(int{WEX_ALIVE_TIDS} == int{WEX_ALIVE_SEQ_BYTES}, "one sequence byte a thread");
static_assert(WEX_ALIVE_BITMAP_OFFSET + WEX_ALIVE_BITMAP_BYTES == WEX_ALIVE_SEQ_OFFSET,
              "no gap in the table");
static_assert(WEX_ALIVE_SEQ_OFFSET + WEX_ALIVE_SEQ_BYTES + 3 == kAliveTableSize,
              "three bytes of unused tail");
static_assert(offsetof(wex_alive_info, base) == 3 * sizeof(void*), "the handle's order is fixed");

namespace {

constexpr uint32_t kSequencesEnd = WEX_ALIVE_SEQ_OFFSET + WEX_ALIVE_SEQ_BYTES;
constexpr uint32_t kNoSequence = UINT32_MAX;
constexpr uint8_t kLastSequence = 255;
constexpr uint8_t kFirstSequence = 1;  // 0 is kept for "not registered"

checked_mutex g_init_mutex = {PTHREAD_MUTEX_INITIALIZER};
std::atomic<bool> g_initialised{false};  // set under g_init_mutex, looked at without it
std::atomic<bool> g_closed{false};       // only others may write the table
bool g_forks_watched WEX_TSA(guarded_by(g_init_mutex)) = false;

// The thread that was mapping the table when another one forked is not in the child. Its mutex is made anew
// there, and the half-filled handle is cleared: the child maps the table again when it needs it.
void reset_unfinished_init() {
  g_init_mutex.native = PTHREAD_MUTEX_INITIALIZER;
  if (!g_initialised.load(std::memory_order_relaxed)) {
    g_wex_alive_info = {};
  }
}

void watch_forks() WEX_TSA(requires_capability(g_init_mutex)) {
  if (!g_forks_watched) {
    g_forks_watched = pthread_atfork(nullptr, nullptr, reset_unfinished_init) == 0;
  }
}

bool in_range(uint32_t tid) {
  if (tid < WEX_ALIVE_TIDS) {
    return true;
  }
  wex_dbg(WEX_DBG_ALIVE, "pid err(pid:%d)!\r\n", static_cast<int>(tid));
  return false;
}

// Not inlined: seven copies of this and the next would cost more than half a KiB.
[[gnu::noinline]] uint8_t load(uint32_t offset) {
  if (!wex_alive_guarded()) {
    const uint8_t* const base = g_wex_alive_info.base;
    return base == nullptr ? uint8_t{0} : __atomic_load_n(base + offset, __ATOMIC_RELAXED);
  }
  const int byte = wex_alive_read(offset);
  return byte < 0 ? uint8_t{0} : static_cast<uint8_t>(byte);  // what was cut off reads as nothing
}

[[gnu::noinline]] bool store(uint32_t offset, uint8_t byte) {
  uint8_t* const base = g_wex_alive_info.base;
  if (wex_alive_guarded()) {
    return wex_alive_store(offset, byte);
  }
  if (base != nullptr) {
    __atomic_store_n(base + offset, byte, __ATOMIC_RELAXED);
  }
  return true;
}

// Clients of any user are to map the table, whatever umask its creator had. In strict mode only root's, and
// the daemon alone sees to that.
int set_mode(const unique_fd& table, bool daemon) {
  if (!daemon && wex_strict_is_wanted()) {
    return 0;
  }
  if (table.valid() && fchmod(table.get(), wex_strict().on ? kStrictAliveTableMode : kAliveTableMode) == 0) {
    return 0;
  }
  wex_dbg(WEX_DBG_PUB, "change mode failed!\r\n");
  return -1;
}

// The first offset from `at` on that has memory; the end of the sequences when there is none. A kernel before
// 3.1 cannot tell, nor does a table that could not be opened: then all of it counts as written.
uint32_t next_written(int fd, uint32_t at) {
  const off_t found = lseek(fd, static_cast<off_t>(at), SEEK_DATA);
  if (found < 0) {
    return errno == ENXIO ? kSequencesEnd : at;
  }
  return found < static_cast<off_t>(kSequencesEnd) ? static_cast<uint32_t>(found) : kSequencesEnd;
}

void clear_bytes(uint32_t from, uint32_t end) {
  constexpr uint8_t kNothing[4096] = {};
  for (uint32_t at = from; at < end; at += sizeof kNothing) {
    wex_alive_write(at, kNothing, end - at < sizeof kNothing ? end - at : sizeof kNothing);
  }
}

// Drops every registration. Somebody may cut the object short meanwhile. Sequences that were never written
// are left alone: to clear them would take memory for all threads there can be. The bitmap gets its memory
// here, because clients look at it before the daemon knows them, and one that finds none left is killed.
void clear_table(int fd) {
  wex_alive_write(WEX_ALIVE_SIZE_OFFSET, &kAliveTableSize, sizeof(kAliveTableSize));
  clear_bytes(WEX_ALIVE_BITMAP_OFFSET, WEX_ALIVE_SEQ_OFFSET);
  const uint32_t page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
  for (uint32_t at = next_written(fd, WEX_ALIVE_SEQ_OFFSET); at < kSequencesEnd; at = next_written(fd, at)) {
    const uint32_t next_page = at - at % page + page;
    const uint32_t end = next_page < kSequencesEnd ? next_page : kSequencesEnd;
    clear_bytes(at, end);
    at = end;
  }
}

// Whether a file is a table, as a daemon left it: clients may have it mapped.
bool is_table(int fd) {
  uint32_t size = 0;
  return pread(fd, &size, sizeof size, WEX_ALIVE_SIZE_OFFSET) == static_cast<ssize_t>(sizeof size) &&
         size == kAliveTableSize;
}

// Only root can have written the table, and only root can have it mapped to write.
bool is_roots_alone() {
  struct stat found = {};
  return lstat(kAliveTableFile, &found) == 0 && wex_is_roots_alone(found) && found.st_nlink == 1;
}

// Whoever has this table mapped finds himself unregistered in it, and registers again.
void empty_old_table() {
  constexpr uint8_t kNobody[WEX_ALIVE_BITMAP_BYTES] = {};
  const unique_fd old = open_trusted(AT_FDCWD, kAliveTableFile, O_RDWR | O_NONBLOCK);
  if (old.valid() && is_table(old.get()) &&
      pwrite(old.get(), kNobody, sizeof kNobody, WEX_ALIVE_BITMAP_OFFSET) < 0) {
    wex_dbg(WEX_DBG_PUB, "%s cannot be emptied: %s\n", kAliveTableFile, strerror(errno));
  }
}

// Strict mode: a user who can write the table can put back what root's threads have reported, so that their
// processes are aborted. One that others could write may be mapped by them, so a new one takes the name. A
// user may be trying to make one at the same time.
void make_roots_table() {
  if (is_roots_alone()) {
    return;
  }
  empty_old_table();
  for (int tries = 0; tries < kAliveTableTries; ++tries) {
    wex_unlink(kAliveTableFile);
    const unique_fd fresh(
        open(kAliveTableFile, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kStrictAliveTableMode));
    if (fresh.valid()) {
      return;
    }
  }
  wex_dbg(WEX_DBG_PUB, "%s cannot be made root's: %s\n", kAliveTableFile, strerror(errno));
}

// A file with two names that is no table belongs to somebody else and was linked to our name: it is neither
// cleared nor opened to all, a new table takes the name.
void shed_second_name() {
  const unique_fd found = open_trusted(AT_FDCWD, kAliveTableFile, O_RDONLY | O_NONBLOCK);
  struct stat status = {};
  if (found.valid() && fstat(found.get(), &status) == 0 && status.st_nlink > 1 && !is_table(found.get())) {
    wex_unlink(kAliveTableFile);
  }
}

}  // namespace

int wex_sys_init_alive_info(uint8_t clear) {
  if (g_initialised.load(std::memory_order_acquire)) {
    return 0;  // once is enough, and reports must not queue up at the mutex
  }
  const cancel_held whole;  // a thread that was cancelled in here would keep the mutex
  const mutex_lock hold(g_init_mutex);
  if (g_initialised.load(std::memory_order_relaxed)) {
    return 0;
  }
  watch_forks();
  if (clear != 0) {
    if (!wex_alive_guard_open(g_wex_alive_info)) {
      wex_dbg(WEX_DBG_ALIVE, "pipe err(path:%s, err:%d)!\r\n", kAliveTable, errno);
      return -1;
    }
    shed_second_name();
    if (wex_strict().on) {
      make_roots_table();
    }
  }
  const int result =
      ras_os_init_record_memory(kAliveTable, kAliveTableSize, &g_wex_alive_info.memory, &errno);
  g_closed.store(result != 0 && errno == EACCES);
  if (result != 0) {
    wex_dbg(WEX_DBG_ALIVE, "ras_os_init_record_memory err(path:%s, ret:%d, err:%d)!\r\n", kAliveTable, result,
            errno);
    return result;
  }
  unique_fd table = open_trusted(AT_FDCWD, kAliveTableFile, O_RDWR | O_NONBLOCK);
  const int opened = set_mode(table, clear != 0);
  g_wex_alive_info.base = static_cast<uint8_t*>(g_wex_alive_info.memory.addr);
  if (clear != 0) {
    clear_table(table.get());
    wex_alive_hold(std::move(table));
  }
  g_initialised.store(true, std::memory_order_release);
  return opened;  // the table is usable all the same, so only this first call tells
}

int wex_sys_reg_alive_info(uint32_t tid) {
  if (!in_range(tid)) {
    return -1;
  }
  // The sequence first: a client that sees the bit writes the sequence, whose page must be there by then.
  if (store(wex_seq_offset(tid), kFirstSequence)) {
    store(wex_bit_offset(tid), static_cast<uint8_t>(load(wex_bit_offset(tid)) | wex_bit_mask(tid)));
  }
  return 0;
}

int wex_sys_unreg_alive_info(uint32_t tid) {
  if (!in_range(tid)) {
    return -1;
  }
  store(wex_bit_offset(tid), static_cast<uint8_t>(load(wex_bit_offset(tid)) & ~wex_bit_mask(tid)));
  store(wex_seq_offset(tid), 0);
  return 0;
}

int wex_sys_update_alive_seq(uint32_t tid) {
  if (!in_range(tid)) {
    return -1;
  }
  const uint8_t seen = load(wex_seq_offset(tid));
  store(wex_seq_offset(tid), seen == kLastSequence ? kFirstSequence : static_cast<uint8_t>(seen + 1));
  return 0;
}

uint32_t wex_sys_get_alive_seq(uint32_t tid) {
  return in_range(tid) ? load(wex_seq_offset(tid)) : kNoSequence;
}

int wex_sys_isreg_alive_info(uint32_t tid) {
  if (!in_range(tid)) {
    return 0;
  }
  const int result = wex_sys_init_alive_info(0);
  if (result != 0) {
    wex_dbg(WEX_DBG_ALIVE, "fail to init alive_info(ret:%d)!!!\n", result);
    return 0;
  }
  return (load(wex_bit_offset(tid)) & wex_bit_mask(tid)) != 0 ? 1 : 0;
}

bool wex_alive_closed() {
  return g_closed.load() && wex_strict_is_wanted();  // else somebody has only changed its mode
}

// ras_os: named shared memory, semaphores, close-on-exec and the hex dump.
//
// The ras_os_ functions are offered to every program of the device and tell failures by number alone. The
// caller's `err` may well be errno itself, so it is set last.
#include "ras_os.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "close_on_exec.h"
#include "safe_io.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex.h"
#include "wex_limits.h"

namespace {

// Results. Each number is one failed step; the declarations say which.
enum {
  kBadArgument = -1,
  kNullArgument = -2,
  kNoKey = -3,
  kNoMemory = -3,
  kNotCreated = -4,
  kNotOpened = -4,
  kNotFound = -5,
  kNotSized = -5,
  kNoValue = -6,
  kNotMapped = -6,
  kNotLocked = -7,
  kNotUnmapped = -7,
  kNotUnlocked = -8,
  kNotUnlinked = -8
};

constexpr size_t kPrintSize = 8192;
constexpr uint32_t kDumpRow = 16;
constexpr char kDumpHeading[] =
    " Offset  |  0  1  2  3  4  5  6  7  8  9  A  B  C  D  E  F | 0123456789ABCDEF\n";
constexpr char kDumpRule[] =
    "---------+-------------------------------------------------+-----------------\n";

// The caller of semctl has to declare it.
union sem_argument {
  int value;
  struct semid_ds* status;
  unsigned short* values;
};

bool set_value(int id, int value) {
  sem_argument argument = {};
  argument.value = value;
  return semctl(id, 0, SETVAL, argument) == 0;
}

int change_value(int id, short step) {
  // The undo flag gives the lock back when its holder dies.
  sembuf operation = {};
  operation.sem_op = step;
  operation.sem_flg = SEM_UNDO;
  return semop(id, &operation, 1);
}

// Opens, sizes and maps; *cause is the failed call's errno. The object stays when it cannot be opened at all.
int map_object(const char* name, uint32_t size, ras_os_record_memory_t* handle, int* cause) {
  unique_fd object(shm_open(name, O_RDWR | O_CREAT, kRecordMemoryMode));
  if (!object.valid() && errno == EACCES) {
    // A kernel that guards sticky directories refuses to "create" another user's object that is there.
    object.reset(shm_open(name, O_RDWR, 0));
  }
  if (!object.valid()) {
    *cause = errno;
    return kNotOpened;
  }
  ras_os_set_fd_close_on_exec(object.get());
  const long page = sysconf(_SC_PAGESIZE);
  if (page <= 0) {
    *cause = errno;
    return kNotSized;
  }
  const uint64_t pages = (uint64_t{size} - 1 + static_cast<uint64_t>(page)) / static_cast<uint64_t>(page);
  // Low 32 bits: within a page of 4 GiB the length becomes 0, which no mapping accepts.
  const uint32_t length = static_cast<uint32_t>(pages * static_cast<uint64_t>(page));
  if (ftruncate(object.get(), static_cast<off_t>(length)) != 0) {
    *cause = errno;
    return kNotSized;
  }
  handle->size = length;
  handle->addr = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, object.get(), 0);
  // Kept: the address stays MAP_FAILED after a failure, see docs/decisions.md.
  if (handle->addr == MAP_FAILED) {
    *cause = errno;
    return kNotMapped;
  }
  object.release();  // Kept: open for the life of the process, see docs/decisions.md.
  return 0;
}

int print(const char* format, ...) WEX_PRINTF(1, 2);

// As printf: the length of the text, or -1.
int print(const char* format, ...) {
  char text[kPrintSize];
  va_list arguments;
  va_start(arguments, format);
  int length = vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  if (length >= static_cast<int>(sizeof(text))) {
    length = static_cast<int>(sizeof(text)) - 1;
  }
  return length < 0 ? -1 : safe_write(STDOUT_FILENO, text, static_cast<size_t>(length));
}

// Appends to one row of the dump, which always fits.
char* append_text(char* at, const char* text) {
  const size_t length = strlen(text);
  memcpy(at, text, length + 1);
  return at + length;
}

char* append_hex(char* at, uint8_t byte) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  *at++ = kDigits[byte >> 4];
  *at++ = kDigits[byte & 0xf];
  return at;
}

// The bytes as characters; graphic ones of the "C" locale as themselves, blanks not among them.
void append_characters(char* at, const uint8_t* bytes, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    *at++ = bytes[i] > ' ' && bytes[i] < 0x7f ? static_cast<char>(bytes[i]) : '.';
  }
  *at++ = '\n';
  *at = '\0';
}

void dump_row(uint32_t offset, const uint8_t* bytes, uint32_t count) {
  char row[128];
  char* at = row + snprintf(row, sizeof(row), "%08X |", static_cast<unsigned>(offset));
  for (uint32_t i = 0; i < kDumpRow; ++i) {
    if (i < count) {
      *at++ = ' ';
      at = append_hex(at, bytes[i]);
    } else {
      at = append_text(at, "   ");
    }
  }
  append_characters(append_text(at, " | "), bytes, count);
  print("%s", row);
}

}  // namespace

int ras_os_init_mutex_sem(const char* path, int* semid) {
  if (path == nullptr || semid == nullptr) {
    return kNullArgument;
  }
  const key_t key = ftok(path, WEX_SEM_PROJECT);
  if (key == -1) {
    return kNoKey;
  }
  *semid = semget(key, 1, static_cast<int>(IPC_CREAT | IPC_EXCL | kSemMode));
  if (*semid >= 0) {
    if (set_value(*semid, 1)) {
      return 0;
    }
    semctl(*semid, 0, IPC_RMID);
    return kNoValue;
  }
  if (errno != EEXIST) {
    return kNotCreated;
  }
  *semid = semget(key, 1, 0);
  return *semid >= 0 ? 0 : kNotFound;
}

int ras_os_lock_mutex_sem(int semid) {
  while (change_value(semid, -1) != 0) {
    if (errno != EINTR) {
      return kNotLocked;
    }
    safe_sleep(kSemRetrySec);
  }
  return 0;
}

int ras_os_unlock_mutex_sem(int semid) {
  return change_value(semid, 1) == 0 ? 0 : kNotUnlocked;
}

int ras_os_init_record_memory(const char* name, uint32_t size, ras_os_record_memory_t* handle, int* err) {
  if (name == nullptr || size == 0 || handle == nullptr || err == nullptr) {
    return kBadArgument;
  }
  *err = 0;
  const size_t name_size = strlen(name) + 1;
  handle->name = static_cast<char*>(malloc(name_size));
  if (handle->name == nullptr) {
    return kNoMemory;
  }
  int cause = 0;
  const int result = map_object(name, size, handle, &cause);
  if (result == 0) {
    memcpy(handle->name, name, name_size);
    return 0;
  }
  if (result != kNotOpened) {
    // Kept: removed for every process, also when it was there before, see docs/decisions.md.
    shm_unlink(name);
  }
  free(handle->name);
  handle->name = nullptr;
  *err = cause;
  return result;
}

int ras_os_read_record_memory(const ras_os_record_memory_t* handle, void* buffer, uint32_t length) {
  if (handle == nullptr || buffer == nullptr || length == 0 || length > handle->size) {
    return kBadArgument;
  }
  memcpy(buffer, handle->addr, length);
  return 0;
}

int ras_os_write_record_memory(ras_os_record_memory_t* handle, const void* buffer, uint32_t length,
                               int* err) {
  if (handle == nullptr || buffer == nullptr || length == 0 || err == nullptr || length > handle->size) {
    return kBadArgument;
  }
  *err = 0;
  memcpy(handle->addr, buffer, length);
  return 0;
}

int ras_os_close_record_memory(ras_os_record_memory_t* handle, int* err) {
  if (handle == nullptr || err == nullptr) {
    return kBadArgument;
  }
  *err = 0;
  if (munmap(handle->addr, handle->size) != 0) {
    *err = errno;
    return kNotUnmapped;
  }
  if (shm_unlink(handle->name) != 0) {
    *err = errno;
    return kNotUnlinked;
  }
  free(handle->name);
  handle->name = nullptr;  // address and size stay as they were
  return 0;
}

int ras_os_set_fd_close_on_exec(int fd) {
  return set_close_on_exec(fd);
}

int ras_os_dump_msg(const char* prefix, const void* msg, uint32_t len) {
  if (prefix == nullptr || msg == nullptr || len == 0) {
    return print("argument err(prx:%p, msg:%p, len%u)!\n", static_cast<const void*>(prefix), msg,
                 static_cast<unsigned>(len));
  }
  print("dump %s msg(addr:%p, len:%u):\n", prefix, msg, static_cast<unsigned>(len));
  print("%s%s", kDumpHeading, kDumpRule);
  const uint8_t* const bytes = static_cast<const uint8_t*>(msg);
  for (uint32_t offset = 0; offset < len;) {
    const uint32_t count = len - offset < kDumpRow ? len - offset : kDumpRow;
    dump_row(offset, bytes + offset, count);
    offset += count;
  }
  return print("%s", kDumpRule);
}

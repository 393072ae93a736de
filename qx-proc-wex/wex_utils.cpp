// wex_utils: whole small files, an allocator that never fails, facts about processes from /proc, the
// single-instance lock and the low-memory-killer settings. No state, no heap but safe_malloc's.
#define WEX_MODULE "wex_utils"

#include "wex_utils.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstring>

#include "close_on_exec.h"
#include "file_lock.h"
#include "guarded_file.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_number.h"
#include "text_reader.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_paths.h"

namespace {

constexpr size_t kProcPathSize = 32;
constexpr size_t kStatusPathSize = 64;
constexpr size_t kStatusLineSize = 256;
constexpr size_t kNameSize = 256;
constexpr size_t kStatSize = 1024;
constexpr size_t kLmkTextSize = 128;
constexpr int32_t kLmkIgnore = -1000;
constexpr int32_t kLmkNormal = 0;
// Fields of /proc/PID/stat, counted from 1.
constexpr int kStateField = 3;
constexpr int kFlagsField = 9;
constexpr int kThreadsField = 20;
constexpr int kStartTimeField = 22;
constexpr unsigned long kExiting = 0x4;    // flag of a task that has begun to exit
constexpr char kDeleted[] = " (deleted)";  // the kernel's mark on the link of a replaced executable

// After an update of a running program its link names "FILE (deleted)". The program to be started again is
// FILE, as long as the new one is there and nothing really bears the marked name. The length that counts.
size_t without_deleted_mark(char* path, size_t length) {
  const size_t mark = sizeof(kDeleted) - 1;
  if (length <= mark || strcmp(path + length - mark, kDeleted) != 0) {
    return length;
  }
  struct stat status = {};
  if (lstat(path, &status) == 0 || errno != ENOENT) {
    return length;
  }
  path[length - mark] = '\0';
  const bool replaced = stat(path, &status) == 0;
  path[length - mark] = kDeleted[0];
  return replaced ? length - mark : length;
}

// Appends the arguments behind the first one at `length`, without a terminator. The new length, or 0 when not
// even the first one can be read.
size_t append_arguments(text_reader& arguments, char* buffer, size_t length, size_t size) {
  int c;
  do {
    c = arguments.byte();
    if (c < 0) {
      return 0;
    }
  } while (c != '\0');
  buffer[length++] = ' ';
  while (length < size - 1 && (c = arguments.byte()) >= 0) {
    // A newline in an argument ends the visible text: the command line must stay one line in files and logs.
    buffer[length++] = c == '\0' ? ' ' : c == '\n' ? '\0' : static_cast<char>(c);
  }
  return buffer[length - 1] == ' ' ? length - 1 : length;
}

// The first line of a process's status file that begins with `key`.
bool find_status_line(int32_t pid, const char* key, char* line, size_t size) {
  char path[kStatusPathSize];
  wex_format(path, sizeof(path), kProcStatusFmt, pid);
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    return false;
  }
  confirm_close_on_exec(file.get());
  text_reader status(file.get());
  while (status.line(line, size)) {
    if (strncmp(line, key, strlen(key)) == 0) {
      return true;
    }
  }
  return false;
}

// One read gives all of a short file below /proc, terminated. False with errno.
bool read_once(const char* path, char* buffer, size_t size) {
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    return false;
  }
  confirm_close_on_exec(file.get());
  ssize_t got;
  do {
    got = read(file.get(), buffer, size - 1);
  } while (got < 0 && errno == EINTR);
  buffer[got < 0 ? 0 : got] = '\0';
  return got >= 0;
}

// Where the state letter stands in the stat text of a process, or null with errno. The command name before it
// is anything, parentheses included: only the last one ends it.
const char* read_stat(int32_t pid, char* text, size_t size) {
  char path[kProcPathSize];
  wex_format(path, sizeof(path), kProcStatFmt, pid);
  if (!read_once(path, text, size)) {
    return nullptr;
  }
  const char* const end = strrchr(text, ')');
  if (end == nullptr || end[1] != ' ' || end[2] == '\0') {
    errno = EINVAL;
    return nullptr;
  }
  return end + 2;
}

// Where the `number`th field begins, given where the state letter stands; null when there are fewer.
const char* stat_field(const char* fields, int number) {
  for (int at = kStateField; at < number && fields != nullptr; ++at) {
    fields = strchr(fields, ' ');
    fields = fields != nullptr ? fields + 1 : nullptr;
  }
  return fields;
}

bool is_same_file(int fd, const char* path) {
  struct stat held = {};
  struct stat named = {};
  return fstat(fd, &held) == 0 && stat(path, &named) == 0 && held.st_dev == named.st_dev &&
         held.st_ino == named.st_ino;
}

// Opened or made; regular files only.
unique_fd open_lock_file(const char* path) {
  unique_fd lock = open_trusted(AT_FDCWD, path, O_RDWR | O_CREAT | O_NONBLOCK, kLockMode);
  struct stat status = {};
  if (lock.valid() && (fstat(lock.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
    lock.reset();
    errno = ENXIO;
  }
  return lock;
}

// A file of another user's could be locked by him at any time, and one with a second name may be any file:
// nothing is written to it.
bool is_ours_alone(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && status.st_nlink == 1 &&
         (status.st_uid == 0 || status.st_uid == geteuid());
}

bool write_own_pid(int fd) {
  char text[16];
  wex_format(text, sizeof(text), "%d", static_cast<int>(getpid()));
  const size_t length = strlen(text) + 1;
  return ftruncate(fd, 0) == 0 && safe_write(fd, text, length) == static_cast<int32_t>(length);
}

}  // namespace

void* safe_malloc(size_t size) {
  void* block = calloc(1, size > 0 ? size : 1);
  while (block == nullptr) {
    safe_sleep(kMemoryRetrySec);
    block = calloc(1, size > 0 ? size : 1);
  }
  return block;
}

int32_t safe_write_path(const char* path, const void* buffer, size_t length) {
  const unique_fd file(open(path, O_RDWR | O_CLOEXEC));
  if (!file.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: fd < 0: %s\n", __func__, strerror(errno));
    return -1;
  }
  confirm_close_on_exec(file.get());
  return safe_write(file.get(), buffer, length);
}

int32_t wex_read_to_buf(const char* path, char* buffer, size_t size) {
  if (size == 0) {
    return -1;
  }
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    return -1;
  }
  confirm_close_on_exec(file.get());
  const int32_t got = safe_read(file.get(), buffer, size - 1);
  buffer[got < 0 ? 0 : got] = '\0';
  return got;
}

char* pid_to_cmdline(int32_t pid, char* buffer, size_t size) {
  return wex_read_command(pid, buffer, size) == command_read::nothing ? nullptr : buffer;
}

// Kept: the name; the thread group is what callers need, see docs/decisions.md.
int32_t wex_get_ppid_form_pid(int32_t pid) {
  char line[kStatusLineSize];
  int group = -1;
  if (!find_status_line(pid, "Tgid:", line, sizeof(line)) || sscanf(line, "Tgid:\t%d", &group) != 1) {
    return -1;
  }
  return group;
}

int wex_get_pid_name(int32_t pid, char* buffer, size_t size) {
  if (buffer == nullptr || size < 1) {
    return -1;
  }
  char line[kStatusLineSize];
  char name[kNameSize] = {};
  if (!find_status_line(pid, "Name:", line, sizeof(line)) || sscanf(line, "Name:\t%255[^\r\n]", name) != 1) {
    return -1;
  }
  wex_copy_text(buffer, size, name);
  return 0;
}

int process_life(int32_t pid) {
  if (!wex_pid_exists(pid)) {
    return -1;  // no later look could show anything else
  }
  for (int attempt = 0; attempt < kLifeTries; ++attempt) {
    if (wex_looks_alive(pid)) {
      return 0;
    }
    wex_sleep_ms(kLifeRetryMs);
  }
  return -1;
}

command_read wex_read_command(int32_t pid, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) {
    return command_read::nothing;
  }
  char path[kProcPathSize];
  wex_format(path, sizeof(path), kProcExeFmt, pid);
  const ssize_t linked = readlink(path, buffer, size - 1);
  if (linked < 0) {
    buffer[0] = '\0';
    return command_read::nothing;
  }
  buffer[linked] = '\0';
  size_t length = without_deleted_mark(buffer, static_cast<size_t>(linked));
  buffer[length] = '\0';
  if (size < length + 3) {
    return command_read::whole;  // there is no room for an argument
  }
  wex_format(path, sizeof(path), kProcCmdlineFmt, pid);
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    return command_read::program;
  }
  confirm_close_on_exec(file.get());
  text_reader arguments(file.get());
  const size_t whole = append_arguments(arguments, buffer, length, size);
  if (whole == 0 && !arguments.failed()) {
    errno = ESRCH;  // it is ending, and has given its memory back since its program was looked at
  }
  buffer[whole != 0 ? whole : length] = '\0';
  return whole == 0 || arguments.failed() ? command_read::program : command_read::whole;
}

int32_t wex_thread_id() {
  return static_cast<int32_t>(syscall(SYS_gettid));
}

bool wex_pid_exists(int32_t pid) {
  return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH);
}

bool wex_is_thread(int32_t pid) {
  // The kernel finds a thread by its id in every process, but its process only by that of the first one. The
  // process is looked for twice: the id may have been free at the first look, and a process's at the second.
  const auto no_process = [pid] { return syscall(SYS_tgkill, pid, pid, 0) != 0 && errno == ESRCH; };
  return pid > 0 && no_process() && wex_pid_exists(pid) && no_process();
}

bool wex_looks_alive(int32_t pid) {
  char text[kStatSize];
  const char* const state = read_stat(pid, text, sizeof(text));
  return state != nullptr && *state != 'X' && *state != 'Z';
}

process_look wex_look_at(int32_t pid) {
  process_look look = {};
  char text[kStatSize];
  const char* const fields = read_stat(pid, text, sizeof(text));
  const char* const start = fields != nullptr ? stat_field(fields, kStartTimeField) : nullptr;
  if (start == nullptr) {
    const bool gone = fields == nullptr && (errno == ENOENT || errno == ESRCH);
    look.sight = gone ? process_look::gone : process_look::unreadable;
    return look;
  }
  look.sight = process_look::seen;
  look.state = *fields;
  look.exiting = (strtoul(stat_field(fields, kFlagsField), nullptr, 10) & kExiting) != 0;
  look.threads = text_to_number(stat_field(fields, kThreadsField));
  look.start_time = strtoull(start, nullptr, 10);
  return look;
}

bool wex_proc_stat(int32_t pid, char* state, uint64_t* start_time) {
  const process_look look = wex_look_at(pid);
  if (look.sight != process_look::seen) {
    return false;
  }
  if (state != nullptr) {
    *state = look.exiting && look.state != 'Z' ? 'X' : look.state;
  }
  if (start_time != nullptr) {
    *start_time = look.start_time;
  }
  return true;
}

bool wex_is_dead_state(char state) {
  return state == 'Z' || state == 'X' || state == 'x';
}

bool wex_proc_lives(int32_t pid, uint64_t start_time) {
  char state = '\0';
  uint64_t started = 0;
  return wex_proc_stat(pid, &state, &started) && !wex_is_dead_state(state) &&
         (start_time == 0 || start_time == started);
}

int already_running(const char* path) {
  for (int attempt = 0; attempt < kLockTries; ++attempt) {
    unique_fd lock = open_lock_file(path);
    if (!lock.valid()) {
      return -1;
    }
    if (!wex_lock_file(lock.get())) {
      errno = errno == EACCES ? EAGAIN : errno;
      return -1;
    }
    // A lock on a file that was removed or replaced keeps no other daemon out.
    if (!is_same_file(lock.get(), path)) {
      continue;
    }
    if (!is_ours_alone(lock.get())) {
      wex_unlink(path);  // no other process holds it, for we have the lock: a new file takes its place
      continue;
    }
    write_own_pid(lock.get());
    return lock.release();  // stays open on purpose: the lock lives as long as we do
  }
  errno = EBUSY;
  return -1;
}

int32_t wex_set_lmk(int32_t score, int32_t pid) {
  char path[kLmkTextSize];
  char text[kLmkTextSize];
  wex_format(path, sizeof(path), kProcOomScoreFmt, pid);
  wex_format(text, sizeof(text), "%d\n", score);
  return safe_write_path(path, text, strlen(text) + 1);  // with its zero byte, which the kernel ignores
}

int32_t wex_ignore_lmk(int32_t pid) {
  return wex_set_lmk(kLmkIgnore, pid);
}

int32_t wex_reset_lmk(int32_t pid) {
  return wex_set_lmk(kLmkNormal, pid);
}

int wex_get_proc_status(void) {
  const unique_fd file(open(kWexStatus, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: open wex_status file fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  confirm_close_on_exec(file.get());
  char digit = '\0';
  errno = 0;  // an empty file is no error of its own
  if (safe_read(file.get(), &digit, 1) != 1) {
    wex_dbg(WEX_DBG_PUB, "%s: read wex_status file fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  return digit >= '0' && digit <= '9' ? digit - '0' : 0;
}

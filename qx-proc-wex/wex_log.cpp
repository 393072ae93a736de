// wex_log: the log files: running log, event log, hang ring, reboot record; and the reboot itself.
//
// Each entry is built in memory and written with one write on an appending descriptor: a full disk loses
// whole entries, not halves, and two writers never mix. What is to survive a reboot is synced, and after a
// creation its directory too.
#define WEX_MODULE "wex_log"

#include "wex_log.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <time.h>

#include "bounded_work.h"
#include "guarded_file.h"
#include "mutex_lock.h"
#include "priority_mutex.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_number.h"
#include "text_reader.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_black_box.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_move_aside.h"
#include "wex_paths.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_utils.h"

namespace {

constexpr size_t kMessageSize = 256;   // of the running log
constexpr size_t kEntrySize = 8192;    // of the others: a record's command line and script, with room
constexpr size_t kStampSize = 21;      // "%Y/%m/%d %H:%M:%S"
constexpr size_t kTimeTextSize = 128;  // ctime_r needs 26 before the year 10000
constexpr size_t kRingLineSize = 128;  // a longer line of the ring counts as two
constexpr size_t kNumberSize = 256;
constexpr size_t kSwitchSize = 32;
constexpr int64_t kRingLinesPerEntry = 2;
constexpr unsigned kRebootPauseSec = 1;
constexpr char kRebootSecondsText[] = "10\n";  // written with its zero byte

enum { kCountMissing = -2, kCountUnreadable = -1 };

// Threads of every priority write here.
priority_mutex g_running_mutex;
priority_mutex g_event_mutex;
int g_event_fd WEX_TSA(guarded_by(g_event_mutex)) = -1;  // the open event log, or -1

// ---- Files ------------------------------------------------------------------------------------------------

bool exists(const char* path) {
  return access(path, F_OK) == 0;
}

// One write; a disk that takes less loses the rest of the entry.
void write_entry(int fd, const char* text, size_t length) {
  ssize_t written;
  do {
    written = write(fd, text, length);
  } while (written < 0 && errno == EINTR);
}

bool is_empty(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && status.st_size == 0;
}

// Opens a record for one more entry. When a directory, a device, a link that is not followed, or another name
// of a file that this process keeps locked has the name, that is moved aside first.
unique_fd open_record(const char* path) {
  unique_fd file = wex_open_own_file(path, O_WRONLY | O_APPEND, kLogMode);
  char aside[kPathSize];
  const bool in_the_way = errno == EISDIR || errno == ENXIO || errno == ELOOP || errno == EBUSY;
  if (!file.valid() && in_the_way && wex_clear_name(path, aside)) {
    file = wex_open_own_file(path, O_WRONLY | O_APPEND, kLogMode);
  }
  return file;
}

// An entry that is written, and on its way to the disk.
struct written_entry {
  unique_fd file;
  bool maybe_new;
};

written_entry append(const char* path, const char* text, size_t length) {
  written_entry entry = {open_record(path), false};
  if (entry.file.valid()) {
    entry.maybe_new = is_empty(entry.file.get());
    write_entry(entry.file.get(), text, length);
  }
  return entry;
}

void sync_entry(const char* path, const written_entry& entry) {
  if (!entry.file.valid()) {
    return;
  }
  fsync(entry.file.get());
  if (entry.maybe_new) {
    wex_sync_directory_of(path);
  }
}

void append_synced(const char* path, const char* text, size_t length) {
  sync_entry(path, append(path, text, length));
}

// ---- Entries ----------------------------------------------------------------------------------------------

// The local time as ctime() writes it, without its newline; empty when it cannot be converted.
void time_text(char* text) {
  const time_t now = time(nullptr);
  text[0] = '\0';
  if (ctime_r(&now, text) == nullptr) {
    text[0] = '\0';
  }
  const size_t length = strlen(text);
  if (length > 0) {
    text[length - 1] = '\0';
  }
}

// Time, a blank, the message, a newline. The length; a message that is too long loses its end, never the
// newline.
size_t build_entry(char* entry, const char* format, va_list arguments) {
  char when[kTimeTextSize] = {};
  time_text(when);
  wex_format(entry, kEntrySize, "%s ", when);
  size_t length = strlen(entry);
  const size_t room = kEntrySize - length - 1;
  const int wanted = vsnprintf(entry + length, room, format, arguments);
  if (wanted > 0) {
    length += static_cast<size_t>(wanted) < room ? static_cast<size_t>(wanted) : room - 1;
  }
  entry[length++] = '\n';
  return length;
}

// The number a text begins with, saturating. False when there is none.
bool read_number(const char* text, int32_t* number) {
  int64_t value = 0;
  const bool found = scan_integer(&text, &value);
  *number = clamp_to_int32(value);
  return found;
}

// ---- The running log --------------------------------------------------------------------------------------

enum class running_file { take, full, drop };

// Whether the next entry goes into this file. One that cannot be looked at is removed and begun anew.
running_file look_at(const char* path, struct stat* status) {
  if (stat(path, status) == 0) {
    return status->st_size < kRunningLogMax ? running_file::take : running_file::full;
  }
  if (errno == ENOMEM) {
    return running_file::drop;
  }
  if (errno != ENOENT) {
    wex_unlink(path);
  }
  return running_file::take;
}

// The file for the next entry, or null when the entry is to be dropped. Of two full files the older is
// emptied.
const char* choose_running_file() {
  struct stat first = {};
  struct stat second = {};
  const running_file one = look_at(kRunningLog1, &first);
  if (one != running_file::full) {
    return one == running_file::take ? kRunningLog1 : nullptr;
  }
  const running_file two = look_at(kRunningLog2, &second);
  if (two != running_file::full) {
    return two == running_file::take ? kRunningLog2 : nullptr;
  }
  const char* const older = second.st_mtime >= first.st_mtime ? kRunningLog1 : kRunningLog2;
  wex_unlink(older);
  return older;
}

bool is_older(const struct stat& a, const struct stat& b) {
  return a.st_mtim.tv_sec != b.st_mtim.tv_sec ? a.st_mtim.tv_sec < b.st_mtim.tv_sec
                                              : a.st_mtim.tv_nsec < b.st_mtim.tv_nsec;
}

// Formats a message, cut to its size, and prints it: every message is a diagnostic, also one that is not
// written.
void print_message(char (&message)[kMessageSize], const char* format, va_list arguments) {
  message[0] = '\0';
  vsnprintf(message, sizeof(message), format, arguments);
  wex_dbg(WEX_DBG_PUB, "%s", message);
}

// "2026/01/31 23:59:58: " and the message. Its length.
size_t stamp_entry(char (&entry)[kStampSize + 2 + kMessageSize], const char* message) {
  char stamp[kStampSize] = {};
  const time_t now = time(nullptr);
  struct tm local = {};
  if (localtime_r(&now, &local) == nullptr ||
      strftime(stamp, sizeof(stamp), "%Y/%m/%d %H:%M:%S", &local) == 0) {
    stamp[0] = '\0';
  }
  wex_format(entry, sizeof(entry), "%s: %s", stamp, message);
  return strlen(entry);
}

// A sync may take seconds, so it comes when the mutex is free again: no thread waits for another's sync.
void append_running_entry(const char* message) {
  const char* path;
  written_entry written;
  {
    const mutex_lock hold(g_running_mutex);
    path = choose_running_file();
    if (path == nullptr) {
      return;
    }
    char entry[kStampSize + 2 + kMessageSize];
    const size_t length = stamp_entry(entry, message);
    written = append(path, entry, length);
  }
  sync_entry(path, written);
}

// Whether the running log that was written last ends with this message, whatever the time before it.
bool ends_running_log(const char* message) {
  struct stat first = {};
  struct stat second = {};
  const bool one = stat(kRunningLog1, &first) == 0;
  const bool two = stat(kRunningLog2, &second) == 0;
  const bool second_newer = two && (!one || is_older(first, second));
  const char* const path = second_newer ? kRunningLog2 : kRunningLog1;
  const unique_fd log = wex_open_file(path, O_RDONLY);
  const size_t length = strlen(message);
  char end[kMessageSize];
  return log.valid() && wex_is_believed(log.get(), path) &&
         lseek(log.get(), -static_cast<off_t>(length), SEEK_END) >= 0 &&
         safe_read(log.get(), end, length) == static_cast<int32_t>(length) &&
         memcmp(end, message, length) == 0;
}

// ---- The hang ring ----------------------------------------------------------------------------------------

// The ring without its counter file has no next slot, so it begins anew.
void empty_ring(const char* path) {
  wex_dbg(WEX_DBG_PUB, "file: %s not exist!\n", kNotifyCount);
  if (exists(path)) {
    wex_unlink(path);
    sync();
    wex_dbg(WEX_DBG_PUB, "unlink file: %s!\n", path);
  }
}

// Overwrites the entry of `slot` byte for byte; the tail of a longer old entry stays behind the new one.
void write_ring_entry(const char* path, int slot, const char* entry, size_t length) {
  const unique_fd ring = wex_open_own_file(path, O_RDWR, kLogMode);
  if (!ring.valid()) {
    return;
  }
  text_reader old(ring.get());
  char line[kRingLineSize];
  for (int64_t left = kRingLinesPerEntry * slot; left > 0 && old.line(line, sizeof(line)); --left) {
  }
  if (lseek(ring.get(), old.taken(), SEEK_SET) >= 0) {
    write_entry(ring.get(), entry, length);
    fsync(ring.get());
  }
}

bool reboot_refused() {
  char text[kSwitchSize];
  int allowed = 1;
  return wex_read_guarded(kRebootSwitch, text, sizeof(text)) > 0 && read_number(text, &allowed) &&
         allowed == 0 && wex_counts(kRebootSwitch);
}

// The rule that asks for a reboot, by the words that its reason begins with.
int32_t cause_of(const char* reason) {
  constexpr struct {
    const char* words;
    wex_status_reboot cause;
  } kCauses[] = {{"detect process ", WEX_STATUS_REBOOT_SELF_CHECK},
                 {"detect more than ", WEX_STATUS_REBOOT_BURST}};
  for (const auto& known : kCauses) {
    if (strncmp(reason, known.words, strlen(known.words)) == 0) {
      return known.cause;
    }
  }
  return WEX_STATUS_REBOOT_OTHER;
}

priority_mutex g_reboot_line_mutex;  // one at a time
char g_reboot_line[kMessageSize];    // while the line is being written, the writing thread has it
bounded_work g_reboot_line_work;

void write_reboot_line(void* /*unused*/) {
  append_running_entry(g_reboot_line);
}

// The reboot record may be unwritable: the running log names the reason, too, in one line. It was printed
// already. The log's disk may stand still, and keep whoever writes there: a thread of its own does, which is
// not waited for long, and the device restarts all the same. No line where no thread can be started.
void log_reboot(const char* reason, const char* detail) {
  const mutex_lock hold(g_reboot_line_mutex);
  if (!g_reboot_line_work.begin()) {
    return;
  }
  char text[kMessageSize - 16];
  wex_format(text, sizeof text, "%s%s", reason, detail);
  for (size_t end = strlen(text); end > 0 && text[end - 1] == '\n'; --end) {
    text[end - 1] = '\0';
  }
  for (char* at = text; (at = strchr(at, '\n')) != nullptr;) {
    *at = ' ';
  }
  wex_format(g_reboot_line, sizeof g_reboot_line, "Reboot: %s\r\n", text);
  g_reboot_line_work.run(write_reboot_line, nullptr, kRebootLineMs);
}

}  // namespace

void wex_running_log(const char* format, ...) {
  char message[kMessageSize];
  va_list arguments;
  va_start(arguments, format);
  print_message(message, format, arguments);
  va_end(arguments);
  append_running_entry(message);
}

void wex_running_log_once(const char* format, ...) {
  char message[kMessageSize];
  va_list arguments;
  va_start(arguments, format);
  print_message(message, format, arguments);
  va_end(arguments);
  if (!ends_running_log(message)) {
    append_running_entry(message);
  }
}

int wex_openlog(const char* path) {
  unique_fd file = wex_open_own_file(path, O_WRONLY | O_APPEND, kLogMode);
  if (!file.valid()) {
    return -1;
  }
  const mutex_lock hold(g_event_mutex);
  const unique_fd forgotten(g_event_fd);  // an opener who did not close does not cost a descriptor
  g_event_fd = file.release();
  return 0;
}

void wex_log(const char* format, ...) {
  const mutex_lock hold(g_event_mutex);
  if (g_event_fd < 0) {
    return;
  }
  char entry[kEntrySize];
  va_list arguments;
  va_start(arguments, format);
  const size_t length = build_entry(entry, format, arguments);
  va_end(arguments);
  if (entry[0] != ' ') {  // else the time of day could not be made a text, and nothing is written
    write_entry(g_event_fd, entry, length);
  }
}

void wex_closelog(void) {
  const mutex_lock hold(g_event_mutex);
  const unique_fd open_log(g_event_fd);
  g_event_fd = -1;
}

void wex_log_notify_info(const char* path, const char* format, ...) {
  int slot = wex_log_notify_get_count(kNotifyCount);
  if (slot == kCountUnreadable) {
    wex_dbg(WEX_DBG_PUB, "wex_log_notify_get_count error!\n");
    return;
  }
  if (slot == kCountMissing) {
    empty_ring(path);
    slot = 0;
  }
  if (!exists(path)) {
    slot = 0;
    if (wex_open_own_file(path, O_RDWR, kLogMode).valid()) {
      wex_sync_directory_of(path);
    }
  }
  char entry[kEntrySize];
  va_list arguments;
  va_start(arguments, format);
  const size_t length = build_entry(entry, format, arguments);
  va_end(arguments);
  write_ring_entry(path, slot, entry, length);
  if (wex_log_notify_update_count(kNotifyCount, static_cast<int>((int64_t{slot} + 1) % kNotifyRing)) != 0) {
    wex_dbg(WEX_DBG_PUB, "wex_log_notify_update_count error!\n");
  }
}

int wex_log_notify_get_count(const char* path) {
  // Kept: the number in the file is the result even when it is -2 or -1, see docs/decisions.md.
  const unique_fd file = wex_open_file(path, O_RDONLY);
  if (!file.valid() && errno == ENOENT) {
    return kCountMissing;
  }
  if (!file.valid() && wex_counts(path)) {
    return kCountUnreadable;
  }
  if (!file.valid() || !wex_is_believed(file.get(), path)) {
    return 0;  // what a user has put there may say that nothing can be counted
  }
  char text[kNumberSize] = {};
  int count = 0;
  if (safe_read(file.get(), text, sizeof(text) - 1) < 0 || !read_number(text, &count)) {
    return 0;
  }
  return count;
}

int wex_log_notify_update_count(const char* path, int value) {
  char text[16];
  wex_format(text, sizeof(text), "%d", value);
  const size_t length = strlen(text);
  const unique_fd file = wex_open_own_file(path, O_WRONLY, kLogMode);
  if (!file.valid()) {
    return -1;
  }
  const bool maybe_new = is_empty(file.get());
  // Overwritten first and cut afterwards: a power cut in between leaves a number, not an empty file.
  const bool written = safe_write(file.get(), text, length) == static_cast<int32_t>(length) &&
                       ftruncate(file.get(), static_cast<off_t>(length)) == 0 && fsync(file.get()) == 0;
  if (maybe_new) {
    wex_sync_directory_of(path);
  }
  return written ? 0 : -1;
}

void wex_log_record_reboot_info(const char* path, const char* format, ...) {
  char entry[kEntrySize];
  va_list arguments;
  va_start(arguments, format);
  const size_t length = build_entry(entry, format, arguments);
  va_end(arguments);
  append_synced(path, entry, length);
}

void wex_reboot(const char* reason, const char* detail) {
  if (reason == nullptr) {
    return;
  }
  const status_detail cause = {0, 0, 0, cause_of(reason)};
  if ((exists(kNoReboot) && wex_counts(kNoReboot)) || reboot_refused()) {
    wex_status_tell_of(WEX_STATUS_EV_REBOOT_REFUSED, 0, "", cause);
    return;
  }
  wex_status_tell_of(WEX_STATUS_EV_REBOOT_ASKED, 0, "", cause);
  wex_dbg(WEX_DBG_PUB, "wex reboot reason:%s\n", reason);
  safe_write_path(kRebootSeconds, kRebootSecondsText, sizeof(kRebootSecondsText));
  wex_keep_history(reason);
  // Kept: most entries end with an empty line, see docs/decisions.md.
  if (detail != nullptr) {
    wex_log_record_reboot_info(kRebootLog, "%s%s\n", reason, detail);
  } else {
    wex_log_record_reboot_info(kRebootLog, "%s", reason);
  }
  log_reboot(reason, detail != nullptr ? detail : "");
  safe_sleep(kRebootPauseSec);
  reboot(RB_AUTOBOOT);  // at once and without a sync; returns only when the kernel refuses
}

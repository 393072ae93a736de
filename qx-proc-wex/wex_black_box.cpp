// wex_black_box: what led to a restart of the device, and what a hung process was doing, on the disk.
#include "wex_black_box.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <iterator>

#include "bounded_work.h"
#include "dir_walk.h"
#include "guarded_file.h"
#include "mutex_lock.h"
#include "priority_mutex.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_number.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_limits.h"
#include "wex_move_aside.h"
#include "wex_paths.h"
#include "wex_status_image.h"
#include "wex_status_kinds.h"
#include "wex_utils.h"

namespace {

// ---- Text -------------------------------------------------------------------------------------------------

// Lines in a buffer; a line that does not fit is left out, and so are those behind it.
struct page {
  char* text;
  size_t size;
  size_t used;
  bool full;
};

__attribute__((format(printf, 2, 3))) void add_line(page* to, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const size_t room = to->size - to->used;
  const int length = to->full ? -1 : vsnprintf(to->text + to->used, room, format, arguments);
  va_end(arguments);
  if (length < 0 || static_cast<size_t>(length) >= room) {
    to->full = true;
    return;
  }
  // Names are of the programs' choosing: they begin no line and move no cursor.
  char* const begin = to->text + to->used;
  std::replace_if(
      begin, begin + length - 1, [](char letter) { return letter < ' ' || letter > '~'; }, '?');
  to->used += static_cast<size_t>(length);
}

using time_stamp = char[32];

// Of milliseconds since 1970.
void write_time(int64_t wall, time_stamp& text) {
  const auto seconds = static_cast<time_t>(wall / 1000);
  struct tm local = {};
  text[0] = '\0';
  if (localtime_r(&seconds, &local) != nullptr &&
      strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &local) > 0) {
    const size_t used = strlen(text);
    wex_format(text + used, sizeof text - used, ".%03d", static_cast<int>(wall % 1000));
  }
}

int64_t wall_now() {
  return int64_t{time(nullptr)} * 1000;
}

// ---- Files ------------------------------------------------------------------------------------------------

// A new file may take the last block of the disk, so this comes first.
bool has_room() {
  struct statvfs disk = {};
  constexpr unsigned kFilesLeft = 4;  // the record of the reboot needs one; some file systems count none
  return statvfs(kDataDir, &disk) == 0 &&
         static_cast<uint64_t>(disk.f_bavail) * disk.f_frsize >= static_cast<uint64_t>(kBlackBoxFree) &&
         (disk.f_files == 0 || disk.f_favail >= kFilesLeft);
}

// A file that somebody else made, or may read, gets out of the way: not everybody may know what root's
// processes were doing.
unique_fd open_page(const char* path) {
  unique_fd file = wex_open_file(path, O_WRONLY | O_APPEND | O_CREAT, kBlackBoxMode);
  struct stat facts = {};
  if (file.valid() && (fstat(file.get(), &facts) != 0 || facts.st_uid != geteuid() ||
                       (facts.st_mode & 0777 & ~kBlackBoxMode) != 0)) {
    char aside[kPathSize];
    file.reset();
    if (wex_clear_name(path, aside)) {
      file = wex_open_file(path, O_WRONLY | O_APPEND | O_CREAT | O_EXCL, kBlackBoxMode);
    }
  }
  return file;
}

// Makes room for a new file. One that is larger than ours ever are was put there by somebody else, and goes.
// What is in the way of the old one's name and is no file gets aside.
bool turn_page(const char* path, const char* old_path, off_t size) {
  char aside[kPathSize];
  if (size > kBlackBoxMax) {
    return wex_unlink(path) == 0;
  }
  return wex_rename(path, old_path) == 0 ||
         (wex_clear_name(old_path, aside) && wex_rename(path, old_path) == 0);
}

constexpr size_t kTextSize = kBlackBoxMax / 2;

// A text and its file. While it is being written, which may take long, the writing thread has the text. The
// text stands apart, or the program's file would hold all its zeros.
struct kept_file {
  const char* path;
  const char* old_path;
  char* text;  // of kTextSize
  size_t length;
  bounded_work writing;
};

// Appends the text to a file of bounded size: a full one gives its place to a new one, and stays as the old
// one.
void append_text(const kept_file& one) {
  unique_fd file;
  struct stat facts = {};
  if (has_room()) {
    file = open_page(one.path);
  }
  if (!file.valid() || fstat(file.get(), &facts) != 0) {
    return;
  }
  const bool full = facts.st_size + static_cast<off_t>(one.length) > kBlackBoxMax;
  if (full) {
    if (!turn_page(one.path, one.old_path, facts.st_size)) {
      return;
    }
    file = open_page(one.path);
  }
  if (file.valid()) {
    safe_write(file.get(), one.text, one.length);
    fsync(file.get());
    if (full || facts.st_size == 0) {
      wex_sync_directory_of(one.path);
    }
  }
}

// ---- Work that may take long ------------------------------------------------------------------------------

void append_on_own_thread(void* of) {
  append_text(*static_cast<kept_file*>(of));
}

// Writes the text that was put in since begin(). A disk that stands still keeps one thread, and nobody else.
void keep(kept_file* one, size_t length) {
  one->length = length;
  one->writing.run(append_on_own_thread, one, kBlackBoxWriteMs);
}

// ---- History ----------------------------------------------------------------------------------------------

priority_mutex g_history_mutex;  // one history at a time
char g_history_text[kTextSize];  // while it is being written, the writing thread has it
kept_file g_history = {kHistory, kHistoryOld, g_history_text, 0, {}};

void add_event(page* to, const wex_status_event& event) {
  time_stamp when;
  write_time(event.wall, when);
  add_line(to, "%s %s %.32s pid %d to %d domain %d exit %04x value %d\n", when, kStatusKinds[event.kind].name,
           event.name, event.pid, event.new_pid, event.domain, event.exit_code, event.value);
}

void add_parked(page* to, const wex_status_slot& slot) {
  char when[48] = "";
  if (slot.until > 0) {  // else nobody knows
    const int64_t left = std::max<int64_t>(slot.until - wex_clock_ms(), 0);
    wex_format(when, sizeof when, " tried again in %d s", static_cast<int>(left / 1000));
  }
  add_line(to, "parked: %.32s pid %d domain %d restarts %u exit %04x%s\n", slot.name, slot.pid, slot.domain,
           slot.restarts, slot.last_exit, when);
}

// What is left out is said, or the list would look complete.
void add_all_parked(page* to, const status_words& words) {
  int parked = 0;
  for (uint32_t number = 0; number < words.slots_used; ++number) {
    wex_status_slot slot;
    if (!wex_status_copy_slot(number, &slot) || slot.state != WEX_STATUS_PARKED) {
      continue;
    }
    if (++parked <= kHistoryParked) {
      add_parked(to, slot);
    }
  }
  const int more = std::max(parked - kHistoryParked, 0);
  const uint32_t hidden = words.counters[WEX_STATUS_HIDDEN_TROUBLES];
  if (more > 0 || hidden > 0) {
    add_line(to,
             "left out: %d parked programs, and %u parked, postponed or down ones that the table has no room "
             "for\n",
             more, hidden);
  }
}

void describe_history(page* to, const char* reason) {
  time_stamp when;
  write_time(wall_now(), when);
  add_line(to, "%s wex restarts the device: %.*s\n", when, static_cast<int>(strcspn(reason, "\n")), reason);
  status_words words;
  wex_status_copy_words(&words);
  for (uint32_t number = words.event_next - kHistoryEvents; number != words.event_next; ++number) {
    wex_status_event event;
    if (wex_status_copy_event(number, &event)) {
      add_event(to, event);
    }
  }
  add_all_parked(to, words);
}

// ---- Hung process -----------------------------------------------------------------------------------------

// What the looking thread has seen, for the watchdog: as much as `used` says never changes any more.
struct seen_thread {
  int32_t tid;
  size_t begin;
  size_t end;
};
char g_seen[kBlackBoxMax / 2];
seen_thread g_threads[kHungThreads];
std::atomic<int> g_threads_seen{0};
bounded_work g_look;  // one that is stuck in the kernel keeps the buffers
std::atomic<bool> g_timed_out{false};
// Written by the watchdog while nobody looks, read by the looking thread that it starts then.
int32_t g_hung_pid = 0;
int32_t g_hung_tid = 0;
// Watchdog's thread only.
bool g_seen_any = false;
int g_threads_noted = 0;  // the first of those seen, each with whether it is watched
bool g_watched[kHungThreads];

// A file of the thread below /proc, or "" when it cannot be read.
template <size_t kSize>
void read_fact(int32_t pid, int32_t tid, const char* name, char (&text)[kSize]) {
  char path[kPathSize];
  text[0] = '\0';
  wex_format(path, sizeof path, kProcTaskFileFmt, pid, tid, name);
  if (wex_read_to_buf(path, text, sizeof text) < 0) {
    text[0] = '\0';
  }
  const size_t length = strlen(text);
  if (length > 0 && text[length - 1] == '\n') {
    text[length - 1] = '\0';
  }
}

// State and processor time, in clock ticks, of a stat line. The name before them may hold anything.
void read_times(const char* stat, char* state, int64_t* ticks) {
  const char* at = strrchr(stat, ')');
  *state = '?';
  *ticks = 0;
  if (at == nullptr || at[1] == '\0' || at[2] == '\0') {
    return;
  }
  *state = at[2];
  at += 3;
  constexpr int kBeforeTimes = 10;  // fields between state and utime
  for (int field = 0; at != nullptr && field <= kBeforeTimes; ++field) {
    at = strchr(at, ' ');
    at = at != nullptr ? at + 1 : nullptr;
  }
  int64_t user = 0;
  int64_t kernel = 0;
  if (at != nullptr && scan_integer(&at, &user) && scan_integer(&at, &kernel)) {
    *ticks = user + kernel;
  }
}

void describe_thread(page* to, int32_t pid, int32_t tid) {
  char stat[512];
  char name[32];
  char call[192];
  char channel[64];
  char stack[1024];
  read_fact(pid, tid, "stat", stat);
  read_fact(pid, tid, "comm", name);
  read_fact(pid, tid, "wchan", channel);
  read_fact(pid, tid, "syscall", call);
  read_fact(pid, tid, "stack", stack);
  char state = '?';
  int64_t ticks = 0;
  read_times(stat, &state, &ticks);
  const auto per_second = std::max<int64_t>(sysconf(_SC_CLK_TCK), 1);
  add_line(to, "thread %d %s: state %c, processor %d ms, waits in %s, call %s\n", tid, name, state,
           static_cast<int>(std::min<int64_t>(ticks * 1000 / per_second, INT_MAX)), channel, call);
  for (char* line = stack; *line != '\0';) {
    const size_t length = strcspn(line, "\n");
    add_line(to, "  %.*s\n", static_cast<int>(length), line);
    line += length + (line[length] != '\0' ? 1 : 0);
  }
}

void look_at_thread(page* to, int32_t tid) {
  const int number = g_threads_seen.load(std::memory_order_relaxed);
  const size_t begin = to->used;
  describe_thread(to, g_hung_pid, tid);
  g_threads[number] = {tid, begin, to->used};
  g_threads_seen.store(number + 1, std::memory_order_release);
}

// A thread of its own, for /proc may make whoever asks wait as long as the process holds a lock of the
// kernel. The silent thread comes first.
void look_at_threads(void* /*unused*/) {
  page to = {g_seen, sizeof g_seen, 0, false};
  look_at_thread(&to, g_hung_tid);
  char path[kPathSize];
  wex_format(path, sizeof path, kProcTasksFmt, g_hung_pid);
  dir_walk tasks(path);
  for (const dirent* entry = tasks.valid() ? tasks.next() : nullptr;
       entry != nullptr && g_threads_seen.load(std::memory_order_relaxed) < kHungThreads &&
       !g_timed_out.load();
       entry = tasks.next()) {
    const int32_t tid =
        entry->d_name[0] >= '0' && entry->d_name[0] <= '9' ? text_to_number(entry->d_name) : 0;
    if (tid > 0 && tid != g_hung_tid) {
      look_at_thread(&to, tid);
    }
  }
}

}  // namespace

void wex_keep_history(const char* reason) {
  const mutex_lock hold(g_history_mutex);
  if (!g_history.writing.begin()) {
    return;
  }
  page to = {g_history.text, kTextSize, 0, false};
  describe_history(&to, reason);
  keep(&g_history, to.used);
}

void wex_look_at_hung(int32_t pid, int32_t tid) {
  g_seen_any = false;
  g_threads_noted = 0;
  if (pid < 1 || !g_look.begin()) {
    return;
  }
  g_hung_pid = pid;
  g_hung_tid = tid;
  g_threads_seen.store(0);
  g_timed_out.store(false);
  g_seen_any = g_look.run(look_at_threads, nullptr, kHungLookMs);
  g_timed_out.store(true);
}

// A look that did not end in time may go on seeing threads: they are left out.
void wex_note_watched(bool (*is_watched)(int32_t tid)) {
  g_threads_noted = g_seen_any ? g_threads_seen.load(std::memory_order_acquire) : 0;
  for (int number = 0; number < g_threads_noted; ++number) {
    g_watched[number] = is_watched(g_threads[number].tid);
  }
}

void wex_keep_hung() {
  static char text[kTextSize];
  static kept_file hung = {kHung, kHungOld, text, 0, {}};
  if (!g_seen_any || !hung.writing.begin()) {
    return;
  }
  page to = {hung.text, kTextSize, 0, false};
  time_stamp when;
  write_time(wall_now(), when);
  add_line(&to, "%s process %d, thread %d hung; %d threads seen\n", when, g_hung_pid, g_hung_tid,
           g_threads_noted);
  for (int number = 0; number < g_threads_noted; ++number) {
    const seen_thread& thread = g_threads[number];
    add_line(&to, "%s\n", g_watched[number] ? "watched:" : "not watched:");
    const size_t length = thread.end - thread.begin;
    if (to.size - to.used > length) {
      memcpy(to.text + to.used, g_seen + thread.begin, length);
      to.used += length;
    }
  }
  keep(&hung, to.used);
}

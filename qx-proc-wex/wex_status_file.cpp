// wex_status_file: the status table that others read.
#define WEX_MODULE "wex_status_file"
#include "wex_status_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <utility>

#include "close_on_exec.h"
#include "guarded_file.h"
#include "priority_mutex.h"
#include "text_buffer.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_move_aside.h"
#include "wex_paths.h"
#include "wex_status_image.h"
#include "wex_status_layout.h"
#include "wex_strict.h"
#include "wex_utils.h"

namespace {

constexpr const char* kThreadNames[] = {
    "wex",      "wex_process_net", "wex_process_dom", "wex_thread_noti", "wex_inotify_for", "wex_delay_resta",
    "wex_alarm"};
static_assert(std::size(kThreadNames) == kStatusThreads, "a thread without its kernel name");

// A thread's heartbeat, as seen at the last pass.
struct heartbeat {
  uint32_t turn;
  wex_status_thread shown;
};

struct table {
  unique_fd file;
  bool opened;  // this process is the daemon, and shows what it does
  bool begun;   // the image goes on from an earlier table, or has begun anew
  int error;    // why it could not be made or not be written; 0 when all is well
  bool error_logged;
  int64_t next_try;     // to make it, when it could not be made
  uint32_t event_next;  // the first event that is not in the file
  status_words words;   // as in the file
  wex_status_head head;
  heartbeat threads[kStatusThreads];
};

priority_mutex g_file_mutex;
table g_table WEX_TSA(guarded_by(g_file_mutex));

// ---- Writing ----------------------------------------------------------------------------------------------

bool write_at(int fd, const void* bytes, size_t size, size_t offset) {
  ssize_t written;
  do {
    written = pwrite(fd, bytes, size, static_cast<off_t>(offset));
  } while (written < 0 && errno == EINTR);
  if (written >= 0 && written < static_cast<ssize_t>(size)) {
    errno = ENOSPC;
  }
  return written == static_cast<ssize_t>(size);
}

// A part that begins with its `seq`, an even number: readers see an odd one while the rest changes.
template <typename Part>
bool write_part(int fd, const Part& part, size_t offset) {
  static_assert(offsetof(Part, seq) == 0 && sizeof part.seq == 4, "the sequence number comes first");
  constexpr size_t kSeqSize = sizeof part.seq;
  const uint32_t odd = part.seq - 1;
  return write_at(fd, &odd, kSeqSize, offset) &&
         write_at(fd, reinterpret_cast<const char*>(&part) + kSeqSize, sizeof part - kSeqSize,
                  offset + kSeqSize) &&
         write_at(fd, &part.seq, kSeqSize, offset);
}

// The fields before the head's sequence number.
bool write_identity(int fd, wex_status_head* head) {
  constexpr size_t kSeqAt = offsetof(wex_status_head, seq);
  const uint32_t odd = head->seq + 1;
  head->seq += 2;
  return write_at(fd, &odd, sizeof odd, kSeqAt) && write_at(fd, head, kSeqAt, 0) &&
         write_at(fd, &head->seq, sizeof head->seq, kSeqAt);
}

bool write_event(int fd, const wex_status_event& event) {
  return write_part(fd, event, WEX_STATUS_EVENTS_AT + event.number % WEX_STATUS_EVENTS * sizeof event);
}

bool write_new_events(table* to, uint32_t next) {
  if (next - to->event_next > WEX_STATUS_EVENTS) {
    to->event_next = next - WEX_STATUS_EVENTS;
  }
  for (; to->event_next != next; ++to->event_next) {
    wex_status_event event;
    if (!wex_status_copy_event(to->event_next, &event)) {
      continue;  // overwritten meanwhile: the next pass writes the one that has its place
    }
    event.seq = (event.number / WEX_STATUS_EVENTS + 1) * 2;
    if (!write_event(to->file.get(), event)) {
      return false;
    }
  }
  return true;
}

bool is_trouble(const wex_status_slot& slot) {
  return slot.state == WEX_STATUS_PARKED || slot.state == WEX_STATUS_WAITING || slot.state == WEX_STATUS_DOWN;
}

// Counts the slots that could not be written, for there is no memory for them, as not shown. False when there
// is one.
bool write_changed_slots(int fd, status_words* words) {
  constexpr char kNothing[8] = {};  // no sequence number, free
  uint32_t failed[WEX_STATUS_SLOTS / 32] = {};
  uint32_t failures = 0;  // of free slots, too: an earlier registration is shown there
  uint32_t count = 0;
  wex_status_slot slot;
  for (int32_t number = wex_status_take_slot(&slot); number >= 0; number = wex_status_take_slot(&slot)) {
    const size_t offset = WEX_STATUS_HEAD_SIZE + static_cast<size_t>(number) * sizeof slot;
    if (!write_part(fd, slot, offset)) {
      write_at(fd, kNothing, sizeof kNothing, offset);
      failed[number / 32] |= 1U << (number % 32);
      ++failures;
      count += slot.state != WEX_STATUS_FREE ? 1 : 0;
      words->counters[WEX_STATUS_HIDDEN_TROUBLES] += is_trouble(slot) ? 1 : 0;
    }
  }
  for (int32_t number = 0; failures > 0 && number < WEX_STATUS_SLOTS; ++number) {
    if ((failed[number / 32] >> (number % 32) & 1U) != 0) {
      wex_status_return_slot(number);
    }
  }
  words->counters[WEX_STATUS_NOT_SHOWN] += count;
  return count == 0;
}

bool write_words(table* to, const status_words& words) {
  const int fd = to->file.get();
  to->head.event_next = words.event_next;
  to->head.slots_used = words.slots_used;
  const bool done =
      write_at(fd, &words.slots_used, sizeof words.slots_used, offsetof(wex_status_head, slots_used)) &&
      write_at(fd, &words.event_next, sizeof words.event_next, offsetof(wex_status_head, event_next)) &&
      write_at(fd, words.counters, sizeof words.counters, offsetof(wex_status_head, counters));
  if (done) {
    to->words = words;
  }
  return done;
}

// What a thread's turns say about it: a new one means that it came round since the last pass.
bool write_heartbeat(int fd, heartbeat* beat, int which, uint32_t turn, int32_t tid, int64_t now) {
  wex_status_thread& shown = beat->shown;
  if (tid == 0 || (turn == beat->turn && tid == shown.tid)) {
    return true;
  }
  shown.seq += 2;
  shown.tid = tid;
  wex_copy_text(shown.name, sizeof shown.name, kThreadNames[which]);
  shown.last_pass = now;
  shown.busy_since = turn % 2 != 0 ? now : 0;
  const size_t offset = offsetof(wex_status_head, threads) + static_cast<size_t>(which) * sizeof shown;
  const bool done = write_part(fd, shown, offset);
  beat->turn = done ? turn : turn - 1;  // what could not be written is written at the next pass
  return done;
}

bool write_heartbeats(table* to, const status_words& words) {
  const int64_t now = wex_clock_ms();
  bool done = true;
  for (int which = 0; which < kStatusThreads; ++which) {
    const auto& thread = words.threads[which];
    done = write_heartbeat(to->file.get(), &to->threads[which], which, thread.turn, thread.tid, now) && done;
  }
  return done;
}

// Everything is written again at this pass.
void forget_written(table* to) {
  to->event_next = to->head.event_next - WEX_STATUS_EVENTS;
  to->words = {};
  for (heartbeat& beat : to->threads) {
    beat.turn = 0;
    beat.shown.tid = -1;
  }
  wex_status_return_all();
}

// ---- Making the table -------------------------------------------------------------------------------------

void fill_identity(table* to) {
  wex_status_head& head = to->head;
  wex_fill_layout(&head);
  head.generation = 1;
  head.flags = wex_strict().on ? WEX_STATUS_STRICT : 0;
  head.daemon_pid = static_cast<int32_t>(getpid());
  char state = 0;
  wex_proc_stat(head.daemon_pid, &state, &head.daemon_start);
  head.started_wall = time(nullptr);
  head.started_monotonic = wex_clock_ms();
  char boot[sizeof head.boot_id] = {};
  wex_read_to_buf(kBootId, boot, sizeof boot);
  boot[strcspn(boot, "\n")] = '\0';
  wex_copy_text(head.boot_id, sizeof head.boot_id, boot);
  wex_copy_text(head.daemon_version, sizeof head.daemon_version, WEX_VERSION);
}

bool has_same_layout(const wex_status_head& one, const wex_status_head& other) {
  constexpr size_t kLayout = offsetof(wex_status_head, generation);
  return memcmp(&one, &other, kLayout) == 0;
}

bool read_at(int fd, void* bytes, size_t size, size_t offset) {
  ssize_t got;
  do {
    got = pread(fd, bytes, size, static_cast<off_t>(offset));
  } while (got < 0 && errno == EINTR);
  return got == static_cast<ssize_t>(size);
}

bool is_ours(int fd) {
  struct stat facts = {};
  return fstat(fd, &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_uid == geteuid() && facts.st_nlink == 1;
}

bool has_right_form(int fd) {
  struct stat facts = {};
  return fstat(fd, &facts) == 0 && (facts.st_mode & 07777) == kStatusTableMode &&
         facts.st_size == WEX_STATUS_FILE_SIZE;
}

bool check_value(uint32_t kind, int32_t value) {
  switch (kind) {
    case WEX_STATUS_EV_REBOOT_ASKED:
    case WEX_STATUS_EV_REBOOT_REFUSED:
      return value >= WEX_STATUS_REBOOT_OTHER && value <= WEX_STATUS_REBOOT_BURST;
    case WEX_STATUS_EV_PARKED:
    case WEX_STATUS_EV_BURST:
      return value >= 0;
    default:
      return true;
  }
}

// Of -1 there are records, for which no process was found, and of lesser numbers those that have given their
// pid up. An exit code has the form of wait(2), 16 bits.
bool check_values(const wex_status_event& event) {
  return event.new_pid >= -1 && event.domain >= -1 && event.domain <= kLastTakeDownDomain &&
         event.exit_code <= UINT16_MAX && check_value(event.kind, event.value);
}

// An event of an earlier daemon is taken when each of its fields can be right. Its name is shown to people.
bool check_event(wex_status_event* event, uint32_t index, const wex_status_head& before, int64_t now) {
  const uint32_t age = before.event_next - event->number;
  if (event->seq % 2 != 0 || age < 1 || age > WEX_STATUS_EVENTS ||
      event->number % WEX_STATUS_EVENTS != index || event->kind <= WEX_STATUS_EV_NONE ||
      event->kind >= WEX_STATUS_EV_KINDS || event->monotonic < 0 || event->monotonic > now ||
      event->wall < 0 || before.generation - event->generation > INT32_MAX || !check_values(*event)) {
    return false;
  }
  for (char& letter : event->name) {
    letter = letter != '\0' && (letter < ' ' || letter > '~') ? '?' : letter;
  }
  event->reserved = 0;
  return true;
}

// The ring goes on where the earlier daemon's ended. What it left half-written is emptied.
bool take_over_events(int fd, const wex_status_head& before, int64_t now) {
  for (uint32_t index = 0; index < WEX_STATUS_EVENTS; ++index) {
    wex_status_event event;
    const size_t offset = WEX_STATUS_EVENTS_AT + index * sizeof event;
    if (read_at(fd, &event, sizeof event, offset) && check_event(&event, index, before, now)) {
      wex_status_restore(event);
    } else {
      event = {};
      if (!write_at(fd, &event, sizeof event, offset)) {
        return false;
      }
    }
  }
  return true;
}

// Slots are written before `used` says so: a daemon that was killed may have begun some behind it.
bool clear_slots(int fd, uint32_t used) {
  constexpr wex_status_slot kEmpty = {};
  for (uint32_t number = 0; number < WEX_STATUS_SLOTS; ++number) {
    const size_t offset = WEX_STATUS_HEAD_SIZE + number * sizeof kEmpty;
    uint32_t seq = 0;
    if (number >= used && (!read_at(fd, &seq, sizeof seq, offset) || seq == 0)) {
      return true;
    }
    if (!write_at(fd, &kEmpty, sizeof kEmpty, offset)) {
      return false;
    }
  }
  return true;
}

// Counters and threads are this daemon's own.
bool clear_counts(int fd) {
  constexpr size_t kFrom = offsetof(wex_status_head, counters);
  constexpr char kNothing[sizeof(wex_status_head) - kFrom] = {};
  return write_at(fd, kNothing, sizeof kNothing, kFrom);
}

// Goes on with the table of an earlier daemon of the same kind. False when it is to be replaced.
bool take_over(table* to, int fd) {
  wex_status_head before = {};
  if (!has_right_form(fd) || !read_at(fd, &before, sizeof before, 0) || !has_same_layout(before, to->head) ||
      memcmp(before.boot_id, to->head.boot_id, sizeof before.boot_id) != 0) {
    return false;
  }
  to->head.generation = before.generation + 1;
  to->head.seq = (before.seq | 1U) + 1;
  to->head.event_next = before.event_next;
  wex_status_begin(to->head.generation, before.event_next);
  to->event_next = before.event_next - WEX_STATUS_EVENTS;  // all are written again, as they were checked
  return take_over_events(fd, before, to->head.started_monotonic) && clear_slots(fd, before.slots_used) &&
         clear_counts(fd);
}

// Head and ring have their memory from the beginning.
bool fill_new(int fd) {
  constexpr char kNothing[4096] = {};
  if (fchmod(fd, kStatusTableMode) != 0 || ftruncate(fd, WEX_STATUS_FILE_SIZE) != 0 ||
      !write_at(fd, kNothing, sizeof kNothing, 0)) {
    return false;
  }
  for (size_t at = WEX_STATUS_EVENTS_AT; at < WEX_STATUS_FILE_SIZE; at += sizeof kNothing) {
    if (!write_at(fd, kNothing, std::min(sizeof kNothing, WEX_STATUS_FILE_SIZE - at), at)) {
      return false;
    }
  }
  return true;
}

// A new table; the memory of one that cannot be filled is given back.
unique_fd make_new(int parent, const char* name) {
  unique_fd file(openat(parent, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (file.valid() && !fill_new(file.get())) {
    const int cause = errno;
    unlinkat(parent, name, 0);
    file.reset();
    errno = cause;
  }
  return file;
}

bool make_room() {
  char to[kPathSize];
  if (!wex_clear_name(kStatusTable, to)) {
    return false;
  }
  if (to[0] != '\0') {
    wex_running_log("%s was in the way and is now %s.\r\n", kStatusTable, to);
  } else {
    wex_running_log("%s was in the way and was removed.\r\n", kStatusTable);
  }
  return true;
}

// Opens what lies at the name when it may be a table of ours; else clears the name.
unique_fd open_earlier(int parent, const char* name) {
  unique_fd file(openat(parent, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.valid() && is_ours(file.get())) {
    return file;
  }
  const bool ours_to_clear = file.valid() || (errno != ENOENT && errno != EMFILE && errno != ENFILE &&
                                              errno != ENOMEM && errno != EINTR);
  file.reset();
  if (ours_to_clear) {
    make_room();
  }
  return file;
}

// A table of another kind, a damaged one, or one that was never finished is of no use any more. What is no
// table is kept for its owner.
void replace(int fd, int parent, const char* name) {
  constexpr char kUnfinished[sizeof wex_status_head::magic] = {};
  char magic[sizeof wex_status_head::magic] = {};
  if (read_at(fd, magic, sizeof magic, 0) &&
      (memcmp(magic, WEX_STATUS_MAGIC, sizeof magic) == 0 || memcmp(magic, kUnfinished, sizeof magic) == 0)) {
    unlinkat(parent, name, 0);
  } else {
    make_room();
  }
}

// False with errno.
bool make_table(table* to) {
  char name[NAME_MAX + 1];
  const unique_fd parent = open_trusted_parent(kStatusTable, name);
  if (!parent.valid()) {
    return false;
  }
  unique_fd file = open_earlier(parent.get(), name);
  if (file.valid() && (to->begun || !take_over(to, file.get()))) {
    replace(file.get(), parent.get(), name);
    file.reset();
  }
  if (!file.valid()) {
    file = make_new(parent.get(), name);
  }
  to->file = std::move(file);
  if (to->file.valid()) {
    confirm_close_on_exec(to->file.get());
  }
  return to->file.valid();
}

// ---- One pass ---------------------------------------------------------------------------------------------

// Not while the daemon starts, whose own lines come first.
void log_failure(table* of) {
  if (of->error != 0 && !of->error_logged) {
    if (of->file.valid()) {
      wex_running_log("%s cannot be written, not all is shown: %s.\r\n", kStatusTable, strerror(of->error));
    } else {
      wex_running_log("%s cannot be made, what wex does is not shown: %s.\r\n", kStatusTable,
                      strerror(of->error));
    }
  }
  of->error_logged = of->error != 0;
}

void try_to_make(table* to) {
  to->next_try = wex_clock_ms() + kStatusRetryMs;
  if (!make_table(to) || !write_identity(to->file.get(), &to->head)) {
    to->error = errno;
    to->file.reset();
  }
}

// Whether the table has its name and its length; one that was cut short is filled again, one that was removed
// is made anew.
bool is_whole(table* to) {
  struct stat facts = {};
  struct stat named = {};
  if (!to->file.valid() || fstat(to->file.get(), &facts) != 0 || lstat(kStatusTable, &named) != 0 ||
      named.st_dev != facts.st_dev || named.st_ino != facts.st_ino) {
    return false;
  }
  if (facts.st_size == WEX_STATUS_FILE_SIZE) {
    return true;
  }
  forget_written(to);
  return ftruncate(to->file.get(), WEX_STATUS_FILE_SIZE) == 0 && write_identity(to->file.get(), &to->head);
}

void show_changes(table* to) {
  status_words words;
  wex_status_copy_words(&words);
  const bool all_slots = write_changed_slots(to->file.get(), &words);
  const bool done =
      write_new_events(to, words.event_next) && write_heartbeats(to, words) &&
      (memcmp(&words, &to->words, offsetof(status_words, threads)) == 0 || write_words(to, words));
  to->error = done && all_slots ? 0 : errno;
}

void publish(table* to) {
  wex_status_set_clock();
  if (!is_whole(to)) {
    to->file.reset();
    if (wex_clock_ms() < to->next_try) {
      return;
    }
    forget_written(to);
    try_to_make(to);
  }
  if (to->file.valid()) {
    show_changes(to);
  }
}

}  // namespace

void wex_status_open() {
  wex_status_set_clock();
  const mutex_lock hold(g_file_mutex);
  g_table.opened = true;
  fill_identity(&g_table);
  wex_status_begin(g_table.head.generation, 0);
  try_to_make(&g_table);
  g_table.begun = true;
  wex_status_tell_of(WEX_STATUS_EV_DAEMON_STARTED, g_table.head.daemon_pid, "wex");
  publish(&g_table);
}

void wex_status_publish() {
  const mutex_lock hold(g_file_mutex);
  if (g_table.opened) {
    publish(&g_table);
    log_failure(&g_table);
  }
}

void wex_status_end() {
  const mutex_lock hold(g_file_mutex);
  if (!g_table.opened) {
    return;
  }
  wex_status_tell_of(WEX_STATUS_EV_DAEMON_ENDED, g_table.head.daemon_pid, "wex");
  publish(&g_table);
  g_table.head.flags |= WEX_STATUS_ENDED;
  if (g_table.file.valid()) {
    write_identity(g_table.file.get(), &g_table.head);
  }
  g_table.opened = false;
}

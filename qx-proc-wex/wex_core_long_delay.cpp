// wex_core, long restart delays: tells in the running log which programs want their restarts delayed by more
// than an hour, for every restart of every program waits behind such a one.
//
// The control server only leaves a note, for it must not wait for a disk; the delay thread writes. Any user
// can register as often as he likes, under any command line: one line a minute is written for all programs
// together, and the notes wait for it in the order in which they came. The running log is small, and what it
// says about crashes must not be pushed out. A program that is noted already has no second note, and while
// all notes wait, no other program is noted.
#define WEX_MODULE "wex_core"
#include "wex_core_long_delay.h"

#include <algorithm>
#include <cstring>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "text_buffer.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_log.h"

namespace {

struct note {
  char program[64];  // the first word of its command line, as far as it fits
  int32_t pid;
  int32_t delay;
};

struct waiting_notes {
  note notes[kLongDelayNotes];
  int count;
  bool told;        // once at least, last at:
  int32_t told_at;  // monotonic seconds
};

priority_mutex g_mutex;
waiting_notes g_waiting WEX_TSA(guarded_by(g_mutex));

// The program's own note, else a new one at the end; null when there is no room.
note* find_note(const char* program) WEX_TSA(requires_capability(g_mutex)) {
  note* const end = g_waiting.notes + g_waiting.count;
  note* const own = std::find_if(
      g_waiting.notes, end, [program](const note& entry) { return strcmp(entry.program, program) == 0; });
  if (own != end) {
    return own;
  }
  if (g_waiting.count == kLongDelayNotes) {
    return nullptr;
  }
  ++g_waiting.count;
  wex_copy_text(end->program, sizeof end->program, program);
  return end;
}

// Takes the note that has waited longest, if a line may be written now.
bool take_note(note* out) {
  const int32_t now = wex_clock_now();
  const mutex_lock hold(g_mutex);
  if (g_waiting.count == 0 ||
      (g_waiting.told && static_cast<int64_t>(now) - g_waiting.told_at < kLongDelayToldSec)) {
    return false;
  }
  *out = g_waiting.notes[0];
  std::copy(g_waiting.notes + 1, g_waiting.notes + g_waiting.count, g_waiting.notes);
  --g_waiting.count;
  g_waiting.told = true;
  g_waiting.told_at = now;
  return true;
}

}  // namespace

void wex_note_long_delay(const char* process, int32_t pid, int32_t delay) {
  char program[sizeof(note::program)];
  wex_copy_text(program, sizeof program, process);
  program[strcspn(program, " ")] = '\0';
  const mutex_lock hold(g_mutex);
  note* const entry = find_note(program);
  if (entry != nullptr) {
    entry->pid = pid;
    entry->delay = delay;
  }
}

void wex_tell_long_delays() {
  note entry = {};
  if (take_note(&entry)) {
    wex_running_log("Process %d wants its restarts delayed by %d s.\r\n", entry.pid, entry.delay);
  }
}

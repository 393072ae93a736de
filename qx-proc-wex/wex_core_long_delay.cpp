// wex_core, long restart delays: logs which programs ask for restarts delayed by more than an hour. The exit
// handler sleeps such a delay with the registry locked, so all other restarts wait for it.
//
// The control server must not wait for a disk: it only notes the program, and the delay thread writes the
// line. Any user can register as often as he likes, under any command line, and the running log is small: so
// one line a minute is written for all programs together, in the order of the notes. A program has one note
// at a time, and while all notes are in use, no other program is noted.
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
  bool logged;        // at least one line was written, the last one at:
  int32_t logged_at;  // monotonic seconds
};

priority_mutex g_mutex;
waiting_notes g_waiting WEX_TSA(guarded_by(g_mutex));

// The note that the program has, else a new one at the end; null when there is no room.
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
      (g_waiting.logged && static_cast<int64_t>(now) - g_waiting.logged_at < kLongDelayLogSec)) {
    return false;
  }
  *out = g_waiting.notes[0];
  std::copy(g_waiting.notes + 1, g_waiting.notes + g_waiting.count, g_waiting.notes);
  --g_waiting.count;
  g_waiting.logged = true;
  g_waiting.logged_at = now;
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

void wex_log_long_delays() {
  note entry = {};
  if (take_note(&entry)) {
    wex_running_log("Process %d wants its restarts delayed by %d s.\r\n", entry.pid, entry.delay);
  }
}

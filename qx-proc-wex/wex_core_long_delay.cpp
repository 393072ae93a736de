// wex_core, long restart delays: tells in the running log which programs want their restarts delayed by more
// than an hour, for every restart of every program waits behind such a one.
//
// The control server only leaves a note, for it must not wait for a disk; the delay thread writes. Any user
// can register as often as he likes, so a program is told once a minute at most, and no more than the notes'
// number of programs: the running log is small, and what it says about crashes must not be pushed out.
#define WEX_MODULE "wex_core"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "wex_core.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_utils.h"

namespace {

struct note {
  char program[64];  // its command line, as far as it fits; empty in a note that was never used
  int32_t pid;
  int32_t delay;
  bool waiting;     // to be told
  bool told;        // once at least, last at:
  int32_t told_at;  // monotonic seconds
};

note g_notes[kLongDelayNotes];
pthread_mutex_t g_mutex;
pthread_once_t g_mutex_made = PTHREAD_ONCE_INIT;

void make_mutex() {
  create_priority_mutex(&g_mutex, PTHREAD_MUTEX_NORMAL);
}

bool rests(const note& entry, int32_t now) {
  return entry.told && static_cast<int64_t>(now) - entry.told_at < kLongDelayToldSec;
}

// The program's own note, else one that nobody needs any more; null when there is none.
note* find_note(const char* program, int32_t now) {
  note* const own = std::find_if(std::begin(g_notes), std::end(g_notes), [program](const note& entry) {
    return strcmp(entry.program, program) == 0;
  });
  if (own != std::end(g_notes)) {
    return own;
  }
  note* const unused = std::find_if(std::begin(g_notes), std::end(g_notes), [now](const note& entry) {
    return !entry.waiting && !rests(entry, now);
  });
  return unused == std::end(g_notes) ? nullptr : unused;
}

// Takes the next note that is to be told now.
bool take_note(note* out, int32_t now) {
  const mutex_lock hold(g_mutex);
  note* const due = std::find_if(std::begin(g_notes), std::end(g_notes),
                                 [now](const note& entry) { return entry.waiting && !rests(entry, now); });
  if (due == std::end(g_notes)) {
    return false;
  }
  due->waiting = false;
  due->told = true;
  due->told_at = now;
  *out = *due;
  return true;
}

}  // namespace

void wex_note_long_delay(const char* process, int32_t pid, int32_t delay) {
  pthread_once(&g_mutex_made, make_mutex);
  char program[sizeof(note::program)];
  wex_copy_text(program, sizeof program, process);
  const int32_t now = wex_clock_now();
  const mutex_lock hold(g_mutex);
  note* const entry = find_note(program, now);
  if (entry == nullptr) {
    return;
  }
  if (strcmp(entry->program, program) != 0) {
    *entry = {};
    memcpy(entry->program, program, sizeof program);
  }
  entry->pid = pid;
  entry->delay = delay;
  entry->waiting = true;
}

void wex_tell_long_delays() {
  pthread_once(&g_mutex_made, make_mutex);
  const int32_t now = wex_clock_now();
  note entry = {};
  while (take_note(&entry, now)) {
    wex_running_log("Process %d wants its restarts delayed by %d s.\r\n", entry.pid, entry.delay);
  }
}

// wex_status_image: what the daemon tells about itself, as an image of the table that readers see
// (wex_status.h).
//
// The places that do something say so here with one short call: it changes the image in the daemon's own
// memory, without a system call but that for the time, where that is one. The main thread, which brings the
// image to the readers (wex_status_file), is woken when the thread that made the change has done its piece of
// work. A registration's record keeps nothing but the number of its slot. Any thread; callers that pass a
// record hold the chain it is in. Not in a child between fork and exec.
#pragma once

#include "wex.h"
#include "wex_status.h"

// The record enters the registry: it gets a slot while there is one. It leaves it.
void wex_status_show(wex_pid* rec);
void wex_status_hide(wex_pid* rec);

// Shows as which user it is started again.
void wex_status_show_user(const wex_pid* rec, uint32_t uid);

// One that got none gets a slot that has become free, in its present state. Times are milliseconds of the
// monotonic clock, 0 when they are not known. Nothing happens while there is no free slot; no slot is taken
// by others as long as the registry is held.
struct status_times {
  int64_t started = 0;
  int64_t since = 0;
  int64_t until = 0;
};
bool wex_status_has_room();
bool wex_status_slot_is_awaited();  // there is a free one, and a registration that is not shown
void wex_status_show_later(wex_pid* rec, wex_status_state state, const status_times& times);

// How many registrations without a slot are parked, postponed or down.
void wex_status_hidden_troubles(uint32_t count);

// What is shown of a record. A record that was taken out and came back goes on with what was shown of it.
void wex_status_copy_slot_of(const wex_pid* rec, wex_status_slot* copy);
void wex_status_restore_slot(const wex_pid* rec, const wex_status_slot& shown);

// What an event tells beside its registration.
struct status_detail {
  int32_t pid = 0;        // 0: the record's
  int32_t other_pid = 0;  // `new_pid` of the event
  uint32_t exit_code = 0;
  int32_t value = 0;
  int32_t domain = 0;  // of what has no registration at hand
};

// Something happened to a registration: an event, the counter of its kind, and the state of the slot that
// follows from it.
void wex_status_tell(wex_status_kind kind, const wex_pid* rec, const status_detail& more = {});

// The same for what concerns no registration, or one that is not at hand.
void wex_status_tell_of(wex_status_kind kind, int32_t pid, const char* process,
                        const status_detail& more = {});

// The registration's process has ended and the next one is being started; no event.
void wex_status_restarting(const wex_pid* rec);

// The same behind a pause that nobody else waits for; no event.
void wex_status_unlocked_pause(const wex_pid* rec);

// The restart of this registration waits as long as it asked for, and others behind it; then it was made.
// Told for some seconds more, so that readers see those who waited come round before they see the pause end.
// The registration's state and the pause are seen at the same time.
void wex_status_pause(const wex_pid* rec);
void wex_status_pause_over();

// The registration stays without a process; no event.
void wex_status_down(const wex_pid* rec);

// Its exit will be handled once more; no event.
void wex_status_waiting(const wex_pid* rec);

// Whether the slot shows a postponed restart, or one whose exit will be handled once more.
bool wex_status_waits(const wex_pid* rec);

// Takes over what has changed in the record without an event.
void wex_status_refresh(const wex_pid* rec);

// The same for a registration of an earlier daemon whose process lives; `started`, on the monotonic clock in
// milliseconds, is when that process began, 0 when it is not known.
void wex_status_found(const wex_pid* rec, int64_t started);

// The threads of this process that are watched, and the fewest misses that one of them has left; -1 without
// threads.
void wex_status_watched(const wex_pid* rec, int32_t threads, int32_t fewest_misses);

// `counter` is an index of the head's counters.
void wex_status_count(int counter);

// ---- Heartbeats -------------------------------------------------------------------------------------------

enum status_thread {
  kStatusMain,
  kStatusMonitor,
  kStatusServer,
  kStatusNotifier,
  kStatusForkWatcher,
  kStatusDelay,
  kStatusAlarm,
  kStatusThreads
};

// The calling thread is this one. It says when it begins one piece of work and when it waits for the next;
// the first ends the piece before. What the piece has changed is shown when it waits.
void wex_status_thread_is(status_thread which);
void wex_status_busy(status_thread which);
void wex_status_idle(status_thread which);

// Has the main thread show what has changed: for who waits in the middle of a piece of work.
void wex_status_show_soon();

// ---- For wex_status_file ----------------------------------------------------------------------------------

// The generation of this daemon, and the number of its first event. Then the events of earlier daemons, whose
// fields have been checked.
void wex_status_begin(uint32_t generation, uint32_t next);
void wex_status_restore(const wex_status_event& event);

// What is to be written: slots that have changed, each with its next even `seq`, until there is none (-1);
// event `number`, while there is one and the ring still has it; the words of the head.
int32_t wex_status_take_slot(wex_status_slot* copy);
bool wex_status_copy_event(uint32_t number, wex_status_event* copy);
bool wex_status_copy_slot(uint32_t number, wex_status_slot* copy);
struct status_words {
  uint32_t event_next;
  uint32_t slots_used;
  uint32_t counters[WEX_STATUS_COUNTERS];
  struct {
    uint32_t turn;  // odd while the thread is at work
    int32_t tid;
  } threads[kStatusThreads];
};
void wex_status_copy_words(status_words* words);

// The slot could not be written, or all of them are to be written again.
void wex_status_return_slot(int32_t number);
void wex_status_return_all();

// A descriptor that can be read once something has changed, until that is taken note of; -1 when there is
// none. So nobody has to look while nothing happens. The main thread's, first before any other thread runs.
int wex_status_open_news();
void wex_status_take_news();

// Brings the wall clock of events and slots up to date.
void wex_status_set_clock();

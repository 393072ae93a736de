// wex_status_image: what the daemon tells about itself, as an image of the table that readers see.
//
// One mutex guards the image. It is held for a copy of some hundred bytes, and its holder takes nothing else
// and makes no system call, so it may be taken with any other lock held.
#include "wex_status_image.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

#include "close_on_exec.h"
#include "priority_mutex.h"
#include "text_buffer.h"
#include "waiting.h"
#include "wex_limits.h"
#include "wex_status_kinds.h"
#include "wex_utils.h"

namespace {

constexpr int kNone = -1;
constexpr int kUnchanged = -1;
constexpr int kWordBits = 32;
constexpr uint32_t kSeqStep = 2;
constexpr int64_t kUnderWay = INT64_MAX;

// What an event means for the counters and for the slot of its registration.
struct kind_rule {
  wex_status_kind kind;
  int counter;
  int state;
};
constexpr kind_rule kRules[] = {
    {WEX_STATUS_EV_NONE, kNone, kUnchanged},
    {WEX_STATUS_EV_DAEMON_STARTED, kNone, kUnchanged},
    {WEX_STATUS_EV_REGISTERED, kNone, WEX_STATUS_RUNNING},
    {WEX_STATUS_EV_CANCELLED, kNone, kUnchanged},
    {WEX_STATUS_EV_EXITED, WEX_STATUS_EXITS, WEX_STATUS_RESTARTING},
    {WEX_STATUS_EV_RESTARTED, WEX_STATUS_RESTARTS, WEX_STATUS_RUNNING},
    {WEX_STATUS_EV_PARKED, WEX_STATUS_PARKS, WEX_STATUS_PARKED},
    {WEX_STATUS_EV_TRIED_AGAIN, kNone, WEX_STATUS_RESTARTING},
    {WEX_STATUS_EV_POSTPONED, WEX_STATUS_POSTPONED, WEX_STATUS_WAITING},
    {WEX_STATUS_EV_FORCED, WEX_STATUS_FORCED, WEX_STATUS_RESTARTING},
    {WEX_STATUS_EV_HANDED_OVER, WEX_STATUS_HANDED_OVER, kUnchanged},
    {WEX_STATUS_EV_STOPPED, kNone, WEX_STATUS_DOWN},
    {WEX_STATUS_EV_DROPPED, WEX_STATUS_DROPPED, kUnchanged},
    {WEX_STATUS_EV_HANG, WEX_STATUS_HANGS, kUnchanged},
    {WEX_STATUS_EV_BURST, kNone, kUnchanged},
    {WEX_STATUS_EV_REBOOT_ASKED, kNone, kUnchanged},
    {WEX_STATUS_EV_REBOOT_REFUSED, kNone, kUnchanged},
    {WEX_STATUS_EV_LOST_EXIT, WEX_STATUS_LOST_EXITS, kUnchanged},
    {WEX_STATUS_EV_FAILED, WEX_STATUS_FAILED, WEX_STATUS_DOWN},
    {WEX_STATUS_EV_DAEMON_ENDED, kNone, kUnchanged},
    {WEX_STATUS_EV_REPLACED, kNone, kUnchanged},
};
static_assert(one_row_a_kind(kRules), "an event without a rule");
static_assert((WEX_STATUS_EVENTS & (WEX_STATUS_EVENTS - 1)) == 0, "the ring's index wraps around");
static_assert(int{kStatusThreads} <= int{WEX_STATUS_THREADS}, "a thread without its place");

priority_mutex g_mutex;
// Untouched memory costs nothing: only slots and events in use have any.
wex_status_slot g_slots[WEX_STATUS_SLOTS] WEX_TSA(guarded_by(g_mutex));
wex_status_event g_events[WEX_STATUS_EVENTS] WEX_TSA(guarded_by(g_mutex));
uint32_t g_used[WEX_STATUS_SLOTS / kWordBits] WEX_TSA(guarded_by(g_mutex));
uint32_t g_changed[WEX_STATUS_SLOTS / kWordBits] WEX_TSA(guarded_by(g_mutex));
uint32_t g_slots_used WEX_TSA(guarded_by(g_mutex)) = 0;
uint32_t g_event_next WEX_TSA(guarded_by(g_mutex)) = 0;
uint32_t g_generation WEX_TSA(guarded_by(g_mutex)) = 0;
uint32_t g_counters[WEX_STATUS_COUNTERS] WEX_TSA(guarded_by(g_mutex));
int64_t g_pause_over WEX_TSA(guarded_by(g_mutex)) = 0;  // when the pause that is told ended
int64_t g_wall_ahead WEX_TSA(guarded_by(g_mutex)) =
    0;  // milliseconds by which it is ahead of the monotonic clock

int g_news[2] = {-1, -1};  // read end, write end; made once, open for life
// The main thread has been woken and has not looked since. At first 1: nobody waits yet.
std::atomic<int32_t> g_woken{1};       // a whole word: see request_flag
std::atomic<int32_t> g_any_change{0};  // that the main thread has not been woken for; a whole word, too

std::atomic<uint32_t> g_turns[kStatusThreads];  // each written by its own thread only
std::atomic<int32_t> g_tids[kStatusThreads];

thread_local int t_which = kNone;  // of the calling thread; those of clients and of tests are none

// A thread that tells something is not stuck: what it does next is another piece of work.
void note_progress() {
  if (t_which != kNone && g_turns[t_which].load(std::memory_order_relaxed) % 2 != 0) {
    wex_status_busy(static_cast<status_thread>(t_which));
  }
}

// Wakes the main thread, once for all that happens until it looks.
void wake_main_thread() {
  if (g_woken.exchange(1) == 0) {
    (void)!write(g_news[1], "x", 1);
  }
}

void note_change() {
  g_any_change.store(1, std::memory_order_relaxed);
}

void set_bit(uint32_t* words, int32_t number) {
  words[number / kWordBits] |= 1U << (number % kWordBits);
}
void clear_bit(uint32_t* words, int32_t number) {
  words[number / kWordBits] &= ~(1U << (number % kWordBits));
}

int32_t lowest_bit(uint32_t word) {
  return __builtin_ctz(word);
}

// The pause that is told is over long enough.
void end_told_pause(int64_t now) WEX_TSA(requires_capability(g_mutex)) {
  if (g_pause_over != kUnderWay && now - g_pause_over >= kPauseToldMs) {
    g_counters[WEX_STATUS_PAUSE] = 0;
  }
}

// A free slot, or -1.
int32_t find_free() WEX_TSA(requires_capability(g_mutex)) {
  for (int32_t at = 0; at < WEX_STATUS_SLOTS / kWordBits; ++at) {
    if (g_used[at] != UINT32_MAX) {
      return at * kWordBits + lowest_bit(~g_used[at]);
    }
  }
  return -1;
}

// The slot of a record, or null.
wex_status_slot* slot_of(const wex_pid* rec) WEX_TSA(requires_capability(g_mutex)) {
  return rec->status_slot >= 1 && rec->status_slot <= WEX_STATUS_SLOTS ? &g_slots[rec->status_slot - 1]
                                                                       : nullptr;
}

void mark(const wex_pid* rec) WEX_TSA(requires_capability(g_mutex)) {
  set_bit(g_changed, rec->status_slot - 1);
  note_change();
}

// The program without its directory and its arguments. A name that is too long fills the field.
void copy_name(char (&to)[WEX_STATUS_NAME_SIZE], const char* process) {
  const char* name = process;
  const char* end = process;
  for (; *end != '\0' && *end != ' '; ++end) {
    name = *end == '/' ? end + 1 : name;
  }
  const size_t length = std::min(static_cast<size_t>(end - name), sizeof to);
  memset(to, 0, sizeof to);
  memcpy(to, name, length);
}

void copy_facts(wex_status_slot* slot, const wex_pid* rec) {
  slot->is_thread = rec->thread_of != 0 ? 1 : 0;
  slot->action = rec->action;
  slot->pid = rec->pid;
  slot->domain = rec->vsd;
  slot->restart_delay = rec->restart_delay;
  slot->pid_start = rec->start_time;
  slot->restarts_window = rec->check_count > 0 ? static_cast<uint32_t>(rec->check_count) : 0;
}

void enter_state(wex_status_slot* slot, int state, int64_t now) {
  slot->state = static_cast<uint8_t>(state);
  slot->since = now;
  slot->until = 0;
}

// What an event changes in the slot beyond the state.
void apply(wex_status_slot* slot, wex_status_kind kind, const status_detail& more, int64_t now,
           int64_t wall) {
  switch (kind) {
    case WEX_STATUS_EV_REGISTERED:
      slot->registered = now;
      slot->started = now;
      break;
    case WEX_STATUS_EV_EXITED:
      slot->last_exit = more.exit_code;
      slot->last_exit_wall = wall / 1000;
      break;
    case WEX_STATUS_EV_RESTARTED:
      slot->started = now;
      ++slot->restarts;
      break;
    case WEX_STATUS_EV_PARKED:
      slot->until = now + int64_t{more.value} * 1000;
      break;
    case WEX_STATUS_EV_POSTPONED:
      slot->until = now + int64_t{kForceRestartSec} * 1000;
      break;
    default:
      break;
  }
}

void show_restarting(const wex_pid* rec, int64_t now, int64_t until) WEX_TSA(requires_capability(g_mutex)) {
  if (wex_status_slot* const slot = slot_of(rec)) {
    enter_state(slot, WEX_STATUS_RESTARTING, now);
    slot->until = until;
    mark(rec);
  }
}

// Adds the event, and counts it.
void add_event(wex_status_kind kind, int32_t pid, int32_t domain, const char* process,
               const status_detail& more, int64_t now) WEX_TSA(requires_capability(g_mutex)) {
  if (kRules[kind].counter != kNone) {
    ++g_counters[kRules[kind].counter];
  }
  wex_status_event& event = g_events[g_event_next % WEX_STATUS_EVENTS];
  event = {};
  event.number = g_event_next++;
  event.monotonic = now;
  event.wall = now + g_wall_ahead;
  event.generation = g_generation;
  event.pid = pid;
  event.new_pid = more.other_pid;
  event.domain = domain;
  event.exit_code = more.exit_code;
  event.value = more.value;
  event.kind = kind;
  copy_name(event.name, process);
  note_change();
}

// Gives the record a slot, in this state since then; false when there is none.
bool take_slot(wex_pid* rec, wex_status_state state, int64_t since) WEX_TSA(requires_capability(g_mutex)) {
  const int32_t number = find_free();
  rec->status_slot = number + 1;
  if (number < 0) {
    return false;
  }
  set_bit(g_used, number);
  g_slots_used = std::max(g_slots_used, static_cast<uint32_t>(number) + 1);
  wex_status_slot& slot = g_slots[number];
  const uint32_t seq = slot.seq;
  slot = {};
  slot.seq = seq;
  slot.fewest_misses = -1;
  enter_state(&slot, state, since);
  copy_facts(&slot, rec);
  copy_name(slot.name, rec->process);
  memcpy(slot.command, rec->process, strnlen(rec->process, sizeof slot.command));
  mark(rec);
  return true;
}

}  // namespace

void wex_status_show(wex_pid* rec) {
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  if (!take_slot(rec, rec->restart_failed != 0 ? WEX_STATUS_DOWN : WEX_STATUS_RUNNING, now)) {
    ++g_counters[WEX_STATUS_NOT_SHOWN];
    note_change();
  }
}

bool wex_status_has_room() {
  const mutex_lock hold(g_mutex);
  return find_free() >= 0;
}

bool wex_status_slot_is_awaited() {
  const mutex_lock hold(g_mutex);
  return g_counters[WEX_STATUS_NOT_SHOWN] > 0 && find_free() >= 0;
}

void wex_status_show_later(wex_pid* rec, wex_status_state state, const status_times& times) {
  const mutex_lock hold(g_mutex);
  if (!take_slot(rec, state, times.since)) {
    return;
  }
  wex_status_slot* const slot = slot_of(rec);
  slot->started = times.started;
  slot->until = times.until;
  if (g_counters[WEX_STATUS_NOT_SHOWN] > 0) {
    --g_counters[WEX_STATUS_NOT_SHOWN];
  }
}

void wex_status_show_user(const wex_pid* rec, uint32_t uid) {
  const mutex_lock hold(g_mutex);
  if (wex_status_slot* const slot = slot_of(rec)) {
    slot->uid = uid;
    mark(rec);
  }
}

void wex_status_hidden_troubles(uint32_t count) {
  const mutex_lock hold(g_mutex);
  if (g_counters[WEX_STATUS_HIDDEN_TROUBLES] != count) {
    g_counters[WEX_STATUS_HIDDEN_TROUBLES] = count;
    note_change();
  }
}

void wex_status_copy_slot_of(const wex_pid* rec, wex_status_slot* copy) {
  const mutex_lock hold(g_mutex);
  if (const wex_status_slot* const slot = slot_of(rec)) {
    *copy = *slot;
  }
}

void wex_status_restore_slot(const wex_pid* rec, const wex_status_slot& shown) {
  const mutex_lock hold(g_mutex);
  wex_status_slot* const slot = slot_of(rec);
  if (slot != nullptr && shown.state != WEX_STATUS_FREE) {
    const uint32_t seq = slot->seq;
    *slot = shown;
    slot->seq = seq;
    mark(rec);
  }
}

void wex_status_hide(wex_pid* rec) {
  const mutex_lock hold(g_mutex);
  if (wex_status_slot* const slot = slot_of(rec)) {
    const uint32_t seq = slot->seq;
    *slot = {};
    slot->seq = seq;
    clear_bit(g_used, rec->status_slot - 1);
    mark(rec);
  } else if (g_counters[WEX_STATUS_NOT_SHOWN] > 0) {
    --g_counters[WEX_STATUS_NOT_SHOWN];
  }
  rec->status_slot = 0;
}

void wex_status_tell(wex_status_kind kind, const wex_pid* rec, const status_detail& more) {
  note_progress();
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  add_event(kind, more.pid != 0 ? more.pid : rec->pid, rec->vsd, rec->process, more, now);
  wex_status_slot* const slot = slot_of(rec);
  if (slot == nullptr) {
    return;
  }
  if (kRules[kind].state != kUnchanged) {
    enter_state(slot, kRules[kind].state, now);
  }
  copy_facts(slot, rec);
  apply(slot, kind, more, now, now + g_wall_ahead);
  mark(rec);
}

void wex_status_tell_of(wex_status_kind kind, int32_t pid, const char* process, const status_detail& more) {
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  add_event(kind, pid, more.domain, process, more, now);
}

void wex_status_restarting(const wex_pid* rec) {
  note_progress();
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  show_restarting(rec, now, 0);
}

void wex_status_unlocked_pause(const wex_pid* rec) {
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  show_restarting(rec, now, now + int64_t{rec->restart_delay} * 1000);
}

void wex_status_pause(const wex_pid* rec) {
  note_progress();
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  show_restarting(rec, now, now + int64_t{rec->restart_delay} * 1000);
  end_told_pause(now);
  g_counters[WEX_STATUS_PAUSE] =
      std::max(g_counters[WEX_STATUS_PAUSE], static_cast<uint32_t>(rec->restart_delay));
  g_pause_over = kUnderWay;
  note_change();
}

void wex_status_pause_over() {
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  g_pause_over = now;
}

void wex_status_down(const wex_pid* rec) {
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  if (wex_status_slot* const slot = slot_of(rec)) {
    enter_state(slot, WEX_STATUS_DOWN, now);
    mark(rec);
  }
}

void wex_status_waiting(const wex_pid* rec) {
  const int64_t now = wex_clock_ms();
  const mutex_lock hold(g_mutex);
  wex_status_slot* const slot = slot_of(rec);
  if (slot != nullptr && slot->state != WEX_STATUS_WAITING) {
    enter_state(slot, WEX_STATUS_WAITING, now);
    mark(rec);
  }
}

bool wex_status_waits(const wex_pid* rec) {
  const mutex_lock hold(g_mutex);
  const wex_status_slot* const slot = slot_of(rec);
  return slot != nullptr && slot->state == WEX_STATUS_WAITING;
}

void wex_status_refresh(const wex_pid* rec) {
  const mutex_lock hold(g_mutex);
  if (wex_status_slot* const slot = slot_of(rec)) {
    copy_facts(slot, rec);
    mark(rec);
  }
}

void wex_status_found(const wex_pid* rec, int64_t started) {
  const mutex_lock hold(g_mutex);
  if (wex_status_slot* const slot = slot_of(rec)) {
    copy_facts(slot, rec);
    slot->started = started;
    mark(rec);
  }
}

void wex_status_watched(const wex_pid* rec, int32_t threads, int32_t fewest_misses) {
  const mutex_lock hold(g_mutex);
  wex_status_slot* const slot = slot_of(rec);
  if (slot != nullptr && (slot->watched_threads != threads || slot->fewest_misses != fewest_misses)) {
    slot->watched_threads = threads;
    slot->fewest_misses = fewest_misses;
    mark(rec);
  }
}

void wex_status_count(int counter) {
  const mutex_lock hold(g_mutex);
  ++g_counters[counter];
  note_change();
}

void wex_status_thread_is(status_thread which) {
  t_which = which;
  g_tids[which].store(wex_thread_id(), std::memory_order_relaxed);
  wex_status_idle(which);
  wake_main_thread();
}

// A step of two keeps the number odd: the piece of work is another one.
void wex_status_busy(status_thread which) {
  const uint32_t turn = g_turns[which].load(std::memory_order_relaxed);
  g_turns[which].store((turn | 1U) + (turn & 1U) * kSeqStep, std::memory_order_relaxed);
}

void wex_status_idle(status_thread which) {
  const uint32_t turn = g_turns[which].load(std::memory_order_relaxed);
  g_turns[which].store((turn | 1U) + 1, std::memory_order_relaxed);
  wex_status_show_soon();
}

void wex_status_show_soon() {
  if (g_any_change.load(std::memory_order_relaxed) != 0 && g_any_change.exchange(0) != 0) {
    wake_main_thread();
  }
}

void wex_status_begin(uint32_t generation, uint32_t next) {
  const mutex_lock hold(g_mutex);
  g_generation = generation;
  g_event_next = next;
}

void wex_status_restore(const wex_status_event& event) {
  const mutex_lock hold(g_mutex);
  g_events[event.number % WEX_STATUS_EVENTS] = event;
}

int32_t wex_status_take_slot(wex_status_slot* copy) {
  const mutex_lock hold(g_mutex);
  for (int32_t at = 0; at < WEX_STATUS_SLOTS / kWordBits; ++at) {
    if (g_changed[at] != 0) {
      const int32_t number = at * kWordBits + lowest_bit(g_changed[at]);
      clear_bit(g_changed, number);
      g_slots[number].seq += kSeqStep;
      *copy = g_slots[number];
      return number;
    }
  }
  return -1;
}

bool wex_status_copy_event(uint32_t number, wex_status_event* copy) {
  const mutex_lock hold(g_mutex);
  const uint32_t age = g_event_next - number;
  if (age < 1 || age > WEX_STATUS_EVENTS) {
    return false;
  }
  *copy = g_events[number % WEX_STATUS_EVENTS];
  return copy->kind != WEX_STATUS_EV_NONE && copy->number == number;
}

bool wex_status_copy_slot(uint32_t number, wex_status_slot* copy) {
  const mutex_lock hold(g_mutex);
  const bool shown = number < g_slots_used && g_slots[number].state != WEX_STATUS_FREE;
  if (shown) {
    *copy = g_slots[number];
  }
  return shown;
}

void wex_status_copy_words(status_words* words) {
  const int64_t now = wex_clock_ms();
  {
    const mutex_lock hold(g_mutex);
    end_told_pause(now);
    words->event_next = g_event_next;
    words->slots_used = g_slots_used;
    memcpy(words->counters, g_counters, sizeof words->counters);
  }
  for (int which = 0; which < kStatusThreads; ++which) {
    words->threads[which].turn = g_turns[which].load(std::memory_order_relaxed);
    words->threads[which].tid = g_tids[which].load(std::memory_order_relaxed);
  }
}

void wex_status_return_slot(int32_t number) {
  const mutex_lock hold(g_mutex);
  set_bit(g_changed, number);
}

void wex_status_return_all() {
  const mutex_lock hold(g_mutex);
  for (uint32_t number = 0; number < g_slots_used; ++number) {
    set_bit(g_changed, static_cast<int32_t>(number));
  }
}

int wex_status_open_news() {
  if (g_news[0] >= 0 || pipe(g_news) != 0) {
    return g_news[0];
  }
  for (const int end : g_news) {
    set_close_on_exec(end);
    fcntl(end, F_SETFL, O_NONBLOCK);
  }
  return g_news[0];
}

void wex_status_take_news() {
  char bytes[8];
  if (g_news[0] >= 0) {
    (void)!read(g_news[0], bytes, sizeof bytes);
    g_woken.store(0);  // behind the read(), which would else take the byte of a change that comes now
  }
}

void wex_status_set_clock() {
  timespec wall = {};
  clock_gettime(CLOCK_REALTIME, &wall);
  const int64_t ahead = int64_t{wall.tv_sec} * 1000 + wall.tv_nsec / 1000000 - wex_clock_ms();
  const mutex_lock hold(g_mutex);
  g_wall_ahead = ahead;
}

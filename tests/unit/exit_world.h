// What the tests of the exit handler share: a registry that the test fills, and programs whose processes have
// ended.
#pragma once

#include "parked_world.h"
#include "wex_core_exit.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_third_part.h"
#include "wex_signals_reaper.h"
#include "wex_status_image.h"
#include "wex_utils.h"

namespace exit_world {

using namespace parked;

// A registered program that has died while nobody looked.
inline wex_pid* died(wex_pid* rec) {
  rec->flags = WEX_FLAG_SELF_CHECKING;
  rec->alarm_wait_flag = 0;
  rec->check_count = 0;
  return rec;
}

class Exit : public Parked {};

// A record of a third-part program whose restart started `child` and found nobody.
inline wex_pid* missed(wex_pid* rec, pid_t child) {
  died(rec);
  rec->restart_failed = 1;
  rec->exit_signal = 9;
  const spawn_guard guard;
  rec->missed_child = child > 0 ? child : 0;
  rec->missed_start = wex_remember_start(child, rec->exit_signal);
  return rec;
}

// A record as the rebuild leaves it when it started `child` and found nobody.
inline wex_pid* unfound(const char* process, pid_t child) {
  wex_pid* const rec = wex_new_record();
  rec->pid = -1;
  rec->action = RESPAWN;
  rec->restart_failed = 1;
  snprintf(rec->process, sizeof rec->process, "%s", process);
  {
    const spawn_guard guard;
    rec->missed_child = child;
    rec->missed_start = wex_remember_start(child, 0);
  }
  chain_lock hold(wex_chains);
  __wex_add_record(&wex_chains, rec);
  return rec;
}

inline bool holds(const char* process) {
  chain_lock hold(wex_chains);
  record_walk walk(wex_chains);
  while (const wex_pid* const rec = walk.next()) {
    if (strcmp(rec->process, process) == 0) {
      return true;
    }
  }
  return false;
}

// Its child ends, the reaper notes it, and the alarm thread comes round.
inline void reap(pid_t child, int status) {
  {
    const spawn_guard guard;
    wex_note_child_end(child, 0, status);
  }
  wex_handle_missed_exits();
}

// Its slot in the status table.
inline wex_status_slot shown(const wex_pid* rec) {
  wex_status_slot slot = {};
  EXPECT_TRUE(rec->status_slot > 0 &&
              wex_status_copy_slot(static_cast<uint32_t>(rec->status_slot) - 1, &slot));
  return slot;
}

inline bool registered(int32_t pid) {
  chain_lock hold(wex_chains);
  return __wex_find_pid(&wex_chains, pid) != nullptr;
}

// Whether this was told of `pid` and the other process, among the last few events.
inline bool was_reported(wex_status_kind kind, int32_t pid, int32_t other) {
  status_words words;
  wex_status_copy_words(&words);
  for (uint32_t number = words.event_next - 4; number != words.event_next; ++number) {
    wex_status_event event = {};
    if (wex_status_copy_event(number, &event) && event.kind == kind && event.pid == pid &&
        event.new_pid == other) {
      return true;
    }
  }
  return false;
}

}  // namespace exit_world

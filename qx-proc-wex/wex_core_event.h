// wex_core_event: what one reported exit means. For the exit monitor's thread only.
#pragma once

#include <cstdint>

#include "wex_core_process_event.h"

// Notes crashes, applies the exit-burst rule and hands the exit of a whole process to the exit handler. An
// exit that cannot be judged yet is put aside.
void wex_take_exit_event(const process_event& event);

// Judges again what was put aside and is due. Milliseconds until the next look, or -1 when nothing waits.
int wex_settle_exits();

// Tells how long an event took to arrive, so that a time namespace is noticed. For every event.
void wex_note_event_delay(const process_event& event);

// When the event happened, in seconds of this process's monotonic clock; 0 when its stamp is no time.
int32_t wex_event_second(const process_event& event);

// wex_core_event: what one reported exit means. For the exit monitor's thread only.
#pragma once

#include <cstdint>

#include "wex_core_process_event.h"

// Notes crashes, applies the exit-burst rule and hands the exit of a whole process to the exit handler. An
// exit that cannot be judged yet is kept pending.
void wex_take_exit_event(const process_event& event);

// A process was born. Whoever had its pid before had ended by then.
void wex_take_birth_event(const process_event& event);

// Strict mode, when the kernel reports events again after it has lost some: all that is queued from before
// the loss happened until `since_ns`, a time of the monotonic clock in nanoseconds. Under the pid of a
// process that has gone by now only such an event is that process's own: what happens later may be another
// user's. The sweep finds that the process has ended.
void wex_note_unreported_ends(int64_t since_ns);

// Nanoseconds of this process's monotonic clock; 0 when the event's stamp is no time.
int64_t wex_event_time(const process_event& event);

// Judges the pending exits that are due. Milliseconds until the next look, or -1 when none is pending.
int wex_judge_pending_exits();

// Before the events are subscribed to: none is older than this time of the monotonic clock, in nanoseconds.
void wex_expect_events_from(int64_t time_ns);

// To be called for every event as it is read. It happened after the subscription and before now, so its stamp
// tells a time namespace, however late it is read.
void wex_note_event_read(const process_event& event);

// When the event happened, in seconds of this process's monotonic clock; 0 when its stamp is no time.
int32_t wex_event_second(const process_event& event);

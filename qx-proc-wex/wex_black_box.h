// wex_black_box: what led to a restart of the device, and what a hung process was doing, on the disk.
//
// It comes before things that must happen: a failure is silent, and nobody waits for the disk for longer than
// two seconds. While it stands still, a thread waits for it, and what is to be kept meanwhile is lost.
#pragma once

#include <cstdint>

// Writes the last events and the parked registrations behind this reason. Not where room on the disk is
// short: the reboot record comes next. Any thread.
void wex_keep_history(const char* reason);

// Looks at the threads of a process, 100 ms at the most, the silent one first. Watchdog's thread.
void wex_look_at_hung(int32_t pid, int32_t tid);

// Notes which of the threads that were seen are watched. Before the process is aborted: the registrations go
// with it. Watchdog's thread, which holds what is_watched() needs.
void wex_note_watched(bool (*is_watched)(int32_t tid));

// Writes down what was seen and noted: when the process has been aborted, for the disk may be slow.
// Watchdog's thread.
void wex_keep_hung();

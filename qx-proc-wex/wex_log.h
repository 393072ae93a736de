// wex_log: the log files: running log, event log, hang ring, reboot record; and the reboot itself.
//
// Each entry is built in memory and written with one write.
#pragma once

#include "wex.h"
#include "wex_lock_order.h"

extern "C" {

// One line on the daemon's own life (at most 255 characters), synced. Any thread.
void wex_running_log(const char* format, ...) WEX_PRINTF(1, 2);

// The same, but the newest running log is left as it is when it ends with this very message.
void wex_running_log_once(const char* format, ...) WEX_PRINTF(1, 2);

// The event log: open (0, or -1), append, close. Caller holds wex_chains from open to close. Without an open
// log wex_log does nothing.
int wex_openlog(const char* path) WEX_TSA(requires_capability(wex_chains));
void wex_log(const char* format, ...) WEX_PRINTF(1, 2) WEX_TSA(requires_capability(wex_chains));
void wex_closelog(void) WEX_TSA(requires_capability(wex_chains));

// One entry of the hang ring. Watchdog thread only.
void wex_log_notify_info(const char* path, const char* format, ...) WEX_PRINTF(2, 3);

// The ring's next slot; -2 without the file, -1 when it cannot be opened, 0 when it holds no number.
int wex_log_notify_get_count(const char* path);

// 0, or -1.
int wex_log_notify_update_count(const char* path, int value);

// Appends one line to the reboot record, synced.
void wex_log_record_reboot_info(const char* path, const char* format, ...) WEX_PRINTF(2, 3);

// Restarts the device with a recorded reason, unless an operator's switch forbids it. `detail` may be null.
// Returns only when nothing happened.
void wex_reboot(const char* reason, const char* detail);
}

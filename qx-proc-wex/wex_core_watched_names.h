// wex_core_watched_names: whether the names in the run-time directory still lead to what the daemon holds.
#pragma once

#include <sys/stat.h>

// What the daemon holds in a directory that everybody may write to.
enum wex_watched_name { WEX_NAME_DIRECTORY, WEX_NAME_LOCK, WEX_NAME_SOCKET };

// From now on `name` is expected to lead to `held`. Once for each name; the daemon must keep the file open,
// so that no other file is given its inode number.
void wex_watch_name(wex_watched_name name, const struct stat& held);

// Looks where the names lead now and writes one running-log line for each that leads elsewhere than at the
// last call. Delay thread only.
void wex_check_names();

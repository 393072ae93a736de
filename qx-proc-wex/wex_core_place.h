// wex_core_place: do the names in the run-time directory still lead to what the daemon holds?
#pragma once

#include <sys/stat.h>

// What the daemon holds in a directory that everybody may write to.
enum wex_place { WEX_PLACE_DIRECTORY, WEX_PLACE_LOCK, WEX_PLACE_SOCKET };

// Remembers `held` as what the place's name must lead to. Once a place; the daemon must keep it open, so that
// nothing else is given its inode number.
void wex_note_place(wex_place place, const struct stat& held);

// Looks where the names lead now and writes one running-log line for each that leads elsewhere than at the
// last call. Delay thread only.
void wex_check_places();

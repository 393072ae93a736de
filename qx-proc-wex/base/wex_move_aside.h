// wex_move_aside: renames what lies at a name that the system needs, and parts files from their other names.
//
// The directories are open to everybody, and what lies at a name may be nothing that we could use, or the
// second name of a file that must not be written to. It is renamed within its directory, to
// "aside-NUMBER-NAME"; only what is empty, or was to be emptied anyway and has another name, loses its name
// here. All names are found along trusted links only. Any thread.
#pragma once

#include "wex_paths.h"

// Renames what lies at `path`; `to` receives its new path. False with errno.
bool wex_move_aside(const char* path, char (&to)[kPathSize]);

// The same, but what is empty and no link is removed: `to` is empty then.
bool wex_clear_name(const char* path, char (&to)[kPathSize]);

// What becomes of a file that has other names, too. Copied: a file of our own is, and the copy takes the
// name; one of another user's, or a huge one, is moved aside.
enum class wex_parting { unlinked, moved, copied };

// Parts the regular file at `path` from its other names; an empty one is always unlinked. Only copying takes
// time and waits for the disk. False with errno when nothing could be done.
bool wex_part_names(const char* path, wex_parting how);

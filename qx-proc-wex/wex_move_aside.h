// wex_move_aside: makes room at a name of ours for what belongs there.
//
// The directories are open to everybody, and what lies at a name may be nothing that we could use, or the
// second name of a file that must not be written to. What has contents is never lost: it is renamed within
// its directory, to "aside-NUMBER-NAME". All names are found along trusted links only. Any thread.
#pragma once

#include "wex_paths.h"

// Renames what lies at `path`; `to` receives its new path. False with errno.
bool wex_move_aside(const char* path, char (&to)[kPathSize]);

// The same, but what is empty and no link is removed: `to` is empty then.
bool wex_clear_name(const char* path, char (&to)[kPathSize]);

// Parts the regular file at `path` from its other names: a record of our own is copied and the copy takes the
// name, one of another user's, or a huge one, is moved aside. One that is to be emptied anyway (`keep` false)
// just loses this name. False with errno when nothing could be done.
bool wex_part_names(const char* path, bool keep);

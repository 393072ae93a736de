// wex_vsd_remove: takes the directories of a domain away.
#pragma once

#include <cstdint>

// Which sets of directories: a bit for each operation that removes some.
enum {
  WEX_REMOVE_DELETE = 0x1,  // everything a domain has
  WEX_REMOVE_STOP = 0x2,    // run-time directories and control groups
  WEX_REMOVE_RELOAD = 0x4,  // what the next start makes anew
  WEX_REMOVE_FILES = 0x8    // run-time directories
};

// Removes the directories of domain `vsd` that belong to `set`. What cannot be removed is left behind.
void remove_domain_trees(int32_t vsd, unsigned set);

extern "C" {

// Removes what `path` (absolute) names, a directory with all that is in it. 0, or the negated errno of the
// first failure; a failure inside stops neither the rest nor the directory's own removal. Below `path` no
// symbolic link is followed and no other file system is entered. A link that `path` itself names is removed,
// too, unless root put it where nobody else could: then the directory it leads to is emptied, the link stays,
// and the result is -ENOTDIR.
// Entries whose path is longer than 255 characters fail with ENAMETOOLONG. Any thread.
int remove_dir_tree(const char* path);
}

// wex_vsd_remove: takes the directories of a domain away.
#pragma once

#include <cstdint>

#include "wex_domain.h"

// Removes the directories of domain `vsd` that the operation `set` (one of WEX_REMOVE_) removes. What cannot
// be removed is left behind.
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

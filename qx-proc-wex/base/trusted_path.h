// trusted_path: opening paths along which others may have planted symbolic links.
//
// Most of the directories of this system are writable by everybody and not sticky. A link counts as trusted
// when root or the calling process's own user made it and it has no second name; any other one ends the walk,
// wherever it stands. Where something is to be changed, that is not enough: anybody may give a link of root's
// another name in such a directory, so there a link counts only where no other user could have put it.
#pragma once

#include <sys/types.h>

#include <climits>

#include "unique_fd.h"

// As openat(), for paths and link texts that fit the walk's buffer. Close-on-exec is added. Flags that ask
// for more than reading ask for the stricter rule. Invalid with errno; ELOOP for a link that is not trusted,
// or too many of them. Any thread, also between fork and exec.
unique_fd open_trusted(int at, const char* path, int flags, mode_t mode = 0);

// A directory that is to be changed, opened for reading by the stricter rule.
unique_fd open_trusted_dir(int at, const char* path);

// The directory that holds the last component of `path`, found by the stricter rule, for the calls that end
// in "at"; not readable itself. `last` receives that component. Invalid with errno; EINVAL when there is no
// component.
unique_fd open_trusted_parent(const char* path, char (&last)[NAME_MAX + 1]);

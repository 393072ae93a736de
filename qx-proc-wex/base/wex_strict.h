// wex_strict: whether this process runs in strict mode, for a device on which not everybody is root.
//
// Without it everybody may say everything, and nothing here makes a system call. Whoever has a rule of the
// mode asks here; what the rules are is written where they are applied.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

#include "wex_limits.h"
#include "wex_paths.h"

struct strict_settings {
  bool on = false;
  int32_t connections = kUserConnections;      // of each user but root
  int32_t registrations = kUserRegistrations;  // the same
  int32_t restart_delay = kUserDelaySec;       // longest pause before a restart of theirs, in seconds
};

// Whether what lies at `path` may say what it says: in strict mode only what root alone has put there does.
// What does not count is noted. Without the mode true, and nothing is asked; a missing file is not noted.
bool wex_counts(const char* path);

// Whether these facts are those of a regular file that nobody but root can have written, or may write. Who
// had a file open from when its mode was another one still writes it.
bool wex_is_roots_alone(const struct stat& facts);

// The same of an open file that is to be believed: in strict mode only such a one is. One that is not is
// noted. Without the mode true, and nothing is asked.
bool wex_is_believed(int fd, const char* path);

// The mode of a directory that the daemon makes: one in which clients make files, or one of its own.
mode_t wex_client_dir_mode();
mode_t wex_own_dir_mode();

// Notes that what lies at `path` does not count, so that it is told once; never waits. The next note that was
// not taken yet goes to `path`: false when there is none. Any thread.
void wex_ignore_name(const char* path);
bool wex_take_ignored_name(char (&path)[kPathSize]);

// For programs that are not the daemon: whether something lies at the name that makes it strict.
bool wex_strict_is_wanted();

// Set once, before any thread; a client is never strict.
const strict_settings& wex_strict();
void wex_set_strict(const strict_settings& settings);

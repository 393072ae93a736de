// guarded_file: files and directories that others may have planted, found along trusted links only. Any
// thread.
#pragma once

#include <limits.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "unique_fd.h"

// Opens a file that others may have planted: along trusted links only, never blocking, regular files only,
// to create, truncate or append only those with a single name (else EMLINK; with O_CREAT the name is parted
// from the others first, see wex_move_aside). Reading changes nothing. `flags` may hold O_CREAT, O_TRUNC,
// O_APPEND, O_SYNC; close-on-exec is added. With O_CREAT the mode is narrowed by the umask. Invalid with
// errno when refused; EBUSY for another name of a file on which this process holds a lock.
unique_fd wex_open_file(const char* path, int flags, mode_t mode = 0);

// The same for a file that exists, by its name in a directory that was opened along trusted links.
unique_fd wex_open_file_at(int directory, const char* name, int flags);

// What the names begin with of files that are to replace others: no number, and no file that a removal of
// flag files would look at.
inline constexpr char kBegunPrefix[] = ".begun-";

// A new file of ours in this directory, of a name that nobody can foresee, and so has taken before: `prefix`
// and a number. `name` receives it. Invalid with errno.
unique_fd wex_create_beside(int directory, const char* prefix, mode_t mode, char (&name)[NAME_MAX + 1]);

// Whether that is such a number.
bool wex_is_number_of_begun(const char* text);

// Gives such a file its lasting name, whatever lies there; a directory is moved aside, or removed when it is
// empty. Nobody can make one anew in between: where two names cannot be exchanged (before Linux 3.15, and on
// some file systems), a directory that is open to all is closed to users for that moment. False with errno.
bool wex_take_name(int directory, const char* from, const char* name);

// Makes a new, empty file of ours, open for writing, that takes the name from whatever lies there by the two
// above. Invalid with errno.
unique_fd wex_create_in_place(const char* path, mode_t mode);

// Opens a file of the daemon's own as wex_open_file() does with O_CREAT. In strict mode nobody but root has
// it open for writing, whatever the umask: one that is not root's, or that others may write, gets aside for a
// new one, for they may have it open; and so does what is no file, when a user has put it there.
unique_fd wex_open_own_file(const char* path, int flags, mode_t mode);

// Removes what both may have left in the directory of this path when the daemon was killed in the middle, be
// it the file or what had its lasting name; a directory with something in it is moved aside. No more than the
// first names are looked at, for users may have made others without end. For the start, before any file is
// made there.
void wex_clear_begun(const char* path);

// Puts a name that was just given on the disk: a file just created is still there after a power cut.
void wex_sync_directory_of(const char* path);

// Makes a directory and sets its mode, whatever the umask; failures are ignored. Along trusted links only. In
// strict mode one that was there becomes root's, and is at most closed to others.
void wex_make_dir(const char* path, mode_t mode);

// The second half of it, for a directory of the device's.
void wex_set_dir_mode(const char* path, mode_t mode);

// Reads at most size - 1 bytes of a file opened by the rule above and terminates them. Bytes, or -1.
int32_t wex_read_guarded(const char* path, char* buffer, size_t size);

// As unlink(), rename() and chdir(), the directory found along trusted links only.
int wex_unlink(const char* path);
int wex_rename(const char* from, const char* to);
int wex_chdir(const char* path);

// file_lock: record locks on whole files, and the files on which this process holds one.
//
// Closing any descriptor of a file drops every record lock that the process holds on it, under whatever name
// the file was opened. Where everybody may link files, any name may be another name of a locked file of ours,
// so every opening of such a name asks here first. In a process that holds no such lock this costs nothing.
#pragma once

#include <sys/stat.h>

#include "unique_fd.h"

// Takes the write lock on a whole file, however long it grows, without waiting. False with errno. Closing any
// descriptor of the file gives it back.
bool wex_lock_file(int fd);

// Remembers a file locked through `fd`, which stays the caller's, for the rest of the process's life.
void note_locked_file(int fd);

// Keeps a locked file by its name until drop_locked_file(). Without memory the file is closed and loses its
// lock, which only the daemon itself ever tests: the caller holds the registry and must not wait for memory.
void keep_locked_file(const char* name, unique_fd&& fd);

// The descriptor of the file kept under this name, which stays ours; -1 when there is none. Whoever calls it
// keeps the file from being dropped meanwhile.
int kept_file(const char* name);

// Closes the file kept under this name. Does nothing for any other name.
void drop_locked_file(const char* name);

// Whether any file is remembered. A child that has not executed its program yet has none of its parent's
// locks.
bool holds_locked_files();

// Whether these are the facts of a remembered file. Only in a process that holds some.
bool is_locked_file(const struct stat& facts);

// Takes the lock of a remembered file again, after a descriptor of it was closed.
void relock_file(const struct stat& facts);

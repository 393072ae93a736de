// wex_pidfile: one small file per registered process, so that registrations outlive the daemon.
//
// The process itself keeps its file locked while it lives; the daemon only tests that lock.
#pragma once

#include <sys/stat.h>

#include "wex.h"
#include "wex_paths.h"

extern "C" {

// Builds the database file's name. Its length as snprintf reports it; too long for `size` means unusable.
int wex_get_db_file_name(int32_t vsd, int32_t pid, const char* text, char* buffer, size_t size);

// Creates, fills and locks the file; the lock lives as long as the calling process. 0, or -1 (not opened).
int wex_db_create(int32_t vsd, int32_t pid, int32_t action, const char* text);

// Creates the domain flag file; nothing for domain 0. In strict mode only in a process of its real user's:
// the daemon makes the others (wex_own_database_file).
void save_vsd_flag(int32_t vsd, int32_t pid);

// Database file and flag file of a registration. `kind` 1 means RESPAWN, all else SHELL_RESTART. 0, or -1.
int wex_mk_pidfile(const wex_reg_info* body, uint32_t kind);

// Deletes the record's database file, and lets go of it if this process holds it. Result of unlink.
int wex_db_destroy(const wex_pid* rec);

// Deletes a file of an older naming. Result of unlink.
int wex_rm_pidfile(const wex_pid* rec);

// Reads pid, action and script of a database file. 0, or -1.
int wex_read_pidfile(const char* path, wex_pid* rec);

// 1 when nobody holds the record's database file any more, 0 while somebody does.
int wex_proc_is_exit(const wex_pid* rec);
}

// As wex_mk_pidfile, for the daemon's own registrations: the locked descriptor is kept in a private table and
// closed when the file is removed. Caller holds wex_chains.
int wex_mk_pidfile_held(const wex_reg_info* body, uint32_t kind);

// As wex_read_pidfile, with the facts of the file that was read unless they are null.
int wex_read_pidfile_facts(const char* path, wex_pid* rec, struct stat* facts);

// The name of the record's database file. False with errno when no such file can exist.
bool wex_name_pidfile(const wex_pid* rec, char (&name)[kPathSize]);

// Whether the database files of both have one name.
bool wex_has_pidfile_of(const wex_pid* rec, const wex_pid* other);

// Writes the database file of a living process when it is missing or empty, and its flag file. It stays
// unlocked: the process may lock it later, and no end of it is ever taken for one that must wait. Caller
// holds wex_chains.
void wex_mend_pidfile(const wex_pid* rec);

// Puts a new file of this owner's, closed to others, in the place of the record's. What had the
// name keeps it until the new file is whole, so that one of them is there whenever the daemon ends. False
// when there is no room for it, or the name cannot be taken; nothing has changed then. Caller holds
// wex_chains.
bool wex_renew_pidfile(const wex_pid* rec, uid_t owner, gid_t group);

// Makes the file of a registration that is to have this number in the place of its pid, from the one that it
// has: root's, and closed to others. That one stays when it `is_takers`: of the name of the file of whoever
// has the pid now. False as above.
bool wex_renumber_pidfile(const wex_pid* rec, int32_t number, bool is_takers);

// Removes what a daemon that was killed in the middle of it has left; false for all else.
bool wex_drop_begun_pidfile(const char* path);

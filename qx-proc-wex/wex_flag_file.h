// wex_flag_file: the flag files, which say which process belongs to which domain: their names, making and
// removing them. Any thread may call anything, the removal also between fork and exec.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

#include "wex_paths.h"

extern "C" {

// The domain 1 to 15 that has a flag file of `pid`, or -1.
int32_t find_app(int32_t pid);

// Changes to the domain's run directory and creates the flag file of `pid`. 0, or -errno.
int save_proc_info(int32_t vsd, int32_t pid);
}

// As find_app(). In strict mode only a file of the usual name counts, and only root's or this user's; null
// for root's alone.
int32_t wex_find_domain(int32_t pid, const uid_t* user);

// Whether a name in a directory of flag files, of which `facts` are those of what it leads to, may say of
// `pid` what it says. For programs that are not the daemon: on a device in strict mode only a file of root's
// or of the process's real user may. What is plainly root's is not asked about.
bool wex_flag_counts(int directory, const dirent& entry, const struct stat& facts, int32_t pid);

// The domain's directory of flag files, with a slash at its end, and the flag file of `pid`.
void wex_name_flag_dir(int32_t vsd, char (&path)[kPathSize]);
void wex_name_flag_file(int32_t vsd, int32_t pid, char (&path)[kPathSize]);

// Makes the empty file that says that `pid` is a process of the domain. False with errno.
bool wex_make_flag_file(int32_t vsd, int32_t pid, mode_t mode);

// The same for the daemon's own. In strict mode it is the process's user's, for what is root's would count
// for whatever process has the pid next, and whatever another user has put there makes room.
bool wex_make_flag_file_of(uid_t user, int32_t vsd, int32_t pid);

// As save_proc_info(), with such a file.
int wex_save_proc_info_of(uid_t user, int32_t vsd, int32_t pid);

// Removes every flag file of `pid` in the domain.
void wex_remove_flag_files(int32_t vsd, int32_t pid);

// Removes one flag file of `pid`. Each name before it is opened first, and `refused` is told, with errno, of
// what cannot be: that stays. False with errno when the directory cannot be opened.
bool wex_remove_checked_flag_file(int32_t vsd, int32_t pid, void (*refused)(const char* name));

// wex_flag_file: the flag files, which say which process belongs to which domain.
#pragma once

#include <cstdint>

extern "C" {

// The domain 1 to 15 that has a flag file of `pid`, or -1.
int32_t find_app(int32_t pid);

// Changes to the domain's run directory and creates the flag file of `pid`. 0, or -errno.
int save_proc_info(int32_t vsd, int32_t pid);
}

// Removes the flag files of `pid` in the domain. Also between fork and exec.
void wex_remove_flag_files(int32_t vsd, int32_t pid);

// wex_proc_marker: the files that tell which process belongs to which domain.
#pragma once

#include <cstdint>

extern "C" {

// The domain 1 to 15 that has a marker of `pid`, or -1.
int32_t find_app(int32_t pid);

// Moves to the domain's run directory and creates the marker of `pid` there. 0, or -errno.
int save_proc_info(int32_t vsd, int32_t pid);
}

// Removes the markers of `pid` in the domain. Also between fork and exec.
void wex_remove_markers(int32_t vsd, int32_t pid);

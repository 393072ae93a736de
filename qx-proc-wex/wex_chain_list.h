// wex_chain_list: the third-part list, as every look-up of the registry and of the spawner reads it.
#pragma once

#include <cstddef>
#include <cstdint>

// Lines count as pieces of at most 1023 characters; a buffer of this size holds any of them.
enum { kListLineSize = 1024 };

// Finds the first line of the list `path` that contains `needle`. 1 and the line (line end included, at most
// size - 1 characters), else 0. The text of the list is remembered until the file changes. Any thread.
int wex_list_find(const char* path, const char* needle, char* line, size_t size);

extern "C" {

// Finds the first line of the third-part list `path` that contains `needle`; 1 and the text behind its last
// blank (line end included), else 0.
int wex_proc_in_wexdb(const char* path, const char* needle, char* word, size_t size);

// The same for the executable of `pid`.
int wex_pid_in_wexdb(int32_t pid, const char* path, char* word, size_t size);
}

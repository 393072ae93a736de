// wex_proc_child: a new process, from its start to its program.
#pragma once

#include <sys/types.h>

#include "wex.h"
#include "wex_action.h"
#include "wex_chain_user.h"
#include "wex_child.h"
#include "wex_core_spawn_guard.h"

// All that one start needs, made before it.
struct launch {
  const wex_action* action;
  wex_pid* rec;
  int32_t old_pid;  // the process that is replaced; may be below 1
  int32_t domain;   // its domain: 1 to 15, or -1
  bool third_part;
  const wex_user* user;  // strict mode: whom the program runs as; null = not known, so it is not started
  child_words words;
  char script[4096];
};

inline const char* wex_first_word(const launch& start) {
  return start.words.argv[0] != nullptr ? start.words.argv[0] : "";
}

// Starts a child that runs the program. The child's pid, or -1 with errno. One of a domain has executed its
// program, or ended, when this returns.
pid_t wex_start_child(const launch& start) WEX_TSA(requires_capability(wex_chains, wex_spawn_mutex));

// Whether an exit that the kernel reported for the record's pid is that of a child which had that pid and
// gave way to the record: it started after the record's process had ended.
bool __wex_gave_way_to(const wex_pid* rec, uint32_t exit_code, uint64_t exit_tick)
    WEX_TSA(requires_capability(wex_chains));

// Has the children of the calling thread, which runs at this real-time priority, begin at normal priority:
// one that gives the real-time priority up by itself goes behind all that wait for its processor.
void wex_start_children_at_normal_priority(int own_priority);

// Whether the child that was started last is `pid` and is known to have the normal low-memory-killer score.
bool wex_child_has_normal_lmk(int32_t pid) WEX_TSA(requires_capability(wex_spawn_mutex));

// Whether the child that was started last is `pid` and is known to have ended before it was its program.
bool wex_child_gave_up(int32_t pid) WEX_TSA(requires_capability(wex_spawn_mutex));

extern "C" {

// Reopens descriptors 0, 1, 2 on "/dev/null" and the console; `cloexec` 1 for the daemon, 0 for a program.
void wex_create_std_fd(int cloexec);

// The fork-failure file: one byte a failure; removed by the first child that starts. mk: 0, or -1.
int wex_mk_forkfile(void);
void wex_rm_forkfile(void);

// Child-side set-up of a domain: environment, working directory, group; removes the old pid's flag file.
// Calls the platform first; when that fails nothing is set. Only between fork and exec.
void set_proc_env(int32_t vsd, int32_t old_pid);
}

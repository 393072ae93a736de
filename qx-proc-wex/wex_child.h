// wex_child: what every spawned child does between fork and exec, with its own memory and system calls only.
#pragma once

#include <sys/types.h>

#include "wex_limits.h"

// An argument vector cut out of a private copy of a command line.
struct child_words {
  char text[4096];
  char* argv[kMaxWords + 2];  // room for a shell and its script instead of the first word, and the null
  int count;
};

// Splits `command` at blanks and tabs; what stands behind the 14th word is ignored.
void split_words(const char* command, child_words* words);

// Signals 1 to 127 back to their default action.
void reset_signal_actions();

// Takes away the handlers that this program installs: their signals are ignored.
void ignore_handled_signals();

// An empty signal mask: nothing this process blocks is blocked in the program.
void clear_signal_mask();

// Marks every descriptor above the standard three close-on-exec.
void hide_open_files();

// Leaves what a program must not have from whoever starts it: real-time priority, session, ignored and
// blocked signals, open files.
void leave_starter();

// Tells the low-memory-killer module of the new program. False with errno when the module is not there.
bool flush_tlb();

// Takes the calling process, and no other thread of the daemon whose memory it may share, to these ids for
// good. False with errno: then it must not execute anything.
bool become_user(uid_t uid, gid_t gid, const gid_t* groups, int count);

// Leaves the calling process's supplementary groups as the one group of the domain. 0, or -1.
int enter_domain_group(int vsd);

// wexrun_program: the program that is to be supervised.
#pragma once

#include "wexrun_registration.h"

// True, and printed, when PATH leads a bare name to another file than a restart would start. A life that the
// daemon started has the daemon's PATH, which nobody looks at.
bool depends_on_path(const char* name);

// Puts the path of a bare name in its place, so that every life starts the same file, whatever PATH it has.
// 0 when it can probably be executed, else errno.
int find_program(char** name);

// For a program that could not be executed: prints why, and takes a registration of this process back unless
// a restart may do better. The exit status.
int give_up(const char* name, int cause, registration& own);

// wexrun_program: the program that is to be supervised.
#pragma once

// 0 when it can probably be executed, else the exit status that says why not (printed).
int look_for_program(const char* name);

// The exit status for a program that could not be executed, which is printed.
int tell_not_executed(const char* name, int cause);

// Whether an exec that failed so may succeed a moment later.
bool failed_for_a_moment(int cause);

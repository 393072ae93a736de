// wexrun_child: starts the program as a child that ends with wexrun, and ends wexrun as the program ended.
#pragma once

#include <signal.h>
#include <sys/types.h>

// Starts the program with the environment of sd_notify(3) and the signals of before. Its pid, or -1 with
// errno.
pid_t start_child(char** program, const char* notify_address, const sigset_t& mask);

// Ends this process with the wait status of the program, but for the core dump.
[[noreturn]] void end_as(int status);

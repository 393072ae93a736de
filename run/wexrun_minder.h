// wexrun_minder: wexrun --notify, the parent of a program that reports its state.
#pragma once

#include "wexrun_options.h"
#include "wexrun_registration.h"

// Starts the program, minds it, and ends as it ended. Returns only to say with which status wexrun is to end.
int mind(const run_options& options, registration& own);

// wexrun_options: the command line, and whether wex could start it again as it is.
#pragma once

#include <cstdint>

struct run_options {
  int32_t delay = 0;             // seconds before each restart
  const char* script = nullptr;  // restart command; null: the program is started again
  bool notify = false;
  char** program = nullptr;  // its words, the null at the end included
};

enum class reading { run, answered, wrong };

// Fills `options`. `answered`: --help or --version was answered; `wrong`: printed.
reading read_options(int argc, char** argv, run_options* options);

// False, and the reason printed, when a restart would not repeat these words.
bool can_be_repeated(int argc, char** argv, const run_options& options);

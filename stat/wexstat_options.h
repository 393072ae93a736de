// wexstat_options: the command line.
#pragma once

#include <cstdint>

enum class wish { table, one, history, watch, json, openmetrics, check, wait, answered, wrong };

struct stat_options {
  wish what = wish::table;
  const char* name = nullptr;  // NAME or PID
  int32_t number = 0;          // of --history and --watch
  int32_t timeout = -1;        // of --wait, in seconds; -1: none
};

// wish::answered when it was --help or --version, wish::wrong when it was told what is wrong.
stat_options read_stat_options(int argc, char** argv);

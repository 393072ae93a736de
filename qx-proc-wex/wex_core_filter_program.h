// wex_core_filter_program: the instructions of the packet filter on the socket of process events.
#pragma once

#include <linux/filter.h>

#include <cstddef>
#include <cstdint>

#include "pid_set.h"

// Which ends of single threads pass. Those that dumped core always do where their process's would.
enum class thread_ends : uint8_t {
  none,
  of_passed_processes,
  all,
};

struct filter_rules {
  bool executions;
  thread_ends threads;
  const pid_set* exits;  // whose ends pass, and the births of those that get their pids next; null: all
};

// Four instructions for each word of the set, more where a jump is too far for a branch, and the common part.
constexpr size_t kFilterProgramMax = 4 * pid_set::kWords + pid_set::kWords / 8 + 64;

struct filter_program {
  sock_filter* first;
  uint16_t length;
};

// Writes the program to the end of `space`.
filter_program wex_build_filter(const filter_rules& rules, sock_filter (&space)[kFilterProgramMax]);

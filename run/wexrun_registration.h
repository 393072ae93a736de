// wexrun_registration: puts this very process under supervision, whatever it becomes.
#pragma once

#include "wex.h"
#include "wexrun_options.h"

class registration {
 public:
  // Makes and locks the database file, tells the daemon, and returns when the daemon has read our command
  // line. What keeps us from being supervised is printed, and does not stop us.
  void make(const run_options& options) noexcept;
  // Leaves the lock of the database file to the program that this process is about to become.
  void keep_through_exec(const char* program) noexcept;
  // Takes it all back, also what the daemon itself registered for this process. True when the daemon knows.
  bool withdraw() noexcept;

 private:
  bool tell_daemon(const run_options& options) noexcept;
  bool make_file(const run_options& options) noexcept;

  wex_reg_info body_ = {};
  bool described_ = false;
};

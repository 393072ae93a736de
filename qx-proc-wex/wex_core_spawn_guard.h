// wex_core_spawn_guard: keeps the reaper away from fork until the new pid is in its record.
#pragma once

// A reaped pid may be reused: between the fork and the moment when the record has the new pid, nothing is
// reaped. Recursive; taken with wex_chains held, or with no chain at all.
class spawn_guard {
 public:
  spawn_guard() noexcept;
  ~spawn_guard();
  spawn_guard(const spawn_guard&) = delete;
  spawn_guard& operator=(const spawn_guard&) = delete;
};

// wex_signals_reaper: takes the statuses of children that have ended.
#include "wex_signals_reaper.h"

#include <signal.h>
#include <sys/wait.h>

#include <cerrno>

#include "waiting.h"
#include "wex_core_spawn_guard.h"
#include "wex_core_third_part.h"
#include "wex_limits.h"
#include "wex_utils.h"

namespace {

// Reaps one child that has ended. As waitpid() for any child without blocking.
pid_t reap_one() {
  const spawn_guard not_while_spawning;
  // Looked at before it is reaped: as a zombie it still has its start time, which with the pid identifies it.
  siginfo_t next = {};
  const bool found = waitid(P_ALL, 0, &next, WEXITED | WNOHANG | WNOWAIT) == 0 && next.si_pid > 0;
  const uint64_t start_time = found ? wex_look_at(next.si_pid).start_time : 0;
  errno = 0;  // the callers end their loops at ECHILD, and errno may hold one of an earlier call
  int status = 0;
  const pid_t child = waitpid(found ? next.si_pid : -1, &status, WNOHANG);
  if (child > 0) {
    wex_note_child_end(child, start_time, status);
  }
  return child;
}

}  // namespace

void wex_chld_handler(int /*signal*/) {
  const int cause = errno;
  const spawn_guard not_while_spawning;  // held for all: nobody must wait for the last one for long
  pid_t child;
  do {
    child = reap_one();
  } while (child != 0 && errno != ECHILD);
  errno = cause;
}

bool wex_reap(int32_t child, uint64_t start_time) {
  const spawn_guard not_while_spawning;
  int status = 0;
  if (waitpid(child, &status, WNOHANG) != child) {
    return false;
  }
  wex_note_child_end(child, start_time, status);
  return true;
}

void wex_reap_at_leisure(const std::atomic<bool>& hurry) {
  for (int put_off = 0; put_off < kReapsPutOff && !hurry.load(); ++put_off) {
    wex_sleep_ms(kReapDelayMs);
    while (!wex_is_spawning()) {  // asked for each: a restart that has come meanwhile goes first
      const pid_t child = reap_one();
      if (child == 0 || errno == ECHILD) {
        return;
      }
    }
  }
  wex_chld_handler(SIGCHLD);
}

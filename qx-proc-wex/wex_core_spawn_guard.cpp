// wex_core_spawn_guard: keeps the reaper away from fork until the new pid is in its record.
#include "wex_core_spawn_guard.h"

#include <cerrno>

priority_mutex wex_spawn_mutex(PTHREAD_MUTEX_RECURSIVE);

bool wex_is_spawning() WEX_TSA(no_thread_safety_analysis) {
  const bool free = pthread_mutex_trylock(&wex_spawn_mutex.native) == 0;
  if (free) {
    pthread_mutex_unlock(&wex_spawn_mutex.native);
  }
  return !free;
}

spawn_guard::spawn_guard() noexcept {
  pthread_mutex_lock(&wex_spawn_mutex.native);
}

spawn_guard::~spawn_guard() {
  const int cause = errno;
  pthread_mutex_unlock(&wex_spawn_mutex.native);
  errno = cause;
}

// wex_core_spawn_guard: keeps the reaper away from fork until the new pid is in its record.
#include "wex_core_spawn_guard.h"

#include <pthread.h>

#include <cerrno>

#include "priority_mutex.h"

namespace {

// Recursive: the exit handler holds it until the new pid is in its record, the spawner inside it too. The
// reaper runs at normal priority and holds it as well, hence the inheritance.
pthread_mutex_t g_spawn_mutex;
pthread_once_t g_spawn_once = PTHREAD_ONCE_INIT;

void create_spawn_mutex() {
  create_priority_mutex(&g_spawn_mutex, PTHREAD_MUTEX_RECURSIVE);
}

}  // namespace

spawn_guard::spawn_guard() noexcept {
  pthread_once(&g_spawn_once, create_spawn_mutex);
  pthread_mutex_lock(&g_spawn_mutex);
}

spawn_guard::~spawn_guard() {
  const int cause = errno;
  pthread_mutex_unlock(&g_spawn_mutex);
  errno = cause;
}

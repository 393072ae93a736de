// mutex_lock: holds a mutex for a scope. Under clang a forgotten lock is a compile error.
#pragma once

#include <pthread.h>

#include "wex_attributes.h"

// A mutex that clang's analysis knows; what it guards says so with WEX_TSA(guarded_by(...)).
struct WEX_TSA(capability("mutex")) checked_mutex {
  pthread_mutex_t native;
};

class WEX_TSA(scoped_lockable) mutex_lock {
 public:
  explicit mutex_lock(checked_mutex& mutex) noexcept WEX_TSA(acquire_capability(mutex)) : mutex_(mutex) {
    pthread_mutex_lock(&mutex_.native);
  }
  ~mutex_lock() WEX_TSA(release_capability()) { pthread_mutex_unlock(&mutex_.native); }
  mutex_lock(const mutex_lock&) = delete;
  mutex_lock& operator=(const mutex_lock&) = delete;

 private:
  checked_mutex& mutex_;
};

// mutex_lock: holds a plain mutex for a scope.
#pragma once

#include <pthread.h>

class mutex_lock {
 public:
  explicit mutex_lock(pthread_mutex_t& mutex) noexcept : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~mutex_lock() { pthread_mutex_unlock(&mutex_); }
  mutex_lock(const mutex_lock&) = delete;
  mutex_lock& operator=(const mutex_lock&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

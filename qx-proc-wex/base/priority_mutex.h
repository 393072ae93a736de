// priority_mutex: a mutex whose holder runs at the priority of whoever waits for it.
//
// The exit monitor runs at real-time priority and must not wait for a thread of normal priority that some
// busy program keeps from running.
#pragma once

#include <pthread.h>

#include "mutex_lock.h"

// `type` is PTHREAD_MUTEX_NORMAL or PTHREAD_MUTEX_RECURSIVE. 0, or an error number. A kernel without priority
// inheritance gives a mutex without it.
inline int create_priority_mutex(pthread_mutex_t* mutex, int type) {
  pthread_mutexattr_t attributes;
  int result = pthread_mutexattr_init(&attributes);
  if (result != 0) {
    return result;
  }
  pthread_mutexattr_settype(&attributes, type);
  pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
  result = pthread_mutex_init(mutex, &attributes);
  if (result != 0) {
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_NONE);
    result = pthread_mutex_init(mutex, &attributes);
  }
  pthread_mutexattr_destroy(&attributes);
  return result;
}

// One for the life of the program, ready before main.
struct WEX_TSA(capability("mutex")) priority_mutex : checked_mutex {
  explicit priority_mutex(int type = PTHREAD_MUTEX_NORMAL) noexcept { create_priority_mutex(&native, type); }
  priority_mutex(const priority_mutex&) = delete;
  priority_mutex& operator=(const priority_mutex&) = delete;
};

// A thread of the test that runs until it is told to end.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cstdint>

#include "wex_utils.h"

class running_thread {
 public:
  running_thread() {
    sem_init(&started_, 0, 0);
    sem_init(&over_, 0, 0);
    pthread_create(&thread_, nullptr, run, this);
    sem_wait(&started_);
  }
  ~running_thread() {
    end();
    sem_destroy(&started_);
    sem_destroy(&over_);
  }
  running_thread(const running_thread&) = delete;
  running_thread& operator=(const running_thread&) = delete;

  int32_t tid() const { return tid_; }

  // Afterwards the kernel has no thread of this id.
  void end() {
    if (!ended_) {
      ended_ = true;
      sem_post(&over_);
      pthread_join(thread_, nullptr);
      while (wex_pid_exists(tid_)) {
        sched_yield();
      }
    }
  }

 private:
  static void* run(void* argument) {
    auto* const self = static_cast<running_thread*>(argument);
    self->tid_ = wex_thread_id();
    sem_post(&self->started_);
    while (sem_wait(&self->over_) != 0) {
    }
    return nullptr;
  }

  pthread_t thread_ = {};
  sem_t started_ = {};
  sem_t over_ = {};
  int32_t tid_ = 0;
  bool ended_ = false;
};

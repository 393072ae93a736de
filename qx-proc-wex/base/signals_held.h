// signals_held: keeps one signal, or every signal, out of this thread for a scope.
#pragma once

#include <pthread.h>
#include <signal.h>

class signals_held {
 public:
  explicit signals_held(int signal) noexcept {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
  }
  signals_held() noexcept {
    sigset_t set;
    sigfillset(&set);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
  }
  ~signals_held() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  signals_held(const signals_held&) = delete;
  signals_held& operator=(const signals_held&) = delete;

 private:
  sigset_t before_;
};

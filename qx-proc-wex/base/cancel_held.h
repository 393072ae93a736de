// cancel_held: keeps pthread_cancel() from ending this thread inside a scope; it ends behind it instead.
#pragma once

#include <pthread.h>

class cancel_held {
 public:
  cancel_held() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~cancel_held() {
    int ours;
    pthread_setcancelstate(before_, &ours);
  }
  cancel_held(const cancel_held&) = delete;
  cancel_held& operator=(const cancel_held&) = delete;

 private:
  int before_;
};

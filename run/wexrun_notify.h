// wexrun_notify: the socket on which a program reports its state, as sd_notify(3) describes it.
#pragma once

#include <sys/types.h>

#include "unique_fd.h"

// Receives the notifications. Each is a terminated text of lines "NAME=VALUE", which the receiver may change.
class notification_reader {
 public:
  virtual void take(pid_t sender, char* text) noexcept = 0;

 protected:
  ~notification_reader() = default;
};

class notify_socket {
 public:
  // False with errno.
  bool open() noexcept;
  int get() const noexcept { return sd_.get(); }
  // The value of NOTIFY_SOCKET.
  const char* address() const noexcept { return address_; }
  // Hands over what has come, at most so many at a time.
  void drain(notification_reader& reader) noexcept;

 private:
  bool take_one(notification_reader& reader) noexcept;

  unique_fd sd_;
  char address_[64] = "";
};

// Whether `pid` is `ancestor` or comes from it. Zombies count, for what they sent is not lost with them.
bool descends_from(pid_t pid, pid_t ancestor);

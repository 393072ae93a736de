// wex_core_list_watch: whether the list of third-part programs may name any. For one thread.
#pragma once

#include "unique_fd.h"

class list_watch {
 public:
  // Before the first look at the list.
  void open();

  // False when it is certain that the list names no program and that fd() will report a change of it.
  bool may_name_programs() const;

  // Readable when the list may have changed; below 0 when there is no such descriptor.
  int fd() const noexcept { return instance_.get(); }

  // Reads the events of fd(), before the next look at the list. Opens it anew when there is none.
  void take_changes();

  // For when poll() says that fd() is not open: forgets the number and closes nothing.
  void close_lost();

 private:
  unique_fd instance_;
  bool of_parent_ = false;  // the list's directory was not there
};

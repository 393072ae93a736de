// wex_core_list_watch: whether the list of third-part programs may name any. For one thread.
#pragma once

#include "unique_fd.h"

class list_watch {
 public:
  // Before the first look at the list.
  void open();

  // False while the list certainly names no program, and a change of it would be told through fd().
  bool may_name_programs() const;

  // Readable when the list may have changed; below 0 when there is no such descriptor.
  int fd() const noexcept { return instance_.get(); }

  // Takes what fd() has to say, before the next look at the list; opens it anew when there is none.
  void take_changes();

  // fd() is no descriptor of ours any more.
  void close_lost();

 private:
  unique_fd instance_;
  bool of_parent_ = false;  // the list's directory was not there
};

// guarded_copy: copies bytes from or to a shared mapping that others may cut short meanwhile.
//
// A missing page of a mapping ends whoever touches it with SIGBUS, which cannot be ignored. The kernel, asked
// to fetch the same bytes for a pipe, or to put them there from one, says EFAULT instead. It goes through the
// mapping as the program would: on processors whose caches know memory by its virtual address, reading the
// file instead may miss what other mappings of it have stored.
#pragma once

#include <cstddef>

#include "priority_mutex.h"
#include "unique_fd.h"

class guarded_copy {
 public:
  // False with errno when there is no pipe to be had. Not while another thread copies.
  bool open() noexcept;
  bool valid() const noexcept { return in_.valid(); }
  // Either side may be a mapping. False when a page of one was missing; part may have been copied then.
  bool copy(void* to, const void* from, size_t size) noexcept;

 private:
  bool copy_piece(void* to, const void* from, size_t size) noexcept;
  unique_fd in_;  // the end that is read
  unique_fd out_;
  priority_mutex lock_;  // one piece at a time is in the pipe
};

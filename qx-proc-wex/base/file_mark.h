// file_mark: what tells one state of a file or directory from another.
#pragma once

#include <sys/stat.h>
#include <time.h>

struct file_mark {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;
  timespec changed;  // contents or attributes; nobody can set it back
};

file_mark mark_of(const struct stat& facts);
bool same_mark(const file_mark& a, const file_mark& b);

// False for a file that changed just now: it may change again within the same tick of its time stamp, and
// would look unchanged. Some file systems count whole seconds. Such a state must not be remembered.
bool has_settled(const file_mark& mark);

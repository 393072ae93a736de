// held_dir: a directory that is needed again and again and therefore kept open. Its name may come to lead
// elsewhere, so every use asks for the descriptor anew.
#pragma once

#include <sys/stat.h>

class held_dir {
 public:
  constexpr explicit held_dir(const char* path) noexcept : path_(path) {}
  held_dir(const held_dir&) = delete;
  held_dir& operator=(const held_dir&) = delete;

  // Opens the directory, for good. Before any thread that uses it.
  void hold();

  // The descriptor, as long as the name leads to this very directory; else -1, and the caller walks the path.
  // Links are followed here: one that leads to the directory that was opened changes nothing, whoever made
  // it. Any thread; also between fork and exec.
  int get() const;

 private:
  const char* const path_;
  int fd_ = -1;  // never closed or replaced, so that no thread finds another file behind the number
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// The daemon's; a client holds none.
extern held_dir wex_run_dir;       // lock file, fork-failure file
extern held_dir wex_database_dir;  // database files of the main system

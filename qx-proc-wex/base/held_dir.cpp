// held_dir: directories that are needed again and again and therefore kept open.
//
// Those of the domains are not: a file system that is mounted there could not be unmounted.
#include "held_dir.h"

#include <fcntl.h>

#include "trusted_path.h"
#include "unique_fd.h"
#include "wex_paths.h"

held_dir wex_run_dir(kRunDir);
held_dir wex_database_dir(kMainDbDir);

void held_dir::hold() {
  unique_fd directory = open_trusted_dir(AT_FDCWD, path_);
  struct stat facts = {};
  if (directory.valid() && fstat(directory.get(), &facts) == 0) {
    device_ = facts.st_dev;
    inode_ = facts.st_ino;
    fd_ = directory.release();
  }
}

int held_dir::get() const {
  struct stat named = {};
  const bool in_place =
      fd_ >= 0 && stat(path_, &named) == 0 && named.st_dev == device_ && named.st_ino == inode_;
  return in_place ? fd_ : -1;
}

// wex_move_aside: renames what lies at a name that the system needs, and parts files from their other names.
#include "wex_move_aside.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "safe_io.h"
#include "text_buffer.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_limits.h"

namespace {

using entry_name = char[NAME_MAX + 1];

bool look_at(int parent, const char* name, struct stat* facts) {
  return fstatat(parent, name, facts, AT_SYMLINK_NOFOLLOW) == 0;
}

// A name that is free in the directory of `name`. It begins with "aside-", because in some directories a name
// that begins with digits stands for a process.
bool find_free_name(int parent, const char* name, entry_name& free) {
  const uint32_t now = static_cast<uint32_t>(wex_clock_ms());
  for (uint32_t attempt = 0; attempt < kAsideTries; ++attempt) {
    struct stat facts;
    if (!wex_format(free, sizeof free, "aside-%08x-%s", static_cast<unsigned>(now + attempt), name)) {
      errno = ENAMETOOLONG;
      return false;
    }
    if (!look_at(parent, free, &facts)) {
      return errno == ENOENT;
    }
  }
  errno = EEXIST;
  return false;
}

bool rename_aside(int parent, const char* name, entry_name& free) {
  return find_free_name(parent, name, free) && renameat(parent, name, parent, free) == 0;
}

bool remove_if_empty(int parent, const char* name) {
  struct stat facts;
  if (!look_at(parent, name, &facts) || S_ISLNK(facts.st_mode)) {
    return false;
  }
  if (S_ISDIR(facts.st_mode)) {
    return unlinkat(parent, name, AT_REMOVEDIR) == 0;
  }
  return facts.st_size == 0 && unlinkat(parent, name, 0) == 0;
}

// The path of `free` in the directory of `path`.
void name_beside(const char* path, const char* name, const char* free, char (&to)[kPathSize]) {
  size_t end = strlen(path);
  while (end > 0 && path[end - 1] == '/') {
    --end;
  }
  wex_format(to, sizeof to, "%.*s%s", static_cast<int>(end - strlen(name)), path, free);
}

bool copy_contents(int from, int to) {
  char chunk[4096];
  int32_t got;
  while ((got = safe_read(from, chunk, sizeof chunk)) > 0) {
    if (safe_write(to, chunk, static_cast<size_t>(got)) != got) {
      return false;
    }
  }
  return got == 0;
}

// So that a name just given is there after a power cut.
void sync_directory(int parent) {
  const unique_fd readable(openat(parent, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (readable.valid()) {
    fsync(readable.get());
  }
}

// Puts a copy of the file that `facts` tell of in its place, with its mode and on the disk.
bool replace_by_copy(int parent, const char* name, const struct stat& facts) {
  struct stat opened = {};
  entry_name fresh;
  const unique_fd old = open_trusted(parent, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (!old.valid() || fstat(old.get(), &opened) != 0 || opened.st_dev != facts.st_dev ||
      opened.st_ino != facts.st_ino || !find_free_name(parent, name, fresh)) {
    return false;
  }
  const unique_fd copy(openat(parent, fresh, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!copy.valid()) {
    return false;
  }
  const bool done = copy_contents(old.get(), copy.get()) && fchmod(copy.get(), facts.st_mode & 0777) == 0 &&
                    fsync(copy.get()) == 0 && renameat(parent, fresh, parent, name) == 0;
  if (done) {
    sync_directory(parent);
    return true;
  }
  const int cause = errno;
  unlinkat(parent, fresh, 0);
  errno = cause;
  return false;
}

}  // namespace

bool wex_move_aside(const char* path, char (&to)[kPathSize]) {
  entry_name name;
  entry_name free;
  const unique_fd parent = open_trusted_parent(path, name);
  if (!parent.valid() || !rename_aside(parent.get(), name, free)) {
    return false;
  }
  name_beside(path, name, free, to);
  return true;
}

bool wex_clear_name(const char* path, char (&to)[kPathSize]) {
  entry_name name;
  const unique_fd parent = open_trusted_parent(path, name);
  to[0] = '\0';
  return parent.valid() && (remove_if_empty(parent.get(), name) || wex_move_aside(path, to));
}

bool wex_part_names(const char* path, wex_parting how) {
  entry_name name;
  entry_name free;
  struct stat facts;
  const unique_fd parent = open_trusted_parent(path, name);
  if (!parent.valid() || !look_at(parent.get(), name, &facts)) {
    return false;
  }
  if (!S_ISREG(facts.st_mode) || facts.st_nlink < 2) {
    return true;  // the other name, or this one, has gone meanwhile
  }
  if (how == wex_parting::unlinked || facts.st_size == 0) {
    return unlinkat(parent.get(), name, 0) == 0;
  }
  const bool ours = facts.st_uid == 0 || facts.st_uid == geteuid();
  return how == wex_parting::copied && ours && facts.st_size <= kOwnCopyMax
             ? replace_by_copy(parent.get(), name, facts)
             : rename_aside(parent.get(), name, free);
}

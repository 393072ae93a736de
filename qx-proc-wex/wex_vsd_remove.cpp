// wex_vsd_remove: recursive removal, and what each operation on a domain removes.
//
// It runs as root in directories where everybody may create, rename and link. Hence every look, step down and
// removal is made relative to a directory that is held open, and a name that turns into something else
// meanwhile is at worst not removed.
#define WEX_MODULE "wex_vsd"
#include "wex_vsd_remove.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <utility>

#include "dir_walk.h"
#include "text_buffer.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex_dbg.h"
#include "wex_log.h"
#include "wex_paths.h"

namespace {

// Longest path of an entry. It bounds depth, stack and descriptors as well: about 120 levels below a domain.
constexpr size_t kLongestPath = 255;

// Where a removal has got to.
struct removal {
  dev_t device;  // of the top; what is mounted below it is left alone
  char path[kLongestPath + 1];
};

void remember(int* first, int result) {
  if (*first == 0) {
    *first = result;
  }
}

int leave_busy(const removal& tree, const char* reason) {
  wex_dbg(WEX_DBG_PUB, "%s: %s stays: %s\n", "remove_dir_tree", tree.path, reason);
  return -EBUSY;
}

int remove_entry(int parent, const char* name, removal* tree);

// Empties the directory that the path tells of.
int remove_entries(unique_fd&& fd, removal* tree) {
  dir_walk dir(std::move(fd));
  if (!dir.valid()) {
    return -errno;
  }
  int first = 0;
  char* const end = tree->path + strlen(tree->path);
  const size_t room = sizeof tree->path - static_cast<size_t>(end - tree->path);
  while (const dirent* entry = dir.next()) {
    const bool fits = wex_format(end, room, "/%s", entry->d_name);
    remember(&first, fits ? remove_entry(dir.fd(), entry->d_name, tree) : -ENAMETOOLONG);
    *end = '\0';
  }
  return first;
}

// Empties and removes the directory `name`, opened as `dir`.
int remove_directory(int parent, const char* name, unique_fd&& dir, removal* tree) {
  int first = remove_entries(std::move(dir), tree);
  // Tried whatever stayed inside: the files of a control group cannot be unlinked, but go with their
  // directory.
  if (unlinkat(parent, name, AT_REMOVEDIR) != 0) {
    const int err = errno;
    remember(&first, err == EBUSY ? leave_busy(*tree, strerror(err)) : -err);
  }
  return first;
}

int remove_name(int parent, const char* name) {
  return unlinkat(parent, name, 0) == 0 ? 0 : -errno;
}

// Removes what stands below the top. A link goes itself, wherever it leads and whoever made it.
int remove_entry(int parent, const char* name, removal* tree) {
  struct stat facts;
  if (fstatat(parent, name, &facts, AT_SYMLINK_NOFOLLOW) != 0) {
    return -errno;
  }
  if (!S_ISDIR(facts.st_mode)) {
    return remove_name(parent, name);
  }
  if (facts.st_dev != tree->device) {
    return leave_busy(*tree, "something is mounted there");
  }
  unique_fd dir(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return dir.valid() ? remove_directory(parent, name, std::move(dir), tree) : -errno;
}

// Removes the top, which may be a link that is to be followed.
int remove_top(int parent, const char* name, removal* tree) {
  struct stat facts;
  if (fstatat(parent, name, &facts, AT_SYMLINK_NOFOLLOW) != 0) {
    return -errno;
  }
  const bool is_link = S_ISLNK(facts.st_mode);
  if (!is_link && !S_ISDIR(facts.st_mode)) {
    return remove_name(parent, name);
  }
  unique_fd dir = open_trusted_dir(parent, name);
  if (!dir.valid() || fstat(dir.get(), &facts) != 0) {
    const int err = errno;
    return is_link ? remove_name(parent, name) : -err;
  }
  tree->device = facts.st_dev;
  return remove_directory(parent, name, std::move(dir), tree);
}

bool present(const char* path) {
  struct stat facts;
  return lstat(path, &facts) == 0;
}

// What cannot be unlinked inside a control group goes with its directory: what counts is what is still there.
void remove_or_tell(const char* path) {
  const int result = remove_dir_tree(path);
  if (result < 0 && present(path)) {
    wex_running_log("Fail to remove %s: %s\r\n", path, strerror(-result));
  }
}

const domain_dir& removed_in_turn(int turn) {
  const domain_dir* dir = kDomainDirs;
  while (dir->removal_turn != turn) {
    ++dir;
  }
  return *dir;
}

}  // namespace

extern "C" int remove_dir_tree(const char* path) {
  const size_t length = strlen(path);
  if (length > kLongestPath) {
    return -ENAMETOOLONG;
  }
  char name[NAME_MAX + 1];
  removal tree = {};
  wex_copy_text(tree.path, sizeof tree.path, path);
  const unique_fd parent = open_trusted_parent(path, name);
  return parent.valid() ? remove_top(parent.get(), name, &tree) : -errno;
}

void remove_domain_trees(int32_t vsd, unsigned set) {
  const bool second_disk = wex_has_second_disk();
  for (int turn = 1; turn <= kDomainRemovals; ++turn) {
    const domain_dir& dir = removed_in_turn(turn);
    char path[kPathSize];
    if ((dir.removed & set) != 0 && (second_disk || !dir.second_disk) &&
        wex_format(path, sizeof path, dir.format, vsd)) {
      remove_or_tell(path);
    }
  }
}

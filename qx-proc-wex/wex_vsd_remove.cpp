// wex_vsd_remove: recursive removal, and what each operation on a domain removes.
//
// It runs as root in directories where everybody may create, rename and link. Hence every look, step down and
// removal is made relative to a directory that is held open, and a name that turns into something else
// meanwhile is at worst not removed.
#include "wex_vsd_remove.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <utility>

#include "dir_walk.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_utils.h"

namespace {

// Longest path of an entry. It bounds depth, stack and descriptors as well: about 120 levels below a domain.
constexpr size_t kLongestPath = 255;

struct domain_tree {
  const char* format;  // one "%d", the domain
  unsigned sets;
  bool second_disk;
};

constexpr unsigned kEverySet = WEX_REMOVE_DELETE | WEX_REMOVE_STOP | WEX_REMOVE_RELOAD | WEX_REMOVE_FILES;

// In the order of removal.
constexpr domain_tree kDomainTrees[] = {
    {kDomainDirFmt, kEverySet, false},
    {kEtcDomainFmt, kEverySet, false},
    {kRunDomainFmt, WEX_REMOVE_DELETE | WEX_REMOVE_FILES, false},
    {kDataDomainFmt, WEX_REMOVE_DELETE, false},
    {kData2DomainFmt, WEX_REMOVE_DELETE, true},
    {kData2RunFmt, WEX_REMOVE_DELETE, true},
    {kConfigDomainFmt, WEX_REMOVE_DELETE, false},
    {kOvixDomainFmt, WEX_REMOVE_DELETE, false},
    {kMemoryGroupFmt, WEX_REMOVE_DELETE | WEX_REMOVE_STOP, false},
    {kCpuGroupFmt, WEX_REMOVE_DELETE | WEX_REMOVE_STOP, false},
};

// Opens the directory that `name` is, or that a trusted link of this name leads to.
unique_fd open_dir(int parent, const char* name) {
  return open_trusted(parent, name, O_RDONLY | O_DIRECTORY);
}

void remember(int* first, int result) {
  if (*first == 0) {
    *first = result;
  }
}

int remove_entry(int parent, const char* name, size_t path_length);

// Empties a directory whose own path has `path_length` characters.
int remove_entries(unique_fd&& fd, size_t path_length) {
  dir_walk dir(std::move(fd));
  if (!dir.valid()) {
    return -errno;
  }
  int first = 0;
  while (const dirent* entry = dir.next()) {
    remember(&first, remove_entry(dir.fd(), entry->d_name, path_length + 1 + strlen(entry->d_name)));
  }
  return first;
}

int remove_entry(int parent, const char* name, size_t path_length) {
  if (path_length > kLongestPath) {
    return -ENAMETOOLONG;
  }
  struct stat facts;
  if (fstatat(parent, name, &facts, 0) != 0) {
    return -errno;
  }
  if (!S_ISDIR(facts.st_mode)) {
    return unlinkat(parent, name, 0) == 0 ? 0 : -errno;
  }
  unique_fd dir = open_dir(parent, name);
  if (!dir.valid()) {
    const int err = errno;
    // Somebody's link to a directory: it goes, where it leads to does not.
    return err == ELOOP && unlinkat(parent, name, 0) == 0 ? 0 : -err;
  }
  int first = remove_entries(std::move(dir), path_length);
  // Tried whatever stayed inside: the files of a control group cannot be unlinked, but go with their
  // directory.
  if (unlinkat(parent, name, AT_REMOVEDIR) != 0) {
    remember(&first, -errno);
  }
  return first;
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

}  // namespace

extern "C" int remove_dir_tree(const char* path) {
  const size_t length = strlen(path);
  if (length > kLongestPath) {
    return -ENAMETOOLONG;
  }
  char name[NAME_MAX + 1];
  const unique_fd parent = open_trusted_parent(path, name);
  return parent.valid() ? remove_entry(parent.get(), name, length) : -errno;
}

void remove_domain_trees(int32_t vsd, unsigned set) {
  const bool second_disk = present(kData2Dir);
  for (const domain_tree& tree : kDomainTrees) {
    char path[kPathSize];
    if ((tree.sets & set) != 0 && (second_disk || !tree.second_disk) &&
        wex_format(path, sizeof path, tree.format, vsd)) {
      remove_or_tell(path);
    }
  }
}

// file_mark: what tells one state of a file or directory from another.
#include "file_mark.h"

namespace {

bool same_time(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

file_mark mark_of(const struct stat& facts) {
  return {facts.st_dev, facts.st_ino, facts.st_size, facts.st_mtim, facts.st_ctim};
}

bool same_mark(const file_mark& a, const file_mark& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size && same_time(a.changed, b.changed) &&
         same_time(a.modified, b.modified);
}

bool has_settled(const file_mark& mark) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec > mark.changed.tv_sec + 1 && now.tv_sec > mark.modified.tv_sec + 1;
}

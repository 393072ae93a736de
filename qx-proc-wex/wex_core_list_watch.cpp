// wex_core_list_watch: whether the list of third-part programs may name any.
//
// Every program that is executed anywhere on the device is reported only to be looked up in this list, which
// is empty on most devices. So executions are reported only while it is not. An operator may write to it at
// any time, therefore its directory is watched.
#define WEX_MODULE "wex_core"
#include "wex_core_list_watch.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ras_os.h"
#include "wex_dbg.h"
#include "wex_paths.h"

namespace {

constexpr uint32_t kOfTheList =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE;
constexpr uint32_t kOfTheDirectory = IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr uint32_t kWatchIsLost = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT | IN_Q_OVERFLOW;

int open_instance() {
  const int instance = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (instance >= 0 || (errno != ENOSYS && errno != EINVAL)) {
    return instance;
  }
  const int older = inotify_init();  // kernels before 2.6.27
  if (older >= 0) {
    ras_os_set_fd_close_on_exec(older);
    fcntl(older, F_SETFL, fcntl(older, F_GETFL) | O_NONBLOCK);
  }
  return older;
}

constexpr const char* kListDirName = kThirdPartListDir + sizeof kSettingsDir;  // below kSettingsDir
constexpr int kReadsAtOnce = 4;  // whoever keeps the directory busy must not keep the monitor

// Whether one of the events means that there will be no further ones, or that the list's directory was made.
bool tells_the_end(const char* bytes, size_t size, bool of_parent) {
  size_t at = 0;
  while (size - at >= sizeof(inotify_event)) {
    inotify_event event;  // copied out: the bytes need not be aligned
    memcpy(&event, bytes + at, sizeof event);
    at += sizeof event;
    if ((event.mask & kWatchIsLost) != 0 || event.len > size - at) {
      return true;
    }
    if (of_parent && event.len > 0 && strncmp(bytes + at, kListDirName, event.len) == 0) {
      return true;
    }
    at += event.len;
  }
  return false;
}

}  // namespace

void list_watch::open() {
  instance_.reset(open_instance());
  const auto add = [this](const char* dir) {
    return instance_.valid() && inotify_add_watch(instance_.get(), dir, kOfTheList | kOfTheDirectory) >= 0;
  };
  of_parent_ = false;
  if (add(kThirdPartListDir)) {
    return;
  }
  of_parent_ = errno == ENOENT && add(kSettingsDir);
  if (!of_parent_) {
    wex_dbg(WEX_DBG_PUB, "%s is not watched: %s\n", kThirdPartListDir, strerror(errno));
    instance_.reset();
  }
}

// What a link leads to is not watched, so only a regular file counts as empty.
bool list_watch::may_name_programs() const {
  struct stat list;
  if (!instance_.valid()) {
    return true;
  }
  if (lstat(kThirdPartList, &list) != 0) {
    return errno != ENOENT && errno != ENOTDIR;
  }
  return !S_ISREG(list.st_mode) || list.st_size != 0;
}

void list_watch::take_changes() {
  char bytes[1024];
  ssize_t size = 0;
  bool lost = !instance_.valid();
  for (int reads = 0; !lost && reads < kReadsAtOnce; ++reads) {
    size = read(instance_.get(), bytes, sizeof bytes);
    if (size <= 0) {
      break;
    }
    lost = tells_the_end(bytes, static_cast<size_t>(size), of_parent_);
  }
  if (lost) {
    open();  // another directory may have taken its place
  }
}

void list_watch::close_lost() {
  instance_.release();
  of_parent_ = false;
}

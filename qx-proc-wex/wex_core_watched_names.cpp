// wex_core_watched_names: whether the names in the run-time directory still lead to what the daemon holds.
//
// Everybody may write to the directory, and cleaners of temporary files may empty it. A daemon whose socket,
// lock file or directory was removed still runs, but no program can register. It cannot repair that, so the
// running log says it.
#define WEX_MODULE "wex_core"
#include "wex_core_watched_names.h"

#include <sys/stat.h>

#include <atomic>

#include "wex_log.h"
#include "wex_paths.h"

namespace {

struct identity {
  dev_t device;
  ino_t inode;  // 0: there is nothing
};

bool operator==(const identity& a, const identity& b) {
  return a.device == b.device && a.inode == b.inode;
}

struct watched_name {
  const char* path;
  const char* loss;         // the consequence when the name leads elsewhere
  std::atomic<bool> noted;  // set last: from then on the fields below are the delay thread's alone
  identity held;
  identity seen;  // at the last look
};

// In the order of wex_watched_name. No lock: see `noted`.
watched_name g_names[] = {
    {kRunDir, "failed forks go unseen", {false}, {}, {}},
    {kLockFile, "a second wex may start", {false}, {}, {}},
    {kControlSocket, "no process can register", {false}, {}, {}},
};

// Links are followed, because a client or a second daemon would follow them, too.
identity at_name(const char* path) {
  struct stat facts = {};
  return stat(path, &facts) == 0 ? identity{facts.st_dev, facts.st_ino} : identity{};
}

void log_change(const watched_name& changed) {
  if (changed.seen == changed.held) {
    wex_running_log("%s is in place again.\r\n", changed.path);
  } else if (changed.seen.inode == 0) {
    wex_running_log("%s is gone, %s.\r\n", changed.path, changed.loss);
  } else {
    wex_running_log("%s was replaced, %s.\r\n", changed.path, changed.loss);
  }
}

}  // namespace

void wex_watch_name(wex_watched_name which, const struct stat& held) {
  watched_name& entry = g_names[which];
  entry.held = {held.st_dev, held.st_ino};
  entry.seen = entry.held;
  entry.noted.store(true, std::memory_order_release);
}

void wex_check_names() {
  for (watched_name& entry : g_names) {
    if (!entry.noted.load(std::memory_order_acquire)) {
      continue;
    }
    const identity now = at_name(entry.path);
    if (!(now == entry.seen)) {
      entry.seen = now;
      log_change(entry);
    }
  }
}

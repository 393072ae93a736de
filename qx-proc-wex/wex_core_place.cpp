// wex_core_place: do the names in the run-time directory still lead to what the daemon holds?
//
// The directory is open to everybody, and cleaners of temporary files come by. A daemon that has lost its
// socket, its lock file or the directory itself looks healthy and is deaf; it cannot mend that, but say so.
#define WEX_MODULE "wex_core"
#include "wex_core_place.h"

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

struct place {
  const char* path;
  const char* loss;         // what comes of it when the name leads elsewhere
  std::atomic<bool> noted;  // set last, by the thread that made it
  identity held;
  identity seen;  // at the last look; the delay thread's
};

// In the order of wex_place.
place g_places[] = {
    {kRunDir, "failed forks go unseen", {false}, {}, {}},
    {kLockFile, "a second wex may start", {false}, {}, {}},
    {kControlSocket, "no process can register", {false}, {}, {}},
};

// Links are followed: what counts is where a client, or a second daemon, would get to.
identity at_name(const char* path) {
  struct stat facts = {};
  return stat(path, &facts) == 0 ? identity{facts.st_dev, facts.st_ino} : identity{};
}

void tell(const place& changed) {
  if (changed.seen == changed.held) {
    wex_running_log("%s is in place again.\r\n", changed.path);
  } else if (changed.seen.inode == 0) {
    wex_running_log("%s is gone, %s.\r\n", changed.path, changed.loss);
  } else {
    wex_running_log("%s was replaced, %s.\r\n", changed.path, changed.loss);
  }
}

}  // namespace

void wex_note_place(wex_place which, const struct stat& held) {
  place& entry = g_places[which];
  entry.held = {held.st_dev, held.st_ino};
  entry.seen = entry.held;
  entry.noted.store(true, std::memory_order_release);
}

void wex_check_places() {
  for (place& entry : g_places) {
    if (!entry.noted.load(std::memory_order_acquire)) {
      continue;
    }
    const identity now = at_name(entry.path);
    if (!(now == entry.seen)) {
      entry.seen = now;
      tell(entry);
    }
  }
}

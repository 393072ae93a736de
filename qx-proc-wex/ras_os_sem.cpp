// ras_os_sem: the system semaphore, which programs raise while no hang countdown is to run.
//
// Any local user may make the key file, or a set under its key, before the daemon does. Only a set that root
// made counts, and only a key file of root's.
#define WEX_MODULE "ras_os"
#include "ras_os_sem.h"

#include <fcntl.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "guarded_file.h"
#include "unique_fd.h"
#include "wex.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_move_aside.h"

int32_t g_wex_semid = -1;

namespace {

int32_t g_own_set = -1;  // what wex_sem_init() made or found; written before any thread runs

// The caller of semctl has to declare it.
union sem_argument {
  int value;
  struct semid_ds* status;
  unsigned short* values;
};

bool is_ours(uid_t user) {
  return user == 0 || user == geteuid();
}

enum class set_owner { us, another, gone, unknown };

// Who made the set: us, when it was root or the user this process runs as.
set_owner owner_of(int id) {
  struct semid_ds status = {};
  sem_argument argument = {};
  argument.status = &status;
  if (id >= 0 && semctl(id, 0, IPC_STAT, argument) == 0) {
    return is_ours(status.sem_perm.cuid) ? set_owner::us : set_owner::another;
  }
  switch (errno) {
    case ENOENT:
    case EIDRM:
    case EINVAL:
      return set_owner::gone;  // removed since it was found
    case EACCES:
      return set_owner::another;
    default:
      return set_owner::unknown;
  }
}

// The key is made of the file's inode number. Nothing is written to the file, so a second name of it does no
// harm. A file of ours is replaced only with `anew`, when another user's set lies under its key: programs
// that have raised the count would lose it. What is no file, or another user's, is always replaced.
unique_fd make_key_file(bool anew) {
  char aside[kPathSize] = "";
  struct stat facts = {};
  if (lstat(WEX_SEM_KEY_FILE, &facts) == 0 && (anew || !S_ISREG(facts.st_mode) || !is_ours(facts.st_uid))) {
    wex_move_aside(WEX_SEM_KEY_FILE, aside);
  }
  unique_fd file = wex_open_file(WEX_SEM_KEY_FILE, O_RDONLY);
  if (!file.valid() && errno == ENOENT) {
    file = wex_open_file(WEX_SEM_KEY_FILE, O_RDWR | O_CREAT, kSemKeyMode);
  }
  if (!file.valid()) {
    wex_dbg(WEX_DBG_PUB, "Open file %s failed: %s.", WEX_SEM_KEY_FILE, strerror(errno));
  }
  if (aside[0] != '\0' && S_ISREG(facts.st_mode) && facts.st_size == 0) {
    wex_unlink(aside);  // only now: earlier the new file could get its inode number, and with it the same key
  }
  return file;
}

int set_up(int32_t id) {
  __atomic_store_n(&g_wex_semid, id, __ATOMIC_RELAXED);
  g_own_set = id;
  sem_argument argument = {};
  if (semctl(id, 0, SETVAL, argument) != 0) {
    wex_dbg(WEX_DBG_PUB, "Set wex sem initial value failed: %s.", strerror(errno));
    semctl(id, 0, IPC_RMID);
    return -1;
  }
  return 0;
}

// A count that was raised before the daemon restarted is to survive: a set of ours is not touched. Nor is one
// that cannot be looked at, for a new key would lose the count; the first reading looks for it again.
set_owner take_existing(key_t key) {
  const int32_t id = semget(key, 1, 0);
  const set_owner owner = owner_of(id);
  if (owner == set_owner::us) {
    g_own_set = id;
  }
  if (owner == set_owner::us || owner == set_owner::unknown) {
    wex_dbg(WEX_DBG_PUB, "System wex semaphore already inited.");
  }
  return owner;
}

// The set that a look-up found. When another user has put one of his own under our key meanwhile: the one
// that wex_sem_init() made or found in this process, or -1.
int32_t own_set(int32_t found) {
  return found < 0 || owner_of(found) == set_owner::us ? found : g_own_set;
}

}  // namespace

int wex_sem_init(void) {
  unique_fd tried[kSemKeyTries];  // kept open, so that no later file gets one of their inode numbers, the key
  set_owner found = set_owner::gone;
  for (unique_fd& file : tried) {
    file = make_key_file(found == set_owner::another);
    if (!file.valid()) {
      return -1;
    }
    const key_t key = ftok(WEX_SEM_KEY_FILE, WEX_SEM_PROJECT);
    if (key == -1) {
      wex_dbg(WEX_DBG_PUB, "Get sem file key failed: %s.", strerror(errno));
      return -1;
    }
    const int32_t id = semget(key, 1, static_cast<int>(IPC_CREAT | IPC_EXCL | kSemKeyMode));
    if (id >= 0) {
      return set_up(id);
    }
    if (errno != EEXIST) {
      break;
    }
    found = take_existing(key);
    if (found == set_owner::us || found == set_owner::unknown) {
      return 0;
    }
    errno = EEXIST;
  }
  wex_dbg(WEX_DBG_PUB, "Get wex sem on init failed: %s.", strerror(errno));
  return -1;
}

int wex_get_semval(void) {
  int32_t id = __atomic_load_n(&g_wex_semid, __ATOMIC_RELAXED);
  if (id == -1) {
    id = own_set(wex_get_semid());
    if (id < 0) {
      wex_dbg(WEX_DBG_PUB, "wex get semid failed!\n");
      return -1;
    }
    __atomic_store_n(&g_wex_semid, id, __ATOMIC_RELAXED);
  }
  const int value = semctl(id, 0, GETVAL);
  if (value < 0) {
    wex_dbg(WEX_DBG_PUB, "Get wex sem count failed: %s.", strerror(errno));
    return -1;
  }
  return value;
}

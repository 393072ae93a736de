// wex_chain_rebuild: brings the registry back from the database files when the daemon starts.
//
// What lived on meanwhile is taken over, what died is started again. Runs before any thread does.
#define WEX_MODULE "wex_chain"
#include "wex_chain.h"

#include <cstdint>
#include <cstring>

#include "chain_lock.h"
#include "dir_walk.h"
#include "text_block.h"
#include "wex_core.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_proc.h"
#include "wex_utils.h"

namespace {

constexpr size_t kSurelyWhole = 230;  // a longer command may have been cut when its file was read

// A stranger may have got the pid of a dead program. The registration cannot tell for sure, so it is kept;
// whoever wonders why the program does not run finds the reason here.
void tell_stranger(const wex_pid* rec) {
  char command[WEX_PROCESS_SIZE];
  if (!wex_dbg_on(WEX_DBG_PUB) || pid_to_cmdline(rec->pid, command, sizeof command) == nullptr) {
    return;
  }
  const size_t length = strlen(rec->process);
  const bool same =
      strncmp(command, rec->process, length) == 0 && (command[length] == '\0' || length >= kSurelyWhole);
  if (!same) {
    wex_dbg(WEX_DBG_PUB, "pid (%d) of %s runs %s\n", rec->pid, rec->process, command);
  }
}

using spawner = int32_t (*)(wex_pid* rec, int32_t* out_pid);

// Starts the record's program again and files it under its new pid, which is below 1 when the process was not
// found: nothing may ever be sent to such a pid.
void restart(wex_chains_t* chain, wex_pid* rec) WEX_TSA(requires_capability(chain)) {
  const bool by_script = rec->action == SHELL_RESTART;
  const spawner spawn = by_script ? wex_shell_spawn : wex_spawn;
  int32_t new_pid = -1;
  const int32_t result = spawn(rec, &new_pid);
  __wex_adopt_pid(chain, rec, new_pid);
  rec->restart_failed = new_pid < 1;
  wex_dbg(WEX_DBG_PUB, by_script ? "pid (%d) shell restart ret = %d\n" : "pid (%d) restart ret = %d\n",
          new_pid, result);
}

// The record of one database file, or null.
wex_pid* read_record(int32_t vsd, const char* dir, const char* name) {
  char path[kPathSize];
  wex_pid* const rec = wex_new_record();
  if (!wex_format(path, sizeof path, "%s/%s", dir, name) || wex_read_pidfile(path, rec) != 0) {
    wex_dbg(WEX_DBG_PUB, "wex_read_pidfile %s fail\n", name);
    wex_free_record(rec);
    return nullptr;
  }
  rec->vsd = vsd;
  wex_copy_text(rec->process, sizeof rec->process, rec->script);
  return rec;
}

void restore(wex_chains_t* chain, wex_pid* rec) {
  chain_lock registry(
      wex_chains);  // the restart rules ask for it by name; it is the same lock, and recursive
  chain_lock hold(*chain);
  __wex_add_record(chain, rec);
  if (process_life(rec->pid) >= 0) {
    wex_note_identity(rec);
    tell_stranger(rec);
    return;
  }
  wex_dbg(WEX_DBG_PUB, "pid (%d) is not exist\n", rec->pid);
  if (wex_proc_restart_delay(rec) == 0) {
    restart(chain, rec);
  }
}

// All names are read before the first restart: a restarted program makes a new file at once, and some file
// systems would show it to a walk that has already begun. It would be taken for a second registration. False
// while there is no memory to begin with.
bool read_names(const char* dir, text_block* names) {
  dir_walk walk(dir);
  if (!walk.valid()) {
    return errno != ENOMEM;
  }
  for (const dirent* entry = walk.next(); entry != nullptr; entry = walk.next()) {
    while (!names->append("%s", entry->d_name)) {
      safe_sleep(kMemoryRetrySec);  // a name left out would be a program left alone
    }
  }
  return true;
}

void restore_domain(wex_chains_t* chain, int32_t vsd) {
  char dir[kPathSize];
  text_block names;
  if (!wex_format(dir, sizeof dir, kDbDirFmt, vsd)) {
    return;
  }
  while (!read_names(dir, &names)) {
    safe_sleep(kMemoryRetrySec);
  }
  for (const char* name = names.next(nullptr); name != nullptr; name = names.next(name)) {
    wex_pid* const rec = read_record(vsd, dir, name);
    if (rec != nullptr) {
      restore(chain, rec);
    }
  }
}

}  // namespace

int wex_rebuild_chains(wex_chains_t* chain) {
  for (int32_t vsd = 0; vsd < WEX_DOMAINS; vsd++) {
    restore_domain(chain, vsd);
  }
  return 0;
}

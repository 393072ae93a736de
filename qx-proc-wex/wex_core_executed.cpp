// wex_core_executed: third-part programs are registered when they are executed. They are looked for in /proc
// when the report may be missing: before the daemon ran, or while events were lost.
//
// All of it on the monitor's thread, so that no process is registered twice.
#define WEX_MODULE "wex_core"
#include "wex_core_executed.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "chain_lock.h"
#include "dir_walk.h"
#include "text_buffer.h"
#include "text_number.h"
#include "wex_chain.h"
#include "wex_chain_list.h"
#include "wex_chain_user.h"
#include "wex_core_stop.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_strict.h"
#include "wex_utils.h"
#include "wex_vsd.h"

namespace {

constexpr char kThreadName[] = "wex_process_netlink";
constexpr size_t kTypeSize = 1024;

bool is_supervised(int32_t pid) {
  chain_lock hold(wex_chains);
  const wex_pid* const rec = __wex_find_pid(&wex_chains, pid);
  return rec != nullptr && rec->thread_of == 0 && wex_record_lives(rec);
}

// Neither one that has ended nor a zombie has one. One whose program we may not see has one.
bool has_program(int32_t pid) {
  char link[kPathSize];
  char first;
  return wex_format(link, sizeof link, kProcExeFmt, pid) &&
         (readlink(link, &first, sizeof first) > 0 || errno == EACCES);
}

// False when the program could not be registered: it may be tried again. In strict mode its user is looked at
// first: a process that has the user, and the arguments, of one moment and the rights of another must not be
// registered.
bool register_executed(int32_t pid) {
  char type[kTypeSize];
  process_user before = {};
  wex_look_at_user(pid, &before);
  if (wex_pid_in_wexdb(pid, kThirdPartList, type, sizeof type) == 0) {
    return true;
  }
  wex_pid started = {};
  started.pid = pid;
  if (pid_to_cmdline(pid, started.process, sizeof started.process) == nullptr) {
    wex_dbg(WEX_DBG_PUB, "%s--> pid_to_proc error!\n", kThreadName);
  }
  if (wex_proc_in_wexdb(kThirdPartList, started.process, type, sizeof type) == 0) {
    wex_dbg(WEX_DBG_PUB, "%s is not in wexdb!\n", started.process);
    return true;
  }
  started.vsd = wex_domain_or_main(get_vsdid(pid));
  wex_find_user(&started);
  {
    chain_lock hold(wex_chains);
    // A record whose last restart left no process does not count. It is dropped only when the new one is in
    // the registry: this process may have ended by now, and its program would not be registered any more.
    if (__wex_runs_elsewhere(&started)) {
      wex_dbg(WEX_DBG_PUB, "%s--> %s is running\n", kThreadName, started.process);
      return true;
    }
  }
  wex_dbg(WEX_DBG_PUB, "%s--> To register to wex, process: %s, pid: %d, type: %s, type_len: %d\n",
          kThreadName, started.process, pid, type, static_cast<int>(strlen(type)));
  const bool done = wex_register_listed(pid, type, nullptr, before) == 0;
  if (!done) {
    wex_dbg(WEX_DBG_PUB, "%s--> reg_third_part_process_exit_action error!\n", kThreadName);
  }
  return done;
}

}  // namespace

// Once, but for strict mode: a program that gives up its rights as it starts is another user's in the next
// look, and stays it.
bool wex_register_executed(int32_t pid) {
  for (int tries = 1; !register_executed(pid) && wex_strict().on && tries < kExecutedTries; ++tries) {
  }
  // The restart that frees the pid of one that was left out is an execution, too; what else does is found
  // within a minute.
  return has_program(pid) && !wex_listed_left_out();
}

void wex_register_running() {
  wex_forget_listed_left_out();
  if (access(kThirdPartList, F_OK) != 0) {
    return;
  }
  dir_walk processes(kProcDir);
  while (const dirent* const entry = processes.valid() ? processes.next() : nullptr) {
    const int32_t pid =
        entry->d_name[0] >= '0' && entry->d_name[0] <= '9' ? text_to_number(entry->d_name) : 0;
    if (wex_exit_flag.load(std::memory_order_relaxed) != 0) {
      return;
    }
    if (pid > 0 && !is_supervised(pid)) {
      wex_register_executed(pid);
    }
  }
}

// wex_core_notify: the thread watchdog. Once a minute it looks at every registered thread; one that stayed
// silent for the agreed number of periods gets its process aborted, so that it dies and is restarted.
#define WEX_MODULE "wex_core"
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "chain_lock.h"
#include "text_buffer.h"
#include "wex_alive_guard.h"
#include "wex_black_box.h"
#include "wex_chain.h"
#include "wex_chain_user.h"
#include "wex_core_notify.h"
#include "wex_core_stop.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_proc.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"
#include "wex_vsd.h"

namespace {

constexpr char kWatchdog[] = "wex_notifer_run";
constexpr size_t kThreadNameSize = 32;

// One abort a scan, and whose turn it is. The process that was aborted last may ignore the signal, so the
// next scan takes the next process, however many hung threads this one has.
struct turn {
  uid_t user;
  int32_t last_served;  // the process that was aborted last,
  bool passed;          // if the last scan aborted one
  // In the present scan, with the chain held:
  const wex_pid* first;   // the hung thread that the walk met first
  const wex_pid* next;    // a hung thread of the process whose turn comes next
  const wex_pid* lowest;  // the same, of the process whose turn comes first of all
};

// Without strict mode all processes take the first turn. In it that is root's, and others have turns of their
// own, or one user's hung processes would keep those of everybody waiting. Watchdog's thread only.
turn g_turns[kHungUsers];
// Of users who found no turn free the next one above the last whom one was given.
bool g_somebody_waits = false;
uid_t g_who_waits = 0;
uid_t g_last_given = 0;
int g_last_freed = 0;  // the turn that was taken from its user for that

// The hung thread that is served, and what its process was like before the look at it.
struct hung_thread {
  int32_t tid;
  int32_t process;
  process_look before;
  int32_t domain;
};

struct hung_threads {
  hung_thread rows[kHungUsers];
  int count = 0;
};

// Counter arithmetic: the values came out of a message and may be anything.
int32_t add(int32_t value, int32_t more) {
  return static_cast<int32_t>(static_cast<uint32_t>(value) + static_cast<uint32_t>(more));
}

void drop_gone(wex_pid* thread, int result) WEX_TSA(requires_capability(wex_alive_chains)) {
  wex_dbg(WEX_DBG_ALIVE, "pid is not exist(%d, ret:%d)\n", thread->pid, result);
  __wex_drop_thread(&wex_alive_chains, thread);
}

// A changed sequence byte is a report, whatever it changed to. Also in a table that has lost its name:
// threads that mapped it before still report there.
void look_for_report(wex_pid* thread) {
  if (!wex_in_alive_table(thread->pid) || wex_alive_read_bit(static_cast<uint32_t>(thread->pid)) != 1) {
    return;
  }
  const int sequence = wex_alive_read_seq(static_cast<uint32_t>(thread->pid));
  if (sequence < 0 || static_cast<uint32_t>(sequence) == thread->alive_seq) {
    return;
  }
  thread->alive_seq = static_cast<uint32_t>(sequence);
  thread->notify_info[WEX_CUR_NTFY_TIME] = 0;
  thread->notify_info[WEX_CUR_CNT] = thread->notify_info[WEX_NTFY_CNT];
}

void count_miss(wex_pid* thread) {
  int32_t* const info = thread->notify_info;
  info[WEX_CUR_CNT] = add(info[WEX_CUR_CNT], -1);
  const int32_t missed = static_cast<int32_t>(static_cast<uint32_t>(info[WEX_NTFY_CNT]) -
                                              static_cast<uint32_t>(info[WEX_CUR_CNT]));
  if (missed >= (info[WEX_NTFY_CNT] < kFewMisses ? kWarnFew : kWarnMany)) {
    wex_dbg(WEX_DBG_ALIVE,
            "Process pid(%d) tid(%d) not notify reset for %d times, It will be killed after %d times!!!\n",
            thread->ppid, thread->pid, missed, info[WEX_NTFY_CNT]);
  }
}

// One period has passed without a report. It counts only while the process's main thread is registered too.
void end_period(wex_pid* thread, bool counting) WEX_TSA(requires_capability(wex_alive_chains)) {
  int32_t* const info = thread->notify_info;
  if (__wex_find_pid(&wex_alive_chains, thread->ppid) == nullptr) {
    wex_dbg(WEX_DBG_PUB, "pid:%d not reg alive!\n", thread->ppid);
  } else if (info[WEX_CUR_CNT] > 0 && counting) {
    count_miss(thread);
  }
  info[WEX_CUR_NTFY_TIME] = 0;
  wex_dbg(WEX_DBG_ALIVE,
          "Decrease pid (%d) ppid (%d) ntfy_time (%d) ntfy_cnt (%d) cur_cnt (%d) cur_ntfy_time (%d)\n",
          thread->pid, thread->ppid, info[WEX_NTFY_TIME], info[WEX_NTFY_CNT], info[WEX_CUR_CNT],
          info[WEX_CUR_NTFY_TIME]);
}

// The order in which processes take turns: that of the walk over their main threads.
bool has_earlier_turn(int32_t process, int32_t other) {
  const auto bucket = wex_hash_pid(process);
  const auto other_bucket = wex_hash_pid(other);
  return bucket != other_bucket ? bucket < other_bucket : process < other;
}

// The turn of the user whose process this is, or null: so many other users have hung processes, too, that he
// has to wait.
turn* turn_of(const wex_pid* thread) {
  uid_t wanted = 0;  // of nobody who is known: root's
  wex_uid_of(thread, &wanted);
  turn* spare = nullptr;
  for (turn& one : g_turns) {
    if (one.user == wanted) {
      return &one;
    }
    if (&one != g_turns && !one.passed && one.first == nullptr) {
      spare = &one;
    }
  }
  if (spare != nullptr) {
    *spare = {wanted, 0, false, nullptr, nullptr, nullptr};
  } else if (!g_somebody_waits || wanted - g_last_given - 1 < g_who_waits - g_last_given - 1) {
    g_somebody_waits = true;
    g_who_waits = wanted;
  }
  return spare;
}

// Processes that ignore the signal stay hung, and their users would keep their turns: so one after the other
// gives his away, and waits himself.
void free_turn_for_who_waits() {
  if (g_somebody_waits) {
    g_somebody_waits = false;
    g_last_freed = g_last_freed % (kHungUsers - 1) + 1;  // never the first, root's
    g_last_given = g_who_waits;
    g_turns[g_last_freed] = {g_who_waits, 0, true, nullptr, nullptr, nullptr};
  }
}

void note_hung(const wex_pid* thread) {
  turn* const his = turn_of(thread);
  if (his == nullptr) {
    return;
  }
  if (his->first == nullptr) {
    his->first = thread;
  }
  if (his->lowest == nullptr || has_earlier_turn(thread->ppid, his->lowest->ppid)) {
    his->lowest = thread;
  }
  if (has_earlier_turn(his->last_served, thread->ppid) &&
      (his->next == nullptr || has_earlier_turn(thread->ppid, his->next->ppid))) {
    his->next = thread;
  }
}

void look_at(wex_pid* thread, bool counting) WEX_TSA(requires_capability(wex_alive_chains)) {
  int32_t* const info = thread->notify_info;
  wex_dbg(WEX_DBG_ALIVE, "pid (%d) ppid (%d) ntfy_time (%d) ntfy_cnt (%d) cur_cnt (%d) cur_ntfy_time (%d)\n",
          thread->pid, thread->ppid, info[WEX_NTFY_TIME], info[WEX_NTFY_CNT], info[WEX_CUR_CNT],
          info[WEX_CUR_NTFY_TIME]);
  const int gone = wex_check_pid_exist(thread);
  if (gone != 0) {
    drop_gone(thread, gone);
    return;
  }
  info[WEX_CUR_NTFY_TIME] = add(info[WEX_CUR_NTFY_TIME], static_cast<int32_t>(kScanSec));
  look_for_report(thread);
  if (info[WEX_CUR_NTFY_TIME] == info[WEX_NTFY_TIME]) {
    end_period(thread, counting);
  }
  if (info[WEX_CUR_CNT] == 0) {
    note_hung(thread);
  }
}

// Whose turn it is. Behind the last process it is the first one's again, and so it is after a scan that found
// nobody hung.
const wex_pid* choose(const turn& now) {
  if (!now.passed) {
    return now.first;
  }
  return now.next != nullptr ? now.next : now.lowest;
}

// Ends the turn of this scan: the thread that is to be served is added.
void take_turn(turn* one, hung_threads* served) {
  const wex_pid* const due = choose(*one);
  one->passed = due != nullptr;
  if (due != nullptr) {
    one->last_served = due->ppid;
    hung_thread& hung = served->rows[served->count++];
    hung.tid = due->pid;
    hung.process = due->ppid;
  }
  one->first = one->next = one->lowest = nullptr;
}

void look_at_all(bool counting, hung_threads* served) {
  chain_lock hold(wex_alive_chains);
  record_walk walk(wex_alive_chains);
  while (wex_pid* const thread = walk.next()) {
    look_at(thread, counting);  // may free it
  }
  for (turn& one : g_turns) {
    take_turn(&one, served);
  }
  free_turn_for_who_waits();
}

// ---- Aborting ---------------------------------------------------------------------------------------------

bool is_watched(int32_t tid) WEX_TSA(requires_capability(wex_alive_chains)) {
  return __wex_find_pid(&wex_alive_chains, tid) != nullptr;
}

int32_t domain_of(int32_t process) {
  const int32_t domain = get_vsdid(process);
  return domain >= kFirstDomain && domain < WEX_DOMAINS ? domain : kMainSystem;
}

// False when the process has ended since; another one may have its pid by now. What cannot be seen counts as
// the same.
bool is_still_there(const hung_thread& hung) {
  const process_look now = wex_look_at(hung.process);
  if (now.sight == process_look::gone || hung.before.sight == process_look::gone) {
    return false;
  }
  return now.sight != process_look::seen || hung.before.sight != process_look::seen ||
         now.start_time == hung.before.start_time;
}

void abort_hung(const wex_pid* thread, int32_t domain) {
  wex_dbg(WEX_DBG_ALIVE, "ntfy_cnt(%d), send SIGABRT to ppid (%d)\n", thread->notify_info[WEX_NTFY_CNT],
          thread->ppid);
  const char* const slash = strrchr(thread->process, '/');
  const char* const program = slash != nullptr ? slash + 1 : thread->process;
  char name[kThreadNameSize];
  if (wex_get_pid_name(thread->pid, name, sizeof name) != 0) {
    wex_copy_text(name, sizeof name, "unknown");
  }
  // Told first: the exit that follows from the signal comes behind it.
  wex_status_tell_of(WEX_STATUS_EV_HANG, thread->ppid, thread->process, {0, thread->pid, 0, 0, domain});
  if (thread->ppid > 0) {  // 0 and below would address whole process groups
    kill(thread->ppid, SIGABRT);
  }
  wex_log_notify_info(kNotifyLog, "detect process:[%s/%d] thread %s:%d hung.\n", program, thread->ppid, name,
                      thread->pid);
}

// False when the thread needs no abort any more: it was removed, has reported, or its process has ended.
bool abort_if_still_hung(const hung_thread& hung) {
  chain_lock hold(wex_alive_chains);
  wex_pid* const thread = __wex_find_pid(&wex_alive_chains, hung.tid);
  if (thread == nullptr || thread->ppid != hung.process || (hung.process > 0 && !is_still_there(hung))) {
    return false;
  }
  look_for_report(thread);
  if (thread->notify_info[WEX_CUR_CNT] != 0) {
    return false;
  }
  if (!wex_may_abort(thread)) {
    __wex_drop_thread(&wex_alive_chains, thread);
    return false;
  }
  wex_note_watched(is_watched);
  abort_hung(thread, hung.domain);
  return true;
}

// The look at the process's threads and the file about them take their time, the disk's above all. Threads
// register and exits are handled meanwhile, so the chain is not held.
void serve(hung_thread hung) {
  hung.before = wex_look_at(hung.process);
  hung.domain = domain_of(hung.process);
  wex_look_at_hung(hung.process, hung.tid);
  if (abort_if_still_hung(hung)) {
    wex_keep_hung();
  }
}

// Somebody may have removed or cut the table. Reports may then go to another one, and a silent thread looks
// like one that reports there.
bool check_table() {
  static bool logged = false;  // watchdog's thread only
  const bool intact = wex_alive_table_intact();
  if (!intact && !logged) {
    wex_running_log(
        "%s is not the table that threads were registered in, or is full, hangs are not counted.\r\n",
        kAliveTableFile);
  }
  logged = !intact;
  return intact;
}

void dump_chains() {
  int (*const dump)(int, wex_chains_t*) =
      access(kDumpToConsole, F_OK) == 0 && wex_counts(kDumpToConsole) ? wex_print_chains : wex_syslog_chains;
  dump(0, &wex_chains);
  dump(1, &wex_alive_chains);
  dump(2, &wex_chains_delay);
}

}  // namespace

extern "C" int wex_check_pid_exist(wex_pid* rec) {
  const int32_t owner = wex_get_ppid_form_pid(rec->pid);
  if (owner >= 0 && owner != rec->ppid) {
    wex_dbg(WEX_DBG_ALIVE, "%s: ppid info no match(reg:%d, now:%d)\n", __func__, rec->ppid, owner);
    return -1;
  }
  char command[256];
  if (pid_to_cmdline(rec->pid, command, sizeof command) != nullptr &&
      strncmp(rec->process, command, strlen(command)) != 0) {
    wex_dbg(WEX_DBG_ALIVE, "%s: cmdline info no match(reg:%s, now:%s)\n", __func__, rec->process, command);
    return -1;
  }
  return process_life(rec->pid);
}

void wex_scan_alive_chains() {
  if (wex_is_open_pub_dbg() != 0) {
    dump_chains();
  }
  const bool paused = access(kKillDebug, F_OK) == 0 && wex_counts(kKillDebug);
  wex_counts(kExemptThreads);  // only the library reads it, which cannot tell the log of a user's
  const bool quiet = wex_get_semval() == 0;
  const bool table_intact = check_table();
  hung_threads hung = {};
  look_at_all(!paused && quiet && table_intact, &hung);
  for (int at = 0; at < hung.count; ++at) {
    serve(hung.rows[at]);
  }
  if (wex_dbg_on(WEX_DBG_ALIVE)) {
    wex_dbg(WEX_DBG_ALIVE, "sem_cnt = %d\n", wex_get_semval());
  }
}

// Kept: the spelling, which is also the thread's name, see docs/decisions.md.
extern "C" void* wex_notifer_run(void* /*unused*/) {
  if (prctl(PR_SET_NAME, "wex_thread_notify_timer") != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: %s", kWatchdog, strerror(errno));
  }
  if (wex_set_priority(kMonitorPriority) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: set priority fail: %s\n", kWatchdog, strerror(errno));
  }
  wex_status_thread_is(kStatusNotifier);
  while (wex_exit_flag.load(std::memory_order_relaxed) == 0) {
    wex_status_busy(kStatusNotifier);
    wex_scan_alive_chains();
    wex_status_idle(kStatusNotifier);
    wex_wait_exit(static_cast<int64_t>(kScanSec) * 1000);
  }
  return nullptr;
}

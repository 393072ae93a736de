// wex_chain: the registry. Three chains of records, each with its own lock.
//
// Whoever walks or changes a chain holds its lock; the records of a chain belong to the chain. The memory of
// replaced pids below is guarded by the lock of wex_chains.

#define WEX_MODULE "wex_chain"
#include "wex_chain.h"

#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "chain_lock.h"
#include "hash_links.h"
#include "pid_set.h"
#include "priority_mutex.h"
#include "safe_io.h"
#include "text_block.h"
#include "text_buffer.h"
#include "waiting.h"
#include "wex_alive_guard.h"
#include "wex_chain_identity.h"
#include "wex_chain_names.h"
#include "wex_chain_user.h"
#include "wex_clock.h"
#include "wex_core_filter.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_pidfile.h"
#include "wex_platform.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"

wex_chains_t wex_chains;
wex_chains_t wex_alive_chains;
wex_chains_t wex_chains_delay;

namespace {

constexpr uint32_t kHashFactor = 0x9e370001U;
constexpr uint32_t kHashShift = 24;

// What a removed link holds. A record that is used after its removal is recognised by them in a core dump.
// Kept: these very values, see docs/decisions.md.
constexpr uintptr_t kPoisonForward = 0x100100;
constexpr uintptr_t kPoisonBackward = 0x200200;

constexpr int kSystemLogPriority = 6;
constexpr const char* kHeadings[] = {
    "register restart in wex:", "register hang in wex:", "delay restart in wex:"};

struct replacement {
  int32_t old_pid;
  int32_t new_pid;
  int32_t time;
  ended_process process;
};

replacement g_replaced[kReplacedKept] WEX_TSA(guarded_by(wex_chains));
unsigned g_replaced_next WEX_TSA(guarded_by(wex_chains)) = 0;

wex_pid* link_to_itself(wex_pid* rec) {
  rec->list.next = &rec->list;
  rec->list.prev = &rec->list;
  return rec;
}

void unlink_list(wex_list* link) {
  link->next->prev = link->prev;
  link->prev->next = link->next;
  link->next = reinterpret_cast<wex_list*>(kPoisonForward);
  link->prev = reinterpret_cast<wex_list*>(kPoisonBackward);
}

void take_out(wex_chains_t* chain, wex_pid* rec) WEX_TSA(requires_capability(chain)) {
  if (chain == &wex_chains) {
    chain_lock hold(wex_chains);  // the same lock, under the name that the index asks for
    __wex_remove_name(rec);
    wex_status_hide(rec);
  }
  hlist_del(&rec->hnode);
  if (chain == &wex_chains) {
    __wex_keep_user_of_owner(chain, rec->pid);
  }
  wex_release_user(rec);
  unlink_list(&rec->list);
  chain->count--;
}

wex_hnode** bucket_of(wex_chains_t* chain, int32_t pid) WEX_TSA(requires_capability(chain)) {
  return &chain->heads[wex_hash_pid(pid)];
}

// The next number for a registration that has given `pid` up, one of the same bucket: the registry may be
// walked through meanwhile. -1 is that of all without a process.
int32_t number_like(int32_t pid) WEX_TSA(requires_capability(wex_chains)) {
  constexpr int32_t kFirst = -2;
  static int32_t next = kFirst;
  int32_t number = 0;
  do {
    number = next;
    next = number > INT32_MIN ? number - 1 : kFirst;
  } while (wex_hash_pid(number) != wex_hash_pid(pid) || __wex_find_pid(&wex_chains, number) != nullptr);
  return number;
}

bool has_ended(const wex_pid* rec) {
  return rec->thread_of == 0 && !wex_record_lives(rec);
}

bool is_roots_that_ended(const wex_pid* rec) {
  uid_t uid = 0;
  return wex_uid_of(rec, &uid) && uid == 0 && has_ended(rec);
}

// Whether a registration leaves its pid to another process that has it by now. One that could not be started
// again, or waits for its hand-over, does so in either mode, also once it is postponed or parked behind that:
// no process of its own has the pid.
bool may_give_up_pid(const wex_pid* rec) {
  return (rec->awaited != 0 && rec->start_time == kStartOfNobody) ||
         (rec->restart_failed != 0 && has_ended(rec)) ||
         (wex_strict().on && rec->exit_seen != 0 && wex_is_users(rec));
}

bool has_file(const wex_pid* rec) {
  char file[kPathSize];
  struct stat facts = {};
  return wex_name_pidfile(rec, file) && lstat(file, &facts) == 0;
}

// Whether the next daemon is to start it by its file. In strict mode a user's goes. Without it none is made
// beside that of a process of the same program, which takes its place.
bool keeps_file(const wex_pid* rec, bool is_takers, const pid_taker& taker) {
  if (wex_strict().on) {
    return is_roots_that_ended(rec);
  }
  return has_file(rec) && !(is_takers && strcmp(rec->process, taker.file_of->process) == 0);
}

// First what tells its ids and its whole command: the database file is read in part.
bool renumber_files(const wex_pid* rec, int32_t number, bool is_takers)
    WEX_TSA(requires_capability(wex_chains)) {
  wex_pid numbered = *rec;
  numbered.pid = number;
  wex_keep_user(&numbered);
  if (wex_renumber_pidfile(rec, number, is_takers)) {
    return true;
  }
  wex_forget_user(number);
  return false;
}

// The copy that waits for the restart is still found by the registration's number.
void give_up_pid(wex_pid* rec, const pid_taker& taker) WEX_TSA(requires_capability(wex_chains)) {
  const int32_t pid = rec->pid;
  const int32_t number = number_like(pid);
  const bool is_takers = taker.file_of != nullptr && wex_has_pidfile_of(rec, taker.file_of);
  if (keeps_file(rec, is_takers, taker) && !renumber_files(rec, number, is_takers)) {
    return;  // they are all that the next daemon will know of it
  }
  if (!is_takers) {
    wex_db_destroy(rec);
  }
  if (rec->vsd >= kFirstDomain && rec->vsd != taker.domain) {
    wex_remove_flag_files(rec->vsd, pid);
  }
  wex_forget_user(pid);
  rec->pid = number;
  {
    chain_lock hold(wex_chains_delay);
    if (wex_pid* const copy = __wex_find_postponed(&wex_chains_delay, pid, rec->postponed)) {
      copy->pid = rec->pid;
    }
  }
  wex_status_refresh(rec);
}

// What was found dead, without an exit that was handled, has ended by now.
ended_process identity_of(const wex_pid* rec) {
  if (rec->thread_of != 0) {
    return {};  // a process that has this pid got it when the thread had ended
  }
  const int64_t ended_by_ns = rec->ended_by_ns != 0 ? rec->ended_by_ns : wex_clock_ns() + kReportSlackNs;
  return {rec->start_time, rec->seen_ns, ended_by_ns, rec->exit_tick, true};
}

void note_replaced(const wex_pid* rec, int32_t new_pid) WEX_TSA(requires_capability(wex_chains)) {
  g_replaced[g_replaced_next % kReplacedKept] = {rec->pid, new_pid, wex_clock_now(), identity_of(rec)};
  g_replaced_next++;
}

bool is_recent(const replacement& entry) {
  return int64_t{wex_clock_now()} - entry.time <= kReplacedKeepSec;
}

// The newest replacement of `pid`, unless it is too old or led to no process; else null.
const replacement* find_replaced(int32_t pid) WEX_TSA(requires_capability(wex_chains)) {
  for (unsigned back = 1; back <= kReplacedKept; back++) {
    const replacement& entry = g_replaced[(g_replaced_next - back) % kReplacedKept];
    if (entry.old_pid == pid) {
      return entry.new_pid > 0 && is_recent(entry) ? &entry : nullptr;
    }
  }
  return nullptr;
}

bool is_due_before(const wex_pid* rec, const wex_pid* other) {
  if ((rec->exit_seen != 0) != (other->exit_seen != 0)) {
    return rec->exit_seen == 0;
  }
  return rec->gone_since < other->gone_since;
}

// Every process whose exit, or whose threads' core dumps, concern the registry. Whoever keeps the pid of an
// awaited one may be gone before. False when they are too many.
bool gather_expected(pid_set* pids) WEX_TSA(requires_capability(wex_chains)) {
  record_walk walk(wex_chains);
  for (const wex_pid* rec = walk.next(); rec != nullptr; rec = walk.next()) {
    if ((rec->pid > 0 && !pids->add(rec->pid)) || (rec->awaited > 0 && !pids->add(rec->awaited))) {
      return false;
    }
  }
  for (const replacement& entry : g_replaced) {
    if (entry.old_pid > 0 && is_recent(entry) && !pids->add(entry.old_pid)) {
      return false;
    }
  }
  return true;
}

// The console and the system log may be slow or stand still: what they get is gathered with the chain held
// and written after it.
void gather(int kind, wex_chains_t* chain, text_block* lines) {
  if (kind >= 0 && kind < static_cast<int>(std::size(kHeadings))) {
    lines->append("%s\n", kHeadings[kind]);
  }
  chain_lock hold(*chain);
  lines->append("node num:%d\n", chain->count);
  record_walk walk(*chain);
  for (const wex_pid* rec = walk.next(); rec != nullptr; rec = walk.next()) {
    lines->append("pid: %-6d, vsd: %-2d, regact: %d, pname:  %s, %s\n", rec->pid, rec->vsd, rec->action,
                  rec->process, rec->script);
  }
}

// Says that lines are missing, so that the dump is not taken for the whole chain.
void tell_lost(const char* caller, const text_block& lines) {
  if (lines.lost() > 0) {
    wex_dbg(WEX_DBG_PUB, "%s: no memory for %d lines\n", caller, lines.lost());
  }
}

bool is_same_program(const wex_pid* a, const wex_pid* b) {
  return a->vsd == b->vsd && strcmp(a->process, b->process) == 0 && wex_same_user(a, b);
}

// The other registration of rec's program, or `rec` itself when it has no flags; null when there is none.
wex_pid* look_elsewhere(wex_pid* rec, bool failed_too) WEX_TSA(requires_capability(wex_chains)) {
  if (!__wex_name_may_be_taken(rec->process, rec)) {
    return nullptr;
  }
  record_walk walk(wex_chains);
  for (wex_pid* other = walk.next(); other != nullptr; other = walk.next()) {
    if (!is_same_program(other, rec) || other->pid == rec->pid ||
        (!failed_too && other->restart_failed != 0)) {
      continue;
    }
    wex_dbg(WEX_DBG_PUB, "pwex_pid pid %d vsd %d process %s!\n", rec->pid, rec->vsd, rec->process);
    wex_dbg(WEX_DBG_PUB, "wex_pid pid %d vsd %d process %s!\n", other->pid, other->vsd, other->process);
    wex_dbg(WEX_DBG_PUB, "%s is running!\n", rec->process);
    if (rec->flags != 0) {
      return other;
    }
    wex_dbg(WEX_DBG_PUB, "pwex_pid pid %d flags:%d\n", rec->pid, static_cast<int>(rec->flags));
    return rec;
  }
  return nullptr;
}

}  // namespace

static_assert((kReplacedKept & (kReplacedKept - 1)) == 0, "the ring's index wraps around");

wex_pid* record_walk::next() noexcept {
  while (ahead_ == nullptr && bucket_ < WEX_CHAIN_BUCKETS - 1) {
    ahead_ = chain_.heads[++bucket_];
  }
  if (ahead_ == nullptr) {
    return nullptr;
  }
  wex_pid* const rec = wex_record_of(ahead_);
  ahead_ = ahead_->next;
  return rec;
}

uint32_t wex_hash_pid(int32_t pid) {
  return (static_cast<uint32_t>(pid) * kHashFactor) >> kHashShift;
}

void hlist_del(wex_hnode* node) {
  unlink_node(node);
  node->next = reinterpret_cast<wex_hnode*>(kPoisonForward);
  node->pprev = reinterpret_cast<wex_hnode**>(kPoisonBackward);
}

wex_pid* wex_new_record() {
  return link_to_itself(static_cast<wex_pid*>(safe_malloc(sizeof(wex_pid))));
}

wex_pid* wex_blank_record(wex_pid* memory) {
  memset(memory, 0, sizeof *memory);
  return link_to_itself(memory);
}

void wex_free_record(wex_pid* rec) {
  free(rec);
}

void __wex_expect_exit(int32_t pid) {
  if (!wex_pass_exits_of(pid)) {
    __wex_tidy_filter();
    wex_pass_exits_of(pid);
  }
}

void __wex_expect_child(int32_t pid) {
  wex_pass_exits_after(pid);
  __wex_expect_exit(pid);
}

void __wex_tidy_filter() {
  pid_set pids;
  wex_pass_exits_only_of(gather_expected(&pids) ? &pids : nullptr);
}

void __wex_add_record(wex_chains_t* chain, wex_pid* rec) {
  if (chain == &wex_chains) {
    chain_lock hold(wex_chains);  // the same lock, under the name that filter and index ask for
    __wex_expect_exit(rec->pid);
    __wex_enter_name(rec);
  }
  link_at_head(bucket_of(chain, rec->pid), &rec->hnode);
  chain->count++;
  wex_hold_user(rec);
  if (chain == &wex_chains) {
    wex_status_show(rec);
    wex_keep_user(rec);
    if (const wex_user* const user = wex_user_of(rec)) {
      wex_status_show_user(rec, user->uid);
    }
  }
}

wex_pid* __wex_restore_record(wex_chains_t* chain, const wex_pid& before) {
  wex_pid* const rec = wex_new_record();
  *rec = before;
  __wex_add_record(chain, link_to_itself(rec));
  return rec;
}

void __wex_drop_record(wex_chains_t* chain, wex_pid* rec) {
  take_out(chain, rec);
  wex_free_record(rec);
}

void __wex_drop_registration(wex_pid* rec) {
  wex_db_destroy(rec);
  __wex_drop_record(&wex_chains, rec);
}

wex_pid* __wex_recycle_registration(wex_pid* rec) {
  wex_db_destroy(rec);
  return __wex_recycle_record(&wex_chains, rec);
}

void __wex_drop_thread(wex_chains_t* chain, wex_pid* thread) {
  if (wex_in_alive_table(thread->pid)) {
    wex_sys_unreg_alive_info(static_cast<uint32_t>(thread->pid));
  }
  __wex_drop_record(chain, thread);
}

wex_pid* __wex_find_pid(const wex_chains_t* chain, int32_t pid) {
  for (wex_hnode* node = chain->heads[wex_hash_pid(pid)]; node != nullptr; node = node->next) {
    wex_pid* const rec = wex_record_of(node);
    if (rec->pid == pid) {
      return rec;
    }
  }
  return nullptr;
}

wex_pid* __wex_find_postponed(const wex_chains_t* chain, int32_t pid, int32_t number) {
  wex_hnode* node = number != 0 ? chain->heads[wex_hash_pid(pid)] : nullptr;
  while (node != nullptr && wex_record_of(node)->postponed != number) {
    node = node->next;
  }
  return node != nullptr ? wex_record_of(node) : nullptr;
}

wex_pid* __wex_find_ended(int32_t pid, uint64_t start_time) {
  wex_pid* found = nullptr;
  for (wex_hnode* node = *bucket_of(&wex_chains, pid); node != nullptr; node = node->next) {
    wex_pid* const rec = wex_record_of(node);
    const bool is_one = rec->pid == pid && (start_time == 0 || rec->start_time == start_time);
    if (is_one && (found == nullptr || is_due_before(rec, found))) {
      found = rec;
    }
  }
  return found;
}

void __wex_keep_user_of_owner(const wex_chains_t* chain, int32_t pid) {
  if (const wex_pid* const rec = __wex_find_pid(chain, pid)) {
    wex_keep_user(rec);
  } else {
    wex_forget_user(pid);
  }
}

void __wex_free_pid(const pid_taker& taker) {
  if (taker.pid < 1) {
    return;
  }
  for (wex_hnode* node = *bucket_of(&wex_chains, taker.pid); node != nullptr; node = node->next) {
    wex_pid* const rec = wex_record_of(node);
    if (rec->pid == taker.pid && rec->start_time != taker.start_time && may_give_up_pid(rec)) {
      give_up_pid(rec, taker);
    }
  }
}

void __wex_free_pid_of(const wex_pid* newcomer) {
  __wex_free_pid({newcomer->pid, newcomer->start_time, newcomer->vsd, newcomer});
}

bool __wex_leaves_pid(int32_t pid, uint64_t start_time) {
  const wex_pid* const rec = pid > 0 ? __wex_find_pid(&wex_chains, pid) : nullptr;
  return rec != nullptr && rec->start_time != start_time && may_give_up_pid(rec);
}

void __wex_del_pid(wex_chains_t* chain, int32_t pid) {
  wex_free_record(__wex_recycle_pid(chain, pid));
}

wex_pid* __wex_recycle_pid(wex_chains_t* chain, int32_t pid) {
  wex_pid* kept = nullptr;
  wex_hnode* ahead = *bucket_of(chain, pid);
  while (ahead != nullptr) {
    wex_pid* const rec = wex_record_of(ahead);
    ahead = ahead->next;
    if (rec->pid == pid) {
      wex_dbg(WEX_DBG_PUB, "%s del pid %d\n", "__wex_del_pid", pid);
      take_out(chain, rec);
      wex_free_record(kept);
      kept = rec;
    }
  }
  return kept;
}

wex_pid* __wex_recycle_record(wex_chains_t* chain, wex_pid* rec) {
  if (rec->pid > 0 && !wex_strict().on && rec->start_time != kStartOfNobody) {
    return __wex_recycle_pid(chain, rec->pid);
  }
  wex_dbg(WEX_DBG_PUB, "%s del pid %d\n", "__wex_del_pid", rec->pid);
  take_out(chain, rec);
  return rec;
}

int wex_init_chains(wex_chains_t* chain) {
  const int result = create_priority_mutex(&chain->mutex, PTHREAD_MUTEX_RECURSIVE);
  if (result != 0) {
    return result;
  }
  chain_lock hold(*chain);
  memset(chain->heads, 0, sizeof chain->heads);
  chain->count = 0;
  if (chain == &wex_chains) {
    chain_lock same(wex_chains);
    __wex_clear_names();
  }
  return 0;
}

int wex_destroy_chains(wex_chains_t* chain) {
  chain_lock hold(*chain);
  record_walk walk(*chain);
  for (wex_pid* rec = walk.next(); rec != nullptr; rec = walk.next()) {
    if (chain == &wex_alive_chains) {
      __wex_drop_thread(chain, rec);
    } else {
      __wex_drop_record(chain, rec);
    }
  }
  // The mutex is not destroyed: two threads are never joined, and one that is late must find an empty chain
  // behind a working lock. It owns nothing, so nothing is lost.
  return 0;
}

void wex_note_identity(wex_pid* rec) {
  rec->thread_of = wex_is_thread(rec->pid) ? wex_get_ppid_form_pid(rec->pid) : 0;
  wex_note_start(rec);
}

bool wex_note_start(wex_pid* rec) {
  char state = 0;
  uint64_t start_time = 0;
  const int32_t process = wex_process_of(rec);
  const int64_t now_ns = wex_clock_ns();
  const bool seen = process > 0 && wex_proc_stat(process, &state, &start_time);
  rec->start_time = seen ? start_time : 0;
  rec->seen_ns = seen ? now_ns : 0;
  return rec->start_time != 0 && !wex_is_dead_state(state);
}

int32_t wex_process_of(const wex_pid* rec) {
  return rec->thread_of != 0 ? rec->thread_of : rec->pid;
}

bool wex_record_lives(const wex_pid* rec) {
  const int32_t process = wex_process_of(rec);
  return process > 0 && rec->start_time != 0 && wex_proc_lives(process, rec->start_time);
}

bool __wex_adopt_pid(wex_chains_t* chain, wex_pid* rec, int32_t new_pid) {
  // Before anything else: if the daemon is killed while the old file exists, the next daemon starts the
  // program a second time.
  wex_db_destroy(rec);
  const int32_t old_pid = rec->pid;
  rec->restart_failed = 0;
  rec->awaited = 0;  // it gives no pid up to itself
  __wex_free_pid({new_pid, wex_strict_start_of(new_pid), rec->vsd, nullptr});
  note_replaced(rec, new_pid);
  __wex_expect_exit(new_pid);
  hlist_del(&rec->hnode);
  rec->pid = new_pid;
  link_at_head(bucket_of(chain, new_pid), &rec->hnode);
  rec->exit_seen = 0;
  rec->postponed = 0;
  rec->ended_by_ns = 0;
  rec->gone_since = 0;
  if (new_pid > 0) {
    rec->missed_child = 0;
    rec->missed_start = 0;
  }
  rec->exit_tick = 0;
  rec->thread_of = 0;  // what was started is a process
  rec->known_code = 0;
  if (old_pid != new_pid) {
    __wex_keep_user_of_owner(chain, old_pid);
  }
  const bool lives = wex_note_start(rec);
  wex_keep_user(rec);
  return lives;
}

int32_t __wex_replaced_by(int32_t pid) {
  const replacement* entry = find_replaced(pid);
  int32_t latest = 0;
  // A program may have been replaced again before an event of its earlier process arrives. The number of
  // steps is bounded, because the pids may come back to the first one.
  for (int step = 0; entry != nullptr && step < kReplacedKept; step++) {
    latest = entry->new_pid;
    entry = find_replaced(latest);
  }
  return latest;
}

bool __wex_find_replaced(int32_t pid, ended_process* process) {
  const replacement* const entry = find_replaced(pid);
  if (entry != nullptr) {
    *process = entry->process;
  }
  return entry != nullptr;
}

void wex_note_ended(wex_pid* rec, int64_t time_ns) {
  rec->ended_by_ns = rec->ended_by_ns != 0 ? std::min(rec->ended_by_ns, time_ns) : time_ns;
}

void wex_note_found_ended(wex_pid* rec) {
  wex_note_ended(rec, wex_clock_ns() + kReportSlackNs);
}

void __wex_note_birth(int32_t pid, int64_t time_ns) {
  // Of what is reported later nothing was earlier, though a coarse clock may show the same time.
  const int64_t before_ns = time_ns - 1;
  wex_pid* const rec = __wex_find_pid(&wex_chains, pid);
  if (rec != nullptr && rec->thread_of == 0 && wex_is_anothers_birth(rec->seen_ns, time_ns)) {
    wex_note_ended(rec, before_ns);
  }
  for (replacement& entry : g_replaced) {
    if (entry.old_pid == pid && wex_is_anothers_birth(entry.process.seen_ns, time_ns)) {
      entry.process.ended_by_ns = std::min(entry.process.ended_by_ns, before_ns);
    }
  }
}

void wex_note_failed(wex_pid* rec) {
  rec->restart_failed = std::max(wex_clock_now(), 1);  // 0 would be none
}

void __wex_drop_failed(const char* process, int32_t vsd, int32_t newcomer, const wex_pid* of_user) {
  if (!__wex_name_may_be_taken(process, nullptr)) {
    return;
  }
  record_walk walk(wex_chains);
  for (wex_pid* rec = walk.next(); rec != nullptr; rec = walk.next()) {
    const bool same_user = of_user == nullptr || wex_same_user(rec, of_user);
    if (rec->restart_failed != 0 && rec->vsd == vsd && strcmp(rec->process, process) == 0 && same_user) {
      wex_dbg(WEX_DBG_PUB, "%s del pid %d\n", __func__, rec->pid);
      wex_status_tell(WEX_STATUS_EV_REPLACED, rec, {0, newcomer});
      if (rec->pid != newcomer) {
        __wex_drop_registration(rec);
      } else {
        __wex_drop_record(&wex_chains, rec);
      }
    }
  }
}

int32_t wex_last_process(const wex_pid* rec) {
  return rec->missed_child > 0 ? rec->missed_child : rec->pid;
}

// Kept: arguments are not left out, see docs/decisions.md.
const char* wex_program_name(wex_pid* rec) {
  rtrim(rec->process);
  const char* const slash = strrchr(rec->process, '/');
  return slash != nullptr ? slash + 1 : rec->process;
}

wex_pid* wex_proc_is_running(wex_pid* rec) {
  return look_elsewhere(rec, true);
}

bool __wex_runs_elsewhere(wex_pid* rec) {
  return look_elsewhere(rec, false) != nullptr;
}

int wex_print_chains(int kind, wex_chains_t* chain) {
  text_block lines;
  gather(kind, chain, &lines);
  for (const char* line = lines.next(nullptr); line != nullptr; line = lines.next(line)) {
    safe_write(STDOUT_FILENO, line, strlen(line));
  }
  tell_lost(__func__, lines);
  return 0;
}

int wex_syslog_chains(int kind, wex_chains_t* chain) {
  text_block lines;
  gather(kind, chain, &lines);
  for (const char* line = lines.next(nullptr); line != nullptr; line = lines.next(line)) {
    qx_syslog(kSystemLogPriority, "%s", line);
  }
  tell_lost(__func__, lines);
  return 0;
}

// wex_chain: the registry. Three chains of records, each with its own lock.
//
// Lock order: wex_chains, then wex_alive_chains or wex_chains_delay. Double underscores mark primitives whose
// caller holds the chain.
#pragma once

#include "wex.h"
#include "wex_lock_order.h"

extern "C" {

// Bucket of a pid or thread id, 0 to 255.
uint32_t wex_hash_pid(int32_t pid);

// Empties the chain and creates its lock. 0, or an error number. Before any thread uses it.
int wex_init_chains(wex_chains_t* chain);

// Frees every record, and in the alive chain its table entry. The lock stays usable: threads that end late
// may still ask for it. 0.
int wex_destroy_chains(wex_chains_t* chain);

// First record of `pid`, or null.
wex_pid* __wex_find_pid(const wex_chains_t* chain, int32_t pid) WEX_TSA(requires_capability(chain));

// Unlinks and frees every record of `pid`. Database files stay.
void __wex_del_pid(wex_chains_t* chain, int32_t pid) WEX_TSA(requires_capability(chain));

// Unlinks a bucket link and poisons it.
void hlist_del(wex_hnode* node);

// Dumps a chain to standard output, or to the system log. kind 0, 1, 2 choose the heading. 0.
int wex_print_chains(int kind, wex_chains_t* chain);
int wex_syslog_chains(int kind, wex_chains_t* chain);

// Looks in wex_chains for another registration of rec's program in rec's domain: null when there is none,
// `rec` itself when it is to be dropped, else the other one, which is to be checked.
wex_pid* wex_proc_is_running(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));
}

// The start time in a record whose process had ended before there was the record: no process has it. Another
// process may have the pid, so its exit is not the record's.
inline constexpr uint64_t kStartOfNobody = 1;

// The record of this pid whose process began at that time (0: at any), or null. Several may be like that, of
// programs that have no process, or wait for a hand-over: then one whose exit was not handled, and that was
// gone first.
wex_pid* __wex_find_ended(int32_t pid, uint64_t start_time) WEX_TSA(requires_capability(wex_chains));

// A zero-filled record with its links initialised. Waits for memory: never with a chain held.
wex_pid* wex_new_record();
void wex_free_record(wex_pid* rec);

// Makes such a record of the memory of one that has left its chain.
wex_pid* wex_blank_record(wex_pid* memory);

// Has the exit of this process reported from now on. What a caller takes for alive must be looked at after
// this: an exit that came before was not reported.
void __wex_expect_exit(int32_t pid) WEX_TSA(requires_capability(wex_chains));

// The same for a child that was just started; in a row of many the next ones are expected with it.
void __wex_expect_child(int32_t pid) WEX_TSA(requires_capability(wex_chains));

// No longer has those exits reported that concern no record.
void __wex_tidy_filter() WEX_TSA(requires_capability(wex_chains));

// Puts a record at the head of its bucket. In wex_chains the exit of its process is reported from then on.
void __wex_add_record(wex_chains_t* chain, wex_pid* rec) WEX_TSA(requires_capability(chain));

// Unlinks a record (both links poisoned) and frees it.
void __wex_drop_record(wex_chains_t* chain, wex_pid* rec) WEX_TSA(requires_capability(chain));

// A registration ends: its database file and its record go together. The second takes all records of that
// pid, as __wex_del_pid, and leaves the memory of one to the caller.
void __wex_drop_registration(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));
wex_pid* __wex_recycle_registration(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// A thread's registration ends: its record in the alive chain and its entry in the table go together.
void __wex_drop_thread(wex_chains_t* chain, wex_pid* thread) WEX_TSA(requires_capability(chain));

// The process that has a pid by now.
struct pid_taker {
  int32_t pid;
  uint64_t start_time;
  int32_t domain;
  const wex_pid* file_of;  // whose database file it has, or null while it has none
};

// Registrations that wait for their hand-over with this pid are known by a number of no process from now on:
// what is asked or told of the pid is the taker's. So are those that could not be started again. Their
// database files get that number, for the next daemon, and flag files in other domains than the taker's go.
// In strict mode users' registrations whose process had the pid, and has ended, do the same, and none of
// theirs keeps its file: a user must not be able to keep pids from root's services by programs that wait for
// their restart. Where there is no room for such a file the pid stays what it was. With the registry held;
// also while it is walked through.
void __wex_free_pid(const pid_taker& taker) WEX_TSA(requires_capability(wex_chains));

// The same for the pid of a program, or thread, that registers and has made its database file.
void __wex_free_pid_of(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains));

// Whether the registration with this pid, of a process that began at another time, is one that leaves it.
bool __wex_leaves_pid(int32_t pid, uint64_t start_time) WEX_TSA(requires_capability(wex_chains));

// The record whose restart was postponed under this number, or its copy: in the bucket of `pid`, which it may
// have given up. Null when there is none, and for 0.
wex_pid* __wex_find_postponed(const wex_chains_t* chain, int32_t pid, int32_t number)
    WEX_TSA(requires_capability(chain));

// What is kept of users is kept by pid, which two records may have: it is again that of the registration with
// this pid, or forgotten when there is none.
void __wex_keep_user_of_owner(const wex_chains_t* chain, int32_t pid) WEX_TSA(requires_capability(chain));

// As __wex_del_pid, but one of the records is given to the caller, unlinked: its memory serves for a new
// record where none may be waited for. Null when there was none.
wex_pid* __wex_recycle_pid(wex_chains_t* chain, int32_t pid) WEX_TSA(requires_capability(chain));

// The same for the pid of `rec`. A pid below 1 is that of no process, and records of several programs may
// have it: then only `rec` is taken. So it is in strict mode with any pid, and with that of a process that
// nobody has: a newcomer may have it.
wex_pid* __wex_recycle_record(wex_chains_t* chain, wex_pid* rec) WEX_TSA(requires_capability(chain));

// Puts a record into the chain that is like `before`, whose memory has been given away. May wait for memory,
// so only where as much has just been freed.
wex_pid* __wex_restore_record(wex_chains_t* chain, const wex_pid& before) WEX_TSA(requires_capability(chain));

// The record's program runs again as `new_pid`: removes the old database file, moves the record to the new
// bucket. False when that process does not live any more, or is none: its end may not have been reported. For
// wex_chains.
bool __wex_adopt_pid(wex_chains_t* chain, wex_pid* rec, int32_t new_pid)
    WEX_TSA(requires_capability(chain, wex_chains));

// Remembers the identity of the record's present process, so that a reused pid is not taken for it. Whoever
// registered a thread means its process.
void wex_note_identity(wex_pid* rec);

// The second half of it, for a record whose `thread_of` is known. True when the process lives.
bool wex_note_start(wex_pid* rec);

// The process that the record stands for: its pid, or the process whose thread has that id. May be below 1.
int32_t wex_process_of(const wex_pid* rec);

// True when the record's own process (not a stranger with its pid) is alive now; false when its identity was
// never noted. Reads /proc once, no sleeping.
bool wex_record_lives(const wex_pid* rec);

// The pid that replaced `pid` within the last seconds, or 0: events of threads may come after the restart.
int32_t __wex_replaced_by(int32_t pid) WEX_TSA(requires_capability(wex_chains));

// What tells events of a process that has ended from those of others that got its pid.
struct ended_process {
  uint64_t start_time;  // clock ticks since boot, 0: unknown
  int64_t seen_ns;      // this and the next as in wex_pid
  int64_t ended_by_ns;
  uint64_t exit_tick;  // when the kernel reported that end, in clock ticks since boot; 0: it did not
  bool handled;
};

// Of the newest replacement of `pid`; false when there is none of late.
bool __wex_find_replaced(int32_t pid, ended_process* process) WEX_TSA(requires_capability(wex_chains));

// The record's process had ended at this time of the monotonic clock, in nanoseconds, or INT64_MAX when only
// its main thread had. The first time that is known counts.
void wex_note_ended(wex_pid* rec, int64_t time_ns);

// The same for one that has been found to have ended. Its end may be reported with a slightly later time.
void wex_note_found_ended(wex_pid* rec);

// A process was born with this pid at this time of the monotonic clock, in nanoseconds. Those that had the
// pid before had ended by then.
void __wex_note_birth(int32_t pid, int64_t time_ns) WEX_TSA(requires_capability(wex_chains));

// True when another registration of rec's program in rec's domain has, or waits for, a process: one whose
// last restart left none does not count.
bool __wex_runs_elsewhere(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// The last restart left no process; notes when.
void wex_note_failed(wex_pid* rec);

// Deletes records of this program and domain whose last restart left no process, with their database files:
// the living process `newcomer` takes their place, and keeps its own file should it have got the dead one's
// pid. With `of_user` only those of that record's user.
void __wex_drop_failed(const char* process, int32_t vsd, int32_t newcomer, const wex_pid* of_user = nullptr)
    WEX_TSA(requires_capability(wex_chains));

// The process that the record's next one replaces, and whose flag file names the domain: the child of a start
// that found no process, else the record's own. May be below 1.
int32_t wex_last_process(const wex_pid* rec);

// Name of a record's program in messages: the text behind the last "/", or all of it. Trims trailing blanks
// of `process` in place.
const char* wex_program_name(wex_pid* rec);

// Visits every record, bucket 0 to 255, head to tail. The record just returned may be unlinked and freed.
class record_walk {
 public:
  // Clang 14 looks at this only when the walk is a named variable.
  explicit record_walk(const wex_chains_t& chain) noexcept WEX_TSA(requires_capability(chain))
      : chain_(chain), ahead_(chain.heads[0]) {}
  // Clang does not know that chain_ is the chain that the constructor was given, so it does not look here.
  wex_pid* next() noexcept WEX_TSA(no_thread_safety_analysis);

 private:
  const wex_chains_t& chain_;
  int bucket_ = 0;
  wex_hnode* ahead_;
};

inline wex_pid* wex_record_of(wex_hnode* node) noexcept {
  return reinterpret_cast<wex_pid*>(reinterpret_cast<char*>(node) - offsetof(wex_pid, hnode));
}

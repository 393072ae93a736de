// wex_chain_user: as whom a registered process runs, so that it is started again as the same one and never
// with more (strict mode).
//
// What counts are the real ids. A process may always become its real user, so these are never more than it
// had; and a program with a set-user-id bit gets from its execution what it got before. Without strict mode
// no record has a user, and nothing here makes a system call.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

#include "wex.h"
#include "wex_chain_identity.h"
#include "wex_chain_user_sets.h"

// What a process is at one moment.
struct process_user {
  uint64_t start_time;
  wex_user ids;
};

// Whether both are of the same user; so are all when their users are not known.
bool wex_same_user(const wex_pid* one, const wex_pid* other);

// Whether the record is known to be a user's who is not root. Without strict mode none is.
bool wex_is_users(const wex_pid* rec);

// Looks at a process. False without strict mode, or when it cannot be read.
bool wex_look_at_user(int32_t pid, process_user* now);

// Sets rec->user to the user of the process that the record is of, which is known by rec->start_time. False
// when that process has gone, has changed its user since the look `before`, cannot be read, or there is no
// room for its set of ids. Without strict mode true, and nothing is set.
bool wex_note_user(wex_pid* rec, const process_user& before);

// The start time of a process or thread; 0 without strict mode, or when it cannot be read. Two looks that
// give the same one saw the same process, and so did whatever was read in between.
uint64_t wex_strict_start_of(int32_t pid);

// Sets the user of a living process, or of a thread under hang detection, that is not known by its start time
// yet. A thread has none when it is not one of the process rec->ppid: that process would be aborted for it,
// and is known by rec->start_time from then on.
void wex_find_user(wex_pid* rec);
void wex_note_thread_user(wex_pid* rec);

// Whether the process of this thread may be aborted: it is the one that was registered, also when root's has
// given up root's rights since, and a user's is still his. Without strict mode true.
bool wex_may_abort(const wex_pid* thread);

// Whether what becomes of the record's program may restart the device: in strict mode only root's may.
bool wex_may_restart_device(const wex_pid* rec);

// The domain of the record's process, by its flag file; -1 when there is none. In strict mode only root and
// the record's user may say it.
int32_t wex_domain_of(const wex_pid* rec, int32_t pid);

// Whether this process, found by its command line, runs as the record's user. Without strict mode true.
bool wex_runs_as(int32_t pid, const wex_pid* rec);

// What the exit that the kernel reported at `exit_tick` means for the record, given what stands in /proc now
// of its pid (wex_judge_exit): in strict mode a process of another start time is the record's only when it is
// its user's.
exit_verdict wex_judge_exit_of(const wex_pid* rec, const process_look& now, uint64_t exit_tick);

// ---- For the daemon's next life ---------------------------------------------------------------------------

// Makes the directory in which the users of registrations are kept, readable to root alone. Once, at the
// start. From wex_end_users() on nothing is kept or forgotten any more: the daemon ends, and its
// registrations are for the next one.
void wex_begin_users();
void wex_end_users();

// From now on nothing is kept anew, until the call that says so: two database files may name one pid, and
// what was kept for it must last until both are judged. At the start only.
void wex_read_kept_users(bool reading);

// Keeps the record's user under its pid, or the number that it has instead (below -1), with the start time of
// its process, or forgets what was kept there. Caller holds wex_chains.
void wex_keep_user(const wex_pid* rec);
void wex_forget_user(int32_t pid);

// Forgets what was kept for pids without a record. Once, when the registry is there.
void wex_tidy_users(bool (*has_record)(int32_t pid));

// Has the record's database file belong to its user, and closed to others. What somebody else has put at its
// name is replaced: it would not count, and its owner can still write to it. A record of a domain gets a flag
// file when there is none that counts. Caller holds wex_chains.
void wex_own_database_file(const wex_pid* rec);

// Sets rec->user for a registration that was read from a database file with these facts. A living process is
// asked itself; of a dead one the user was kept; of one that nobody kept it is at most the file's owner. What
// was kept also sets rec->start_time, to the start of the process that was registered. A
// file that others may have written counts only when it says what the process itself, or what was kept, says.
// False when the file does not count, or its owner may not speak for the process. Without strict mode true.
bool wex_judge_file(wex_pid* rec, const struct stat& facts);

// The same for one whose process is known to have gone: another one may have its pid.
bool wex_judge_lost_file(wex_pid* rec, const struct stat& facts);

// Judges a record in its chain once more: wex_judge_file() asked a process that has its pid and is not its
// own. False when the registration does not count. Caller holds wex_chains. Without strict mode true.
bool wex_judge_ended(wex_pid* rec);

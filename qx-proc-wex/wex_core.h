// wex_core: start-up, the five threads and what they share.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>

#include "wex.h"
#include "wex_chain.h"

extern "C" {

// 0 while the daemon runs; 1 ends every loop at its next pass. Set it with wex_raise_exit_flag().
extern std::atomic<int32_t> wex_exit_flag;

// The threads. Each ignores its argument.
void* wex_process_netlink(void* unused);
void* wex_process_domain(void* unused);
void* wex_notifer_run(void* unused);
void* wex_inotify_fork_error(void* unused);
void* wex_delay_restart(void* unused);

// Decides what happens to the registered process `pid` that has exited with `exit_signal` (kernel wait
// status). Called with no chain held.
void wex_handle_netlink_exit(int32_t pid, uint32_t exit_signal, int32_t force_restart)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// The same for a start of a third-part program that found no process and whose child has ended since with
// this wait status. Does nothing when the program has got another process meanwhile. Without a child (not
// `forked`) the status is that of the exit before, whose crash has been counted. Called with no chain held.
void wex_handle_missed_exit(uint32_t start, uint32_t status, bool forked)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// Restart events written to the event-log files; drives their alternation.
extern int32_t wex_event_log_count WEX_TSA(guarded_by(wex_chains));

// 1 when the restart of `rec` is postponed because its database file is still locked, 0 when it may start
// now. Takes the reserved memory; waits for memory when there is none.
int wex_proc_restart_delay(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Compiles "/etc/wex/proc" into the third-part list.
void wex_third_part_proc_init(void);

// 0 when the registered thread is still the same living thread, else not 0.
int wex_check_pid_exist(wex_pid* rec);
}

// One look of the watchdog at every registered thread: removes those that are gone, counts the silent ones,
// aborts the process of the first that is hung. To be called every 60 s.
void wex_scan_alive_chains();

// Sets the flag and wakes every wait of every thread. Any thread.
void wex_raise_exit_flag();

// Readable for ever once the flag is set; -1 before wex_init_wakeup() or when it failed.
int wex_wakeup_fd();

// Creates the wake-up descriptor. Before any thread runs.
void wex_init_wakeup();

// Sleeps `milliseconds`, less when the flag is raised.
void wex_wait_exit(int64_t milliseconds);

// Writes "Thread ... exit" to the running log, the last word of a thread that ends the daemon.
void wex_log_thread_end(const char* thread, int code, int error);

// Reserves the memory of one postponed restart, so that it need not be waited for with the registry locked.
// May wait: never with a chain held.
void wex_reserve_delay() WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));
bool wex_delay_reserved() WEX_TSA(requires_capability(wex_chains));

// Registers `pid` when it runs a third-part program of which no other process is registered. The other does
// so for every process that is not supervised yet. Monitor only, with no chain held.
void wex_register_executed(int32_t pid);
void wex_register_running();

// Whether a domain is being taken down: no exit is followed by a restart then, wherever. Never waits. Any
// thread.
bool wex_take_down_under_way();

// Tells the running log of take-downs that have begun or ended since the last call. Delay thread only: the
// others must not wait for a disk, and two writers would contradict each other.
void wex_tell_take_downs();

// Sleeps `milliseconds`, less when the stop flag is raised, with wex_chains held by the caller. The delay
// thread, which waits for that chain meanwhile, cannot see a take-down begin and end: it is noted here.
void wex_wait_with_registry(int64_t milliseconds);

// The record's program has dumped core now.
void __wex_note_crash(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Restarts the device when too many programs have dumped core within the window. Called with no chain held.
void wex_judge_crashes() WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// For a record that is about to be restarted: when its domain is being taken down, the record and its
// database file are removed, and the result is true.
bool __wex_dropped_with_domain(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Removes the records, with their database files, of all programs that have no process and whose domain is
// being taken down. Once a pass of the delay thread.
void wex_drop_domains_taken_down();

// What comes before every exit is handled: while a domain is taken down, the record and the database file of
// `pid` go and nothing is to be restarted. True when that is so. Called with no chain held.
bool wex_drop_taken_down(int32_t pid) WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// Looks for registered processes that vanished although no exit was seen and hands them to the exit handler.
// Delay thread only; others ask for it.
void wex_sweep_lost_exits();
void wex_request_sweep();

// Compares the database files with the registry: what died before its registration was read gets a record, of
// which the sweep finds the exit lost, and living processes without a file get one. Delay thread only, with
// nothing held.
void wex_look_at_files();

// Notes that the program of `process` wants long restart delays; never waits. Control server only.
void wex_note_long_delay(const char* process, int32_t pid, int32_t delay);

// Writes what was noted to the running log, a program once a minute at most. Delay thread only.
void wex_tell_long_delays();

// What the daemon holds in a directory that everybody may write to.
enum wex_place { WEX_PLACE_DIRECTORY, WEX_PLACE_LOCK, WEX_PLACE_SOCKET };

// Remembers `held` as what the place's name must lead to. Once a place; the daemon must keep it open, so that
// nothing else is given its inode number.
void wex_note_place(wex_place place, const struct stat& held);

// Looks where the names lead now and writes one running-log line for each that leads elsewhere than at the
// last call. Delay thread only.
void wex_check_places();

// Until when (monotonic seconds) the monitor has read what the kernel reported: only a process that vanished
// before that may count as a lost exit.
extern std::atomic<int32_t> wex_monitor_read_until;

// The delay thread has left its loop and touches nothing any more.
extern std::atomic<bool> wex_delay_ended;

// Takes the lock of the one daemon, whatever lies at its name or at its directory's. The descriptor, or -1
// when the start is refused, which is printed and written to the running log; `after_command` only when it is
// not another wex that runs. Before any thread does.
int wex_claim_lock(bool after_command);

// Takes away what lies at `path`, a constant: what is empty is removed, anything else renamed within its
// directory. wex_tell_moved() writes a running-log line for each. Start, then the server thread.
bool wex_make_room(const char* path);
void wex_tell_moved();

// The same for what is no file at the name of the alive table.
void wex_clear_table_name();

// Ends the daemon at once because nothing can be restarted any more: running log, marker, status 1.
[[noreturn]] void wex_end_unable_to_restart();

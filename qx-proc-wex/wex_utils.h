// wex_utils: whole small files, an allocator that never fails, facts about processes from /proc, the
// single-instance lock and the low-memory-killer settings. No state; any thread may call anything.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

extern "C" {

// Zero-filled memory, never null: waits 5 s and tries again while memory is short. Never for a size that came
// from outside.
void* safe_malloc(size_t size);

// Writes into an existing file, from its start. The bytes written, or -1 (printed when it cannot be opened).
int32_t safe_write_path(const char* path, const void* buffer, size_t length);

// Reads at most size - 1 bytes and terminates them. The bytes read, or -1.
int32_t wex_read_to_buf(const char* path, char* buffer, size_t size);

// "executable arg1 arg2 ...", or null when the process has no readable executable link.
char* pid_to_cmdline(int32_t pid, char* buffer, size_t size);

// Despite its name: the thread-group id of a thread or process, or -1.
int32_t wex_get_ppid_form_pid(int32_t pid);

// 0 and the name from the status file, or -1.
int wex_get_pid_name(int32_t pid, char* buffer, size_t size);

// 0 when the process lives, -1 when it is gone (at once) or a zombie (after 30 ms). There are other ways to
// ask for the life of a process: wex_chain_identity.h has the table that tells them apart.
int process_life(int32_t pid);

// Takes the single-instance lock. The descriptor, to be kept for life, or -1 with errno: EAGAIN when somebody
// holds it. A file of another user's, or with a second name, that nobody has locked is replaced.
int already_running(const char* path);

// Low-memory-killer score of a process; ignore = -1000, reset = 0. As safe_write_path.
int32_t wex_set_lmk(int32_t score, int32_t pid);
int32_t wex_ignore_lmk(int32_t pid);
int32_t wex_reset_lmk(int32_t pid);

// The status digit published by the low-memory-killer module, or -1.
int wex_get_proc_status(void);
}

// How much of a command line could be read: nothing or the program alone (errno tells why), or all that fits.
enum class command_read { nothing, program, whole };

// As pid_to_cmdline, and tells how much it is.
command_read wex_read_command(int32_t pid, char* buffer, size_t size);

// The kernel's id of the calling thread.
int32_t wex_thread_id();

// What one look at /proc/PID/stat shows. Only a process that the kernel does not know is gone; any other
// reason for seeing nothing (descriptors or memory are short, say) means that one has to look again.
struct process_look {
  enum { seen, gone, unreadable } sight;
  char state;
  bool exiting;         // has begun to exit; older kernels report an exit before the state says so
  int32_t threads;      // that have not ended yet, the main thread's zombie included
  uint64_t start_time;  // clock ticks since boot
};
process_look wex_look_at(int32_t pid);

// State letter and start time of a process; a process that has begun to exit is 'X' or 'Z'. False when it
// cannot be seen.
bool wex_proc_stat(int32_t pid, char* state, uint64_t* start_time);

// The state letter of a process that has ended; some older kernels write "x" before it vanishes.
bool wex_is_dead_state(char state);

// True when the very process that started at `start_time` (0: any) is there and neither dead nor a zombie.
bool wex_proc_lives(int32_t pid, uint64_t start_time);

// False when the kernel knows of no such process or thread.
bool wex_pid_exists(int32_t pid);

// True when it is the id of a thread other than the first of its process.
bool wex_is_thread(int32_t pid);

// One of the looks of process_life(): true when it shows a living process.
bool wex_looks_alive(int32_t pid);

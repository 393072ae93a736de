/* wex: the interface that the daemon, its client library and other programs of the device share.
 *
 * Plain C99 and C++17. Declares the supervised-process record, the chains that hold records, the control
 * messages and every client call. Integers are fixed in width: the message layouts are read by programs
 * that were built at another time, and the record is handed across the library's border. */
#ifndef WEX_H
#define WEX_H

#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include "wex_attributes.h"
#include "wex_diagnostics.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Limits shared by both sides ------------------------------------------------------------------- */

enum {
  WEX_PROCESS_SIZE = 4096, /* command line of a record, terminator included */
  WEX_SCRIPT_SIZE = 256,   /* restart command of a record, terminator included */
  WEX_CHAIN_BUCKETS = 256, /* top eight bits of the hash */
  WEX_ALIVE_TIDS = 163840, /* thread ids 0 to 163839 have a byte in the alive table */
  WEX_DOMAINS = 16         /* virtual system domains 0 to 15; 0 is the main system */
};

/* ---- The supervised-process record ----------------------------------------------------------------- */

/* What is to happen when a supervised process exits (the record's `action`). */
enum {
  RESPAWN = 2,      /* start the program again */
  SHELL_RESTART = 3 /* run its restart script */
};

/* Bits of the record's `flags`. */
enum {
  WEX_FLAG_SELF_CHECKING = 0x1, /* spawned, self-checking */
  WEX_FLAG_WAITING = 0x2        /* parked until its self-check wait ends */
};

/* Indexes of the record's `notify_info`. */
enum { WEX_NTFY_CNT, WEX_CUR_CNT, WEX_NTFY_TIME, WEX_CUR_NTFY_TIME, WEX_NOTIFY_WORDS };

typedef struct wex_hnode {
  struct wex_hnode* next;
  struct wex_hnode** pprev; /* the forward pointer that points here, of the record before or of the bucket */
} wex_hnode;

typedef struct wex_list {
  struct wex_list* next;
  struct wex_list* prev;
} wex_list;

/* One registration, of a process or (in the alive chain) of a thread. Times are whole seconds of the
 * monotonic clock. Other programs know the fields before `exit_seen`; those from there on are the daemon's
 * own notes about the pid. */
typedef struct wex_pid {
  int32_t pid;                           /* process id, or thread id in the alive chain; the hash key */
  int32_t ppid;                          /* alive chain: process that owns the thread; 0 elsewhere */
  int32_t vsd;                           /* domain of the process */
  int32_t alarm_wait_flag;               /* 1 while parked: the alarm restarts it, not its exit */
  int32_t notify_info[WEX_NOTIFY_WORDS]; /* alive chain: allowed misses, misses left, period, elapsed */
  uint32_t alive_seq;                    /* alive chain: the thread's sequence byte as last seen */
  int32_t restart_delay;                 /* seconds to sleep before a restart, 0 = none */
  char process[WEX_PROCESS_SIZE];        /* command line; also the name shown in logs */
  int32_t action;                        /* RESPAWN, SHELL_RESTART; anything else is not acted on */
  uint32_t flags;
  int32_t check_start;          /* start of the 120 s restart window, later of the self-check wait */
  int32_t check_count;          /* restarts within the window */
  char script[WEX_SCRIPT_SIZE]; /* restart command of a SHELL_RESTART record */
  wex_hnode hnode;
  wex_list list;
  int32_t reboot_allow;    /* self-check restarts that followed each other within 600 s */
  int32_t reboot_ref_time; /* time of the last of them */
  int32_t crash_time;      /* time of the last exit that dumped core, 0 = never */
  uint32_t exit_signal;    /* last exit code, in the kernel's wait-status form */
  int32_t force_restart;   /* 1: restart now, never postpone */
  int32_t delay_start;     /* when the copy entered the delay chain; of a user's program in strict mode when
                              the pause before its restart began, 0 = none */

  int32_t exit_seen;   /* an exit of this very pid has been handled */
  int64_t ended_by_ns; /* the first time at which its process was known to have ended, in nanoseconds of the
                          monotonic clock; INT64_MAX = only its main thread has, 0 = it was never known */
  int32_t restart_failed; /* when the last restart left no process: the pid is a dead one; 0 = it did */
  int32_t thread_of;      /* the pid is of a thread of this process; 0 = a process, -1 = not known yet */
  int32_t gone_since;     /* when a sweep first found the pid gone, 0 = not seen gone */
  int32_t missed_child;   /* child of the last start, when its program was not found; else 0 */
  uint32_t missed_start;  /* number of that start until its end has been handled, 0 = none */
  int64_t
      seen_ns; /* when it was seen with that start time, in nanoseconds of the monotonic clock; 0 = never */
  uint64_t start_time; /* of the process, as in /proc/PID/stat: tells a reused pid; 0 = unknown */
  uint64_t exit_tick;  /* when the kernel reported its exit, in the unit of start_time; 0 = it did not */
  int32_t status_slot; /* its slot in the status table, counted from 1; 0 = none */
  uint32_t
      known_code;  /* exit code that is known before the exit is handled: of a signal that ended the thread
                      of `thread_of`, or of an end before there was this record; 0 = none was reported */
  int32_t awaited; /* the process to which the program is handed over when its pid gets free; with the other
                      sign when that process's end was reported; 0 = none */
  uint64_t awaited_start;      /* its start time */
  int64_t awaited_ns;          /* when it was found, in nanoseconds of the monotonic clock */
  int64_t awaited_ended_by_ns; /* its end was found, not reported: an exit that happened until then is its
                                  own, and gives the code; 0 = none is */
  int32_t postponed;  /* number of its restart that waits in wex_chains_delay, also in the copy; 0 = none */
  int32_t user;       /* strict mode: number of the user it is started again as; 0 = not known */
  uint32_t name_hash; /* of `process`: the key of a second table */
  wex_hnode name_node;
} wex_pid;

WEX_STATIC_ASSERT(offsetof(wex_pid, notify_info) == 16, "the record's order and types are fixed");
WEX_STATIC_ASSERT(offsetof(wex_pid, alive_seq) == 32, "the record's order and types are fixed");
WEX_STATIC_ASSERT(offsetof(wex_pid, process) == 40, "the record's order and types are fixed");
WEX_STATIC_ASSERT(offsetof(wex_pid, action) == 4136, "the record's order and types are fixed");
WEX_STATIC_ASSERT(offsetof(wex_pid, script) == 4152, "the record's order and types are fixed");
WEX_STATIC_ASSERT(offsetof(wex_pid, hnode) == 4408, "the record's order and types are fixed");
WEX_STATIC_ASSERT(offsetof(wex_pid, list) == 4408 + 2 * sizeof(void*),
                  "the record's order and types are fixed");
WEX_STATIC_ASSERT(offsetof(wex_pid, reboot_allow) == 4408 + 4 * sizeof(void*),
                  "the record's order and types are fixed");
WEX_STATIC_ASSERT(offsetof(wex_pid, delay_start) == 4408 + 4 * sizeof(void*) + 20,
                  "the record's order and types are fixed");

/* A hash table of records. Whoever looks into it or changes it holds `mutex`. */
typedef struct WEX_TSA(capability("chain")) wex_chains_t {
  wex_hnode* heads[WEX_CHAIN_BUCKETS] WEX_TSA(guarded_by(this));
  pthread_mutex_t mutex; /* recursive, priority inheriting */
  int32_t count WEX_TSA(guarded_by(this));
} wex_chains_t;

/* ---- Control messages ------------------------------------------------------------------------------ */

/* `msg_type`. Types 1 and 2 are also what the registration calls take. */
enum {
  WEX_RESTART = 1,
  WEX_SHELL_RESTART = 2,
  WEX_NOTIFIER_START = 3,
  WEX_NOTIFIER_RESET = 4,
  WEX_CONS_MSG = 5
};

enum { WEX_MSG_HEADER_SIZE = 268, WEX_MSG_NAME_SIZE = 256 };

/* Header of every message; `msg_len` bytes of payload follow it in the same record. */
typedef struct wex_inner_msg {
  uint32_t msg_type;
  int32_t msg_len;
  char name[WEX_MSG_NAME_SIZE];
  uint32_t reserved;
} wex_inner_msg;

/* Payload of types 1 to 4. */
typedef struct wex_reg_info {
  int32_t pid;  /* process, or thread for types 3 and 4 */
  int32_t ppid; /* types 3 and 4: process that owns the thread */
  int32_t vsd;
  int32_t ntfy_cnt;      /* misses allowed */
  int32_t cur_cnt;       /* misses left */
  int32_t ntfy_time;     /* period in seconds */
  int32_t cur_ntfy_time; /* seconds elapsed */
  int32_t restart_delay; /* seconds */
  char process[256];
  char tag[32];
} wex_reg_info;

/* `kind` of a cancellation. */
enum { WEX_CANCEL_PROC = 0, WEX_CANCEL_THREAD_NOTIFY = 1 };

/* Payload of type 5. */
typedef struct wex_cons_info {
  uint32_t kind;
  int32_t pid; /* process (kind 0) or thread (kind 1) */
} wex_cons_info;

WEX_STATIC_ASSERT(sizeof(wex_inner_msg) == WEX_MSG_HEADER_SIZE, "older clients read these bytes");
WEX_STATIC_ASSERT(offsetof(wex_inner_msg, name) == 8 && offsetof(wex_inner_msg, reserved) == 264,
                  "older clients read these bytes");
WEX_STATIC_ASSERT(sizeof(wex_reg_info) == 320, "older clients read these bytes");
WEX_STATIC_ASSERT(offsetof(wex_reg_info, restart_delay) == 28 && offsetof(wex_reg_info, process) == 32 &&
                      offsetof(wex_reg_info, tag) == 288,
                  "older clients read these bytes");
WEX_STATIC_ASSERT(sizeof(wex_cons_info) == 8, "older clients read these bytes");

/* ---- Registration of processes --------------------------------------------------------------------- */

/* Every call below may be made from any thread of the calling process. They talk to the daemon over one
 * connection per process and may block: up to 5 s for a connection or an answer, and the calls that say
 * so repeat this 30 times, one second apart. */

/* Asks the daemon to restart process `pid` (0 = the caller) when it exits; `type` is WEX_RESTART or
 * WEX_SHELL_RESTART. Writes and locks the caller's database file first. Tries 30 times. Always 0. */
int reg_process_exit_action(int32_t pid, uint32_t type);

/* As above with the restart script `path` (at most 255 characters are kept); sent once.
 * 0, or a negative value when `pid` is negative or nothing could be sent. */
int reg_process_exit_action_shell(int32_t pid, uint32_t type, const char* path);

/* Registers with the action named "WEX_RESTART" or "WEX_SHELL_RESTART" (a prefix is enough). 0, or -1 for
 * another text. */
int reg_third_part_process_exit_action(int32_t pid, const char* action);

/* Asks for a delay of `time` seconds before each restart of `pid` (0 = the caller). Counts only when this
 * message creates the registration, so call it first. 0, or a negative value. */
int wex_time_set(int32_t pid, uint32_t type, int32_t time);

/* Withdraws the registration of `pid` (0 = the caller) and removes its database file. Tries 30 times and
 * sleeps one second after success. 0, or a negative value. */
int wex_cancel_proc(int32_t pid);

/* Removes the database file of a living process. */
void wex_rm_db_file_by_pid(int32_t pid);

/* Counts the open descriptors of `pid`; the fourth look in a row at the limit ends the caller with status
 * 1, so that it is restarted. */
void wex_client_watch_process_fd(int32_t pid);

/* Starts a program as the daemon would, without registering it. The new pid, or -1. */
int32_t wex_start_user_process(const char* path);

/* Starts `rec->process`; stores the new pid through `pid_out`. Repeats a failed fork every 5 s. Returns -1
 * in the child when the child cannot change to "/". */
int32_t wex_spawn_by_user(wex_pid* rec, int32_t* pid_out);

/* ---- Thread liveness ------------------------------------------------------------------------------- */

/* A thread registers itself, then reports at least once per period. An odd `time` asks for 180 s and 4
 * misses, an even one for 120 s and 5. `count` must not be 0 and is otherwise unused. All must be called
 * by thread `tid` of process `pid` itself. */

/* 0, or a negative value. Tries 30 times. */
int wex_client_reg_thread_notify(int32_t pid, int32_t tid, int32_t time, int32_t count);

/* The same for a process that is to be reported but to survive: SIGABRT is ignored from here on, also by
 * programs it executes. */
int wex_client_reg_thread_notify_no_proc(int32_t pid, int32_t tid, int32_t time, int32_t count);

/* One report. Registers again by itself when the daemon has lost the registration. 0, or negative. */
int wex_client_reset_thread_notify(int32_t pid, int32_t tid, int32_t time, int32_t count);

/* Withdraws thread `tid`. Always 0. */
int wex_client_unreg_thread_notify(int32_t tid);

/* ---- The system semaphore -------------------------------------------------------------------------- */

/* While its value is not 0 no hang countdown runs. The daemon creates it; programs that need long quiet
 * times raise and lower it through the id that wex_get_semid() finds. */
/* Kept: "semphore", see docs/decisions.md. */
#define WEX_SEM_KEY_FILE "/tmp/.wex_semphore_path"
enum { WEX_SEM_PROJECT = 1, WEX_SEM_KEY_TRIES = 30 };

extern int32_t g_wex_semid;

/* The semaphore's value (0 or more), or -1. */
int wex_get_semval(void);

/* The id of the system semaphore, or -1 with the reason printed. Never creates it. */
static inline int32_t wex_get_semid(void) {
  key_t key = ftok(WEX_SEM_KEY_FILE, WEX_SEM_PROJECT);
  int32_t id;
  int tries = 1;
  while (key == (key_t)-1 && errno == ENOMEM && tries++ < WEX_SEM_KEY_TRIES) {
    sleep(1);
    key = ftok(WEX_SEM_KEY_FILE, WEX_SEM_PROJECT);
  }
  if (key == (key_t)-1) {
    wex_dbg_as("wex", WEX_DBG_PUB, "Get sem file key failed: %s.", strerror(errno));
    return -1;
  }
  id = semget(key, 1, 0);
  if (id < 0) {
    wex_dbg_as("wex", WEX_DBG_PUB, "Get wex sem failed: %s.", strerror(errno));
  }
  return id;
}

#ifdef __cplusplus
}
#endif

#endif

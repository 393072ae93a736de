/* wex_status: what wex does, for everybody to read.
 *
 * The daemon keeps a table in shared memory, "/dev/shm/wex-status": a head with counters and the daemon's
 * threads, one slot a registration, a ring of the last events. Only the daemon writes, a moment after
 * something has happened; while nothing does, heartbeats every ten seconds. A reader opens it read-only and
 * never makes anybody wait. One that maps it must not touch slots from `slots_used` on, which may have no
 * memory.
 *
 * The counters, `event_next` and `slots_used` are single words, always whole. The head and each thread, slot
 * and event have a `seq`, which is odd while it is being written. A reader takes a copy, and keeps it when
 * `seq` was even before and is the same after; an odd one that does not change was left by a daemon that was
 * killed in the middle.
 *
 * Numbers are in the byte order of the machine. The layout is the same on 32 and on 64 bits. A reader takes
 * sizes and offsets from the head, and refuses a table whose `magic`, `byte_order` or `version` it does not
 * know. Texts end with a zero byte unless they fill their field. */
#ifndef WEX_STATUS_H
#define WEX_STATUS_H

#include <stdint.h>

#ifdef __cplusplus
#define WEX_STATUS_CHECK(condition) static_assert(condition)
extern "C" {
#else
#define WEX_STATUS_JOIN2(a, b) a##b
#define WEX_STATUS_JOIN(a, b) WEX_STATUS_JOIN2(a, b)
#define WEX_STATUS_CHECK(condition) \
  typedef char WEX_STATUS_JOIN(wex_status_check_, __LINE__)[(condition) ? 1 : -1]
#endif

#define WEX_STATUS_NAME "/wex-status" /* for shm_open(); the file is /dev/shm/wex-status */
#define WEX_STATUS_MAGIC "WEXSTAT"    /* eight bytes with the zero */

enum {
  WEX_STATUS_VERSION = 1,
  WEX_STATUS_BYTE_ORDER = 0x01020304,
  WEX_STATUS_SLOTS = 2048, /* more registrations are supervised as ever, and counted as not shown */
  WEX_STATUS_EVENTS = 512, /* a power of two */
  WEX_STATUS_THREADS = 8,
  WEX_STATUS_NAME_SIZE = 32,
  WEX_STATUS_COMMAND_SIZE = 256,
  WEX_STATUS_HEAD_SIZE = 4096
};

/* Indexes of `counters`. Each counts from the start of the daemon, and begins again at 0 after 2^32, unless
 * it says "now". Those that are not used are 0. */
enum {
  WEX_STATUS_EXITS,           /* ends of registered processes that were handled */
  WEX_STATUS_RESTARTS,        /* processes started again, whatever the occasion */
  WEX_STATUS_PARKS,           /* registrations parked because they restarted too often */
  WEX_STATUS_POSTPONED,       /* restarts that waited for a held database file */
  WEX_STATUS_FORCED,          /* postponed restarts made after the longest wait */
  WEX_STATUS_HANDED_OVER,     /* exits of a program that had another registered process by then */
  WEX_STATUS_DROPPED,         /* registrations dropped with a domain that was taken down */
  WEX_STATUS_FAILED,          /* restarts that left no process */
  WEX_STATUS_LOST_EXITS,      /* exits the kernel did not report, found by the sweep */
  WEX_STATUS_OVERFLOWS,       /* times the kernel said that it dropped events */
  WEX_STATUS_REFUSED,         /* control messages that were not understood or not allowed */
  WEX_STATUS_HANGS,           /* hung threads reported */
  WEX_STATUS_NOT_REGISTERED,  /* registrations refused: the process was gone, or known already */
  WEX_STATUS_NOT_SHOWN,       /* registrations without a slot, now */
  WEX_STATUS_HIDDEN_TROUBLES, /* of these, the parked, postponed and down ones, now or a few seconds ago */
  WEX_STATUS_PAUSE,           /* seconds of the pause before a restart that is under way now, or was some
                                 seconds ago, 0: none; other restarts wait behind it, and its registration
                                 may have no slot */
  WEX_STATUS_COUNTERS_USED,
  WEX_STATUS_COUNTERS = 32
};

/* A thread of the daemon. Times are milliseconds of the monotonic clock. */
typedef struct wex_status_thread {
  uint32_t seq;
  int32_t tid; /* 0: not in use */
  char name[16];
  int64_t last_pass;  /* when it was last seen to have come round, up to 10 s late; 0 = it has not yet */
  int64_t busy_since; /* since when it has been at one thing; 0 = it waits for work */
} wex_status_thread;
WEX_STATUS_CHECK(sizeof(wex_status_thread) == 40);

/* Bits of `flags` in the head. */
enum {
  WEX_STATUS_ENDED = 1, /* the daemon ended by itself; not set, it runs or was killed */
  WEX_STATUS_STRICT = 2 /* the daemon runs in strict mode */
};

typedef struct wex_status_head {
  char magic[8];
  uint32_t byte_order;
  uint32_t version;
  uint32_t head_size; /* where the slots begin, in bytes */
  uint32_t slot_size;
  uint32_t slots;
  uint32_t events_at; /* where the ring begins, in bytes */
  uint32_t event_size;
  uint32_t events;
  uint32_t generation; /* starts of the daemon since the table was made */
  uint32_t flags;
  int32_t daemon_pid;
  uint32_t slots_used;       /* no slot from there on was ever used */
  uint64_t daemon_start;     /* field 22 of /proc/PID/stat */
  int64_t started_wall;      /* seconds since 1970 */
  int64_t started_monotonic; /* milliseconds */
  char boot_id[40];          /* /proc/sys/kernel/random/boot_id */
  char daemon_version[24];
  uint32_t event_next; /* number of the next event; event n stands at n modulo `events` */
  uint32_t
      seq; /* of the fields above, which change when a daemon starts or ends; not event_next, slots_used */
  uint32_t counters[WEX_STATUS_COUNTERS];
  wex_status_thread threads[WEX_STATUS_THREADS];
} wex_status_head;
WEX_STATUS_CHECK(sizeof(wex_status_head) == 600);

typedef enum wex_status_state {
  WEX_STATUS_FREE = 0,
  WEX_STATUS_RUNNING = 1,
  WEX_STATUS_RESTARTING = 2, /* its process has ended, the next one is being started */
  WEX_STATUS_PARKED = 3,     /* restarted too often; tried again at `until` */
  WEX_STATUS_WAITING = 4,    /* its restart is postponed while its database file is held,
                               or its next process is registered later, for that one's pid is kept */
  WEX_STATUS_DOWN = 5        /* the last restart left no process */
} wex_status_state;

/* A registration. Monotonic times are milliseconds, wall times seconds since 1970; 0 = never, or not known.
 */
typedef struct wex_status_slot {
  uint32_t seq;
  uint8_t state;     /* wex_status_state */
  uint8_t is_thread; /* a thread was registered as if it were a process */
  uint8_t reserved8[2];
  int32_t action; /* as in the record */
  int32_t pid;
  int32_t domain;
  int32_t restart_delay; /* seconds */
  uint64_t pid_start;    /* field 22 of /proc/PID/stat of this process */
  int64_t registered;    /* monotonic */
  int64_t started; /* monotonic: when this process was registered or started again; when wex found it at its
                      own start, or had no slot for it at that time, when it began; 0: not known */
  int64_t since;   /* monotonic: in this state since; 0: not known */
  int64_t until;   /* monotonic: end of the parking, of the delay before a restart, or the moment when a
                      postponed restart is forced */
  int64_t last_exit_wall;   /* 0: none since its registration */
  uint32_t last_exit;       /* in the form of wait(2) */
  uint32_t restarts;        /* since its registration */
  uint32_t restarts_window; /* within the window of the throttle */
  int32_t watched_threads;
  int32_t fewest_misses;                 /* left to one of them until it counts as hung; -1 without threads */
  uint32_t uid;                          /* strict mode: of the user that it is started again as */
  char name[WEX_STATUS_NAME_SIZE];       /* the program without its directory */
  char command[WEX_STATUS_COMMAND_SIZE]; /* command line; cut when it ends without a zero byte */
} wex_status_slot;
WEX_STATUS_CHECK(sizeof(wex_status_slot) == 384);

typedef enum wex_status_kind {
  WEX_STATUS_EV_NONE = 0,
  WEX_STATUS_EV_DAEMON_STARTED = 1,
  WEX_STATUS_EV_REGISTERED = 2,
  WEX_STATUS_EV_CANCELLED = 3,
  WEX_STATUS_EV_EXITED = 4,
  WEX_STATUS_EV_RESTARTED = 5,   /* new_pid: the process that was started */
  WEX_STATUS_EV_PARKED = 6,      /* value: seconds */
  WEX_STATUS_EV_TRIED_AGAIN = 7, /* the parking is over */
  WEX_STATUS_EV_POSTPONED = 8,
  WEX_STATUS_EV_FORCED = 9,
  WEX_STATUS_EV_HANDED_OVER = 10,    /* new_pid: the process that has the program now */
  WEX_STATUS_EV_STOPPED = 11,        /* ended by SIGTERM, and not started again */
  WEX_STATUS_EV_DROPPED = 12,        /* with its domain */
  WEX_STATUS_EV_HANG = 13,           /* pid: the process, new_pid: its thread */
  WEX_STATUS_EV_BURST = 14,          /* too many programs dumped core; value: how many */
  WEX_STATUS_EV_REBOOT_ASKED = 15,   /* value: wex_status_reboot */
  WEX_STATUS_EV_REBOOT_REFUSED = 16, /* value: wex_status_reboot */
  WEX_STATUS_EV_LOST_EXIT = 17,
  WEX_STATUS_EV_FAILED = 18, /* a restart left no process */
  WEX_STATUS_EV_DAEMON_ENDED = 19,
  WEX_STATUS_EV_REPLACED =
      20, /* a record without a process made room; new_pid: of the one that has its place */
  WEX_STATUS_EV_KINDS
} wex_status_kind;

/* `value` of the reboot events. */
typedef enum wex_status_reboot {
  WEX_STATUS_REBOOT_OTHER = 0,
  WEX_STATUS_REBOOT_SELF_CHECK = 1, /* a program was parked again too soon */
  WEX_STATUS_REBOOT_BURST = 2       /* too many programs dumped core */
} wex_status_reboot;

typedef struct wex_status_event {
  uint32_t seq;
  uint32_t number;     /* tells a reader whether it is the event it looked for */
  int64_t monotonic;   /* milliseconds */
  int64_t wall;        /* milliseconds since 1970 */
  uint32_t generation; /* of the daemon that wrote it */
  int32_t pid;
  int32_t new_pid;
  int32_t domain;
  uint32_t exit_code; /* in the form of wait(2) */
  int32_t value;
  uint32_t kind; /* wex_status_kind */
  uint32_t reserved;
  char name[WEX_STATUS_NAME_SIZE];
} wex_status_event;
WEX_STATUS_CHECK(sizeof(wex_status_event) == 88);

enum {
  WEX_STATUS_EVENTS_AT = 790528, /* head and slots, a multiple of 4,096 */
  WEX_STATUS_FILE_SIZE = 835584  /* and the ring */
};
WEX_STATUS_CHECK(WEX_STATUS_EVENTS_AT == WEX_STATUS_HEAD_SIZE + WEX_STATUS_SLOTS * 384);
WEX_STATUS_CHECK(WEX_STATUS_FILE_SIZE == WEX_STATUS_EVENTS_AT + WEX_STATUS_EVENTS * 88);

#ifdef __cplusplus
}
#endif

#endif

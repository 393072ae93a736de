// wex_core.pml: how the threads of the daemon share the registry, as a model for spin.
//
// spin tries every order in which the exit monitor, the alarm, the delay thread (postponed restarts, lost exits) and the
// control server can meet, while a program registers, a second one is started by hand (the same program or another),
// processes die, an event gets lost, a file stays locked, a registration is cancelled and the domain is taken down.
// It looks for a deadlock, for a program that is started though it runs or twice for one death, for one that is started
// after its domain has gone, and for one that stays down. tests/model/run searches, and breaks the model to see that
// each break is found. tests/model/in_step.py holds model and code together:
//
// - An `inline` or thread whose first line ends with "// FILE" is a transition: the function of that name in that file
//   (or "FILE: NAME"). Both must take the same locks, call the same functions of this model and read and write the same
//   fields of a record, in the same order.
// - "// FILE, in one step" is a function that another one calls here, but whose inside is not compared.
// - Every other function that changes the registry is named below, with the reason why it is no transition.
//
// What is left out: a pid stands for one process only (tests/sandbox/pid_reuse_test.cpp has the others), every start
// finds its process, and time is what a thread can have missed: what waits for a time may go on at any moment.

// not modelled, and why:
//   take_out: unlinks what the steps of this model drop
//   __wex_restore_record: a third-part program that was not handed over after all
//   __wex_recycle_registration: __wex_drop_registration() that keeps the memory
//   __wex_recycle_record: the same
//   __wex_del_pid: nobody calls it; part of the interface
//   __wex_drop_thread: the chain of watched threads
//   __wex_drop_failed: records whose start found no process
//   wex_destroy_chains: when the threads have ended
//   read_domain: the rebuild, before any thread runs
//   found_running: the same
//   restart_dead: the same
//   take_over: the same
//   ignore: the same
//   adopt_if_lost: a record of a file that nobody registered, under wex_chains; the sweep treats it as any other
//   build_process: a record that is not in the registry yet
//   build_thread: the chain of watched threads
//   find_or_add_thread: the same
//   drop_ended_thread: records of threads
//   handed_over: third-part programs that started themselves again
//   keep_throttle: a part of handed_over()
//   __wex_await_hand_over: the same
//   note_end_of_awaited: the end of the process that such a program waits for; the sweep handles it
//   drop_stopped: ends by SIGTERM, which need no start
//   drop_missed: third-part programs that were not found
//   give_up_pid: a pid stands for one process only here
//   copy_of: fills what __wex_add_record() then adds
//   wex_read_pidfile_facts: fills a record that is not in the registry yet
//   wex_spawn_by_user: the client's own start of a program, which has no registry

#define pid its_pid           // spin has a type of that name
#define RECORDS 2
#define NONE RECORDS          // instead of a record: there is none
#define PIDS 5                // 1 to 4: one at first, one started by hand, and one for each death
#ifndef DEATHS
#define DEATHS 2              // that happen by themselves
#endif
#define NOBODY 255            // holds the lock
#define IDLE 255              // the monitor waits, and has read all events there were
#define RESTARTS 2            // so many within the window park a program

// ---- Locks ---------------------------------------------------------------------------------------------------

#define wex_chains 0
#define wex_chains_delay 1
#define wex_spawn_mutex 2
byte owner[3] = NOBODY;
byte depth[3];

inline lock(mutex) {
  atomic {
    (owner[mutex] == NOBODY || owner[mutex] == _pid);
    owner[mutex] = _pid;
    depth[mutex]++
  }
}

inline unlock(mutex) {
  d_step {
    assert(owner[mutex] == _pid);
    depth[mutex]--;
    if
    :: depth[mutex] == 0 -> owner[mutex] = NOBODY
    :: else
    fi
  }
}

// ---- The registry --------------------------------------------------------------------------------------------

#define WEX_FLAG_SELF_CHECKING 1
#define WEX_FLAG_WAITING 2

typedef wex_pid {
  bool used;
  byte pid;
  byte program;
  byte flags;
  byte check_count;
  byte gone_since;            // the number of the death that would come next, 0 = not seen gone
  bit alarm_wait_flag;
  bit exit_seen;
  bit force_restart
};
wex_pid rec[RECORDS];

typedef postponed {           // wex_chains_delay has one copy for a pid at the most
  bool used;
  bit force_restart
};
postponed copy[PIDS];

// ---- The world -----------------------------------------------------------------------------------------------

#define PROGRAM 1             // of the domain that is taken down
#define OTHER 2               // of another domain

mtype = { living, gone };
typedef process {
  mtype state;                // 0: not born yet
  byte program;
  byte died;                  // the number of its death
  bool passed;                // by the filter of the monitor's socket
  bool newcomer;              // its registration was under way: it stays in the filter
  bool file_locked;           // by somebody who has outlived it
  bool too_long;              // the file has been locked for 301 s
  bool replaced               // a process was started for its death
};
process proc[PIDS];
byte next_pid = 2;            // 1 lives from the beginning

chan events = [PIDS] of { byte };                // pids of processes that ended
mtype = { registration, cancellation };
chan messages = [PIDS + 1] of { mtype, byte };   // kind and pid, on the control socket
byte monitor_read = IDLE;     // the death that the event in hand tells of
bool alarm_armed;
bool serving;                 // a message is in hand
bool sweep_wanted, minute;
bool marker, closing;         // of the take-down; that it was seen
byte delay_pass = 2;          // of the delay thread: 1 has begun, 2 is over, 0 none since the domain was killed

byte deaths;
byte locked_file;             // the pid of the one, or 0
bool event_lost;
bool registered[3], excused[3];                  // programs: has had a record; need not run any more
bool domain_gone;

#define IN_DOMAIN(r) (rec[r].program == PROGRAM)

inline die(p) {
  deaths++;
  proc[p].died = deaths;
  proc[p].state = gone;
  if
  :: !proc[p].passed
  :: proc[p].passed -> events ! p
#ifdef LOSS
  :: proc[p].passed && !event_lost -> event_lost = true     // the kernel has no memory, the queue is full
#endif
  fi
}

// ---- One step here, not compared -------------------------------------------------------------------------------

// These find a record, or NONE, for `r`.
inline __wex_find_pid(chain, wanted) {  // wex_chain.cpp, in one step
  d_step {
    r = 0;
    do
    :: chain == wex_chains_delay -> r = (copy[wanted].used -> 0 : NONE); break
    :: chain == wex_chains && r < RECORDS && (!rec[r].used || rec[r].pid != wanted) -> r++
    :: else -> break
    od
  }
}

inline __wex_find_postponed(chain, p, number) {  // wex_chain.cpp, in one step
  __wex_find_pid(chain, p)
}

inline __wex_find_ended(wanted) {  // wex_chain.cpp, in one step
  __wex_find_pid(wex_chains, wanted)
}

inline record_of_event(p) {  // wex_core_event.cpp, in one step
  __wex_find_pid(wex_chains, p)
}

inline __wex_expect_exit(p) {  // wex_chain.cpp, in one step
  atomic {
    proc[p].passed = true
  }
}

inline __wex_tidy_filter() {  // wex_chain.cpp, in one step
  d_step {
    for (k : 1 .. PIDS - 1) {
      proc[k].passed = proc[k].passed && (proc[k].newcomer || (rec[0].used && rec[0].pid == k) || (rec[1].used && rec[1].pid == k))
    }
    k = 0
  }
}

inline wex_expect_newcomer(p) {  // wex_core_early_end.cpp, in one step
  atomic {
    if
    :: proc[p].state == living -> proc[p].newcomer = true; proc[p].passed = true
    :: else
    fi
  }
}

// A record of `p`, whose exit passes the filter from then on.
inline __wex_add_record(chain, p) {  // wex_chain.cpp, in one step
  atomic {
    if
    :: chain == wex_chains_delay -> copy[p].used = true; copy[p].force_restart = 0
    :: else ->
      __wex_expect_exit(p);
      d_step {
        r = (rec[0].used -> 1 : 0);
        assert(!rec[r].used);
        rec[r].used = true;
        rec[r].pid = p;
        rec[r].program = proc[p].program;
        registered[proc[p].program] = true
      }
    fi
  }
}

inline __wex_drop_record(chain, p) {  // wex_chain.cpp, in one step
  d_step { copy[p].used = false; copy[p].force_restart = 0; proc[p].too_long = false }
}

inline __wex_drop_registration(gone_record) {  // wex_chain.cpp, in one step
  d_step {
    rec[gone_record].used = false;
    rec[gone_record].pid = 0;
    rec[gone_record].program = 0;
    rec[gone_record].flags = 0;
    rec[gone_record].check_count = 0;
    rec[gone_record].gone_since = 0;
    rec[gone_record].alarm_wait_flag = 0;
    rec[gone_record].exit_seen = 0;
    rec[gone_record].force_restart = 0
  }
}

inline drop_registration(gone_record) {  // wex_core_exit.cpp, in one step
  __wex_drop_registration(gone_record)
}

// The other registration for `o`: NONE, the record itself when it has no flags, or the other one.
inline wex_proc_is_running(r) {  // wex_chain.cpp, in one step
  o = (rec[1 - r].used && rec[1 - r].program == rec[r].program -> (rec[r].flags != 0 -> 1 - r : r) : NONE)
}

#define was_replaced(p) (proc[p].replaced)   // wex_msg.cpp, in one step
#define is_dead(r) (proc[rec[r].pid].state == gone)   // wex_core_exit.cpp, in one step
#define HAS_ENDED(r) (proc[rec[r].pid].state == gone)      // by a look at /proc
#define restart_failed false                              // each start finds its process
#define wex_record_lives(r) (proc[rec[r].pid].state == living)   // wex_chain.cpp, in one step
#define wex_proc_is_exit(p) (!proc[p].file_locked)   // wex_pidfile.cpp, in one step

inline wex_request_sweep() {  // wex_core_sweep_request.cpp, in one step
  sweep_wanted = true
}

inline wex_take_sweep_request() {  // wex_core_sweep_request.cpp, in one step
  d_step { yes = sweep_wanted; sweep_wanted = false }
}

// A process is born, and may die before the filter lets its end pass.
inline try_start(r) {  // wex_proc.cpp, in one step
  atomic {
    assert(proc[rec[r].pid].state == gone);                    // it runs
    assert(!proc[rec[r].pid].replaced);                        // this death has had its start
    assert(!rec[1 - r].used || rec[1 - r].program != rec[r].program || is_dead(1 - r));  // it runs elsewhere
    assert(!domain_gone || !IN_DOMAIN(r));                     // it would run outside of its domain
    proc[rec[r].pid].replaced = true;
    n = next_pid;
    next_pid++;
    proc[n].state = living;
    proc[n].program = rec[r].program;
#ifdef AGAIN
    messages ! registration(n)
#endif
  }
  __wex_expect_exit(n)
}

inline arm_alarm() {  // wex_proc.cpp, in one step
  alarm_armed = true
}

inline alarm() {
  alarm_armed = true
}

inline note_closing_domains() {  // wex_core_takedown.cpp, in one step
  closing = closing || marker
}

#define is_of_closing_domain(r) (IN_DOMAIN(r) && (closing || marker))   // wex_core_takedown.cpp, in one step
#define wex_take_down_under_way() (marker)   // wex_core_takedown.cpp, in one step

// ---- Take-down -------------------------------------------------------------------------------------------------

inline wex_drop_taken_down(p) {  // wex_core_takedown.cpp
  atomic {
    if
    :: !wex_take_down_under_way() -> yes = false
    :: else ->
      lock(wex_chains);
      __wex_find_ended(p);
      if
      :: r != NONE -> excused[rec[r].program] = true; __wex_drop_registration(r)
      :: else
      fi;
      unlock(wex_chains);
      yes = true
    fi
  }
}

inline drop_with_copy(r) {  // wex_core_takedown.cpp
  atomic {
    lock(wex_chains_delay);
    o = r;
    __wex_find_postponed(wex_chains_delay, rec[o].pid, rec[o].pid);
    if
    :: r != NONE -> __wex_drop_record(wex_chains_delay, rec[o].pid)
    :: else
    fi;
    r = o;
    unlock(wex_chains_delay);
    excused[rec[r].program] = true;
    __wex_drop_registration(r)
  }
}

inline __wex_dropped_with_domain(r) {  // wex_core_takedown.cpp
  atomic {
    if
#ifndef DOMAIN_UNCHECKED
    :: is_of_closing_domain(r) -> drop_with_copy(r); yes = true
#endif
    :: else -> yes = false
    fi
  }
}

inline is_down(r) {  // wex_core_takedown.cpp
  atomic {
    yes = rec[r].alarm_wait_flag == 1 || HAS_ENDED(r)
  }
}

inline drop_what_is_down() {  // wex_core_takedown.cpp
  atomic {
    lock(wex_chains);
    for (r : 0 .. RECORDS - 1) {
      if
      :: rec[r].used ->
        is_down(r);
        if
        :: yes && is_of_closing_domain(r) -> drop_with_copy(r)
        :: else
        fi
      :: else
      fi
    }
    unlock(wex_chains)
  }
}

inline wex_drop_domains_taken_down() {  // wex_core_takedown.cpp
  atomic {
    note_closing_domains();
    if
    :: closing -> drop_what_is_down(); closing = false
    :: else
    fi
  }
}

// ---- Starting again --------------------------------------------------------------------------------------------

inline throttled(r) {  // wex_proc.cpp
  atomic {
    if
    :: rec[r].check_count++
    :: rec[r].check_count = 1     // the window is over
    fi;
    if
    :: rec[r].check_count < RESTARTS -> yes = false
    :: else -> park(r); yes = true
    fi
  }
}

inline park(r) {  // wex_proc.cpp
  atomic {
    rec[r].flags = (rec[r].flags & ~WEX_FLAG_SELF_CHECKING) | WEX_FLAG_WAITING;
    arm_alarm();
    rec[r].alarm_wait_flag = 1
  }
}

inline wex_spawn_as(r) {  // wex_proc.cpp
  rec[r].flags = rec[r].flags | WEX_FLAG_SELF_CHECKING;
  throttled(r);
  if
  :: yes -> n = 0
  :: else ->
    lock(wex_spawn_mutex);
    try_start(r);
    unlock(wex_spawn_mutex)
  fi
}

inline __wex_adopt_pid(r, new_pid) {  // wex_chain.cpp
  atomic {
    __wex_expect_exit(new_pid);
    rec[r].pid = new_pid;
    rec[r].exit_seen = 0;
    rec[r].gone_since = 0;
    yes = proc[new_pid].state == living
  }
}

inline expect_lost_exit(r) {  // wex_core_restart.cpp
  atomic {
    rec[r].gone_since = deaths + 1;
    wex_request_sweep()
  }
}

inline __wex_start_again(r, may_postpone_next) {  // wex_core_restart.cpp
  lock(wex_spawn_mutex);
  wex_spawn_as(r);
  if
  :: n == 0                   // it was parked
  :: else ->
    __wex_adopt_pid(r, n);
    if
    :: !yes ->
#ifndef RESTART_UNCHECKED
      expect_lost_exit(r)
#else
      skip
#endif
    :: else
    fi;
    if
    :: may_postpone_next -> rec[r].force_restart = 0
    :: else
    fi
  fi;
  unlock(wex_spawn_mutex)
}

// ---- Postponed restarts ----------------------------------------------------------------------------------------

inline __wex_waits_since(p) {  // wex_core_delay.cpp
  atomic {
    lock(wex_chains_delay);
    o = r;
    __wex_find_postponed(wex_chains_delay, p, p);
    yes = r != NONE;
    r = o;
    unlock(wex_chains_delay)
  }
}

inline __wex_waits_for_restart(p) {  // wex_core_delay.cpp
  __wex_waits_since(p)
}

inline wex_proc_restart_delay(r) {  // wex_core_delay.cpp
  if
  :: rec[r].force_restart == 1 -> yes = false
  :: else ->
    if
    :: wex_proc_is_exit(rec[r].pid) -> yes = false
    :: else ->
      __wex_waits_for_restart(rec[r].pid);
      if
      :: yes
      :: else ->
        lock(wex_chains_delay);
        __wex_add_record(wex_chains_delay, rec[r].pid);
        unlock(wex_chains_delay);
        yes = true
      fi
    fi
  fi
}

inline is_ready(p) {  // wex_core_delay.cpp
  if
  :: proc[p].too_long -> copy[p].force_restart = 1
  :: else
  fi;
  yes = copy[p].force_restart == 1 || wex_proc_is_exit(p)
}

// The pid of the postponed restart for `p`, or 0.
inline wex_take_ready_restart() {  // wex_core_delay.cpp
  atomic {
    lock(wex_chains_delay);
    p = 1;
    do
    :: p == PIDS -> p = 0; break
    :: p < PIDS && !copy[p].used -> p++
    :: p < PIDS && copy[p].used ->
      is_ready(p);
      if
      :: yes -> forced = copy[p].force_restart; __wex_drop_record(wex_chains_delay, p); break
      :: else -> p++
      fi
    od;
    unlock(wex_chains_delay)
  }
}

// ---- Exits -----------------------------------------------------------------------------------------------------

inline still_runs(r) {  // wex_core_exit.cpp
  atomic {
    if
    :: !HAS_ENDED(r) ->
      rec[r].exit_seen = 0;
      rec[r].gone_since = 0;
      wex_request_sweep();
      yes = true
    :: else -> yes = false
    fi
  }
}

inline dropped_as_duplicate(r) {  // wex_core_exit.cpp
  atomic {
    wex_proc_is_running(r);
    if
    :: o == NONE -> yes = false
    :: o == r -> drop_registration(r); yes = true
    :: else ->
      if
      :: is_dead(o) -> drop_registration(o); yes = false
      :: else -> drop_registration(r); yes = true
      fi
    fi
  }
}

inline start_again(r) {  // wex_core_exit.cpp
  __wex_start_again(r, true)
}

inline restart(r) {  // wex_core_exit.cpp, in one step
  start_again(r)
}

inline restart_by_action(r) {  // wex_core_exit.cpp
  restart(r)
}

inline decide(r, forced_restart) {  // wex_core_exit.cpp
  __wex_dropped_with_domain(r);
  if
  :: !yes -> dropped_as_duplicate(r)
  :: else
  fi;
  if
  :: yes
#ifndef PARKED_UNCHECKED
  :: !yes && rec[r].alarm_wait_flag == 1
  :: !yes && rec[r].alarm_wait_flag == 0 ->
#else
  :: else ->
#endif
    atomic {
      rec[r].force_restart = forced_restart;
      rec[r].exit_seen = 1
    };
    wex_proc_restart_delay(r);
    if
    :: yes
    :: else -> restart_by_action(r)
    fi
  fi
}

inline handle_ended(r, forced_restart, reported) {  // wex_core_exit.cpp
  decide(r, forced_restart)
}

inline handle_exit(r, forced_restart, known_ended) {  // wex_core_exit.cpp
  if
  :: r == NONE
  :: else ->
    atomic {
      yes = false;
      if
      :: !known_ended -> still_runs(r)
      :: else
      fi
    };
    if
    :: !yes -> handle_ended(r, forced_restart, rec[r].exit_seen != 0)
    :: else
    fi
  fi
}

inline handle_lost(p) {  // wex_core_exit.cpp
  __wex_find_ended(p);
  if
  :: r == NONE
  :: r != NONE && rec[r].exit_seen != 0
  :: else ->
    still_runs(r);
    if
    :: !yes -> handle_ended(r, 0, false)
    :: else
    fi
  fi
}

inline wex_handle_netlink_exit(p, forced_restart) {  // wex_core_exit.cpp
  lock(wex_chains);
  __wex_find_pid(wex_chains, p);
  handle_exit(r, forced_restart, false);
  unlock(wex_chains)
}

inline wex_hand_back_restart(p, forced_restart) {  // wex_core_exit.cpp
  lock(wex_chains);
  __wex_find_postponed(wex_chains, p, p);
  handle_exit(r, forced_restart, false);
  unlock(wex_chains)
}

inline wex_handle_judged_exit(p, known_ended) {  // wex_core_exit.cpp
  lock(wex_chains);
  __wex_find_pid(wex_chains, p);
  handle_exit(r, 0, known_ended);
  unlock(wex_chains)
}

inline wex_handle_lost_exit(p) {  // wex_core_exit.cpp
  lock(wex_chains);
  handle_lost(p);
  unlock(wex_chains)
}

// ---- Exit monitor ----------------------------------------------------------------------------------------------

inline is_registered(p) {  // wex_core_event.cpp
  atomic {
    lock(wex_chains);
    record_of_event(p);
    yes = r != NONE;
    unlock(wex_chains)
  }
}

inline judge(p) {  // wex_core_event.cpp
  atomic {
    lock(wex_chains);
    __wex_find_pid(wex_chains, p);
    ended = r != NONE && HAS_ENDED(r);
    unlock(wex_chains)
  }
}

inline try_to_judge(p) {  // wex_core_event.cpp
  judge(p);
  wex_handle_judged_exit(p, ended)
}

inline wex_take_exit_event(p) {  // wex_core_event.cpp
  is_registered(p);
  if
  :: !yes
  :: else ->
    wex_drop_taken_down(p);
    if
    :: yes
    :: else -> try_to_judge(p)
    fi
  fi
}

active proctype wex_process_netlink() {
  byte p, r, o, n, k;
  bool yes, ended;
end_of_events:
  do
  :: atomic { events ? p -> monitor_read = proc[p].died };
    wex_take_exit_event(p);
    if
    :: empty(events) -> monitor_read = IDLE
    :: nempty(events)
    fi
  od
}

// ---- Alarm -----------------------------------------------------------------------------------------------------

inline drop_if_running(r) {  // wex_signals_alarm.cpp
  atomic {
    wex_proc_is_running(r);
    if
    :: o == NONE -> yes = false
    :: else -> __wex_drop_registration(r); yes = true
    fi
  }
}

inline end_wait(r) {  // wex_signals_alarm.cpp
  atomic {
    rec[r].flags = rec[r].flags & ~WEX_FLAG_WAITING;
    rec[r].check_count = 0;
    rec[r].alarm_wait_flag = 0
  }
}

inline restart_due() {  // wex_signals_alarm.cpp
  next = false;
  w = 0;
  do
  :: w == RECORDS -> break
  :: w < RECORDS && (rec[w].flags & WEX_FLAG_WAITING) == 0 -> w++
  :: w < RECORDS && (rec[w].flags & WEX_FLAG_WAITING) != 0 ->
    r = w;
    if
    :: next = true            // not due yet
    :: true ->
      __wex_dropped_with_domain(r);
      if
      :: !yes -> drop_if_running(r)
      :: else
      fi;
      if
      :: yes
      :: else ->
        end_wait(r);
        __wex_start_again(r, false)
      fi
    fi;
    w++
  od
}

inline wex_alrm_handler() {  // wex_signals_alarm.cpp
#ifndef ALARM_UNLOCKED
  lock(wex_chains);
#endif
  restart_due();
  if
  :: next -> alarm()
  :: else
  fi;
#ifndef ALARM_UNLOCKED
  unlock(wex_chains)
#endif
}

active proctype wex_alarm() {
  byte r, o, n, w;
  bool yes, next;
end_of_signals:
  do
  :: alarm_armed -> alarm_armed = false; wex_alrm_handler()      // at any time: it may be early, and is late for some
  od
}

// ---- Delay thread ----------------------------------------------------------------------------------------------

inline hand_back_ready_restart() {  // wex_core_upkeep.cpp
  wex_take_ready_restart();
  if
  :: p != 0 ->
#ifdef DELAY_LOCK_KEPT
    lock(wex_chains_delay);
#endif
    wex_hand_back_restart(p, forced)
#ifdef DELAY_LOCK_KEPT
    ; unlock(wex_chains_delay)
#endif
  :: else
  fi
}

inline expects_exit(r) {  // wex_core_upkeep.cpp
  atomic {
    yes = rec[r].exit_seen == 0 && rec[r].alarm_wait_flag != 1;
    if
    :: yes -> __wex_waits_for_restart(rec[r].pid); yes = !yes
    :: else
    fi
  }
}

// `lost` and `suspected` for the record.
inline judge_record(r) {  // wex_core_upkeep.cpp: judge
  atomic {
    expects_exit(r);
    suspected = false;
    lost = false;
    if
    :: !yes
    :: yes && !HAS_ENDED(r) -> rec[r].gone_since = 0
    :: else ->
      if
      :: rec[r].gone_since == 0 -> rec[r].gone_since = deaths + 1; suspected = true
      :: else ->
        lost = monitor_read >= rec[r].gone_since;
        suspected = !lost
      fi
    fi
  }
}

inline hand_over(p) {  // wex_core_upkeep.cpp
  wex_drop_taken_down(p);
  if
  :: yes
  :: else -> wex_handle_lost_exit(p)
  fi
}

inline wex_sweep_lost_exits() {  // wex_core_upkeep.cpp
  lock(wex_chains);
  for (w : 0 .. RECORDS - 1) {
    if
    :: rec[w].used ->
      r = w;
      judge_record(r);
      if
      :: lost -> found[w] = rec[w].pid
      :: suspected -> wex_request_sweep()
      :: else
      fi
    :: else
    fi
  }
  __wex_tidy_filter();
  unlock(wex_chains);
  for (w : 0 .. RECORDS - 1) {
    if
    :: found[w] != 0 -> hand_over(found[w]); found[w] = 0
    :: else
    fi
  }
}

#define READY(p) (copy[p].used && (wex_proc_is_exit(p) || proc[p].too_long))
#define UPKEEP (sweep_wanted || minute || (marker && delay_pass < 2) || READY(1) || READY(2) || READY(3) || READY(4))

active proctype wex_delay_restart() {  // wex_core_upkeep.cpp
  byte p, r, o, n, k, w, found[RECORDS];
  bool yes, forced, lost, suspected;
end_of_pass:
  do
  :: UPKEEP ->
    delay_pass = 1;
    wex_drop_domains_taken_down();
    hand_back_ready_restart();
    wex_take_sweep_request();
    if
    :: yes || minute ->
      minute = false;
#ifndef NO_SWEEP
      wex_sweep_lost_exits()
#endif
    :: else
    fi;
    delay_pass = (delay_pass == 1 -> 2 : delay_pass)
  od
}

// ---- Control server --------------------------------------------------------------------------------------------

inline is_registered_already(p) {  // wex_msg.cpp: is_registered
  __wex_find_pid(wex_chains, p);
  yes = r != NONE && (!restart_failed || wex_record_lives(r))
}

inline may_go_in(p) {  // wex_msg.cpp
  is_registered_already(p);
  if
  :: yes -> yes = false
#ifndef REPLACED_UNCHECKED
  :: !yes && was_replaced(p) -> yes = false
#endif
  :: else -> yes = true
  fi
}

inline insert_process(p) {  // wex_msg.cpp
  lock(wex_chains);
  may_go_in(p);
  if
  :: !yes
  :: else ->
    __wex_add_record(wex_chains, p);
    if
#ifndef NEWCOMER_UNCHECKED
    :: !wex_record_lives(r) ->
      rec[r].gone_since = deaths + 1;
      wex_request_sweep()
#endif
    :: else
    fi
  fi;
  unlock(wex_chains)
}

// A process that has ended before its command line could be read is left to the minute's look at the files.
inline register_process(p) {  // wex_msg.cpp
  if
  :: proc[p].state == living -> insert_process(p)
  :: else
  fi
}

inline cancel_process(p) {  // wex_msg.cpp
  atomic {
    lock(wex_chains);
    for (r : 0 .. RECORDS - 1) {
      if
      :: rec[r].used && rec[r].pid == p -> excused[rec[r].program] = true; __wex_drop_registration(r)
      :: else
      fi
    }
    unlock(wex_chains)
  }
}

active proctype wex_process_domain() {
  byte p, r;
  bool yes;
end_of_messages:
  do
  :: atomic { messages ? registration(p) -> serving = true };
    wex_expect_newcomer(p);
    register_process(p);
    serving = false
  :: atomic { messages ? cancellation(p) -> serving = true };
    cancel_process(p);
    serving = false
  od
}

// ---- What happens ----------------------------------------------------------------------------------------------

#define LIVES(k) (proc[k].state == living)
#define SOMEBODY_LIVES (LIVES(1) || LIVES(2) || LIVES(3) || LIVES(4))

inline one_who_lives() {
  if
  :: LIVES(1) -> k = 1
  :: LIVES(2) -> k = 2
  :: LIVES(3) -> k = 3
  :: LIVES(4) -> k = 4
  fi
}

// May happen, at any moment or never.
active proctype people() {
  byte happened, k;
  bool cancelled, started, locked;
  do
  :: happened < DEATHS && SOMEBODY_LIVES ->
    atomic {
      if
      :: SOMEBODY_LIVES ->
        one_who_lives();
        if
#ifdef LOCKED_FILE
        :: !locked -> locked = true; locked_file = k; proc[k].file_locked = true    // a child of it still has the file
#endif
        :: true
        fi;
        die(k);
        happened++
      :: else
      fi
    }
#ifdef CANCEL
  :: !cancelled && SOMEBODY_LIVES ->
    atomic {
      cancelled = true;
      if
      :: SOMEBODY_LIVES -> one_who_lives(); messages ! cancellation(k)
      :: else
      fi
    }
#endif
#ifdef BY_HAND
  :: !started && !marker && !domain_gone ->
    atomic {
      started = true;
      k = next_pid;
      next_pid++;
      proc[k].state = living;
      if
      :: proc[k].program = PROGRAM
      :: proc[k].program = OTHER
      fi;
      messages ! registration(k)
    }
#endif
  :: break
  od
}

// The command that takes the domain down sleeps 5 s and 10 s. Who held the registry at first has given it up after the one,
// and all that the kills have led to has been handled after the other.
active proctype delete_vsd() {
  byte k;
  proc[1].state != 0;
  if
  :: true -> goto end_without
#ifdef TAKE_DOWN
  :: marker = true
#endif
  fi;
  atomic {
    owner[wex_chains] == NOBODY;
    for (k : 1 .. PIDS - 1) {
      if
      :: LIVES(k) && proc[k].program == PROGRAM -> die(k)
      :: else
      fi
    }
    delay_pass = 0
  }
  atomic {
    delay_pass == 2 && empty(events) && monitor_read == IDLE && empty(messages) && !serving && !sweep_wanted && owner[wex_chains] == NOBODY;
    marker = false;
    domain_gone = true
  }
end_without:
  skip
}

#define PASSES(k) (proc[k].passed && LIVES(k))
#define IS_UP(r) (rec[r].used && PASSES(rec[r].pid) && rec[r].exit_seen == 0 && rec[r].alarm_wait_flag == 0)

// When nothing goes on any more, each record has its process, and each program that shall run has a record.
inline look_whether_all_is_well() {
  d_step {
    assert(owner[wex_chains] == NOBODY && owner[wex_chains_delay] == NOBODY && owner[wex_spawn_mutex] == NOBODY);
    assert(!rec[0].used || IS_UP(0));
    assert(!rec[1].used || IS_UP(1));
    assert(!registered[PROGRAM] || excused[PROGRAM] || (rec[0].used && rec[0].program == PROGRAM) || (rec[1].used && rec[1].program == PROGRAM));
    assert(!registered[OTHER] || excused[OTHER] || (rec[0].used && rec[0].program == OTHER) || (rec[1].used && rec[1].program == OTHER))
  }
}

// Must happen sooner or later. The minute's look is needed for a lost event only: all else is found before it.
active proctype time_goes_by() {
  bool minute_over, looked;
  do
  :: locked_file != 0 -> proc[locked_file].file_locked = false; locked_file = 0
  :: locked_file != 0 && copy[locked_file].used && !proc[locked_file].too_long -> proc[locked_file].too_long = true
#ifdef LOSS
  :: !minute_over -> minute_over = true; minute = true
#endif
  :: timeout ->
    if
    :: event_lost && !looked -> looked = true; minute = true
    :: else -> look_whether_all_is_well(); break
    fi
  od
}

init {
  atomic {
    proc[1].state = living;
    proc[1].program = PROGRAM;
    messages ! registration(1)
  }
}

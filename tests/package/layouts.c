/* Every size, offset and number that another program relies on, as the length of an array. nm tells the
 * lengths from the object file, so no processor has to run it. One more than the number, for an array cannot
 * be empty. */
#include "wex.h"
#include "wex_status.h"
#include "wex_sys_alive.h"

#ifdef __cplusplus
extern "C" {
#endif

#define NUMBER(name, value) char name[(value) + 1]
#define SIZE(type) NUMBER(same_##type, sizeof(type))
#define OFFSET(type, field) NUMBER(same_##type##_##field, offsetof(type, field))
#define CONSTANT(value) NUMBER(same_##value, value)
/* Behind the record's pointers: the same on all boards with pointers and alignment of one size. */
#define OFFSET_BY_POINTER(type, field) NUMBER(pointer_##type##_##field, offsetof(type, field))

NUMBER(bytes_of_pointer, sizeof(void*));
struct wide_behind_a_byte {
  char byte;
  int64_t wide;
};
NUMBER(alignment_of_int64, offsetof(struct wide_behind_a_byte, wide));

/* Messages on the wire. */
SIZE(wex_inner_msg);
OFFSET(wex_inner_msg, msg_type);
OFFSET(wex_inner_msg, msg_len);
OFFSET(wex_inner_msg, name);
OFFSET(wex_inner_msg, reserved);
SIZE(wex_reg_info);
OFFSET(wex_reg_info, pid);
OFFSET(wex_reg_info, ppid);
OFFSET(wex_reg_info, vsd);
OFFSET(wex_reg_info, ntfy_cnt);
OFFSET(wex_reg_info, cur_cnt);
OFFSET(wex_reg_info, ntfy_time);
OFFSET(wex_reg_info, cur_ntfy_time);
OFFSET(wex_reg_info, restart_delay);
OFFSET(wex_reg_info, process);
OFFSET(wex_reg_info, tag);
SIZE(wex_cons_info);
OFFSET(wex_cons_info, kind);
OFFSET(wex_cons_info, pid);
CONSTANT(WEX_RESTART);
CONSTANT(WEX_SHELL_RESTART);
CONSTANT(WEX_NOTIFIER_START);
CONSTANT(WEX_NOTIFIER_RESET);
CONSTANT(WEX_CONS_MSG);
CONSTANT(WEX_CANCEL_PROC);
CONSTANT(WEX_CANCEL_THREAD_NOTIFY);

/* The table of thread reports in shared memory. */
CONSTANT(WEX_ALIVE_SIZE_OFFSET);
CONSTANT(WEX_ALIVE_BITMAP_OFFSET);
CONSTANT(WEX_ALIVE_BITMAP_BYTES);
CONSTANT(WEX_ALIVE_SEQ_OFFSET);
CONSTANT(WEX_ALIVE_SEQ_BYTES);
CONSTANT(WEX_ALIVE_TIDS);
OFFSET_BY_POINTER(ras_os_record_memory_t, addr);
OFFSET_BY_POINTER(ras_os_record_memory_t, size);
OFFSET_BY_POINTER(wex_alive_info, base);

/* The status table in shared memory. */
SIZE(wex_status_head);
OFFSET(wex_status_head, magic);
OFFSET(wex_status_head, byte_order);
OFFSET(wex_status_head, version);
OFFSET(wex_status_head, head_size);
OFFSET(wex_status_head, slot_size);
OFFSET(wex_status_head, slots);
OFFSET(wex_status_head, events_at);
OFFSET(wex_status_head, event_size);
OFFSET(wex_status_head, events);
OFFSET(wex_status_head, generation);
OFFSET(wex_status_head, flags);
OFFSET(wex_status_head, daemon_pid);
OFFSET(wex_status_head, slots_used);
OFFSET(wex_status_head, daemon_start);
OFFSET(wex_status_head, started_wall);
OFFSET(wex_status_head, started_monotonic);
OFFSET(wex_status_head, boot_id);
OFFSET(wex_status_head, daemon_version);
OFFSET(wex_status_head, event_next);
OFFSET(wex_status_head, seq);
OFFSET(wex_status_head, counters);
OFFSET(wex_status_head, threads);
SIZE(wex_status_thread);
OFFSET(wex_status_thread, seq);
OFFSET(wex_status_thread, tid);
OFFSET(wex_status_thread, name);
OFFSET(wex_status_thread, last_pass);
OFFSET(wex_status_thread, busy_since);
SIZE(wex_status_slot);
OFFSET(wex_status_slot, seq);
OFFSET(wex_status_slot, state);
OFFSET(wex_status_slot, is_thread);
OFFSET(wex_status_slot, action);
OFFSET(wex_status_slot, pid);
OFFSET(wex_status_slot, domain);
OFFSET(wex_status_slot, restart_delay);
OFFSET(wex_status_slot, pid_start);
OFFSET(wex_status_slot, registered);
OFFSET(wex_status_slot, started);
OFFSET(wex_status_slot, since);
OFFSET(wex_status_slot, until);
OFFSET(wex_status_slot, last_exit_wall);
OFFSET(wex_status_slot, last_exit);
OFFSET(wex_status_slot, restarts);
OFFSET(wex_status_slot, restarts_window);
OFFSET(wex_status_slot, watched_threads);
OFFSET(wex_status_slot, fewest_misses);
OFFSET(wex_status_slot, uid);
OFFSET(wex_status_slot, name);
OFFSET(wex_status_slot, command);
SIZE(wex_status_event);
OFFSET(wex_status_event, seq);
OFFSET(wex_status_event, number);
OFFSET(wex_status_event, monotonic);
OFFSET(wex_status_event, wall);
OFFSET(wex_status_event, generation);
OFFSET(wex_status_event, pid);
OFFSET(wex_status_event, new_pid);
OFFSET(wex_status_event, domain);
OFFSET(wex_status_event, exit_code);
OFFSET(wex_status_event, value);
OFFSET(wex_status_event, kind);
OFFSET(wex_status_event, name);
CONSTANT(WEX_STATUS_VERSION);
CONSTANT(WEX_STATUS_SLOTS);
CONSTANT(WEX_STATUS_EVENTS);
CONSTANT(WEX_STATUS_THREADS);
CONSTANT(WEX_STATUS_NAME_SIZE);
CONSTANT(WEX_STATUS_COMMAND_SIZE);
CONSTANT(WEX_STATUS_HEAD_SIZE);
CONSTANT(WEX_STATUS_EXITS);
CONSTANT(WEX_STATUS_RESTARTS);
CONSTANT(WEX_STATUS_PARKS);
CONSTANT(WEX_STATUS_POSTPONED);
CONSTANT(WEX_STATUS_FORCED);
CONSTANT(WEX_STATUS_HANDED_OVER);
CONSTANT(WEX_STATUS_DROPPED);
CONSTANT(WEX_STATUS_FAILED);
CONSTANT(WEX_STATUS_LOST_EXITS);
CONSTANT(WEX_STATUS_OVERFLOWS);
CONSTANT(WEX_STATUS_REFUSED);
CONSTANT(WEX_STATUS_HANGS);
CONSTANT(WEX_STATUS_NOT_REGISTERED);
CONSTANT(WEX_STATUS_NOT_SHOWN);
CONSTANT(WEX_STATUS_HIDDEN_TROUBLES);
CONSTANT(WEX_STATUS_PAUSE);
CONSTANT(WEX_STATUS_COUNTERS_USED);
CONSTANT(WEX_STATUS_COUNTERS);
CONSTANT(WEX_STATUS_ENDED);
CONSTANT(WEX_STATUS_STRICT);
CONSTANT(WEX_STATUS_FREE);
CONSTANT(WEX_STATUS_RUNNING);
CONSTANT(WEX_STATUS_RESTARTING);
CONSTANT(WEX_STATUS_PARKED);
CONSTANT(WEX_STATUS_WAITING);
CONSTANT(WEX_STATUS_DOWN);
CONSTANT(WEX_STATUS_EV_NONE);
CONSTANT(WEX_STATUS_EV_DAEMON_STARTED);
CONSTANT(WEX_STATUS_EV_REGISTERED);
CONSTANT(WEX_STATUS_EV_CANCELLED);
CONSTANT(WEX_STATUS_EV_EXITED);
CONSTANT(WEX_STATUS_EV_RESTARTED);
CONSTANT(WEX_STATUS_EV_PARKED);
CONSTANT(WEX_STATUS_EV_TRIED_AGAIN);
CONSTANT(WEX_STATUS_EV_POSTPONED);
CONSTANT(WEX_STATUS_EV_FORCED);
CONSTANT(WEX_STATUS_EV_HANDED_OVER);
CONSTANT(WEX_STATUS_EV_STOPPED);
CONSTANT(WEX_STATUS_EV_DROPPED);
CONSTANT(WEX_STATUS_EV_HANG);
CONSTANT(WEX_STATUS_EV_BURST);
CONSTANT(WEX_STATUS_EV_REBOOT_ASKED);
CONSTANT(WEX_STATUS_EV_REBOOT_REFUSED);
CONSTANT(WEX_STATUS_EV_LOST_EXIT);
CONSTANT(WEX_STATUS_EV_FAILED);
CONSTANT(WEX_STATUS_EV_DAEMON_ENDED);
CONSTANT(WEX_STATUS_EV_REPLACED);
CONSTANT(WEX_STATUS_EV_KINDS);
CONSTANT(WEX_STATUS_REBOOT_OTHER);
CONSTANT(WEX_STATUS_REBOOT_SELF_CHECK);
CONSTANT(WEX_STATUS_REBOOT_BURST);
CONSTANT(WEX_STATUS_EVENTS_AT);
CONSTANT(WEX_STATUS_FILE_SIZE);

/* The record, as far as programs may look into it; what follows is the daemon's own. */
OFFSET(wex_pid, pid);
OFFSET(wex_pid, ppid);
OFFSET(wex_pid, vsd);
OFFSET(wex_pid, alarm_wait_flag);
OFFSET(wex_pid, notify_info);
OFFSET(wex_pid, alive_seq);
OFFSET(wex_pid, restart_delay);
OFFSET(wex_pid, process);
OFFSET(wex_pid, action);
OFFSET(wex_pid, flags);
OFFSET(wex_pid, check_start);
OFFSET(wex_pid, check_count);
OFFSET(wex_pid, script);
OFFSET(wex_pid, hnode);
OFFSET_BY_POINTER(wex_pid, list);
OFFSET_BY_POINTER(wex_pid, reboot_allow);
OFFSET_BY_POINTER(wex_pid, reboot_ref_time);
OFFSET_BY_POINTER(wex_pid, crash_time);
OFFSET_BY_POINTER(wex_pid, exit_signal);
OFFSET_BY_POINTER(wex_pid, force_restart);
OFFSET_BY_POINTER(wex_pid, delay_start);
CONSTANT(RESPAWN);
CONSTANT(SHELL_RESTART);

#ifdef __cplusplus
}
#endif

/* Every size, offset and number that another program relies on, as the length of an array. nm tells the
 * lengths from the object file, so no processor has to run it. One more than the number, for an array cannot
 * be empty. */
#include "wex.h"
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

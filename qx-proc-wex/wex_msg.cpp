// wex_msg: what the control messages do to the registry.
//
// The handlers run on the control server's thread, after the acknowledgement; each holds the one chain it
// changes for the whole change. Records are allocated and /proc is read before that, but for the look that
// must see the record in its chain. A pid from a message is only a number here: nothing in this module
// signals a process.
#define WEX_MODULE "wex_msg"

#include "wex_msg.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include "chain_lock.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "waiting.h"
#include "wex_action.h"
#include "wex_alive_guard.h"
#include "wex_chain.h"
#include "wex_chain_identity.h"
#include "wex_chain_user.h"
#include "wex_clock.h"
#include "wex_core_early_end.h"
#include "wex_core_filter.h"
#include "wex_core_long_delay.h"
#include "wex_core_quota.h"
#include "wex_core_refusal.h"
#include "wex_core_sweep_request.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_limits.h"
#include "wex_pidfile.h"
#include "wex_status_image.h"
#include "wex_strict.h"
#include "wex_sys_alive.h"
#include "wex_utils.h"
#include "wex_vsd.h"
#include "wex_xtach.h"

namespace {

constexpr size_t kCommandSize = WEX_PROCESS_SIZE - 1;
constexpr uid_t kRoot = 0;

std::atomic<bool> g_listed_left_out{false};

// Whether this registration is one of which the speaker may speak. For one of root's, or of a user who is not
// known, only root may.
bool may_speak(uid_t speaker, const wex_pid* rec) {
  uid_t user = kRoot;
  return speaker == kRoot || (wex_uid_of(rec, &user) && user == speaker);
}

// ---- Processes --------------------------------------------------------------------------------------------

// The command line of a registered process. Without its arguments the program would be restarted wrongly for
// ever: where they cannot be read, those that the message tells are taken. False when there is none.
bool read_registered(const wex_reg_info& body, char* command, size_t size) {
  command_read result = wex_read_command(body.pid, command, size);
  for (int tries = 1; result != command_read::whole && short_for_a_moment(errno) && tries < kCommandTries;
       ++tries) {
    wex_sleep_ms(kCommandRetryMs);
    result = wex_read_command(body.pid, command, size);
  }
  if (result == command_read::program) {
    char from_message[sizeof body.process + 1] = {};
    memcpy(from_message, body.process, sizeof body.process);
    const size_t length = strlen(command);
    if (strncmp(from_message, command, length) == 0 && from_message[length] == ' ') {
      wex_copy_text(command, size, from_message);
    }
  }
  return result != command_read::nothing;
}

void tell_unknown_user(const wex_action& action, int32_t pid, const process_user& before) {
  wex_dbg(WEX_DBG_PUB, "%s: the user of pid %d is not known\n", action.handler, pid);
  wex_status_count(WEX_STATUS_NOT_REGISTERED);
  if (before.ids.group_count > kUserGroupsMax) {
    wex_refuse(before.ids.uid, refusal::too_many_groups);
  }
}

// A record of the living process, not yet in the chain; null (printed) when its command line cannot be read,
// or, in strict mode, its user has changed since the look `before`. It is made of `memory`, which is taken
// over, or of new memory for null.
wex_pid* build_process(const wex_reg_info& body, const wex_action& action, const char* script,
                       wex_pid* memory, const process_user& before) {
  char command[kCommandSize];
  if (!read_registered(body, command, sizeof command)) {
    wex_dbg(WEX_DBG_PUB, "%s: fail to get pid %d's cmdline, ppid = %d\n%s", action.handler, body.pid,
            body.ppid, action.handler_end);
    wex_status_count(WEX_STATUS_NOT_REGISTERED);
    wex_free_record(memory);
    return nullptr;
  }
  wex_pid* const rec = memory != nullptr ? wex_blank_record(memory) : wex_new_record();
  rec->pid = body.pid;
  rec->vsd = body.vsd;
  rec->action = action.number;
  rtrim(command);
  wex_copy_text(rec->process, sizeof rec->process, command);
  wex_copy_text(rec->script, sizeof rec->script, script);
  wex_note_identity(rec);  // of the process whose command was read: the registry may have to be waited for
  if (!wex_note_user(rec, before)) {
    tell_unknown_user(action, body.pid, before);
    wex_free_record(rec);
    return nullptr;
  }
  rec->restart_delay = wex_allowed_delay(rec, body.restart_delay);
  return rec;
}

// Whether the newcomer's pid has its record already. A record keeps a dead pid when its restart found no
// process, or when it was made for a thread that has ended: the process, or another one's thread, that has
// the id now may register it.
bool is_registered(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains)) {
  const wex_pid* const rec = __wex_find_pid(&wex_chains, newcomer->pid);
  if (rec == nullptr) {
    return false;
  }
  if (rec->thread_of != 0) {
    return rec->thread_of == newcomer->thread_of;
  }
  return rec->restart_failed == 0 || wex_record_lives(rec);
}

// Whether the newcomer has ended and its program been started again while its registration was under way. Its
// record would outlive the registration of its successor, and start the program again when that is cancelled
// or stopped. Not a process of another program that has got the pid since.
bool was_replaced(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains)) {
  const int32_t by = __wex_replaced_by(newcomer->pid);
  if (by == 0 || !wex_surely_dead(wex_look_at(newcomer->pid))) {
    return false;
  }
  const wex_pid* const successor = __wex_find_pid(&wex_chains, by);
  return successor == nullptr || !wex_is_other_command(successor->process, newcomer->process);
}

// Makes room for the process that has a dead thread's id. The thread's database file goes, too, unless the
// process has written its own under that name.
void drop_ended_thread(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains)) {
  wex_pid* const thread = __wex_find_pid(&wex_chains, newcomer->pid);
  if (thread == nullptr || thread->thread_of == 0) {
    return;
  }
  wex_status_tell(WEX_STATUS_EV_REPLACED, thread, {0, newcomer->pid});
  if (wex_has_pidfile_of(thread, newcomer)) {
    __wex_drop_record(&wex_chains, thread);
  } else {
    __wex_drop_registration(thread);
  }
}

// The exit code of an end before there was a record. One that was made of the newcomer's file may know it.
uint32_t take_early_end(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains)) {
  const bool process = newcomer->thread_of == 0;  // a thread's record knows the start of its process
  uid_t user = kRoot;
  wex_uid_of(newcomer, &user);
  const uint32_t code = __wex_take_early_end(newcomer->pid, process ? newcomer->start_time : 0, user);
  const wex_pid* const before = __wex_find_pid(&wex_chains, newcomer->pid);
  return code == 0 && before != nullptr ? before->known_code : code;
}

// A process that registers again may have made its database file anew. One that only has the pid of a record
// did not make that record's.
void own_file_again(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains)) {
  const wex_pid* const rec = __wex_find_pid(&wex_chains, newcomer->pid);
  if (rec->start_time == newcomer->start_time) {
    wex_own_database_file(rec);
  }
}

// Whether a registration will give its pid up to the newcomer.
bool pid_is_left_to(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains)) {
  return __wex_leaves_pid(newcomer->pid, newcomer->start_time);
}

// Whether the pid is still that of another process's registration. The newcomer gets no record then.
bool has_anothers_pid(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains)) {
  const wex_pid* const known = __wex_find_pid(&wex_chains, newcomer->pid);
  return known != nullptr && known->thread_of == 0 && known->start_time != newcomer->start_time &&
         is_registered(newcomer);
}

// Whether its database file would be written over that of a registration that could not give the pid up:
// there was no room for another file.
bool has_anothers_file(const wex_pid* newcomer) WEX_TSA(requires_capability(wex_chains)) {
  const wex_pid* const known = __wex_find_pid(&wex_chains, newcomer->pid);
  return pid_is_left_to(newcomer) && wex_has_pidfile_of(known, newcomer);
}

// Whether the newcomer is to have a record. Who has its pid and need not keep it has given it up then.
bool may_go_in(wex_pid* rec) WEX_TSA(requires_capability(wex_chains)) {
  if (!pid_is_left_to(rec) && is_registered(rec)) {
    own_file_again(rec);
    wex_status_count(WEX_STATUS_NOT_REGISTERED);
    return false;
  }
  if (was_replaced(rec)) {
    wex_status_count(WEX_STATUS_NOT_REGISTERED);
    return false;
  }
  if (!__wex_has_room(&wex_chains, rec)) {
    wex_refuse_registration(rec);
    return false;
  }
  // Only now: a newcomer that is refused would leave the former owner two files, where the names are the
  // same.
  __wex_free_pid_of(rec);
  if (wex_is_users(rec) && pid_is_left_to(rec)) {
    // There is no room for another file of root's: what the user then asks for his own would be done to that.
    wex_refuse_registration(rec);
    return false;
  }
  return true;
}

// Takes over `rec`: into the chain, or freed when its pid is registered already. True when it went in.
bool insert_process(wex_pid* rec) {
  const chain_lock hold(wex_chains);
  const uint32_t early_end = take_early_end(rec);
  if (!may_go_in(rec)) {
    wex_free_record(rec);
    return false;
  }
  __wex_drop_failed(rec->process, rec->vsd, rec->pid, rec);
  drop_ended_thread(rec);
  if (rec->thread_of != 0) {
    wex_pass_thread_ends(thread_ends_for::registrations, true);
  }
  __wex_add_record(&wex_chains, rec);
  wex_status_tell(WEX_STATUS_EV_REGISTERED, rec);
  wex_own_database_file(rec);
  if (!wex_record_lives(rec)) {  // its exit was reported while it had no record, and will not be again
    rec->known_code = early_end;
    rec->gone_since = wex_clock_now();
    wex_request_sweep();
  }
  return true;
}

int register_process(uid_t speaker, const wex_reg_info& body, const wex_action& action, const char* script) {
  process_user before = {};
  const bool seen = wex_look_at_user(body.pid, &before);
  if (seen && speaker != kRoot && before.ids.uid != speaker) {
    wex_forget_newcomer(body.pid, before.start_time, speaker);
    wex_refuse(speaker, refusal::not_his);
    return -1;
  }
  wex_pid* const rec = build_process(body, action, script, nullptr, before);
  if (rec == nullptr) {
    return -1;
  }
  if (!may_speak(speaker, rec)) {  // of a thread: the process that it is one of counts
    wex_forget_newcomer(body.pid, before.start_time, speaker);
    wex_refuse(speaker, refusal::not_his);
    wex_free_record(rec);
    return -1;
  }
  char process[WEX_PROCESS_SIZE];  // the record belongs to the chain once it is inserted
  const int32_t delay = rec->restart_delay;
  wex_copy_text(process, sizeof process, rec->process);
  if (insert_process(rec) && delay > kLongDelaySec) {
    wex_note_long_delay(process, body.pid, delay);
  }
  return 0;
}

int cancel_process(uid_t speaker, int32_t pid) {
  int result = 0;
  const chain_lock hold(wex_chains);
  record_walk records(wex_chains);
  while (wex_pid* const rec = records.next()) {
    if (rec->pid == pid && !may_speak(speaker, rec)) {
      result = -1;
    } else if (rec->pid == pid) {
      wex_status_tell(WEX_STATUS_EV_CANCELLED, rec);
      __wex_drop_registration(rec);
    }
  }
  return result;
}

// ---- Threads ----------------------------------------------------------------------------------------------

struct notify_kind {
  const char* handler;
  bool renews;  // the counters of an existing registration
};

constexpr notify_kind kStart = {"wex_notifier_start", false};
constexpr notify_kind kReset = {"wex_notifier_reset", true};

// The numbers are kept as they came; the watchdog, which counts with them, checks for overflow.
void copy_counters(wex_pid* rec, const wex_reg_info& body) {
  rec->notify_info[WEX_NTFY_CNT] = body.ntfy_cnt;
  rec->notify_info[WEX_CUR_CNT] = body.cur_cnt;
  rec->notify_info[WEX_NTFY_TIME] = body.ntfy_time;
  rec->notify_info[WEX_CUR_NTFY_TIME] = body.cur_ntfy_time;
}

wex_pid* build_thread(const wex_reg_info& body, char* command) {
  wex_pid* const rec = wex_new_record();
  rec->pid = body.pid;
  rec->ppid = body.ppid;
  copy_counters(rec, body);
  rtrim(command);
  wex_copy_text(rec->process, sizeof rec->process, command);
  wex_note_thread_user(rec);
  return rec;
}

// Takes over `fresh` as the thread's registration unless there is one. The registration that counts.
wex_pid* find_or_add_thread(wex_pid* fresh, const wex_reg_info& body, bool renews)
    WEX_TSA(requires_capability(wex_alive_chains)) {
  wex_pid* known = __wex_find_pid(&wex_alive_chains, body.pid);
  if (known != nullptr && known->start_time != fresh->start_time) {
    __wex_drop_thread(&wex_alive_chains, known);  // strict mode: of a process that had the same pid
    known = nullptr;
  }
  if (known == nullptr) {
    __wex_add_record(&wex_alive_chains, fresh);
    return fresh;
  }
  wex_free_record(fresh);
  if (renews) {
    copy_counters(known, body);
  }
  return known;
}

// Why the speaker may not have this thread watched, which another one's registration may have the id of until
// the next scan. False when he may.
bool is_refused(uid_t speaker, const wex_pid* fresh) WEX_TSA(requires_capability(wex_alive_chains)) {
  if (speaker == kRoot) {
    return false;
  }
  const wex_pid* const known = __wex_find_pid(&wex_alive_chains, fresh->pid);
  if (!may_speak(speaker, fresh) || (known != nullptr && !may_speak(speaker, known))) {
    wex_refuse(speaker, refusal::not_his);
    return true;
  }
  if (known == nullptr && !__wex_has_room(&wex_alive_chains, fresh)) {
    wex_refuse(speaker, refusal::too_many_registrations);
    return true;
  }
  return false;
}

int register_thread(uid_t speaker, const wex_reg_info& body, const notify_kind& kind) {
  char command[WEX_PROCESS_SIZE];
  if (!read_registered(body, command, sizeof command)) {
    wex_dbg(WEX_DBG_PUB, "%s: fail to get pid %d's cmdline, ppid=%d\n", kind.handler, body.pid, body.ppid);
    return -1;
  }
  wex_pid* const fresh = build_thread(body, command);
  const chain_lock hold(wex_alive_chains);
  if (is_refused(speaker, fresh)) {
    wex_free_record(fresh);
    return -1;
  }
  // In strict mode a program whose library does not know that only root writes the alive table, or that has
  // one mapped which is not the daemon's any more, registers again with each report.
  wex_pid* const rec = find_or_add_thread(fresh, body, kind.renews || wex_strict().on);
  if (wex_in_alive_table(body.pid)) {
    const auto tid = static_cast<uint32_t>(body.pid);
    wex_sys_reg_alive_info(tid);
    rec->alive_seq = wex_sys_get_alive_seq(tid);
  }
  return 0;
}

int cancel_thread(uid_t speaker, int32_t tid) {
  int result = 0;
  const chain_lock hold(wex_alive_chains);
  record_walk records(wex_alive_chains);
  while (wex_pid* const rec = records.next()) {
    if (rec->pid == tid && !may_speak(speaker, rec)) {
      result = -1;
    } else if (rec->pid == tid) {
      __wex_drop_thread(&wex_alive_chains, rec);
    }
  }
  return result;
}

}  // namespace

extern "C" {

int wex_process_restart(const wex_reg_info* body) {
  return register_process(kRoot, *body, kRespawn, "");
}

int wex_process_shell_restart(const wex_reg_info* body, const char* script) {
  return register_process(kRoot, *body, kShellRestart, script);
}

int wex_notifier_start(const wex_reg_info* body) {
  return register_thread(kRoot, *body, kStart);
}

int wex_notifier_reset(const wex_reg_info* body) {
  return register_thread(kRoot, *body, kReset);
}

int wex_process_cons_msg(const wex_cons_info* body) {
  return wex_cancel_by(kRoot, *body);
}

}  // extern "C"

int wex_register_process_by(uid_t speaker, const wex_reg_info& body, const wex_action& action,
                            const char* script) {
  return register_process(speaker, body, action, script);
}

int wex_register_thread_by(uid_t speaker, const wex_reg_info& body, bool renews) {
  return register_thread(speaker, body, renews ? kReset : kStart);
}

int wex_cancel_by(uid_t speaker, const wex_cons_info& body) {
  int result = 0;
  switch (body.kind) {
    case WEX_CANCEL_PROC:
      result = cancel_process(speaker, body.pid);
      break;
    case WEX_CANCEL_THREAD_NOTIFY:
      result = cancel_thread(speaker, body.pid);
      break;
    default:
      break;  // acknowledged, and nothing to do
  }
  if (result != 0) {
    wex_refuse(speaker, refusal::not_his);
  }
  return result;
}

int wex_register_listed(int32_t pid, const char* type, wex_pid* memory, const process_user& before) {
  const uint32_t msg_type = wex_action_type(type);
  if (msg_type == 0 || pid < 1) {
    wex_free_record(memory);
    return -1;
  }
  wex_reg_info body;
  const bool described = wex_begin_registration(pid, msg_type, &body);
  // Before the lock is taken: without `memory` the record is allocated, which may have to wait for memory.
  wex_pid* const rec = build_process(body, *wex_find_action(wex_action_number(msg_type)), "", memory, before);
  if (rec == nullptr) {
    return -1;
  }
  const chain_lock hold(wex_chains);
  __wex_free_pid({pid, rec->start_time, rec->vsd, nullptr});  // it has no file yet
  // Its database file would be one that nobody minds, or the other one's written over.
  if (has_anothers_pid(rec) || has_anothers_file(rec)) {
    // Without a start time it may be the same process, which is registered then.
    if (__wex_find_pid(&wex_chains, pid)->start_time != 0) {
      g_listed_left_out.store(true, std::memory_order_release);
    }
    wex_status_count(WEX_STATUS_NOT_REGISTERED);
    wex_free_record(rec);
    return 0;
  }
  const wex_pid* const known = __wex_find_pid(&wex_chains, pid);
  const bool again = known != nullptr && known->start_time == rec->start_time;
  if (!again) {
    wex_keep_user(rec);  // first: the file is root's until it has its record, and the daemon may be killed
  }
  __wex_expect_exit(pid);  // before the file, by which others see that a SIGTERM stops it for good
  if (described) {
    wex_make_database_file(body, msg_type, wex_mk_pidfile_held);
  }
  const wex_pid refused = *rec;
  if (!insert_process(rec) && !again && wex_strict().on) {
    wex_db_destroy(&refused);  // it is root's, whosever program it names
    __wex_keep_user_of_owner(&wex_chains, pid);
  }
  return 0;
}

int wex_register_third_part(int32_t pid, const char* type, wex_pid* memory) {
  process_user now = {};
  wex_look_at_user(pid, &now);
  return wex_register_listed(pid, type, memory, now);
}

bool __wex_pid_is_kept(int32_t pid, const wex_pid* of, uint64_t* start_time) {
  const process_look now = wex_look_at(pid);
  *start_time = now.start_time;
  if (pid == of->pid || now.sight != process_look::seen || wex_surely_dead(now)) {
    return false;
  }
  wex_pid newcomer = *of;
  newcomer.pid = pid;
  newcomer.vsd = wex_domain_or_main(get_vsdid(pid));
  newcomer.start_time = now.start_time;
  newcomer.thread_of = 0;
  return !pid_is_left_to(&newcomer) && has_anothers_pid(&newcomer);
}

bool wex_listed_left_out() {
  return g_listed_left_out.load(std::memory_order_acquire);
}

void wex_forget_listed_left_out() {
  g_listed_left_out.store(false, std::memory_order_release);
}

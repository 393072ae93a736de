// wex_core_netlink: the exit monitor. Subscribes to the kernel's process events, reads them, and hands
// executions and exits on (wex_core_executed, wex_core_event).
#define WEX_MODULE "wex_core"
#include "wex_core_netlink.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ras_os.h"
#include "text_number.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_clock.h"
#include "wex_core_event.h"
#include "wex_core_executed.h"
#include "wex_core_filter.h"
#include "wex_core_list_watch.h"
#include "wex_core_process_event.h"
#include "wex_core_stop.h"
#include "wex_core_sweep_request.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_proc.h"
#include "wex_proc_child.h"
#include "wex_status_image.h"
#include "wex_strict.h"

std::atomic<int32_t> wex_monitor_read_until{0};

namespace {

constexpr char kThreadName[] = "wex_process_netlink";
constexpr int kConnector = 11;         // NETLINK_CONNECTOR
constexpr uint32_t kProcessGroup = 1;  // CN_IDX_PROC, also the multicast group
constexpr uint32_t kProcessValue = 1;  // CN_VAL_PROC
constexpr uint32_t kListen = 1;        // PROC_CN_MCAST_LISTEN
constexpr size_t kDatagramMax = 1024;

template <typename T>
T field(const uint8_t* message, size_t at) {
  T value;
  memcpy(&value, message + at, sizeof value);
  return value;
}

template <typename T>
void store_field(uint8_t* message, size_t at, T value) {
  memcpy(message + at, &value, sizeof value);
}

// False when the message is too short for its kind or of no interest.
bool read_event(const uint8_t* message, size_t size, process_event* event) {
  if (size < kKindAt + sizeof event->kind) {
    return false;
  }
  size_t pid_at = kPidAt;
  size_t tgid_at = kTgidAt;
  *event = {};
  event->kind = field<uint32_t>(message, kKindAt);
  switch (event->kind) {
    case kEventAck:
      event->time_ns = size >= kTimeAt + sizeof event->time_ns ? field<uint64_t>(message, kTimeAt) : 0;
      return true;
    case kEventExit:
      if (size < kCodeAt + sizeof event->exit_code) {
        return false;
      }
      event->exit_code = field<uint32_t>(message, kCodeAt);
      break;
    case kEventExec:
      if (size < kTgidAt + sizeof event->tgid) {
        return false;
      }
      break;
    case kEventFork:
      if (size < kChildTgidAt + sizeof event->tgid) {
        return false;
      }
      pid_at = kChildPidAt;
      tgid_at = kChildTgidAt;
      break;
    default:
      return false;
  }
  event->time_ns = field<uint64_t>(message, kTimeAt);
  event->pid = field<int32_t>(message, pid_at);
  event->tgid = field<int32_t>(message, tgid_at);
  return true;
}

// ---- socket -----------------------------------------------------------------------------------------------

struct outcome {
  int code;
  int error;
};

void enlarge_buffer(int fd) {
  const int wanted = kEventBuffer;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0 &&
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: socket set recvbuffer error: %s", kThreadName, strerror(errno));
    return;
  }
  int got = 0;
  socklen_t size = sizeof got;
  if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &got, &size) == 0 && got < 2 * kEventBuffer) {
    wex_running_log("Process event buffer is only %d bytes.\r\n",
                    got);  // the kernel caps it without an error
  }
}

bool bind_to_port(int fd, uint32_t port) {
  sockaddr_nl address = {};
  address.nl_family = AF_NETLINK;
  address.nl_pid = port;
  address.nl_groups = kProcessGroup;
  return bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

// Any user may take the port of a process that is yet to come; then the kernel chooses one (port 0).
bool bind_to_events(int fd) {
  return bind_to_port(fd, static_cast<uint32_t>(getpid())) || (errno == EADDRINUSE && bind_to_port(fd, 0));
}

bool subscribe(int fd) {
  uint8_t message[kSubscriptionSize];
  wex_build_subscription(static_cast<int32_t>(getpid()), message);
  return send(fd, message, sizeof message, 0) == static_cast<ssize_t>(sizeof message);
}

int open_socket() {
  const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, kConnector);
  return fd < 0 && errno == EINVAL ? socket(AF_NETLINK, SOCK_DGRAM, kConnector) : fd;
}

outcome set_up(unique_fd* events) {
  if (wex_set_priority(kMonitorPriority) != 0) {
    const int error = errno;
    wex_dbg(WEX_DBG_PUB, "%s: set priority fail: %s\n", kThreadName, strerror(error));
    return {-1, error};
  }
  wex_start_children_at_normal_priority(kMonitorPriority);
  events->reset(open_socket());
  if (!events->valid()) {
    const int error = errno;
    wex_dbg(WEX_DBG_PUB, "%s: socket sk_nl fail: %s\n", kThreadName, strerror(error));
    return {-2, error};
  }
  ras_os_set_fd_close_on_exec(events->get());
  enlarge_buffer(events->get());
  wex_attach_filter(events->get());
  wex_expect_events_from(wex_clock_ns());
  if (!bind_to_events(events->get())) {
    const int error = errno;
    wex_dbg(WEX_DBG_PUB, "%s: binding sk_nl fail: %s\n", kThreadName, strerror(error));
    return {-3, error};
  }
  if (!subscribe(events->get())) {
    const int error = errno;
    wex_dbg(WEX_DBG_PUB, "%s: send proc connector msg fail: %s\n", kThreadName, strerror(error));
    return {-4, error};
  }
  return {0, 0};
}

// The state of one run of the monitor.
struct monitor {
  int fd = -1;
  int ack_wait_ms = kSubscriptionWaitMs;  // -1 once the kernel has answered, or the time for it is over
  bool missed_some = true;     // executions may have gone unreported: at first all of them, later some
  bool one_had_ended = false;  // an executed process, before it was looked at: it may have detached
  int64_t look_wanted_since = 0;
  int64_t next_unseen_look = 0;
  int64_t next_left_out_look = 0;
  int64_t gap_since_ns = 0;  // when the kernel said that it loses events, until it reports them again
  list_watch list;
  int64_t next_list_look = 0;
  bool list_changed = false;  // since the last pause
  bool executions_wanted = true;
  bool was_birth = false;  // the last datagram
};

// For `reason`, one of the two, all processes are to be looked at.
void want_look(monitor* state, bool* reason) {
  if (!state->missed_some && !state->one_had_ended) {
    state->look_wanted_since = wex_clock_ms();
  }
  *reason = true;
}

// Has executions reported only while the list names programs. What was executed before is looked for.
void look_at_list(monitor* state) {
  state->next_list_look = wex_clock_ms() + kListLookMs;
  const bool wanted = state->list.may_name_programs();
  if (wanted == state->executions_wanted) {
    return;
  }
  state->executions_wanted = wanted;
  wex_pass_executions(wanted);
  if (wanted) {
    want_look(state, &state->missed_some);
  }
}

// The shorter of two limits, of which -1 is none.
int shorter(int one, int other) {
  return one < 0 || (other >= 0 && other < one) ? other : one;
}

void ask_for_looks(monitor* state) {
  wex_request_sweep();
  want_look(state, &state->missed_some);
}

// The kernel loses every event from the first for which there is no room until all that is queued has been
// read, and says so once, with the next reading.
void end_gap(monitor* state) {
  if (state->gap_since_ns != 0) {
    if (wex_strict().on) {
      wex_note_unreported_ends(state->gap_since_ns);
    }
    ask_for_looks(state);
    state->gap_since_ns = 0;
  }
}

void on_event(const process_event& event, void* context) {
  monitor* const state = static_cast<monitor*>(context);
  wex_note_event_read(event);
  if (wex_event_time(event) > state->gap_since_ns) {
    end_gap(state);  // what comes now was not queued before
  }
  if (event.kind != kEventAck) {
    wex_monitor_read_until.store(wex_event_second(event), std::memory_order_release);
  }
  state->was_birth = event.kind == kEventFork;
  switch (event.kind) {
    case kEventAck:
      state->ack_wait_ms = -1;
      break;
    case kEventFork:
      wex_take_birth_event(event);
      break;
    case kEventExec:
      if (!wex_register_executed(event.pid)) {
        want_look(state, &state->one_had_ended);
      }
      break;
    default:
      wex_take_exit_event(event);
      break;
  }
}

bool is_readable(int fd) {
  struct pollfd input = {fd, POLLIN, 0};
  return poll(&input, 1, 0) > 0;
}

void receive_one(monitor* state) {
  state->was_birth = false;
  uint8_t bytes[kDatagramMax];
  sockaddr_nl from = {};
  socklen_t from_size = sizeof from;
  const ssize_t size =
      recvfrom(state->fd, bytes, sizeof bytes, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &from_size);
  if (size < 0) {
    if (errno == ENOBUFS) {  // the kernel says this once, however many events were lost
      wex_status_count(WEX_STATUS_OVERFLOWS);
      end_gap(state);
      state->gap_since_ns = wex_clock_ns();
      ask_for_looks(state);
    }
    wex_dbg(WEX_DBG_PUB, "%s: netlink recvfrom fail: %s\n", kThreadName, strerror(errno));
    return;
  }
  if (from_size != sizeof from) {
    wex_dbg(WEX_DBG_PUB, "%s: bad address size reading netlink socket: %s\n", kThreadName, strerror(errno));
    return;
  }
  if (state->gap_since_ns != 0 && !is_readable(state->fd)) {
    end_gap(state);  // before this event is handled, which may take seconds: others are queued meanwhile
  }
  if (from.nl_groups == kProcessGroup && from.nl_pid == 0) {
    wex_walk_datagram(bytes, static_cast<size_t>(size), on_event, state);
  }
}

// Milliseconds until processes are looked for whose execution told nothing, -1 when there is no need. What
// was executed before the kernel has carried out the subscription is not reported, so it is given time for
// that.
int until_look_for_running(const monitor& state) {
  if (!state.executions_wanted || state.ack_wait_ms >= 0) {
    return -1;
  }
  if (state.missed_some) {
    return 0;
  }
  return state.one_had_ended ? static_cast<int>(std::max<int64_t>(state.next_unseen_look - wex_clock_ms(), 0))
                             : -1;
}

// Short-lived commands end unseen all the time, so their looks take a small share of the time, however many
// processes there are.
void look_for_running(monitor* state) {
  const int64_t begin = wex_clock_ms();
  state->missed_some = false;
  state->one_had_ended = false;
  wex_register_running();
  const int64_t end = wex_clock_ms();
  state->next_left_out_look = end + kListLookMs;
  state->next_unseen_look = end + std::max<int64_t>(kUnseenLookMs, (end - begin) * kUnseenLookShare);
}

// Nobody says when the pid is free for which a program was left out: the registration that has it may be
// cancelled, or end with its domain, while nothing is executed. Milliseconds until that is looked at, -1 when
// there is no need, or the look is due.
int until_left_out_look(monitor* state) {
  if (!state->executions_wanted || !wex_listed_left_out()) {
    return -1;
  }
  const int64_t left = state->next_left_out_look - wex_clock_ms();
  if (left > 0) {
    return static_cast<int>(left);
  }
  want_look(state, &state->one_had_ended);
  return -1;
}

// Waits for the next datagram, at most `limit_ms` (-1: for ever). More than 0 when there is one, 0 to look at
// the flag again, -1 with errno.
int wait_for_event(monitor* state, int limit_ms) {
  struct pollfd inputs[] = {
      {state->fd, POLLIN, 0}, {wex_wakeup_fd(), POLLIN, 0}, {state->list.fd(), POLLIN, 0}};
  int ready = poll(inputs, 3, 0);
  if (ready == 0) {
    end_gap(state);
  }
  // Once the queue is empty, for a full one makes the kernel drop further events. Where programs are executed
  // so fast that it never is, this must not be put off for ever.
  const bool overdue = wex_clock_ms() - state->look_wanted_since >= kLookPutOffMs;
  if ((ready == 0 || overdue) && until_look_for_running(*state) == 0) {
    look_for_running(state);
    return 0;
  }
  if (ready == 0) {
    const bool for_the_answer = state->ack_wait_ms >= 0 && (limit_ms < 0 || state->ack_wait_ms <= limit_ms);
    wex_monitor_read_until.store(INT32_MAX, std::memory_order_release);
    ready = poll(inputs, 3, for_the_answer ? state->ack_wait_ms : limit_ms);
    wex_monitor_read_until.store(wex_clock_now(), std::memory_order_release);
    if (ready == 0 && for_the_answer) {
      state->ack_wait_ms = -1;
      wex_running_log("The kernel does not answer for process events, exits may go unseen.\r\n");
    }
  }
  if (ready < 0) {
    return errno == EINTR ? 0 : -1;
  }
  if ((inputs[2].revents & POLLNVAL) != 0) {
    state->list.close_lost();
  }
  if (inputs[2].revents != 0 || wex_clock_ms() >= state->next_list_look) {
    state->list_changed = inputs[2].revents != 0;
    state->list.take_changes();
    look_at_list(state);
  }
  if ((inputs[0].revents & POLLNVAL) != 0) {
    errno = EBADF;  // poll() would return POLLNVAL at once every time, and the loop would spin
    return -1;
  }
  return (inputs[0].revents & (POLLIN | POLLERR)) != 0 ? 1 : 0;
}

outcome watch(int fd) {
  monitor state;
  state.fd = fd;
  state.look_wanted_since = wex_clock_ms();
  state.list.open();
  look_at_list(&state);
  state.gap_since_ns = wex_clock_ns();  // exits between the rebuild and the subscription were not reported
  end_gap(&state);
  wex_status_thread_is(kStatusMonitor);
  while (wex_exit_flag.load(std::memory_order_relaxed) == 0) {
    wex_status_busy(kStatusMonitor);
    // Without executions a list in a directory that was mounted over the watched one would go unnoticed.
    const bool list_is_watched = state.executions_wanted && state.list.fd() >= 0;
    const int until_look =
        list_is_watched ? -1 : static_cast<int>(std::max<int64_t>(state.next_list_look - wex_clock_ms(), 0));
    const int until_left_out = until_left_out_look(&state);
    const int until_any_look = shorter(shorter(until_look, until_left_out), until_look_for_running(state));
    const int limit_ms = shorter(wex_judge_pending_exits(), until_any_look);
    wex_status_idle(kStatusMonitor);
    const int ready = wait_for_event(&state, limit_ms);
    if (ready < 0) {
      const int error = errno;
      wex_dbg(WEX_DBG_PUB, "%s: select sk_nl fail: %s\n", kThreadName, strerror(error));
      return {-5, error};
    }
    if (ready > 0) {
      wex_status_busy(kStatusMonitor);
      receive_one(&state);
    }
    if ((ready > 0 && !state.was_birth) || state.list_changed) {
      state.list_changed = false;
      if (WEX_MONITOR_PAUSE_US > 0) {  // even no time at all would be a timer's interrupt
        usleep(WEX_MONITOR_PAUSE_US);
      }
    }
  }
  return {0, 0};
}

}  // namespace

void wex_build_subscription(int32_t pid, uint8_t (&message)[kSubscriptionSize]) {
  memset(message, 0, sizeof message);
  store_field<uint32_t>(message, 0, kSubscriptionSize);
  store_field<uint16_t>(message, 4, NLMSG_DONE);
  store_field<int32_t>(message, 12, pid);
  store_field<uint32_t>(message, 16, kProcessGroup);
  store_field<uint32_t>(message, 20, kProcessValue);
  store_field<uint16_t>(message, 32, sizeof kListen);
  store_field<uint32_t>(message, 36, kListen);
}

void wex_walk_datagram(const uint8_t* bytes, size_t size,
                       void (*on_event)(const process_event& event, void* context), void* context) {
  constexpr size_t kHeader = sizeof(nlmsghdr);
  while (size >= kHeader) {
    const size_t length = field<uint32_t>(bytes, kLenAt);
    const uint16_t type = field<uint16_t>(bytes, kTypeAt);
    if (length < kHeader || length > size || type == NLMSG_ERROR || type == NLMSG_OVERRUN) {
      return;
    }
    process_event event = {};
    if (type != NLMSG_NOOP && read_event(bytes, length, &event)) {
      on_event(event, context);
    }
    const size_t step = NLMSG_ALIGN(length);
    if (type == NLMSG_DONE || step > size) {
      return;
    }
    bytes += step;
    size -= step;
  }
}

extern "C" void* wex_process_netlink(void* /*unused*/) {
  if (prctl(PR_SET_NAME, kThreadName) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: %s", kThreadName, strerror(errno));
    return nullptr;
  }
  unique_fd events;
  outcome end = set_up(&events);
  if (end.code == 0) {
    end = watch(events.get());
  }
  wex_release_filter();
  wex_raise_exit_flag();
  wex_log_thread_end(kThreadName, end.code, end.error);
  return nullptr;
}

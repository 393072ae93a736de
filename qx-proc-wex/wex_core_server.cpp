// wex_core, the control server: the daemon's side of the control channel.
//
// One thread owns the listening socket, the table of clients and the epoll set, so none of them is locked. It
// runs at real-time priority: everything here is bounded, and no send waits for a client.
#define WEX_MODULE "wex_core"

#include "wex_core_server.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "guarded_file.h"
#include "ras_os.h"
#include "received_descriptors.h"
#include "unique_fd.h"
#include "wex_action.h"
#include "wex_chain_user.h"
#include "wex_core_claim.h"
#include "wex_core_clients.h"
#include "wex_core_early_end.h"
#include "wex_core_stop.h"
#include "wex_core_watched_names.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_proc.h"
#include "wex_rpc.h"
#include "wex_status_image.h"

namespace {

constexpr char kThread[] = "wex_process_domain";

// Why the thread ends: the "res" of its last line, and the errno that goes with it.
enum {
  kSetupFailed = -1,
  kBindFailed = -2,
  kListenFailed = -3,
  kEpollFailed = -4,
  kWatchListenerFailed = -5,
  kWatchClientFailed = -6,
  kEventFailed = -7,
  kAcceptFailed = -8,
  kTableFull = -9,
  kClientLost = -10
};

struct server {
  unique_fd listener;
  unique_fd epoll;
  bool table_ready = false;
  int code = 0;
  int error = 0;

  // Notes why the thread must end; false, for the caller to return.
  bool fail(int why, int cause) noexcept {
    code = why;
    error = cause;
    return false;
  }
};

// The server's thread's alone: no lock. Static, for 2048 slots are too much for a thread's stack on the
// device.
int32_t g_client_table[kMaxClients];
constexpr int kNoClient = -2;  // in an event: its connection has been dropped since it was reported
epoll_event g_events[kServedAtOnce];

// ---- Messages ---------------------------------------------------------------------------------------------

// A message with everything at its full size: what the sender left out is zero, what it sent beyond is
// ignored.
struct request {
  wex_reg_info reg;
  wex_cons_info cons;
  char script[WEX_SCRIPT_SIZE];
  uid_t speaker;  // root, unless strict mode knows who it is
};

struct message_rule {
  uint32_t type;
  bool acknowledged;
  int (*handler)(const request&);
};

constexpr message_rule kRules[] = {
    {kRespawn.message, true,
     [](const request& in) { return wex_register_process_by(in.speaker, in.reg, kRespawn, ""); }},
    {kShellRestart.message, true,
     [](const request& in) { return wex_register_process_by(in.speaker, in.reg, kShellRestart, in.script); }},
    {WEX_NOTIFIER_START, true,
     [](const request& in) { return wex_register_thread_by(in.speaker, in.reg, false); }},
    {WEX_NOTIFIER_RESET, false,  // sent often
     [](const request& in) { return wex_register_thread_by(in.speaker, in.reg, true); }},
    {WEX_CONS_MSG, true, [](const request& in) { return wex_cancel_by(in.speaker, in.cons); }},
};

constexpr bool rules_in_order() {
  for (size_t at = 0; at < std::size(kRules); ++at) {
    if (kRules[at].type != at + 1) {
      return false;
    }
  }
  return true;
}
static_assert(std::size(kRules) == WEX_CONS_MSG && rules_in_order(), "a message type without a rule");

const message_rule* find_rule(uint32_t type) {
  return type >= 1 && type <= std::size(kRules) ? &kRules[type - 1] : nullptr;
}

request unpack(const wex_inner_msg& msg, uid_t speaker) {
  const auto length = static_cast<size_t>(msg.msg_len);
  request in = {};
  in.speaker = speaker;
  memcpy(&in.reg, &msg + 1, std::min(length, sizeof in.reg));
  memcpy(&in.cons, &msg + 1, std::min(length, sizeof in.cons));
  memcpy(in.script, msg.name, sizeof in.script - 1);  // the wire promises no terminator
  return in;
}

int wex_recv_domain_msg(int sd, wex_inner_msg** msg) {
  const int result = wex_inner_recv_msg(sd, msg);
  if (result != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: wex_inner_recv_msg err(ret:%d, sk:%d)!\n", __func__, result, sd);
  }
  return result;
}

// Once it is acknowledged, the sender counts as registered. There is room for a few, so a user must not name
// processes that are not his, and those of his make no room among root's.
void expect_newcomer(uid_t speaker, const wex_inner_msg& msg) {
  if (msg.msg_type != kRespawn.message && msg.msg_type != kShellRestart.message) {
    return;
  }
  const int32_t pid = unpack(msg, 0).reg.pid;
  process_user its;
  if (speaker == 0 || (wex_look_at_user(pid, &its) && its.ids.uid == speaker)) {
    wex_expect_newcomer(pid, speaker);
  }
}

// The acknowledgement says only that the message arrived: the sender does not wait for the handler.
int wex_rsp_domain_msg(int sd, const wex_inner_msg& msg) {
  const message_rule* const rule = find_rule(msg.msg_type);
  if (rule == nullptr) {
    wex_dbg(WEX_DBG_PUB, "recv unknown type msg %d\n", static_cast<int>(msg.msg_type));
    wex_status_count(WEX_STATUS_REFUSED);
    return -1;
  }
  if (!rule->acknowledged) {
    return 0;
  }
  const wex_inner_msg acknowledgement = {};
  const int result = wex_inner_send_msg(sd, &acknowledgement);
  if (result != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: wex_inner_send_msg err(ret:%d, sk:%d, type:%d)!\n", __func__, result, sd,
            static_cast<int>(msg.msg_type));
  }
  return result;
}

int wex_dispatch_domain_msg(const wex_inner_msg& msg, uid_t speaker) {
  const message_rule* const rule = find_rule(msg.msg_type);
  int result = -1;
  if (rule == nullptr) {
    wex_dbg(WEX_DBG_PUB, "recv unknown type msg %d\n", static_cast<int>(msg.msg_type));
  } else {
    result = rule->handler(unpack(msg, speaker));
  }
  wex_dbg(WEX_DBG_PUB, "%s type:%d err:%d\n", __func__, static_cast<int>(msg.msg_type), result);
  return result;
}

// ---- Clients ----------------------------------------------------------------------------------------------

// The lowest slot that holds `sd`, or null.
int32_t* find_slot(int32_t sd) {
  int32_t* const slot = std::find(std::begin(g_client_table), std::end(g_client_table), sd);
  return slot == std::end(g_client_table) ? nullptr : slot;
}

size_t number_of(const int32_t* slot) {
  return static_cast<size_t>(slot - g_client_table);
}

// What was reported of the connection in this cycle must not be taken for a client that gets its number.
void forget_events_of(int sd) {
  for (epoll_event& event : g_events) {
    event.data.fd = event.data.fd == sd ? kNoClient : event.data.fd;
  }
}

bool drop_client(server& self, int sd) {
  int32_t* const slot = find_slot(sd);
  if (slot == nullptr) {
    wex_dbg(WEX_DBG_PUB, "%s: logic err, clnt_sd:%d lost!\n", kThread, sd);
    return self.fail(kClientLost, 0);
  }
  // A program that is just being started has a copy of the descriptor until it executes. Closing ours alone
  // would leave the connection in the interest set, reported under a number that another client may have.
  epoll_ctl(self.epoll.get(), EPOLL_CTL_DEL, sd, nullptr);
  close_emptied(sd);
  forget_events_of(sd);
  *slot = -1;
  wex_client_left(number_of(slot));
  return true;
}

// A client that has left sent nothing to be refused.
void count_if_refused(int sd) {
  char next = 0;
  const ssize_t got = recv(sd, &next, sizeof next, MSG_PEEK | MSG_DONTWAIT);
  if (got > 0 || (got < 0 && errno == EAGAIN)) {
    wex_status_count(WEX_STATUS_REFUSED);
  }
}

// One message of one client. A client whose message is malformed loses its connection; others are unaffected.
bool serve_client(server& self, int sd) {
  owned_msg msg;
  self.code = wex_recv_domain_msg(sd, msg.fill());
  if (self.code != 0) {
    count_if_refused(sd);
    return drop_client(self, sd);
  }
  const uid_t speaker = wex_speaker(number_of(find_slot(sd)));
  expect_newcomer(speaker, *msg.get());
  self.code = wex_rsp_domain_msg(sd, *msg.get());
  if (self.code != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: wex_inner_rsp_msg err(ret:%d, sk:%d)!\n", kThread, self.code, sd);
    return drop_client(self, sd);
  }
  self.code = wex_dispatch_domain_msg(*msg.get(), speaker);
  return true;
}

// The peer's address is of no use to us and not asked for.
unique_fd accept_client(int listener) {
  unique_fd sd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  if (!sd.valid() && (errno == ENOSYS || errno == EINVAL)) {  // kernels before 2.6.28
    sd.reset(accept(listener, nullptr, nullptr));
    if (sd.valid()) {
      ras_os_set_fd_close_on_exec(sd.get());
    }
  }
  return sd;
}

int watch(int ep, int fd) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = fd;
  return epoll_ctl(ep, EPOLL_CTL_ADD, fd, &event);
}

bool watch_or_fail(server& self, int fd, int why) {
  const int result = watch(self.epoll.get(), fd);
  if (result == 0) {
    return true;
  }
  const int cause = errno;
  wex_dbg(WEX_DBG_PUB, "%s: epoll_ctl err(ep_fd:%d, fd:%d, ret:%d, err:%d)!\n", kThread, self.epoll.get(), fd,
          result, cause);
  return self.fail(why, cause);
}

// One client more than the table holds ends the daemon; it is started again with an empty table.
bool end_with_full_table(server& self, unique_fd sd) {
  const int number = sd.release();
  close_emptied(number);
  wex_dbg(WEX_DBG_PUB, "%s: logic err, clnt_sd full, now_sd:%d!\n", kThread, number);
  return self.fail(kTableFull, 0);
}

bool keep_client(server& self, unique_fd sd) {
  int32_t* slot = find_slot(-1);
  if (slot == nullptr) {
    size_t dropped = 0;
    const full_table how = wex_make_room_for_client(sd.get(), &dropped);
    if (how == full_table::end) {
      return end_with_full_table(self, std::move(sd));
    }
    if (how == full_table::turn_away) {
      close_emptied(sd.release());
      return true;
    }
    slot = &g_client_table[dropped];
    drop_client(self, *slot);
  }
  if (!wex_admit_client(number_of(slot), sd.get())) {
    close_emptied(sd.release());
    return true;
  }
  *slot = sd.release();
  return watch_or_fail(self, *slot, kWatchClientFailed);
}

// Accepts all clients that wait, up to a bound: with one a cycle, a program that connects and leaves all the
// time would make each of the others wait for another cycle. An accept that fails ends the daemon.
bool admit_clients(server& self) {
  for (int admitted = 0; admitted < kAcceptedAtOnce; ++admitted) {
    unique_fd sd = accept_client(self.listener.get());
    if (!sd.valid()) {
      const int cause = errno;
      if (cause == EAGAIN) {
        return true;
      }
      wex_dbg(WEX_DBG_PUB, "%s: accept fail: %s\n", kThread, strerror(cause));
      return cause == EINTR || self.fail(kAcceptFailed, cause);
    }
    if (!keep_client(self, std::move(sd))) {
      return false;
    }
  }
  return true;
}

// ---- One cycle --------------------------------------------------------------------------------------------

unique_fd create_epoll() {
  unique_fd ep(epoll_create1(EPOLL_CLOEXEC));
  if (!ep.valid() && (errno == ENOSYS || errno == EINVAL)) {  // kernels before 2.6.27
    ep.reset(epoll_create(kMaxClients + 1));
    if (ep.valid()) {
      ras_os_set_fd_close_on_exec(ep.get());
    }
  }
  return ep;
}

// The interest set lasts as long as the thread; clients join it when they are accepted.
bool open_interest(server& self) {
  self.epoll = create_epoll();
  if (!self.epoll.valid()) {
    const int cause = errno;
    wex_dbg(WEX_DBG_PUB, "%s: epoll_create err(ret:%d, err:%d)!\n", kThread, -1, cause);
    return self.fail(kEpollFailed, cause);
  }
  if (!watch_or_fail(self, self.listener.get(), kWatchListenerFailed)) {
    return false;
  }
  if (wex_wakeup_fd() >= 0) {
    watch(self.epoll.get(), wex_wakeup_fd());
  }
  return true;
}

// An event without input means a broken connection: current kernels report the reset of a peer that went away
// with unread messages without EPOLLIN. A client is dropped then; a broken listener ends the daemon.
bool handle_event(server& self, const epoll_event& event) {
  const int fd = event.data.fd;
  if (fd == kNoClient) {
    return true;
  }
  if (fd == wex_wakeup_fd()) {
    return true;  // the flag itself is looked at when the next cycle begins
  }
  if ((event.events & EPOLLIN) == 0) {
    const int cause = errno;
    wex_dbg(WEX_DBG_PUB, "%s: event err: %s\n", kThread, strerror(cause));
    return fd == self.listener.get() ? self.fail(kEventFailed, cause) : drop_client(self, fd);
  }
  return fd == self.listener.get() ? admit_clients(self) : serve_client(self, fd);
}

// One message from each of the clients that have waited longest: the kernel moves those that it has reported
// to the end of its list.
bool run_cycle(server& self) {
  memset(g_events, 0, sizeof g_events);
  wex_status_idle(kStatusServer);
  const int ready = epoll_wait(self.epoll.get(), g_events, kServedAtOnce, kServerWaitMs);
  wex_status_busy(kStatusServer);
  self.code = 0;
  for (int at = 0; at < ready; ++at) {
    if (!handle_event(self, g_events[at])) {
      return false;
    }
  }
  if (ready != 0 && WEX_SERVER_PAUSE_US > 0) {
    usleep(WEX_SERVER_PAUSE_US);
  }
  return true;
}

// ---- Beginning and end ------------------------------------------------------------------------------------

struct binding {
  int sd;
  int error;     // 0 once it is bound
  int unshared;  // why the node's mode may be narrower than it should be, or 0
};

void bind_listener(binding* task) {
  sockaddr_un address;
  const socklen_t length = wex_control_address(kControlSocket, &address);
  task->error = bind(task->sd, reinterpret_cast<const sockaddr*>(&address), length) == 0 ? 0 : errno;
}

// Remembers which node is ours, and logs when its mode is too narrow.
void look_at_node(int unshared) {
  struct stat node = {};
  if (lstat(kControlSocket, &node) != 0) {
    node.st_ino = ~ino_t{0};  // removed already: no node has this number, so the watch of names logs the loss
  }
  wex_watch_name(WEX_NAME_SOCKET, node);
  if (S_ISSOCK(node.st_mode) && (node.st_mode & kSocketMode) != kSocketMode) {
    wex_running_log("%s could not be opened to all: %s. Clients of other users are turned away.\r\n",
                    kControlSocket, strerror(unshared));
  }
}

// A thread that binds and ends. The node is born with its mode, by a umask that is this thread's alone:
// another thread may be making a file now, and a program started later keeps the umask of the daemon. Nothing
// else is made here, or it would be open to all, too.
void* bind_open_to_all(void* task) {
  auto* const own = static_cast<binding*>(task);
  if (unshare(CLONE_FS) == 0) {
    umask(static_cast<mode_t>(~kSocketMode & 0777));
  } else {
    own->unshared = errno;
  }
  bind_listener(own);
  return nullptr;
}

// The mode is never set by the node's name: everybody may write to the directory, and whoever puts a link in
// the node's place would have root open the link's target to all. Without a thread, or without a umask of its
// own for it, the starter's umask narrows the mode: clients of other users may then be turned away, which
// leaves every file's mode as it is.
int bind_control_socket(int sd) {
  const bool moved = wex_unlink(kControlSocket) != 0 && errno != ENOENT && wex_make_room(kControlSocket);
  binding task = {sd, 0, 0};
  pthread_t binder;
  task.unshared = pthread_create(&binder, nullptr, bind_open_to_all, &task);
  if (task.unshared == 0) {
    pthread_join(binder, nullptr);
  } else {
    bind_listener(&task);
  }
  if (task.error == 0) {
    look_at_node(task.unshared);
  }
  if (moved) {
    wex_log_moved_names();
  }
  return task.error;
}

bool open_listener(server& self) {
  self.listener = wex_open_control_socket();
  if (!self.listener.valid()) {
    const int cause = errno;
    wex_dbg(WEX_DBG_PUB, "%s: socket sk_unix fail: %s\n", kThread, strerror(cause));
    return self.fail(kSetupFailed, cause);
  }
  if (const int refused = bind_control_socket(self.listener.get())) {
    wex_dbg(WEX_DBG_PUB, "%s: bind sk_unix fail: %s\n", kThread, strerror(refused));
    return self.fail(kBindFailed, refused);
  }
  if (listen(self.listener.get(), kListenBacklog) == -1) {
    const int cause = errno;
    wex_dbg(WEX_DBG_PUB, "%s: listen sk_unix fail: %s\n", kThread, strerror(cause));
    return self.fail(kListenFailed, cause);
  }
  const int flags = fcntl(self.listener.get(), F_GETFL);
  fcntl(self.listener.get(), F_SETFL, flags | O_NONBLOCK);  // accepting goes on until no client waits
  return true;
}

bool set_up(server& self) {
  if (wex_set_priority(kMonitorPriority) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: set priority fail: %s\n", kThread, strerror(errno));
    return self.fail(kSetupFailed, 0);
  }
  if (!open_listener(self)) {
    return false;
  }
  std::fill(std::begin(g_client_table), std::end(g_client_table), -1);
  self.table_ready = true;
  return open_interest(self);
}

// Kept: a table that was never filled holds zeros, so descriptor 0 is closed, see docs/decisions.md. Once
// only: another thread may have opened a file under that number by the second time.
void close_clients(const server& self) {
  if (!self.table_ready) {
    close(g_client_table[0]);
    return;
  }
  for (const int32_t sd : g_client_table) {
    if (sd >= 0) {
      close_emptied(sd);
    }
  }
}

void end_thread(server& self) {
  self.epoll.reset();
  if (self.listener.get() > 0) {
    close_emptied(self.listener.release());  // with the clients that still wait in it
  } else {  // the design closes numbers above 0 only; the daemon ends, and the kernel closes what is left
    self.listener.release();
  }
  close_clients(self);
  wex_raise_exit_flag();
  wex_log_thread_end(kThread, self.code, self.error);
}

}  // namespace

extern "C" void* wex_process_domain(void*) {
  if (prctl(PR_SET_NAME, kThread) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: %s", kThread, strerror(errno));
    return nullptr;
  }
  wex_status_thread_is(kStatusServer);
  server self;
  bool running = set_up(self);
  while (running && wex_exit_flag == 0) {
    running = run_cycle(self);
  }
  end_thread(self);
  return nullptr;
}

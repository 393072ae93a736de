// wex_rpc: framing of control messages for both ends, and the one connection of a client process.
//
// All threads of a client share the connection: its mutex is held for a whole request, so acknowledgements
// cannot be mixed up. Framing locks nothing.
#define WEX_MODULE "wex_rpc"

#include "wex_rpc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <cstddef>

#include "cancel_held.h"
#include "guarded_file.h"
#include "mutex_lock.h"
#include "ras_os.h"
#include "received_descriptors.h"
#include "text_buffer.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_dbg.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_utils.h"
#include "wex_vsd.h"

namespace {

constexpr size_t kPathRoom = sizeof(sockaddr_un::sun_path);
static_assert(sizeof(kControlSocket) - 1 == 13, "both ends use an address length of 15");

int64_t total_size(const wex_inner_msg& msg) {
  return int64_t{WEX_MSG_HEADER_SIZE} + msg.msg_len;
}

// ---- Framing ----------------------------------------------------------------------------------------------

bool worth_repeating(int cause) {
  return cause == EINTR || cause == ENOMEM || cause == ENOBUFS;
}

// One send for the whole record. Repeated at once at first, then with pauses: a real-time thread that spun
// here would keep those from running who could free the memory it waits for.
ssize_t send_record(int sd, const void* record, size_t size) {
  for (int tries = 1;; ++tries) {
    const ssize_t sent = send(sd, record, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent != -1 || !worth_repeating(errno)) {
      return sent;
    }
    if (tries >= kSendQuickTries) {
      wex_sleep_ms(kSendRetryMs);
    }
  }
}

// Looks at the header of the next record and leaves the record where it is. MSG_TRUNC asks for the record's
// true size; kernels that do not know it here answer at most the header's. Returns that size, or -1
// (printed).
ssize_t peek_header(int sd, wex_inner_msg* header) {
  for (;;) {
    const ssize_t size = recv(sd, header, sizeof *header, MSG_PEEK | MSG_TRUNC);
    if (size >= static_cast<ssize_t>(sizeof *header)) {
      return size;
    }
    if (size != -1 || errno != EINTR) {
      wex_dbg(WEX_DBG_PUB, "%s: recv peek err(ret:%d, err:%d,%s)!", "wex_inner_recv_msg",
              static_cast<int>(size), errno, strerror(errno));
      return -1;
    }
    wex_dbg(WEX_DBG_PUB, "%s: recv peek broken(ret:%d, err:%d,%s)!", "wex_inner_recv_msg",
            static_cast<int>(size), EINTR, strerror(EINTR));
  }
}

// Upper bound of the next record's size: nothing larger is ever allocated, whatever the header says.
int64_t size_bound(int sd, ssize_t peeked) {
  int queued = 0;
  if (peeked > WEX_MSG_HEADER_SIZE || ioctl(sd, FIONREAD, &queued) == -1 || queued < peeked) {
    return peeked;
  }
  return queued;  // all records of the queue together, for kernels that hide a record's own size
}

// Takes the next record off the queue. `whole` is false when it did not fit.
ssize_t receive_record(int sd, void* buffer, size_t size, bool* whole) {
  iovec part = {buffer, size};
  for (;;) {
    msghdr how = {};
    how.msg_iov = &part;
    how.msg_iovlen = 1;
    received_descriptors unwanted(how);
    const ssize_t got = recvmsg(sd, &how, MSG_CMSG_CLOEXEC);
    if (got == -1) {
      unwanted.none();
    }
    if (got != -1 || errno != EINTR) {
      *whole = (how.msg_flags & MSG_TRUNC) == 0;
      return got;
    }
    wex_dbg(WEX_DBG_PUB, "%s: recv broken(ret:%d, err:%d,%s)!", "wex_inner_recv_msg", static_cast<int>(got),
            EINTR, strerror(EINTR));
  }
}

int refuse_record(ssize_t got) {
  if (got >= 0) {
    errno = 0;  // no call failed: the record itself is wrong
  }
  wex_dbg(WEX_DBG_PUB, "%s: recv err(ret:%d, err:%d,%s)!", "wex_inner_recv_msg", static_cast<int>(got), errno,
          strerror(errno));
  return -1;
}

// ---- The connection of this process -----------------------------------------------------------------------

struct connection {
  std::atomic<int32_t> owner;  // process that uses it; negative while a thread of that process takes it over
  checked_mutex mutex;         // held for a whole request
  // -1 = not connected; closed by the kernel at the end. With the inode of the socket behind it.
  int sd WEX_TSA(guarded_by(mutex));
  ino_t inode WEX_TSA(guarded_by(mutex));
};

connection g_session = {{0}, {PTHREAD_MUTEX_INITIALIZER}, -1, 0};

// A forked child may have closed everything and opened something else since: only the very socket is closed.
void drop_inherited_connection() WEX_TSA(requires_capability(g_session.mutex)) {
  struct stat now = {};
  if (g_session.sd >= 0 && fstat(g_session.sd, &now) == 0 && S_ISSOCK(now.st_mode) &&
      now.st_ino == g_session.inode) {
    close(g_session.sd);
  }
  g_session.sd = -1;
}

// A forked child must not share its parent's connection, nor wait for a mutex whose holder is not in it. The
// first thread of the child that comes here starts afresh, the others wait for it: until it stores its pid it
// has the connection to itself, without the mutex.
void own_connection() WEX_TSA(no_thread_safety_analysis) {
  const int32_t self = getpid();
  int32_t owner = g_session.owner.load(std::memory_order_acquire);
  while (owner != self) {
    if (owner != -self && g_session.owner.compare_exchange_strong(owner, -self, std::memory_order_acq_rel)) {
      g_session.mutex.native = PTHREAD_MUTEX_INITIALIZER;
      drop_inherited_connection();
      g_session.owner.store(self, std::memory_order_release);
      return;
    }
    wex_sleep_ms(kOwnerWaitMs);  // a sleep, because a yield of a real-time thread lets no other one run
    owner = g_session.owner.load(std::memory_order_acquire);
  }
}

void disconnect() WEX_TSA(requires_capability(g_session.mutex)) {
  close_emptied(g_session.sd);
  g_session.sd = -1;
}

// Polls one descriptor; a signal of the client's own program does not cut the wait short.
int poll_one(int sd, short events, int milliseconds, short* seen) {
  const int64_t end = wex_clock_ms() + milliseconds;
  pollfd entry = {sd, events, 0};
  int left = milliseconds;
  for (;;) {
    const int ready = poll(&entry, 1, left);
    *seen = entry.revents;
    if (ready != -1 || errno != EINTR) {
      return ready;
    }
    const int64_t rest = end - wex_clock_ms();
    left = rest > 0 ? static_cast<int>(rest) : 0;
  }
}

// Between requests nothing may be waiting: input is a closed peer or an acknowledgement that nobody fetched.
int wex_check_socket(int sd) {
  short seen = 0;
  const int ready = poll_one(sd, POLLIN | POLLERR, 0, &seen);
  if (ready < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: poll fail(ret:%d, err:%d,%s)\n", __func__, ready, errno, strerror(errno));
  }
  return ready == 0 ? 0 : -1;
}

int connect_once(int sd, const sockaddr_un& daemon, socklen_t length) {
  int result;
  do {
    result = connect(sd, reinterpret_cast<const sockaddr*>(&daemon), length);
  } while (result == -1 && errno == EINTR);
  return result;
}

// The daemon may just be starting: its socket is missing, or there and not yet listening.
bool reach_daemon(int sd, const char* step) {
  sockaddr_un daemon;
  const socklen_t length = wex_control_address(kControlSocket, &daemon);
  for (int index = 0; index < kConnectTries; ++index) {
    if (connect_once(sd, daemon, length) == 0) {
      return true;
    }
    const int cause = errno;
    wex_dbg(WEX_DBG_PUB, "%s: connect refused, wait and retry(sd:%d, retry:%d, err:%d,%s)\n", step, sd, index,
            cause, strerror(cause));
    if (cause != ENOENT && cause != ECONNREFUSED) {
      break;
    }
    if (index + 1 < kConnectTries) {
      safe_sleep(1);
      errno = cause;
    }
  }
  return false;
}

// Gives the socket its address. Everybody may write to the directory: a stranger's file goes by unlink, a
// directory by rmdir.
bool bind_own_path(int sd, const char* path) {
  sockaddr_un own;
  const socklen_t length = wex_control_address(path, &own);
  char name[NAME_MAX + 1];
  const unique_fd parent = open_trusted_parent(path, name);
  if (parent.valid() && unlinkat(parent.get(), name, 0) == -1 && errno != ENOENT) {
    unlinkat(parent.get(), name, AT_REMOVEDIR);
  }
  return bind(sd, reinterpret_cast<const sockaddr*>(&own), length) == 0;
}

// The connected descriptor, or -1. No program looks at the address of a client, so one that cannot be bound
// is left out: the registration matters more.
int wex_connect() {
  char path[32];
  wex_format(path, sizeof path, kClientSocketFmt, static_cast<int>(getpid()));
  unique_fd sd = wex_open_control_socket();
  if (!sd.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: socket fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  const bool bound = bind_own_path(sd.get(), path);
  if (!bound) {
    wex_dbg(WEX_DBG_PUB, "%s: bind fail: %s\n", __func__, strerror(errno));
  }
  if (!reach_daemon(sd.get(), __func__)) {
    const int cause = errno;
    if (bound) {
      wex_unlink(path);
    }
    errno = cause;
    return -1;
  }
  return sd.release();
}

// Keeps the present connection if it is usable, else makes one. False when there is none.
bool ensure_connection() WEX_TSA(requires_capability(g_session.mutex)) {
  if (g_session.sd >= 0 && wex_check_socket(g_session.sd) < 0) {
    wex_dbg(WEX_DBG_PUB, "wex_check_socket <0: pid=%d, tid=%ld\r\n", static_cast<int>(getpid()),
            static_cast<long>(wex_thread_id()));
    disconnect();
  }
  if (g_session.sd < 0) {
    struct stat made = {};
    g_session.sd = wex_connect();
    if (g_session.sd >= 0 && fstat(g_session.sd, &made) == 0) {
      g_session.inode = made.st_ino;
    }
  }
  return g_session.sd >= 0;
}

// 0 when the acknowledgement came, and also when none came within the time limit.
int wex_wait_msg_ack_timeout(int sd) {
  for (int tries = 0; tries < kAckTries; ++tries) {
    short seen = 0;
    const int ready = poll_one(sd, POLLIN, kAckWaitMs, &seen);
    if (ready < 0) {
      wex_dbg(WEX_DBG_PUB, "%s: poll fail(ret:%d, err:%d,%s)\n", __func__, ready, errno, strerror(errno));
      return -1;
    }
    if (ready > 0) {
      owned_msg ack;
      return (seen & POLLIN) != 0 ? wex_inner_recv_msg(sd, ack.fill()) : -1;
    }
  }
  return 0;
}

// The request as one block, the header's unused bytes zero. Null with errno.
wex_inner_msg* build_request(uint32_t msg_type, const char* name, const void* payload, uint32_t payload_len) {
  auto* msg = static_cast<wex_inner_msg*>(calloc(1, WEX_MSG_HEADER_SIZE + size_t{payload_len}));
  if (msg == nullptr) {
    return nullptr;
  }
  msg->msg_type = msg_type;
  msg->msg_len = static_cast<int32_t>(payload_len);
  if (name != nullptr) {
    wex_copy_text(msg->name, sizeof msg->name, name);
  }
  if (payload_len != 0) {
    memcpy(msg + 1, payload, payload_len);
  }
  return msg;
}

// One request over the connection.
int exchange(const wex_inner_msg* msg, bool wait_ack, bool ignore_connect_fail)
    WEX_TSA(requires_capability(g_session.mutex)) {
  if (!ensure_connection()) {
    wex_dbg(WEX_DBG_PUB, "%s: connect fail(ret:%d)\n", "wex_rpc", -1);
    return ignore_connect_fail ? 0 : -1;
  }
  int result = wex_inner_send_msg(g_session.sd, msg);
  if (result != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: send fail(ret:%d, err:%d,%s)\n", "wex_rpc", result, errno, strerror(errno));
    disconnect();
    return result;
  }
  if (!wait_ack) {
    return 0;
  }
  result = wex_wait_msg_ack_timeout(g_session.sd);
  if (result != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: recv ack err(ret:%d, err:%d,%s)\n", "wex_rpc", result, errno, strerror(errno));
    disconnect();
  }
  return result;
}

}  // namespace

extern "C" {

int wex_inner_send_msg(int sd, const wex_inner_msg* msg) {
  if (sd < 0 || msg == nullptr || msg->msg_len < 0) {
    wex_dbg(WEX_DBG_PUB, "argument err(sd:%d, msg:%p)!", sd, static_cast<const void*>(msg));
    return -1;
  }
  wex_dbg(WEX_DBG_PUB, "%s: send msg(sd:%d, msg_type:%d, msg_len:%d)!", __func__, sd,
          static_cast<int>(msg->msg_type), msg->msg_len);
  const int64_t total = total_size(*msg);
  const ssize_t sent = send_record(sd, msg, static_cast<size_t>(total));
  if (sent == total) {
    return 0;
  }
  wex_dbg(WEX_DBG_PUB, "%s: send msg err(tid:%d, sd:%d, msg_type:%d, msg_len:%d, ret:%d, err:%d, %s)!",
          __func__, wex_thread_id(), sd, static_cast<int>(msg->msg_type), msg->msg_len,
          static_cast<int>(sent), errno, strerror(errno));
  return -1;
}

int wex_inner_recv_msg(int sd, wex_inner_msg** out) {
  if (sd < 0 || out == nullptr) {
    wex_dbg(WEX_DBG_PUB, "argument err(sd:%d, msg:%p)!", sd, static_cast<const void*>(out));
    return -1;
  }
  wex_inner_msg header = {};
  const ssize_t peeked = peek_header(sd, &header);
  if (peeked < 0) {
    return -1;
  }
  if (header.msg_len < 0) {
    wex_dbg(WEX_DBG_PUB, "recv domain msg with len=%d\r\n", header.msg_len);
    return -1;
  }
  bool whole = false;
  const int64_t total = total_size(header);
  if (total > size_bound(sd, peeked)) {  // the header claims more than has arrived: take the record off
    const ssize_t got = receive_record(sd, &header, sizeof header, &whole);
    return refuse_record(got < 0 ? got : peeked);
  }
  owned_msg msg(static_cast<wex_inner_msg*>(safe_malloc(static_cast<size_t>(total))));
  const ssize_t got = receive_record(sd, msg.get(), static_cast<size_t>(total), &whole);
  if (got != total || !whole) {
    return refuse_record(got);
  }
  *out = msg.release();
  return 0;
}

int wex_rpc(uint32_t msg_type, const char* name, const void* payload, uint32_t payload_len, uint8_t wait_ack,
            uint8_t ignore_connect_fail) {
  if ((payload == nullptr && payload_len != 0) || payload_len > INT32_MAX) {
    wex_dbg(WEX_DBG_PUB, "%s: argument err!\n", __func__);
    return -1;
  }
  // A service may cancel its threads: one that ended in here would keep the connection for ever.
  const cancel_held until_done;
  if (wex_get_proc_status() == 0) {
    wex_dbg(WEX_DBG_PUB, "%s: wex process exit, function return.\n", __func__);
    return 0;
  }
  const owned_msg msg(build_request(msg_type, name, payload, payload_len));
  if (msg.get() == nullptr) {
    wex_dbg(WEX_DBG_PUB, "%s: malloc fail: %s\n", __func__, strerror(errno));
    return -1;
  }
  own_connection();
  const mutex_lock whole_request(g_session.mutex);
  return exchange(msg.get(), wait_ack != 0, ignore_connect_fail != 0);
}

int wex_cancel_proc(int32_t pid) {
  wex_dbg(WEX_DBG_PUB, "wex_cancel_proc:%d\n", pid);
  if (pid < 0) {
    wex_dbg(WEX_DBG_PUB, "The pid you enter is %d < 0 \n", pid);
    return -1;
  }
  wex_cons_info body = {};
  body.kind = WEX_CANCEL_PROC;
  body.pid = pid == 0 ? getpid() : pid;
  wex_rm_db_file_by_pid(body.pid);
  const int result = wex_rpc_persist(WEX_CONS_MSG, &body, sizeof body);
  if (result < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: cancel fail: %s\n", __func__, strerror(errno));
    return result;
  }
  safe_sleep(1);
  return result;
}

void wex_rm_db_file_by_pid(int32_t pid) {
  const int32_t found = get_vsdid(pid);
  char command[255];
  if (pid_to_cmdline(pid, command, sizeof command) == nullptr) {
    wex_dbg(WEX_DBG_PUB, "%s pid_to_cmdline(%d) fail\n", __func__, pid);
    return;
  }
  char path[kPathSize];
  const int length = wex_get_db_file_name(found < 0 ? 0 : found, pid, command, path, sizeof path);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
    return;  // a name cut short could be another program's file
  }
  const int result = wex_unlink(path);
  wex_dbg(WEX_DBG_PUB, "%s unlink file %s ret %d\n", __func__, path, result);
}

}  // extern "C"

unique_fd wex_open_control_socket() {
  unique_fd sd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!sd.valid() && errno == EINVAL) {  // kernels before 2.6.27 do not know the flag
    sd.reset(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    ras_os_set_fd_close_on_exec(sd.get());
  }
  if (sd.valid()) {
    const int none = 0;
    setsockopt(sd.get(), SOL_SOCKET, SO_PASSRIGHTS, &none, sizeof none);  // unknown to older kernels
  }
  return sd;
}

socklen_t wex_control_address(const char* path, sockaddr_un* address) {
  memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  wex_copy_text(address->sun_path, kPathRoom, path);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address->sun_path));
}

int wex_rpc_persist(uint32_t msg_type, const void* payload, uint32_t payload_len) {
  int result = 0;
  for (int tries = 0; tries < kRequestTries; ++tries) {
    result = wex_rpc(msg_type, nullptr, payload, payload_len, 1, 0);
    if (result >= 0) {
      break;
    }
    const int cause = errno;
    safe_sleep(1);
    errno = cause;
  }
  return result;
}

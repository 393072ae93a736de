// wex_core_filter: the packet filter on the socket of process events, so that forks, renames and threads of
// unrelated processes can neither crowd out an exit nor keep the monitor busy.
#define WEX_MODULE "wex_core"
#include "wex_core_filter.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "wex_core_process_event.h"
#include "wex_dbg.h"

namespace {

priority_mutex g_lock;
int g_events WEX_TSA(guarded_by(g_lock)) = -1;
unsigned g_wanted WEX_TSA(guarded_by(g_lock)) = 0;   // one bit for each thread_ends_for
bool g_passing WEX_TSA(guarded_by(g_lock)) = false;  // as the socket is, not as it should be

// The filter machine loads words in network order, the message is in host order. Jumps count from the next
// instruction.
void attach(int fd, bool thread_ends) WEX_TSA(requires_capability(g_lock)) {
  constexpr uint8_t kPassFromFour = 7;
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kKindAt),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(kEventExec), 9, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(kEventAck), 8, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(kEventExit), thread_ends ? kPassFromFour : uint8_t{0}, 6),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kPidAt),
      BPF_STMT(BPF_MISC | BPF_TAX, 0),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kTgidAt),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_X, 0, 3, 0),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kCodeAt),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, htonl(kCoreDumped), 1, 0),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, 0xffffffffu),
  };
  const sock_fprog filter = {sizeof program / sizeof program[0], program};
  if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0) {
    g_passing = thread_ends;
    return;
  }
  wex_dbg(WEX_DBG_PUB, "%s: attach filter fail: %s\n", "wex_process_netlink", strerror(errno));
  // Too many events are better than too few: somebody waits for what the filter that is in place would drop.
  if (thread_ends && !g_passing &&
      setsockopt(fd, SOL_SOCKET, SO_DETACH_FILTER, &filter, sizeof filter) == 0) {
    g_passing = true;
  }
}

}  // namespace

void wex_attach_filter(int fd) {
  const mutex_lock hold(g_lock);
  g_events = fd;
  g_passing = true;  // nothing filters yet
  attach(fd, g_wanted != 0);
}

void wex_release_filter() {
  const mutex_lock hold(g_lock);
  g_events = -1;
}

void wex_pass_thread_ends(thread_ends_for whom, bool pass) {
  const unsigned bit = 1u << static_cast<unsigned>(whom);
  const mutex_lock hold(g_lock);
  g_wanted = pass ? g_wanted | bit : g_wanted & ~bit;
  if (g_events >= 0 && g_passing != (g_wanted != 0)) {
    attach(g_events, g_wanted != 0);
  }
}

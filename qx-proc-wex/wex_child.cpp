// wex_child: what every spawned child does between fork and exec. A child of a threaded process may only
// touch its own memory: no lock, no allocation, nothing that another thread could have been in the middle of.
#include "wex_child.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "own_scheduling.h"
#include "raw_dir.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_number.h"
#include "unique_fd.h"
#include "wex_domain.h"
#include "wex_paths.h"

namespace {
constexpr int kLastSignal = 127;
constexpr char kSeparators[] = " \t";

// The C library's own calls would also ask the threads that exist only in the parent, or change them, when
// the child has the parent's memory. Where there are two calls the newer one takes ids of 32 bits.
#ifdef SYS_setgroups32
constexpr long kSetGroupsCall = SYS_setgroups32;
#else
constexpr long kSetGroupsCall = SYS_setgroups;
#endif
#ifdef SYS_setresuid32
constexpr long kSetUidsCall = SYS_setresuid32;
constexpr long kSetGidsCall = SYS_setresgid32;
#else
constexpr long kSetUidsCall = SYS_setresuid;
constexpr long kSetGidsCall = SYS_setresgid;
#endif

void set_signal_action(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}
}  // namespace

void split_words(const char* command, child_words* words) {
  memset(words, 0, sizeof *words);
  wex_copy_text(words->text, sizeof words->text, command);
  char* at = words->text;
  while (words->count < kMaxWords) {
    at += strspn(at, kSeparators);
    if (*at == '\0') {
      return;
    }
    words->argv[words->count++] = at;
    at += strcspn(at, kSeparators);
    if (*at != '\0') {
      *at++ = '\0';
    }
  }
}

// The daemon ignores every signal, and executing a program changes nothing about an ignored one, so all of
// them are set.
void reset_signal_actions() {
  for (int signal = 1; signal <= kLastSignal; ++signal) {
    if (signal != SIGKILL && signal != SIGSTOP) {
      set_signal_action(signal, SIG_DFL);  // numbers that are no signals fail
    }
  }
}

void ignore_handled_signals() {
  set_signal_action(SIGALRM, SIG_IGN);
  set_signal_action(SIGCHLD, SIG_IGN);
}

void clear_signal_mask() {
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void hide_open_files() {
  raw_dir files(unique_fd(open(kOwnFiles, O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  while (const char* const name = files.valid() ? files.next() : nullptr) {
    const int32_t fd = text_to_number(name);  // 0 for "." and ".."
    if (fd > STDERR_FILENO) {
      fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
  }
}

void leave_starter() {
  set_own_scheduling(SCHED_OTHER, 0);
  setsid();
  reset_signal_actions();
  clear_signal_mask();
  hide_open_files();
}

bool flush_tlb() {
  if (access(kFlushTlb, F_OK) != 0) {
    return false;
  }
  const unique_fd fd(open(kFlushTlb, O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (fd.valid()) {
    safe_write(fd.get(), "1\n", 2);
  }
  return true;
}

bool become_user(uid_t uid, gid_t gid, const gid_t* groups, int count) {
  return syscall(kSetGroupsCall, count, groups) == 0 && syscall(kSetGidsCall, gid, gid, gid) == 0 &&
         syscall(kSetUidsCall, uid, uid, uid) == 0;
}

int enter_domain_group(int vsd) {
  const auto group = static_cast<gid_t>(wex_domain_group(vsd));
  return syscall(kSetGroupsCall, 1, &group) == 0 ? 0 : -1;
}

// wexrun_minder: wexrun --notify, the parent of a program that reports its state.
//
// One thread: it hands signals on, turns notifications into reports of its own life and lines of the system
// log, and ends as the program ends, so that wex sees the same cause.
#include "wexrun_minder.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ras_os.h"
#include "text_buffer.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_platform.h"
#include "wexrun_child.h"
#include "wexrun_heartbeat.h"
#include "wexrun_limits.h"
#include "wexrun_notify.h"
#include "wexrun_program.h"

#ifndef PR_SET_CHILD_SUBREAPER
#define PR_SET_CHILD_SUBREAPER 36
#endif

namespace {

// What the program would have got, had wexrun become it. SIGABRT is how wex ends what hangs.
constexpr int kHandedOn[] = {SIGTERM, SIGINT,   SIGHUP,  SIGQUIT, SIGUSR1, SIGUSR2,
                             SIGALRM, SIGWINCH, SIGTSTP, SIGCONT, SIGABRT};

class minder final : public notification_reader {
 public:
  bool prepare() noexcept;
  bool start(char** program) noexcept;
  int wait() noexcept;  // the program's wait status
  void take(pid_t sender, char* text) noexcept override;

 private:
  void apply(const char* name, const char* value) noexcept;
  void apply_watchdog(const char* value) noexcept;
  void log_status(const char* text) noexcept;
  void hand_on(const signalfd_siginfo& info) noexcept;
  void abort_program() noexcept;
  bool read_signals() noexcept;  // true when the program has ended
  bool reap() noexcept;
  int time_left() noexcept;

  notify_socket socket_;
  unique_fd signals_;
  sigset_t mask_ = {};
  heartbeat heart_;
  pid_t child_ = -1;
  int status_ = 0;
  int64_t kill_at_ = 0;  // 0: it has not been aborted
  const char* name_ = "";
  char last_status_[kLoggedText + 1] = "";
  bool stranger_logged_ = false;
  bool ready_ = false;
  bool beats_ = false;           // it has given its first sign of life
  bool silence_logged_ = false;  // that there is none yet
};

// ---- Signals and the child --------------------------------------------------------------------------------

bool minder::prepare() noexcept {
  sigset_t watched;
  sigemptyset(&watched);
  sigaddset(&watched, SIGCHLD);
  for (const int number : kHandedOn) {
    sigaddset(&watched, number);
  }
  signal(SIGCHLD, SIG_DFL);  // ignored, it would reap the program by itself and lose its status
  sigset_t held = watched;
  sigaddset(&held, SIGPIPE);  // our own, of a log daemon that went away; the program gets its mask back
  sigprocmask(SIG_BLOCK, &held, &mask_);
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // since 3.4: what the program leaves behind stays known as its own
  signals_.reset(signalfd(-1, &watched, 0));
  if (!signals_.valid() || !socket_.open()) {
    return false;
  }
  ras_os_set_fd_close_on_exec(signals_.get());
  return true;
}

bool minder::start(char** program) noexcept {
  const char* const slash = strrchr(program[0], '/');
  name_ = slash != nullptr ? slash + 1 : program[0];
  child_ = start_child(program, socket_.address(), mask_);
  return child_ > 0;
}

// A stopped program would not notice, and one that ignores it would go on hanging.
void minder::abort_program() noexcept {
  kill(child_, SIGABRT);
  kill(child_, SIGCONT);
  if (kill_at_ == 0) {
    kill_at_ = wex_clock_ms() + kAbortGraceMs;
  }
}

// What a terminal sends goes to the program as well; only what was meant for our pid alone is handed on.
// Whoever stops us at a terminal waits until we have stopped, too.
void minder::hand_on(const signalfd_siginfo& info) noexcept {
  const int number = static_cast<int>(info.ssi_signo);
  if (number == SIGABRT) {
    abort_program();
  } else if (info.ssi_code <= 0) {
    kill(child_, number);
  } else if (number == SIGTSTP) {
    kill(getpid(), SIGSTOP);
  }
}

bool minder::reap() noexcept {
  bool ended = false;
  int status = 0;
  for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (pid == child_) {
      status_ = status;
      ended = true;
    }
  }
  return ended;
}

bool minder::read_signals() noexcept {
  signalfd_siginfo info = {};
  if (read(signals_.get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
    return false;
  }
  if (info.ssi_signo == SIGCHLD) {
    return reap();
  }
  hand_on(info);
  return false;
}

int minder::time_left() noexcept {
  if (kill_at_ == 0) {
    return -1;
  }
  const int64_t left = kill_at_ - wex_clock_ms();
  if (left > 0) {
    return static_cast<int>(left);
  }
  kill(child_, SIGKILL);
  return -1;
}

// Notifications first: who sent them is known as long as it has not been reaped.
int minder::wait() noexcept {
  for (;;) {
    pollfd sources[] = {{signals_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}};
    if (poll(sources, 2, time_left()) < 1) {
      continue;
    }
    if (sources[1].revents != 0) {
      socket_.drain(*this);
    }
    if (sources[0].revents != 0 && read_signals()) {
      return status_;
    }
  }
}

// ---- Notifications ----------------------------------------------------------------------------------------

// Programs repeat their status with every report; only a changed one is logged.
void minder::log_status(const char* text) noexcept {
  char shown[sizeof last_status_];
  wex_copy_text(shown, sizeof shown, text);
  for (char* at = shown; *at != '\0'; ++at) {
    const auto byte = static_cast<unsigned char>(*at);
    *at = byte < ' ' || byte == 0x7f ? '?' : *at;
  }
  if (strcmp(shown, last_status_) != 0) {
    memcpy(last_status_, shown, sizeof shown);
    qx_syslog(LOG_NOTICE, "%s/%d says: %s", name_, child_, shown);
  }
}

void minder::apply_watchdog(const char* value) noexcept {
  if (strcmp(value, "1") == 0) {
    beats_ = true;
    heart_.beat();
  } else if (strcmp(value, "trigger") == 0) {
    qx_syslog(LOG_NOTICE, "%s/%d asks to be aborted", name_, child_);
    abort_program();
  }
}

// Everything else that sd_notify(3) knows needs no answer: there is no store for descriptors, the period is
// the daemon's, and the process that was started is the one that is minded.
void minder::apply(const char* name, const char* value) noexcept {
  if (strcmp(name, "WATCHDOG") == 0) {
    apply_watchdog(value);
  } else if (strcmp(name, "STATUS") == 0) {
    log_status(value);
  } else if (strcmp(name, "ERRNO") == 0) {
    qx_syslog(LOG_NOTICE, "%s/%d failed: %s", name_, child_, strerror(atoi(value)));
  } else if (strcmp(name, "READY") == 0 && strcmp(value, "1") == 0) {
    ready_ = true;
    qx_syslog(LOG_NOTICE, "%s/%d is ready", name_, child_);
  } else if (strcmp(name, "STOPPING") == 0 && strcmp(value, "1") == 0) {
    qx_syslog(LOG_NOTICE, "%s/%d is stopping", name_, child_);
  } else if (strcmp(name, "WATCHDOG_USEC") == 0 && atoll(value) != kWatchdogUsec) {
    qx_syslog(LOG_NOTICE, "%s/%d wants another watchdog time, which it does not get", name_, child_);
  } else if (strcmp(name, "MAINPID") == 0 && atoi(value) != child_) {
    qx_syslog(LOG_NOTICE, "%s/%d names another main process, which is not minded", name_, child_);
  }
}

void minder::take(pid_t sender, char* text) noexcept {
  if (!descends_from(sender, child_) && !descends_from(sender, getpid())) {
    if (!stranger_logged_) {
      qx_syslog(LOG_NOTICE, "%s/%d is spoken for by process %d, which is none of its own", name_, child_,
                sender);
    }
    stranger_logged_ = true;
    return;
  }
  char* rest = nullptr;
  for (char* line = strtok_r(text, "\n", &rest); line != nullptr; line = strtok_r(nullptr, "\n", &rest)) {
    if (char* const equal = strchr(line, '=')) {
      *equal = '\0';
      apply(line, equal + 1);
    }
  }
  // Many programs say that they are ready and nothing more; they are not to be aborted for it.
  if (ready_ && !beats_ && !silence_logged_) {
    silence_logged_ = true;
    qx_syslog(LOG_NOTICE, "%s/%d is not watched before its first WATCHDOG=1", name_, child_);
  }
}

}  // namespace

int mind(const run_options& options, registration& own) {
  static minder it;
  if (!it.prepare()) {
    fprintf(stderr, "wexrun: no socket for notifications: %s\n", strerror(errno));
    return kExitOwnFailure;
  }
  if (!it.start(options.program)) {
    return give_up(options.program[0], errno, own);
  }
  end_as(it.wait());
}

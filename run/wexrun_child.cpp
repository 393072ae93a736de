// wexrun_child: starts the program as a child that ends with wexrun, and ends wexrun as the program ended.
#include "wexrun_child.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "ras_os.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "unique_fd.h"
#include "wexrun_limits.h"

namespace {

bool set_number(const char* name, int64_t value) {
  char text[24];
  return wex_format(text, sizeof text, "%lld", static_cast<long long>(value)) && setenv(name, text, 1) == 0;
}

bool set_environment(const char* notify_address) {
  return setenv("NOTIFY_SOCKET", notify_address, 1) == 0 && set_number("WATCHDOG_USEC", kWatchdogUsec) &&
         set_number("WATCHDOG_PID", getpid());
}

// In the child. Returns errno when the program cannot be executed.
int execute(char** program, const char* notify_address, const sigset_t& mask, pid_t parent) {
  // A wexrun that is killed is started again by wex, and must not find its program still running.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
    return errno;
  }
  if (getppid() != parent) {
    return ESRCH;  // our parent was killed before prctl(): the kernel sends no signal for that
  }
  if (!set_environment(notify_address)) {
    return errno;
  }
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  execvp(program[0], program);
  return errno;
}

}  // namespace

pid_t start_child(char** program, const char* notify_address, const sigset_t& mask) {
  int ends[2];
  if (pipe(ends) != 0) {
    return -1;
  }
  const unique_fd reader(ends[0]);
  unique_fd writer(ends[1]);
  ras_os_set_fd_close_on_exec(reader.get());
  ras_os_set_fd_close_on_exec(writer.get());
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    const int cause = execute(program, notify_address, mask, parent);
    safe_write(writer.get(), &cause, sizeof cause);
    _exit(kExitNotRunnable);
  }
  writer.reset();
  int cause = 0;
  if (child > 0 && safe_read(reader.get(), &cause, sizeof cause) == static_cast<int32_t>(sizeof cause)) {
    waitpid(child, nullptr, 0);
    errno = cause;
    return -1;
  }
  return child;
}

// The program has dumped its core; ours would be useless, and might overwrite it. A process that may not be
// dumped writes none, wherever cores go, and shows the signal without the mark of a core dump: crashes of
// such programs are restarted as all are, but do not count as one of a burst that restarts the device.
void end_as(int status) {
  if (!WIFSIGNALED(status)) {
    _exit(WEXITSTATUS(status));
  }
  const int signal_number = WTERMSIG(status);
  const rlimit none = {0, 0};
  sigset_t only;
  setrlimit(RLIMIT_CORE, &none);
  prctl(PR_SET_DUMPABLE, 0);
  signal(signal_number, SIG_DFL);
  sigemptyset(&only);
  sigaddset(&only, signal_number);
  sigprocmask(SIG_UNBLOCK, &only, nullptr);
  kill(getpid(), signal_number);
  _exit(128 + signal_number);  // a signal that ended the program ends us as well; this is for the compiler
}

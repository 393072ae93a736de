// wexrun_registration: puts this very process under supervision, whatever it becomes.
//
// The daemon answers a registration before it reads the command line of whoever sent it. A process that
// executed its program at once would be kept, and started again, as that program without wexrun. So a second
// question is asked: its answer says that the first message has been acted on.
#include "wexrun_registration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "file_lock.h"
#include "guarded_file.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_utils.h"
#include "wex_xtach.h"
#include "wexrun_limits.h"
#include "wexrun_link.h"

namespace {

uint32_t type_of(const run_options& options) {
  return options.script != nullptr ? WEX_SHELL_RESTART : WEX_RESTART;
}

bool name_file(const wex_reg_info& body, char (&name)[kPathSize]) {
  const int length = wex_get_db_file_name(body.vsd, body.pid, body.process, name, sizeof name);
  return length > 0 && static_cast<size_t>(length) < sizeof name;
}

// The descriptor of ours that is open on this file, or -1. Nothing is opened: closing it would drop the lock.
int find_descriptor(const struct stat& file) {
  struct stat facts = {};
  for (int fd = STDERR_FILENO + 1; fd < kDescriptorsLooked; ++fd) {
    if (fstat(fd, &facts) == 0 && facts.st_dev == file.st_dev && facts.st_ino == file.st_ino) {
      return fd;
    }
  }
  return -1;
}

// A cancellation of our own thread's reports, of which there are none yet: all that counts is its answer.
bool was_acted_on(control_link& link) {
  wex_cons_info nothing = {};
  nothing.kind = WEX_CANCEL_THREAD_NOTIFY;
  nothing.pid = wex_thread_id();
  return link.ask(WEX_CONS_MSG, nullptr, &nothing, sizeof nothing, kAnswerWaitMs);
}

}  // namespace

// True when a daemon that starts later will find us.
bool registration::make_file(const run_options& options) noexcept {
  char name[kPathSize];
  described_ = wex_begin_registration(getpid(), type_of(options), &body_);
  body_.restart_delay = options.delay;
  return described_ && wex_mk_pidfile(&body_, type_of(options)) == 0 && name_file(body_, name) &&
         access(name, F_OK) == 0;
}

bool registration::tell_daemon(const run_options& options) noexcept {
  control_link link;
  const bool open = wex_get_proc_status() != 0 && link.open(kLinkTries);
  if (!open && errno != EAGAIN) {
    fprintf(stderr, "wexrun: wex is not running, %s starts all the same", options.program[0]);
    return false;
  }
  if (open && link.ask(type_of(options), options.script, &body_, sizeof body_, kAnswerWaitMs) &&
      was_acted_on(link)) {
    return true;
  }
  fprintf(stderr, "wexrun: wex does not answer (%s), %s starts all the same", strerror(errno),
          options.program[0]);
  return false;
}

void registration::make(const run_options& options) noexcept {
  const bool recorded = make_file(options);
  if (!described_) {
    fprintf(stderr, "wexrun: /proc tells no command line, %s starts without supervision\n",
            options.program[0]);
    return;
  }
  if (!tell_daemon(options)) {
    fputs(recorded ? "; wex takes it over when it starts\n" : ", without supervision\n", stderr);
  } else if (!recorded) {
    fprintf(stderr, "wexrun: no database file could be made, a restart of wex forgets %s\n",
            options.program[0]);
  }
}

void registration::keep_through_exec(const char* program) noexcept {
  char name[kPathSize];
  struct stat file = {};
  if (!described_ || !name_file(body_, name) || lstat(name, &file) != 0) {
    return;
  }
  const int fd = find_descriptor(file);
  if (fd < 0) {
    fprintf(
        stderr,
        "wexrun: the lock of its database file is not among the first %d descriptors, %s starts without it\n",
        kDescriptorsLooked, program);
    return;
  }
  const int kept = fcntl(fd, F_DUPFD, kLockDescriptor);
  if (kept < 0) {
    fcntl(fd, F_SETFD, 0);
    return;
  }
  close(fd);  // drops the lock, which is taken again at once: the daemon looks at it after our death only
  wex_lock_file(kept);
}

// The cancellation is answered before it is acted on as well. An end in between would be an exit like others.
bool registration::withdraw() noexcept {
  char name[kPathSize];
  control_link link;
  wex_cons_info body = {};
  body.kind = WEX_CANCEL_PROC;
  body.pid = getpid();
  if (described_ && name_file(body_, name)) {
    wex_unlink(name);
  }
  return link.open(1) && link.ask(WEX_CONS_MSG, nullptr, &body, sizeof body, kAnswerWaitMs) &&
         was_acted_on(link);
}

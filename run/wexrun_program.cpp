// wexrun_program: the program that is to be supervised.
//
// It is looked for before anything is registered. In a later life the daemon has registered us by then: a
// program that was removed meanwhile would be started again and again, and in the end restart the device. So
// that registration is taken back too.
#include "wexrun_program.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "text_buffer.h"
#include "unique_fd.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wexrun_limits.h"

namespace {

// 0, or why the file cannot be executed.
int judge(const char* path) {
  struct stat facts = {};
  if (stat(path, &facts) != 0) {
    return errno;
  }
  if (!S_ISREG(facts.st_mode)) {
    return EACCES;
  }
  return access(path, X_OK) == 0 ? 0 : errno;
}

// As execvp() searches: the first that can be executed, put into `path`; a file that cannot counts when there
// is no other. 0, or why there is none.
int search(const char* directories, const char* name, char (&path)[PATH_MAX]) {
  int result = ENOENT;
  for (const char* at = directories;;) {
    const size_t length = strcspn(at, ":");
    if (wex_format(path, sizeof path, "%.*s%s%s", static_cast<int>(length), at, length > 0 ? "/" : "",
                   name)) {
      const int cause = judge(path);
      if (cause == 0) {
        return 0;
      }
      result = cause == ENOENT || cause == ENOTDIR ? result : cause;
    }
    if (at[length] == '\0') {
      return result;
    }
    at += length + 1;
  }
}

bool is_same_file(const char* one, const char* other) {
  struct stat facts = {}, others = {};
  return stat(one, &facts) == 0 && stat(other, &others) == 0 && facts.st_dev == others.st_dev &&
         facts.st_ino == others.st_ino;
}

bool is_bare(const char* name) {
  return strchr(name, '/') == nullptr;
}

// What the daemon holds locked as long as it lives.
bool started_by_daemon() {
  const unique_fd file(open(kLockFile, O_RDONLY | O_CLOEXEC));
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  return file.valid() && fcntl(file.get(), F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK &&
         whole.l_pid == getppid();
}

int tell_not_executed(const char* name, int cause) {
  fprintf(stderr, "wexrun: cannot execute %s: %s\n", name, strerror(cause));
  return cause == ENOENT ? kExitNotFound : kExitNotRunnable;
}

bool failed_for_a_moment(int cause) {
  return cause == EAGAIN || cause == ENOMEM || cause == EIO || cause == EMFILE || cause == ENFILE ||
         cause == ETXTBSY;
}

}  // namespace

bool depends_on_path(const char* name) {
  char ours[PATH_MAX], of_restart[PATH_MAX];
  const char* const directories = getenv("PATH");
  if (!is_bare(name) || directories == nullptr || started_by_daemon() ||
      search(directories, name, ours) != 0) {
    return false;
  }
  if (search(kSearchPath, name, of_restart) == 0 && is_same_file(ours, of_restart)) {
    return false;
  }
  fprintf(stderr, "wexrun: a restart, which does not look at PATH, would not find %s: name its whole path\n",
          ours);
  return true;
}

int find_program(char** name) {
  static char path[PATH_MAX];
  if (!is_bare(*name)) {
    return judge(*name);
  }
  const int cause = search(kSearchPath, *name, path);
  if (cause == 0) {
    *name = path;
  }
  return cause;
}

int give_up(const char* name, int cause, registration& own) {
  const int status = tell_not_executed(name, cause);
  if (!failed_for_a_moment(cause) && own.withdraw()) {
    qx_syslog(LOG_ERR, "cannot execute %s: %s; it is not supervised", name, strerror(cause));
  }
  return status;
}

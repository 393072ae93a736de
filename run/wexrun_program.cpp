// wexrun_program: the program that is to be supervised.
//
// It is looked for before anything is registered: wex would start a program that is not there again and
// again.
#include "wexrun_program.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "text_buffer.h"
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

// As execvp() searches: the first that can be executed; a file that cannot counts when there is no other.
int search(const char* name) {
  char preset[PATH_MAX] = "";
  const char* directories = getenv("PATH");
  if (directories == nullptr) {
    confstr(_CS_PATH, preset, sizeof preset);
    directories = preset;
  }
  int result = ENOENT;
  for (const char* at = directories;;) {
    const size_t length = strcspn(at, ":");
    char path[PATH_MAX];
    if (wex_format(path, sizeof path, "%.*s%s%s", static_cast<int>(length), at, length > 0 ? "/" : "",
                   name)) {
      const int cause = judge(path);
      if (cause == 0) {
        return 0;
      }
      result = cause == EACCES ? EACCES : result;
    }
    if (at[length] == '\0') {
      return result;
    }
    at += length + 1;
  }
}

}  // namespace

int look_for_program(const char* name) {
  const int cause = strchr(name, '/') != nullptr ? judge(name) : search(name);
  return cause == 0 ? 0 : tell_not_executed(name, cause);
}

int tell_not_executed(const char* name, int cause) {
  fprintf(stderr, "wexrun: cannot execute %s: %s\n", name, strerror(cause));
  return cause == ENOENT ? kExitNotFound : kExitNotRunnable;
}

bool failed_for_a_moment(int cause) {
  return cause == EAGAIN || cause == ENOMEM || cause == EIO || cause == EMFILE || cause == ENFILE ||
         cause == ETXTBSY;
}

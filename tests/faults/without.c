/* Loaded before a daemon that is to do without one of its measures against lost exits, to show what it is
 * good for. WEX_WITHOUT names it: "filter" and "buffer" are refused as by a kernel that has none, "sweep"
 * keeps the thread of the periodic work from ever beginning. */
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

static int is_without(const char* measure) {
  const char* const list = getenv("WEX_WITHOUT");
  return list != NULL && strstr(list, measure) != NULL;
}

int setsockopt(int socket, int level, int option, const void* value, socklen_t size) {
  const int filter = option == SO_ATTACH_FILTER && is_without("filter");
  const int buffer = (option == SO_RCVBUF || option == SO_RCVBUFFORCE) && is_without("buffer");
  if (level == SOL_SOCKET && (filter || buffer)) {
    errno = EPERM;
    return -1;
  }
  return (int)syscall(SYS_setsockopt, socket, level, option, value, size);
}

int prctl(int option, ...) {
  va_list more;
  va_start(more, option);
  const unsigned long first = va_arg(more, unsigned long);
  va_end(more);
  while (option == PR_SET_NAME && is_without("sweep") &&
         strcmp((const char*)first, "wex_delay_restart") == 0) {
    pause();
  }
  return (int)syscall(SYS_prctl, option, first, 0, 0, 0);
}

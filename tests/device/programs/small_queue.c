/* small_queue DAEMON BYTES: the daemon's queue of process events has room for so many bytes only. To fill the
 * one that it asked for takes an emulated device minutes. */
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { CONNECTOR = 11 };

static int number_of(int socket, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(socket, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

int main(int argc, char** argv) {
  const int bytes = argc == 3 ? atoi(argv[2]) : 0;
  const long process = argc == 3 ? syscall(SYS_pidfd_open, atoi(argv[1]), 0) : -1;
  char path[64];
  const struct dirent* entry;
  DIR* directory;
  int found = 0;
  snprintf(path, sizeof path, "/proc/%s/fd", argc == 3 ? argv[1] : "");
  directory = opendir(path);
  while (process >= 0 && directory != NULL && (entry = readdir(directory)) != NULL) {
    const int file = (int)syscall(SYS_pidfd_getfd, process, atoi(entry->d_name), 0);
    if (number_of(file, SO_DOMAIN) == AF_NETLINK && number_of(file, SO_PROTOCOL) == CONNECTOR &&
        setsockopt(file, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) == 0) {
      ++found;
    }
    if (file >= 0) {
      close(file);
    }
  }
  return found == 1 ? 0 : 1;
}

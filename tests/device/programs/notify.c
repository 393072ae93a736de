/* A program that tells how it is in the way of sd_notify(3), without the library for it. It knows nothing of
 * wex.
 *
 * It says that it is ready and what it was given, and gives five signs of life a second. SIGUSR2: it ends
 * with status 9. SIGTERM: it says so and ends by the signal, which is a stop on purpose. */
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static volatile sig_atomic_t over, stopped;

static void end(int number) {
  (void)number;
  over = 1;
}

static void stop(int number) {
  (void)number;
  stopped = 1;
}

/* The address is abstract: '@' stands for the zero byte. */
static int connect_to(const char* address) {
  struct sockaddr_un to = {.sun_family = AF_UNIX};
  const size_t length = strlen(address);
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);

  if (fd < 0 || length >= sizeof to.sun_path || address[0] != '@') {
    return -1;
  }
  memcpy(to.sun_path + 1, address + 1, length - 1);
  return connect(fd, (struct sockaddr*)&to, (socklen_t)(offsetof(struct sockaddr_un, sun_path) + length)) == 0
             ? fd
             : -1;
}

int main(void) {
  const char* address = getenv("NOTIFY_SOCKET");
  const char* period = getenv("WATCHDOG_USEC");
  char text[128];
  int fd, length;

  if (address == NULL || period == NULL || signal(SIGUSR2, end) == SIG_ERR ||
      signal(SIGTERM, stop) == SIG_ERR || (fd = connect_to(address)) < 0) {
    return 2;
  }
  length = snprintf(text, sizeof text, "READY=1\nSTATUS=watched for %s", period);
  while (!over && !stopped) {
    if (send(fd, text, (size_t)length, 0) != length) {
      return 3;
    }
    length = snprintf(text, sizeof text, "WATCHDOG=1");
    usleep(200000);
  }
  if (stopped) {
    length = snprintf(text, sizeof text, "STATUS=got SIGTERM");
    send(fd, text, (size_t)length, 0);
    signal(SIGTERM, SIG_DFL);
    raise(SIGTERM);
  }
  return 9;
}

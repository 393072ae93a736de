/* Loaded before a daemon that is to wait for minutes: the time since the start of the machine is as many
 * seconds later as the file says that WEX_CLOCK names. The file may change at any time. With WEX_HURRY every
 * sleep takes a tenth of its time. */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static const volatile int* g_seconds;

__attribute__((constructor)) static void open_clock(void) {
  const char* const path = getenv("WEX_CLOCK");
  const int file = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (file < 0) {
    return;
  }
  void* const mapped = mmap(NULL, sizeof *g_seconds, PROT_READ, MAP_SHARED, file, 0);
  close(file);
  g_seconds = mapped != MAP_FAILED ? (const volatile int*)mapped : NULL;
}

static time_t moved(clockid_t clock) {
  return g_seconds != NULL && (clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME) ? *g_seconds : 0;
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  const int result = (int)syscall(SYS_clock_gettime, clock, now);
  if (result == 0) {
    now->tv_sec += moved(clock);
  }
  return result;
}

static void hurry(clockid_t clock, struct timespec* until) {
  struct timespec now;
  if (getenv("WEX_HURRY") == NULL || syscall(SYS_clock_gettime, clock, &now) != 0) {
    return;
  }
  const long long left = (until->tv_sec - now.tv_sec) * 1000000000LL + until->tv_nsec - now.tv_nsec;
  const long long end = now.tv_nsec + (left > 0 ? left / 10 : 0);
  until->tv_sec = now.tv_sec + (time_t)(end / 1000000000);
  until->tv_nsec = (long)(end % 1000000000);
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec* until, struct timespec* left) {
  struct timespec real = *until;
  if (flags & TIMER_ABSTIME) {
    real.tv_sec -= moved(clock);
    hurry(clock, &real);
  }
  return syscall(SYS_clock_nanosleep, clock, flags, &real, left) == 0 ? 0 : errno;
}

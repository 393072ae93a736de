// linked_name: names that calls of the C library have at link time, for --wrap; `kind` is __wrap or __real. A
// 32-bit library has two of each call with a time in it, and with 64-bit times the product calls the other
// one.
#pragma once

#include <time.h>

#if defined(__USE_TIME64_REDIRECTS) || (defined(__USE_TIME_BITS64) && __SIZEOF_LONG__ == 4)
#define LINKED_NANOSLEEP(kind) kind##___clock_nanosleep_time64
#define LINKED_IOCTL(kind) kind##___ioctl_time64
#define LINKED_RECVMSG(kind) kind##___recvmsg64
#define LINKED_SETSOCKOPT(kind) kind##___setsockopt64
#else
#define LINKED_NANOSLEEP(kind) kind##_clock_nanosleep
#define LINKED_IOCTL(kind) kind##_ioctl
#define LINKED_RECVMSG(kind) kind##_recvmsg
#define LINKED_SETSOCKOPT(kind) kind##_setsockopt
#endif

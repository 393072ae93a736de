// platform/generic: the device's libraries as a plain Linux box has them.
//
// Weak, so that a device's own libraries take their place by being linked.
#include "wex_platform.h"

#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

namespace {
constexpr int kLineSize = 1024;
}

extern "C" {

__attribute__((weak)) void printk_syslog_ext(int severity, const char* facility, const char* mnemonic,
                                             int /*flag*/, const char* format, ...) {
  char text[kLineSize];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  syslog(severity, "%%%s-%d-%s: %s", facility, severity, mnemonic, text);
}

__attribute__((weak)) void qx_syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

__attribute__((weak)) int fs_set_vsd_envs(int /*vsd*/, int /*old_pid*/) {
  return 0;
}
}

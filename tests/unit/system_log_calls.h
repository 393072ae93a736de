// What the code under test says to the device's system log, in place of the port. One source file of a test
// program includes this header.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "wex_platform.h"

namespace wex_test {

struct system_log_call {
  int severity;
  std::string facility;
  std::string mnemonic;
  int flag;
  std::string text;
};
inline std::vector<system_log_call> g_system_log;

}  // namespace wex_test

extern "C" void printk_syslog_ext(int severity, const char* facility, const char* mnemonic, int flag,
                                  const char* format, ...) {
  char text[5000];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  wex_test::g_system_log.push_back({severity, facility, mnemonic, flag, text});
}

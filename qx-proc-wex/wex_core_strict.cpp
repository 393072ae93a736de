// wex_core_strict: the file that decides whether the daemon runs in strict mode.
//
// Whatever lies at its name makes the daemon strict. Whether its lines count is another question: only a
// regular file that nobody but root can have written sets limits. Somebody wanted the mode, and a daemon that
// is strict by mistake harms root's programs in nothing, while one that is open by mistake starts anybody's
// program as root.
#define WEX_MODULE "wex_core"
#include "wex_core_strict.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "text_reader.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_strict.h"

namespace {

constexpr size_t kLineSize = 128;

struct limit_row {
  const char* name;
  int32_t strict_settings::*value;
  int32_t most;
};
constexpr limit_row kLimits[] = {
    {"connections", &strict_settings::connections, kUserConnectionsMax},
    {"registrations", &strict_settings::registrations, kUserRegistrationsMax},
    {"restart_delay", &strict_settings::restart_delay, kUserDelayMax},
};

// Noted by the main thread before there is a running log, and told by it.
bool g_distrusted = false;
int g_wrong_lines[kWrongLinesKept];
int g_wrong_count = 0;

// What cannot be told makes the daemon strict. A shortage is waited out for a moment first: a device without
// the file is not to become strict by it.
bool is_there() {
  struct stat facts = {};
  int result = lstat(kStrictFile, &facts);
  for (int tries = 1;
       result != 0 && (errno == ENOMEM || errno == EIO || errno == EINTR) && tries < kStrictTries; ++tries) {
    wex_sleep_ms(kStrictRetryMs);
    result = lstat(kStrictFile, &facts);
  }
  return result == 0 || (errno != ENOENT && errno != ENOTDIR);
}

unique_fd open_file(bool* exists) {
  *exists = is_there();
  return *exists ? unique_fd(open(kStrictFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC))
                 : unique_fd();
}

bool is_roots_alone(int fd) {
  struct stat facts = {};
  return fstat(fd, &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_uid == 0 && facts.st_nlink == 1 &&
         (facts.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool is_empty_or_comment(const char* line) {
  line += strspn(line, " \t\r\n");
  return *line == '\0' || *line == '#';
}

// "name value", and nothing behind it.
bool take_line(const char* line, strict_settings* settings) {
  char name[32];
  int value = 0;
  char rest = '\0';
  if (sscanf(line, "%31s %9d %c", name, &value, &rest) != 2) {
    return false;
  }
  for (const limit_row& row : kLimits) {
    if (strcmp(row.name, name) == 0 && value >= 1 && value <= row.most) {
      settings->*row.value = value;
      return true;
    }
  }
  return false;
}

void read_limits(int fd, strict_settings* settings) {
  text_reader file(fd);
  char line[kLineSize];
  for (int number = 1; file.line(line, sizeof line); ++number) {
    if (!is_empty_or_comment(line) && !take_line(line, settings)) {
      if (g_wrong_count < kWrongLinesKept) {
        g_wrong_lines[g_wrong_count] = number;
      }
      ++g_wrong_count;
    }
  }
}

}  // namespace

void wex_choose_mode() {
  strict_settings settings;
  const unique_fd file = open_file(&settings.on);
  if (!settings.on) {
    return;
  }
  g_distrusted = !file.valid() || !is_roots_alone(file.get());
  if (!g_distrusted) {
    read_limits(file.get(), &settings);
  }
  wex_set_strict(settings);
}

void wex_log_mode() {
  const strict_settings& settings = wex_strict();
  if (!settings.on) {
    return;
  }
  wex_running_log(
      "Strict mode: %d connections, %d registrations and restart delays of %d s for each user.\r\n",
      settings.connections, settings.registrations, settings.restart_delay);
  if (g_distrusted) {
    wex_running_log("%s is no file that only root can write: its lines do not count.\r\n", kStrictFile);
  }
  for (int at = 0; at < g_wrong_count && at < kWrongLinesKept; ++at) {
    wex_running_log("%s: line %d does not count.\r\n", kStrictFile, g_wrong_lines[at]);
  }
}

void wex_log_ignored_names() {
  char path[kPathSize];
  while (wex_take_ignored_name(path)) {
    wex_running_log("%s does not count: its owner may not say what it says.\r\n", path);
  }
}

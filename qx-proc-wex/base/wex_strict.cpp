// wex_strict: whether this process runs in strict mode, and what does not count in it.
#include "wex_strict.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "text_buffer.h"

namespace {

constexpr int kWaiting = 8;

// Set before there is a second thread, and never changed.
strict_settings g_settings;

// Hashes of the names that were noted, and the names that wait to be told. When there is no room for one more
// hash nothing is told any more: anybody may make files, and the running log is small.
priority_mutex g_mutex;
uint32_t g_known[kIgnoredNamesKept] WEX_TSA(guarded_by(g_mutex));
int g_known_count WEX_TSA(guarded_by(g_mutex)) = 0;
char g_waiting[kWaiting][kPathSize] WEX_TSA(guarded_by(g_mutex));
int g_waiting_count WEX_TSA(guarded_by(g_mutex)) = 0;

uint32_t hash_of(const char* text) {
  uint32_t hash = 2166136261U;
  for (; *text != '\0'; ++text) {
    hash = (hash ^ static_cast<unsigned char>(*text)) * 16777619U;
  }
  return hash;
}

bool is_known(uint32_t hash) WEX_TSA(requires_capability(g_mutex)) {
  return std::find(g_known, g_known + g_known_count, hash) != g_known + g_known_count;
}

}  // namespace

const strict_settings& wex_strict() {
  return g_settings;
}

void wex_set_strict(const strict_settings& settings) {
  g_settings = settings;
}

bool wex_strict_is_wanted() {
  struct stat facts = {};
  return lstat(kStrictFile, &facts) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool wex_counts(const char* path) {
  struct stat facts = {};
  if (!g_settings.on) {
    return true;
  }
  if (lstat(path, &facts) != 0) {
    return false;
  }
  // Anybody may give a file of root's another name, on kernels that do not forbid it.
  if (facts.st_uid == 0 && (S_ISDIR(facts.st_mode) || facts.st_nlink == 1)) {
    return true;
  }
  wex_ignore_name(path);
  return false;
}

bool wex_is_roots_alone(const struct stat& facts) {
  return S_ISREG(facts.st_mode) && facts.st_uid == 0 && (facts.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool wex_is_believed(int fd, const char* path) {
  struct stat facts = {};
  if (!g_settings.on || (fstat(fd, &facts) == 0 && wex_is_roots_alone(facts))) {
    return true;
  }
  wex_ignore_name(path);
  return false;
}

mode_t wex_client_dir_mode() {
  return g_settings.on ? kClientDirMode : kOpenDirMode;
}

mode_t wex_own_dir_mode() {
  return g_settings.on ? kOwnDirMode : kOpenDirMode;
}

void wex_ignore_name(const char* path) {
  const uint32_t hash = hash_of(path);
  const mutex_lock hold(g_mutex);
  if (is_known(hash) || g_known_count == kIgnoredNamesKept || g_waiting_count == kWaiting) {
    return;  // one that only has to wait is met again, and told then
  }
  g_known[g_known_count++] = hash;
  char* letter = g_waiting[g_waiting_count++];
  wex_copy_text(letter, kPathSize, path);
  for (; *letter != '\0'; ++letter) {
    *letter = *letter < ' ' || *letter > '~' ? '?' : *letter;  // a name may hold line ends
  }
}

bool wex_take_ignored_name(char (&path)[kPathSize]) {
  const mutex_lock hold(g_mutex);
  if (g_waiting_count == 0) {
    return false;
  }
  wex_copy_text(path, sizeof path, g_waiting[0]);
  --g_waiting_count;
  memmove(g_waiting[0], g_waiting[1], static_cast<size_t>(g_waiting_count) * kPathSize);
  return true;
}

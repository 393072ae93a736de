// file_lock: record locks on whole files, and the files on which this process holds one.
//
// The list has a lock of its own. A child of a fork never asks for it: the thread that held it may be missing
// there.
#include "file_lock.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <utility>

#include "mutex_lock.h"
#include "priority_mutex.h"
#include "unique_fd.h"
#include "wex_paths.h"

namespace {

struct locked_file {
  locked_file* next;
  int fd;  // ours to close when the file has a name, else the caller's
  dev_t device;
  ino_t inode;
  char name[kPathSize];
};

priority_mutex g_files_mutex;
locked_file* g_files WEX_TSA(guarded_by(g_files_mutex)) WEX_TSA(pt_guarded_by(g_files_mutex)) = nullptr;
std::atomic<pid_t> g_holder{0};  // the process that holds the locks; 0 while none was remembered

bool is_same(const locked_file& file, const struct stat& facts) {
  return file.device == facts.st_dev && file.inode == facts.st_ino;
}

// Adds the file to the list. False when there is no memory, or its facts cannot be read.
bool remember(const char* name, int fd) {
  struct stat facts = {};
  locked_file* const file = static_cast<locked_file*>(calloc(1, sizeof(locked_file)));
  if (file == nullptr || fstat(fd, &facts) != 0) {
    free(file);
    return false;
  }
  file->fd = fd;
  file->device = facts.st_dev;
  file->inode = facts.st_ino;
  strncpy(file->name, name, sizeof file->name - 1);
  const mutex_lock hold(g_files_mutex);
  file->next = g_files;
  g_files = file;
  g_holder.store(getpid(), std::memory_order_release);
  return true;
}

}  // namespace

bool wex_lock_file(int fd) {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;  // start and length stay 0: all of it
  return fcntl(fd, F_SETLK, &whole) == 0;
}

void note_locked_file(int fd) {
  remember("", fd);
}

void keep_locked_file(const char* name, unique_fd&& fd) {
  unique_fd file(std::move(fd));
  if (remember(name, file.get())) {
    file.release();
  }
}

int kept_file(const char* name) {
  const mutex_lock hold(g_files_mutex);
  const locked_file* file = g_files;
  while (file != nullptr && strcmp(file->name, name) != 0) {
    file = file->next;
  }
  return file != nullptr ? file->fd : -1;
}

void drop_locked_file(const char* name) {
  const mutex_lock hold(g_files_mutex);
  for (locked_file** at = &g_files; *at != nullptr; at = &(*at)->next) {
    locked_file* const file = *at;
    if (strcmp(file->name, name) == 0) {
      *at = file->next;
      unique_fd(file->fd).reset();
      free(file);
      return;
    }
  }
}

bool holds_locked_files() {
  const pid_t process = g_holder.load(std::memory_order_acquire);
  return process != 0 && process == getpid();
}

bool is_locked_file(const struct stat& facts) {
  const mutex_lock hold(g_files_mutex);
  const locked_file* file = g_files;
  while (file != nullptr && !is_same(*file, facts)) {
    file = file->next;
  }
  return file != nullptr;
}

void relock_file(const struct stat& facts) {
  const mutex_lock hold(g_files_mutex);
  for (const locked_file* file = g_files; file != nullptr; file = file->next) {
    if (is_same(*file, facts)) {
      wex_lock_file(file->fd);
    }
  }
}

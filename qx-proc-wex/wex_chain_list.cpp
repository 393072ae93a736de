// wex_chain_list: look-ups in the third-part list, which programs the daemon is to register by itself.
//
// Every program that is executed anywhere on the device is looked up here, by a thread of real-time priority.
// So the list is kept in memory and read again only when the file looks different; g_list_mutex guards it.

#define WEX_MODULE "wex_chain"
#include "wex_chain_list.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "file_mark.h"
#include "guarded_file.h"
#include "mutex_lock.h"
#include "priority_mutex.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_reader.h"
#include "unique_fd.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_strict.h"

namespace {

struct known_list {
  char path[kPathSize];
  file_mark mark;
  char* text;  // null: nothing is known
  size_t length;
};

priority_mutex g_list_mutex;
known_list g_known WEX_TSA(guarded_by(g_list_mutex));

// Lines of a text in memory, cut as text_reader cuts those of a file.
class memory_reader {
 public:
  memory_reader(const char* text, size_t length) noexcept : at_(text), left_(length) {}

  bool line(char* out, size_t size) noexcept {
    size_t length = left_ < size - 1 ? left_ : size - 1;
    const void* const line_end = memchr(at_, '\n', length);
    if (line_end != nullptr) {
      length = static_cast<size_t>(static_cast<const char*>(line_end) - at_) + 1;
    }
    memcpy(out, at_, length);
    out[length] = '\0';
    at_ += length;
    left_ -= length;
    return length > 0;
  }

 private:
  const char* at_;
  size_t left_;
};

enum list_answer { kNoList, kNoLine, kFound, kUnread };

template <typename reader>
list_answer find_in(reader& lines, const char* needle, char (&line)[kListLineSize]) {
  while (lines.line(line, sizeof line)) {
    if (strstr(line, needle) != nullptr) {
      return kFound;
    }
  }
  return kNoLine;
}

// Links are followed, as they were when the list was read: one that leads to the very
// file that is remembered changes nothing, whichever user made it.
bool is_known(const char* path, const struct stat& facts) WEX_TSA(requires_capability(g_list_mutex)) {
  return g_known.text != nullptr && strcmp(g_known.path, path) == 0 &&
         same_mark(g_known.mark, mark_of(facts));
}

void drop_remembered() WEX_TSA(requires_capability(g_list_mutex)) {
  free(g_known.text);
  g_known.text = nullptr;
}

// Remembers the list that `fd` is open on, unless it is large or still changing.
bool remember(const char* path, int fd) WEX_TSA(requires_capability(g_list_mutex)) {
  struct stat facts;
  if (fstat(fd, &facts) != 0 || facts.st_size > kListRemembered || !has_settled(mark_of(facts)) ||
      strlen(path) >= sizeof g_known.path) {
    return false;
  }
  const size_t length = static_cast<size_t>(facts.st_size);
  char* const text = static_cast<char*>(malloc(length + 1));
  if (text == nullptr) {
    return false;
  }
  struct stat after;
  const bool whole = safe_read(fd, text, length) == static_cast<int32_t>(length) && fstat(fd, &after) == 0 &&
                     same_mark(mark_of(facts), mark_of(after));
  if (!whole) {
    free(text);
    return false;
  }
  drop_remembered();
  g_known.text = text;
  g_known.length = length;
  g_known.mark = mark_of(facts);
  wex_copy_text(g_known.path, sizeof g_known.path, path);
  return true;
}

// kUnread: it could not be read.
list_answer look_for_line(const char* path, const char* needle, char (&line)[kListLineSize]) {
  struct stat facts;
  const bool seen = stat(path, &facts) == 0;
  if (!seen && (errno == ENOENT || errno == ENOTDIR)) {
    return kNoList;  // on most devices; opening it along trusted links would take a call for each directory
  }
  {
    mutex_lock hold(g_list_mutex);
    if (seen && is_known(path, facts)) {
      memory_reader lines(g_known.text, g_known.length);
      return find_in(lines, needle, line);
    }
  }
  const unique_fd fd = wex_open_file(path, O_RDONLY);
  if (!fd.valid()) {
    return kUnread;
  }
  if (!wex_is_believed(fd.get(), path)) {
    return kNoList;
  }
  {
    mutex_lock hold(g_list_mutex);
    if (remember(path, fd.get())) {
      memory_reader lines(g_known.text, g_known.length);
      return find_in(lines, needle, line);
    }
  }
  if (lseek(fd.get(), 0, SEEK_SET) != 0) {
    return kUnread;
  }
  text_reader lines(fd.get());
  const list_answer answer = find_in(lines, needle, line);
  return answer == kNoLine && lines.failed() ? kUnread : answer;
}

// A list that cannot be read is none. But a program that is taken for one that is not listed, for descriptors
// or memory are short for a moment, would be started beside its process.
list_answer find_line(const char* path, const char* needle, char (&line)[kListLineSize]) {
  list_answer answer = kUnread;
  for (int tries = 0; answer == kUnread && tries < kListTries; ++tries) {
    answer = look_for_line(path, needle, line);
  }
  return answer == kUnread ? kNoList : answer;
}

}  // namespace

int wex_list_find(const char* path, const char* needle, char* line, size_t size) {
  char found[kListLineSize];
  if (find_line(path, needle, found) != kFound) {
    return 0;
  }
  wex_copy_text(line, size, found);
  return 1;
}

int wex_proc_in_wexdb(const char* path, const char* needle, char* word, size_t size) {
  char line[kListLineSize];
  const list_answer answer = find_line(path, needle, line);
  if (answer == kNoList) {
    return 0;
  }
  memset(word, 0, size);
  const char* const blank = answer == kFound ? strrchr(line, ' ') : nullptr;
  if (blank == nullptr) {
    return 0;
  }
  wex_copy_text(word, size, blank + 1);
  return 1;
}

int wex_pid_in_wexdb(int32_t pid, const char* path, char* word, size_t size) {
  char link[kPathSize];
  char executable[kListLineSize];
  if (!wex_format(link, sizeof link, kProcExeFmt, pid)) {
    return 0;
  }
  const ssize_t length = readlink(link, executable, sizeof executable - 1);
  if (length < 0) {
    return 0;
  }
  executable[length] = '\0';
  return wex_proc_in_wexdb(path, executable, word, size);
}

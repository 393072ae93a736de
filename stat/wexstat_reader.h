// wexstat_reader: a copy of the status table, taken without making the daemon wait.
//
// The file is read, not mapped: whoever cuts a mapped file short ends its readers with SIGBUS, and looking at
// a part of it that was never written would make the kernel find memory for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "wex_status.h"

enum class table_look {
  good,
  absent,         // there is none
  unreadable,     // errno in `cause`
  foreign,        // not root's, or others may write there
  no_table,       // no magic in it
  other_machine,  // another byte order
  other_version,  // number in `version`
  being_made,     // the daemon is about to start, or was killed then
  damaged         // sizes that cannot be, or the file is too short
};

struct free_memory {
  void operator()(void* memory) const { free(memory); }
};

template <typename Record>
struct record_list {
  std::unique_ptr<Record[], free_memory> records;
  uint32_t count = 0;
  uint32_t unread = 0;  // were being written at every look

  const Record* begin() const { return records.get(); }
  const Record* end() const { return records.get() + count; }
  Record* begin() { return records.get(); }
  Record* end() { return records.get() + count; }
};

struct status_copy {
  table_look look = table_look::absent;
  int cause = 0;
  uint32_t version = 0;
  wex_status_head head = {};  // its threads are not whole; see below
  record_list<wex_status_thread> threads;
  record_list<wex_status_slot> slots;    // in use
  record_list<wex_status_event> events;  // the oldest first
};

// Reads the table at this path. What lies there may hold anything.
status_copy read_status(const char* path);

// Fields of text need not end.
template <size_t N>
const char* bounded(const char (&field)[N], size_t* length) {
  size_t at = 0;
  while (at < N && field[at] != '\0') {
    ++at;
  }
  *length = at;
  return field;
}

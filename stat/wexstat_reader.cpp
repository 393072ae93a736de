// wexstat_reader: each record is read three times, its `seq` from the first and the last, the rest from the
// one between. Both numbers are even and the same when nobody wrote meanwhile.
#include "wexstat_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "unique_fd.h"
#include "waiting.h"
#include "wexstat_limits.h"

namespace {

static_assert(kChunkSize >= kRecordSizeMax, "a chunk holds a record");

bool read_at(int fd, void* to, size_t size, uint64_t at) {
  char* next = static_cast<char*>(to);
  while (size > 0) {
    const ssize_t got = pread(fd, next, size, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return false;
    }
    next += got;
    at += static_cast<uint64_t>(got);
    size -= static_cast<size_t>(got);
  }
  return true;
}

// Records that stand one after the other.
struct record_area {
  int fd;
  uint64_t at;
  uint32_t stride;
  uint32_t count;
};

struct three_looks {
  char before[kChunkSize];
  char bytes[kChunkSize];
  char after[kChunkSize];
};

bool look(const record_area& area, uint32_t first, uint32_t count, three_looks* out) {
  const size_t size = size_t{count} * area.stride;
  const uint64_t at = area.at + uint64_t{first} * area.stride;
  for (char* const to : {out->before, out->bytes, out->after}) {
    // The copies of different calls are made one after the other, also where a processor reorders its loads.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (!read_at(area.fd, to, size, at)) {
      return false;
    }
  }
  return true;
}

bool is_whole(const three_looks& looks, size_t offset) {
  uint32_t before;
  uint32_t after;
  memcpy(&before, looks.before + offset, sizeof before);
  memcpy(&after, looks.after + offset, sizeof after);
  return before == after && before % 2 == 0;
}

enum class got { whole, being_written, nothing };

// One record that was being written a moment ago.
got look_again(const record_area& area, uint32_t index, int* waits, three_looks* out) {
  for (int tries = 0;; ++tries) {
    if (!look(area, index, 1, out)) {
      return got::nothing;
    }
    if (is_whole(*out, 0)) {
      return got::whole;
    }
    if (tries >= kRecordTries) {
      if (*waits <= 0) {
        return got::being_written;
      }
      --*waits;
      wex_sleep_ms(1);
    }
  }
}

// Hands the whole ones to `take`, in their order. False when the file ended or could not be read.
template <typename Record, typename Take>
bool copy_records(const record_area& area, int* waits, record_list<Record>* out, const Take& take) {
  static three_looks chunk;
  static three_looks single;
  const auto add = [&](uint32_t index, const char* bytes) {
    Record record;
    memcpy(&record, bytes, sizeof record);
    if (take(index, record)) {
      out->records[out->count++] = record;
    }
  };
  const uint32_t at_once = static_cast<uint32_t>(kChunkSize) / area.stride;
  for (uint32_t first = 0; first < area.count; first += at_once) {
    const uint32_t count = std::min(at_once, area.count - first);
    if (!look(area, first, count, &chunk)) {
      return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
      if (is_whole(chunk, size_t{i} * area.stride)) {
        add(first + i, chunk.bytes + size_t{i} * area.stride);
        continue;
      }
      const got again = look_again(area, first + i, waits, &single);
      if (again == got::nothing) {
        return false;
      }
      if (again == got::whole) {
        add(first + i, single.bytes);
      } else {
        ++out->unread;
      }
    }
  }
  return true;
}

template <typename Record>
bool make_room(uint32_t count, record_list<Record>* out) {
  out->records.reset(static_cast<Record*>(calloc(std::max(count, 1U), sizeof(Record))));
  return out->records != nullptr;
}

bool copy_threads(int fd, int* waits, status_copy* out) {
  const record_area area = {fd, offsetof(wex_status_head, threads), sizeof(wex_status_thread),
                            WEX_STATUS_THREADS};
  return make_room(area.count, &out->threads) &&
         copy_records(area, waits, &out->threads,
                      [](uint32_t, const wex_status_thread& one) { return one.tid > 0; });
}

bool copy_slots(int fd, int* waits, status_copy* out) {
  const wex_status_head& head = out->head;
  const record_area area = {fd, head.head_size, head.slot_size, std::min(head.slots_used, head.slots)};
  return make_room(area.count, &out->slots) &&
         copy_records(area, waits, &out->slots,
                      [](uint32_t, const wex_status_slot& one) { return one.state != WEX_STATUS_FREE; });
}

// The ring begins anywhere; numbers go on behind 2^32 at 0, and what counts is how long ago each was given.
bool copy_events(int fd, int* waits, status_copy* out) {
  const wex_status_head& head = out->head;
  const record_area area = {fd, head.events_at, head.event_size, head.events};
  const auto belongs = [&head](uint32_t index, const wex_status_event& one) {
    return one.kind != WEX_STATUS_EV_NONE && one.number % head.events == index;
  };
  if (!make_room(area.count, &out->events) || !copy_records(area, waits, &out->events, belongs)) {
    return false;
  }
  // Events may have been added since the head was read: those are not older than the newest, but newer.
  const uint32_t next = head.event_next + head.events;
  std::sort(out->events.begin(), out->events.end(),
            [next](const wex_status_event& a, const wex_status_event& b) {
              return next - a.number > next - b.number;
            });
  return true;
}

bool fits(uint64_t at, uint64_t stride, uint64_t count, size_t least, uint64_t end) {
  return stride >= least && stride <= kRecordSizeMax && count <= kRecordsMax && at + stride * count <= end;
}

table_look judge(const wex_status_head& head, uint64_t file_size) {
  if (memcmp(head.magic, WEX_STATUS_MAGIC, sizeof head.magic) != 0) {
    return table_look::no_table;
  }
  if (head.byte_order != WEX_STATUS_BYTE_ORDER) {
    return table_look::other_machine;
  }
  if (head.version != WEX_STATUS_VERSION) {
    return table_look::other_version;
  }
  const bool sound =
      head.head_size >= sizeof head && head.head_size <= kHeadSizeMax && head.events > 0 &&
      fits(head.head_size, head.slot_size, head.slots, sizeof(wex_status_slot), head.events_at) &&
      fits(head.events_at, head.event_size, head.events, sizeof(wex_status_event), file_size);
  return sound ? table_look::good : table_look::damaged;
}

// Anybody may make a file in that directory while there is none.
bool is_trusted(const struct stat& facts) {
  return S_ISREG(facts.st_mode) && (facts.st_uid == 0 || facts.st_uid == geteuid()) &&
         (facts.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The head is read three times: its `seq` stands at its end, so one reading does not show whether its
// beginning was being written meanwhile.
table_look copy_head(int fd, uint64_t file_size, wex_status_head* out) {
  wex_status_head before = {};
  wex_status_head after = {};
  for (int tries = 0; tries < kRecordTries + kRecordWaits; ++tries) {
    if (tries >= kRecordTries) {
      wex_sleep_ms(1);
    }
    for (wex_status_head* const to : {&before, out, &after}) {
      std::atomic_thread_fence(std::memory_order_seq_cst);
      if (file_size < sizeof *to || !read_at(fd, to, sizeof *to, 0)) {
        return table_look::no_table;
      }
    }
    if (before.seq == after.seq && before.seq % 2 == 0) {
      return table_look::good;
    }
  }
  // What is no table has no number either.
  return memcmp(out->magic, WEX_STATUS_MAGIC, sizeof out->magic) == 0 ? table_look::being_made
                                                                      : table_look::no_table;
}

table_look read_head(int fd, status_copy* out) {
  struct stat facts;
  if (fstat(fd, &facts) != 0) {
    out->cause = errno;
    return table_look::unreadable;
  }
  if (!is_trusted(facts)) {
    return table_look::foreign;
  }
  const uint64_t size = static_cast<uint64_t>(facts.st_size);
  const table_look look = copy_head(fd, size, &out->head);
  out->version = out->head.version;
  return look == table_look::good ? judge(out->head, size) : look;
}

}  // namespace

status_copy read_status(const char* path) {
  status_copy out;
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!file.valid()) {
    out.cause = errno;
    out.look = errno == ENOENT ? table_look::absent : table_look::unreadable;
    return out;
  }
  out.look = read_head(file.get(), &out);
  int waits = kRecordWaits;
  if (out.look == table_look::good &&
      !(copy_threads(file.get(), &waits, &out) && copy_slots(file.get(), &waits, &out) &&
        copy_events(file.get(), &waits, &out))) {
    out.look = table_look::damaged;
  }
  if (out.look != table_look::good) {
    out.threads = {};
    out.slots = {};
    out.events = {};
  }
  return out;
}

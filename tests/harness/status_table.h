// A status table that a test fills by itself, in memory and as a file.
#pragma once

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "wex_status.h"
#include "wex_status_layout.h"
#include "wex_test.h"

namespace wex_test {

template <size_t N>
void put_text(char (&field)[N], const std::string& text) {
  memset(field, 0, N);
  memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

class status_table {
 public:
  // As a daemon makes it that has been running for an hour, and is this process.
  status_table() {
    wex_fill_layout(&head);
    head.generation = 1;
    head.daemon_pid = getpid();
    head.started_wall = wall_ms() / 1000 - 3600;
    head.started_monotonic = monotonic_ms() - 3600000;
    put_text(head.daemon_version, "1.0.0");
  }

  wex_status_slot& add(const std::string& name, wex_status_state state = WEX_STATUS_RUNNING) {
    wex_status_slot slot = {};
    slot.state = static_cast<uint8_t>(state);
    slot.pid = 1000 + static_cast<int32_t>(slots.size());
    slot.action = 2;
    slot.registered = slot.started = slot.since = monotonic_ms() - 60000;
    slot.fewest_misses = -1;
    put_text(slot.name, name);
    put_text(slot.command, "/usr/sbin/" + name + " -d");
    slots.push_back(slot);
    return slots.back();
  }

  wex_status_event& add_event(wex_status_kind kind, const std::string& name, int32_t pid = 0) {
    wex_status_event event = {};
    event.number = head.event_next++;
    event.kind = kind;
    event.pid = pid;
    event.monotonic = monotonic_ms();
    event.wall = wall_ms();
    event.generation = head.generation;
    put_text(event.name, name);
    events.push_back(event);
    return events.back();
  }

  void add_thread(const std::string& name, int64_t last_pass_ago_ms, int64_t busy_for_ms = 0) {
    for (wex_status_thread& thread : head.threads) {
      if (thread.tid == 0) {
        thread.tid = getpid();
        thread.last_pass = monotonic_ms() - last_pass_ago_ms;
        thread.busy_since = busy_for_ms > 0 ? monotonic_ms() - busy_for_ms : 0;
        put_text(thread.name, name);
        return;
      }
    }
  }

  std::string bytes() const {
    std::string image(WEX_STATUS_FILE_SIZE, '\0');
    wex_status_head own = head;
    if (own.slots_used == 0) {
      own.slots_used = static_cast<uint32_t>(slots.size());
    }
    memcpy(image.data(), &own, sizeof own);
    for (size_t i = 0; i < slots.size(); ++i) {
      memcpy(&image[WEX_STATUS_HEAD_SIZE + i * sizeof slots[i]], &slots[i], sizeof slots[i]);
    }
    for (const wex_status_event& event : events) {
      const size_t at = WEX_STATUS_EVENTS_AT + event.number % WEX_STATUS_EVENTS * sizeof event;
      memcpy(&image[at], &event, sizeof event);
    }
    return image;
  }

  void save(const std::string& path = "/dev/shm/wex-status") const { save_bytes(bytes(), path); }
  static void save_bytes(const std::string& image, const std::string& path = "/dev/shm/wex-status") {
    unlink(path.c_str());
    write_file(path, image, 0644);
  }

  static int64_t monotonic_ms() { return milliseconds_of(CLOCK_MONOTONIC); }
  static int64_t wall_ms() { return milliseconds_of(CLOCK_REALTIME); }

  wex_status_head head = {};
  std::vector<wex_status_slot> slots;
  std::vector<wex_status_event> events;

 private:
  static int64_t milliseconds_of(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
  }
};

}  // namespace wex_test

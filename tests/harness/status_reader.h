// The status table as any reader sees it: copies of its parts that were not being written.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "unique_fd.h"
#include "wex_paths.h"
#include "wex_status.h"
#include "wex_status_image.h"
#include "wex_test.h"

namespace wex_test {

class StatusReader {
 public:
  StatusReader() : file_(open(kStatusTable, O_RDONLY | O_CLOEXEC)) {}
  bool valid() const { return file_.valid(); }

  wex_status_head head() const {
    wex_status_head copy = {};
    for (int look = 0; look < kLooks; ++look) {
      if (get(&copy, 0) && copy.seq % 2 == 0 && copy.seq == word(offsetof(wex_status_head, seq))) {
        break;
      }
    }
    return copy;
  }
  uint32_t counter(int which) const { return head().counters[which]; }

  // Nothing while it is being written.
  std::optional<wex_status_slot> slot(uint32_t number) const {
    return part<wex_status_slot>(WEX_STATUS_HEAD_SIZE + number * sizeof(wex_status_slot));
  }
  std::optional<wex_status_event> event(uint32_t number) const {
    return part<wex_status_event>(WEX_STATUS_EVENTS_AT +
                                  number % WEX_STATUS_EVENTS * sizeof(wex_status_event));
  }

  // Slots in use.
  std::vector<wex_status_slot> slots() const {
    std::vector<wex_status_slot> all;
    const uint32_t used = head().slots_used;
    for (uint32_t number = 0; number < used && number < WEX_STATUS_SLOTS; ++number) {
      const auto one = slot(number);
      if (one && one->state != WEX_STATUS_FREE) {
        all.push_back(*one);
      }
    }
    return all;
  }
  std::optional<wex_status_slot> slot_of(int32_t pid) const {
    for (const wex_status_slot& one : slots()) {
      if (one.pid == pid) {
        return one;
      }
    }
    return {};
  }

  // The ring, oldest first.
  std::vector<wex_status_event> events() const {
    std::vector<wex_status_event> all;
    const uint32_t next = head().event_next;
    for (uint32_t number = next - WEX_STATUS_EVENTS; number != next; ++number) {
      const auto one = event(number);
      if (one && one->number == number && one->kind != WEX_STATUS_EV_NONE) {
        all.push_back(*one);
      }
    }
    return all;
  }
  // The kinds of the events from `since` on, as "1 2 4 5".
  std::string kinds(size_t since = 0) const {
    std::string all_kinds;
    const auto all = events();
    for (size_t at = since; at < all.size(); ++at) {
      all_kinds += (all_kinds.empty() ? "" : " ") + std::to_string(all[at].kind);
    }
    return all_kinds;
  }

 private:
  static constexpr int kLooks = 1000;
  template <typename Part>
  bool get(Part* copy, size_t at) const {
    return pread(file_.get(), copy, sizeof *copy, static_cast<off_t>(at)) ==
           static_cast<ssize_t>(sizeof *copy);
  }
  uint32_t word(size_t at) const {
    uint32_t value = 1;
    get(&value, at);
    return value;
  }
  template <typename Part>
  std::optional<Part> part(size_t at) const {
    for (int look = 0; look < kLooks; ++look) {
      Part copy;
      const uint32_t before = word(at);
      if (before % 2 == 0 && get(&copy, at) && copy.seq == before && word(at) == before) {
        return copy;
      }
    }
    return {};
  }
  unique_fd file_;
};

// The last event of this kind, of this process unless it is 0, as soon as there is one.
inline std::optional<wex_status_event> wait_for_event(wex_status_kind kind, int32_t pid = 0) {
  std::optional<wex_status_event> found;
  eventually(
      [&] {
        for (const wex_status_event& event : StatusReader().events()) {
          if (event.kind == static_cast<uint32_t>(kind) && (pid == 0 || event.pid == pid)) {
            found = event;
          }
        }
        return found.has_value();
      },
      std::chrono::seconds(20));
  return found;
}

// Whether the daemon of this pid has begun to watch for failed forks: what is written before goes unseen.
inline bool watches_forks(pid_t daemon) {
  return eventually(
      [=] {
        const int32_t tid = StatusReader().head().threads[kStatusForkWatcher].tid;
        return tid > 0 && exists("/proc/" + std::to_string(daemon) + "/task/" + std::to_string(tid));
      },
      std::chrono::seconds(60));
}

}  // namespace wex_test

// A client of the daemon without the library: it can send what the library never would.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "lingering_socket.h"
#include "unique_fd.h"
#include "wex.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace wex_test {

inline constexpr size_t kHeader = WEX_MSG_HEADER_SIZE;

class raw_client {
 public:
  raw_client() : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kControlSocket);
    if (connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), 2 + sizeof kControlSocket - 1) != 0) {
      fd_.reset();
    }
  }
  bool connected() const { return fd_.valid(); }
  bool send_bytes(const void* bytes, size_t size, int flags = 0) const {
    return send(fd_.get(), bytes, size, MSG_NOSIGNAL | flags) == static_cast<ssize_t>(size);
  }
  // A record of `size` bytes whose header says what it likes.
  bool send_record(uint32_t type, int32_t length, size_t size, int flags = 0) const {
    std::vector<char> record(std::max(size, kHeader));
    memcpy(record.data(), &type, sizeof type);
    memcpy(record.data() + 4, &length, sizeof length);
    return send_bytes(record.data(), size, flags);
  }
  // A bare header with a descriptor, which is closed here. False with errno.
  bool send_with_descriptor(uint32_t type, int32_t length, unique_fd descriptor) const {
    wex_inner_msg record = {};
    record.msg_type = type;
    record.msg_len = length;
    return send_descriptor(fd_.get(), &record, sizeof record, std::move(descriptor));
  }
  template <class Body>
  bool send_body(uint32_t type, const Body& body, const std::string& name = "") const {
    std::vector<char> record(kHeader + sizeof body);
    const auto length = static_cast<int32_t>(sizeof body);
    memcpy(record.data(), &type, sizeof type);
    memcpy(record.data() + 4, &length, sizeof length);
    memcpy(record.data() + 8, name.data(), std::min(name.size(), size_t{256}));
    memcpy(record.data() + kHeader, &body, sizeof body);
    return send_bytes(record.data(), record.size());
  }
  // The size of the next record, 0 when the daemon has hung up, -1 when nothing came.
  ssize_t next(std::string* record = nullptr, milliseconds limit = 5s) const {
    pollfd entry = {fd_.get(), POLLIN, 0};
    char bytes[1024];
    if (poll(&entry, 1, static_cast<int>(limit.count())) != 1) {
      return -1;
    }
    const ssize_t got = recv(fd_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0 && record != nullptr) {
      record->assign(bytes, static_cast<size_t>(got));
    }
    return got > 0 ? got : 0;  // a reset is a hang-up too
  }
  bool acknowledged() const {
    std::string record;
    return next(&record) == static_cast<ssize_t>(kHeader) && record == std::string(kHeader, '\0');
  }
  bool dropped() const { return next() == 0; }

 private:
  unique_fd fd_;
};

// Counters of a watched thread that the library would not send. False when they were not taken.
inline bool send_counters(uint32_t type, int32_t tid, int32_t pid, int32_t count, int32_t left,
                          int32_t period) {
  wex_reg_info body = {};
  body.pid = tid;
  body.ppid = pid;
  body.ntfy_cnt = count;
  body.cur_cnt = left;
  body.ntfy_time = period;
  const raw_client client;
  return client.connected() && client.send_body(type, body) &&
         (type == WEX_NOTIFIER_RESET || client.acknowledged());  // a reset is never acknowledged
}

// Connects until a daemon whose accept() is made to fail has ended: the server refuses nobody otherwise.
inline bool end_through_server() {
  std::vector<raw_client> clients;
  return eventually([&] { return !clients.emplace_back().connected(); });
}

}  // namespace wex_test

// What the tests of the control channel share: a client without the library, and the daemon it talks to.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "lingering_socket.h"
#include "unique_fd.h"
#include "wex.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace control_client {

using namespace wex_test;

constexpr size_t kHeader = WEX_MSG_HEADER_SIZE;

// A client without the library: it can send what the library never would.
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

inline wex_reg_info body_of(int32_t pid) {
  wex_reg_info body = {};
  body.pid = pid;
  return body;
}

inline wex_cons_info harmless() {
  return {7, 0};
}

inline size_t descriptors_of(pid_t pid) {
  return list_dir("/proc/" + std::to_string(pid) + "/fd").size();
}

// The kernel's id of the thread with this name (its first 15 characters); "" when there is none.
inline std::string thread_of(pid_t pid, const std::string& name) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
  for (const std::string& tid : list_dir(tasks)) {
    if (read_file(tasks + tid + "/comm") == name + "\n") {
      return tid;
    }
  }
  return "";
}

inline std::string target_of(pid_t pid, const std::string& fd) {
  char target[256] = {};
  const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + fd;
  return readlink(link.c_str(), target, sizeof target - 1) > 0 ? target : "";
}

// What the descriptors of a process lead to.
inline std::vector<std::string> open_files_of(pid_t pid) {
  std::vector<std::string> targets;
  for (const std::string& fd : list_dir("/proc/" + std::to_string(pid) + "/fd")) {
    targets.push_back(target_of(pid, fd));
  }
  return targets;
}

// Those of them that a program it started would have too.
inline std::vector<std::string> inheritable_files_of(pid_t pid) {
  const std::string directory = "/proc/" + std::to_string(pid) + "/fdinfo";
  std::vector<std::string> targets;
  for (const std::string& fd : list_dir(directory)) {
    const std::string info = read_file(directory + "/" + fd);
    const size_t at = info.find("flags:\t");
    if (at != std::string::npos && (strtol(info.c_str() + at + 7, nullptr, 8) & O_CLOEXEC) == 0) {
      targets.push_back(target_of(pid, fd));
    }
  }
  return targets;
}

inline std::string dispatched(uint32_t type, int result) {
  return "]wex_dispatch_domain_msg type:" + std::to_string(type) + " err:" + std::to_string(result) + "\n";
}

struct ControlChannel : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    ASSERT_FALSE(HasFatalFailure());
  }
  void TearDown() override {
    daemon.kill_now();
    WexWorld::TearDown();
  }
  void start() {
    ASSERT_TRUE(daemon.start());
    mark_console();
  }
  // The daemon serves others, at once.
  static bool serves() {
    const raw_client other;
    return other.connected() && other.send_body(WEX_CONS_MSG, harmless()) && other.acknowledged();
  }
  static std::string running_log() { return read_file(kRunningLog1) + read_file(kRunningLog2); }
  // Without an error. What the daemon's C library calls that is its own: glibc, musl.
  static bool server_ended(const std::string& result) {
    const std::regex last_word("Thread \"wex_process_domain\" exit, wex will be restart\\. res=" + result +
                               ", (Success|No error information)\\(0\\)\r\n");
    return std::regex_search(running_log(), last_word);
  }

  Daemon daemon;
};

}  // namespace control_client

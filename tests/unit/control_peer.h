// What the tests of the control channel share: the daemon's end of it, played by the test, and a few facts
// about the process itself.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "forked.h"
#include "unique_fd.h"
#include "wex.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace control {

using namespace wex_test;
using namespace forked;

using clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

inline double seconds_since(clock::time_point start) {
  return std::chrono::duration<double>(clock::now() - start).count();
}

template <class... Arguments>
std::string text_of(const char* format, Arguments... arguments) {
  char buffer[8192];
  snprintf(buffer, sizeof buffer, format, arguments...);
  return buffer;
}

// Everything printed, with the public diagnostics on.
class printed : public wex_test::printed {
 public:
  printed() { g_wex_dbg_level[WEX_DBG_PUB] = 0; }
  ~printed() { g_wex_dbg_level[WEX_DBG_PUB] = level_; }
  printed(const printed&) = delete;
  printed& operator=(const printed&) = delete;

 private:
  int32_t level_ = g_wex_dbg_level[WEX_DBG_PUB];
};

// A process of its own program: its command line is known, it stays until it is ended.
class sleeper : public child {
 public:
  sleeper() : child("/bin/sleep", {"sleep", "600"}) {}
  std::string command() const { return program_of(pid()) + " 600"; }
};

struct message {
  bool closed = false;  // nothing came: the other side has gone
  std::string peer;     // path the sender is bound to
  wex_inner_msg header = {};
  std::vector<char> payload;

  template <class Body>
  Body body() const {
    Body out = {};
    EXPECT_EQ(sizeof out, payload.size());
    memcpy(&out, payload.data(), std::min(sizeof out, payload.size()));
    return out;
  }
};

// One client as the daemon sees it.
class peer {
 public:
  explicit peer(int fd) : fd_(fd) {}

  bool connected() const { return fd_.valid(); }
  bool readable(std::chrono::milliseconds limit) const {
    pollfd entry = {fd_.get(), POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(limit.count())) == 1;
  }
  message receive(std::chrono::milliseconds limit = 3s) const {
    message in;
    char record[2048];
    if (!readable(limit)) {
      ADD_FAILURE() << "no message came";
      return in;
    }
    const ssize_t got = recv(fd_.get(), record, sizeof record, 0);
    in.closed = got <= 0;
    if (got >= WEX_MSG_HEADER_SIZE) {
      memcpy(&in.header, record, sizeof in.header);
      in.payload.assign(record + sizeof in.header, record + got);
    }
    return in;
  }
  void acknowledge() const {
    const wex_inner_msg ack = {};
    EXPECT_EQ(static_cast<ssize_t>(sizeof ack), send(fd_.get(), &ack, sizeof ack, MSG_NOSIGNAL));
  }
  void send_bytes(size_t count) const {
    const std::string bytes(count, '\0');
    EXPECT_EQ(static_cast<ssize_t>(count), send(fd_.get(), bytes.data(), count, MSG_NOSIGNAL));
  }
  std::string path() const {
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(0, getpeername(fd_.get(), reinterpret_cast<sockaddr*>(&address), &length));
    return std::string(address.sun_path, strnlen(address.sun_path, length - 2));
  }
  void close() { fd_.reset(); }
  int fd() const { return fd_.get(); }

 private:
  unique_fd fd_;
};

// Stands in for the daemon at its true path. The test decides what it answers, and when.
class daemon_end {
 public:
  daemon_end() { open(); }
  ~daemon_end() { close(); }
  daemon_end(const daemon_end&) = delete;
  daemon_end& operator=(const daemon_end&) = delete;

  void open() {
    mkdir(WEX_RUN, 0777);
    unlink(kControlSocket);
    fd_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kControlSocket);
    ASSERT_EQ(0, bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), 2 + sizeof kControlSocket - 1));
    ASSERT_EQ(0, listen(fd_.get(), 64));
  }
  void close() {
    fd_.reset();
    unlink(kControlSocket);
  }
  bool has_caller(std::chrono::milliseconds limit) const {
    pollfd entry = {fd_.get(), POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(limit.count())) == 1;
  }
  peer accept(std::chrono::milliseconds limit = 3s) const {
    if (!has_caller(limit)) {
      ADD_FAILURE() << "nobody connected";
      return peer(-1);
    }
    return peer(::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  unique_fd fd_;
};

// Runs a client call on a thread of its own, so that the test can answer it.
template <class Call>
auto calling(Call call) {
  return std::async(std::launch::async, call);
}

}  // namespace control

// The system log of a test: whatever is sent to /dev/log, line by line.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "wex_test.h"

namespace wex_test {
namespace {
constexpr char kLogSocket[] = "/dev/log";
}

SyslogSink::SyslogSink() {
  unlink(kLogSocket);
  socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un at = {};
  at.sun_family = AF_UNIX;
  strncpy(at.sun_path, kLogSocket, sizeof at.sun_path - 1);
  EXPECT_EQ(0, bind(socket_, reinterpret_cast<sockaddr*>(&at), sizeof at)) << strerror(errno);
  chmod(kLogSocket, 0666);
  EXPECT_EQ(0, pipe2(stop_, O_CLOEXEC));
  thread_ = std::thread([this] { collect(); });
}

SyslogSink::~SyslogSink() {
  close(stop_[1]);
  thread_.join();
  close(stop_[0]);
  close(socket_);
  unlink(kLogSocket);
}

void SyslogSink::collect() {
  for (;;) {
    pollfd watched[2] = {{socket_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(watched, 2, -1) < 0) {
      continue;
    }
    if (watched[1].revents != 0) {
      return;
    }
    char text[8192];
    const ssize_t length = recv(socket_, text, sizeof text, MSG_DONTWAIT);
    if (length > 0) {
      std::lock_guard<std::mutex> hold(mutex_);
      lines_.emplace_back(text, static_cast<size_t>(length));
    }
  }
}

std::vector<std::string> SyslogSink::lines() {
  std::lock_guard<std::mutex> hold(mutex_);
  return lines_;
}

size_t SyslogSink::count(const std::string& text) {
  size_t found = 0;
  for (const std::string& line : lines()) {
    found += line.find(text) != std::string::npos;
  }
  return found;
}

bool SyslogSink::says(const std::string& text, milliseconds limit) {
  return eventually([&] { return count(text) > 0; }, limit);
}

void SyslogSink::clear() {
  std::lock_guard<std::mutex> hold(mutex_);
  lines_.clear();
}

}  // namespace wex_test

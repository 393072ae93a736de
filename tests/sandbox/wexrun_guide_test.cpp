// What docs/integrator.md says of wexrun, done as it says.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

#include "wexrun_support.h"

using namespace wexrun_test;

namespace {

constexpr char kPortOfGuide[] = "127.0.0.1:8081";
const words kFeeder = {"/bin/sh", "/usr/sbin/feeder"};
const words kPulse = {"/bin/sh", "/usr/sbin/pulse"};

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A port of the machine, whose network the sandbox shares, on which nobody listens.
uint16_t free_port() {
  const unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in own = loopback(0);
  socklen_t length = sizeof own;
  EXPECT_EQ(0, bind(fd.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own));
  EXPECT_EQ(0, getsockname(fd.get(), reinterpret_cast<sockaddr*>(&own), &length));
  return ntohs(own.sin_port);
}

// The shell samples of the guide, at the places that their first lines name; the web server at this address.
void install_samples(const std::string& address) {
  std::string page = read_file(WEX_SOURCE_DIR "/docs/integrator.md");
  const size_t port = page.find(kPortOfGuide);
  ASSERT_NE(std::string::npos, port);
  page.replace(port, sizeof kPortOfGuide - 1, address);
  for (size_t at = 0; (at = page.find("```sh\n#!/bin/sh\n# /", at)) != std::string::npos;) {
    const size_t begin = at + 6, end = page.find("\n```", begin);
    const size_t name = page.find("# /", begin) + 2;
    write_file(page.substr(name, page.find(':', name) - name), page.substr(begin, end + 1 - begin), 0755);
    at = end;
  }
  write_file("/usr/sbin/wexrun", read_file(kBinary), 0755);
}

bool answers_web_requests(uint16_t port) {
  const unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in server = loopback(port);
  char answer[16] = "";
  return connect(fd.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0 &&
         send(fd.get(), "GET /hostname HTTP/1.0\r\n\r\n", 26, MSG_NOSIGNAL) == 26 &&
         recv(fd.get(), answer, 7, MSG_WAITALL) == 7 && std::string(answer) == "HTTP/1.";
}

// The inode of the socket that listens on this port of 127.0.0.1; "" when there is none.
std::string listener(uint16_t port) {
  constexpr unsigned kListening = 0x0a;
  for (const std::string& line : lines_of(read_file("/proc/net/tcp"))) {
    unsigned address = 0, number = 0, state = 0;
    unsigned long inode = 0;
    if (sscanf(line.c_str(), "%*d: %x:%x %*x:%*x %x %*s %*s %*s %*u %*d %lu", &address, &number, &state,
               &inode) == 4 &&
        address == loopback(port).sin_addr.s_addr && number == port && state == kListening) {
      return std::to_string(inode);
    }
  }
  return "";
}

bool listens(pid_t pid, uint16_t port) {
  const std::string wanted = "socket:[" + listener(port) + "]", files = "/proc/" + text(pid) + "/fd";
  for (const std::string& fd : list_dir(files)) {
    char target[64] = "";
    if (readlink((files + "/" + fd).c_str(), target, sizeof target - 1) > 0 && wanted == target) {
      return true;
    }
  }
  return false;
}

struct WexrunGuide : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    own_ = processes_inside();
    port = free_port();
    address = "127.0.0.1:" + std::to_string(port);
    ASSERT_NO_FATAL_FAILURE(install_samples(address));
    ASSERT_TRUE(daemon.start());
  }
  void TearDown() override {
    daemon.stop();
    end_all_but(own_);
    for (const char* file : {"feeder", "pulse", "wexrun"}) {
      unlink(("/usr/sbin/" + std::string(file)).c_str());
    }
    WexWorld::TearDown();
  }
  // Killed, it comes back with the same words, and registers itself.
  void expect_revival(const words& program, pid_t* revived = nullptr) {
    const pid_t old = wait_for_command(program);
    ASSERT_GT(old, 0) << joined(program) << read_console();
    const auto registered = [](pid_t pid) { return lock_holder(pid) == pid; };
    ASSERT_TRUE(eventually([&] { return registered(old); }, 20s)) << joined(program);
    send_signal(old, SIGKILL);
    const pid_t next = wait_for_command(program, old);
    ASSERT_GT(next, 0) << joined(program) << read_console();
    EXPECT_TRUE(eventually([&] { return registered(next); }, 20s)) << joined(program);
    if (revived != nullptr) {
      *revived = next;
    }
  }
  Daemon daemon;
  uint16_t port = 0;
  std::string address;

 private:
  std::set<pid_t> own_;
};

}  // namespace

TEST_F(WexrunGuide, TheScriptAndTheWebServerOfTheGuideComeBackWhenTheyAreKilled) {
  ASSERT_TRUE(exited_with(run({"/etc/init.d/supervised"}), 0));
  ASSERT_NO_FATAL_FAILURE(expect_revival(kFeeder));
  const words httpd = {"/bin/busybox", "httpd", "-f", "-p", address, "-h", "/etc"};
  pid_t server = 0;
  ASSERT_NO_FATAL_FAILURE(expect_revival(httpd, &server));
  EXPECT_TRUE(eventually([&] { return listens(server, port); }, 20s)) << read_file("/proc/net/tcp");
  EXPECT_TRUE(eventually([&] { return answers_web_requests(port); }, 20s));
}

TEST_F(WexrunGuide, TheScriptThatNotifiesIsMindedByItsParent) {
  SyslogSink log;
  Process service;
  ASSERT_TRUE(service.start({"/usr/sbin/wexrun", "--notify", "/usr/sbin/pulse"}));
  const pid_t pulse = wait_for_command(kPulse);
  ASSERT_GT(pulse, 0);
  EXPECT_TRUE(log.says("pulse/" + text(pulse) + " says: at work", 20s));
  send_signal(pulse, SIGKILL);
  EXPECT_TRUE(ended_by(service.wait(20s), SIGKILL));
  EXPECT_GT(wait_for_command(kPulse, pulse), 0) << read_console();
}

TEST_F(WexrunGuide, AfterARestartOfTheDaemonTheScriptOfTheGuideRestartsByScript) {
  const words program = actor_words({"--hold"});
  const words command = words{"/usr/sbin/wexrun", "--shell-restart", "nowhere", "--"} + program;
  Process service;
  ASSERT_TRUE(service.start(command));
  ASSERT_EQ(service.pid(), wait_for_actor({"--hold"})) << read_console();
  daemon.kill_now();
  ASSERT_TRUE(daemon.start());
  kill_and_reap(&service);
  const pid_t next = wait_for_actor({"--hold"}, service.pid());
  ASSERT_GT(next, 0) << read_console();
  EXPECT_TRUE(eventually([&] { return only_registered(next); }, 20s));
}

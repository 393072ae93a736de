// What docs/integrator.md says of wexrun, done as it says.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "wexrun_support.h"

using namespace wexrun_test;

namespace {

const words kHttpd = {"/bin/busybox", "httpd", "-f", "-p", "127.0.0.1:8081", "-h", "/etc"};
const words kFeeder = {"/bin/sh", "/usr/sbin/feeder"};
const words kPulse = {"/bin/sh", "/usr/sbin/pulse"};

// The shell samples of the guide, at the places that their first lines name.
void install_samples() {
  const std::string page = read_file(WEX_SOURCE_DIR "/docs/integrator.md");
  for (size_t at = 0; (at = page.find("```sh\n#!/bin/sh\n# /", at)) != std::string::npos;) {
    const size_t begin = at + 6, end = page.find("\n```", begin);
    const size_t name = page.find("# /", begin) + 2;
    write_file(page.substr(name, page.find(':', name) - name), page.substr(begin, end + 1 - begin), 0755);
    at = end;
  }
  write_file("/usr/sbin/wexrun", read_file(kBinary), 0755);
}

bool answers_web_requests() {
  const unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_port = htons(8081);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  char answer[16] = "";
  return connect(fd.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0 &&
         send(fd.get(), "GET /hostname HTTP/1.0\r\n\r\n", 26, MSG_NOSIGNAL) == 26 &&
         recv(fd.get(), answer, 7, MSG_WAITALL) == 7 && std::string(answer) == "HTTP/1.";
}

struct WexrunGuide : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    own_ = processes_inside();
    install_samples();
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
  void expect_revival(const words& program) {
    const pid_t old = wait_for_command(program);
    ASSERT_GT(old, 0) << joined(program) << read_console();
    const auto registered = [](pid_t pid) { return lock_holder(pid) == pid; };
    ASSERT_TRUE(eventually([&] { return registered(old); }, 20s)) << joined(program);
    send_signal(old, SIGKILL);
    const pid_t next = wait_for_command(program, old);
    ASSERT_GT(next, 0) << joined(program) << read_console();
    EXPECT_TRUE(eventually([&] { return registered(next); }, 20s)) << joined(program);
  }
  Daemon daemon;

 private:
  std::set<pid_t> own_;
};

}  // namespace

TEST_F(WexrunGuide, TheScriptAndTheWebServerOfTheGuideComeBackWhenTheyAreKilled) {
  ASSERT_TRUE(exited_with(run({"/etc/init.d/supervised"}), 0));
  ASSERT_NO_FATAL_FAILURE(expect_revival(kFeeder));
  ASSERT_NO_FATAL_FAILURE(expect_revival(kHttpd));
  EXPECT_TRUE(eventually(answers_web_requests, 20s));
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

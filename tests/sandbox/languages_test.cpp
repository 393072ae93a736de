// The faces of the library for other languages, and the client that needs none: each registers, is killed and
// comes back, is watched, and goes for good on SIGTERM.
#include <algorithm>
#include <map>

#include "status_reader.h"
#include "wex.h"
#include "wex_sys_alive.h"
#include "wexrun_support.h"

using namespace wexrun_test;

namespace {

struct Languages : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    own = processes_inside();
    ASSERT_TRUE(daemon.start({}, kLibrary));
  }
  void TearDown() override {
    daemon.stop();
    end_all_but(own);
    WexWorld::TearDown();
  }
  // The whole life of a service that registers itself as `program`.
  void live(const words& command, const std::string& program, size_t threads, bool (*beats)());

  const words kLibrary = {"LD_LIBRARY_PATH=" WEX_BUILD_DIR};
  std::set<pid_t> own;
  Daemon daemon;
};

// The sequence bytes of the watched threads.
std::map<size_t, uint8_t> watched() {
  const std::string bytes = read_file(kAliveTableFile);
  std::map<size_t, uint8_t> found;
  for (size_t tid = 1; tid < WEX_ALIVE_TIDS && bytes.size() > WEX_ALIVE_SEQ_OFFSET + tid; ++tid) {
    if (((static_cast<uint8_t>(bytes[WEX_ALIVE_BITMAP_OFFSET + tid / 8]) >> (tid % 8)) & 1U) != 0) {
      found[tid] = static_cast<uint8_t>(bytes[WEX_ALIVE_SEQ_OFFSET + tid]);
    }
  }
  return found;
}
size_t watched_threads() {
  return watched().size();
}
// Whether each of them gives a sign of life.
bool all_beat() {
  const auto before = watched();
  return eventually(
      [&] {
        const auto now = watched();
        return !now.empty() && std::none_of(now.begin(), now.end(), [&](const auto& thread) {
          const auto old = before.find(thread.first);
          return old != before.end() && old->second == thread.second;
        });
      },
      30s);
}

// A client without the table's bytes sends its signs of life.
bool a_message_beats() {
  return eventually(
      [] { return read_console().find("wex_dispatch_domain_msg type:4 err:0") != std::string::npos; }, 30s);
}

// What wex knows of this process; when it never comes to be so, what it knows last.
template <typename Condition>
wex_status_slot slot_when(pid_t pid, Condition holds) {
  wex_status_slot found = {};
  eventually(
      [&] {
        const auto slot = StatusReader().slot_of(pid);
        found = slot ? *slot : wex_status_slot{};
        return slot && holds(*slot);
      },
      30s);
  return found;
}

// The pid in the name of the one database file; 0 unless there is one.
pid_t registered_pid(pid_t not_this) {
  pid_t pid = 0;
  eventually(
      [&] {
        const words files = db_files();
        pid = files.size() == 1 ? std::stoi(files[0].substr(files[0].rfind('.') + 1)) : 0;
        return pid != 0 && pid != not_this;
      },
      30s);
  return pid == not_this ? 0 : pid;
}

void Languages::live(const words& command, const std::string& program, size_t threads, bool (*beats)()) {
  Process service;
  ASSERT_TRUE(service.start(command, kLibrary));
  ASSERT_EQ(service.pid(), registered_pid(0)) << read_console();
  EXPECT_EQ(words{program + "." + text(service.pid())}, db_files());
  ASSERT_TRUE(eventually([&] { return watched_threads() == threads; }, 30s)) << read_console();
  EXPECT_TRUE(beats()) << read_console();
  kill_and_reap(&service);
  const pid_t next = registered_pid(service.pid());
  ASSERT_GT(next, 0) << read_console();
  ASSERT_TRUE(eventually([&] { return watched_threads() == threads; }, 30s)) << read_console();
  send_signal(next, SIGTERM);
  EXPECT_TRUE(eventually([&] { return db_files().empty() && !is_alive(next); }, 30s)) << read_console();
  EXPECT_TRUE(never([] { return !db_files().empty(); }, 1s)) << read_console();
}

// The sample of a document that holds this line.
std::string sample(const std::string& page, const std::string& kind, const std::string& line) {
  const std::string whole = read_file(page);
  for (size_t at = 0; (at = whole.find("```" + kind + "\n", at)) != std::string::npos;) {
    const size_t begin = at + kind.size() + 4;
    const size_t end = whole.find("\n```", begin);
    const std::string found = whole.substr(begin, end + 1 - begin);
    if (found.find(line) != std::string::npos) {
      return found;
    }
    at = end;
  }
  return "";
}

std::string python_name() {
  char path[256] = "";
  const ssize_t length = readlink("/usr/bin/python3", path, sizeof path - 1);
  return length > 0 ? path : "python3";
}

}  // namespace

TEST_F(Languages, TheServiceInCppIsRegisteredWhileItsObjectsLive) {
  live({WEX_BUILD_DIR "/examples/guarded"}, "guarded", 2, all_beat);
}

TEST_F(Languages, AServiceInCppChoosesItsScriptItsPatienceAndToBeKeptAfterItsEnd) {
  const words command = {WEX_BUILD_DIR "/tests/harness/kept"};
  const temporary script("/etc/cmdmap/revive"), over("/tmp/over");
  write_file("/etc/cmdmap/revive", "#!/bin/sh\nrm /tmp/over && exec " + command[0] + "\n", 0755);
  Process service;
  ASSERT_TRUE(service.start(command, kLibrary));
  ASSERT_EQ(service.pid(), registered_pid(0)) << read_console();
  EXPECT_EQ(
      4, slot_when(service.pid(), [](const auto& slot) { return slot.watched_threads == 1; }).fewest_misses)
      << "four periods of 180 s";
  EXPECT_TRUE(all_beat());
  write_file("/tmp/over", "");
  EXPECT_TRUE(exited_with(service.wait(30s), 0));
  EXPECT_GT(registered_pid(service.pid()), 0) << read_console();
  EXPECT_FALSE(exists("/tmp/over")) << "started again by something else than its script";
}

#ifndef WEX_SANITIZED  // the interpreter would have to load the sanitizer before the library
TEST_F(Languages, TheServiceInPythonIsRegisteredInItsBlock) {
  live({"/usr/bin/python3", WEX_SOURCE_DIR "/examples/service.py"}, python_name(), 1, all_beat);
}

TEST_F(Languages, AServiceInPythonIsStartedAgainAfterThePauseThatItAskedFor) {
  const temporary service_file("/usr/sbin/leisurely");
  write_file("/usr/sbin/leisurely",
             "import sys, time\nsys.path.append(\"" WEX_SOURCE_DIR
             "/examples\")\nimport wex\nwith wex.registered(delay=2):\n    time.sleep(1000)\n");
  Process service;
  ASSERT_TRUE(service.start({"/usr/bin/python3", "/usr/sbin/leisurely"}, kLibrary));
  ASSERT_EQ(service.pid(), registered_pid(0)) << read_console();
  EXPECT_EQ(2,
            slot_when(service.pid(), [](const auto& slot) { return slot.restart_delay != 0; }).restart_delay);
  const auto ended = std::chrono::steady_clock::now();
  kill_and_reap(&service);
  EXPECT_GT(registered_pid(service.pid()), 0) << read_console();
  EXPECT_GE(std::chrono::steady_clock::now() - ended, 1500ms)
      << "whole seconds, of which the first is a part";
}

TEST_F(Languages, AServiceInPythonThatEndsByAnErrorIsStartedAgainByItsScript) {
  const temporary service_file("/usr/sbin/unlucky"), script("/etc/cmdmap/revive"), fault("/tmp/fault");
  write_file("/usr/sbin/unlucky",
             "import os, sys, time\nsys.path.append(\"" WEX_SOURCE_DIR
             "/examples\")\nimport wex\n"
             "with wex.registered(script=\"revive\"), wex.Heartbeat(wex.TWELVE_MINUTES) as heart:\n"
             "    while not os.path.exists(\"/tmp/fault\"):\n"
             "        time.sleep(0.05)\n"
             "        heart.beat()\n"
             "    raise RuntimeError\n");
  write_file("/etc/cmdmap/revive", "#!/bin/sh\nrm /tmp/fault && exec /usr/bin/python3 /usr/sbin/unlucky\n",
             0755);
  Process service;
  ASSERT_TRUE(service.start({"/usr/bin/python3", "/usr/sbin/unlucky"}, kLibrary));
  ASSERT_EQ(service.pid(), registered_pid(0)) << read_console();
  ASSERT_TRUE(eventually([] { return watched_threads() == 1; }, 30s)) << read_console();
  write_file("/tmp/fault", "");
  EXPECT_TRUE(exited_with(service.wait(30s), 1));
  EXPECT_GT(registered_pid(service.pid()), 0) << read_console();
  EXPECT_FALSE(exists("/tmp/fault")) << "started again by something else than its script";
}
#endif

TEST_F(Languages, TheClientOfTheDocumentNeedsNoLibrary) {
  const std::string client = sample(WEX_SOURCE_DIR "/docs/wire.md", "python", "/usr/sbin/pyservice");
  ASSERT_NE("", client);
  EXPECT_GE(50U, lines_of(client).size()) << "it says fifty lines";
  write_file("/usr/sbin/pyservice", client, 0755);
  live({"/usr/bin/python3", "/usr/sbin/pyservice"}, python_name(), 1, a_message_beats);
  unlink("/usr/sbin/pyservice");
}

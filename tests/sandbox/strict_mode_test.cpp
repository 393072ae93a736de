// Strict mode, for a device on which not everybody is root: when it holds, and who may speak for whom.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <thread>

#include "lingering_socket.h"
#include "strict_world.h"
#include "taken_pid.h"

namespace {

using namespace strict_world;
using control_client::body_of;
using control_client::dispatched;

struct mode_row {
  const char* what;
  std::function<void()> make;
  bool strict;
  words log;  // in this order behind "Start."
};

constexpr char kLimitsOf[] =
    "Strict mode: 64 connections, 256 registrations and restart delays of 300 s for each user.";
constexpr char kDistrusted[] = "/etc/wex/strict is no file that only root can write: its lines do not count.";

void make_strict_file(const std::string& lines, mode_t mode = 0644, uid_t owner = 0) {
  write_file(kStrictFile, lines, mode);
  ASSERT_EQ(0, chmod(kStrictFile, mode));
  ASSERT_EQ(0, chown(kStrictFile, owner, owner));
}

const mode_row kModes[] = {
    {"no file", [] {}, false, {}},
    {"an empty file", [] { make_strict_file(""); }, true, {kLimitsOf}},
    {"limits",
     [] { make_strict_file("# of users\n\n connections 5\nregistrations\t7 \n"); },
     true,
     {"Strict mode: 5 connections, 7 registrations and restart delays of 300 s for each user."}},
    {"wrong lines",
     [] {
       make_strict_file("connections 0\nconnections 5 6\nregistrations 9999999999\nusers 5\nconnections 9\n");
     },
     true,
     {"Strict mode: 9 connections, 256 registrations and restart delays of 300 s for each user.",
      "/etc/wex/strict: line 1 does not count.", "/etc/wex/strict: line 2 does not count.",
      "/etc/wex/strict: line 3 does not count.", "/etc/wex/strict: line 4 does not count."}},
    {"a file that others may write",
     [] { make_strict_file("connections 5\n", 0646); },
     true,
     {kLimitsOf, kDistrusted}},
    {"a file of a user's",
     [] { make_strict_file("connections 5\n", 0644, kUser); },
     true,
     {kLimitsOf, kDistrusted}},
    {"a link to nothing",
     [] { ASSERT_EQ(0, symlink("/nothing", kStrictFile)); },
     true,
     {kLimitsOf, kDistrusted}},
    {"a directory", [] { make_dirs(kStrictFile); }, true, {kLimitsOf, kDistrusted}},
};

bool is_served(const raw_client& client) {
  return client.connected() && client.send_body(WEX_CONS_MSG, control_client::harmless()) &&
         client.acknowledged();
}

// As a user, with all the connections that there are.
bool fill_table(std::vector<raw_client>* clients) {
  const rlimit enough = {4096, 4096};
  if (setrlimit(RLIMIT_NOFILE, &enough) != 0 || !become(kUser)) {
    return false;
  }
  *clients = std::vector<raw_client>(kMaxClients);
  return is_served(clients->back());
}

struct StrictMode : Strict {};

}  // namespace

TEST_F(StrictMode, HoldsWhenSomethingHasTheNameOfItsFile) {
  for (const mode_row& row : kModes) {
    SCOPED_TRACE(row.what);
    for (const char* path : {kStrictFile, kRunningLog1, kUsersDir}) {
      remove_tree(path);
    }
    make_dirs("/etc/wex");
    row.make();
    Daemon one;
    ASSERT_TRUE(one.start());
    std::string log;
    for (const std::string& line : row.log) {
      const size_t at = running_log().find(line);
      EXPECT_NE(std::string::npos, at) << line << " is missing in\n" << running_log();
    }
    EXPECT_EQ(row.log.size(), occurrences(running_log(), "trict")) << running_log();
    EXPECT_EQ(row.strict, (StatusReader().head().flags & WEX_STATUS_STRICT) != 0);
    EXPECT_EQ(row.strict, exists(kUsersDir));
    one.stop();
  }
}

// Of root's processes, another user's, the daemon, init, a kernel thread, and what is none at all.
TEST_F(StrictMode, AUserSpeaksForNobodyElse) {
  start();
  Process& roots = process();
  Process& others = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  ASSERT_TRUE(start_service(&others, {"--tag=others"}, kOther));
  Process& unregistered = process();
  ASSERT_TRUE(unregistered.start({"sleep", "600"}));
  const uint32_t refused = StatusReader().counter(WEX_STATUS_REFUSED);
  const std::vector<pid_t> targets = {roots.pid(), others.pid(), unregistered.pid(), daemon.pid(), 1, 2};
  ASSERT_TRUE(as_user([&] {
    const raw_client client;
    for (const pid_t pid : targets) {
      wex_reg_info body = body_of(pid);
      body.ppid = pid;
      const wex_cons_info cancel = {WEX_CANCEL_PROC, pid};
      const wex_cons_info cancel_thread = {WEX_CANCEL_THREAD_NOTIFY, pid};
      if (!client.send_body(WEX_RESTART, body) || !client.acknowledged() ||
          !client.send_body(WEX_SHELL_RESTART, body, "/bin/true") || !client.acknowledged() ||
          !client.send_body(WEX_NOTIFIER_START, body) || !client.acknowledged() ||
          !client.send_body(WEX_NOTIFIER_RESET, body) || !client.send_body(WEX_CONS_MSG, cancel) ||
          !client.acknowledged() || !client.send_body(WEX_CONS_MSG, cancel_thread) ||
          !client.acknowledged()) {
        return false;
      }
    }
    return true;
  }));
  // All registrations of processes and threads, and the cancellations of what is registered.
  const std::string wrong = dispatched(WEX_RESTART, -1);
  ASSERT_TRUE(eventually([&] { return occurrences(read_console(), wrong) == targets.size(); }, 20s));
  EXPECT_EQ(targets.size(), occurrences(read_console(), dispatched(WEX_SHELL_RESTART, -1)));
  EXPECT_TRUE(eventually(
      [&] { return occurrences(read_console(), dispatched(WEX_NOTIFIER_RESET, -1)) == targets.size(); }));
  EXPECT_EQ(targets.size(), occurrences(read_console(), dispatched(WEX_NOTIFIER_START, -1)));
  EXPECT_TRUE(eventually([&] { return occurrences(read_console(), dispatched(WEX_CONS_MSG, -1)) == 2; }))
      << read_console();
  EXPECT_TRUE(is_registered(roots.pid()));
  EXPECT_TRUE(is_registered(others.pid()));
  for (const pid_t pid : {unregistered.pid(), daemon.pid(), 1, 2}) {
    EXPECT_FALSE(is_registered(pid)) << pid;
  }
  EXPECT_EQ(0, StatusReader().slot_of(roots.pid())->watched_threads);
  EXPECT_TRUE(eventually([&] { return StatusReader().counter(WEX_STATUS_REFUSED) >= refused + 18; }));
  EXPECT_TRUE(log_says("User 1234 was refused "));
  EXPECT_TRUE(log_says(" times: the process is not his."));
  EXPECT_EQ(1U, occurrences(running_log(), "User 1234 was refused ")) << running_log();
}

TEST_F(StrictMode, AUserEndsNobodysWatch) {
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots", "--register-main-thread=7"}, 0));
  ASSERT_TRUE(eventually([&] { return StatusReader().slot_of(roots.pid())->watched_threads == 1; }, 20s));
  ASSERT_TRUE(as_user([&] {
    const raw_client client;
    const wex_cons_info cancel = {WEX_CANCEL_THREAD_NOTIFY, roots.pid()};
    return client.send_body(WEX_CONS_MSG, cancel) && client.acknowledged();
  }));
  ASSERT_TRUE(eventually([&] { return occurrences(read_console(), dispatched(WEX_CONS_MSG, -1)) == 1; }, 20s))
      << read_console();
  EXPECT_EQ(1, StatusReader().slot_of(roots.pid())->watched_threads);
}

// His own thread, but for a process that is not its own: that one would be aborted.
TEST_F(StrictMode, AThreadStandsForItsOwnProcessAlone) {
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  ASSERT_TRUE(as_user([&] {
    const raw_client client;
    wex_reg_info body = body_of(getpid());
    body.ppid = roots.pid();
    const bool lied = client.send_body(WEX_NOTIFIER_START, body) && client.acknowledged();
    body.ppid = getpid();
    return lied && client.send_body(WEX_NOTIFIER_START, body) && client.acknowledged() &&
           console_says(dispatched(WEX_NOTIFIER_START, -1)) &&
           console_says(dispatched(WEX_NOTIFIER_START, 0));
  }));
}

TEST_F(StrictMode, AUserRegistersAndCancelsHisOwnAndRootEverybodys) {
  start();
  Process& own = process();
  Process& others = process();
  ASSERT_TRUE(start_service(&own, {"--tag=own"}));
  ASSERT_TRUE(start_service(&others, {"--tag=others"}, kOther));
  const auto cancel = [](pid_t pid) {
    const wex_cons_info body = {WEX_CANCEL_PROC, pid};
    const raw_client client;
    return client.send_body(WEX_CONS_MSG, body) && client.acknowledged();
  };
  ASSERT_TRUE(as_user([&] { return cancel(own.pid()); }));
  EXPECT_TRUE(eventually([&] { return !is_registered(own.pid()); }, 20s));
  EXPECT_TRUE(is_registered(others.pid()));
  ASSERT_TRUE(cancel(others.pid()));
  EXPECT_TRUE(eventually([&] { return !is_registered(others.pid()); }, 20s));
}

TEST_F(StrictMode, AUserHasSoManyConnectionsAndNobodyElseIsTurnedAway) {
  write_file(kStrictFile, "connections 3\n");
  start();
  ASSERT_TRUE(as_user([] {
    const raw_client first, second;
    {
      const raw_client third, fourth;
      if (!is_served(first) || !is_served(second) || !is_served(third) || !fourth.dropped()) {
        return false;
      }
    }
    return eventually([&] { return is_served(raw_client()); }, 20s);  // one has left
  }));
  EXPECT_TRUE(
      as_user([] { return raw_client().send_body(WEX_CONS_MSG, control_client::harmless()); }, kOther));
  EXPECT_TRUE(log_says("User 1234 was refused 1 times: too many connections."));
  EXPECT_TRUE(daemon.running());
}

// What the kernel has reported of a connection that makes room for root's must not be looked for any more.
TEST_F(StrictMode, AConnectionThatMakesRoomForRootsMayHaveAMessageWaiting) {
  write_file(kStrictFile, "connections 2048\n");
  start();
  const child crowd([] {
    static std::vector<raw_client> clients;
    if (!fill_table(&clients)) {
      return false;
    }
    std::thread([] {
      eventually([] { return exists("/tmp/go"); }, 60s);
      for (auto client = clients.rbegin(); client != clients.rbegin() + 20; ++client) {
        client->send_body(WEX_CONS_MSG, control_client::harmless());
      }
      write_file("/tmp/sent", "");
    }).detach();
    return true;
  });
  ASSERT_TRUE(crowd.ready());
  ASSERT_NO_FATAL_FAILURE(stop_all_threads(&daemon));
  const raw_client roots;
  const raw_client silent;
  write_file("/tmp/go", "");
  ASSERT_TRUE(eventually([] { return exists("/tmp/sent"); }, 20s));
  daemon.send(SIGCONT);
  EXPECT_TRUE(is_served(roots));
  EXPECT_TRUE(daemon.running());
  EXPECT_EQ(std::string::npos, read_console().find(" lost!\n"));
}

// On a kernel that lets descriptors through: closing this one takes a minute.
TEST_F(StrictMode, AConnectionTooManyHoldsNobodyUpWithWhatItHasSent) {
  write_file(kStrictFile, "connections 1\n");
  ASSERT_TRUE(daemon.start_traced({"inject=setsockopt:error=ENOPROTOOPT:when=1"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  ASSERT_NO_FATAL_FAILURE(stop_all_threads(&daemon));
  const child sender([] {
    static lingering_socket lingering(60);
    if (!become(kUser)) {
      return false;
    }
    static const raw_client first, second;
    return second.send_with_descriptor(WEX_CONS_MSG, 0, lingering.take());
  });
  ASSERT_TRUE(sender.ready());
  daemon.send(SIGCONT);
  EXPECT_TRUE(is_served(raw_client()));
}

// Root finds room in a table that a user has filled, and another user none.
TEST_F(StrictMode, ATableThatUsersFillEndsNothing) {
  write_file(kStrictFile, "connections 2048\n");
  start();
  const child crowd([] {
    static std::vector<raw_client> clients;
    return fill_table(&clients);
  });
  ASSERT_TRUE(crowd.ready());
  EXPECT_TRUE(as_user([] { return raw_client().dropped(); }, kOther));
  const raw_client roots;
  EXPECT_TRUE(is_served(roots));
  EXPECT_TRUE(daemon.running());
}

TEST_F(StrictMode, RootHasMoreConnectionsAndRegistrationsThanAUserMayHave) {
  write_file(kStrictFile, "connections 1\nregistrations 1\n");
  start();
  for (const char* const tag : {"--tag=1", "--tag=2", "--tag=3"}) {  // each has its connection
    ASSERT_TRUE(start_service(&process(), {tag}, 0)) << running_log();
  }
  const raw_client more[3];
  for (const raw_client& client : more) {
    EXPECT_TRUE(is_served(client));
  }
  EXPECT_EQ(0U, StatusReader().counter(WEX_STATUS_REFUSED));
}

TEST_F(StrictMode, AUserHasSoManyRegistrations) {
  write_file(kStrictFile, "registrations 2\n");
  start();
  Process* services[4] = {&process(), &process(), &process(), &process()};
  ASSERT_TRUE(start_service(services[0], {"--tag=1"}));
  ASSERT_TRUE(start_service(services[1], {"--tag=2"}));
  ASSERT_TRUE(services[2]->start(users_words(service_words({"--tag=3"}))));
  EXPECT_TRUE(log_says("User 1234 was refused 1 times: too many registrations."));
  EXPECT_FALSE(is_registered(services[2]->pid()));
  EXPECT_TRUE(start_service(services[3], {"--tag=4"}, kOther));
}

// Strict mode: a user's process that has got the pid of root's service, where the kernel did not tell of its
// birth.
#include <linux/netlink.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "handled_exits.h"
#include "strict_world.h"
#include "taken_pid.h"

namespace {

using namespace strict_world;

const words kUsersSleep = {
    "/usr/bin/setpriv", "--reuid=" + text(kUser), "--regid=1235", "--clear-groups", "/bin/sleep", "777"};

struct event_queue {
  unsigned waiting = 0;  // bytes
  unsigned dropped = 0;  // events
};

event_queue look_at_queue() {
  event_queue all;
  for (const std::string& line : lines_of(read_file("/proc/net/netlink"))) {
    int family = 0;
    unsigned groups = 0;
    unsigned waiting = 0;
    unsigned dropped = 0;
    if (sscanf(line.c_str(), "%*s %d %*d %x %u %*s %*s %*s %u", &family, &groups, &waiting, &dropped) == 4 &&
        family == NETLINK_CONNECTOR && (groups & 1) != 0) {
      all.waiting += waiting;
      all.dropped += dropped;
    }
  }
  return all;
}

void* stay(void* tid) {
  *static_cast<volatile pid_t*>(tid) = static_cast<pid_t>(syscall(SYS_gettid));
  for (;;) {
    pause();
  }
}

// A thread that is registered as a program has the ends of all threads reported.
bool register_own_thread() {
  static volatile pid_t tid = 0;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, stay, const_cast<pid_t*>(&tid)) != 0 ||
      !eventually([] { return tid != 0; })) {
    return false;
  }
  wex_reg_info body = {};
  body.pid = tid;
  const raw_client client;
  return client.connected() && client.send_body(WEX_RESTART, body) && client.acknowledged();
}

bool flood_with_ends_of_threads() {
  return register_own_thread() && eventually(
                                      [] {
                                        for (int i = 0; i < 200; ++i) {
                                          pthread_t thread;
                                          const auto nothing = [](void*) -> void* { return nullptr; };
                                          if (pthread_create(&thread, nullptr, nothing, nullptr) == 0) {
                                            pthread_join(thread, nullptr);
                                          }
                                        }
                                        return look_at_queue().dropped > 0;
                                      },
                                      30s);
}

struct StrictGaps : Strict {
  // Root's service, when a user has filled the queue and half of it has been read.
  void kill_service_while_events_are_lost(const words& options, pid_t* pid) {
    Process& service = process();
    ASSERT_TRUE(start_service(&service, options, 0));
    *pid = service.pid();
    const child flooder([] { return become(kUser) && flood_with_ends_of_threads(); });
    ASSERT_TRUE(flooder.ready());
    const unsigned full = look_at_queue().waiting;
    ASSERT_TRUE(eventually([&] { return look_at_queue().waiting < full / 2; }, 30s)) << full;
    send_signal(*pid, SIGKILL);
    service.wait(20s);
  }
};

}  // namespace

// The kernel says once that it lost events, and loses all until the queue has been read to its end.
TEST_F(StrictGaps, BySigtermAUserDoesNotStopAServiceOfRootsThatEndedWhileEventsWereStillLost) {
  start();
  const words options = {"--tag=gap"};
  pid_t pid = 0;
  ASSERT_NO_FATAL_FAILURE(kill_service_while_events_are_lost(options, &pid));
  {
    const stranger users(pid, kUsersSleep);
    ASSERT_TRUE(eventually([&] { return uid_of(users.pid()) == text(kUser); }, 20s));
    ASSERT_TRUE(eventually([&] { return look_at_queue().waiting == 0; }, 30s));
    ASSERT_TRUE(as_user([&] { return send_signal(pid, SIGTERM); }));
    EXPECT_TRUE(eventually([&] { return status_field(pid, "State")[0] == 'Z'; }, 20s));
  }
  EXPECT_GT(wait_for_actor(service_words(options), pid, 80s), 0) << read_console();
}

// The look for lost exits that the overflow asks for must come behind the last one that was lost.
TEST_F(StrictGaps, AServiceThatEndedWhileEventsWereStillLostIsStartedAgainSoonAfterThat) {
  start();
  const words options = {"--tag=late"};
  pid_t pid = 0;
  ASSERT_NO_FATAL_FAILURE(kill_service_while_events_are_lost(options, &pid));
  ASSERT_TRUE(eventually([&] { return look_at_queue().waiting == 0; }, 30s));
  EXPECT_GT(wait_for_actor(service_words(options), pid, 15s), 0) << read_console();
}

// He waits with the next pid to be given until the service dies. Its start differs from that end by less than
// the clocks may.
TEST_F(StrictGaps, AUsersProcessThatGetsThePidWithinSomeMillisecondsIsNotTakenForTheServiceOfRoots) {
  start();
  Process& service = process();
  const words options = {"--tag=quick"};
  ASSERT_TRUE(start_service(&service, options, 0));
  const pid_t pid = service.pid();
  ASSERT_NO_FATAL_FAILURE(stop_all_threads(&daemon));
  send_signal(pid, SIGKILL);
  service.wait(20s);
  const pid_t users = fork_as(pid);
  if (users == 0) {
    become(kUser);
    execl("/bin/sleep", "sleep", "777", nullptr);
    _exit(127);
  }
  ASSERT_EQ(pid, users);
  EXPECT_TRUE(eventually([&] { return uid_of(pid) == text(kUser); }, 20s));
  daemon.send(SIGCONT);
  EXPECT_GT(wait_for_actor(service_words(options), pid, 15s), 0) << read_console();
  EXPECT_TRUE(as_user([&] { return send_signal(pid, SIGTERM); }));
  waitpid(users, nullptr, 0);
  EXPECT_GT(wait_for_actor(service_words(options), pid, 15s), 0) << read_console();
}

// A child that its parent had made its sibling is a child of the daemon, if that is the parent's parent.
TEST_F(StrictGaps, WithACoreDumpOfASiblingAUsersProgramDoesNotCountForAServiceOfRoots) {
  write_file(kBurstConfig, "600 1\n");
  start();
  constexpr char kWanted[] = "/tmp/wanted";
  const words parent_words = {"--tag=parent", "--register=RESTART", "--confirm",
                              std::string("--crash-as-sibling=") + kWanted, "--hold"};
  Process& parent = process();
  ASSERT_TRUE(parent.start(actor_words(parent_words)));
  ASSERT_TRUE(eventually([&] { return is_registered(parent.pid()); }, 20s));
  send_signal(parent.pid(), SIGKILL);
  parent.wait(20s);
  const pid_t again = wait_for_actor(parent_words, parent.pid(), 20s);
  ASSERT_GT(again, 0) << read_console();
  ASSERT_EQ(text(daemon.pid()), status_field(again, "PPid"));

  Process& service = process();
  const words options = {"--tag=sibling"};
  ASSERT_TRUE(start_service(&service, options, 0));
  const pid_t pid = service.pid();
  ASSERT_NO_FATAL_FAILURE(stop_all_threads(&daemon));
  send_signal(pid, SIGKILL);
  service.wait(20s);
  std::this_thread::sleep_for(100ms);
  write_file(kWanted, text(pid) + "\n");
  ASSERT_TRUE(eventually([&] { return status_field(pid, "State")[0] == 'Z'; }, 20s));
  EXPECT_EQ(text(daemon.pid()), status_field(pid, "PPid"));
  EXPECT_EQ(text(kUser), uid_of(pid));
  daemon.send(SIGCONT);
  EXPECT_GT(wait_for_actor(service_words(options), pid, 20s), 0) << read_console();
  wait_until_exits_are_handled();
  EXPECT_FALSE(exists(kRebootLog)) << read_file(kRebootLog);
  unlink(kRebootLog);
  unlink(kWanted);
  send_signal(again, SIGKILL);
}

// wex_core_netlink: exits that happen as the kernel begins to report events again after it has lost some.
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "event_world.h"
#include "wex_core_stop.h"

using namespace event_world;

namespace {

enum class step { none, say_lost, read_last, over };

thread_local bool is_monitor = false;
std::atomic<step> next_step{step::none};
std::atomic<pid_t> ends_meanwhile{0};

struct GapEvent : Event {
  static void expect_stopped_for_good(bool with_gap);
};

void in_child(const std::function<void()>& work) {
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    work();
    fflush(stdout);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_EQ(0, status) << "what the child process found is printed above";
}

// Ends and is reaped, and its exit has been reported, when this returns.
void stop(pid_t pid, int events) {
  send_signal(pid, SIGTERM);
  EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
  pollfd input = {events, POLLIN, 0};
  EXPECT_EQ(1, poll(&input, 1, 5000)) << "its exit was not reported";
}

}  // namespace

extern "C" ssize_t __real_recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from,
                                   socklen_t* length);

// The kernel says that it has lost events; one is queued from before. A program is stopped, and reaped by its
// parent, while the monitor is about to handle that last one: the kernel reports again by then.
extern "C" ssize_t __wrap_recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from,
                                   socklen_t* length) {
  if (!is_monitor || next_step == step::none || next_step == step::over) {
    return __real_recvfrom(fd, bytes, size, flags, from, length);
  }
  if (next_step == step::say_lost) {
    next_step = step::read_last;
    errno = ENOBUFS;
    return -1;
  }
  next_step = step::over;
  const ssize_t got = __real_recvfrom(fd, bytes, size, flags, from, length);
  pollfd input = {fd, POLLIN, 0};
  EXPECT_EQ(0, poll(&input, 1, 0)) << "it was not the last one";
  stop(ends_meanwhile, fd);
  return got;
}

void GapEvent::expect_stopped_for_good(bool with_gap) {
  const pid_t first = lasting();
  const pid_t second = lasting();
  add(first, "/bin/sleep 2000");
  add(second, "/bin/sleep 1000");
  const std::string file = db_file(second, "/bin/sleep 1000");
  write_file(file, "");
  wex_monitor_read_until = 0;
  std::thread monitor([] {
    is_monitor = true;
    wex_process_netlink(nullptr);
  });
  ASSERT_TRUE(eventually([] { return wex_monitor_read_until == INT32_MAX; }));
  ends_meanwhile = second;
  next_step = with_gap ? step::say_lost : step::read_last;
  send_signal(first, SIGTERM);
  EXPECT_TRUE(eventually([] { return next_step == step::over; }));
  EXPECT_TRUE(eventually([&] { return !exists(file); })) << "its SIGTERM was not taken for its own";
  {
    chain_lock hold(wex_chains);
    EXPECT_EQ(nullptr, __wex_find_pid(&wex_chains, second));
  }
  wex_raise_exit_flag();
  monitor.join();
  waitpid(first, nullptr, WNOHANG);
}

// Each in a process of its own, for the stop flag.
TEST_F(GapEvent, StopsAProgramForGoodWhenNothingWasLost) {
  in_child([] { expect_stopped_for_good(false); });
}

TEST_F(GapEvent, StopsAProgramForGoodRightBehindEventsThatWereLost) {
  in_child([] { expect_stopped_for_good(true); });
}

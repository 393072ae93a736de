// wex_core_netlink: exits that happen as the kernel begins to report events again after it has lost some, and
// events that are read late.
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "event_world.h"
#include "unit_support.h"
#include "wex_core_restart.h"
#include "wex_core_stop.h"
#include "wex_strict.h"

using namespace event_world;
using unit::in_child;

namespace {

enum class step { none, say_lost, read_last, handle_last, over };

enum class gap { no, yes };

// A child ends and is reaped then, seen from the last event before those that were lost.
enum class when { as_it_is_read, once_it_is_handled };

thread_local bool is_monitor = false;
std::atomic<step> next_step{step::none};
void (*on_read_last)(int events) = nullptr;
void (*on_handled_last)(int events) = nullptr;
std::atomic<pid_t> ends_meanwhile{0};

struct GapEvent : Event {
  static void expect_stopped_for_good(gap, when);
  static void expect_stop_of_awaited_known(gap);
};

void be_strict() {
  strict_settings settings;
  settings.on = true;
  wex_set_strict(settings);
}

void reap_meanwhile(int /*events*/) {
  EXPECT_EQ(ends_meanwhile, waitpid(ends_meanwhile, nullptr, 0));
}

// Its exit has been reported, too, when this returns.
void stop_meanwhile(int events) {
  send_signal(ends_meanwhile, SIGTERM);
  reap_meanwhile(events);
  pollfd input = {events, POLLIN, 0};
  EXPECT_EQ(1, poll(&input, 1, 5000)) << "its exit was not reported";
}

}  // namespace

extern "C" ssize_t __real_recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from,
                                   socklen_t* length);

// The kernel says that it has lost events; one is queued from before. It reports again once that is read.
extern "C" ssize_t __wrap_recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from,
                                   socklen_t* length) {
  if (is_monitor && next_step == step::say_lost) {
    next_step = step::read_last;
    errno = ENOBUFS;
    return -1;
  }
  const ssize_t got = __real_recvfrom(fd, bytes, size, flags, from, length);
  if (is_monitor && next_step == step::read_last) {
    pollfd input = {fd, POLLIN, 0};
    EXPECT_EQ(0, poll(&input, 1, 0)) << "it was not the last one";
    if (on_read_last != nullptr) {
      on_read_last(fd);
    }
    next_step = step::handle_last;
  }
  return got;
}

extern "C" int __real_poll(pollfd* inputs, nfds_t count, int limit_ms);

// The monitor waits for the next event: with the wake-up and the list of programs.
extern "C" int __wrap_poll(pollfd* inputs, nfds_t count, int limit_ms) {
  if (is_monitor && next_step == step::handle_last && count == 3) {
    next_step = step::over;
    if (on_handled_last != nullptr) {
      on_handled_last(inputs[0].fd);
    }
  }
  return __real_poll(inputs, count, limit_ms);
}

namespace {

class monitor_thread {
 public:
  monitor_thread() {
    wex_monitor_read_until = 0;
    thread_ = std::thread([] {
      is_monitor = true;
      wex_process_netlink(nullptr);
    });
    EXPECT_TRUE(eventually([] { return wex_monitor_read_until == INT32_MAX; }));
  }
  ~monitor_thread() {
    wex_raise_exit_flag();
    thread_.join();
  }
  // That is the last event before those that are lost, if any are.
  static void end_last(pid_t pid, gap lost) {
    next_step = lost == gap::yes ? step::say_lost : step::read_last;
    send_signal(pid, SIGTERM);
    EXPECT_TRUE(eventually([] { return next_step == step::over; }));
  }

 private:
  std::thread thread_;
};

}  // namespace

void GapEvent::expect_stopped_for_good(gap lost, when stopped) {
  const pid_t first = lasting();
  const pid_t second = lasting();
  add(first, "/bin/sleep 2000");
  add(second, "/bin/sleep 1000");
  const std::string file = db_file(second, "/bin/sleep 1000");
  write_file(file, "");
  const monitor_thread monitor;
  ends_meanwhile = second;
  (stopped == when::as_it_is_read ? on_read_last : on_handled_last) = stop_meanwhile;
  monitor.end_last(first, lost);
  EXPECT_TRUE(eventually([&] { return !exists(file); })) << "its SIGTERM was not taken for its own";
  {
    chain_lock hold(wex_chains);
    EXPECT_EQ(nullptr, __wex_find_pid(&wex_chains, second));
  }
  waitpid(first, nullptr, WNOHANG);
}

// Each in a process of its own, for the stop flag.
TEST_F(GapEvent, StopsAProgramForGoodWhenNothingWasLost) {
  in_child([] { expect_stopped_for_good(gap::no, when::as_it_is_read); });
}

TEST_F(GapEvent, StopsAProgramForGoodRightBehindEventsThatWereLost) {
  in_child([] { expect_stopped_for_good(gap::yes, when::as_it_is_read); });
}

TEST_F(GapEvent, InStrictModeStopsAProgramForGoodOnceTheLastEventBeforeTheLostOnesIsHandled) {
  in_child([] {
    be_strict();
    expect_stopped_for_good(gap::yes, when::once_it_is_handled);
  });
}

// The last event is the end of the process to which a program is to be handed over.
void GapEvent::expect_stop_of_awaited_known(gap lost) {
  be_strict();
  const pid_t awaited = lasting();
  wex_pid* const rec = add(dead_pid(), "/bin/sleep 1000");
  wex_pid* const keeper = add(awaited, "/bin/sleep 2000");
  {
    chain_lock hold(wex_chains);
    keeper->start_time = 4711;  // of a process that has ended long ago
    keeper->exit_seen = 1;
    keeper->alarm_wait_flag = 1;
    ASSERT_TRUE(__wex_await_hand_over(rec, awaited));
  }
  const monitor_thread monitor;
  ends_meanwhile = awaited;
  on_read_last = reap_meanwhile;
  monitor.end_last(awaited, lost);
  chain_lock hold(wex_chains);
  EXPECT_EQ(-awaited, rec->awaited);
  EXPECT_EQ(static_cast<uint32_t>(SIGTERM), rec->known_code) << "a stop on purpose is followed by a restart";
}

TEST_F(GapEvent, InStrictModeTheStopOfAnAwaitedProcessIsKnownWhenNothingWasLost) {
  in_child([] { expect_stop_of_awaited_known(gap::no); });
}

TEST_F(GapEvent, InStrictModeTheStopOfAnAwaitedProcessIsKnownAsTheLastEventBeforeTheLostOnes) {
  in_child([] { expect_stop_of_awaited_known(gap::yes); });
}

// ---- Events that are read late ----------------------------------------------------------------------------

// The monitor may have waited for the registry before it read the first of them. That is no time namespace.
TEST_F(GapEvent, ABirthIsTheOwnOneThoughTheFirstEventsAreReadSecondsLate) {
  in_child([] {
    constexpr uint64_t kLateNs = 1500000000;
    const uint64_t subscribed = now_ns();
    wex_expect_events_from(static_cast<int64_t>(subscribed));
    const pid_t pid = lasting();
    const uint64_t born = now_ns();
    const wex_pid* const rec = add(pid);
    ASSERT_TRUE(eventually([&] { return now_ns() > born + kLateNs; }));
    wex_note_event_read({kEventAck, 0, 0, 0, subscribed});
    const process_event birth = {kEventFork, pid, pid, 0, born};
    wex_note_event_read(birth);
    wex_take_birth_event(birth);
    chain_lock hold(wex_chains);
    EXPECT_EQ(0, rec->ended_by_ns) << "it is alive, and its own end would be ignored";
  });
}

// The kernel's clock is ten seconds ahead, and the first events are read late.
TEST_F(GapEvent, ABirthIsTheOwnOneThoughTheFirstEventsAreReadSecondsLateInATimeNamespace) {
  in_child([] {
    constexpr uint64_t kAheadNs = 10000000000;
    const uint64_t subscribed = now_ns() - 5000000000;
    const uint64_t born = now_ns() - 2000000000;
    wex_expect_events_from(static_cast<int64_t>(subscribed));
    const pid_t pid = lasting();
    wex_pid* const rec = add(pid);
    rec->seen_ns = static_cast<int64_t>(born);
    wex_note_event_read({kEventAck, 0, 0, 0, subscribed + kAheadNs});
    const process_event birth = {kEventFork, pid, pid, 0, born + kAheadNs};
    wex_note_event_read(birth);
    wex_take_birth_event(birth);
    {
      chain_lock hold(wex_chains);
      EXPECT_EQ(0, rec->ended_by_ns);
    }
    wex_take_birth_event({kEventFork, pid, pid, 0, born + kAheadNs + 100000000});
    chain_lock hold(wex_chains);
    EXPECT_NE(0, rec->ended_by_ns) << "that was another one's";
  });
}

// What the watchdog does when the last miss is counted: whose process is aborted, in which turn, after which
// looks, and what is written of it.
#include <dirent.h>
#include <grp.h>

#include <algorithm>
#include <thread>

#include "watchdog_world.h"
#include "wex_status_image.h"

using namespace watchdog;

namespace {

// What happens while the watchdog looks at a hung process, and what it finds of the process afterwards.
std::function<void()> during_look;
std::function<void(process_look*)> after_look;
std::atomic<bool> looked{false};
std::atomic<bool> hang_file_synced{false};
std::atomic<bool> chain_held{false};
std::function<void()> during_log_sync;  // while the hang is put on the disk in the notify log
std::atomic<bool> look_stands_still{false};
const std::thread::id g_watchdog = std::this_thread::get_id();

bool is_free(wex_chains_t& chain) {
  bool had = false;
  std::thread other([&] {
    had = pthread_mutex_trylock(&chain.mutex) == 0;
    if (had) {
      pthread_mutex_unlock(&chain.mutex);
    }
  });
  other.join();
  return had;
}

}  // namespace

extern "C" void __real__Z16wex_look_at_hungii(int32_t pid, int32_t tid);
extern "C" void __wrap__Z16wex_look_at_hungii(int32_t pid, int32_t tid) {
  chain_held = chain_held || !is_free(wex_alive_chains);
  __real__Z16wex_look_at_hungii(pid, tid);
  looked = true;
  if (during_look) {
    during_look();
  }
}

extern "C" process_look __real__Z11wex_look_ati(int32_t pid);
extern "C" process_look __wrap__Z11wex_look_ati(int32_t pid) {
  process_look seen = __real__Z11wex_look_ati(pid);
  if (looked && after_look) {
    after_look(&seen);
  }
  return seen;
}

extern "C" int __real_fsync(int fd);
extern "C" int __wrap_fsync(int fd) {
  char path[256] = "";
  if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1) > 0 &&
      strcmp(path, kHung) == 0) {
    hang_file_synced = true;
    chain_held = chain_held || !is_free(wex_alive_chains);
  } else if (strcmp(path, kNotifyLog) == 0 && during_log_sync) {
    during_log_sync();
  }
  return __real_fsync(fd);
}

// The look at a hung process lists its threads on a thread of its own.
extern "C" DIR* __real_fdopendir(int fd);
extern "C" DIR* __wrap_fdopendir(int fd) {
  while (look_stands_still && std::this_thread::get_id() != g_watchdog) {
    usleep(1000);
  }
  return __real_fdopendir(fd);
}

namespace {

// The process that a scan aborted, as its diagnostics have it; 0 when it was not one exactly.
int process_aborted_in(const std::string& text) {
  EXPECT_EQ(1U, occurrences(text, "send SIGABRT")) << "one a minute";
  const size_t at = text.find("send SIGABRT to ppid (");
  return at == std::string::npos ? 0 : std::stoi(text.substr(at + strlen("send SIGABRT to ppid (")));
}

}  // namespace

TEST_F(Watchdog, OnlyTheFirstInBucketOrderIsAbortedInOneScan) {
  in_child([] {
    service one(1);
    service two(1);
    const daemon_side daemon;
    daemon.start(one, 0, {5, 1, 60, 0});
    daemon.start(two, 0, {5, 1, 60, 0});
    const bool same = wex_hash_pid(one.pid()) == wex_hash_pid(two.pid());
    const bool one_first =
        !same && wex_hash_pid(one.pid()) < wex_hash_pid(two.pid());  // the newer is at the head
    service& first = one_first ? one : two;
    service& second = one_first ? two : one;
    daemon.scans(1);
    EXPECT_TRUE(first.aborted());
    EXPECT_TRUE(second.running());
    EXPECT_EQ(1U, hangs_logged());
    expect_state(second.pid(), 0, 0);
    daemon.scans(1);
    EXPECT_TRUE(second.aborted());
    EXPECT_EQ(2U, hangs_logged());
  });
}

TEST_F(Watchdog, TwoHungThreadsOfAProcessAreOneAbort) {
  in_child([] {
    service program;
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    daemon.start(program, 1, {5, 0, 120, 0});
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    daemon.scans(2);
    EXPECT_EQ(1U, hangs_logged());
    EXPECT_EQ(0, wex_alive_chains.count);
  });
}

TEST_F(Watchdog, AProcessThatIgnoresTheAbortIsAbortedAndLoggedAtEveryScanUntilItReports) {
  in_child([] {
    service program(1, true);
    const daemon_side daemon;
    daemon.start(program, 0, kShort);
    daemon.scans(10);
    EXPECT_EQ(1U, hangs_logged());
    for (size_t more = 2; more <= 5; ++more) {
      EXPECT_EQ(1U, occurrences(daemon.scan(), "send SIGABRT"));
      EXPECT_EQ(more, hangs_logged());
    }
    EXPECT_TRUE(program.running());
    program.report(0);
    daemon.scans(1);
    expect_state(program.pid(), 5, 0);
    EXPECT_EQ(5U, hangs_logged());
    daemon.scans(9);
    EXPECT_EQ(5U, hangs_logged()) << "it has its full count again";
    daemon.scans(1);
    EXPECT_EQ(6U, hangs_logged());
  });
}

// The first of the walk first, then in the order of their buckets; whoever died or reported is left out.
TEST_F(Watchdog, ThreadsOfProcessesThatIgnoreTheAbortTakeTurns) {
  in_child([] {
    std::vector<std::unique_ptr<service>> programs;
    for (int i = 0; i < 3; ++i) {
      programs.push_back(std::make_unique<service>(1, true));
    }
    auto mortal = std::make_unique<service>(1);
    const daemon_side daemon;
    for (const auto& program : programs) {
      daemon.start(*program, 0, {5, 0, 120, 0});
    }
    daemon.start(*mortal, 0, {5, 0, 120, 0});
    std::vector<int32_t> order;
    {
      const chain_lock hold(wex_alive_chains);
      record_walk walk(wex_alive_chains);
      while (const wex_pid* const rec = walk.next()) {
        order.push_back(rec->pid);
      }
    }
    const int32_t first = order.front();
    std::sort(order.begin(), order.end(), [](int32_t a, int32_t b) {
      return std::make_pair(wex_hash_pid(a), a) < std::make_pair(wex_hash_pid(b), b);
    });
    std::rotate(order.begin(), std::find(order.begin(), order.end(), first), order.end());
    const auto aborted = [&] { return process_aborted_in(daemon.scan()); };
    for (const int32_t next : order) {
      EXPECT_EQ(next, aborted());
      if (next == mortal->pid()) {
        EXPECT_TRUE(mortal->aborted());
      }
    }
    order.erase(std::find(order.begin(), order.end(), mortal->pid()));
    for (int round = 0; round < 2; ++round) {
      for (const int32_t next : order) {
        EXPECT_EQ(next, aborted()) << "round " << round;
      }
    }
    EXPECT_EQ(10U, hangs_logged());
  });
}

// A process with many hung threads must not keep the watchdog from the others.
TEST_F(Watchdog, ProcessesTakeTurnsHoweverManyOfTheirThreadsHang) {
  in_child([] {
    service many(12, true);
    service one(1, true);
    service other(1, true);
    const daemon_side daemon;
    for (int at = 0; at < 12; ++at) {
      daemon.start(many, at, {5, 0, 120, 0});
    }
    daemon.start(one, 0, {5, 0, 120, 0});
    daemon.start(other, 0, {5, 0, 120, 0});
    std::vector<int> turns;
    for (int scan = 0; scan < 6; ++scan) {
      turns.push_back(process_aborted_in(daemon.scan()));
    }
    for (const int32_t process : {many.pid(), one.pid(), other.pid()}) {
      EXPECT_EQ(1, std::count(turns.begin(), turns.begin() + 3, process));
      EXPECT_EQ(1, std::count(turns.begin() + 3, turns.end(), process));
    }
  });
}

TEST_F(Watchdog, AfterAScanWithoutAHangTheFirstIsServedFirstAgain) {
  in_child([] {
    service one(1, true);
    service two(1, true);
    const daemon_side daemon;
    daemon.start(one, 0, {5, 0, 120, 0});
    daemon.start(two, 0, {5, 0, 120, 0});
    const std::string first = daemon.scan();
    one.report(0);
    two.report(0);
    EXPECT_EQ(0U, occurrences(daemon.scan(), "send SIGABRT"));
    daemon.reset(one, 0, {5, 0, 120, 0});
    daemon.reset(two, 0, {5, 0, 120, 0});
    const std::string again = daemon.scan();
    const auto target = [](const std::string& text) {
      const size_t at = text.find("send SIGABRT");
      return text.substr(at, text.find('\n', at) - at);
    };
    EXPECT_EQ(target(first), target(again));
  });
}

TEST_F(Watchdog, ThreadsMayRegisterWhileAHungProcessIsLookedAtAndWrittenAbout) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    EXPECT_TRUE(looked);
    EXPECT_TRUE(hang_file_synced);
    EXPECT_FALSE(chain_held);
  });
}

// The process may die of the signal at once, and the exit handler then drops its threads' registrations. It
// is this thread that drops it here: that is sure to be before the file is written.
TEST_F(Watchdog, AThreadWhoseRegistrationGoesWithItsAbortedProcessIsWrittenDownAsWatched) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    bool dropped = false;
    during_log_sync = [&] {
      const chain_lock hold(wex_alive_chains);
      wex_pid* const thread = __wex_find_pid(&wex_alive_chains, program.pid());
      if (thread != nullptr) {
        __wex_drop_thread(&wex_alive_chains, thread);
        dropped = true;
      }
    };
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    EXPECT_TRUE(dropped);
    EXPECT_EQ(1U, occurrences(read_file(kHung), "\nwatched:\nthread " + std::to_string(program.pid()) + " "))
        << read_file(kHung);
  });
}

// /proc may keep whoever asks waiting for as long as the process holds a lock of the kernel.
TEST_F(Watchdog, AHungProcessIsAbortedThoughTheLookAtItStandsStill) {
  in_child([] {
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    look_stands_still = true;
    const milliseconds taken = time_of([&] {
      std::thread release([] {
        eventually([] { return !look_stands_still; }, 20s);
        look_stands_still = false;
      });
      daemon.scans(1);
      EXPECT_TRUE(look_stands_still) << "the scan waited for the look";
      EXPECT_TRUE(program.aborted());
      look_stands_still = false;
      release.join();
    });
    EXPECT_GT(10s, taken) << "a second is what it may take on a quiet machine";
    EXPECT_EQ(1U, occurrences(read_file(kHung), " hung; 1 threads seen\nwatched:\n")) << read_file(kHung);
  });
}

TEST_F(Watchdog, OnlyTheHungProcessItselfIsAborted) {
  const struct {
    const char* name;
    std::function<void(service&)> during;
    std::function<void(process_look*)> after;
    bool aborted;
  } rows[] = {
      {"nothing happens", nullptr, nullptr, true},
      {"it ends", [](service& program) { program.end(); }, nullptr, false},
      {"another process has its pid", nullptr, [](process_look* seen) { ++seen->start_time; }, false},
      {"it cannot be seen", nullptr, [](process_look* seen) { seen->sight = process_look::unreadable; },
       true},
      {"it reports", [](service& program) { daemon_side::reset(program, 0, kShort); }, nullptr, false},
      {"it reports through the table", [](service& program) { program.report(0); }, nullptr, false},
  };
  for (const auto& row : rows) {
    in_child([&] {
      service program(1);
      const daemon_side daemon;
      daemon.start(program, 0, {5, 0, 120, 0});
      if (row.during) {
        during_look = [&] { row.during(program); };
      }
      after_look = row.after;
      daemon.scans(1);
      EXPECT_TRUE(looked) << row.name;
      EXPECT_EQ(row.aborted ? 1U : 0U, hangs_logged()) << row.name;
      EXPECT_EQ(row.aborted, exists(kHung)) << row.name;
      if (row.aborted) {
        EXPECT_TRUE(program.aborted()) << row.name;
      } else if (std::string(row.name) != "it ends") {
        EXPECT_TRUE(program.running()) << row.name;
      }
    });
    unlink(kNotifyLog);
    unlink(kHung);
  }
}

TEST_F(Watchdog, AHangIsReportedWithTheDomainOfItsProcess) {
  in_child([] {
    const gid_t group = 3300;
    ASSERT_EQ(0, setgroups(1, &group));
    service program(1);
    const daemon_side daemon;
    daemon.start(program, 0, {5, 0, 120, 0});
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    wex_status_event event = {};
    ASSERT_TRUE(wex_status_copy_event(0, &event));
    EXPECT_EQ(uint32_t{WEX_STATUS_EV_HANG}, event.kind);
    EXPECT_EQ(program.pid(), event.pid);
    EXPECT_EQ(3, event.domain);
  });
}

TEST_F(Watchdog, AThreadWithoutANameIsLoggedAsUnknown) {
  in_child([] {
    service program(3);
    const daemon_side daemon;
    daemon.start(program, 2, {5, 0, 120, 0});
    daemon.scans(1);
    EXPECT_TRUE(program.aborted());
    EXPECT_EQ(1U, occurrences(read_file(kNotifyLog), numbers("] thread unknown:%d hung.\n", program.tid(2))));
  });
}

// Its executable cannot be seen by a watchdog of another user, so nothing contradicts the registered text.
TEST_F(Watchdog, AProgramWithoutASlashIsLoggedByItsWholeCommandLine) {
  in_child([] {
    service program(1);
    ASSERT_EQ(0, system("mkdir -p /ovix/vsd/0/utils/wex && chmod -R 0777 /ovix"));
    ASSERT_EQ(0, setuid(kOtherUser));
    const daemon_side daemon;
    wex_pid* const rec = wex_new_record();
    rec->pid = rec->ppid = program.pid();
    strcpy(rec->process, "plain program");
    {
      const chain_lock hold(wex_alive_chains);
      __wex_add_record(&wex_alive_chains, rec);
    }
    daemon.scans(1);
    EXPECT_EQ(1U, occurrences(read_file(kNotifyLog),
                              numbers(" detect process:[plain program/%d] ", program.pid())));
  });
}

// event_world: what the tests of reported exits share: events as the kernel sends them, processes in each
// state of their end, and a registry that the test fills.
#pragma once

#include <pthread.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <time.h>

#include "parked_world.h"
#include "unique_fd.h"
#include "wex_core_event.h"
#include "wex_core_netlink.h"
#include "wex_core_process_event.h"
#include "wex_core_upkeep.h"

namespace event_world {

using namespace parked;

inline uint64_t now_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

inline process_event exit_of(int32_t pid, uint32_t code, uint64_t time_ns = now_ns()) {
  return {kEventExit, pid, pid, code, time_ns};
}

inline process_event thread_end(int32_t tid, int32_t pid, uint32_t code = 0) {
  process_event event = exit_of(pid, code);
  event.pid = tid;
  return event;
}

// A child that stays until it is told to go, or ended by the fixture.
inline pid_t lasting() {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
      pause();
    }
  }
  return child;
}

// Threads of children wait at it until it is opened, or gone.
struct gate {
  gate() {
    int ends[2];
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    inside.reset(ends[0]);
    outside.reset(ends[1]);
  }
  void open() { outside.reset(); }
  unique_fd inside, outside;
};

// A process that has ended, and that its parent, not we, will reap once the gate is open.
inline pid_t zombie_of_another(gate* hold) {
  int told[2];
  EXPECT_EQ(0, pipe2(told, O_CLOEXEC));
  if (fork() == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    hold->open();
    const pid_t ended = fork();
    if (ended == 0) {
      _exit(0);
    }
    char byte;
    (void)!write(told[1], &ended, sizeof ended);
    (void)!read(hold->inside.get(), &byte, 1);
    _exit(0);
  }
  pid_t ended = -1;
  EXPECT_EQ(static_cast<ssize_t>(sizeof ended), read(told[0], &ended, sizeof ended));
  close(told[0]);
  close(told[1]);
  return ended;
}

// A process whose main thread has ended while another one waits at the gate.
inline pid_t without_main_thread(gate* hold) {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    hold->open();
    static int input;
    input = hold->inside.get();
    pthread_t other;
    const auto wait_and_end = [](void*) -> void* {
      char byte;
      (void)!read(input, &byte, 1);
      syscall(SYS_exit, 0);  // this thread alone, and as the last one the process
      return nullptr;
    };
    if (pthread_create(&other, nullptr, wait_and_end, nullptr) == 0) {
      syscall(SYS_exit, 0);
    }
    _exit(1);
  }
  return child;
}

// Something that says nothing in the place of a process's file in /proc.
class unreadable_stat {
 public:
  explicit unreadable_stat(pid_t pid, const char* name = "stat")
      : path_("/proc/" + std::to_string(pid) + "/" + name) {
    write_file("/tmp/no_stat", "not a stat text");
    EXPECT_EQ(0, mount("/tmp/no_stat", path_.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
  }
  ~unreadable_stat() {
    if (exists(path_)) {  // else the process was reaped, and the mount has gone with it
      EXPECT_EQ(0, umount2(path_.c_str(), MNT_DETACH)) << strerror(errno);
    }
    unlink("/tmp/no_stat");
  }

 private:
  std::string path_;
};

class Event : public Parked {
 protected:
  void SetUp() override {
    Parked::SetUp();
    unlink(kBurstConfig);
  }
  void TearDown() override {
    EXPECT_EQ(-1, wex_judge_pending_exits()) << "an exit of this case would disturb the next one";
    Parked::TearDown();
  }

  static wex_pid* add(int32_t pid, const std::string& process = "/bin/sleep 1000") {
    wex_pid* const rec = wex_new_record();
    rec->pid = pid;
    rec->action = RESPAWN;
    snprintf(rec->process, sizeof rec->process, "%s", process.c_str());
    chain_lock hold(wex_chains);
    wex_note_identity(rec);
    __wex_add_record(&wex_chains, rec);
    return rec;
  }

  // Looks for lost exits at these times, when the monitor has read all that came before.
  static void sweep_at(std::initializer_list<int32_t> times) {
    wex_monitor_read_until = INT32_MAX;
    for (const int32_t now : times) {
      g_now = now;
      wex_sweep_lost_exits();
    }
  }

  // The record of a process whose main thread has ended.
  static wex_pid* add_without_main_thread(gate* hold, const std::string& process = "/bin/sleep 1000") {
    const pid_t child = without_main_thread(hold);
    EXPECT_GT(child, 0);
    wex_pid* const rec = add(child, process);
    EXPECT_TRUE(eventually([&] { return wex_look_at(child).state == 'Z'; }));
    return rec;
  }
  // Takes a child that lives on out of the registry, and ends it.
  static void end(wex_pid* rec) {
    ASSERT_GT(rec->pid, 1);
    send_signal(rec->pid, SIGKILL);
    waitpid(rec->pid, nullptr, 0);
    chain_lock hold(wex_chains);
    __wex_drop_record(&wex_chains, rec);
  }
  static int32_t pid_of(const wex_pid* rec) {
    chain_lock hold(wex_chains);
    return rec->pid;
  }
  static bool settled() { return wex_judge_pending_exits() == -1; }
};

inline constexpr uint32_t kDumped = 0x80 | SIGSEGV;

// Programs that are never restarted, so that only their crashes count.
inline wex_pid* crashing(wex_pid* rec) {
  rec->action = 7;
  return rec;
}

// The next end of a record that has no process.
inline void dump_core(wex_pid* rec) {
  rec->exit_seen = 0;
  rec->ended_by_ns = 0;
  wex_take_exit_event(exit_of(rec->pid, kDumped));
}

inline size_t reboots() {
  const std::string log = read_file(kRebootLog);
  size_t count = 0;
  for (size_t at = log.find("in shorttime["); at != std::string::npos;
       at = log.find("in shorttime[", at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace event_world

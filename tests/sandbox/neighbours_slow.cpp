// Bad neighbours and bad luck, at full size: what docs/security.md says was tried and held. Each case prints
// its figures.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <random>

#include "control_client.h"
#include "leak_gate.h"
#include "unique_fd.h"

using namespace control_client;

namespace {

using clock = std::chrono::steady_clock;

long since_ms(clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(clock::now() - start).count();
}

std::string tag_of(const std::string& command) {
  const size_t at = command.find("--tag=");
  return at == std::string::npos ? "" : command.substr(at + 6, command.find(' ', at) - at - 6);
}

// The living instances of every service, by its tag.
std::map<std::string, std::vector<pid_t>> instances() {
  std::map<std::string, std::vector<pid_t>> found;
  for (const std::string& entry : list_dir("/proc")) {
    const pid_t pid = atoi(entry.c_str());
    if (pid <= 0) {
      continue;
    }
    const std::string command = command_line(pid);
    if (command.find("--register=RESTART --tag=") != std::string::npos && is_alive(pid)) {
      found[tag_of(command)].push_back(pid);
    }
  }
  return found;
}

struct Stress : ControlChannel {
  void start_services(int count) {
    for (int at = 0; at < count; ++at) {
      services.emplace_back();
      ASSERT_TRUE(services.back().start(actor_words(
          {"--register=RESTART", "--tag=" + std::to_string(at), "--count=/tmp/registered", "--hold"})));
    }
    ASSERT_TRUE(eventually([&] { return starts() == count; }, 120s)) << starts();
    pids.clear();
    for (const Process& service : services) {
      pids.push_back(service.pid());
    }
  }
  static int starts() { return static_cast<int>(lines_of(read_file("/tmp/registered")).size()); }

  // Every service lives, with none of `old` among them; how many instances there are too many.
  int all_back(int count, const std::vector<pid_t>& old, milliseconds limit = 120s) {
    std::map<std::string, std::vector<pid_t>> now;
    EXPECT_TRUE(eventually(
        [&] {
          now = instances();
          return static_cast<int>(now.size()) == count &&
                 std::all_of(now.begin(), now.end(), [&](const auto& each) {
                   return std::any_of(each.second.begin(), each.second.end(), [&](pid_t pid) {
                     return std::find(old.begin(), old.end(), pid) == old.end();
                   });
                 });
        },
        limit))
        << now.size() << " of " << count << " services live";
    int twins = 0;
    for (const auto& [tag, pids_of_it] : now) {
      twins += static_cast<int>(pids_of_it.size()) - 1;
    }
    return twins;
  }
  void kill_services() {
    for (Process& service : services) {
      service.send(SIGKILL);
    }
    for (Process& service : services) {
      service.wait();
    }
  }
  std::vector<Process> services;
  std::vector<pid_t> pids;
};

// Forks, and forks that execute a program, until it goes out of scope.
class storm {
 public:
  explicit storm(int processes) {
    for (int at = 0; at < processes; ++at) {
      const pid_t pid = fork();
      if (pid == 0) {
        for (int round = 0;; ++round) {
          const pid_t child = fork();
          if (child == 0) {
            if (round % 2 == 0) {
              execl("/bin/true", "true", nullptr);
            }
            _exit(0);
          }
          if (child > 0) {
            waitpid(child, nullptr, 0);
          }
        }
      }
      pids_.push_back(pid);
    }
  }
  ~storm() {
    for (const pid_t pid : pids_) {
      if (pid > 0) {
        send_signal(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
  }
  storm(const storm&) = delete;
  storm& operator=(const storm&) = delete;

 private:
  std::vector<pid_t> pids_;
};

}  // namespace

TEST_F(Stress, AThousandDeathsAtOnceAllComeBack) {
  constexpr int kServices = 1000;
  start();
  start_services(kServices);
  const clock::time_point begin = clock::now();
  kill_services();
  EXPECT_EQ(0, all_back(kServices, pids));
  printf("\n1,000 deaths at once: all back after %ld ms\n", since_ms(begin));
}

TEST_F(Stress, FiftyDeathsInAForkStormAllComeBack) {
  constexpr int kServices = 50;
  start();
  start_services(kServices);
  const storm forks(4);
  const clock::time_point begin = clock::now();
  for (Process& service : services) {
    service.kill_now();
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(0, all_back(kServices, pids));
  printf("\n50 deaths in a storm of forks: all back after %ld ms\n", since_ms(begin));
}

// What dies while nobody can listen is found by the next daemon, what dies in the middle of a start as well.
TEST_F(Stress, RandomKillsOfTheDaemonLoseNoService) {
  constexpr int kServices = 20;
  constexpr int kKills = 310;
  start();
  start_services(kServices);
  std::mt19937 random(1);
  for (int round = 0; round < kKills; ++round) {
    const auto living = instances();
    if (!living.empty() && random() % 3 == 0) {
      const auto victim = std::next(living.begin(), static_cast<long>(random() % living.size()));
      ASSERT_GT(victim->second.front(), 0);
      send_signal(victim->second.front(), SIGKILL);
      for (Process& service : services) {
        service.running();  // reaps those that are ours
      }
    }
    std::this_thread::sleep_for(milliseconds(random() % 30));
    daemon.kill_now();
    ASSERT_TRUE(daemon.start_traced({"trace=none"})) << round;
    std::this_thread::sleep_for(milliseconds(random() % 100));
  }
  ASSERT_TRUE(daemon.wait_ready(30s));
  const int twins = all_back(kServices, {});
  EXPECT_EQ(0, twins);
  for (Process& service : services) {
    service.running();
  }
  printf("\n%d kills of the daemon: none of %d services lost, %d twins\n", kKills, kServices, twins);
}

TEST_F(Stress, AStoppedDaemonLosesNoService) {
  constexpr int kServices = 20;
  start();
  start_services(kServices);
  daemon.send(SIGSTOP);
  kill_services();
  std::this_thread::sleep_for(5s);  // not a wait for anything: the daemon stands still for so long
  const clock::time_point begin = clock::now();
  daemon.send(SIGCONT);
  EXPECT_EQ(0, all_back(kServices, pids));
  printf("\n20 deaths while the daemon was stopped: all back %ld ms after it went on\n", since_ms(begin));
}

// Clients that send the next valid message as soon as the last one is acknowledged, until it goes out of
// scope.
class busy_clients {
 public:
  busy_clients(size_t count, pid_t registered) {
    for (size_t at = 0; at < count; ++at) {
      clients_.push_back(std::make_unique<raw_client>());
      EXPECT_TRUE(clients_.back()->connected());
    }
    crowd_ = std::thread([this, registered] {
      for (const auto& client : clients_) {
        client->send_body(WEX_RESTART, body_of(registered));
      }
      while (!stop_) {
        for (const auto& client : clients_) {
          if (client->next(nullptr, 0ms) > 0) {
            client->send_body(WEX_RESTART, body_of(registered));
          }
        }
      }
    });
  }
  ~busy_clients() {
    stop_ = true;
    crowd_.join();
  }
  busy_clients(const busy_clients&) = delete;
  busy_clients& operator=(const busy_clients&) = delete;

 private:
  std::vector<std::unique_ptr<raw_client>> clients_;
  std::atomic<bool> stop_{false};
  std::thread crowd_;
};

TEST_F(Stress, BusyClientsDelayANewcomerByMilliseconds) {
  start();
  start_services(1);
  for (const size_t count : {200u, 1000u}) {
    const busy_clients crowd(count, pids[0]);
    std::vector<long> waits;
    for (int round = 0; round < 15; ++round) {
      const clock::time_point begin = clock::now();
      EXPECT_TRUE(serves());
      waits.push_back(since_ms(begin));
    }
    std::sort(waits.begin(), waits.end());
    EXPECT_GT(5000, waits.back());
    printf("\nbeside %zu busy clients: a newcomer waits %ld ms, %ld at most\n", count,
           waits[waits.size() / 2], waits.back());
  }
}

namespace {

bool was_injected(const std::string& trace) {
  return trace.find("INJECTED") != std::string::npos;
}

// Each with services to look after. Every one is killed four times at most, and so is not parked.
struct Failures : Stress {
  static constexpr int kServices = 20;

  pid_t kill_next_service() {
    const auto living = instances();
    if (living.empty()) {
      ADD_FAILURE() << "nothing is left";
      return 0;
    }
    const pid_t victim =
        std::next(living.begin(), static_cast<long>(turn_++ % living.size()))->second.front();
    EXPECT_GT(victim, 0);
    EXPECT_TRUE(send_signal(victim, SIGKILL));
    reap();
    return victim;
  }
  void reap() {
    for (Process& service : services) {
      service.running();
    }
  }
  void make_sure_of_a_daemon() {
    if (!daemon.running() || !serves()) {
      ++ended;
      daemon.kill_now();
      ASSERT_TRUE(daemon.start());
    }
  }
  // Each thread's next use of the call fails. False when none made it.
  bool fails_while_it_runs(const std::string& call) {
    // Not -f: the programs that it starts are to be spared.
    std::vector<std::string> words = {"strace",        "-q", "-o",
                                      "/tmp/failures", "-e", "inject=" + call + ":error=ENOMEM:when=1"};
    for (const std::string& thread : list_dir("/proc/" + std::to_string(daemon.pid()) + "/task")) {
      words.insert(words.end(), {"-p", thread});
    }
    Process tracer;
    EXPECT_TRUE(tracer.start(words));
    EXPECT_TRUE(eventually([&] { return status_field(daemon.pid(), "TracerPid") != "0"; }, 20s));
    const pid_t victim = kill_next_service();
    raw_client().send_body(WEX_CONS_MSG, harmless());
    eventually([&] { return !daemon.running(); }, 300ms);
    if (!daemon.running()) {
      make_sure_of_a_daemon();
    }
    EXPECT_EQ(0, all_back(kServices, {victim}, 70s));
    tracer.kill_now();
    make_sure_of_a_daemon();
    return was_injected(read_file("/tmp/failures"));
  }
  // The same from the beginning of a daemon on; its children are let alone once they execute their program.
  bool fails_at_the_start(const std::string& call) {
    daemon.kill_now();
    const pid_t victim = kill_next_service();
    EXPECT_TRUE(daemon.start_traced({"inject=" + call + ":error=ENOMEM:when=1", "-bexecve"}));
    eventually([&] { return !daemon.running() || serves(); }, 30s);
    make_sure_of_a_daemon();
    EXPECT_EQ(0, all_back(kServices, {victim}, 70s));
    const bool injected = was_injected(Daemon::trace());
    daemon.kill_now();  // its tracer would stand in the way of the next one
    EXPECT_TRUE(daemon.start());
    return injected;
  }
  int ended = 0;

 private:
  size_t turn_ = 0;
};

}  // namespace

// Either the daemon goes on, or it ends and the next one finds all.
TEST_F(Failures, OfAnyCallOnceLoseNoService) {
  // Not renameat and rename, which need something in the way, nor connect, which needs a system log.
  const char* const calls[] = {
      // clang-format off
      "openat", "read", "write", "pwrite64", "newfstatat", "readlink", "unlinkat", "mkdir", "mkdirat", "chmod",
      "fchmod", "fcntl", "getdents64", "lseek", "ftruncate", "fsync", "mmap", "clone3", "vfork", "pipe2", "wait4",
      "rt_sigprocmask", "sched_setscheduler", "prctl", "socket", "bind", "accept4", "sendto", "recvmsg", "recvfrom",
      "setsockopt", "epoll_ctl", "epoll_wait", "poll", "semget", "semctl",
      // clang-format on
  };
  const wex_test::leaves_behind orphan(wex_test::kSemaphores, "", 1,
                                       "a set that cannot be looked at is not taken over");
  start();
  start_services(kServices);
  for (const char* const call : calls) {
    SCOPED_TRACE(call);
    const bool failed = fails_while_it_runs(call) || fails_at_the_start(call);
    EXPECT_TRUE(failed) << "it is not called";
  }
  for (Process& service : services) {
    service.kill_now();
  }
  printf("\n%zu calls failed: the daemon ended %d times, and no service was lost\n", std::size(calls), ended);
}

// bad_neighbours: clients that do all they may and nothing they should, and well-behaved programs that
// register meanwhile. A short form of each is tried in every run, a long one in the slow set.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <thread>

#include "control_client.h"
#include "figures.h"
#include "restart_policy.h"
#include "status_reader.h"
#include "wex_sys_alive.h"

namespace bad_neighbours {

using namespace control_client;

// What a hostile record names instead of a process: no kernel gives such ids, and the bytes that come first
// in a record are zeros, so that one that is cut short does not name a process of this machine either.
constexpr int32_t kNobody[] = {0x41000000, 0x7f000000, -0x01000000, 0};

// Goes on in threads of its own until it goes out of scope; `round` does one thing and says how often.
class nuisance {
 public:
  nuisance(int threads, const std::function<long(unsigned)>& round) {
    for (int at = 0; at < threads; ++at) {
      threads_.emplace_back([this, round, at] {
        while (!stop_) {
          done_ += round(static_cast<unsigned>(at));
        }
      });
    }
  }
  ~nuisance() { stop(); }
  nuisance(const nuisance&) = delete;
  nuisance& operator=(const nuisance&) = delete;

  long done() const { return done_; }
  void stop() {
    stop_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<long> done_{0};
  std::vector<std::thread> threads_;
};

inline long made_in_a_second(const nuisance& flood) {
  const long before = flood.done();
  const stopwatch time;
  std::this_thread::sleep_for(1s);  // not a wait for anything: it is what is measured
  return (flood.done() - before) * 1000 / time.ms();
}

// ---- Records ----------------------------------------------------------------------------------------------

// Records of random bytes, and of registrations, reports and cancellations with some bytes or lengths
// changed.
class record_maker {
 public:
  explicit record_maker(unsigned seed) : random_(seed) {}

  std::string next() { return random_() % 4 == 0 ? noise() : mutated(); }

 private:
  std::string noise() {
    std::string record(random_() % 700, '\0');
    for (char& byte : record) {
      byte = static_cast<char>(random_());
    }
    make_harmless(&record);
    return record;
  }
  std::string mutated() {
    const uint32_t type = 1 + static_cast<uint32_t>(random_() % 5);
    std::string record(kHeader + (type == WEX_CONS_MSG ? sizeof(wex_cons_info) : sizeof(wex_reg_info)), '\0');
    auto length = static_cast<int32_t>(record.size() - kHeader);
    for (unsigned changes = random_() % 8; changes > 0; --changes) {
      record[random_() % record.size()] = static_cast<char>(random_());
    }
    memcpy(&record[0], &type, sizeof type);
    memcpy(&record[4], &length, sizeof length);
    switch (random_() % 8) {
      case 0:  // a length that lies
        length = static_cast<int32_t>(random_());
        memcpy(&record[4], &length, sizeof length);
        break;
      case 1:  // a record that ends early
        record.resize(random_() % record.size());
        break;
      case 2:  // a type that nobody knows
        record[0] = static_cast<char>(random_());
        break;
      default:
        break;
    }
    make_harmless(&record);
    return record;
  }
  // Wherever a message of any type names a process or a thread.
  void make_harmless(std::string* record) {
    for (size_t at = kHeader; at < kHeader + 8; at += sizeof(int32_t)) {
      const int32_t nobody = kNobody[random_() % std::size(kNobody)];
      for (size_t byte = 0; byte < sizeof nobody && at + byte < record->size(); ++byte) {
        (*record)[at + byte] = reinterpret_cast<const char*>(&nobody)[byte];
      }
    }
  }
  std::mt19937 random_;
};

// Has the daemon read `count` records over many connections, and connects again where it was dropped. How
// many it has read: behind each comes a message that is answered, so an answer or a hang-up says that the
// record before it was taken.
inline long send_records(long count, unsigned seed) {
  std::vector<std::unique_ptr<raw_client>> clients(64);
  record_maker records(seed);
  long taken = 0;
  while (taken < count) {
    for (auto& client : clients) {
      if (client == nullptr) {
        client = std::make_unique<raw_client>();
      }
      const std::string record = records.next();
      if (client->send_bytes(record.data(), record.size())) {
        client->send_body(WEX_CONS_MSG, harmless());
      }
    }
    for (auto& client : clients) {
      const ssize_t answer = client->next(nullptr, 20s);
      taken += answer >= 0 ? 1 : 0;
      const bool more = answer > 0 && client->next(nullptr, 0ms) != 0;
      if (!more) {
        client.reset();
      }
    }
  }
  return taken;
}

// ---- The neighbourhood ------------------------------------------------------------------------------------

struct Neighbours : ControlChannel {
  void SetUp() override {
    ControlChannel::SetUp();
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files_));
    const rlimit enough = {4096, std::max(files_.rlim_max, rlim_t{4096})};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &enough));
    start();
    memory_ = resident_kib();
    // Without those that asked whether it answers.
    never([&] { return sockets_ = std::min(sockets_, sockets_of(daemon.pid())), false; }, 200ms);
  }
  void TearDown() override {
    services.clear();
    setrlimit(RLIMIT_NOFILE, &files_);
    ControlChannel::TearDown();
  }

  // A well-behaved client's whole course: connection, request, and the answer that says that it was acted on.
  void ask() {
    const stopwatch time;
    const raw_client client;
    const bool answered = client.connected() && client.send_body(WEX_CONS_MSG, harmless()) &&
                          client.acknowledged() && client.send_body(WEX_CONS_MSG, harmless()) &&
                          client.acknowledged();
    waits.push_back(time.us());
    lost += answered ? 0 : 1;
    ++tried;
  }
  // Programs register with the library, one after the other.
  void register_services(int count) {
    for (int at = 0; at < count; ++at) {
      ask();
      services.push_back(std::make_unique<policy::Service>("good" + std::to_string(at)));
      lost += services.back()->start() ? 0 : 1;
      ++tried;
    }
  }
  // Whoever was registered comes back; the daemon is the one that was started, and holds nothing of the
  // others.
  void expect_all_well() {
    for (const auto& service : services) {
      service->end();
    }
    for (const auto& service : services) {
      const bool back = service->comes_back(60s);
      EXPECT_TRUE(back) << service->command();
      lost += back ? 0 : 1;
    }
    EXPECT_EQ(0, lost);
    EXPECT_TRUE(daemon.running()) << running_log();
    EXPECT_EQ(1u, occurrences(running_log(), ": Start.\r\n")) << running_log();
    EXPECT_TRUE(eventually([&] { return sockets_of(daemon.pid()) <= sockets_ + services.size(); }, 60s))
        << sockets_of(daemon.pid()) << " sockets, " << sockets_ << " before";
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these keep what was given back
    EXPECT_GT(memory_ + 8192, resident_kib()) << memory_ << " KiB before";
#endif
  }
  void tell(const std::string& load) const {
    tell_figures("programs register, die and come back", load, tried, lost,
                 "a client is answered after " + median_and_worst_ms(waits));
  }
  static size_t sockets_of(pid_t pid) {
    const std::vector<std::string> files = open_files_of(pid);
    return static_cast<size_t>(std::count_if(files.begin(), files.end(), [](const std::string& target) {
      return target.rfind("socket:", 0) == 0;
    }));
  }
  long resident_kib() const {
    return atol(status_field(daemon.pid(), "VmRSS").c_str());
  }

  // What is tried, with as many registrations, records and so on as there is time for.
  void beside_idle_clients(int registrations);
  void beside_clients_that_never_read(int registrations);
  void beside_clients_that_stop_in_the_middle(int registrations);
  void beside_garbage(int registrations);
  void beside_a_flood_of_connections(int registrations, long least_rate);
  void after_random_records(long records);
  void after_reports_of_every_thread();

  std::vector<std::unique_ptr<policy::Service>> services;
  std::vector<long> waits;
  long tried = 0, lost = 0;

 private:
  rlimit files_ = {};
  long memory_ = 0;
  size_t sockets_ = SIZE_MAX;
};

// The last place is the one that all the others take in turn: a connection more than the daemon has places
// ends it, so each waits until the one before has left.
inline void Neighbours::beside_idle_clients(int registrations) {
  std::vector<std::unique_ptr<child>> programs(static_cast<size_t>(registrations));
  for (auto& program : programs) {
    program = std::make_unique<child>();  // now, for it keeps copies of our descriptors
  }
  {
    const std::vector<raw_client> idle(kMaxClients - 1);
    const size_t crowded = sockets_ + idle.size();
    ASSERT_TRUE(eventually([&] { return sockets_of(daemon.pid()) == crowded; }, 60s))
        << sockets_of(daemon.pid());
    for (const auto& program : programs) {
      ASSERT_TRUE(eventually([&] { return sockets_of(daemon.pid()) <= crowded; }, 60s));
      const stopwatch time;
      const raw_client client;
      const bool answered = client.connected() && client.send_body(WEX_RESTART, body_of(program->pid())) &&
                            client.acknowledged() && client.send_body(WEX_CONS_MSG, harmless()) &&
                            client.acknowledged();
      waits.push_back(time.us());
      const bool known = eventually([&] { return StatusReader().slot_of(program->pid()).has_value(); }, 20s);
      lost += answered && known ? 0 : 1;
      ++tried;
    }
    for (const auto& program : programs) {  // they are copies of this test: nobody wants them back
      ASSERT_TRUE(eventually([&] { return sockets_of(daemon.pid()) <= crowded; }, 60s));
      const raw_client client;
      EXPECT_TRUE(client.send_body(WEX_CONS_MSG, wex_cons_info{WEX_CANCEL_PROC, program->pid()}));
      EXPECT_TRUE(client.acknowledged());
      EXPECT_TRUE(eventually([&] { return !StatusReader().slot_of(program->pid()).has_value(); }, 20s));
    }
  }
  register_services(1);
  expect_all_well();
  tell("2,047 idle clients");
}

inline void Neighbours::beside_clients_that_never_read(int registrations) {
  {
    nuisance deaf(4, [](unsigned) {
      const raw_client client;
      long sent = 0;
      while (sent < 5000 && client.send_body(WEX_CONS_MSG, harmless())) {
        ++sent;
      }
      return sent;
    });
    register_services(registrations);
    EXPECT_TRUE(eventually([&] { return deaf.done() > 1000; }, 60s));
  }
  expect_all_well();
  tell("4 clients that send without end and never read an answer");
}

inline void Neighbours::beside_clients_that_stop_in_the_middle(int registrations) {
  {
    nuisance halves(4, [](unsigned) {
      long sent = 0;
      for (const size_t size :
           {size_t{0}, size_t{1}, size_t{8}, kHeader - 1, kHeader, kHeader + 1, kHeader + 319}) {
        const raw_client client;
        sent += client.send_record(WEX_RESTART, sizeof(wex_reg_info), size) ? 1 : 0;
        client.next(nullptr, 20ms);  // stays connected until it is dropped
      }
      return sent;
    });
    register_services(registrations);
    EXPECT_TRUE(eventually([&] { return halves.done() > 50; }, 60s));
  }
  expect_all_well();
  tell("4 clients whose records stop in the middle");
}

inline void Neighbours::beside_garbage(int registrations) {
  long sent = 0;
  const stopwatch time;
  {
    nuisance garbage(2, [](unsigned thread) {
      thread_local unsigned round = 0;
      return send_records(2000, 1000 * thread + round++);
    });
    register_services(registrations);
    EXPECT_TRUE(eventually([&] { return garbage.done() > 2000; }, 60s));
    garbage.stop();
    sent = garbage.done();
  }
  const long rate = sent * 1000 / std::max(time.ms(), 1L);
  expect_all_well();
  tell("random records, " + std::to_string(rate) + " a second");
}

// The best of some seconds must reach `least_rate`: a machine that has other work has a free second in a
// while.
inline void Neighbours::beside_a_flood_of_connections(int registrations, long least_rate) {
  long made = 0;
  const stopwatch time;
  {
    nuisance flood(2, [](unsigned) { return raw_client().connected() ? 1L : 0L; });
    register_services(registrations);
    EXPECT_TRUE(eventually([&] { return flood.done() > 2000; }, 60s));
    long best = 0;
    EXPECT_TRUE(
        eventually([&] { return (best = std::max(best, made_in_a_second(flood))) >= least_rate; }, 120s))
        << best << " connections in a second at the most";
    flood.stop();
    made = flood.done();
  }
  const long rate = made * 1000 / std::max(time.ms(), 1L);
  expect_all_well();
  tell("clients that connect and leave, " + std::to_string(rate) + " a second");
}

inline void Neighbours::after_random_records(long records) {
  register_services(2);
  tried = send_records(records, 1);
  ask();
  expect_all_well();
  tell_figures("random and mutated records", "64 connections", tried, lost,
               "the senders are dropped, services come back");
}

// Every byte of the table that programs share with the daemon, by whoever has opened it, and a report for
// every thread id that no process can have here, by message.
inline void Neighbours::after_reports_of_every_thread() {
  register_services(2);
  {
    const unique_fd table(open(kAliveTableFile, O_RDWR | O_CLOEXEC));
    const std::string marks(WEX_ALIVE_SEQ_OFFSET - WEX_ALIVE_BITMAP_OFFSET, '\xff');
    const std::string bumps(kAliveTableSize - WEX_ALIVE_SEQ_OFFSET, '\x55');
    ASSERT_EQ(static_cast<ssize_t>(marks.size()),
              pwrite(table.get(), marks.data(), marks.size(), WEX_ALIVE_BITMAP_OFFSET));
    ASSERT_EQ(static_cast<ssize_t>(bumps.size()),
              pwrite(table.get(), bumps.data(), bumps.size(), WEX_ALIVE_SEQ_OFFSET));
  }
  constexpr int32_t kBehindTheTable = 163850;
  const int32_t first = atoi(read_file("/proc/sys/kernel/pid_max").c_str()) + 1;
  std::vector<std::unique_ptr<raw_client>> clients(64);
  for (int32_t tid = first; tid < std::max(first + 100, kBehindTheTable); ++tid, ++tried) {
    auto& client = clients[static_cast<size_t>(tid) % clients.size()];
    wex_reg_info body = body_of(tid);
    body.ppid = tid;
    body.ntfy_cnt = body.cur_cnt = 5;
    body.ntfy_time = 120;
    if (client == nullptr || !client->send_body(WEX_NOTIFIER_RESET, body)) {
      client = std::make_unique<raw_client>();
      EXPECT_TRUE(client->send_body(WEX_NOTIFIER_RESET, body)) << tid;
    }
  }
  ask();
  clients.clear();
  expect_all_well();
  tell_figures("reports of threads, of every id", "the whole table, and a message each", tried, lost,
               "refused, services come back");
}

}  // namespace bad_neighbours

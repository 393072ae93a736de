// wex_status_file and wex_status_image: what readers see of the registry, whatever lies at the table's name
// and whatever becomes of the table.
#include "wex_status_file.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <atomic>
#include <random>

#include "chain_lock.h"
#include "status_reader.h"
#include "text_buffer.h"
#include "unit_support.h"
#include "wex_chain.h"
#include "wex_core_watched_threads.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_status_image.h"

using namespace unit;

namespace {
std::atomic<int32_t> clock_ahead{0};  // ms; 32-bit MIPS has no wider atomic number
}  // namespace

// The milliseconds of the product, as these cases want them.
extern "C" int64_t __real__Z12wex_clock_msv();
extern "C" int64_t __wrap__Z12wex_clock_msv() {
  return __real__Z12wex_clock_msv() + clock_ahead;
}

// What becomes of the write with this number; those before it and behind it succeed.
namespace {
enum class fate { success, error, half, death };
fate fate_of_write = fate::success;
int writes_before = 0;

ssize_t write_or_fail(ssize_t (*real)(int, const void*, size_t, off64_t), int fd, const void* bytes,
                      size_t size, off64_t at) {
  if (fate_of_write == fate::success || writes_before-- != 0) {
    return real(fd, bytes, size, at);
  }
  if (fate_of_write == fate::death) {
    _exit(0);
  }
  if (fate_of_write == fate::half) {
    return real(fd, bytes, size / 2, at);
  }
  errno = EIO;
  return -1;
}
}  // namespace

extern "C" ssize_t __real_pwrite64(int fd, const void* bytes, size_t size, off64_t at);
extern "C" ssize_t __wrap_pwrite64(int fd, const void* bytes, size_t size, off64_t at) {
  return write_or_fail(__real_pwrite64, fd, bytes, size, at);
}
extern "C" ssize_t __wrap_pwrite(int fd, const void* bytes, size_t size, off_t at) {
  return write_or_fail(__real_pwrite64, fd, bytes, size, at);
}

// One byte each: nothing else is written so.
namespace {
std::atomic<int> writes_made{0};
}  // namespace

extern "C" ssize_t __real_write(int fd, const void* bytes, size_t size);
extern "C" ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
  writes_made += size == 1 ? 1 : 0;
  return __real_write(fd, bytes, size);
}

namespace {

void a_minute_passes() {
  clock_ahead += 60000;
}

constexpr char kRunningLogDir[] = "/ovix/vsd/0/utils/wex";

// The image belongs to the process and is never emptied: a case works in a child of its own.
class StatusTable : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    make_dirs(kRunningLogDir);
  }
  void TearDown() override {
    remove_tree("/ovix");
    Sandboxed::TearDown();
  }
  static std::string running_log() { return read_file(kRunningLog1); }
};

// A registry with one record for each number.
wex_pid* add(int32_t pid, const char* process = "/usr/bin/service -a 1") {
  wex_pid* const rec = wex_new_record();
  rec->pid = pid;
  rec->vsd = 3;
  rec->action = RESPAWN;
  wex_copy_text(rec->process, sizeof rec->process, process);
  const chain_lock hold(wex_chains);
  __wex_add_record(&wex_chains, rec);
  return rec;
}

// How many parts have an odd sequence number.
int parts_being_written() {
  const unique_fd file(open(kStatusTable, O_RDONLY));
  int odd = 0;
  const auto look = [&](size_t at) {
    uint32_t seq = 0;
    odd += pread(file.get(), &seq, sizeof seq, static_cast<off_t>(at)) == ssize_t{sizeof seq} && seq % 2 != 0;
  };
  look(offsetof(wex_status_head, seq));
  for (size_t at = 0; at < WEX_STATUS_THREADS; ++at) {
    look(offsetof(wex_status_head, threads) + at * sizeof(wex_status_thread));
  }
  for (size_t at = 0; at < 4; ++at) {
    look(WEX_STATUS_HEAD_SIZE + at * sizeof(wex_status_slot));
  }
  for (size_t at = 0; at < WEX_STATUS_EVENTS; ++at) {
    look(WEX_STATUS_EVENTS_AT + at * sizeof(wex_status_event));
  }
  return odd;
}

void drop(wex_pid* rec) {
  const chain_lock hold(wex_chains);
  __wex_drop_record(&wex_chains, rec);
}

void start() {
  wex_init_chains(&wex_chains);
  wex_status_open();
}

}  // namespace

TEST_F(StatusTable, ShowsTheDaemonWhoeverLooks) {
  in_child([] {
    umask(0077);
    start();
    EXPECT_EQ(0644U, mode_of(kStatusTable));
    struct stat facts = {};
    ASSERT_EQ(0, stat(kStatusTable, &facts));
    EXPECT_EQ(WEX_STATUS_FILE_SIZE, facts.st_size);
    EXPECT_LE(facts.st_blocks * 512, 64 * 1024) << "no memory for slots that are not in use";
    const StatusReader reader;
    const wex_status_head head = reader.head();
    EXPECT_STREQ(WEX_STATUS_MAGIC, head.magic);
    EXPECT_EQ(uint32_t{WEX_STATUS_BYTE_ORDER}, head.byte_order);
    EXPECT_EQ(getpid(), head.daemon_pid);
    EXPECT_EQ(1U, head.generation);
    EXPECT_EQ(0U, head.flags);
    EXPECT_EQ(read_file("/proc/sys/kernel/random/boot_id"), std::string(head.boot_id) + "\n");
    EXPECT_EQ("1", reader.kinds());
    wex_status_end();
    EXPECT_EQ(uint32_t{WEX_STATUS_ENDED}, reader.head().flags);
    EXPECT_EQ("1 19", reader.kinds());
  });
}

TEST_F(StatusTable, ASlotFollowsItsRegistration) {
  in_child([] {
    start();
    wex_pid* const rec = add(100);
    wex_status_tell(WEX_STATUS_EV_REGISTERED, rec);
    wex_status_publish();
    const StatusReader reader;
    auto slot = reader.slot_of(100);
    ASSERT_TRUE(slot);
    EXPECT_STREQ("service", slot->name);
    EXPECT_STREQ("/usr/bin/service -a 1", slot->command);
    EXPECT_EQ(3, slot->domain);
    EXPECT_EQ(WEX_STATUS_RUNNING, slot->state);
    EXPECT_GT(slot->registered, 0);
    EXPECT_EQ(-1, slot->fewest_misses);
    wex_status_tell(WEX_STATUS_EV_EXITED, rec, {0, 0, 139});
    wex_status_publish();
    slot = reader.slot_of(100);
    ASSERT_TRUE(slot);
    EXPECT_EQ(WEX_STATUS_RESTARTING, slot->state);
    EXPECT_EQ(139U, slot->last_exit);
    EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(slot->last_exit_wall), 5);
    rec->pid = 101;
    wex_status_tell(WEX_STATUS_EV_RESTARTED, rec, {100, 101});
    wex_status_publish();
    slot = reader.slot_of(101);
    ASSERT_TRUE(slot);
    EXPECT_EQ(WEX_STATUS_RUNNING, slot->state);
    EXPECT_EQ(1U, slot->restarts);
    EXPECT_EQ(1U, reader.counter(WEX_STATUS_EXITS));
    EXPECT_EQ(1U, reader.counter(WEX_STATUS_RESTARTS));
    drop(rec);
    wex_status_publish();
    EXPECT_TRUE(reader.slots().empty());
    EXPECT_EQ("1 2 4 5", reader.kinds());
    EXPECT_EQ(100, reader.events()[3].pid);
    EXPECT_EQ(101, reader.events()[3].new_pid);
  });
}

TEST_F(StatusTable, RegistrationsBeyondTheLastSlotAreCounted) {
  in_child([] {
    start();
    for (int32_t pid = 1; pid <= WEX_STATUS_SLOTS + 5; ++pid) {
      add(pid);
    }
    wex_status_publish();
    const StatusReader reader;
    EXPECT_EQ(size_t{WEX_STATUS_SLOTS}, reader.slots().size());
    EXPECT_EQ(5U, reader.counter(WEX_STATUS_NOT_SHOWN));
    {
      const chain_lock hold(wex_chains);
      for (int32_t pid = 1; pid <= WEX_STATUS_SLOTS + 5; ++pid) {
        __wex_del_pid(&wex_chains, pid);
      }
    }
    add(7);
    wex_status_publish();
    EXPECT_EQ(0U, reader.counter(WEX_STATUS_NOT_SHOWN));
    EXPECT_EQ(1U, reader.slots().size());
  });
}

TEST_F(StatusTable, AFreedSlotGoesToARegistrationThatFoundNone) {
  in_child([] {
    wex_init_chains(&wex_alive_chains);
    wex_init_chains(&wex_chains_delay);
    start();
    std::vector<wex_pid*> recs;
    for (int32_t pid = 1; pid <= WEX_STATUS_SLOTS + 5; ++pid) {
      recs.push_back(add(pid));
    }
    wex_pid* const hidden = recs.back();
    hidden->alarm_wait_flag = 1;
    recs[recs.size() - 2]->restart_failed = 1;
    recs[recs.size() - 3]->exit_seen = 1;
    wex_show_watched_threads();
    wex_status_publish();
    const StatusReader reader;
    EXPECT_EQ(5U, reader.counter(WEX_STATUS_NOT_SHOWN));
    EXPECT_EQ(3U, reader.counter(WEX_STATUS_HIDDEN_TROUBLES));
    for (size_t at = 0; at < 4; ++at) {
      drop(recs[at]);
    }
    wex_show_watched_threads();
    drop(recs[4]);
    wex_show_watched_threads();
    wex_status_publish();
    EXPECT_EQ(0U, reader.counter(WEX_STATUS_NOT_SHOWN));
    EXPECT_EQ(0U, reader.counter(WEX_STATUS_HIDDEN_TROUBLES));
    EXPECT_EQ(size_t{WEX_STATUS_SLOTS}, reader.slots().size());
    const auto shown = reader.slot_of(hidden->pid);
    ASSERT_TRUE(shown);
    EXPECT_EQ(WEX_STATUS_PARKED, shown->state);
    EXPECT_EQ(WEX_STATUS_DOWN, reader.slot_of(hidden->pid - 1)->state);
    EXPECT_EQ(WEX_STATUS_DOWN, reader.slot_of(hidden->pid - 2)->state);
  });
}

// The registry must not wait for whoever has the chain of threads, and what was shown stays.
TEST_F(StatusTable, WatchedThreadsAreLeftAsTheyAreWhileTheirChainIsHeld) {
  in_child([] {
    wex_init_chains(&wex_alive_chains);
    wex_init_chains(&wex_chains_delay);
    start();
    wex_pid* const rec = add(100);
    wex_status_watched(rec, 2, 5);
    {
      const chain_lock hold(wex_alive_chains);
      std::thread([] { wex_show_watched_threads(); }).join();
    }
    wex_status_publish();
    EXPECT_EQ(2, StatusReader().slot_of(100)->watched_threads);
    wex_show_watched_threads();
    wex_status_publish();
    EXPECT_EQ(0, StatusReader().slot_of(100)->watched_threads);
  });
}

// What may lie at the name, and what becomes of it.
TEST_F(StatusTable, WhateverLiesAtTheNameMakesRoom) {
  const struct {
    const char* told;
    std::function<void()> make;
    bool kept;  // under another name
  } rows[] = {
      {"nothing", [] {}, false},
      {"empty directory", [] { mkdir(kStatusTable, 0700); }, false},
      {"directory", [] { make_dirs(std::string(kStatusTable) + "/x"); }, true},
      {"link", [] { EXPECT_EQ(0, symlink("/tmp/victim", kStatusTable)); }, true},
      {"FIFO", [] { EXPECT_EQ(0, mkfifo(kStatusTable, 0666)); }, false},
      {"text of root's", [] { write_file(kStatusTable, "precious"); }, true},
      {"another user's file",
       [] {
         write_file(kStatusTable, "theirs");
         EXPECT_EQ(0, chown(kStatusTable, kOtherUser, kOtherUser));
       },
       true},
      {"second name",
       [] {
         write_file("/dev/shm/other", "other");
         EXPECT_EQ(0, link("/dev/shm/other", kStatusTable));
       },
       true},
      {"table of another version",
       [] {
         std::string old(WEX_STATUS_FILE_SIZE, '\0');
         old.replace(0, 8, WEX_STATUS_MAGIC, 8);
         write_file(kStatusTable, old);
       },
       false},
  };
  write_file("/tmp/victim", "precious");
  for (const auto& row : rows) {
    row.make();
    in_child([&] {
      start();
      const StatusReader reader;
      ASSERT_TRUE(reader.valid()) << row.told;
      EXPECT_EQ(1U, reader.head().generation) << row.told;
      EXPECT_EQ("1", reader.kinds()) << row.told;
      EXPECT_EQ(0644U, mode_of(kStatusTable)) << row.told;
      const std::string log = running_log();
      EXPECT_EQ(row.kept,
                log.find("/dev/shm/wex-status was in the way and is now /dev/shm/aside-") != log.npos)
          << row.told << "\n"
          << log;
    });
    EXPECT_EQ("precious", read_file("/tmp/victim")) << row.told;
    for (const std::string& name : list_dir("/dev/shm")) {
      remove_tree("/dev/shm/" + name);
    }
    unlink(kRunningLog1);
  }
}

TEST_F(StatusTable, TheNextDaemonGoesOnWithTheEventsAndMendsWhatWasHalfWritten) {
  in_child([] {
    start();
    wex_pid* const rec = add(100);
    for (int i = 0; i < 20; ++i) {
      wex_status_tell(WEX_STATUS_EV_EXITED, rec);
    }
    wex_status_publish();
  });
  {
    const unique_fd file(open(kStatusTable, O_RDWR));
    const uint32_t odd = 7;  // as a daemon leaves it that is killed in the middle of this event
    ASSERT_EQ(4, pwrite(file.get(), &odd, 4, WEX_STATUS_EVENTS_AT + 3 * sizeof(wex_status_event)));
  }
  in_child([] {
    const StatusReader before;
    EXPECT_EQ(1U, before.slots().size());
    EXPECT_FALSE(before.event(3));
    start();
    const StatusReader reader;
    EXPECT_EQ(2U, reader.head().generation);
    EXPECT_TRUE(reader.slots().empty());
    EXPECT_EQ(21U, reader.events().size()) << "20 exits, less the torn one, and two starts";
    ASSERT_TRUE(reader.event(3));
    EXPECT_EQ(0U, reader.event(3)->kind);
    EXPECT_EQ(2U, reader.events().back().generation);
    EXPECT_EQ("", running_log());
  });
}

TEST_F(StatusTable, AnEventThatCannotHaveHappenedIsNotTakenOver) {
  const struct {
    const char* told;
    void (*change)(wex_status_event*);
    bool taken;
  } rows[] = {
      {"as it was", [](wex_status_event*) {}, true},
      {"no process found", [](wex_status_event* event) { event->pid = event->new_pid = -1; }, true},
      {"pid", [](wex_status_event* event) { event->pid = -2; }, false},
      {"new pid", [](wex_status_event* event) { event->new_pid = -2; }, false},
      {"domain", [](wex_status_event* event) { event->domain = 1000000; }, false},
      {"kind", [](wex_status_event* event) { event->kind = WEX_STATUS_EV_KINDS; }, false},
      {"time", [](wex_status_event* event) { event->monotonic = INT64_MAX; }, false},
      {"no reason", [](wex_status_event* event) { event->value = WEX_STATUS_REBOOT_BURST + 1; }, false},
      {"negative reason", [](wex_status_event* event) { event->value = -1; }, false},
  };
  for (const auto& row : rows) {
    in_child([] {
      start();
      wex_status_tell_of(WEX_STATUS_EV_REBOOT_ASKED, 100, "x", {0, 0, 0, WEX_STATUS_REBOOT_BURST});
      wex_status_publish();
    });
    {
      const unique_fd file(open(kStatusTable, O_RDWR));
      wex_status_event event = {};
      constexpr off_t kAt = WEX_STATUS_EVENTS_AT + sizeof event;
      ASSERT_EQ(ssize_t{sizeof event}, pread(file.get(), &event, sizeof event, kAt));
      row.change(&event);
      ASSERT_EQ(ssize_t{sizeof event}, pwrite(file.get(), &event, sizeof event, kAt));
    }
    in_child([&] {
      start();
      EXPECT_EQ(row.taken ? "1 15 1" : "1 1", StatusReader().kinds()) << row.told;
    });
    unlink(kStatusTable);
  }
}

TEST_F(StatusTable, RandomBytesInATableThatIsTakenOverDoNoHarm) {
  std::mt19937 random(15);
  for (int round = 0; round < 20; ++round) {
    in_child([] {
      start();
      wex_status_publish();
    });
    {
      const unique_fd file(open(kStatusTable, O_RDWR));
      wex_status_head head = {};
      ASSERT_EQ(ssize_t{sizeof head}, pread(file.get(), &head, sizeof head, 0));
      std::string ring(WEX_STATUS_EVENTS * sizeof(wex_status_event), '\0');
      for (char& byte : ring) {
        byte = static_cast<char>(random());
      }
      // A few that look right but for their texts: they are taken, and what is printed is printable.
      for (uint32_t number = 0; number < 4; ++number) {
        wex_status_event event = {};
        event.number = head.event_next - 1 - number;
        event.kind = WEX_STATUS_EV_EXITED;
        event.generation = 1;
        memset(event.name, '\033', sizeof event.name);
        memcpy(&ring[event.number % WEX_STATUS_EVENTS * sizeof event], &event, sizeof event);
      }
      ASSERT_EQ(static_cast<ssize_t>(ring.size()),
                pwrite(file.get(), ring.data(), ring.size(), WEX_STATUS_EVENTS_AT));
      head.slots_used = static_cast<uint32_t>(random());
      head.event_next = round % 2 == 0 ? head.event_next : static_cast<uint32_t>(random());
      head.generation = static_cast<uint32_t>(random() | 1U);
      ASSERT_EQ(ssize_t{sizeof head}, pwrite(file.get(), &head, sizeof head, 0));
    }
    in_child([] {
      start();
      wex_status_publish();
      const StatusReader reader;
      EXPECT_EQ(WEX_STATUS_EV_DAEMON_STARTED, reader.events().back().kind);
      EXPECT_LE(reader.events().size(), 5U);
      for (const wex_status_event& event : reader.events()) {
        EXPECT_LT(event.kind, uint32_t{WEX_STATUS_EV_KINDS});
        EXPECT_EQ(nullptr, memchr(event.name, '\033', sizeof event.name));
      }
    });
    unlink(kStatusTable);
  }
}

TEST_F(StatusTable, ATableThatIsCutShortOrRemovedIsWholeAgain) {
  in_child([] {
    start();
    wex_pid* const rec = add(100);
    wex_status_tell(WEX_STATUS_EV_REGISTERED, rec);
    wex_status_publish();
    ASSERT_EQ(0, truncate(kStatusTable, 100));
    wex_status_tell(WEX_STATUS_EV_EXITED, rec);
    wex_status_publish();
    {
      const StatusReader reader;
      EXPECT_EQ("1 2 4", reader.kinds());
      EXPECT_EQ(getpid(), reader.head().daemon_pid);
      ASSERT_EQ(1U, reader.slots().size());
      EXPECT_EQ(WEX_STATUS_RESTARTING, reader.slots()[0].state);
    }
    for (const bool renamed : {false, true}) {
      ASSERT_EQ(0, renamed ? rename(kStatusTable, "/dev/shm/elsewhere") : unlink(kStatusTable));
      wex_status_publish();  // found: it is made anew at the next try
      a_minute_passes();
      wex_status_publish();
      const StatusReader reader;
      ASSERT_TRUE(reader.valid());
      EXPECT_EQ("1 2 4", reader.kinds());
      EXPECT_EQ(1U, reader.slots().size());
    }
    unlink("/dev/shm/elsewhere");
  });
}

TEST_F(StatusTable, WithoutMemoryWhatHasNoneIsCountedAndComesLater) {
  ASSERT_EQ(0, mount("unit", "/dev/shm", "tmpfs", MS_REMOUNT, "nr_blocks=20"));
  in_child([] {
    start();
    for (int32_t pid = 1; pid <= 300; ++pid) {
      wex_status_tell(pid == 300 ? WEX_STATUS_EV_PARKED : WEX_STATUS_EV_REGISTERED, add(pid));
    }
    wex_status_publish();
    const StatusReader reader;
    const size_t shown = reader.slots().size();
    EXPECT_GT(shown, 10U);
    EXPECT_LT(shown, 300U);
    EXPECT_EQ(300 - shown, reader.counter(WEX_STATUS_NOT_SHOWN));
    EXPECT_EQ(1U, reader.counter(WEX_STATUS_HIDDEN_TROUBLES)) << "the last one";
    EXPECT_NE(std::string::npos,
              running_log().find("/dev/shm/wex-status cannot be written, not all is shown: No space left"));
    EXPECT_EQ(0, mount("unit", "/dev/shm", "tmpfs", MS_REMOUNT, "nr_blocks=300"));
    wex_status_publish();
    EXPECT_EQ(300U, reader.slots().size());
    EXPECT_EQ(0U, reader.counter(WEX_STATUS_NOT_SHOWN));
    EXPECT_EQ(1U, lines_of(running_log()).size()) << running_log();
  });
}

TEST_F(StatusTable, ATableThatCannotBeMadeStopsNothingAndIsLoggedOnce) {
  ASSERT_EQ(0, mount("unit", "/dev/shm", "tmpfs", MS_REMOUNT | MS_RDONLY, ""));
  in_child([] {
    start();
    wex_pid* const rec = add(100);
    wex_status_tell(WEX_STATUS_EV_REGISTERED, rec);
    a_minute_passes();
    wex_status_publish();
    EXPECT_FALSE(exists(kStatusTable));
    EXPECT_NE(std::string::npos,
              running_log().find(
                  "/dev/shm/wex-status cannot be made, what wex does is not shown: Read-only file system."));
    EXPECT_EQ(1U, lines_of(running_log()).size()) << running_log();
    EXPECT_EQ(0, mount("unit", "/dev/shm", "tmpfs", MS_REMOUNT, ""));
    a_minute_passes();
    wex_status_publish();
    EXPECT_EQ("1 2", StatusReader().kinds());
  });
}

namespace {

// Copies the part as a reader does that maps the table; false when it changed meanwhile.
template <typename Part>
bool copy_whole(const char* base, size_t offset, Part* copy) {
  const auto* const part = reinterpret_cast<const Part*>(base + offset);
  const uint32_t before = __atomic_load_n(&part->seq, __ATOMIC_ACQUIRE);
  memcpy(copy, part, sizeof *copy);
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  return before % 2 == 0 && before == __atomic_load_n(&part->seq, __ATOMIC_RELAXED);
}

}  // namespace

// Readers at full speed never see a part that is torn: all of it was written by one call.
TEST_F(StatusTable, ReadersSeeWholePartsWhileTheyChange) {
  in_child([] {
    start();
    wex_pid* const rec = add(100);
    wex_status_thread_is(kStatusServer);
    wex_status_publish();
    std::atomic<bool> stop{false};
    std::thread writer([&] {
      for (int32_t round = 1; !stop; ++round) {
        rec->pid = rec->vsd = rec->restart_delay = round;
        rec->start_time = static_cast<uint64_t>(round);
        wex_status_tell(WEX_STATUS_EV_EXITED, rec, {round, round, static_cast<uint32_t>(round), round});
        clock_ahead += 1;
        wex_status_busy(kStatusServer);
        wex_status_publish();
      }
    });
    const unique_fd file(open(kStatusTable, O_RDONLY));
    auto* const base =
        static_cast<const char*>(mmap(nullptr, WEX_STATUS_FILE_SIZE, PROT_READ, MAP_SHARED, file.get(), 0));
    ASSERT_NE(MAP_FAILED, base);
    int slots = 0;
    int events = 0;
    int threads = 0;
    wex_status_slot slot;
    wex_status_event event;
    wex_status_thread thread;
    const auto end = steady_clock::now() + 300ms;
    for (size_t at = 0; steady_clock::now() < end || slots < 1000 || events < 1000 || threads < 1000; ++at) {
      if (copy_whole(base, WEX_STATUS_HEAD_SIZE, &slot) && slot.pid != 100) {
        ++slots;
        ASSERT_TRUE(slot.pid == slot.domain && slot.pid == slot.restart_delay &&
                    slot.last_exit == static_cast<uint32_t>(slot.pid) &&
                    slot.pid_start == static_cast<uint64_t>(slot.pid));
      }
      if (copy_whole(base, WEX_STATUS_EVENTS_AT + at % WEX_STATUS_EVENTS * sizeof event, &event) &&
          event.kind == WEX_STATUS_EV_EXITED) {
        ++events;
        ASSERT_TRUE(event.pid == event.new_pid && event.pid == event.value &&
                    event.exit_code == static_cast<uint32_t>(event.pid) &&
                    event.number % WEX_STATUS_EVENTS == at % WEX_STATUS_EVENTS);
      }
      if (copy_whole(base, offsetof(wex_status_head, threads) + kStatusServer * sizeof thread, &thread) &&
          thread.busy_since != 0) {
        ++threads;
        ASSERT_EQ(thread.last_pass, thread.busy_since);
      }
    }
    stop = true;
    writer.join();
  });
}

TEST_F(StatusTable, AWriterThatIsKilledLeavesAtMostOnePartBeingWritten) {
  std::mt19937 random(15);
  for (int round = 0; round < 100; ++round) {
    fflush(stdout);
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      start();
      wex_pid* const recs[] = {add(1), add(2), add(3)};
      for (;;) {
        for (wex_pid* const rec : recs) {
          wex_status_tell(WEX_STATUS_EV_EXITED, rec);
        }
        wex_status_publish();
      }
    }
    usleep(static_cast<useconds_t>(random() % 3000));
    ASSERT_GT(writer, 0);
    wex_test::send_signal(writer, SIGKILL);
    ASSERT_EQ(writer, waitpid(writer, nullptr, 0));
    ASSERT_LE(parts_being_written(), 1) << "round " << round;
  }
}

namespace {

constexpr char kAllWritten[] = "/tmp/all_written";

// A daemon's first moments, with one write that has this fate. Notes when there are no more writes than that.
void live_through(fate what, int number) {
  fate_of_write = what;
  writes_before = number;
  start();
  for (int32_t pid = 1; pid <= 3; ++pid) {
    wex_status_tell(WEX_STATUS_EV_REGISTERED, add(pid));
  }
  wex_status_thread_is(kStatusServer);
  wex_status_busy(kStatusServer);
  wex_status_publish();
  const chain_lock hold(wex_chains);
  wex_status_tell(WEX_STATUS_EV_EXITED, __wex_find_pid(&wex_chains, 2));
  wex_status_publish();
  fate_of_write = fate::success;
  if (writes_before >= 0) {
    write_file(kAllWritten, "");
  }
}

}  // namespace

TEST_F(StatusTable, WhicheverWriteFailsTheNextPassesShowAll) {
  for (const fate what : {fate::error, fate::half}) {
    for (int number = 0; !exists(kAllWritten); ++number) {
      ASSERT_LT(number, 1000);
      in_child([&] {
        live_through(what, number);
        a_minute_passes();
        wex_status_publish();
        const StatusReader reader;
        ASSERT_TRUE(reader.valid()) << number;
        EXPECT_EQ(0, parts_being_written()) << number;
        EXPECT_EQ("1 2 2 2 4", reader.kinds()) << number;
        EXPECT_EQ(3U, reader.slots().size()) << number;
        EXPECT_EQ(1U, reader.counter(WEX_STATUS_EXITS)) << number;
        EXPECT_EQ(0U, reader.counter(WEX_STATUS_NOT_SHOWN)) << number;
        EXPECT_EQ(gettid(), reader.head().threads[kStatusServer].tid) << number;
        EXPECT_EQ(getpid(), reader.head().daemon_pid) << number;
        EXPECT_LE(lines_of(running_log()).size(), 1U) << number << running_log();
      });
      unlink(kStatusTable);
      unlink(kRunningLog1);
    }
    unlink(kAllWritten);
  }
}

TEST_F(StatusTable, WhereverADaemonIsKilledTheNextOneGoesOn) {
  for (int number = 0; !exists(kAllWritten); ++number) {
    ASSERT_LT(number, 1000);
    in_child([&] { live_through(fate::death, number); });
    EXPECT_LE(parts_being_written(), 1) << number;
    in_child([&] {
      start();
      wex_status_publish();
      const StatusReader reader;
      ASSERT_TRUE(reader.valid()) << number;
      EXPECT_EQ(0, parts_being_written()) << number;
      EXPECT_EQ(getpid(), reader.head().daemon_pid) << number;
      EXPECT_TRUE(reader.slots().empty()) << number;
      ASSERT_FALSE(reader.events().empty()) << number;
      EXPECT_EQ(uint32_t{WEX_STATUS_EV_DAEMON_STARTED}, reader.events().back().kind) << number;
      EXPECT_EQ("", running_log()) << number;
    });
    EXPECT_EQ(1U, list_dir("/dev/shm").size()) << number;
    unlink(kStatusTable);
  }
  unlink(kAllWritten);
}

TEST_F(StatusTable, AThreadIsBusyFromTheBeginningOfItsWorkToTheEnd) {
  in_child([] {
    start();
    wex_status_thread_is(kStatusServer);
    wex_status_publish();
    const StatusReader reader;
    const auto seen = [&] { return reader.head().threads[kStatusServer]; };
    EXPECT_EQ(gettid(), seen().tid);
    EXPECT_STREQ("wex_process_dom", seen().name);
    EXPECT_GT(seen().last_pass, 0);
    EXPECT_EQ(0, seen().busy_since);
    wex_status_busy(kStatusServer);
    wex_status_publish();
    const int64_t since = seen().busy_since;
    EXPECT_GT(since, 0);
    usleep(5000);
    wex_status_publish();
    EXPECT_EQ(since, seen().busy_since) << "the same piece of work";
    wex_status_busy(kStatusServer);
    wex_status_publish();
    EXPECT_GT(seen().busy_since, since) << "another one";
    const int64_t second = seen().busy_since;
    wex_pid* const rec = add(100);
    usleep(5000);
    wex_status_tell(WEX_STATUS_EV_EXITED, rec);
    wex_status_publish();
    EXPECT_GT(seen().busy_since, second) << "what it tells ends a piece, too";
    drop(rec);
    wex_status_idle(kStatusServer);
    wex_status_publish();
    EXPECT_EQ(0, seen().busy_since);
  });
}

// Its limit is for a busy machine: a quiet one needs a hundredth of it.
TEST_F(StatusTable, AChangeTakesMicrosecondsAndWakesTheMainThreadOnce) {
  in_child([] {
    start();
    wex_status_open_news();
    wex_pid* const rec = add(100);
    for (const int writes : {1, 2}) {
      wex_status_take_news();
      std::vector<int64_t> taken;
      for (int change = 0; change < 2001; ++change) {
        const auto before = steady_clock::now();
        wex_status_tell(WEX_STATUS_EV_EXITED, rec);
        taken.push_back(
            std::chrono::duration_cast<std::chrono::nanoseconds>(steady_clock::now() - before).count());
      }
      EXPECT_EQ(writes, writes_made);
      std::nth_element(taken.begin(), taken.begin() + 1000, taken.end());
      printf("median of a change: %lld ns\n", static_cast<long long>(taken[1000]));
      EXPECT_LT(taken[1000], 20000);
    }
    drop(rec);
  });
}

TEST_F(StatusTable, NobodyHasToLookWhileNothingHappens) {
  in_child([] {
    start();
    const int news = wex_status_open_news();
    ASSERT_GE(news, 0);
    const auto told = [news] {
      struct pollfd wait = {news, POLLIN, 0};
      return poll(&wait, 1, 0) == 1;
    };
    EXPECT_FALSE(told()) << "nobody waits yet";
    wex_status_take_news();
    EXPECT_FALSE(told());
    wex_pid* const rec = add(100);
    wex_status_tell(WEX_STATUS_EV_REGISTERED, rec);
    EXPECT_TRUE(told());
    wex_status_take_news();
    EXPECT_FALSE(told());
    wex_status_tell(WEX_STATUS_EV_EXITED, rec);
    EXPECT_TRUE(told());
    wex_status_take_news();
    wex_status_count(WEX_STATUS_REFUSED);
    EXPECT_TRUE(told());
    wex_status_take_news();
    wex_status_thread_is(kStatusServer);
    EXPECT_TRUE(told());
    drop(rec);
  });
}

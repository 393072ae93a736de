// The sequence locks of the status table: what readers, and the next daemon, see of writes that are under
// way, that fail, or in whose middle the daemon is killed.
#include <fcntl.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <random>

#include "status_world.h"

using namespace status;

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

namespace {
std::vector<int> table_openings;  // the flags of each
int reads = 0;
}  // namespace

extern "C" int __real_openat64(int at, const char* path, int flags, ...);
extern "C" int __wrap_openat64(int at, const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  if (strcmp(path, "wex-status") == 0) {
    table_openings.push_back(flags);
  }
  return __real_openat64(at, path, flags, mode);
}
extern "C" ssize_t __real_pread64(int fd, void* bytes, size_t size, off64_t at);
extern "C" ssize_t __wrap_pread64(int fd, void* bytes, size_t size, off64_t at) {
  ++reads;
  return __real_pread64(fd, bytes, size, at);
}
extern "C" ssize_t __wrap_pread(int fd, void* bytes, size_t size, off_t at) {
  return __wrap_pread64(fd, bytes, size, at);
}

namespace {

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

// Anybody may write to the directory, so no link is followed there. And whatever others may bring into the
// table, the daemon goes by its own memory.
TEST_F(StatusTable, IsOpenedWithoutFollowingLinksAndReadAtTheStartOnly) {
  for (const bool earlier : {false, true}) {
    in_child([&] {
      start();
      EXPECT_EQ(earlier ? 1U : 2U, table_openings.size());
      for (const int flags : table_openings) {
        EXPECT_NE(0, flags & O_NOFOLLOW) << earlier;
        EXPECT_EQ(0, flags & O_TRUNC) << earlier;
      }
      EXPECT_EQ(!earlier, (table_openings.back() & O_CREAT) != 0);
      EXPECT_EQ(!earlier, (table_openings.back() & O_EXCL) != 0);
      EXPECT_EQ(earlier, reads > 0) << "the counting is seen to work";
      reads = 0;
      wex_pid* const rec = add(100);
      for (const wex_status_kind kind : {WEX_STATUS_EV_REGISTERED, WEX_STATUS_EV_EXITED}) {
        wex_status_tell(kind, rec);
        wex_status_publish();
      }
      drop(rec);
      wex_status_publish();
      ASSERT_EQ(0, truncate(kStatusTable, 100));
      wex_status_publish();
      wex_status_end();
      EXPECT_EQ(0, reads) << earlier;
    });
  }
}

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
void live_through(fate what, int number, bool one_hidden = false) {
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
  if (one_hidden) {
    wex_status_count(WEX_STATUS_NOT_SHOWN);
  }
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
    in_child([&] { live_through(fate::death, number, true); });
    EXPECT_LE(parts_being_written(), 1) << number;
    in_child([&] {
      start();
      wex_status_publish();
      const StatusReader reader;
      ASSERT_TRUE(reader.valid()) << number;
      EXPECT_EQ(0, parts_being_written()) << number;
      EXPECT_EQ(getpid(), reader.head().daemon_pid) << number;
      EXPECT_TRUE(reader.slots().empty()) << number;
      EXPECT_EQ(0U, reader.counter(WEX_STATUS_EXITS)) << number;
      EXPECT_EQ(0U, reader.counter(WEX_STATUS_NOT_SHOWN)) << number;
      EXPECT_EQ(0, reader.head().threads[kStatusServer].tid) << number;
      ASSERT_FALSE(reader.events().empty()) << number;
      EXPECT_EQ(uint32_t{WEX_STATUS_EV_DAEMON_STARTED}, reader.events().back().kind) << number;
      EXPECT_EQ("", running_log()) << number;
    });
    EXPECT_EQ(1U, list_dir("/dev/shm").size()) << number;
    unlink(kStatusTable);
  }
  unlink(kAllWritten);
}

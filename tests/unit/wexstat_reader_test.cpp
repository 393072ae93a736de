// The copy of the table: what is refused, and records that are being written.
#include <atomic>
#include <thread>

#include <sys/mman.h>

#include "unique_fd.h"
#include "wexstat_world.h"

using namespace wexstat_test;

namespace {

using WexstatReader = WexstatWorld;

// A file as it may lie there.
table_look look_at(const std::string& bytes) {
  status_table::save_bytes(bytes);
  return read_status(kTable).look;
}
template <typename Change>
table_look changed(const Change& change) {
  status_table table;
  table.add("one");
  change(&table.head);
  return look_at(table.bytes());
}

}  // namespace

TEST_F(WexstatReader, CopiesWhatIsInUse) {
  status_table table;
  table.add("one");
  table.add("free", WEX_STATUS_FREE);
  table.add("two", WEX_STATUS_PARKED);
  table.add_thread("wex_alarm", 0);
  for (int i = 0; i < 700; ++i) {
    table.add_event(WEX_STATUS_EV_EXITED, "one", i);
  }
  const status_copy copy = read_back(table);
  ASSERT_EQ(table_look::good, copy.look);
  ASSERT_EQ(2U, copy.slots.count);
  EXPECT_STREQ("one", copy.slots.records[0].name);
  EXPECT_STREQ("two", copy.slots.records[1].name);
  EXPECT_EQ(0U, copy.slots.unread);
  ASSERT_EQ(1U, copy.threads.count);
  ASSERT_EQ(512U, copy.events.count);
  EXPECT_EQ(188, copy.events.records[0].pid) << "the oldest first";
  EXPECT_EQ(699, copy.events.records[511].pid);
}

TEST_F(WexstatReader, EventNumbersMayBeginAgainAtZero) {
  status_table table;
  table.head.event_next = UINT32_MAX - 1;
  for (int i = 0; i < 4; ++i) {
    table.add_event(WEX_STATUS_EV_EXITED, "one", i);
  }
  const status_copy copy = read_back(table);
  ASSERT_EQ(4U, copy.events.count);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(i, copy.events.records[static_cast<size_t>(i)].pid);
  }
}

TEST_F(WexstatReader, TellsWhatItCannotRead) {
  EXPECT_EQ(table_look::absent, read_status(kTable).look);
  EXPECT_EQ(table_look::no_table, look_at(""));
  EXPECT_EQ(table_look::no_table, look_at(std::string(WEX_STATUS_FILE_SIZE, '\0')));
  EXPECT_EQ(table_look::other_version, changed([](wex_status_head* head) { head->version = 7; }));
  EXPECT_EQ(7U, read_status(kTable).version);
  EXPECT_EQ(table_look::being_made, changed([](wex_status_head* head) { head->seq = 7; }));
  EXPECT_EQ(table_look::other_machine, changed([](wex_status_head* head) { head->byte_order = 0x04030201; }));
  for (const auto field :
       {&wex_status_head::head_size, &wex_status_head::slot_size, &wex_status_head::slots,
        &wex_status_head::events_at, &wex_status_head::event_size, &wex_status_head::events}) {
    for (const uint32_t value : {0U, UINT32_MAX, 0x80000000U}) {
      const bool no_slots = field == &wex_status_head::slots && value == 0;
      EXPECT_EQ(no_slots ? table_look::good : table_look::damaged,
                changed([&](wex_status_head* head) { head->*field = value; }))
          << value;
    }
  }
}

TEST_F(WexstatReader, ATableCutShortIsDamaged) {
  const std::string whole = status_table().bytes();
  EXPECT_EQ(table_look::damaged, look_at(whole.substr(0, whole.size() - 1)));
  EXPECT_EQ(table_look::damaged, look_at(whole.substr(0, 4096)));
  EXPECT_EQ(table_look::no_table, look_at(whole.substr(0, 100)));
}

TEST_F(WexstatReader, OnlyRootsTableCounts) {
  status_table().save(kTable);
  ASSERT_EQ(0, chmod(kTable, 0666));
  EXPECT_EQ(table_look::foreign, read_status(kTable).look);
  ASSERT_EQ(0, chmod(kTable, 0644));
  ASSERT_EQ(0, chown(kTable, kOtherUser, 0));
  EXPECT_EQ(table_look::foreign, read_status(kTable).look);
  unlink(kTable);
  ASSERT_EQ(0, symlink("/etc/passwd", kTable));
  const status_copy copy = read_status(kTable);
  EXPECT_EQ(table_look::unreadable, copy.look);
  EXPECT_EQ(ELOOP, copy.cause);
  unlink(kTable);
  ASSERT_EQ(0, mkfifo(kTable, 0644));
  EXPECT_EQ(table_look::foreign, read_status(kTable).look) << "and it does not wait for a writer";
}

TEST_F(WexstatReader, ARecordLeftBeingWrittenIsCountedAndNoMore) {
  status_table table;
  table.add("one");
  table.add("torn").seq = 5;
  table.add("three");
  table.add_event(WEX_STATUS_EV_EXITED, "one").seq = 1;
  table.add_event(WEX_STATUS_EV_EXITED, "one");
  const status_copy copy = read_back(table);
  ASSERT_EQ(table_look::good, copy.look);
  EXPECT_EQ(2U, copy.slots.count);
  EXPECT_EQ(1U, copy.slots.unread);
  EXPECT_EQ(1U, copy.events.count);
  EXPECT_EQ(1U, copy.events.unread);
}

TEST_F(WexstatReader, ManyRecordsLeftBeingWrittenTakeNoLongTime) {
  status_table table;
  for (int i = 0; i < WEX_STATUS_SLOTS; ++i) {
    table.add("torn").seq = 1;
  }
  const auto time = time_of([&] { EXPECT_EQ(2048U, read_back(table).slots.unread); });
  EXPECT_LT(time, 5s);
}

// A writer at full speed: whatever is handed out is of one piece.
TEST_F(WexstatReader, NoTornRecordIsHandedOut) {
  status_table table;
  for (int i = 0; i < 100; ++i) {
    table.add("one");
  }
  table.save(kTable);
  const unique_fd file(open(kTable, O_RDWR | O_CLOEXEC));
  char* const map = static_cast<char*>(
      mmap(nullptr, WEX_STATUS_FILE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(map));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    wex_status_slot* const slots = reinterpret_cast<wex_status_slot*>(map + WEX_STATUS_HEAD_SIZE);
    for (uint32_t round = 1; !stop; ++round) {
      for (int i = 0; i < 100; ++i) {
        const uint32_t seq = __atomic_load_n(&slots[i].seq, __ATOMIC_RELAXED);
        __atomic_store_n(&slots[i].seq, seq + 1, __ATOMIC_RELAXED);
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
        slots[i].pid = static_cast<int32_t>(round);
        memset(slots[i].command, static_cast<int>('a' + round % 26), sizeof slots[i].command);
        slots[i].uid = round;
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
        __atomic_store_n(&slots[i].seq, seq + 2, __ATOMIC_RELAXED);
      }
    }
  });
  uint32_t whole = 0;
  for (int look = 0; look < 300; ++look) {
    const status_copy copy = read_status(kTable);
    for (const wex_status_slot& slot : copy.slots) {
      if (slot.uid == 0) {
        continue;  // not written yet
      }
      ++whole;
      EXPECT_EQ(slot.uid, static_cast<uint32_t>(slot.pid));
      EXPECT_EQ(std::string(sizeof slot.command, static_cast<char>('a' + slot.uid % 26)),
                std::string(slot.command, sizeof slot.command));
    }
  }
  stop = true;
  writer.join();
  munmap(map, WEX_STATUS_FILE_SIZE);
  EXPECT_GT(whole, 1000U);
}

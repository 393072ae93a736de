// wex_status_file: what readers see, whatever lies at the table's name and whatever becomes of the table.
#include "wex_status_file.h"

#include <sys/mount.h>

#include <random>

#include "status_world.h"

using namespace status;

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

// What may lie at the name, and what becomes of it.
TEST_F(StatusTable, WhateverLiesAtTheNameMakesRoom) {
  const struct {
    const char* name;
    std::function<void()> make;
    bool kept;  // under another name
  } rows[] = {
      {"nothing", [] {}, false},
      {"empty directory", [] { mkdir(kStatusTable, 0700); }, false},
      {"directory", [] { make_dirs(std::string(kStatusTable) + "/x"); }, true},
      {"link", [] { EXPECT_EQ(0, symlink("/tmp/victim", kStatusTable)); }, true},
      {"link to a table of root's",
       [] {
         in_child([] { start(); });
         EXPECT_EQ(0, rename(kStatusTable, "/dev/shm/table"));
         EXPECT_EQ(0, symlink("/dev/shm/table", kStatusTable));
       },
       true},
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
      ASSERT_TRUE(reader.valid()) << row.name;
      EXPECT_EQ(1U, reader.head().generation) << row.name;
      EXPECT_EQ("1", reader.kinds()) << row.name;
      EXPECT_EQ(0644U, mode_of(kStatusTable)) << row.name;
      const std::string log = running_log();
      EXPECT_EQ(row.kept,
                log.find("/dev/shm/wex-status was in the way and is now /dev/shm/aside-") != log.npos)
          << row.name << "\n"
          << log;
    });
    EXPECT_EQ("precious", read_file("/tmp/victim")) << row.name;
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
    const char* name;
    void (*change)(wex_status_event*);
    bool taken;
  } rows[] = {
      {"as it was", [](wex_status_event*) {}, true},
      {"no process found", [](wex_status_event* event) { event->pid = event->new_pid = -1; }, true},
      {"a number", [](wex_status_event* event) { event->pid = -2; }, true},
      {"new pid", [](wex_status_event* event) { event->new_pid = -2; }, false},
      {"domain", [](wex_status_event* event) { event->domain = 1000000; }, false},
      {"kind", [](wex_status_event* event) { event->kind = WEX_STATUS_EV_KINDS; }, false},
      {"parked for less than no time",
       [](wex_status_event* event) {
         event->kind = WEX_STATUS_EV_PARKED;
         event->value = -1;
       },
       false},
      {"burst of less than none",
       [](wex_status_event* event) {
         event->kind = WEX_STATUS_EV_BURST;
         event->value = -1;
       },
       false},
      {"exit code", [](wex_status_event* event) { event->exit_code = 0x10000; }, false},
      {"time", [](wex_status_event* event) { event->monotonic = INT64_MAX; }, false},
      {"negative time", [](wex_status_event* event) { event->monotonic = -1; }, false},
      {"negative wall clock", [](wex_status_event* event) { event->wall = -1; }, false},
      {"later daemon", [](wex_status_event* event) { ++event->generation; }, false},
      {"later number", [](wex_status_event* event) { event->number += WEX_STATUS_EVENTS; }, false},
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
      EXPECT_EQ(row.taken ? "1 15 1" : "1 1", StatusReader().kinds()) << row.name;
      EXPECT_EQ(row.taken ? uint32_t{WEX_STATUS_EV_REBOOT_ASKED} : 0U, StatusReader().event(1)->kind)
          << row.name << ": its place in the ring";
    });
    unlink(kStatusTable);
  }
}

TEST_F(StatusTable, ATableOfAnotherBootIsNotTakenOver) {
  in_child([] {
    start();
    wex_status_tell(WEX_STATUS_EV_EXITED, add(100));
    wex_status_publish();
  });
  {
    const unique_fd file(open(kStatusTable, O_RDWR));
    ASSERT_EQ(1, pwrite(file.get(), "x", 1, offsetof(wex_status_head, boot_id)));
  }
  in_child([] {
    start();
    const StatusReader reader;
    EXPECT_EQ("1", reader.kinds());
    EXPECT_EQ(1U, reader.head().generation);
    EXPECT_EQ(1U, reader.head().event_next);
  });
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

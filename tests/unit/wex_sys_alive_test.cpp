// wex_sys_alive: the shared table, to the byte. The table is mapped once a process, so each case has a
// process of its own.
#include "wex_sys_alive.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include "failing_calls.h"
#include "unit_support.h"
#include "wex_alive_guard.h"
#include "wex_limits.h"
#include "wex_paths.h"

using namespace unit;

namespace {

class AliveTable : public Sandboxed {};

constexpr uint32_t kLastTid = 163839;

uint8_t byte_at(size_t offset) {
  const std::string table = read_file(kAliveTableFile);
  return offset < table.size() ? static_cast<uint8_t>(table[offset]) : uint8_t{0xee};
}

void set_byte(off_t offset, uint8_t byte) {
  const int fd = open(kAliveTableFile, O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(1, pwrite(fd, &byte, 1, offset));
  close(fd);
}

// An object as an earlier daemon left it: every byte 0xff.
void leave_old_table() {
  umask(0022);
  write_file(kAliveTableFile, std::string(188416, '\xff'), 0600);
}

long page_size() {
  return sysconf(_SC_PAGESIZE);
}

long memory_of_table() {
  struct stat table = {};
  EXPECT_EQ(0, stat(kAliveTableFile, &table));
  return static_cast<long>(table.st_blocks) * 512;
}

}  // namespace

TEST_F(AliveTable, ClearingEmptiesEverythingAndNothingElse) {
  leave_old_table();
  in_child([] { EXPECT_EQ(0, wex_sys_init_alive_info(1)); });
  const std::string table = read_file(kAliveTableFile);
  ASSERT_EQ(188416u, table.size());
  uint32_t size = 0;
  memcpy(&size, &table[8], sizeof(size));
  EXPECT_EQ(184356u, size);
  EXPECT_EQ(std::string(8, '\xff'), table.substr(0, 8)) << "reserved";
  EXPECT_EQ(std::string(20, '\xff'), table.substr(12, 20)) << "reserved";
  EXPECT_EQ(std::string(20481 + 163840, '\0'), table.substr(32, 184353 - 32));
  EXPECT_EQ(std::string(188416 - 184353, '\xff'), table.substr(184353)) << "the tail is not cleared";
}

// A device has little memory, and of 163,840 threads few are registered.
TEST_F(AliveTable, ANewTableTakesMemoryForItsBitmapOnly) {
  in_child([] { EXPECT_EQ(0, wex_sys_init_alive_info(1)); });
  EXPECT_EQ(std::string(20481 + 163840, '\0'), read_file(kAliveTableFile).substr(32, 184353 - 32));
  const long bitmap_pages = (20513 + page_size() - 1) / page_size();
  EXPECT_EQ(bitmap_pages * page_size(), memory_of_table());
}

TEST_F(AliveTable, ClearingAnOldTableTakesNoMemoryThatItDidNotHave) {
  in_child([] { ASSERT_EQ(0, wex_sys_init_alive_info(1)); });
  const long fresh = memory_of_table();
  for (const off_t offset : {20513 + 100000, 184352}) {
    set_byte(offset, 9);
  }
  in_child([] { EXPECT_EQ(0, wex_sys_init_alive_info(1)); });
  EXPECT_EQ(std::string(20481 + 163840, '\0'), read_file(kAliveTableFile).substr(32, 184353 - 32));
  EXPECT_EQ(fresh + 2 * page_size(), memory_of_table());
}

// SEEK_DATA came with Linux 3.1.
TEST_F(AliveTable, AKernelThatCannotTellWhatIsEmptyHasEverythingCleared) {
  leave_old_table();
  in_child([] {
    ASSERT_TRUE(wex_test::refuse_call(SYS_lseek, 2, SEEK_DATA, EINVAL));
    EXPECT_EQ(0, wex_sys_init_alive_info(1));
  });
  EXPECT_EQ(std::string(20481 + 163840, '\0'), read_file(kAliveTableFile).substr(32, 184353 - 32));
}

// A client that sees the bit writes the sequence at once, and a page that no memory is left for would kill
// it.
TEST_F(AliveTable, AThreadWithoutMemoryForItsSequenceDoesNotCountAsRegistered) {
  const long bitmap_pages = (20513 + page_size() - 1) / page_size();
  in_child([bitmap_pages] {
    const std::string size = "size=" + std::to_string((bitmap_pages + 1) * page_size());
    ASSERT_EQ(0, mount("full", "/dev/shm", "tmpfs", 0, size.c_str())) << strerror(errno);
    write_file("/dev/shm/filler", "x");
    EXPECT_EQ(0, wex_sys_init_alive_info(1));
    wex_sys_reg_alive_info(150000);
    EXPECT_EQ(0, wex_alive_read_bit(150000));
    EXPECT_FALSE(wex_alive_table_intact());
  });
  umount("/dev/shm");
}

TEST_F(AliveTable, ATableWithASecondNameStaysTheOneThatClientsHaveMapped) {
  in_child([] { ASSERT_EQ(0, wex_sys_init_alive_info(1)); });
  ASSERT_EQ(0, link(kAliveTableFile, "/dev/shm/second"));
  set_byte(20513 + 9, 7);
  in_child([] { ASSERT_EQ(0, wex_sys_init_alive_info(1)); });
  EXPECT_EQ(0, read_file("/dev/shm/second")[20513 + 9]) << "cleared, not replaced";
  struct stat table = {};
  ASSERT_EQ(0, stat(kAliveTableFile, &table));
  EXPECT_EQ(2U, table.st_nlink);
}

TEST_F(AliveTable, ARegistrationThatCannotBeWrittenKeepsSilenceFromCounting) {
  in_child([] {
    ASSERT_EQ(0, mount("full", "/dev/shm", "tmpfs", 0, "size=65536")) << strerror(errno);
    write_file("/dev/shm/filler", std::string(49152, 'x'));
    EXPECT_EQ(0, wex_sys_init_alive_info(1));
    wex_sys_reg_alive_info(150000);
    EXPECT_NE(1, wex_alive_read_bit(150000));
    EXPECT_FALSE(wex_alive_table_intact());
    EXPECT_TRUE(wex_alive_table_intact()) << "nothing failed since";
    ASSERT_EQ(0, unlink("/dev/shm/filler"));
    wex_sys_reg_alive_info(150000);
    EXPECT_EQ(1, wex_alive_read_bit(150000));
    EXPECT_TRUE(wex_alive_table_intact());
  });
  umount("/dev/shm");
}

TEST_F(AliveTable, AThreadThatIsCancelledWhileItMapsTheTableLeavesItToTheOthers) {
  in_child([] {
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void*) -> void* {
                       pthread_cancel(pthread_self());  // at the next cancellation point
                       wex_sys_init_alive_info(0);
                       pthread_testcancel();
                       return nullptr;
                     },
                     nullptr));
    void* end = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &end));
    EXPECT_EQ(PTHREAD_CANCELED, end);
    alarm(5);  // or the mutex is waited for until the end of the test
    EXPECT_EQ(0, wex_sys_init_alive_info(0));
    EXPECT_NE(nullptr, g_wex_alive_info.base);
    alarm(0);
  });
}

TEST_F(AliveTable, AnotherFileUnderTheNameOfTheTableIsNeitherClearedNorOpened) {
  leave_old_table();
  ASSERT_EQ(0, rename(kAliveTableFile, "/dev/shm/victim"));
  ASSERT_EQ(0, link("/dev/shm/victim", kAliveTableFile));
  in_child([] {
    EXPECT_EQ(0, wex_sys_init_alive_info(1));
    EXPECT_TRUE(wex_alive_table_intact());
  });
  EXPECT_EQ(std::string(188416, '\xff'), read_file("/dev/shm/victim"));
  EXPECT_EQ(0600u, mode_of("/dev/shm/victim"));
  EXPECT_EQ(0, byte_at(20513));
}

TEST_F(AliveTable, ATableOfAnotherUserIsClearedAndOpenedAlsoInAGuardedDirectory) {
  leave_old_table();
  ASSERT_EQ(0, chown(kAliveTableFile, kOtherUser, kOtherUser));
  in_child([] {
    refuse_creation();
    EXPECT_EQ(0, wex_sys_init_alive_info(1));
  });
  EXPECT_EQ(0, byte_at(20513));
  EXPECT_EQ(0777u, mode_of(kAliveTableFile));
}

TEST_F(AliveTable, MappingWithoutClearingLeavesItAsItIs) {
  leave_old_table();
  in_child([] {
    EXPECT_EQ(0, wex_sys_init_alive_info(0));
    EXPECT_EQ(1, wex_sys_isreg_alive_info(5));
  });
  EXPECT_EQ(std::string(188416, '\xff'), read_file(kAliveTableFile));
}

TEST_F(AliveTable, TheObjectIsOpenToEveryUser) {
  umask(0077);
  in_child([] { EXPECT_EQ(0, wex_sys_init_alive_info(1)); });
  EXPECT_EQ(0777u, mode_of(kAliveTableFile));
}

TEST_F(AliveTable, TheHandleHoldsTheMapping) {
  in_child([] {
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
    EXPECT_STREQ("/UTILS-wex-shm-001", g_wex_alive_info.memory.name);
    EXPECT_EQ(188416u, g_wex_alive_info.memory.size);
    EXPECT_EQ(g_wex_alive_info.memory.addr, g_wex_alive_info.base);
  });
}

TEST_F(AliveTable, ARegistrationIsOneBitAndASequenceOfOne) {
  for (const bool daemon : {true, false}) {
    in_child([daemon] {
      ASSERT_EQ(0, wex_sys_init_alive_info(daemon));
      for (const uint32_t tid : {0u, 7u, 8u, 12345u, kLastTid}) {
        EXPECT_EQ(0, wex_sys_isreg_alive_info(tid));
        EXPECT_EQ(0, wex_sys_reg_alive_info(tid));
        EXPECT_EQ(1 << (tid % 8), byte_at(32 + tid / 8) & (1 << (tid % 8)));
        EXPECT_EQ(1, byte_at(20513 + tid));
        EXPECT_EQ(1, wex_sys_isreg_alive_info(tid));
        EXPECT_EQ(1u, wex_sys_get_alive_seq(tid));
      }
      EXPECT_EQ(0x81, byte_at(32)) << "threads 0 and 7";
      EXPECT_EQ(0, wex_sys_unreg_alive_info(7));
      EXPECT_EQ(0x01, byte_at(32));
      EXPECT_EQ(0, byte_at(20513 + 7));
      EXPECT_EQ(0, wex_sys_isreg_alive_info(7));
      EXPECT_EQ(1, wex_sys_isreg_alive_info(0)) << "its neighbour";
      for (const uint32_t tid : {0u, 8u, 12345u, kLastTid}) {
        wex_sys_unreg_alive_info(tid);
      }
    });
  }
}

TEST_F(AliveTable, TheLastThreadIdIsTheLastBitAndByte) {
  in_child([] {
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
    wex_sys_reg_alive_info(kLastTid);
  });
  EXPECT_EQ(0x80, byte_at(20511));
  EXPECT_EQ(0, byte_at(20512)) << "never used";
  EXPECT_EQ(1, byte_at(184352));
  EXPECT_EQ(0, byte_at(184353));
}

TEST_F(AliveTable, IdsOutsideAreRefusedByEveryCall) {
  in_child([] {
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
    set_levels(WEX_DBG_SILENT, 0);
    const struct {
      uint32_t tid;
      const char* text;
    } rows[] = {{163840, "163840"}, {static_cast<uint32_t>(-1), "-1"}, {0x80000000u, "-2147483648"}};
    for (const auto& row : rows) {
      const std::string line = std::string("[WEX:wex_sys_alive:N]pid err(pid:") + row.text + ")!\r\n";
      EXPECT_EQ(line, lines_printed_by([&] { EXPECT_EQ(-1, wex_sys_reg_alive_info(row.tid)); }));
      EXPECT_EQ(line, lines_printed_by([&] { EXPECT_EQ(-1, wex_sys_unreg_alive_info(row.tid)); }));
      EXPECT_EQ(line, lines_printed_by([&] { EXPECT_EQ(-1, wex_sys_update_alive_seq(row.tid)); }));
      EXPECT_EQ(line, lines_printed_by([&] { EXPECT_EQ(UINT32_MAX, wex_sys_get_alive_seq(row.tid)); }));
      EXPECT_EQ(line, lines_printed_by([&] { EXPECT_EQ(0, wex_sys_isreg_alive_info(row.tid)); }));
      EXPECT_EQ(-1, wex_alive_read_seq(row.tid));
      EXPECT_EQ(-1, wex_alive_read_bit(row.tid));
    }
    set_levels(0, WEX_DBG_SILENT);
    EXPECT_EQ("", printed_by([] { wex_sys_reg_alive_info(163840); })) << "a line of the alive level";
  });
}

TEST_F(AliveTable, ReportsCountFromOneTo255AndStartOverAtOne) {
  in_child([] {
    ASSERT_EQ(0, wex_sys_init_alive_info(0));
    wex_sys_reg_alive_info(77);
    for (uint32_t expected = 2; expected <= 255; ++expected) {
      ASSERT_EQ(0, wex_sys_update_alive_seq(77));
      ASSERT_EQ(expected, wex_sys_get_alive_seq(77));
    }
    wex_sys_update_alive_seq(77);
    EXPECT_EQ(1u, wex_sys_get_alive_seq(77));
    EXPECT_EQ(0, wex_sys_update_alive_seq(78)) << "does not look at the bit";
    EXPECT_EQ(1u, wex_sys_get_alive_seq(78));
  });
}

TEST_F(AliveTable, AClientThatDoesNotOwnTheTableHearsOnceThatItFailed) {
  in_child([] {
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
    wex_sys_reg_alive_info(9);
  });
  in_child([] {
    ASSERT_EQ(0, setgid(kOtherUser));
    ASSERT_EQ(0, setuid(kOtherUser));
    set_levels(0, 0);
    EXPECT_EQ(
        "[WEX:wex_sys_alive:N]change mode failed!\r\n[WEX:wex_sys_alive:N]fail to init "
        "alive_info(ret:-1)!!!\n",
        lines_printed_by([] { EXPECT_EQ(0, wex_sys_isreg_alive_info(9)); }));
    EXPECT_EQ("", printed_by([] { EXPECT_EQ(1, wex_sys_isreg_alive_info(9)); }));
    EXPECT_EQ(0, wex_sys_init_alive_info(0));
    EXPECT_EQ(0, wex_sys_update_alive_seq(9));
    EXPECT_EQ(2u, wex_sys_get_alive_seq(9));
  });
  EXPECT_EQ(2, byte_at(20513 + 9)) << "the report is in the shared object";
}

TEST_F(AliveTable, TheFailedModeIsAPublicLineTheRestAliveLines) {
  in_child([] { ASSERT_EQ(0, wex_sys_init_alive_info(1)); });
  in_child([] {
    ASSERT_EQ(0, setuid(kOtherUser));
    set_levels(0, WEX_DBG_SILENT);
    EXPECT_EQ("[WEX:wex_sys_alive:N]change mode failed!\r\n",
              lines_printed_by([] { EXPECT_EQ(-1, wex_sys_init_alive_info(0)); }));
  });
}

// Also the daemon, which then ends: but what it leaves is cleared.
TEST_F(AliveTable, AClearedTableWhoseModeCannotBeSetIsClearedAndFailsOnce) {
  leave_old_table();
  EXPECT_EQ(0, wex_test::run_failing({"fchmod:error=EPERM"}, [] {
              set_levels(0, WEX_DBG_SILENT);
              EXPECT_EQ("[WEX:wex_sys_alive:N]change mode failed!\r\n",
                        lines_printed_by([] { EXPECT_EQ(-1, wex_sys_init_alive_info(1)); }));
              EXPECT_EQ("", lines_printed_by([] { EXPECT_EQ(0, wex_sys_init_alive_info(1)); }));
              EXPECT_EQ(0, wex_sys_isreg_alive_info(5));
              return 0;
            }));
  const std::string table = read_file(kAliveTableFile);
  ASSERT_EQ(188416u, table.size());
  uint32_t size = 0;
  memcpy(&size, &table[8], sizeof(size));
  EXPECT_EQ(184356u, size);
  EXPECT_EQ(std::string(184353 - 32, '\0'), table.substr(32, 184353 - 32));
}

TEST_F(AliveTable, ATableThatCannotBeMappedIsTriedAgainEachTime) {
  ASSERT_EQ(0, mkdir(kAliveTableFile, 0755));
  in_child([] {
    set_levels(WEX_DBG_SILENT, 0);
    const size_t before = count_descriptors();
    for (int attempt = 0; attempt < 3; ++attempt) {
      EXPECT_EQ(
          "[WEX:wex_sys_alive:N]ras_os_init_record_memory err(path:/UTILS-wex-shm-001, ret:-4, err:22)!\r\n"
          "[WEX:wex_sys_alive:N]fail to init alive_info(ret:-4)!!!\n",
          lines_printed_by([] { EXPECT_EQ(0, wex_sys_isreg_alive_info(1)); }));
    }
    EXPECT_EQ(before, count_descriptors());
    ASSERT_EQ(0, rmdir(kAliveTableFile));
    EXPECT_EQ(0, wex_sys_init_alive_info(0));
    EXPECT_EQ(0, wex_sys_isreg_alive_info(1));
  });
}

TEST_F(AliveTable, ThreadsThatMapAtOnceMapOnce) {
  in_child([] {
    const size_t before = count_descriptors();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([] { EXPECT_EQ(0, wex_sys_init_alive_info(0)); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(before + 1, count_descriptors());
  });
}

TEST_F(AliveTable, ATableCutShortNeitherKillsTheDaemonNorStaysShort) {
  in_child([] {
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
    EXPECT_TRUE(wex_alive_table_intact());
    wex_sys_reg_alive_info(100000);
    ASSERT_EQ(0, truncate(kAliveTableFile, 0));
    EXPECT_EQ(0u, wex_sys_get_alive_seq(100000));
    EXPECT_EQ(0, wex_sys_isreg_alive_info(100000));
    EXPECT_EQ(-1, wex_alive_read_seq(100000));
    EXPECT_EQ(-1, wex_alive_read_bit(100000));
    EXPECT_EQ(0, wex_sys_reg_alive_info(3));
    EXPECT_EQ(0, wex_sys_unreg_alive_info(100000));
    EXPECT_TRUE(wex_alive_table_intact());
    EXPECT_EQ(188416u, read_file(kAliveTableFile).size());
    uint32_t size = 0;
    memcpy(&size, g_wex_alive_info.base + 8, sizeof(size));
    EXPECT_EQ(184356u, size);
    EXPECT_EQ(1, wex_alive_read_seq(3));
    EXPECT_EQ(1, wex_alive_read_bit(3));
    EXPECT_EQ(0, wex_alive_read_bit(4));
  });
}

TEST_F(AliveTable, AReplacedTableIsNoticed) {
  in_child([] {
    EXPECT_FALSE(wex_alive_table_intact()) << "not mapped";
    EXPECT_EQ(-1, wex_alive_read_seq(1));
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
    ASSERT_EQ(0, unlink(kAliveTableFile));
    EXPECT_FALSE(wex_alive_table_intact());
    write_file(kAliveTableFile, std::string(188416, '\0'));
    EXPECT_FALSE(wex_alive_table_intact());
    wex_sys_reg_alive_info(2);
    EXPECT_EQ(1, wex_alive_read_seq(2)) << "its own object still works";
  });
}

TEST_F(AliveTable, TheDaemonSeesAReportOfAnotherProcess) {
  in_child([] {
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
    wex_sys_reg_alive_info(4242);
    set_byte(20513 + 4242, 9);
    EXPECT_EQ(9u, wex_sys_get_alive_seq(4242));
    EXPECT_EQ(9, g_wex_alive_info.base[20513 + 4242]);
  });
}

// Where caches know memory by its virtual address, the file may not show yet what clients have stored.
TEST_F(AliveTable, TheDaemonReadsAndWritesTheMappingAndNotTheFile) {
  in_child([] {
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
    uint8_t* const shared = g_wex_alive_info.base;
    std::vector<uint8_t> elsewhere(188416, 0);  // what it reads and writes there it does through the pointer
    g_wex_alive_info.base = elsewhere.data();
    EXPECT_EQ(0, wex_sys_reg_alive_info(4242));
    EXPECT_EQ(1, elsewhere[20513 + 4242]);
    EXPECT_EQ(1 << (4242 % 8), elsewhere[32 + 4242 / 8]);
    elsewhere[20513 + 4242] = 9;
    EXPECT_EQ(9U, wex_sys_get_alive_seq(4242));
    EXPECT_EQ(9, wex_alive_read_seq(4242));
    EXPECT_EQ(1, wex_alive_read_bit(4242));
    EXPECT_EQ(0, wex_sys_unreg_alive_info(4242));
    EXPECT_EQ(0, elsewhere[20513 + 4242]);
    EXPECT_EQ(0, shared[20513 + 4242]);
  });
}

TEST_F(AliveTable, WithoutAPipeTheDaemonSaysSoAndTriesAgain) {
  in_child([] {
    rlimit few = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &few));
    const rlimit none = {static_cast<rlim_t>(dup(STDIN_FILENO)), few.rlim_max};  // the next one is too many
    ASSERT_EQ(0, close(static_cast<int>(none.rlim_cur)));
    set_levels(WEX_DBG_SILENT, 0);
    EXPECT_EQ("[WEX:wex_sys_alive:N]pipe err(path:/UTILS-wex-shm-001, err:24)!\r\n", lines_printed_by([&] {
                ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
                EXPECT_EQ(-1, wex_sys_init_alive_info(1));
                ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
              }));
    EXPECT_EQ(0, wex_sys_init_alive_info(1));
  });
}

TEST_F(AliveTable, AChildForkedWhileAnotherThreadMapsTheTableMapsItForItself) {
  EXPECT_EQ(0, wex_test::run_failing({"fchmod:delay_enter=1000000:when=1"}, [] {
              std::thread slow([] { EXPECT_EQ(0, wex_sys_init_alive_info(0)); });
              EXPECT_TRUE(eventually(
                  [] { return read_file("/proc/self/maps").find(kAliveTableFile) != std::string::npos; },
                  milliseconds(20000)));
              const pid_t child = fork();
              if (child == 0) {
                alarm(30);  // or the mutex is waited for until the end of the test
                _exit(wex_sys_init_alive_info(0) == 0 && g_wex_alive_info.base != nullptr ? 0 : 1);
              }
              slow.join();
              int status = -1;
              return waitpid(child, &status, 0) == child && status == 0 ? 0 : 1;
            }));
}

TEST_F(AliveTable, CallsBeforeMappingDoNotCrash) {
  in_child([] {
    EXPECT_EQ(0, wex_sys_unreg_alive_info(5));
    EXPECT_EQ(0u, wex_sys_get_alive_seq(5));
  });
}

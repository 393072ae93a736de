// ras_os: shared memory, path builders and the hex dump, on the real kernel.
#include "ras_os.h"

#include <sys/mman.h>
#include <sys/resource.h>

#include "injection.h"
#include "ras_comp_config.h"
#include "unit_support.h"

using namespace unit;

namespace {
injection page_fault;    // sysconf, asked for the size of a page
injection malloc_fault;  // of the product: the test itself takes its memory otherwise
}  // namespace

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
  return malloc_fault.now() ? nullptr : __real_malloc(size);
}

extern "C" long __real_sysconf(int name);
extern "C" long __wrap_sysconf(int name) {
  return name == _SC_PAGESIZE && page_fault.now() ? -1 : __real_sysconf(name);
}

namespace {

constexpr char kObject[] = "/unit-object";
constexpr char kObjectFile[] = "/dev/shm/unit-object";

class RasOs : public Sandboxed {};

off_t size_of(const char* path) {
  struct stat status = {};
  return stat(path, &status) == 0 ? status.st_size : -1;
}

}  // namespace

// ---- Record memory ----------------------------------------------------------------------------------------

TEST_F(RasOs, ARegionIsWholePagesAndSharedByName) {
  const uint32_t page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
  const size_t before = count_descriptors();
  ras_os_record_memory_t memory = {};
  int err = 99;
  ASSERT_EQ(0, ras_os_init_record_memory(kObject, 184356, &memory, &err));
  EXPECT_EQ(0, err);
  EXPECT_STREQ(kObject, memory.name);
  EXPECT_EQ((184356 + page - 1) / page * page, memory.size);
  if (page == 4096) {
    EXPECT_EQ(188416u, memory.size);
  }
  EXPECT_EQ(static_cast<off_t>(memory.size), size_of(kObjectFile));
  EXPECT_EQ(before + 1, count_descriptors()) << "the object's descriptor stays open";
  for (int fd = 3; fd < 64; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    struct stat status = {};
    if (flags >= 0 && fstat(fd, &status) == 0 && status.st_size == static_cast<off_t>(memory.size)) {
      EXPECT_NE(0, flags & FD_CLOEXEC);
      close(fd);  // the mapping stays
    }
  }
  ras_os_record_memory_t other = {};
  in_child([&] {
    ASSERT_EQ(0, ras_os_init_record_memory(kObject, 184356, &other, &err));
    EXPECT_EQ(0, ras_os_write_record_memory(&other, "seen", 5, &err));
  });
  EXPECT_STREQ("seen", static_cast<char*>(memory.addr));
  EXPECT_EQ(0, ras_os_close_record_memory(&memory, &err));
  EXPECT_FALSE(exists(kObjectFile));
}

TEST_F(RasOs, PagesAreRoundedUp) {
  in_child([] {
    const uint32_t page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    const uint32_t sizes[][2] = {{1, page}, {page - 1, page}, {page, page}, {page + 1, 2 * page}};
    for (const auto& row : sizes) {
      ras_os_record_memory_t memory = {};
      int err = 0;
      ASSERT_EQ(0, ras_os_init_record_memory(kObject, row[0], &memory, &err));
      EXPECT_EQ(row[1], memory.size) << row[0];
      EXPECT_EQ(0, ras_os_close_record_memory(&memory, &err));
    }
  });
}

TEST_F(RasOs, ReadAndWriteStayInsideTheRegion) {
  in_child([] {
    ras_os_record_memory_t memory = {};
    int err = 5;
    ASSERT_EQ(0, ras_os_init_record_memory(kObject, 16, &memory, &err));
    std::vector<char> out(memory.size, 'o');
    std::vector<char> in(memory.size + 1, 'i');
    EXPECT_EQ(0, ras_os_write_record_memory(&memory, out.data(), memory.size, &err));
    EXPECT_EQ(-1, ras_os_read_record_memory(&memory, in.data(), memory.size + 1));
    EXPECT_EQ('i', in[0]) << "copied nothing";
    EXPECT_EQ(0, ras_os_read_record_memory(&memory, in.data(), memory.size));
    EXPECT_EQ('o', in[memory.size - 1]);
    EXPECT_EQ('i', in[memory.size]);
    EXPECT_EQ(-1, ras_os_read_record_memory(nullptr, in.data(), 1));
    EXPECT_EQ(-1, ras_os_read_record_memory(&memory, nullptr, 1));
    EXPECT_EQ(-1, ras_os_read_record_memory(&memory, in.data(), 0));
    EXPECT_EQ(-1, ras_os_write_record_memory(nullptr, out.data(), 1, &err));
    EXPECT_EQ(-1, ras_os_write_record_memory(&memory, nullptr, 1, &err));
    EXPECT_EQ(-1, ras_os_write_record_memory(&memory, out.data(), 0, &err));
    EXPECT_EQ(-1, ras_os_write_record_memory(&memory, out.data(), memory.size + 1, &err));
    EXPECT_EQ(-1, ras_os_write_record_memory(&memory, out.data(), 1, nullptr));
    EXPECT_EQ(0, ras_os_close_record_memory(&memory, &err));
  });
}

TEST_F(RasOs, MissingArgumentsAreRefusedBeforeAnythingIsMade) {
  ras_os_record_memory_t memory = {};
  int err = 0;
  EXPECT_EQ(-1, ras_os_init_record_memory(nullptr, 1, &memory, &err));
  EXPECT_EQ(-1, ras_os_init_record_memory(kObject, 0, &memory, &err));
  EXPECT_EQ(-1, ras_os_init_record_memory(kObject, 1, nullptr, &err));
  EXPECT_EQ(-1, ras_os_init_record_memory(kObject, 1, &memory, nullptr));
  EXPECT_FALSE(exists(kObjectFile));
  EXPECT_EQ(-1, ras_os_close_record_memory(nullptr, &err));
  EXPECT_EQ(-1, ras_os_close_record_memory(&memory, nullptr));
}

TEST_F(RasOs, WithoutMemoryForItsNameThereIsNoObject) {
  ras_os_record_memory_t handle = {};
  int cause = 7;
  malloc_fault.fail(1, ENOMEM);
  EXPECT_EQ(-3, ras_os_init_record_memory(kObject, 10, &handle, &cause));
  EXPECT_EQ(0, cause);
  EXPECT_FALSE(exists(kObjectFile));
  EXPECT_EQ(nullptr, handle.addr);
}

TEST_F(RasOs, AnObjectThatCannotBeOpenedKeepsItsReason) {
  ras_os_record_memory_t memory = {};
  int err = 0;
  EXPECT_EQ(-4, ras_os_init_record_memory("/a/b", 1, &memory, &err));
  EXPECT_NE(0, err);
  EXPECT_EQ(nullptr, memory.name);
  ASSERT_EQ(0, mkdir(kObjectFile, 0755));
  EXPECT_EQ(-4, ras_os_init_record_memory(kObject, 1, &memory, &errno))
      << "errno itself may carry the reason";
  EXPECT_EQ(EINVAL, errno) << "the library reports a directory so";
  EXPECT_TRUE(exists(kObjectFile)) << "not ours to remove";
}

TEST_F(RasOs, AnObjectThatIsThereOpensAlsoWhereTheKernelRefusesToCreateIt) {
  in_child([] {
    ras_os_record_memory_t handle = {};
    int cause = 0;
    ASSERT_EQ(0, ras_os_init_record_memory("/unit-there", 10, &handle, &cause));
    refuse_creation();
    EXPECT_EQ(0, ras_os_init_record_memory("/unit-there", 10, &handle, &cause));
    ras_os_record_memory_t none = {};
    EXPECT_EQ(-4, ras_os_init_record_memory("/unit-none", 10, &none, &cause));
    EXPECT_EQ(0, ras_os_close_record_memory(&handle, &cause));
  });
}

TEST_F(RasOs, AFailedSizeRemovesAnObjectThatWasThereBefore) {
  write_file(kObjectFile, "older");
  in_child([] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {4096, 4096};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    const size_t before = count_descriptors();
    ras_os_record_memory_t memory = {};
    int err = 0;
    EXPECT_EQ(-5, ras_os_init_record_memory(kObject, 1 << 20, &memory, &err));
    EXPECT_EQ(EFBIG, err);
    EXPECT_EQ(before, count_descriptors()) << "a client that keeps trying must not run out of them";
  });
  EXPECT_FALSE(exists(kObjectFile));
}

TEST_F(RasOs, AFailedMappingRemovesAnObjectThatWasThereBefore) {
  write_file(kObjectFile, "older");
  in_child([] {
    const size_t before = count_descriptors();
    rlimit limit = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &limit));
    const rlimit none = {1 << 20, limit.rlim_max};
    ras_os_record_memory_t memory = {};
    int err = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &none));
    const int result = ras_os_init_record_memory(kObject, 64 << 20, &memory, &err);
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
    EXPECT_EQ(-6, result);
    EXPECT_EQ(ENOMEM, err);
    EXPECT_EQ(MAP_FAILED, memory.addr) << "what was stored stays";
    EXPECT_EQ(nullptr, memory.name);
    EXPECT_EQ(before, count_descriptors());
  });
  EXPECT_FALSE(exists(kObjectFile));
}

TEST_F(RasOs, ASizeWithinAPageOf4GiBCannotBeMapped) {
  ras_os_record_memory_t memory = {};
  int err = 0;
  EXPECT_EQ(-6, ras_os_init_record_memory(kObject, UINT32_MAX, &memory, &err));
  EXPECT_EQ(EINVAL, err);
}

TEST_F(RasOs, AnUnreadablePageSizeRemovesTheObject) {
  ras_os_record_memory_t memory = {};
  int err = 0;
  page_fault.fail(1, EINVAL);
  EXPECT_EQ(-5, ras_os_init_record_memory(kObject, 1, &memory, &err));
  EXPECT_EQ(EINVAL, err);
  EXPECT_FALSE(exists(kObjectFile));
  EXPECT_EQ(nullptr, memory.name);
  EXPECT_EQ(0u, memory.size) << "not got so far";
}

TEST_F(RasOs, ClosingFreesTheNameAndLeavesTheRestAsItWas) {
  in_child([] {
    ras_os_record_memory_t memory = {};
    int err = 5;
    ASSERT_EQ(0, ras_os_init_record_memory(kObject, 1, &memory, &err));
    const ras_os_record_memory_t before = memory;
    EXPECT_EQ(0, ras_os_close_record_memory(&memory, &err));
    EXPECT_EQ(nullptr, memory.name);
    EXPECT_EQ(before.addr, memory.addr);
    EXPECT_EQ(before.size, memory.size);
  });
}

TEST_F(RasOs, ClosingTellsWhichStepFailed) {
  in_child([] {
    ras_os_record_memory_t memory = {};
    int err = 0;
    ASSERT_EQ(0, ras_os_init_record_memory(kObject, 1, &memory, &err));
    unlink(kObjectFile);
    EXPECT_EQ(-8, ras_os_close_record_memory(&memory, &err));
    EXPECT_EQ(ENOENT, err);
    memory.addr = reinterpret_cast<void*>(1);
    EXPECT_EQ(-7, ras_os_close_record_memory(&memory, &err));
    EXPECT_EQ(EINVAL, err);
    free(memory.name);
  });
}

TEST_F(RasOs, CloseOnExecIsAddedToADescriptor) {
  const int fd = dup(0);
  EXPECT_EQ(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(0, ras_os_set_fd_close_on_exec(fd));
  EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  close(fd);
  EXPECT_EQ(-1, ras_os_set_fd_close_on_exec(fd));
  EXPECT_EQ(-1, ras_os_set_fd_close_on_exec(-1));
}

// ---- Paths and dump ---------------------------------------------------------------------------------------

TEST_F(RasOs, APathIsJoinedWhenItFitsWithItsEnd) {
  char out[8] = "before";
  EXPECT_EQ(0, ras_make_vsd_path("/ab", "/cde", out, sizeof(out)));
  EXPECT_STREQ("/ab/cde", out);
  EXPECT_EQ(
      "[RAS]<ras_comp_config, ras_make_vsd_path, N>:not enough path memory(prefix:/abc, suffix:/cde, "
      "len:8)!\n",
      lines_printed_by([&] { EXPECT_EQ(-1, ras_make_vsd_path("/abc", "/cde", out, sizeof(out))); }));
  EXPECT_STREQ("/ab/cde", out);
  EXPECT_EQ(-1, ras_make_vsd_path(nullptr, "", out, sizeof(out)));
}

TEST_F(RasOs, TheDataPathStartsAtTheDirectoryOfTheEnvironment) {
  char out[RAS_PATH_SIZE];
  setenv(RAS_DATA_OVIX_ENV, "/data/.ovix/vsd/3", 1);
  EXPECT_EQ(0, ras_make_vsd_data_ovix_path("/x", out));
  EXPECT_STREQ("/data/.ovix/vsd/3/x", out);
}

TEST_F(RasOs, ADumpOfTwentyBytesHasAPaddedLastLine) {
  const char bytes[] = "0123 56789ABCDEF\x7f\xff\nz";
  char heading[64];
  snprintf(heading, sizeof(heading), "dump tag msg(addr:%p, len:20):\n", static_cast<const void*>(bytes));
  const std::string rule = "---------+-------------------------------------------------+-----------------\n";
  int result = 0;
  EXPECT_EQ(
      heading +
          std::string(" Offset  |  0  1  2  3  4  5  6  7  8  9  A  B  C  D  E  F | 0123456789ABCDEF\n") +
          rule + "00000000 | 30 31 32 33 20 35 36 37 38 39 41 42 43 44 45 46 | 0123.56789ABCDEF\n" +
          "00000010 | 7F FF 0A 7A                                     | ...z\n" + rule,
      printed_by([&] { result = ras_os_dump_msg("tag", bytes, 20); }));
  EXPECT_EQ(static_cast<int>(rule.size()), result);
}

TEST_F(RasOs, ADumpOfSixteenBytesHasNoPartialLine) {
  const std::string text = printed_by([] { ras_os_dump_msg("t", "abcdefghijklmnop", 16); });
  EXPECT_EQ(5, std::count(text.begin(), text.end(), '\n')) << text;
  EXPECT_NE(std::string::npos,
            text.find("00000000 | 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70 | abcdefghijklmnop\n"));
}

TEST_F(RasOs, ADumpOfNothingIsRefused) {
  int result = 0;
  const std::string expected = "argument err(prx:(nil), msg:(nil), len0)!\n";
  EXPECT_EQ(expected, printed_by([&] { result = ras_os_dump_msg(nullptr, nullptr, 0); }));
  EXPECT_EQ(static_cast<int>(expected.size()), result);
  EXPECT_EQ(0u, printed_by([] { ras_os_dump_msg("t", "x", 0); }).find("argument err(prx:0x"));
}

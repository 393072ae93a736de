// wex_vsd_group: control groups, limits, and the memory that domains use.
#include "wex_test.h"
#include "wex_vsd.h"

#include <sched.h>

#include <algorithm>

#include "domain_world.h"
#include "failing_calls.h"
#include "wex_limits.h"

using namespace domain_world;

namespace {

struct ControlGroups : World {};
struct Memory : World {
  const temporary smaps_{"/tmp/smaps"};
};

// ---- Control groups ---------------------------------------------------------------------------------------

std::set<std::string> tasks_of(const char* format, int vsd) {
  std::istringstream lines(read_file(path_of(format, vsd)));
  return {std::istream_iterator<std::string>(lines), {}};
}

TEST_F(ControlGroups, AreCreatedAndTakeInTheProcessesWithFlagFiles) {
  make_dirs(path_of(kDbDirFmt, 13));
  process first({4300});
  process second({4300});
  make_flag_file(13, first.pid());
  make_flag_file(13, second.pid());
  EXPECT_EQ(0, set_cgroups_all(13));
  for (const char* format : {kMemoryTasksFmt, kCpuTasksFmt}) {
    const auto tasks = tasks_of(format, 13);
    EXPECT_EQ((std::set<std::string>{std::to_string(first.pid()), std::to_string(second.pid())}), tasks);
  }
  EXPECT_EQ(0777u, mode_of(path_of(kMemoryGroupFmt, 13)));
  EXPECT_EQ(0777u, mode_of(path_of(kCpuGroupFmt, 13)));
  char cwd[64];
  EXPECT_STREQ("/", getcwd(cwd, sizeof cwd));
}

TEST_F(ControlGroups, AreMadeAndFilledWithoutALineWhenNothingFails) {
  rmdir(path_of(kMemoryGroupFmt, 9).c_str());
  rmdir(path_of(kCpuGroupFmt, 9).c_str());
  make_flag_dir(9);
  process member({3900});
  make_flag_file(9, member.pid());
  EXPECT_EQ("", lines_printed_by([] {
              errno = 0;  // what is left of an earlier failure would be told, too
              EXPECT_EQ(0, set_cgroups_all(9));
            }));
  EXPECT_EQ((std::set<std::string>{std::to_string(member.pid())}), tasks_of(kMemoryTasksFmt, 9));
}

TEST_F(ControlGroups, AreLeftOutWithoutAFlagFileDirectory) {
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]set_cgroups: chdir fail: No such file or directory\n"));
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]set_cgroups_all: set mem group fail: No such file or directory\n"));
}

// The directories are there, and that shows in errno to the end.
TEST_F(ControlGroups, TellOfDirectoriesThatWereThereBefore) {
  make_flag_dir(9);
  process member({3900});
  make_flag_file(9, member.pid());
  EXPECT_EQ(0, set_cgroups_all(9));
  EXPECT_EQ("[WEX:wex_vsd:N]set_cgroups_all: set mem group fail: File exists\n",
            lines_printed_by([] { EXPECT_EQ(0, set_cgroups_all(9)); }));
}

TEST_F(ControlGroups, NegativeNameEndsTheWalkInTheFlagFileDirectory) {
  make_flag_dir(13);
  write_file(path_of(kFlagFileFmt, 13, -5), "");
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]set_cgroups: atio proc: "));
  char cwd[64];
  EXPECT_STREQ("/tmp/vsd/13/wex", getcwd(cwd, sizeof cwd));
}

TEST_F(ControlGroups, ANameThatIsNoNumberDoesNotMoveTheCallerIn) {
  make_flag_dir(13);
  write_file("/tmp/vsd/13/wex/junk", "");
  write_file("/tmp/vsd/13/wex/0", "");
  EXPECT_EQ(0, set_cgroups_all(13));
  EXPECT_TRUE(tasks_of(kMemoryTasksFmt, 13).empty());
  EXPECT_TRUE(tasks_of(kCpuTasksFmt, 13).empty());
}

// A user's flag file would move root's process into the domain's limits, or have it killed for its memory.
TEST_F(ControlGroups, OnADeviceInStrictModeAUsersFlagFileSpeaksForHisOwnProcess) {
  constexpr uid_t kUser = 1234;
  ASSERT_EQ(0, system("rm -rf /tmp/vsd"));
  make_dirs("/etc/wex");
  make_flag_dir(13);
  process roots({4300}), linked({4300});
  process own({4300}, [] { EXPECT_EQ(0, setresuid(kUser, kUser, kUser)); });
  make_flag_file(13, roots.pid());
  make_flag_file(13, own.pid());
  write_file(path_of(kFlagFileFmt, 13, -5), "");
  for (const pid_t pid : {roots.pid(), own.pid(), pid_t{-5}}) {
    ASSERT_EQ(0, chown(path_of(kFlagFileFmt, 13, pid).c_str(), kUser, kUser));
  }
  ASSERT_EQ(0, symlink("/etc/passwd", path_of(kFlagFileFmt, 13, linked.pid()).c_str()));
  write_file(kStrictFile, "");
  EXPECT_EQ(0, set_cgroups_all(13));
  EXPECT_EQ((std::set<std::string>{std::to_string(own.pid())}), tasks_of(kMemoryTasksFmt, 13));
  const auto kill_largest = [] {  // in a session of its own: it would end its own group, were nobody left
    const child caller([] { return setsid() > 0 && (find_max_rss(13), true); });
    EXPECT_TRUE(caller.ready());
  };
  kill_largest();
  EXPECT_EQ(SIGKILL, own.signal());
  unlink(kStrictFile);
  kill_largest();
  EXPECT_TRUE(roots.signal() == SIGKILL || linked.signal() == SIGKILL)
      << "without the mode anybody may say it";
}

TEST_F(ControlGroups, AProcessThatIsGoneIsOnlyReported) {
  make_flag_dir(13);
  make_flag_file(13, 4194304);
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]add_cgroups: fwrite fail: No such process\n"));
}

TEST_F(ControlGroups, AProcessThatIsGoneDoesNotKeepTheOthersOut) {
  ASSERT_EQ(0, system("rm -rf /tmp/vsd"));
  make_flag_dir(13);
  process first({4300});
  process second({4300});
  make_flag_file(13, first.pid());
  make_flag_file(13, 4194304);
  make_flag_file(13, second.pid());
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_EQ(2U, occurrences(text, "add_cgroups: fwrite fail: No such process\n")) << "one a hierarchy";
  for (const char* format : {kMemoryTasksFmt, kCpuTasksFmt}) {
    EXPECT_EQ((std::set<std::string>{std::to_string(first.pid()), std::to_string(second.pid())}),
              tasks_of(format, 13));
  }
}

TEST_F(ControlGroups, AFlagFileThatLeadsNowhereIsLoggedAndCountsAsAProcess) {
  ASSERT_EQ(0, system("rm -rf /tmp/vsd"));
  make_flag_dir(13);
  process subject({4300});
  ASSERT_EQ(0, symlink("/nowhere", path_of(kFlagFileFmt, 13, subject.pid()).c_str()));
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]set_cgroups: stat fail: No such file or directory\n"));
  EXPECT_EQ((std::set<std::string>{std::to_string(subject.pid())}), tasks_of(kMemoryTasksFmt, 13));
}

struct Limits : ControlGroups {
  void SetUp() override {
    World::SetUp();
    make_flag_dir(13);
    set_cgroups_all(13);
  }
};

TEST_F(Limits, HardAndSoftAreWhatTheKernelReadsBack) {
  EXPECT_EQ(0, set_mem_group(13, 65536));
  EXPECT_EQ("67108864\n", read_file("/memory/vsd_13/memory.limit_in_bytes"));
  EXPECT_EQ("67108864\n", read_file("/memory/vsd_13/memory.soft_limit_in_bytes"));
  EXPECT_EQ(65536, get_maxmem_set(13));
}

TEST_F(Limits, SaturateAt31BitsOfBytes) {
  EXPECT_EQ(2097151, get_maxmem_set(13)) << "no limit at all";
  struct {
    uint64_t set;
    int64_t got;
  } const rows[] = {{1048576, 1048576}, {2097148, 2097148},       {2097152, 2097151},
                    {4194304, 2097151}, {4294967296ull, 2097151}, {1099511627776ull, 2097151}};
  for (const auto& row : rows) {
    EXPECT_EQ(0, set_mem_group(13, row.set));
    EXPECT_EQ(row.got, get_maxmem_set(13)) << row.set;
    EXPECT_EQ(std::to_string(row.set * 1024) + "\n", read_file("/memory/vsd_13/memory.soft_limit_in_bytes"));
  }
}

TEST_F(Limits, OfTheMainSystemAndOfAMissingDomainAreNone) {
  EXPECT_EQ("", lines_printed_by([] { EXPECT_EQ(0, get_maxmem_set(0)); }));
  EXPECT_EQ("[WEX:wex_vsd:N]get_maxmem_set: open fail: No such file or directory\n",
            lines_printed_by([] { EXPECT_EQ(0, get_maxmem_set(12)); }));
}

TEST_F(Limits, FailWithTheReasonForAMissingDomain) {
  EXPECT_EQ(
      "[WEX:wex_vsd:N]set_mem_limit_group: fopen fail: No such file or directory\n"
      "[WEX:wex_vsd:N]set_mem_group: set_hard_mem_limit fail: No such file or directory\n",
      lines_printed_by([] { EXPECT_EQ(-ENOENT, set_mem_group(12, 1)); }));
  EXPECT_EQ("[WEX:wex_vsd:N]set_cpu_group: fopen fail: No such file or directory\n",
            lines_printed_by([] { EXPECT_EQ(-ENOENT, set_cpu_group(12, 10)); }));
}

TEST_F(Limits, FailWithTheReasonForAValueThatTheKernelRefuses) {
  EXPECT_EQ("[WEX:wex_vsd:N]set_cpu_group: fwrite fail: Invalid argument\n",
            lines_printed_by([] { EXPECT_EQ(-EINVAL, set_cpu_group(13, -7)); }));
  ASSERT_EQ(0, set_mem_group(13, 65536));
  process member({4300}, [] {  // memory that cannot be taken from the group
    write_file(path_of(kMemoryTasksFmt, 13), "0");
    if (mlockall(MCL_FUTURE) != 0) {
      _exit(5);
    }
    hold_memory(8192);
  });
  EXPECT_EQ(
      "[WEX:wex_vsd:N]set_mem_limit_group: fwrite fail: Device or resource busy\n"
      "[WEX:wex_vsd:N]set_mem_group: set_hard_mem_limit fail: Device or resource busy\n",
      lines_printed_by([] { EXPECT_EQ(-EBUSY, set_mem_group(13, 1024)); }));
  EXPECT_EQ("67108864\n", read_file("/memory/vsd_13/memory.limit_in_bytes"));
  EXPECT_EQ("67108864\n", read_file("/memory/vsd_13/memory.soft_limit_in_bytes")) << "not even tried";
}

TEST_F(Limits, CpuWeightIsTenthsOfTheDefault) {
  const std::pair<int32_t, const char*> rows[] = {
      {10, "1024\n"}, {5, "512\n"}, {7, "716\n"}, {100, "10240\n"}};
  for (const auto& [tenths, shares] : rows) {
    EXPECT_EQ(0, set_cpu_group(13, tenths));
    EXPECT_EQ(shares, read_file("/cpu/vsd_13/cpu.shares")) << tenths;
  }
}

TEST_F(Limits, CpuWeightWrapsAt32Bits) {
  EXPECT_EQ(0, set_cpu_group(13, 4194304 + 20)) << "the product wraps to 20480";
  EXPECT_EQ("2048\n", read_file("/cpu/vsd_13/cpu.shares"));
}

// Plain files in the place of control files show the very texts that are written.
struct PlainControlFiles : World {
  void SetUp() override {
    World::SetUp();
    for (const char* hierarchy : {"/memory", "/cpu"}) {
      ASSERT_EQ(0, mount("none", hierarchy, "tmpfs", 0, nullptr)) << strerror(errno);
      make_dirs(hierarchy + std::string("/vsd_13"));
    }
    write_file(kHard, "");
    write_file(kSoft, "");
    write_file(kShares, "");
  }
  void TearDown() override {
    EXPECT_EQ(0, umount("/memory"));
    EXPECT_EQ(0, umount("/cpu"));
    World::TearDown();
  }
  static constexpr char kHard[] = "/memory/vsd_13/memory.limit_in_bytes";
  static constexpr char kSoft[] = "/memory/vsd_13/memory.soft_limit_in_bytes";
  static constexpr char kShares[] = "/cpu/vsd_13/cpu.shares";
};

TEST_F(PlainControlFiles, WithoutATasksFileTheProcessStaysWhereItIs) {
  ASSERT_EQ(0, system("rm -rf /tmp/vsd"));
  make_flag_dir(13);
  process subject({4300});
  make_flag_file(13, subject.pid());
  const std::string groups = read_file("/proc/" + std::to_string(subject.pid()) + "/cgroup");
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_EQ(2U, occurrences(text, "[WEX:wex_vsd:N]add_cgroups: fopen fail: No such file or directory\n"))
      << text;
  EXPECT_EQ(groups, read_file("/proc/" + std::to_string(subject.pid()) + "/cgroup"));
}

TEST_F(PlainControlFiles, HoldTheLimitInKilobytes) {
  EXPECT_EQ(0, set_mem_group(13, 65536));
  EXPECT_EQ("65536K", read_file(kHard));
  EXPECT_EQ("65536K", read_file(kSoft));
  EXPECT_EQ(0, set_mem_group(13, UINT64_MAX));
  EXPECT_EQ("18446744073709551615K", read_file(kHard));
  EXPECT_EQ("18446744073709551615K", read_file(kSoft));
}

TEST_F(PlainControlFiles, HoldTheWeightTruncatedTowardsZero) {
  const std::pair<int32_t, const char*> rows[] = {
      {7, "716"}, {10, "1024"}, {0, "0"}, {-7, "-716"}, {1, "102"}};
  for (const auto& [tenths, text] : rows) {
    write_file(kShares, "");
    EXPECT_EQ(0, set_cpu_group(13, tenths));
    EXPECT_EQ(text, read_file(kShares)) << tenths;
  }
}

TEST_F(PlainControlFiles, LimitThatCannotBeReadIsNone) {
  write_file(kHard, "65536\n");
  EXPECT_EQ("[WEX:wex_vsd:N]get_maxmem_set: read fail: Input/output error\n", lines_printed_by([] {
              EXPECT_EQ(0, wex_test::run_failing({"read:error=EIO"},
                                                 [] { return get_maxmem_set(13) == 0 ? 0 : 1; }));
            }));
}

TEST_F(PlainControlFiles, SoftLimitThatFailsComesAfterTheHardOne) {
  ASSERT_EQ(0, unlink(kSoft));
  EXPECT_EQ(
      "[WEX:wex_vsd:N]set_mem_limit_group: fopen fail: No such file or directory\n"
      "[WEX:wex_vsd:N]set_mem_group: set_soft_mem_limit fail: No such file or directory\n",
      lines_printed_by([] { EXPECT_EQ(-ENOENT, set_mem_group(13, 5)); }));
  EXPECT_EQ("5K", read_file(kHard));
}

TEST_F(PlainControlFiles, LimitIsReadAsA31BitNumberOfBytes) {
  const std::pair<const char*, int64_t> rows[] = {{"9223372036854775807\n", 2097151},
                                                  {"18446744073709551615\n", 2097151},
                                                  {"2147483647\n", 2097151},
                                                  {"2147483648\n", 2097151},
                                                  {"2147482623\n", 2097150},
                                                  {"1023\n", 0},
                                                  {"1024", 1},
                                                  {"", 0},
                                                  {"none\n", 0},
                                                  {" 4096\n", 4},
                                                  {"-9223372036854775808", -2097152}};
  for (const auto& [text, kib] : rows) {
    write_file(kHard, text);
    EXPECT_EQ(kib, get_maxmem_set(13)) << text;
  }
}

TEST_F(PlainControlFiles, PlantedLinkOrPipeIsNoControlFile) {
  ASSERT_EQ(0, unlink(kHard));
  const temporary theirs("/tmp/theirs");
  write_file("/tmp/theirs", "untouched");
  ASSERT_EQ(0, symlink("/tmp/theirs", kHard));
  ASSERT_EQ(0, lchown(kHard, 1000, 1000));
  EXPECT_GT(0, set_mem_group(13, 5));
  EXPECT_EQ("untouched", read_file("/tmp/theirs"));
  ASSERT_EQ(0, unlink(kShares));
  ASSERT_EQ(0, mkfifo(kShares, 0666));
  EXPECT_GT(0, set_cpu_group(13, 10)) << "and does not block";
}

// ---- Memory -----------------------------------------------------------------------------------------------

TEST_F(Memory, OfALibraryMappingDoesNotCount) {
  write_file("/tmp/smaps",
             "00400000-00452000 r-xp 00000000 08:02 173521 /usr/bin/app\n"
             "Size:                328 kB\nRss:                 100 kB\nPss:  100 kB\n"
             "7f-80 r-xp 00000000 08:02 1 /lib/libc.so\n"
             "Rss:                  1000 kB\n"
             "80-81 rw-p 00000000 00:00 0 [heap]\n"
             "Rss:\t20 kB\n"
             "81-82 r--p 00000000 08:02 1 /opt/libfoo/bin/app\n"
             "Rss: 5000 kB\n"
             "82-83 rw-p 00000000 00:00 0\n"
             "Rss:3\n");
  uint64_t counters[16] = {};
  counters[4] = 1000;
  EXPECT_EQ(0, get_vsd_mem("/tmp/smaps", 4, counters));
  EXPECT_EQ(1123u, counters[4]);
}

TEST_F(Memory, IsConvertedAndAddedIn64Bits) {
  write_file("/tmp/smaps", "Rss: 5000000000 kB\nRss: 2147483648 kB\nRss: 1 kB\n");
  uint64_t counters[16] = {};
  counters[2] = 7000000000;
  EXPECT_EQ(0, get_vsd_mem("/tmp/smaps", 2, counters));
  EXPECT_EQ(14147483649u, counters[2]);
}

TEST_F(Memory, CountsNegativeDomainsAsTheMainSystemAndOthersNotAtAll) {
  write_file("/tmp/smaps", "Rss: 7 kB\n");
  uint64_t counters[17] = {};
  for (const int32_t vsd : {-30, -2, 0, 15, 16, 1000, 42949642}) {
    EXPECT_EQ(0, get_vsd_mem("/tmp/smaps", vsd, counters)) << vsd;
  }
  EXPECT_EQ(21u, counters[0]);
  EXPECT_EQ(7u, counters[15]);
  EXPECT_EQ(0u, counters[16]);
}

TEST_F(Memory, LineOfMoreThan1023CharactersIsSeenInPieces) {
  // The second piece begins with the resident size; the library mark stands in the first.
  write_file("/tmp/smaps", "/lib" + std::string(1019, 'x') + "Rss: 9 kB\nRss: 5 kB\nRss: \n\nRss");
  uint64_t counters[16] = {};
  EXPECT_EQ(0, get_vsd_mem("/tmp/smaps", 2, counters));
  EXPECT_EQ(5u, counters[2]);
}

TEST_F(Memory, OfAnUnreadableProcessIsTheReason) {
  uint64_t counters[16] = {};
  EXPECT_EQ("[WEX:wex_vsd:N]get_vsd_mem: open conf file fail: No such file or directory\n",
            lines_printed_by([&] { EXPECT_EQ(-ENOENT, get_vsd_mem("/proc/4194304/smaps", 2, counters)); }));
}

TEST_F(Memory, OfAProgramOfKnownSizeIsMeasured) {
  process bare({4300});
  process big({4300}, [] { hold_memory(32768); });
  uint64_t counters[16] = {};
  ASSERT_EQ(0, get_vsd_mem(path_of(kProcSmapsFmt, kProcDir, bare.pid()).c_str(), 1, counters));
  ASSERT_EQ(0, get_vsd_mem(path_of(kProcSmapsFmt, kProcDir, big.pid()).c_str(), 2, counters));
  EXPECT_NEAR(32768.0, static_cast<double>(counters[2]) - static_cast<double>(counters[1]), 1024.0);
}

TEST_F(Memory, NumberOutsideTheDomainsUsesNothing) {
  EXPECT_EQ(0u, vsd_use_mem(-1));
  EXPECT_EQ(0u, vsd_use_mem(16));
  EXPECT_EQ(0u, vsd_use_mem(INT32_MAX));
}

TEST_F(Memory, DomainOverItsLimitLosesItsLargestProcessOnly) {
  for (const int vsd : {11, 12, 13}) {
    make_flag_dir(vsd);
    set_cgroups_all(vsd);
  }
  process small({4300}, [] { hold_memory(2048); });
  process large({4300}, [] { hold_memory(24576); });
  process middle({4300}, [] { hold_memory(8192); });
  process unmarked({4300}, [] { hold_memory(65536); });
  process other({4200}, [] { hold_memory(16384); });      // domain 12: over its limit, nobody marked
  process unlimited({4100}, [] { hold_memory(16384); });  // domain 11
  process homeless({4000}, [] { hold_memory(4096); });    // domain 10 has no directory
  for (const process* actor : {&small, &large, &middle}) {
    make_flag_file(13, actor->pid());
  }
  make_flag_file(12, 4194304);  // stale
  make_flag_file(12, 0);
  make_flag_file(11, unlimited.pid());
  ASSERT_EQ(0, set_mem_group(13, 16384));
  ASSERT_EQ(0, set_mem_group(12, 8192));

  const std::string text = lines_printed_by([] { EXPECT_EQ(0, set_vsd_mem()); });

  EXPECT_EQ(SIGKILL, large.signal());
  for (process* actor : {&small, &middle, &unmarked, &other, &unlimited, &homeless}) {
    EXPECT_FALSE(actor->ended()) << actor->pid();
  }
  const std::string line = "[WEX:wex_vsd:N]max_pid " + std::to_string(large.pid()) + " max_rss ";
  EXPECT_NE(std::string::npos, text.find(line)) << text;
  EXPECT_EQ(text.find("max_pid"), text.rfind("max_pid")) << "one process is killed in a measurement";
  EXPECT_EQ(16384u, vsd_use_mem(13)) << "the killed process counts as gone";
  EXPECT_EQ(8192u, vsd_use_mem(12));
  uint64_t expected[16] = {};
  EXPECT_EQ(0, get_vsd_mem(path_of(kProcSmapsFmt, kProcDir, unlimited.pid()).c_str(), 11, expected));
  EXPECT_GE(expected[11], 16384u);
  EXPECT_NEAR(static_cast<double>(expected[11]), static_cast<double>(vsd_use_mem(11)), 256.0);
  EXPECT_EQ(0u, vsd_use_mem(10));
  EXPECT_GT(vsd_use_mem(0), 0u) << "this very process belongs to no domain";
}

TEST_F(Memory, LargestProcessIsNeitherInitNorTheCallerNorADirectory) {
  make_flag_dir(13);
  pid_t own_thread = 0;
  std::atomic<bool> over{false};
  std::thread helper([&] {
    __atomic_store_n(&own_thread, gettid(), __ATOMIC_SEQ_CST);
    while (!over) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  ASSERT_TRUE(eventually([&] { return __atomic_load_n(&own_thread, __ATOMIC_SEQ_CST) != 0; },
                         std::chrono::seconds(5)));
  process victim({4300});
  process spared({4300}, [] { hold_memory(65536); });
  for (const pid_t pid : {1, 0, -5, getpid(), own_thread, 4194304, victim.pid()}) {
    make_flag_file(13, pid);
  }
  write_file("/tmp/vsd/13/wex/not a number", "");
  make_dirs("/tmp/vsd/13/wex/" + std::to_string(spared.pid()));
  const std::string text = lines_printed_by([] { find_max_rss(13); });
  EXPECT_EQ(SIGKILL, victim.signal());
  EXPECT_FALSE(spared.ended());
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]find_max_rss: atio proc: "));
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]find_max_rss: fopen fail: No such file or directory\n"));
  over = true;
  helper.join();
}

TEST_F(Memory, OfEquallyLargeProcessesTheFirstIsTaken) {
  make_flag_dir(13);
  // Threads of one process are all of its size, to the last page.
  process victim({4300}, [] {
    for (int count = 0; count < 4; ++count) {
      std::thread([] { pause(); }).detach();
    }
  });
  const std::vector<std::string> threads = list_dir("/proc/" + std::to_string(victim.pid()) + "/task");
  ASSERT_LE(5u, threads.size());  // an emulator may have its own
  for (const std::string& thread : threads) {
    make_flag_file(13, static_cast<pid_t>(std::stol(thread)));
  }
  std::string first;
  {
    dir_walk dir(path_of(kFlagDirFmt, 13).c_str());
    const dirent* entry = dir.next();
    while (std::find(threads.begin(), threads.end(), entry->d_name) == threads.end()) {
      entry = dir.next();
    }
    first = entry->d_name;
  }
  const std::string text = lines_printed_by([] { find_max_rss(13); });
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]max_pid " + first + " max_rss ")) << text;
  EXPECT_EQ(SIGKILL, victim.signal());
}

TEST_F(Memory, LinkThatLeadsNowhereIsTakenForAProcessAllTheSame) {
  make_flag_dir(13);
  process victim({4300});
  const std::string name = path_of(kFlagFileFmt, 13, victim.pid());
  ASSERT_EQ(0, symlink("/nowhere", name.c_str()));
  const std::string text = lines_printed_by([] { find_max_rss(13); });
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]find_max_rss: stat fail: No such file or directory\n"));
  EXPECT_EQ(SIGKILL, victim.signal());
}

TEST_F(Memory, NoProcessIsKilledWithoutAFlagFileDirectory) {
  EXPECT_EQ("[WEX:wex_vsd:N]find_max_rss: open dir fail: No such file or directory\n",
            lines_printed_by([] { find_max_rss(13); }));
}

TEST_F(Memory, CallWithoutCandidatesSignalsTheCallersOwnGroup) {
  make_flag_dir(13);
  process caller({}, [] { setpgid(0, 0); });
  process other({}, [&] { setpgid(0, 0); });
  const pid_t reckless = fork();
  if (reckless == 0) {
    setpgid(0, 0);
    find_max_rss(13);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(reckless, waitpid(reckless, &status, 0));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_FALSE(caller.ended());
}

TEST_F(BareRoot, MeasurementSaysSoAndEnds) {
  EXPECT_EQ("[WEX:wex_vsd:N]poll_use_mem: open dir fail: No such file or directory\n",
            printed_inside([] { return set_vsd_mem() == 0 && vsd_use_mem(0) == 0; }));
}

// A pause behind each process keeps the measurement from taking the machine.
TEST_F(BareRoot, MeasurementBeginsAnewEachTimeAndTakesItsTime) {
  for (const char* pid : {"4194305", "4194306", "4194307"}) {
    put_process(pid, "Groups:\t4300\n");
    write_file(std::string("/bare/proc/") + pid + "/smaps", "Rss: 7 kB\n");
  }
  put_process("4194308", "Groups:\t\n");
  write_file("/bare/proc/4194308/smaps", "Rss: 5 kB\n");
  make_dirs("/bare/tmp/vsd/13");  // a directory, and no control group: no limit
  printed_inside([] {
    for (int round = 0; round < 2; ++round) {
      const auto start = std::chrono::steady_clock::now();
      if (set_vsd_mem() != 0 || vsd_use_mem(13) != 0 || vsd_use_mem(0) != 5 ||
          std::chrono::steady_clock::now() - start < std::chrono::milliseconds(400)) {
        return false;
      }
    }
    return true;
  });
}

TEST_F(BareRoot, DomainThatUsesExactlyItsLimitIsNotOverIt) {
  for (const char* pid : {"4194305", "4194306"}) {
    put_process(pid, "Groups:\t4300\n");
    write_file(std::string("/bare/proc/") + pid + "/smaps", "Rss: 7 kB\n");
  }
  make_dirs("/bare/tmp/vsd/13");
  make_dirs("/bare/memory/vsd_13");
  const struct {
    const char* bytes;
    uint64_t use;
    const char* printed;
  } rows[] = {
      {"14336", 14, ""},
      {"14335", 13, "[WEX:wex_vsd:N]find_max_rss: open dir fail: No such file or directory\n"},
  };
  for (const auto& row : rows) {
    write_file("/bare/memory/vsd_13/memory.limit_in_bytes", row.bytes);
    EXPECT_EQ(row.printed, printed_inside([&] { return set_vsd_mem() == 0 && vsd_use_mem(13) == row.use; }));
  }
}

TEST_F(BareRoot, MeasurementTellsOfAProcessItCannotReadAndGoesOn) {
  make_dirs("/bare/proc/4194305");
  make_dirs("/bare/proc/4194306");
  write_file("/bare/proc/4194306/smaps", "Rss: 7 kB\n");
  const std::string text = printed_inside([] { return set_vsd_mem() == 0 && vsd_use_mem(0) == 7; });
  EXPECT_EQ(
      "[WEX:wex_vsd:N]get_vsd_mem: open conf file fail: No such file or directory\n"
      "[WEX:wex_vsd:N]poll_use_mem: get vsd mem fail: No such file or directory\n",
      text);
}

}  // namespace

#include "wex_vsd.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>

#include "domain_world.h"
#include "wex_limits.h"
#include "wex_vsd_remove.h"

using namespace domain_world;

namespace {

struct DomainOfAProcess : World {};
struct ControlGroups : World {};
struct Memory : World {};
struct Markers : World {};
struct KillByGroup : World {};
struct Removal : World {
  void SetUp() override {
    World::SetUp();
    make_dirs("/tmp/tree/inside");
  }
};
struct Show : World {};

// ---- Domain of a process ----------------------------------------------------------------------------------

TEST_F(DomainOfAProcess, IsReadFromItsFirstSupplementaryGroup) {
  struct {
    std::vector<gid_t> groups;
    int32_t vsd;
  } const rows[] = {{{3000}, 0},
                    {{3099}, 0},
                    {{3100}, 1},
                    {{3205}, 2},
                    {{4500}, 15},
                    {{4600}, 16},
                    {{2999}, 0},
                    {{}, -30},
                    {{2899}, -1},
                    {{3200, 100}, -29},
                    {{2900}, -1},
                    {{4510, 4590}, 15},
                    {{4294967294u}, 42949642}};
  for (const auto& row : rows) {
    process actor(row.groups);
    EXPECT_EQ(row.vsd, get_vsdid(actor.pid())) << (row.groups.empty() ? 0 : row.groups[0]);
  }
}

TEST_F(DomainOfAProcess, IsTheReasonWhenTheProcessIsNotThere) {
  EXPECT_EQ(-ENOENT, get_vsdid(4194305));
  EXPECT_EQ(-ENOENT, get_vsdid(0));
  EXPECT_EQ(-ENOENT, get_vsdid(-7));
}

TEST_F(DomainOfAProcess, IsNotTakenFromTheNameOfTheProcess) {
  process actor({3300}, [] { prctl(PR_SET_NAME, "Groups:\t3900"); });
  EXPECT_EQ(3, get_vsdid(actor.pid()));
}

TEST_F(DomainOfAProcess, StaysInRangeWhateverNumberStandsForTheGroup) {
  process actor({3300});
  const std::string facts = "/proc/" + std::to_string(actor.pid());
  ASSERT_EQ(0, unshare(CLONE_NEWNS)) << strerror(errno);
  ASSERT_EQ(0, mount("unit", facts.c_str(), "tmpfs", 0, "")) << strerror(errno);
  const struct {
    const char* groups;
    int32_t vsd;
  } rows[] = {{"-9223372036854775808", -21474866},
              {"9223372036854775807", 42949642},
              {"4294967295", 42949642},
              {"", -30}};
  for (const auto& row : rows) {
    write_text(facts + "/status", std::string("Groups:\t") + row.groups + " \n");
    EXPECT_EQ(row.vsd, get_vsdid(actor.pid())) << row.groups;
  }
  EXPECT_EQ(0, umount2(facts.c_str(), MNT_DETACH));
}

// ---- Control groups ---------------------------------------------------------------------------------------

std::set<std::string> tasks_of(const char* format, int vsd) {
  std::istringstream lines(text_of(path_of(format, vsd)));
  return {std::istream_iterator<std::string>(lines), {}};
}

TEST_F(ControlGroups, AreCreatedAndTakeInTheMarkedProcesses) {
  make_dirs(path_of(kDbDirFmt, 13));
  process first({4300});
  process second({4300});
  mark(13, first.pid());
  mark(13, second.pid());
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

TEST_F(ControlGroups, AreLeftOutWithoutAMarkerDirectory) {
  const std::string text = printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]set_cgroups: chdir fail: No such file or directory\n"));
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]set_cgroups_all: set mem group fail: No such file or directory\n"));
}

TEST_F(ControlGroups, NegativeNameEndsTheWalkInTheMarkerDirectory) {
  make_marker_dir(13);
  write_text(path_of(kMarkerFmt, 13, -5));
  const std::string text = printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]set_cgroups: atio proc: "));
  char cwd[64];
  EXPECT_STREQ("/tmp/vsd/13/wex", getcwd(cwd, sizeof cwd));
}

TEST_F(ControlGroups, AProcessThatIsGoneIsOnlyTold) {
  make_marker_dir(13);
  mark(13, 4194304);
  const std::string text = printed_by([] { EXPECT_EQ(0, set_cgroups_all(13)); });
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]add_cgroups: fwrite fail: No such process\n"));
}

struct Limits : ControlGroups {
  void SetUp() override {
    World::SetUp();
    make_marker_dir(13);
    set_cgroups_all(13);
  }
};

TEST_F(Limits, HardAndSoftAreWhatTheKernelReadsBack) {
  EXPECT_EQ(0, set_mem_group(13, 65536));
  EXPECT_EQ("67108864\n", text_of("/memory/vsd_13/memory.limit_in_bytes"));
  EXPECT_EQ("67108864\n", text_of("/memory/vsd_13/memory.soft_limit_in_bytes"));
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
    EXPECT_EQ(std::to_string(row.set * 1024) + "\n", text_of("/memory/vsd_13/memory.soft_limit_in_bytes"));
  }
}

TEST_F(Limits, OfTheMainSystemAndOfAMissingDomainAreNone) {
  EXPECT_EQ("", printed_by([] { EXPECT_EQ(0, get_maxmem_set(0)); }));
  EXPECT_EQ("[WEX:wex_vsd:N]get_maxmem_set: open fail: No such file or directory\n",
            printed_by([] { EXPECT_EQ(0, get_maxmem_set(12)); }));
}

TEST_F(Limits, FailWithTheReasonForAMissingDomain) {
  EXPECT_EQ(
      "[WEX:wex_vsd:N]set_mem_limit_group: fopen fail: No such file or directory\n"
      "[WEX:wex_vsd:N]set_mem_group: set_hard_mem_limit fail: No such file or directory\n",
      printed_by([] { EXPECT_EQ(-ENOENT, set_mem_group(12, 1)); }));
  EXPECT_EQ("[WEX:wex_vsd:N]set_cpu_group: fopen fail: No such file or directory\n",
            printed_by([] { EXPECT_EQ(-ENOENT, set_cpu_group(12, 10)); }));
}

TEST_F(Limits, CpuWeightIsTenthsOfTheDefault) {
  const std::pair<int32_t, const char*> rows[] = {
      {10, "1024\n"}, {5, "512\n"}, {7, "716\n"}, {100, "10240\n"}};
  for (const auto& [tenths, shares] : rows) {
    EXPECT_EQ(0, set_cpu_group(13, tenths));
    EXPECT_EQ(shares, text_of("/cpu/vsd_13/cpu.shares")) << tenths;
  }
}

TEST_F(Limits, CpuWeightWrapsAt32Bits) {
  EXPECT_EQ(0, set_cpu_group(13, 4194304 + 20)) << "the product wraps to 20480";
  EXPECT_EQ("2048\n", text_of("/cpu/vsd_13/cpu.shares"));
}

// Plain files in the place of control files show the very texts that are written.
struct PlainControlFiles : World {
  void SetUp() override {
    World::SetUp();
    for (const char* hierarchy : {"/memory", "/cpu"}) {
      ASSERT_EQ(0, mount("none", hierarchy, "tmpfs", 0, nullptr)) << strerror(errno);
      make_dirs(hierarchy + std::string("/vsd_13"));
    }
    write_text(kHard);
    write_text(kSoft);
    write_text(kShares);
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

TEST_F(PlainControlFiles, HoldTheLimitInKilobytes) {
  EXPECT_EQ(0, set_mem_group(13, 65536));
  EXPECT_EQ("65536K", text_of(kHard));
  EXPECT_EQ("65536K", text_of(kSoft));
  EXPECT_EQ(0, set_mem_group(13, UINT64_MAX));
  EXPECT_EQ("18446744073709551615K", text_of(kHard));
  EXPECT_EQ("18446744073709551615K", text_of(kSoft));
}

TEST_F(PlainControlFiles, HoldTheWeightTruncatedTowardsZero) {
  const std::pair<int32_t, const char*> rows[] = {
      {7, "716"}, {10, "1024"}, {0, "0"}, {-7, "-716"}, {1, "102"}};
  for (const auto& [tenths, text] : rows) {
    write_text(kShares);
    EXPECT_EQ(0, set_cpu_group(13, tenths));
    EXPECT_EQ(text, text_of(kShares)) << tenths;
  }
}

TEST_F(PlainControlFiles, SoftLimitThatFailsComesAfterTheHardOne) {
  ASSERT_EQ(0, unlink(kSoft));
  EXPECT_EQ(
      "[WEX:wex_vsd:N]set_mem_limit_group: fopen fail: No such file or directory\n"
      "[WEX:wex_vsd:N]set_mem_group: set_soft_mem_limit fail: No such file or directory\n",
      printed_by([] { EXPECT_EQ(-ENOENT, set_mem_group(13, 5)); }));
  EXPECT_EQ("5K", text_of(kHard));
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
    write_text(kHard, text);
    EXPECT_EQ(kib, get_maxmem_set(13)) << text;
  }
}

TEST_F(PlainControlFiles, PlantedLinkOrPipeIsNoControlFile) {
  ASSERT_EQ(0, unlink(kHard));
  write_text("/tmp/theirs", "untouched");
  ASSERT_EQ(0, symlink("/tmp/theirs", kHard));
  ASSERT_EQ(0, lchown(kHard, 1000, 1000));
  EXPECT_GT(0, set_mem_group(13, 5));
  EXPECT_EQ("untouched", text_of("/tmp/theirs"));
  ASSERT_EQ(0, unlink(kShares));
  ASSERT_EQ(0, mkfifo(kShares, 0666));
  EXPECT_GT(0, set_cpu_group(13, 10)) << "and does not block";
}

// ---- Memory -----------------------------------------------------------------------------------------------

TEST_F(Memory, OfALibraryMappingDoesNotCount) {
  write_text("/tmp/smaps",
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

TEST_F(Memory, CountsNegativeDomainsAsTheMainSystemAndOthersNotAtAll) {
  write_text("/tmp/smaps", "Rss: 7 kB\n");
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
  write_text("/tmp/smaps", "/lib" + std::string(1019, 'x') + "Rss: 9 kB\nRss: 5 kB\nRss: \n\nRss");
  uint64_t counters[16] = {};
  EXPECT_EQ(0, get_vsd_mem("/tmp/smaps", 2, counters));
  EXPECT_EQ(5u, counters[2]);
}

TEST_F(Memory, OfAnUnreadableProcessIsTheReason) {
  uint64_t counters[16] = {};
  EXPECT_EQ("[WEX:wex_vsd:N]get_vsd_mem: open conf file fail: No such file or directory\n",
            printed_by([&] { EXPECT_EQ(-ENOENT, get_vsd_mem("/proc/4194304/smaps", 2, counters)); }));
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
    make_marker_dir(vsd);
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
    mark(13, actor->pid());
  }
  mark(12, 4194304);  // stale
  mark(12, 0);
  mark(11, unlimited.pid());
  ASSERT_EQ(0, set_mem_group(13, 16384));
  ASSERT_EQ(0, set_mem_group(12, 8192));

  const std::string text = printed_by([] { EXPECT_EQ(0, set_vsd_mem()); });

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
  make_marker_dir(13);
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
    mark(13, pid);
  }
  write_text("/tmp/vsd/13/wex/not a number");
  make_dirs("/tmp/vsd/13/wex/" + std::to_string(spared.pid()));
  const std::string text = printed_by([] { find_max_rss(13); });
  EXPECT_EQ(SIGKILL, victim.signal());
  EXPECT_FALSE(spared.ended());
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]find_max_rss: atio proc: "));
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]find_max_rss: fopen fail: No such file or directory\n"));
  over = true;
  helper.join();
}

TEST_F(Memory, OfEquallyLargeProcessesTheFirstIsTaken) {
  make_marker_dir(13);
  // Threads of one process are all of its size, to the last page.
  process victim({4300}, [] {
    for (int count = 0; count < 4; ++count) {
      std::thread([] { pause(); }).detach();
    }
  });
  const std::set<std::string> threads = entries_of("/proc/" + std::to_string(victim.pid()) + "/task");
  ASSERT_LE(5u, threads.size());  // an emulator may have its own
  for (const std::string& thread : threads) {
    mark(13, static_cast<pid_t>(std::stol(thread)));
  }
  std::string first;
  {
    dir_walk dir(path_of(kMarkerDirFmt, 13).c_str());
    const dirent* entry = dir.next();
    while (threads.count(entry->d_name) == 0) {
      entry = dir.next();
    }
    first = entry->d_name;
  }
  const std::string text = printed_by([] { find_max_rss(13); });
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]max_pid " + first + " max_rss ")) << text;
  EXPECT_EQ(SIGKILL, victim.signal());
}

TEST_F(Memory, LinkThatLeadsNowhereIsTakenForAProcessAllTheSame) {
  make_marker_dir(13);
  process victim({4300});
  const std::string name = path_of(kMarkerFmt, 13, victim.pid());
  ASSERT_EQ(0, symlink("/nowhere", name.c_str()));
  const std::string text = printed_by([] { find_max_rss(13); });
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]find_max_rss: stat fail: No such file or directory\n"));
  EXPECT_EQ(SIGKILL, victim.signal());
}

TEST_F(Memory, NobodyIsKilledWithoutAMarkerDirectory) {
  EXPECT_EQ("[WEX:wex_vsd:N]find_max_rss: open dir fail: No such file or directory\n",
            printed_by([] { find_max_rss(13); }));
}

TEST_F(Memory, CallWithoutCandidatesSignalsTheCallersOwnGroup) {
  make_marker_dir(13);
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

// ---- Marker files -----------------------------------------------------------------------------------------

TEST_F(Markers, DeviceMonitorMarkerIsCreatedTestedAndConsumed) {
  EXPECT_EQ(-ENOENT, del_dev_mon_log());
  EXPECT_FALSE(there("/etc/dev_mon")) << "the test creates nothing";
  EXPECT_EQ(-ENOENT, del_dev_mon_restart());
  EXPECT_EQ(0, dev_mon_restart());
  EXPECT_EQ(0754u, mode_of("/etc/dev_mon"));
  EXPECT_EQ(0, dev_mon_restart()) << "again";
  EXPECT_EQ(0, del_dev_mon_log());
  EXPECT_TRUE(there("/etc/dev_mon")) << "deletes nothing";
  EXPECT_EQ(0, del_dev_mon_restart());
  EXPECT_FALSE(there("/etc/dev_mon"));
  EXPECT_EQ(-ENOENT, del_dev_mon_restart());
}

TEST_F(Markers, DebugLogIsThereOrTheReasonWhyNot) {
  EXPECT_EQ(-ENOENT, debug_log());
  make_dirs("/etc/debug_log");
  EXPECT_EQ(-EISDIR, debug_log());
  ASSERT_EQ(0, rmdir("/etc/debug_log"));
  write_text("/etc/debug_log", "kept");
  EXPECT_EQ(0, debug_log());
  EXPECT_EQ("kept", text_of("/etc/debug_log"));
}

TEST_F(Markers, CheckSbinWantsTheExactName) {
  write_text("/sbin/wex_app");
  EXPECT_EQ(1, check_sbin("wex_app"));
  for (const char* name :
       {"wex_ap", "wex_app2", "", ".", "..", "/wex_app", "/sbin/wex_app", "../sbin/wex_app"}) {
    EXPECT_EQ(0, check_sbin(name)) << name;
  }
}

// ---- Killing by group -------------------------------------------------------------------------------------

TEST_F(KillByGroup, SelectsByTheDigitsAnywhereInTheGroupList) {
  process exact({3977});
  process inside({139770});
  process second({100, 3977});
  process other({3976, 39078});
  process none({});
  process named({}, [] { prctl(PR_SET_NAME, "Groups:3977"); });
  const std::string text = printed_by([] { EXPECT_EQ(0, kill_proc_by_groups(SIGTERM, 3977)); });
  for (process* actor : {&exact, &inside, &second, &named}) {
    EXPECT_EQ(SIGTERM, actor->signal());
    EXPECT_NE(std::string::npos, text.find(" pid: " + std::to_string(actor->pid()) + "\n"));
  }
  EXPECT_FALSE(other.ended());
  EXPECT_FALSE(none.ended());
  const std::string line = "[WEX:wex_vsd:N]delete vsd: supplement_id: ";
  EXPECT_NE(std::string::npos, text.find(line + "3977 pid: " + std::to_string(exact.pid()) + "\n"));
  EXPECT_NE(std::string::npos, text.find(line + "39770 pid: " + std::to_string(inside.pid()) + "\n"));
}

TEST_F(KillByGroup, MissesWhatStandsBehind254Characters) {
  std::vector<gid_t> many;
  for (gid_t group = 100001; group < 100041; ++group) {
    many.push_back(group);
  }
  many.push_back(3977000);
  process late(many);
  process early({3977});
  kill_proc_by_groups(SIGTERM, 3977);
  EXPECT_EQ(SIGTERM, early.signal());
  EXPECT_FALSE(late.ended());
}

TEST_F(KillByGroup, SignalZeroHarmsNobody) {
  process actor({3977});
  EXPECT_EQ(0, kill_proc_by_groups(0, 3977));
  EXPECT_FALSE(actor.ended());
}

// ---- Recursive removal ------------------------------------------------------------------------------------

TEST_F(Removal, TakesFilesAndDirectoriesOfAnyKind) {
  make_dirs("/tmp/tree/a/b/c");
  write_text("/tmp/tree/a/file");
  ASSERT_EQ(0, mkfifo("/tmp/tree/a/fifo", 0600));
  write_text("/tmp/tree/%s%n");
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_FALSE(there("/tmp/tree"));
  write_text("/tmp/file");
  EXPECT_EQ(0, remove_dir_tree("/tmp/file"));
  EXPECT_FALSE(there("/tmp/file"));
  EXPECT_EQ(-ENOENT, remove_dir_tree("/tmp/file"));
  EXPECT_EQ(-ENOENT, remove_dir_tree("/tmp/nothing/at/all"));
}

struct RemovalOfLinks : Removal {
  void SetUp() override {
    Removal::SetUp();
    make_dirs("/keep/below");
    write_text("/keep/file", "precious");
    write_text("/keep/below/file", "precious");
  }
  static void link(const char* target, const char* name, uid_t owner) {
    ASSERT_EQ(0, symlink(target, name));
    ASSERT_EQ(0, lchown(name, owner, owner));
  }
  static bool kept() {
    return text_of("/keep/file") == "precious" && text_of("/keep/below/file") == "precious";
  }
};

TEST_F(RemovalOfLinks, SomebodysLinkToADirectoryGoesAndItsTargetStays) {
  link("/keep", "/tmp/tree/inside/link", 1000);
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_FALSE(there("/tmp/tree"));
  EXPECT_TRUE(kept());
}

TEST_F(RemovalOfLinks, SomebodysLinkAtTheTopGoesAndItsTargetStays) {
  link("/keep", "/tmp/top", 1000);
  EXPECT_EQ(0, remove_dir_tree("/tmp/top"));
  EXPECT_FALSE(there("/tmp/top"));
  link("/keep", "/tmp/top", 1000);
  EXPECT_EQ(0, remove_dir_tree("/tmp/top/"));
  EXPECT_TRUE(kept());
}

TEST_F(RemovalOfLinks, SomebodysLinkOnTheWayIsNotFollowed) {
  link("/keep", "/tmp/way", 1000);
  EXPECT_EQ(-ELOOP, remove_dir_tree("/tmp/way/below"));
  EXPECT_TRUE(there("/tmp/way"));
  EXPECT_TRUE(kept());
}

TEST_F(RemovalOfLinks, RootsLinkToADirectoryIsEmptiedAndStays) {
  link("/keep", "/tmp/tree/inside/link", 0);
  EXPECT_EQ(-ENOTDIR, remove_dir_tree("/tmp/tree"));
  EXPECT_TRUE(entries_of("/keep").empty());
  EXPECT_TRUE(there("/tmp/tree/inside/link"));
}

TEST_F(RemovalOfLinks, RootsLinkOnTheWayIsFollowed) {
  link("/keep", "/tmp/way", 0);
  EXPECT_EQ(0, remove_dir_tree("/tmp/way/below"));
  EXPECT_EQ((std::set<std::string>{"file"}), entries_of("/keep"));
}

TEST_F(RemovalOfLinks, RootsLinkToSomebodysLinkIsNotFollowed) {
  link("/keep", "/tmp/theirs", 1000);
  link("/tmp/theirs", "/tmp/tree/inside/link", 0);
  link("/tmp/theirs/below", "/tmp/tree/inside/longer", 0);
  remove_dir_tree("/tmp/tree");
  EXPECT_TRUE(kept());
  link("/tmp/theirs", "/tmp/way", 0);
  EXPECT_EQ(-ELOOP, remove_dir_tree("/tmp/way/below"));
  EXPECT_TRUE(kept());
}

TEST_F(RemovalOfLinks, LinkToAFileGoesItself) {
  link("/keep/file", "/tmp/tree/mine", 0);
  link("/keep/file", "/tmp/tree/theirs", 1000);
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_TRUE(kept());
}

TEST_F(RemovalOfLinks, LinkThatLeadsNowhereIsAFailureThatStopsNothingElse) {
  link("/nowhere", "/tmp/tree/inside/link", 0);
  write_text("/tmp/tree/file");
  EXPECT_EQ(-ENOENT, remove_dir_tree("/tmp/tree"));
  EXPECT_EQ((std::set<std::string>{"inside"}), entries_of("/tmp/tree"));
}

TEST_F(RemovalOfLinks, LoopOfLinksEnds) {
  link("/tmp/tree", "/tmp/tree/inside/up", 1000);
  link("loop", "/tmp/tree/inside/loop", 0);
  EXPECT_EQ(-ELOOP, remove_dir_tree("/tmp/tree"));
  EXPECT_EQ((std::set<std::string>{"loop"}), entries_of("/tmp/tree/inside"));
}

TEST_F(Removal, EntryWhosePathIsLongerThan255CharactersFailsAlone) {
  const std::string exact = "/tmp/tree/" + std::string(245, 'x');
  make_dirs(exact);
  ASSERT_EQ(255u, exact.size());
  const std::string too_long = "/tmp/tree/" + std::string(246, 'y');
  make_dirs(too_long);
  write_text("/tmp/tree/inside/" + std::string(255, 'z'));
  write_text("/tmp/tree/file");
  EXPECT_EQ(-ENAMETOOLONG, remove_dir_tree("/tmp/tree"));
  EXPECT_EQ((std::set<std::string>{"inside", std::string(246, 'y')}), entries_of("/tmp/tree"));
  EXPECT_EQ(-ENAMETOOLONG, remove_dir_tree(too_long.c_str()));
}

TEST_F(Removal, DirectoryWithALongestPathIsNotTakenForItsOwnContent) {
  const std::string exact = "/tmp/tree/" + std::string(245, 'x');
  make_dirs(exact);
  write_text(exact + "/y");
  EXPECT_EQ(-ENAMETOOLONG, remove_dir_tree(exact.c_str()));
  EXPECT_TRUE(there(exact + "/y"));
}

TEST_F(Removal, DeepTreeGoesDownToTheLongestPath) {
  std::string deep = "/tmp/tree";
  while (deep.size() < 254) {
    deep += "/d";
  }
  make_dirs(deep);
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_FALSE(there("/tmp/tree"));
}

TEST_F(Removal, TreeDeeperThanAnyPathEndsWithAFailure) {
  ASSERT_EQ(0, chdir("/tmp/tree"));
  for (int depth = 0; depth < 3000; ++depth) {
    ASSERT_EQ(0, mkdir("d", 0777));
    ASSERT_EQ(0, chdir("d"));
  }
  ASSERT_EQ(0, chdir("/"));
  EXPECT_EQ(-ENAMETOOLONG, remove_dir_tree("/tmp/tree"));
  EXPECT_EQ((std::set<std::string>{"d"}), entries_of("/tmp/tree"));
}

TEST_F(Removal, MountedDirectoryStaysAndTheRestGoes) {
  // "/memory" of the sandbox is a mount: emptied, busy itself.
  write_text("/tmp/tree/file");
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_NE(0, remove_dir_tree("/memory"));
  EXPECT_TRUE(there("/memory/tasks"));
}

TEST_F(Removal, ControlGroupGoesAlthoughItsFilesCannot) {
  make_marker_dir(13);
  set_cgroups_all(13);
  make_dirs("/memory/vsd_13/nested");
  EXPECT_EQ(-EPERM, remove_dir_tree("/memory/vsd_13/"));
  EXPECT_FALSE(there("/memory/vsd_13"));
}

TEST_F(Removal, BusyControlGroupStays) {
  make_marker_dir(13);
  process actor({4300});
  mark(13, actor.pid());
  set_cgroups_all(13);
  EXPECT_GT(0, remove_dir_tree("/memory/vsd_13/"));
  EXPECT_TRUE(there("/memory/vsd_13"));
}

struct RemovalOfDomains : World {
  void SetUp() override {
    World::SetUp();
    for (const char* format : all_) {
      for (const int vsd : {13, 1}) {
        make_dirs(path_of(format, vsd));
      }
      write_text(path_of(format, 13) + "/file");
    }
  }
  static std::vector<std::string> left(int vsd) {
    std::vector<std::string> names;
    for (const char* format : all_) {
      if (there(path_of(format, vsd))) {
        names.push_back(path_of(format, vsd));
      }
    }
    return names;
  }
  static constexpr const char* all_[] = {"/tmp/vsd/%d",        "/etc/vsd/%d",         "/data/var/run/vsd/%d",
                                         "/data/.ovix/vsd/%d", "/data2/.ovix/vsd/%d", "/data2/var/run/vsd/%d",
                                         "/qx_cfg/vsd/%d",     "/ovix/vsd/%d"};
};

TEST_F(RemovalOfDomains, EachOperationRemovesItsOwnDirectoriesOnly) {
  struct {
    unsigned set;
    std::vector<std::string> left;
  } const rows[] = {
      {WEX_REMOVE_RELOAD,
       {"/data/var/run/vsd/13", "/data/.ovix/vsd/13", "/data2/.ovix/vsd/13", "/data2/var/run/vsd/13",
        "/qx_cfg/vsd/13", "/ovix/vsd/13"}},
      {WEX_REMOVE_STOP,
       {"/data/var/run/vsd/13", "/data/.ovix/vsd/13", "/data2/.ovix/vsd/13", "/data2/var/run/vsd/13",
        "/qx_cfg/vsd/13", "/ovix/vsd/13"}},
      {WEX_REMOVE_FILES,
       {"/data/.ovix/vsd/13", "/data2/.ovix/vsd/13", "/data2/var/run/vsd/13", "/qx_cfg/vsd/13",
        "/ovix/vsd/13"}},
      {WEX_REMOVE_DELETE, {}},
  };
  for (const auto& row : rows) {
    SetUp();
    remove_domain_trees(13, row.set);
    EXPECT_EQ(row.left, left(13)) << row.set;
    EXPECT_EQ(std::size(all_), left(1).size()) << "the neighbour's go with nobody";
  }
  SetUp();
  EXPECT_EQ(0, delete_vsd_file(13));
  EXPECT_EQ(5u, left(13).size());
}

TEST_F(RemovalOfDomains, ControlGroupsGoWithStopAndDeleteOnly) {
  for (const unsigned set : {WEX_REMOVE_RELOAD, WEX_REMOVE_FILES, WEX_REMOVE_STOP, WEX_REMOVE_DELETE}) {
    make_marker_dir(13);
    set_cgroups_all(13);
    remove_domain_trees(13, set);
    const bool gone = (set & (WEX_REMOVE_STOP | WEX_REMOVE_DELETE)) != 0;
    EXPECT_EQ(!gone, there("/memory/vsd_13")) << set;
    EXPECT_EQ(!gone, there("/cpu/vsd_13")) << set;
  }
}

// ---- Show -------------------------------------------------------------------------------------------------

TEST_F(Show, PrintsEveryDomainThatIsThere) {
  make_dirs(path_of(kDbDirFmt, 1));
  make_marker_dir(4);
  mark(4, 77);
  make_marker_dir(0);
  make_marker_dir(16);
  g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
  EXPECT_EQ("Vsd_1: /tmp/vsd/1/wex/\ndb\nVsd_4: /tmp/vsd/4/wex/\n77\n",
            printed_by([] { EXPECT_EQ(16, show_vsd()); }));
}

TEST_F(Show, PrintsNothingWithoutDomains) {
  EXPECT_EQ("", printed_by([] { EXPECT_EQ(16, show_vsd()); }));
}

// ---- A device whose directories cannot be read ------------------------------------------------------------

struct BareRoot : World {
  // What `work` prints in an empty root.
  static std::string printed_inside(const std::function<bool()>& work) {
    make_dirs("/bare");
    return printed_by([&] {
      const pid_t child = fork();
      if (child == 0) {
        _exit(chroot("/bare") == 0 && chdir("/") == 0 && work() ? 0 : 1);
      }
      int status = -1;
      EXPECT_EQ(child, waitpid(child, &status, 0));
      EXPECT_EQ(0, status);
    });
  }
};

TEST_F(BareRoot, MeasurementSaysSoAndEnds) {
  EXPECT_EQ("[WEX:wex_vsd:N]poll_use_mem: open dir fail: No such file or directory\n",
            printed_inside([] { return set_vsd_mem() == 0 && vsd_use_mem(0) == 0; }));
}

TEST_F(BareRoot, SignallingByGroupIsTheReason) {
  EXPECT_EQ("[WEX:wex_vsd:N]kill_proc_by_groups: opendir fail: No such file or directory\n",
            printed_inside([] { return kill_proc_by_groups(SIGTERM, 3977) == -ENOENT; }));
}

TEST_F(BareRoot, LookIntoSbinIsTheReason) {
  EXPECT_EQ("[WEX:wex_vsd:N]check_sbin: opendir fail: No such file or directory\n",
            printed_inside([] { return check_sbin("app") == -ENOENT; }));
}

TEST_F(BareRoot, CreateStillReturnsZero) {
  const std::string text = printed_inside([] { return create_vsd(13) == 0; });
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]create_vsd: open fail: No such file or directory\n"));
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]save_vsdinfo: opendir fail: No such file or directory\n"));
}

TEST_F(BareRoot, MarkersNameTheReasonWhenTheyCannotBeMade) {
  EXPECT_EQ("", printed_inside([] {
              return dev_mon_restart() == -ENOENT && del_dev_mon_log() == -ENOENT && debug_log() == -ENOENT;
            }));
}

// ---- Take-down without its processes ----------------------------------------------------------------------

struct TakeDown : World {};

TEST_F(TakeDown, OfADomainThatIsNotThereIsRefusedAtOnce) {
  EXPECT_EQ("", printed_by([] {
              EXPECT_EQ(-ENOENT, delete_vsd(13));
              EXPECT_EQ(-ENOENT, stop_vsd(13));
            }));
  EXPECT_EQ("[WEX:wex_vsd:N]delete 13 vsd fail, error =No such file or directory\n",
            printed_by([] { EXPECT_EQ(-ENOENT, reload_vsd(13)); }));
  EXPECT_FALSE(there("/tmp/vsd/13"));
}

TEST_F(TakeDown, IsRefusedWhenSomebodysLinkStandsForTheMarker) {
  make_dirs("/tmp/vsd/13");
  ASSERT_EQ(0, symlink("/etc/planted", "/tmp/vsd/13/delete_vsd"));
  ASSERT_EQ(0, lchown("/tmp/vsd/13/delete_vsd", 1000, 1000));
  EXPECT_GT(0, delete_vsd(13));
  EXPECT_FALSE(there("/etc/planted"));
  EXPECT_TRUE(there("/tmp/vsd/13"));
}

}  // namespace

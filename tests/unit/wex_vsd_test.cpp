// wex_vsd: the domain of a process, marker files, signals by group, show, start and take-down as far as they
// go without a domain.
#include "wex_vsd.h"

#include <sys/prctl.h>

#include "domain_world.h"
#include "wex_limits.h"

using namespace domain_world;

namespace {

int device_answer = 0;  // of the platform call below, in this program and its children

}  // namespace

extern "C" int fs_set_vsd_envs(int /*vsd*/, int /*old_pid*/) {
  return device_answer;
}

namespace {

struct DomainOfAProcess : World {};
struct Markers : World {};
struct KillByGroup : World {};
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
    write_file(facts + "/status", std::string("Groups:\t") + row.groups + " \n");
    EXPECT_EQ(row.vsd, get_vsdid(actor.pid())) << row.groups;
  }
  EXPECT_EQ(0, umount2(facts.c_str(), MNT_DETACH));
}

// ---- Marker files -----------------------------------------------------------------------------------------

TEST_F(Markers, DeviceMonitorMarkerIsCreatedTestedAndConsumed) {
  EXPECT_EQ(-ENOENT, del_dev_mon_log());
  EXPECT_FALSE(exists("/etc/dev_mon")) << "the test creates nothing";
  EXPECT_EQ(-ENOENT, del_dev_mon_restart());
  EXPECT_EQ(0, dev_mon_restart());
  EXPECT_EQ(0754u, mode_of("/etc/dev_mon"));
  EXPECT_EQ(0, dev_mon_restart()) << "again";
  EXPECT_EQ(0, del_dev_mon_log());
  EXPECT_TRUE(exists("/etc/dev_mon")) << "deletes nothing";
  EXPECT_EQ(0, del_dev_mon_restart());
  EXPECT_FALSE(exists("/etc/dev_mon"));
  EXPECT_EQ(-ENOENT, del_dev_mon_restart());
}

TEST_F(Markers, DebugLogIsThereOrTheReasonWhyNot) {
  EXPECT_EQ(-ENOENT, debug_log());
  make_dirs("/etc/debug_log");
  EXPECT_EQ(-EISDIR, debug_log());
  ASSERT_EQ(0, rmdir("/etc/debug_log"));
  write_file("/etc/debug_log", "kept");
  EXPECT_EQ(0, debug_log());
  EXPECT_EQ("kept", read_file("/etc/debug_log"));
}

TEST_F(Markers, CheckSbinWantsTheExactName) {
  write_file("/sbin/wex_app", "");
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
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, kill_proc_by_groups(SIGTERM, 3977)); });
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

TEST_F(KillByGroup, SignalZeroOnlyChecks) {
  process actor({3977});
  EXPECT_EQ(0, kill_proc_by_groups(0, 3977));
  EXPECT_FALSE(actor.ended());
}

// Pids that no kernel gives out, in a /proc of the test's own.
TEST_F(BareRoot, AProcessWhoseStatusCannotBeReadIsSkipped) {
  make_dirs("/bare/proc/4194305");
  put_process("4194306", "Groups:\t3977\n");
  const std::string text = printed_inside([] { return kill_proc_by_groups(SIGTERM, 3977) == 0; });
  for (const char* line : {"[WEX:wex_vsd:N]kill_proc_by_groups: fopen fail: No such file or directory\n",
                           "[WEX:wex_vsd:N]delete vsd: supplement_id: 3977 pid: 4194306\n"}) {
    EXPECT_NE(std::string::npos, text.find(line)) << line << "in\n" << text;
  }
}

TEST_F(BareRoot, EveryLineThatMatchesSelectsAndIsPrinted) {
  put_process("4194305", "Name:\tGroups:3977\nGroups:\t3977 \n");
  const std::string line = "[WEX:wex_vsd:N]delete vsd: supplement_id: 3977 pid: 4194305\n";
  EXPECT_EQ(line + line, printed_inside([] { return kill_proc_by_groups(SIGTERM, 3977) == 0; }));
}

TEST_F(BareRoot, ProcessZeroIsReportedAndNeverSignalled) {
  put_process("0", "Groups:\t3977\n");
  const std::string text = printed_inside([] { return kill_proc_by_groups(0, 3977) == 0; });
  EXPECT_EQ(0U, text.find("[WEX:wex_vsd:N]kill_proc_by_groups: atoi proc: ")) << text;
  EXPECT_EQ(std::string::npos, text.find("delete vsd:")) << text;
}

TEST_F(BareRoot, AGroupThatIsNoneIsReportedAndTheProcessSignalled) {
  put_process("4194305", "Groups:\t-100\n");
  const std::string text = printed_inside([] { return kill_proc_by_groups(SIGTERM, -100) == 0; });
  EXPECT_EQ(0U, text.find("[WEX:wex_vsd:N]kill_proc_by_groups: atoi fail: ")) << text;
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]delete vsd: supplement_id: -100 pid: 4194305\n"));
}

// ---- Show -------------------------------------------------------------------------------------------------

TEST_F(Show, PrintsEveryDomainThatIsThere) {
  make_dirs(path_of(kDbDirFmt, 1));
  make_flag_dir(4);
  make_flag_file(4, 77);
  make_flag_dir(0);
  make_flag_dir(16);
  g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
  EXPECT_EQ("Vsd_1: /tmp/vsd/1/wex/\ndb\nVsd_4: /tmp/vsd/4/wex/\n77\n",
            lines_printed_by([] { EXPECT_EQ(16, show_vsd()); }));
}

TEST_F(Show, PrintsNothingWithoutDomains) {
  EXPECT_EQ("", lines_printed_by([] { EXPECT_EQ(16, show_vsd()); }));
}

// ---- A device whose directories cannot be read ------------------------------------------------------------

TEST_F(BareRoot, SignallingByGroupIsTheReason) {
  EXPECT_EQ("[WEX:wex_vsd:N]kill_proc_by_groups: opendir fail: No such file or directory\n",
            printed_inside([] { return kill_proc_by_groups(SIGTERM, 3977) == -ENOENT; }));
}

TEST_F(BareRoot, LookIntoSbinIsTheReason) {
  EXPECT_EQ("[WEX:wex_vsd:N]check_sbin: opendir fail: No such file or directory\n",
            printed_inside([] { return check_sbin("app") == -ENOENT; }));
}

TEST_F(BareRoot, CreateStillReturnsZero) {
  write_file("/bare/tmp", "in the way of the domain's directory");
  const std::string text = printed_inside([] { return create_vsd(13) == 0; });
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]create_vsd: open fail: Not a directory\n"));
  EXPECT_NE(std::string::npos,
            text.find("[WEX:wex_vsd:N]save_vsdinfo: opendir fail: No such file or directory\n"));
}

TEST_F(BareRoot, MarkersNameTheReasonWhenTheyCannotBeMade) {
  EXPECT_EQ("", printed_inside([] {
              return dev_mon_restart() == -ENOENT && del_dev_mon_log() == -ENOENT && debug_log() == -ENOENT;
            }));
}

// Each step of a domain's start that fails ends it there, in the child; the caller goes on.
TEST_F(BareRoot, CreateTellsWhichStepOfTheStartFailed) {
  const auto failure = [] {
    const std::string text = printed_inside([] { return create_vsd(13) == 0; });
    std::string all;
    for (const std::string& line :
         all_matches(text, "create_vsd: (open|open uptime|read|write|chdir) fail: [^\n]*")) {
      all += line;
    }
    return all;
  };
  make_dirs("/bare/tmp/vsd");
  EXPECT_EQ("create_vsd: open uptime fail: No such file or directory", failure());
  make_dirs("/bare/proc/uptime");
  EXPECT_EQ("create_vsd: read fail: Is a directory", failure());
  ASSERT_EQ(0, rmdir("/bare/proc/uptime"));
  write_file("/bare/proc/uptime", "12.34 5.67\n");
  EXPECT_EQ(0, system("rm -rf /bare/data"));
  write_file("/bare/data", "in the way of the run directory");
  EXPECT_EQ("create_vsd: chdir fail: Not a directory", failure());
  EXPECT_EQ("12.34 5.67\n", read_file("/bare/tmp/vsd/13/starttime"));
  ASSERT_EQ(0, mount("none", "/bare/tmp", "tmpfs", 0, "size=4k")) << strerror(errno);
  make_dirs("/bare/tmp/vsd");
  write_file("/bare/tmp/full", std::string(4096, 'f'));
  EXPECT_EQ("create_vsd: write fail: No space left on device", failure());
}

struct Recording : World {
  void TearDown() override {
    EXPECT_EQ(0, system("rm -rf /tmp/vsd"));
    World::TearDown();
  }
};

// What runs in the domain is recorded whatever became of its start.
TEST_F(Recording, GoesOnWhenTheStartFails) {
  make_flag_dir(6);
  process member({3600});
  process other({3500});
  device_answer = -1;
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, create_vsd(6)); });
  device_answer = 0;
  EXPECT_NE(std::string::npos, text.find("[WEX:wex_vsd:N]create_vsd: fs get vsd envs fail: ")) << text;
  EXPECT_EQ(0754u, mode_of(path_of(kFlagFileFmt, 6, member.pid())));
  EXPECT_FALSE(exists(path_of(kFlagFileFmt, 6, other.pid())));
}

TEST_F(Recording, EndsAtTheFirstFlagFileThatCannotBeMade) {
  process member({3600});
  process second({3600});
  device_answer = -1;
  const std::string text = lines_printed_by([] { EXPECT_EQ(0, create_vsd(6)); });
  device_answer = 0;
  const std::string line = "[WEX:wex_vsd:N]save_vsdinfo: open fail: No such file or directory\n";
  EXPECT_EQ(text.find(line), text.rfind(line)) << text;
  EXPECT_NE(std::string::npos, text.find(line)) << text;
}

// ---- Take-down without its processes ----------------------------------------------------------------------

struct TakeDown : World {};

// What makes the second look into /proc fail leaves the marker: the domain's processes may still run.
TEST_F(BareRoot, ATakeDownWhoseKillFailsKeepsItsMarker) {
  make_dirs("/bare/tmp/vsd/13");
  put_process("4194305", "Groups:\t4300\n");
  const printed output;
  std::thread meanwhile([&] {  // between the first look, which finds the process, and the second
    EXPECT_TRUE(eventually([&] { return output.has("supplement_id: 4300 pid: 4194305\n"); }, 20s));
    EXPECT_EQ(0, rename("/bare/proc", "/bare/proc.away"));
  });
  run_inside([] { return stop_vsd(13) == -ENOENT; });
  meanwhile.join();
  const std::string text = without_line_numbers(output.text());
  EXPECT_NE(std::string::npos,
            text.find("After 5s, Sending vsd: 13 all processes the KILL signal...\n"
                      "[WEX:wex_vsd:N]kill_proc_by_groups: opendir fail: No such file or directory\n"
                      "[WEX:wex_vsd:N]stop_vsd: ret < 0: No such file or directory\n"))
      << text;
  EXPECT_TRUE(exists("/bare/tmp/vsd/13/delete_vsd"));
}

TEST_F(TakeDown, OfADomainThatIsNotThereIsRefusedAtOnce) {
  EXPECT_EQ("", lines_printed_by([] {
              EXPECT_EQ(-ENOENT, delete_vsd(13));
              EXPECT_EQ(-ENOENT, stop_vsd(13));
            }));
  EXPECT_EQ("[WEX:wex_vsd:N]delete 13 vsd fail, error =No such file or directory\n",
            lines_printed_by([] { EXPECT_EQ(-ENOENT, reload_vsd(13)); }));
  EXPECT_FALSE(exists("/tmp/vsd/13"));
}

TEST_F(TakeDown, IsRefusedWhenSomebodysLinkStandsForTheMarker) {
  make_dirs("/tmp/vsd/13");
  ASSERT_EQ(0, symlink("/etc/planted", "/tmp/vsd/13/delete_vsd"));
  ASSERT_EQ(0, lchown("/tmp/vsd/13/delete_vsd", 1000, 1000));
  EXPECT_GT(0, delete_vsd(13));
  EXPECT_FALSE(exists("/etc/planted"));
  EXPECT_TRUE(exists("/tmp/vsd/13"));
}

}  // namespace

// Starting programs: the domain that a program belongs to, and what it is given there.
#include <grp.h>

#include "failing_calls.h"
#include "file_mark.h"
#include "proc_world.h"
#include "wex_child.h"
#include "wex_flag_file.h"

using namespace proc_world;

// Its number where there are several.
#ifdef SYS_setgroups32
constexpr long kSetGroupsCall = SYS_setgroups32;
#else
constexpr long kSetGroupsCall = SYS_setgroups;
#endif

namespace {

file_mark mark_of_dir(int domain) {
  struct stat facts = {};
  EXPECT_EQ(0, stat(domain_dir(domain).c_str(), &facts));
  return mark_of(facts);
}

TEST_F(ProcWorld, AProcessIsFoundInTheLowestDomainThatHasItsFlagFile) {
  make_domain(3);
  make_domain(15);
  write_file(domain_dir(3) + "/812", "");
  write_file(domain_dir(15) + "/812", "");
  write_file(domain_dir(15) + "/900x", "");
  EXPECT_EQ(3, find_app(812));
  EXPECT_EQ(15, find_app(900));
  EXPECT_EQ(-1, find_app(81));
}

TEST_F(ProcWorld, AFlagFileIsFoundWithoutReadingItsCrowdedDirectory) {
  make_domain(3);
  write_file(domain_dir(3) + "/812", "");
  EXPECT_EQ(3, run_failing({"getdents64:error=EIO"}, [] { return find_app(812); }));
}

// Anybody may fill it, and the caller holds the registry. The odd name in the other domain takes two calls.
TEST_F(ProcWorld, ACrowdedDirectoryIsListedOnceAndNotToItsEnd) {
  const auto found = [](int32_t pid) { return [pid] { return find_app(pid); }; };
  make_domain(3);
  make_domain(4);
  write_file(domain_dir(4) + "/0812", "");
  for (int pid = 100000; pid < 110000; ++pid) {
    write_file(domain_dir(3) + "/" + std::to_string(pid), "");
  }
  EXPECT_EQ(4, run_failing({"getdents64:signal=SIGKILL:when=6+"}, found(812))) << "it is read to its end";
  ASSERT_TRUE(eventually([] { return has_settled(mark_of_dir(3)) && has_settled(mark_of_dir(4)); }, 20s));
  EXPECT_EQ(-1, find_app(813));
  EXPECT_EQ(4, run_failing({"getdents64:signal=SIGKILL:when=3+"}, found(812))) << "it is read again";
  remove_tree(domain_dir(3));
  make_domain(3);
  write_file(domain_dir(3) + "/0812", "");
  EXPECT_EQ(3, find_app(812)) << "it has changed";
}

TEST_F(ProcWorld, TheMainSystemHasNoFlagFiles) {
  make_domain(0);
  write_file(domain_dir(0) + "/812", "");
  EXPECT_EQ(-1, find_app(812));
}

TEST_F(ProcWorld, AFlagFileIsMadeForThePidAndTheDirectoryMovesThere) {
  make_domain(2);
  umask(0);
  EXPECT_EQ(0, save_proc_info(2, 4711));
  umask(022);
  EXPECT_EQ(0754u, mode_of(domain_dir(2) + "/4711"));
  EXPECT_EQ("", read_file(domain_dir(2) + "/4711"));
  char where[64];
  EXPECT_STREQ(run_dir(2).c_str(), getcwd(where, sizeof where));
}

TEST_F(ProcWorld, WithoutARunDirectoryNoFlagFileIsMade) {
  make_dirs(domain_dir(2));
  EXPECT_EQ(-ENOENT, save_proc_info(2, 4711));
  EXPECT_FALSE(exists(domain_dir(2) + "/4711"));
  char where[64];
  EXPECT_STREQ("/", getcwd(where, sizeof where));
}

TEST_F(ProcWorld, SomebodysLinkInPlaceOfTheRunDirectoryIsNotEntered) {
  make_dirs(domain_dir(2));
  make_dirs("/data/var/run/vsd");
  ASSERT_EQ(0, symlink("/etc", run_dir(2).c_str()));
  ASSERT_EQ(0, lchown(run_dir(2).c_str(), 1000, 1000));
  EXPECT_EQ(-ELOOP, save_proc_info(2, 4711));
  EXPECT_FALSE(exists(domain_dir(2) + "/4711"));
  char where[64];
  EXPECT_STREQ("/", getcwd(where, sizeof where));
  EXPECT_EQ(0, in_child([] {
              set_proc_env(2, 812);
              char place[64] = "";
              return getcwd(place, sizeof place) != nullptr && std::string(place) == "/" ? 0 : 1;
            }));
}

std::string domain_report() {
  std::string report;
  for (const char* name : {"QX_CFG_DIR", "OVIX_DIR", "DATA_OVIX_DIR", "DATA_OVIX_DIR2", "TMPDIR", "KEPT"}) {
    const char* const value = getenv(name);
    report += std::string(name) + "=" + (value != nullptr ? value : "-") + "\n";
  }
  char where[64] = "?";
  report += std::string("cwd=") + getcwd(where, sizeof where) + "\n";
  gid_t groups[8];
  const int count = getgroups(8, groups);
  for (int i = 0; i < count; ++i) {
    report += "group=" + std::to_string(groups[i]) + "\n";
  }
  return report;
}

std::string in_domain(int domain, int32_t old_pid) {
  EXPECT_EQ(0, in_child([=] {
              setenv("KEPT", "yes", 1);
              setenv("OVIX_DIR", "/elsewhere", 1);
              wex_create_std_fd(0);
              set_proc_env(domain, old_pid);
              write_file("/tmp/wex/report", domain_report());
              return 0;
            }));
  return read_file("/tmp/wex/report");
}

TEST_F(ProcWorld, AProgramOfADomainGetsItsEnvironmentDirectoryAndGroup) {
  make_domain(15);
  for (const char* name : {"/812", "/812abc", "/813", "/8120"}) {
    write_file(domain_dir(15) + name, "");
  }
  EXPECT_EQ(
      "QX_CFG_DIR=/qx_cfg/vsd/15\nOVIX_DIR=/ovix/vsd/15\nDATA_OVIX_DIR=/data/.ovix/vsd/15\nDATA_OVIX_DIR2=-\n"
      "TMPDIR=/tmp/vsd/15\nKEPT=yes\ncwd=/data/var/run/vsd/15\ngroup=4500\n",
      in_domain(15, 812));
  EXPECT_EQ((texts{"813", "8120", "db"}).size(), list_dir(domain_dir(15)).size());
  EXPECT_TRUE(exists(domain_dir(15) + "/813"));
  EXPECT_TRUE(exists(domain_dir(15) + "/8120"));
  EXPECT_TRUE(exists(domain_dir(15) + "/db"));
  EXPECT_TRUE(console_says("]setgroups success\n"));
}

TEST_F(ProcWorld, ASecondDataDiskIsNamedOnlyWhereItIs) {
  make_domain(1);
  make_dirs("/data2");
  const std::string report = in_domain(1, 812);
  EXPECT_NE(std::string::npos, report.find("DATA_OVIX_DIR2=/data2/.ovix/vsd/1\n")) << report;
  EXPECT_NE(std::string::npos, report.find("group=3100\n")) << report;
}

TEST_F(ProcWorld, WhenThePlatformRefusesNothingIsSet) {
  make_domain(1);
  write_file(domain_dir(1) + "/812", "");
  g_platform_result = -1;
  const std::string report = in_domain(1, 812);
  EXPECT_NE(std::string::npos, report.find("TMPDIR=-\n")) << report;
  EXPECT_NE(std::string::npos, report.find("OVIX_DIR=/elsewhere\n")) << report;
  EXPECT_NE(std::string::npos, report.find("cwd=/\n")) << report;
  EXPECT_TRUE(exists(domain_dir(1) + "/812"));
  EXPECT_TRUE(console_says("]set_proc_env: fs set vsd envs fail\n"));
  EXPECT_EQ(std::string::npos, read_console().find("setgroups success"));
}

TEST_F(ProcWorld, WithoutARunDirectoryTheEnvironmentIsAllThatIsSet) {
  make_dirs(domain_dir(1));
  write_file(domain_dir(1) + "/812", "");
  const std::string report = in_domain(1, 812);
  EXPECT_NE(std::string::npos, report.find("TMPDIR=/tmp/vsd/1\n")) << report;
  EXPECT_NE(std::string::npos, report.find("cwd=/\n")) << report;
  EXPECT_EQ(std::string::npos, report.find("group=3100\n")) << report;
  EXPECT_TRUE(exists(domain_dir(1) + "/812"));
}

TEST_F(ProcWorld, AGroupThatCannotBeSetKeepsNothingElseFromTheProgram) {
  make_domain(1);
  write_file(domain_dir(1) + "/812", "");
  EXPECT_EQ(0, in_child([] {
              if (!refuse_call(kSetGroupsCall, 0, 1, EPERM)) {
                return 1;
              }
              wex_create_std_fd(0);
              set_proc_env(1, 812);
              write_file("/tmp/wex/report", domain_report());
              return 0;
            }));
  const std::string report = read_file("/tmp/wex/report");
  EXPECT_NE(std::string::npos, report.find("TMPDIR=/tmp/vsd/1\n")) << report;
  EXPECT_NE(std::string::npos, report.find("cwd=/data/var/run/vsd/1\n")) << report;
  EXPECT_EQ(std::string::npos, report.find("group=3100\n")) << report;
  EXPECT_FALSE(exists(domain_dir(1) + "/812"));
  EXPECT_EQ(std::string::npos, read_console().find("setgroups success"));
}

TEST_F(ProcWorld, ManyFlagFilesDoNotHideTheOldOne) {
  make_domain(1);
  for (int pid = 100000; pid < 100400; ++pid) {
    write_file(domain_dir(1) + "/" + std::to_string(pid), "");
  }
  in_domain(1, 100399);
  EXPECT_FALSE(exists(domain_dir(1) + "/100399"));
  EXPECT_EQ(400u, list_dir(domain_dir(1)).size());  // 399 and the directory of the database files
}

}  // namespace

// wex_vsd_remove: recursive removal of trees, links, control groups and whole domains.
#include "wex_test.h"
#include "wex_vsd.h"

#include <sched.h>

#include "domain_world.h"
#include "wex_vsd_remove.h"

using namespace domain_world;

namespace {

struct Removal : World {
  void SetUp() override {
    World::SetUp();
    make_dirs("/tmp/tree/inside");
  }
  void TearDown() override {
    for (const char* const path :
         {"/tmp/tree", "/keep", "/tmp/top", "/tmp/way", "/tmp/theirs", "/tmp/guarded"}) {
      remove_tree(path);
    }
    World::TearDown();
  }
};

// ---- Recursive removal ------------------------------------------------------------------------------------

TEST_F(Removal, TakesFilesAndDirectoriesOfAnyKind) {
  make_dirs("/tmp/tree/a/b/c");
  write_file("/tmp/tree/a/file", "");
  ASSERT_EQ(0, mkfifo("/tmp/tree/a/fifo", 0600));
  write_file("/tmp/tree/%s%n", "");
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_FALSE(exists("/tmp/tree"));
  write_file("/tmp/file", "");
  EXPECT_EQ(0, remove_dir_tree("/tmp/file"));
  EXPECT_FALSE(exists("/tmp/file"));
  EXPECT_EQ(-ENOENT, remove_dir_tree("/tmp/file"));
  EXPECT_EQ(-ENOENT, remove_dir_tree("/tmp/nothing/at/all"));
}

struct RemovalOfLinks : Removal {
  void SetUp() override {
    Removal::SetUp();
    make_dirs("/keep/below");
    write_file("/keep/file", "precious");
    write_file("/keep/below/file", "precious");
  }
  static void link(const char* target, const char* name, uid_t owner) {
    ASSERT_EQ(0, symlink(target, name));
    ASSERT_EQ(0, lchown(name, owner, owner));
  }
  static bool kept() {
    return read_file("/keep/file") == "precious" && read_file("/keep/below/file") == "precious";
  }
};

TEST_F(RemovalOfLinks, SomebodysLinkToADirectoryGoesAndItsTargetStays) {
  link("/keep", "/tmp/tree/inside/link", 1000);
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_FALSE(exists("/tmp/tree"));
  EXPECT_TRUE(kept());
}

TEST_F(RemovalOfLinks, SomebodysLinkAtTheTopGoesAndItsTargetStays) {
  link("/keep", "/tmp/top", 1000);
  EXPECT_EQ(0, remove_dir_tree("/tmp/top"));
  EXPECT_FALSE(exists("/tmp/top"));
  link("/keep", "/tmp/top", 1000);
  EXPECT_EQ(0, remove_dir_tree("/tmp/top/"));
  EXPECT_TRUE(kept());
}

TEST_F(RemovalOfLinks, SomebodysLinkOnTheWayIsNotFollowed) {
  link("/keep", "/tmp/way", 1000);
  EXPECT_EQ(-ELOOP, remove_dir_tree("/tmp/way/below"));
  EXPECT_TRUE(exists("/tmp/way"));
  EXPECT_TRUE(kept());
}

// Anybody may give a link of root's another name in a domain's directories.
TEST_F(RemovalOfLinks, BelowTheTopEveryLinkGoesItselfWhoeverMadeIt) {
  link("/keep", "/tmp/theirs", 1000);
  const char* const targets[] = {"/keep", "/keep/file", "/tmp/theirs", "/tmp/theirs/below", "/nowhere", ".",
                                 "..",    "/tmp/tree",  "loop"};
  for (const uid_t owner : {uid_t{0}, uid_t{1000}}) {
    make_dirs("/tmp/tree/inside");
    int number = 0;
    for (const char* const target : targets) {
      link(target, ("/tmp/tree/inside/" + std::to_string(number++)).c_str(), owner);
    }
    EXPECT_EQ(0, remove_dir_tree("/tmp/tree")) << owner;
    EXPECT_FALSE(exists("/tmp/tree")) << owner;
    EXPECT_TRUE(kept()) << owner;
  }
}

TEST_F(RemovalOfLinks, RootsLinkAtTheTopIsFollowedOnlyWhereNobodyElseCouldPutIt) {
  link("/keep", "/tmp/top", 0);
  EXPECT_EQ(0, remove_dir_tree("/tmp/top"));
  EXPECT_FALSE(exists("/tmp/top"));
  EXPECT_TRUE(kept());
  make_dirs("/tmp/guarded");
  link("/keep", "/tmp/guarded/top", 0);
  EXPECT_EQ(-ENOTDIR, remove_dir_tree("/tmp/guarded/top"));
  EXPECT_TRUE(list_dir("/keep").empty());
  EXPECT_TRUE(exists("/tmp/guarded/top"));
}

TEST_F(RemovalOfLinks, RootsLinkOnTheWayIsFollowedOnlyWhereNobodyElseCouldPutIt) {
  link("/keep", "/tmp/way", 0);
  EXPECT_EQ(-ELOOP, remove_dir_tree("/tmp/way/below"));
  EXPECT_TRUE(kept());
  make_dirs("/tmp/guarded");
  link("/keep", "/tmp/guarded/way", 0);
  EXPECT_EQ(0, remove_dir_tree("/tmp/guarded/way/below"));
  EXPECT_EQ((std::vector<std::string>{"file"}), list_dir("/keep"));
}

TEST_F(Removal, EntryWhosePathIsLongerThan255CharactersFailsAlone) {
  const std::string exact = "/tmp/tree/" + std::string(245, 'x');
  make_dirs(exact);
  ASSERT_EQ(255u, exact.size());
  const std::string too_long = "/tmp/tree/" + std::string(246, 'y');
  make_dirs(too_long);
  write_file("/tmp/tree/inside/" + std::string(255, 'z'), "");
  write_file("/tmp/tree/file", "");
  EXPECT_EQ(-ENAMETOOLONG, remove_dir_tree("/tmp/tree"));
  EXPECT_EQ((std::vector<std::string>{"inside", std::string(246, 'y')}), list_dir("/tmp/tree"));
  EXPECT_EQ(-ENAMETOOLONG, remove_dir_tree(too_long.c_str()));
}

TEST_F(Removal, DirectoryWithALongestPathIsNotTakenForItsOwnContent) {
  const std::string exact = "/tmp/tree/" + std::string(245, 'x');
  make_dirs(exact);
  write_file(exact + "/y", "");
  EXPECT_EQ(-ENAMETOOLONG, remove_dir_tree(exact.c_str()));
  EXPECT_TRUE(exists(exact + "/y"));
}

TEST_F(Removal, DeepTreeGoesDownToTheLongestPath) {
  std::string deep = "/tmp/tree";
  while (deep.size() < 254) {
    deep += "/d";
  }
  make_dirs(deep);
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_FALSE(exists("/tmp/tree"));
}

TEST_F(Removal, TreeDeeperThanAnyPathEndsWithAFailure) {
  ASSERT_EQ(0, chdir("/tmp/tree"));
  for (int depth = 0; depth < 3000; ++depth) {
    ASSERT_EQ(0, mkdir("d", 0777));
    ASSERT_EQ(0, chdir("d"));
  }
  ASSERT_EQ(0, chdir("/"));
  EXPECT_EQ(-ENAMETOOLONG, remove_dir_tree("/tmp/tree"));
  EXPECT_EQ((std::vector<std::string>{"d"}), list_dir("/tmp/tree"));
}

TEST_F(Removal, MountedDirectoryStaysAndTheRestGoes) {
  // "/memory" of the sandbox is a mount: emptied, busy itself.
  write_file("/tmp/tree/file", "");
  EXPECT_EQ(0, remove_dir_tree("/tmp/tree"));
  EXPECT_NE(0, remove_dir_tree("/memory"));
  EXPECT_TRUE(exists("/memory/tasks"));
}

TEST_F(Removal, WhatIsMountedInsideIsNotEnteredAndIsSaid) {
  make_dirs("/tmp/tree/inside/disk");
  write_file("/tmp/tree/file", "");
  ASSERT_EQ(0, mount("unit", "/tmp/tree/inside/disk", "tmpfs", 0, nullptr)) << strerror(errno);
  write_file("/tmp/tree/inside/disk/file", "precious");
  g_wex_dbg_level[WEX_DBG_PUB] = 0;
  EXPECT_EQ("[WEX:wex_vsd:N]remove_dir_tree: /tmp/tree/inside/disk stays: something is mounted there\n",
            lines_printed_by([] { EXPECT_EQ(-EBUSY, remove_dir_tree("/tmp/tree")); }));
  EXPECT_EQ("precious", read_file("/tmp/tree/inside/disk/file"));
  EXPECT_EQ((std::vector<std::string>{"inside"}), list_dir("/tmp/tree"));
  EXPECT_EQ("[WEX:wex_vsd:N]remove_dir_tree: /tmp/tree/inside/disk stays: Device or resource busy\n",
            lines_printed_by([] { EXPECT_EQ(-EBUSY, remove_dir_tree("/tmp/tree/inside/disk")); }))
      << "emptied, for it was named itself";
  EXPECT_EQ((std::vector<std::string>{}), list_dir("/tmp/tree/inside/disk"));
  g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
  EXPECT_EQ(0, umount2("/tmp/tree/inside/disk", MNT_DETACH));
}

TEST_F(Removal, ControlGroupGoesAlthoughItsFilesCannot) {
  make_flag_dir(13);
  set_cgroups_all(13);
  make_dirs("/memory/vsd_13/nested");
  EXPECT_EQ(-EPERM, remove_dir_tree("/memory/vsd_13/"));
  EXPECT_FALSE(exists("/memory/vsd_13"));
}

TEST_F(Removal, BusyControlGroupStays) {
  make_flag_dir(13);
  process actor({4300});
  make_flag_file(13, actor.pid());
  set_cgroups_all(13);
  EXPECT_GT(0, remove_dir_tree("/memory/vsd_13/"));
  EXPECT_TRUE(exists("/memory/vsd_13"));
}

struct RemovalOfDomains : World {
  void SetUp() override {
    World::SetUp();
    for (const char* format : all_) {
      for (const int vsd : {13, 1}) {
        make_dirs(path_of(format, vsd));
      }
      write_file(path_of(format, 13) + "/file", "");
    }
  }
  static std::vector<std::string> left(int vsd) {
    std::vector<std::string> names;
    for (const char* format : all_) {
      if (exists(path_of(format, vsd))) {
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

TEST_F(RemovalOfDomains, WhatCannotBeRemovedIsReportedOnceWithItsPath) {
  make_dirs("/etc/vsd/13/busy");
  make_dirs("/ovix/vsd/0/utils/wex");
  unlink(kRunningLog1);
  ASSERT_EQ(0, mount("busy", "/etc/vsd/13/busy", "tmpfs", 0, "")) << strerror(errno);
  make_flag_dir(13);
  set_cgroups_all(13);  // their files cannot be unlinked, which is no failure
  const std::string printed = lines_printed_by([] { remove_domain_trees(13, WEX_REMOVE_STOP); });
  EXPECT_TRUE(exists("/etc/vsd/13"));
  EXPECT_FALSE(exists("/memory/vsd_13"));
  EXPECT_EQ(0, umount2("/etc/vsd/13/busy", MNT_DETACH));
  const std::string stays =
      "[WEX:wex_vsd:N]remove_dir_tree: /etc/vsd/13/busy stays: something is mounted there\n";
  EXPECT_EQ(0U, printed.find(stays + "[WEX:wex_log:N]Fail to remove /etc/vsd/13: ")) << printed;
  EXPECT_EQ(printed.size() - 1, printed.find('\n', stays.size())) << "two lines: " << printed;
  const std::string log = read_file(kRunningLog1);
  EXPECT_NE(std::string::npos, log.find(": Fail to remove /etc/vsd/13: ")) << log;
  EXPECT_EQ(log.size() - 1, log.find('\n')) << "one line: " << log;
  EXPECT_EQ("", lines_printed_by([] { remove_domain_trees(13, WEX_REMOVE_STOP); }))
      << "nothing is in the way now";
  EXPECT_EQ("", lines_printed_by([] { remove_domain_trees(13, WEX_REMOVE_STOP); })) << "nothing is there";
}

TEST_F(RemovalOfDomains, ControlGroupsGoWithStopAndDeleteOnly) {
  for (const unsigned set : {WEX_REMOVE_RELOAD, WEX_REMOVE_FILES, WEX_REMOVE_STOP, WEX_REMOVE_DELETE}) {
    make_flag_dir(13);
    set_cgroups_all(13);
    remove_domain_trees(13, set);
    const bool gone = (set & (WEX_REMOVE_STOP | WEX_REMOVE_DELETE)) != 0;
    EXPECT_EQ(!gone, exists("/memory/vsd_13")) << set;
    EXPECT_EQ(!gone, exists("/cpu/vsd_13")) << set;
  }
}

}  // namespace

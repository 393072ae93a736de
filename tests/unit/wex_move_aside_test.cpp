// wex_move_aside: what lies in the way makes room, and nothing that has contents is lost.
#include "wex_move_aside.h"

#include <dirent.h>

#include "unit_support.h"
#include "wex_limits.h"

using namespace unit;

namespace {

class MoveAside : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    ASSERT_EQ(0, mkdir("/tmp/d", 0755));
  }
  // The one entry of the directory whose name tells that it was moved, or "".
  static std::string moved() {
    std::string found;
    DIR* const directory = opendir("/tmp/d");
    while (const dirent* const entry = readdir(directory)) {
      found = strncmp(entry->d_name, "aside-", 6) == 0 ? std::string("/tmp/d/") + entry->d_name : found;
    }
    closedir(directory);
    return found;
  }
  static ino_t number_of(const char* path) {
    struct stat facts = {};
    return lstat(path, &facts) == 0 ? facts.st_ino : 0;
  }
};

TEST_F(MoveAside, WhatIsEmptyIsRemovedAndTheRestGetsAnotherName) {
  const struct {
    const char* name;
    std::function<int()> make;
    bool removed;
  } rows[] = {{"empty file", [] { return mknod("/tmp/d/x", S_IFREG | 0600, 0); }, true},
              {"FIFO", [] { return mkfifo("/tmp/d/x", 0600); }, true},
              {"empty directory", [] { return mkdir("/tmp/d/x", 0700); }, true},
              {"link", [] { return symlink("/tmp/victim", "/tmp/d/x"); }, false},
              {"file",
               [] {
                 write_file("/tmp/d/x", "text");
                 return 0;
               },
               false},
              {"directory", [] { return mkdir("/tmp/d/x", 0700) + mkdir("/tmp/d/x/y", 0700); }, false}};
  write_file("/tmp/victim", "precious");
  for (const auto& row : rows) {
    ASSERT_EQ(0, row.make()) << row.name;
    const ino_t number = number_of("/tmp/d/x");
    char to[kPathSize] = "?";
    EXPECT_TRUE(wex_clear_name("/tmp/d/x/", to)) << row.name;
    EXPECT_FALSE(exists("/tmp/d/x")) << row.name;
    EXPECT_EQ(moved(), to) << row.name;
    EXPECT_EQ(row.removed, moved().empty()) << row.name;
    EXPECT_TRUE(row.removed || number == number_of(to)) << row.name;
    EXPECT_EQ(0, system("rm -rf /tmp/d/aside-*"));
  }
  EXPECT_EQ("precious", read_file("/tmp/victim"));
  char to[kPathSize];
  EXPECT_FALSE(wex_clear_name("/tmp/d/none", to));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(MoveAside, ANameThatIsTakenIsNotTakenAgain) {
  char first[kPathSize];
  char second[kPathSize];
  for (char(*to)[kPathSize] : {&first, &second}) {
    write_file("/tmp/d/x", "text");
    ASSERT_TRUE(wex_move_aside("/tmp/d/x", *to));
  }
  EXPECT_STRNE(first, second);
  EXPECT_EQ("text", read_file(first));
  EXPECT_EQ("text", read_file(second));
}

TEST_F(MoveAside, ARecordIsPartedFromItsSecondNameWithoutLosingWhatItHolds) {
  const struct {
    const char* name;
    uid_t owner;
    off_t size;
    wex_parting how;
    bool copied, aside;
  } rows[] = {{"ours", 0, 8, wex_parting::copied, true, false},
              {"ours, to be emptied", 0, 8, wex_parting::unlinked, false, false},
              {"ours, to be begun anew", 0, 8, wex_parting::moved, false, true},
              {"ours and huge", 0, kOwnCopyMax + 1, wex_parting::copied, false, true},
              {"another user's", kOtherUser, 8, wex_parting::copied, false, true},
              {"another user's, to be emptied", kOtherUser, 8, wex_parting::unlinked, false, false},
              {"empty", kOtherUser, 0, wex_parting::copied, false, false},
              {"empty, to be begun anew", 0, 0, wex_parting::moved, false, false}};
  for (const auto& row : rows) {
    write_file("/tmp/victim", "precious", 0640);
    ASSERT_EQ(0, truncate("/tmp/victim", row.size));
    ASSERT_EQ(0, chown("/tmp/victim", row.owner, 0));
    ASSERT_EQ(0, link("/tmp/victim", "/tmp/d/x"));
    EXPECT_TRUE(wex_part_names("/tmp/d/x", row.how)) << row.name;
    EXPECT_EQ(row.copied, read_file("/tmp/d/x") == "precious") << row.name;
    EXPECT_EQ(row.copied, exists("/tmp/d/x")) << row.name;
    EXPECT_TRUE(!row.copied || mode_of("/tmp/d/x") == 0640) << row.name << ": no more people may read it";
    EXPECT_NE(number_of("/tmp/victim"), number_of("/tmp/d/x")) << row.name;
    EXPECT_EQ(row.aside, !moved().empty() && number_of(moved().c_str()) == number_of("/tmp/victim"))
        << row.name;
    EXPECT_EQ(0, system("rm -f /tmp/victim /tmp/d/*"));
  }
}

TEST_F(MoveAside, ACopyThatCannotBeWrittenLeavesEverythingAsItWas) {
  write_file("/tmp/victim", std::string(8192, 'p'));
  ASSERT_EQ(0, mount("unit", "/tmp/d", "tmpfs", 0, "size=8k,mode=755"));
  write_file("/tmp/d/full", std::string(4096, 'f'));
  write_file("/tmp/d/x", "record");
  ASSERT_EQ(0, link("/tmp/d/x", "/tmp/d/other"));
  const ino_t number = number_of("/tmp/d/x");
  EXPECT_FALSE(wex_part_names("/tmp/d/x", wex_parting::copied));
  EXPECT_EQ(number, number_of("/tmp/d/x"));
  EXPECT_EQ("", moved());
  EXPECT_EQ(0, umount("/tmp/d"));
}

}  // namespace

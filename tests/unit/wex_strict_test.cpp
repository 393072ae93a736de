// What counts in strict mode: of each marker and switch root's alone, and without the mode everybody's.
#include "wex_strict.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "file_lock.h"
#include "unit_support.h"
#include "wex_chain_user.h"
#include "wex_core_crash.h"
#include "wex_core_takedown.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_proc.h"
#include "wex_proc_child.h"
#include "wex_status_image.h"
#include "wex_test.h"
#include "wex_utils_settings.h"
#include "wex_vsd.h"

namespace {

using namespace wex_test;
using unit::kOtherUser;

constexpr char kMarker[] = "/tmp/vsd/5/delete_vsd";

struct switch_row {
  const char* path;
  const char* content;
  std::function<bool()> counts;
};
const switch_row kSwitches[] = {
    {kDebugLog, "", [] { return debug_log() == 0; }},
    {kDebugTime, "77", [] { return debug_time() == 77; }},
    {kMarker, "", [] { return wex_take_down_under_way(); }},
};

void note_crash(wex_pid* rec) WEX_TSA(no_thread_safety_analysis) {
  __wex_note_crash(rec);
}

struct WexStrict : ::testing::Test {
  void SetUp() override { make_dirs("/tmp/vsd/5"); }
  void TearDown() override { wex_set_strict({}); }
  static void be_strict() {
    strict_settings settings;
    settings.on = true;
    wex_set_strict(settings);
  }
};

}  // namespace

TEST_F(WexStrict, ASwitchIsRootsAlone) {
  for (const switch_row& row : kSwitches) {
    SCOPED_TRACE(row.path);
    wex_set_strict({});
    write_file(row.path, row.content);
    ASSERT_EQ(0, chown(row.path, kOtherUser, kOtherUser));
    EXPECT_TRUE(row.counts()) << "without the mode everybody may make it";
    be_strict();
    EXPECT_FALSE(row.counts());
    char ignored[kPathSize];
    ASSERT_TRUE(wex_take_ignored_name(ignored));
    EXPECT_STREQ(row.path, ignored);
    EXPECT_FALSE(row.counts());
    EXPECT_FALSE(wex_take_ignored_name(ignored)) << "told once";
    ASSERT_EQ(0, chown(row.path, 0, 0));
    EXPECT_TRUE(row.counts());
    const std::string second = std::string(row.path) + "2";
    ASSERT_EQ(0, link(row.path, second.c_str()));
    EXPECT_FALSE(row.counts()) << "anybody may have given it this name";
    unlink(second.c_str());
    unlink(row.path);
    EXPECT_FALSE(row.counts());
  }
}

// The count of failed forks ends a daemon that cannot fork: a file of a user's would keep it from counting.
TEST_F(WexStrict, AFailedForkIsCountedInAFileOfRootsWhateverAUserHasMadeOfItsName) {
  make_dirs("/tmp/wex");
  for (const bool strict : {false, true}) {
    write_file(kForkFile, "aaaaaa");
    ASSERT_EQ(0, chown(kForkFile, kOtherUser, kOtherUser));
    if (strict) {
      be_strict();
    }
    EXPECT_EQ(0, wex_mk_forkfile());
    struct stat facts = {};
    ASSERT_EQ(0, lstat(kForkFile, &facts));
    EXPECT_EQ(strict ? 0 : kOtherUser, facts.st_uid);
    EXPECT_EQ(strict ? "a" : "aaaaaaa", read_file(kForkFile));
    EXPECT_EQ(0, wex_mk_forkfile());
    EXPECT_EQ(strict ? "aa" : "aaaaaaaa", read_file(kForkFile)) << "root's own goes on";
  }
}

// Ten core dumps, or two self-check waits, restart the device: a user's programs must not be able to.
TEST_F(WexStrict, OnlyRootsProgramsRestartTheDevice) {
  wex_pid rec = {};
  rec.reboot_allow = 1;
  for (const bool strict : {false, true}) {
    for (const uid_t user : {uid_t{0}, kOtherUser}) {
      const child program([&] { return setresuid(user, user, user) == 0; });
      ASSERT_TRUE(program.ready());
      wex_set_strict({});
      if (strict) {
        be_strict();
      }
      rec.pid = program.pid();
      rec.crash_time = 0;
      wex_find_user(&rec);
      note_crash(&rec);
      EXPECT_EQ(!strict || user == 0, rec.crash_time != 0) << strict << user;
      EXPECT_EQ(!strict || user == 0, wex_reboot_is_due(&rec, 5)) << strict << user;
    }
  }
}

// Whoever may read a database file may lock it.
TEST_F(WexStrict, ALockHoldsARestartUpOnlyWhenTheProgramHasIt) {
  make_dirs(kMainDbDir);
  wex_pid rec = {};
  strcpy(rec.process, "/bin/locked");
  const child holder([&] {
    rec.pid = getpid();
    const std::string path = std::string(kMainDbDir) + "/locked." + std::to_string(getpid());
    write_file(path, "x", 0755);
    return wex_lock_file(open(path.c_str(), O_RDWR));
  });
  ASSERT_TRUE(holder.ready());
  rec.pid = holder.pid();
  be_strict();
  EXPECT_EQ(0, wex_proc_is_exit(&rec)) << "its own";
  const std::string path = std::string(kMainDbDir) + "/locked." + std::to_string(rec.pid);
  rec.pid = child::reaped();
  ASSERT_EQ(0,
            rename(path.c_str(), (std::string(kMainDbDir) + "/locked." + std::to_string(rec.pid)).c_str()));
  EXPECT_EQ(1, wex_proc_is_exit(&rec)) << "somebody else's";
  wex_set_strict({});
  EXPECT_EQ(0, wex_proc_is_exit(&rec));
}

TEST_F(WexStrict, ANameCannotWriteLinesIntoTheLog) {
  char ignored[kPathSize];
  wex_ignore_name("/tmp/a\nb\x1b");
  ASSERT_TRUE(wex_take_ignored_name(ignored));
  EXPECT_STREQ("/tmp/a?b?", ignored);
}

// The status of every process has lines of these keys; only those at a line's beginning count.
TEST_F(WexStrict, AUserIsReadOnceAndKnownAgain) {
  be_strict();
  wex_pid own = {};
  own.pid = getpid();
  wex_find_user(&own);
  const wex_user* const user = wex_user_of(&own);
  ASSERT_NE(nullptr, user);
  EXPECT_EQ(getuid(), user->uid);
  EXPECT_EQ(getgid(), user->gid);
  wex_pid again = {};
  again.pid = getpid();
  wex_find_user(&again);
  EXPECT_EQ(own.user, again.user);
  EXPECT_TRUE(wex_same_user(&own, &again));
  wex_pid gone = {};
  gone.pid = child::reaped();
  wex_find_user(&gone);
  EXPECT_EQ(kUnknownUser, gone.user);
  EXPECT_FALSE(wex_same_user(&own, &gone));
}

// ---- sets of ids ------------------------------------------------------------------------------------------

namespace {

// The set of ids that this process has when it is only in this group.
wex_pid in_group(gid_t group) {
  wex_pid rec = {};
  rec.pid = getpid();
  EXPECT_EQ(0, setgroups(1, &group));
  wex_find_user(&rec);
  return rec;
}

struct WexUserSets : WexStrict {
  void SetUp() override {
    WexStrict::SetUp();
    be_strict();
  }
  void TearDown() override {
    EXPECT_EQ(0, setresuid(0, 0, 0));
    EXPECT_EQ(0, setgroups(0, nullptr));
    WexStrict::TearDown();
  }
};

}  // namespace

TEST_F(WexUserSets, OneThatNoRegistrationHasMakesRoomForOthers) {
  const wex_pid held = in_group(1);
  ASSERT_NE(nullptr, wex_user_of(&held));
  wex_hold_user(&held);
  const wex_pid passing = in_group(2);
  for (gid_t group = 3; group < kUserSets + 10; ++group) {
    ASSERT_NE(kUnknownUser, in_group(group).user) << group;
  }
  const wex_user* const user = wex_user_of(&held);
  ASSERT_NE(nullptr, user);
  EXPECT_EQ(1U, user->groups[0]);
  EXPECT_EQ(nullptr, wex_user_of(&passing)) << "its number is no other set's";
  wex_release_user(&held);
}

TEST_F(WexUserSets, AUserHasHisShareAndLeavesRoomForRoot) {
  std::vector<wex_pid> held;
  const auto hold_all = [&held](uid_t user) {
    EXPECT_EQ(0, setresuid(user, 0, 0));
    size_t count = 0;
    for (gid_t group = 1; group < 3 * kSetsOfUser; ++group) {
      held.push_back(in_group(group));
      count += held.back().user != kUnknownUser ? 1 : 0;
      wex_hold_user(&held.back());
    }
    return count;
  };
  for (uid_t user = 1; user < kUserSets / kSetsOfUser; ++user) {
    EXPECT_EQ(static_cast<size_t>(kSetsOfUser), hold_all(user));
  }
  EXPECT_EQ(0U, hold_all(kOtherUser)) << "what is left is root's";
  EXPECT_EQ(static_cast<size_t>(kSetsOfUser), hold_all(0));
  for (const wex_pid& rec : held) {
    wex_release_user(&rec);
  }
}

// A program that is started again with a group less is another program.
TEST_F(WexUserSets, AProcessWithTooManyGroupsHasNone) {
  wex_pid rec = {};
  rec.pid = getpid();
  for (const size_t more : {size_t{0}, size_t{1}}) {
    const std::vector<gid_t> groups(kUserGroupsMax + more, 7);
    ASSERT_EQ(0, setgroups(groups.size(), groups.data()));
    wex_find_user(&rec);
    EXPECT_EQ(more == 0, rec.user != kUnknownUser);
  }
  wex_reg_info body = {};
  body.pid = getpid();
  status_words before;
  status_words after;
  wex_status_copy_words(&before);
  wex_process_restart(&body);
  wex_status_copy_words(&after);
  EXPECT_EQ(before.counters[WEX_STATUS_NOT_REGISTERED] + 1, after.counters[WEX_STATUS_NOT_REGISTERED]);
}

// Between two looks at one process it may execute a set-user-id program that becomes root.
TEST_F(WexUserSets, AProcessThatBecomesAnotherUserMeanwhileHasNone) {
  ASSERT_EQ(0, setresuid(kOtherUser, 0, 0));
  wex_pid rec = {};
  rec.pid = getpid();
  wex_note_identity(&rec);
  process_user before;
  ASSERT_TRUE(wex_look_at_user(rec.pid, &before));
  EXPECT_TRUE(wex_note_user(&rec, before));
  ASSERT_EQ(0, setresuid(0, 0, 0));
  EXPECT_FALSE(wex_note_user(&rec, before));
}

// Its pid went to another process of the same user, which runs something else.
TEST_F(WexUserSets, AProcessThatHasThePidOfTheOneThatWasSeenBeforeHasNone) {
  wex_pid rec = {};
  rec.pid = getpid();
  wex_note_identity(&rec);
  process_user before;
  ASSERT_TRUE(wex_look_at_user(rec.pid, &before));
  --before.start_time;
  EXPECT_FALSE(wex_note_user(&rec, before));
}

// What is found beside the running daemon is judged like what is found at a start: not root's because root
// looks.
TEST_F(WexStrict, AFileWithoutARegistrationIsItsOwners) {
  constexpr uid_t kListedUser = 1;  // his group must be known
  be_strict();
  struct stat facts = {};
  facts.st_mode = S_IFREG | 0700;
  facts.st_nlink = 1;
  facts.st_uid = kListedUser;
  wex_pid rec = {};
  rec.pid = 0x3fffffff;  // of no process
  ASSERT_TRUE(wex_judge_lost_file(&rec, facts));
  uid_t user = 0;
  EXPECT_TRUE(wex_uid_of(&rec, &user));
  EXPECT_EQ(kListedUser, user);
  facts.st_mode = S_IFREG | 0777;
  EXPECT_FALSE(wex_judge_lost_file(&rec, facts)) << "anybody may have written it";
}

// The daemon makes files for programs that make none; killed then, it has not given them to their users. And
// a program of root's may have given up its rights.
TEST_F(WexStrict, RootsFileForAUsersProcessMakesItNotRoots) {
  const child program([] { return setresuid(kOtherUser, kOtherUser, kOtherUser) == 0; });
  ASSERT_TRUE(program.ready());
  be_strict();
  struct stat facts = {};
  facts.st_mode = S_IFREG | 0700;
  facts.st_nlink = 1;
  wex_pid rec = {};
  rec.pid = program.pid();
  ASSERT_TRUE(wex_judge_file(&rec, facts));
  uid_t user = 0;
  EXPECT_TRUE(wex_uid_of(&rec, &user));
  EXPECT_EQ(kOtherUser, user);
}

// Strict mode: what registering a second time does, and does not.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "chain_lock.h"
#include "text_buffer.h"
#include "unit_support.h"
#include "verify_chain.h"
#include "wex_action.h"
#include "wex_chain.h"
#include "wex_chain_user.h"
#include "wex_chain_user_sets.h"
#include "wex_core_executed.h"
#include "wex_limits.h"
#include "wex_msg.h"
#include "wex_paths.h"
#include "wex_pidfile.h"
#include "wex_status_image.h"
#include "wex_strict.h"

namespace {

using namespace wex_test;
using unit::kOtherUser;

struct StrictRegistration : ::testing::Test {
  void SetUp() override {
    make_dirs(kMainDbDir);
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      ASSERT_EQ(0, wex_init_chains(chain));
    }
    be_strict(kUserRegistrations);
  }
  void TearDown() override {
    verify_chain(wex_chains);
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      wex_destroy_chains(chain);
    }
    wex_set_strict({});
  }
  static void be_strict(int32_t registrations) {
    strict_settings settings;
    settings.on = true;
    settings.registrations = registrations;
    wex_set_strict(settings);
  }
  static int registers(uid_t speaker, const child& process) {
    wex_reg_info body = {};
    body.pid = process.pid();
    return wex_register_process_by(speaker, body, kRespawn, "");
  }
  static wex_pid* record_of(const child& process) {
    const chain_lock hold(wex_chains);
    return __wex_find_pid(&wex_chains, process.pid());
  }
  // Root's registration of a program of this command, which had the process's pid and could not be started
  // again.
  static wex_pid* add_failed_of_roots(const child& process, const std::string& command,
                                      const wex_user& ids = {}) {
    wex_pid* const rec = wex_new_record();
    const chain_lock hold(wex_chains);
    rec->pid = process.pid();
    rec->action = RESPAWN;
    rec->start_time = 2;
    rec->exit_seen = 1;
    rec->user = wex_number_user(ids);
    wex_copy_text(rec->process, sizeof rec->process, command.c_str());
    wex_note_failed(rec);
    __wex_add_record(&wex_chains, rec);
    return rec;
  }
  // As if the one that has this pid now had had it when it ended: as a thread of that process, or as a
  // program that could not be started again.
  static void move_to_pid(wex_pid* rec, pid_t pid, pid_t thread_of) {
    const chain_lock hold(wex_chains);
    wex_pid as_moved = *rec;
    __wex_drop_registration(rec);
    as_moved.pid = pid;
    as_moved.thread_of = thread_of;
    as_moved.start_time -= 1;
    as_moved.restart_failed = thread_of == 0 ? 1 : 0;
    as_moved.exit_seen = as_moved.restart_failed;
    as_moved.status_slot = 0;
    __wex_restore_record(&wex_chains, as_moved);
  }
  static uint32_t counter(uint32_t which) {
    status_words words;
    wex_status_copy_words(&words);
    return words.counters[which];
  }
};

bool become(uid_t user) {
  return setresuid(user, user, user) == 0;
}

// As root makes it, or a set-user-id program of root's: with an umask that leaves it open to all.
std::string make_file(const child& process) {
  const std::string command = command_line(process.pid());
  const std::string program = command.substr(0, command.find(' '));
  std::string path = std::string(kMainDbDir) + "/" + program.substr(program.rfind('/') + 1) + "." +
                     std::to_string(process.pid());
  unlink(path.c_str());
  write_file(path, std::to_string(process.pid()) + "\n2\n" + command, 0755);
  return path;
}

std::string owner_and_mode(const std::string& path) {
  struct stat facts = {};
  char text[64] = "none";
  if (lstat(path.c_str(), &facts) == 0) {
    snprintf(text, sizeof text, "%u %03o", static_cast<unsigned>(facts.st_uid),
             static_cast<unsigned>(facts.st_mode & 07777));
  }
  return text;
}

std::function<void()> g_before_file;
std::function<void()> g_after_rename;

}  // namespace

extern "C" int __real_renameat(int from, const char* old_name, int to, const char* new_name);

extern "C" int __wrap_renameat(int from, const char* old_name, int to, const char* new_name) {
  const int result = __real_renameat(from, old_name, to, new_name);
  if (g_after_rename) {
    g_after_rename();
  }
  return result;
}

using make_file_fn = int (*)(const wex_reg_info*, uint32_t);
void real_make_database_file(const wex_reg_info& body, uint32_t type, make_file_fn make) __asm__(
    "__real__Z22wex_make_database_fileRK12wex_reg_infojPFiPS0_jE");
void wrap_make_database_file(const wex_reg_info& body, uint32_t type, make_file_fn make) __asm__(
    "__wrap__Z22wex_make_database_fileRK12wex_reg_infojPFiPS0_jE");
void wrap_make_database_file(const wex_reg_info& body, uint32_t type, make_file_fn make) {
  if (g_before_file) {
    g_before_file();
  }
  real_make_database_file(body, type, make);
}

// The client library makes the file anew before each registration. Were it left as that is until the minute's
// look, a daemon that ends before would leave a user's registration in a file of root's.
TEST_F(StrictRegistration, AFileThatIsMadeAnewForASecondOneIsItsUsersAlone) {
  for (const uid_t user : {uid_t{0}, kOtherUser}) {
    const child program([user] { return become(user); });
    ASSERT_TRUE(program.ready());
    const std::string alone = std::to_string(user) + " 700";
    for (const char* const time : {"first", "second"}) {
      const std::string path = make_file(program);
      ASSERT_EQ("0 755", owner_and_mode(path));
      EXPECT_EQ(0, registers(user, program));
      EXPECT_EQ(alone, owner_and_mode(path)) << time;
      EXPECT_EQ(std::to_string(program.pid()) + "\n2\n" + command_line(program.pid()), read_file(path));
    }
  }
}

// It did not make the file of the record, whose process may have ended a moment ago.
TEST_F(StrictRegistration, AProcessThatOnlyHasThePidOfARecordChangesNothingAboutItsFile) {
  const child program;
  ASSERT_EQ(0, registers(0, program));
  --record_of(program)->start_time;
  const std::string path = make_file(program);
  EXPECT_EQ(0, registers(0, program));
  EXPECT_EQ("0 755", owner_and_mode(path));
}

TEST_F(StrictRegistration, ASecondOneOfAKnownProcessNeedsNoMoreRoom) {
  be_strict(1);
  const child known([] { return become(kOtherUser); });
  const child other([] { return become(kOtherUser); });
  ASSERT_TRUE(known.ready() && other.ready());
  ASSERT_EQ(0, registers(kOtherUser, known));
  const uint32_t refused = counter(WEX_STATUS_REFUSED);
  const uint32_t not_registered = counter(WEX_STATUS_NOT_REGISTERED);
  EXPECT_EQ(0, registers(kOtherUser, known));
  EXPECT_EQ(refused, counter(WEX_STATUS_REFUSED));
  EXPECT_EQ(not_registered + 1, counter(WEX_STATUS_NOT_REGISTERED));
  EXPECT_NE(nullptr, record_of(known));
  registers(kOtherUser, other);
  EXPECT_EQ(refused + 1, counter(WEX_STATUS_REFUSED)) << "this one is another";
  EXPECT_EQ(nullptr, record_of(other));
}

// The daemon makes its file as root's before it has a record. Where it gets none the file would have it
// started as root, or what it says would be started in the place of root's program.
TEST_F(StrictRegistration, AListedProgramThatHasThePidOfRootsWritesNoFileOfRoots) {
  const child program([] { return become(kOtherUser); });
  ASSERT_TRUE(program.ready());
  ASSERT_EQ(0, registers(0, program));
  --record_of(program)->start_time;
  const std::string path = make_file(program);
  write_file(path, "what root has registered");
  EXPECT_EQ(0, wex_register_third_part(program.pid(), "WEX_RESTART", nullptr));
  EXPECT_EQ("what root has registered", read_file(path));
  unlink(path.c_str());
  EXPECT_EQ(0, wex_register_third_part(program.pid(), "WEX_RESTART", nullptr));
  EXPECT_EQ("none", owner_and_mode(path));
}

// Nobody else would register it when the pid is free.
TEST_F(StrictRegistration, AListedProgramThatIsLeftOutForItsPidIsToBeLookedForAgain) {
  const child program;
  wex_forget_listed_left_out();
  ASSERT_EQ(0, registers(0, program));
  --record_of(program)->start_time;
  EXPECT_TRUE(wex_register_executed(program.pid())) << "not left out yet";
  EXPECT_EQ(0, wex_register_third_part(program.pid(), "WEX_RESTART", nullptr));
  EXPECT_FALSE(wex_register_executed(program.pid()));
  wex_register_running();
  EXPECT_TRUE(wex_register_executed(program.pid()));
}

TEST_F(StrictRegistration, AListedProgramThatTakesAPidAndIsRefusedLeavesNoFileOfRoots) {
  be_strict(1);
  const child program([] { return become(kOtherUser); });
  ASSERT_TRUE(program.ready());
  ASSERT_EQ(0, registers(kOtherUser, program));
  const std::string path = make_file(program);
  unlink(path.c_str());
  wex_pid* const waiting = record_of(program);
  --waiting->start_time;
  waiting->exit_seen = 1;
  const uint32_t refused = counter(WEX_STATUS_REFUSED);
  EXPECT_EQ(0, wex_register_third_part(program.pid(), "WEX_RESTART", nullptr));
  EXPECT_EQ(refused + 1, counter(WEX_STATUS_REFUSED));
  EXPECT_LT(waiting->pid, 0);
  EXPECT_EQ("none", owner_and_mode(path));
}

// What stands in its file is all that the next daemon would know of it.
TEST_F(StrictRegistration, RootsThatCouldNotBeStartedAgainKeepsAFileBesideAUsersThatHasItsPidAndName) {
  for (const bool listed : {true, false}) {
    for (const char* const arguments : {"", " --others"}) {
      SCOPED_TRACE(std::string(listed ? "listed" : "by a message") + arguments);
      const child program([] { return become(kOtherUser); });
      ASSERT_TRUE(program.ready());
      const std::string users = command_line(program.pid());
      const std::string path = make_file(program);
      write_file(path, std::to_string(program.pid()) + "\n2\n" + users + arguments, 0700);
      const wex_pid* const roots = add_failed_of_roots(program, users + arguments);
      EXPECT_EQ(0, listed ? wex_register_third_part(program.pid(), "WEX_RESTART", nullptr)
                          : registers(kOtherUser, program));
      const wex_pid* const his = record_of(program);
      ASSERT_NE(nullptr, his);
      EXPECT_NE(roots, his);
      ASSERT_LT(roots->pid, -1);
      EXPECT_EQ(std::to_string(kOtherUser) + " 700", owner_and_mode(path));
      EXPECT_EQ(std::to_string(program.pid()) + "\n2\n" + users, read_file(path));
      const std::string number = std::to_string(roots->pid);
      const std::string kept = path.substr(0, path.rfind('.') + 1) + number;
      EXPECT_EQ("0 700", owner_and_mode(kept));
      EXPECT_EQ(number + "\n2\n" + users + arguments, read_file(kept));
      EXPECT_EQ(0, wex_db_destroy(his));  // which the daemon holds locked when it is of a listed one
    }
  }
}

// The registration's user counts, not that of whoever has the pid.
TEST_F(StrictRegistration, RootsThatCouldNotBeStartedAgainIsNotCancelledByAUserWhoHasItsPid) {
  const child program([] { return become(kOtherUser); });
  ASSERT_TRUE(program.ready());
  const wex_pid* const roots = add_failed_of_roots(program, "/bin/roots -d");
  const uint32_t refused = counter(WEX_STATUS_REFUSED);
  EXPECT_EQ(-1, wex_cancel_by(kOtherUser, {WEX_CANCEL_PROC, program.pid()}));
  EXPECT_EQ(roots, record_of(program));
  EXPECT_EQ(refused + 1, counter(WEX_STATUS_REFUSED));
}

// Of two the next daemon would start both, of none neither.
TEST_F(StrictRegistration, RootsThatGivesItsPidUpHasOneFileWheneverTheDaemonEnds) {
  constexpr char kRoots[] = "/bin/roots -d";
  const child program([] { return become(kOtherUser); });
  ASSERT_TRUE(program.ready());
  const std::string users = make_file(program);
  const std::string path = std::string(kMainDbDir) + "/roots." + std::to_string(program.pid());
  write_file(path, std::to_string(program.pid()) + "\n2\n" + kRoots, 0700);
  const wex_pid* const roots = add_failed_of_roots(program, kRoots);
  int renames = 0;
  g_after_rename = [&] {
    int files = 0;
    for (const std::string& name : list_dir(kMainDbDir)) {
      files += name.rfind("roots.", 0) == 0 ? 1 : 0;
    }
    ++renames;
    EXPECT_EQ(1, files) << "after rename " << renames;
  };
  EXPECT_EQ(0, registers(kOtherUser, program));
  g_after_rename = nullptr;
  EXPECT_GT(renames, 0);
  ASSERT_LT(roots->pid, -1);
  const std::string number = std::to_string(roots->pid);
  EXPECT_EQ(number + "\n2\n" + kRoots, read_file(std::string(kMainDbDir) + "/roots." + number));
  EXPECT_FALSE(exists(path));
  EXPECT_TRUE(exists(users));
}

// Its database file is read in part, and tells nothing of its groups.
TEST_F(StrictRegistration, RootsThatGivesItsPidUpIsKnownToTheNextDaemonByItsIdsAndItsWholeCommand) {
  wex_begin_users();
  const child program([] { return become(kOtherUser); });
  ASSERT_TRUE(program.ready());
  const std::string users = make_file(program);
  const std::string command = "/bin/roots " + std::string(400, 'x');
  const std::string path = std::string(kMainDbDir) + "/roots." + std::to_string(program.pid());
  write_file(path, std::to_string(program.pid()) + "\n2\n" + command, 0700);
  wex_pid* const roots = add_failed_of_roots(program, command, {0, 7, 1, {77}});
  EXPECT_EQ(0, registers(kOtherUser, program));
  const int32_t number = roots->pid;
  ASSERT_LT(number, -1);
  const std::string kept = std::string(kUsersDir) + "/" + std::to_string(number);
  wex_tidy_users([](int32_t pid) {
    const chain_lock hold(wex_chains);
    return __wex_find_pid(&wex_chains, pid) != nullptr;
  });
  wex_pid next = {};
  struct stat facts = {};
  ASSERT_EQ(0, wex_read_pidfile_facts((std::string(kMainDbDir) + "/roots." + std::to_string(number)).c_str(),
                                      &next, &facts));
  wex_copy_text(next.process, sizeof next.process, next.script);
  EXPECT_NE(command, next.process);
  ASSERT_TRUE(wex_judge_file(&next, facts));
  EXPECT_EQ(command, next.process);
  const wex_user* const user = wex_user_of(&next);
  ASSERT_NE(nullptr, user);
  EXPECT_EQ(7U, user->gid);
  EXPECT_EQ(1, user->group_count);
  EXPECT_EQ(77U, user->groups[0]);
  {
    const chain_lock hold(wex_chains);
    __wex_drop_registration(roots);
  }
  EXPECT_FALSE(exists(kept));
  write_file(kept, "0 2 0 7 1 77 2 \n" + command);
  wex_tidy_users([](int32_t) { return false; });
  EXPECT_FALSE(exists(kept)) << "of no registration";
  wex_end_users();
  unlink(users.c_str());
}

// The file is root's until there is a record: were the daemon killed, only what is kept would tell whose
// program it is. The pid is that of a thread of his, which was registered and has ended, or of root's
// program, which could not be started again.
TEST_F(StrictRegistration, OfAListedProgramThatHasAnEndedOnesPidTheUserIsKeptBeforeItsFileIsMade) {
  wex_begin_users();
  for (const bool of_thread : {true, false}) {
    for (const int32_t room : {kUserRegistrations, 1}) {
      SCOPED_TRACE(testing::Message() << of_thread << " " << room);
      be_strict(room);
      const child first([] { return become(kOtherUser); });
      const child ended([&] { return !of_thread || become(kOtherUser); });
      const child program([] { return become(kOtherUser); });
      ASSERT_TRUE(first.ready() && ended.ready() && program.ready());
      ASSERT_EQ(0, registers(0, ended));
      move_to_pid(record_of(ended), program.pid(), of_thread ? first.pid() : 0);
      if (room == 1 && !of_thread) {
        ASSERT_EQ(0, registers(kOtherUser, first));
      }
      const std::string kept = std::string(kUsersDir) + "/" + std::to_string(program.pid());
      const std::string before = read_file(kept);
      std::string meanwhile;
      g_before_file = [&] { meanwhile = read_file(kept); };
      EXPECT_EQ(0, wex_register_third_part(program.pid(), "WEX_RESTART", nullptr));
      g_before_file = nullptr;
      EXPECT_EQ("0 2 " + std::to_string(kOtherUser) + " ", meanwhile.substr(0, 9));
      EXPECT_NE(before, meanwhile);
      const std::string refused = of_thread ? before : "";  // root's has given its pid up by then
      EXPECT_EQ(room == 1 ? refused : meanwhile, read_file(kept));
      for (const child* one : {&first, &program}) {
        wex_cancel_by(0, {WEX_CANCEL_PROC, one->pid()});
      }
      wex_cancel_by(0, {WEX_CANCEL_PROC, program.pid()});
    }
  }
  wex_end_users();
}

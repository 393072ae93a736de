// As whom a dead program is started again in strict mode: by what was kept of it, or by the device's list of
// users. What is wrong there must not make it somebody else's.
#include "fuzz_support.h"
#include "wex_chain.h"
#include "wex_chain_user.h"
#include "wex_paths.h"
#include "wex_strict.h"

namespace {

std::string g_kept_file;

// A registration whose process has gone, and its database file.
struct registration {
  registration(const std::string& command, int32_t vsd, bool by_script) : rec(wex_new_record()) {
    rec->pid = fuzz::kNobody;
    rec->vsd = vsd;
    rec->action = by_script ? SHELL_RESTART : RESPAWN;
    snprintf(rec->process, sizeof rec->process, "%s", command.c_str());
  }
  ~registration() { wex_free_record(rec); }
  registration(const registration&) = delete;
  registration& operator=(const registration&) = delete;

  wex_pid* const rec;
};

struct stat file_of(uid_t owner, mode_t mode) {
  struct stat facts = {};
  facts.st_uid = owner;
  facts.st_mode = S_IFREG | mode;
  facts.st_nlink = 1;
  return facts;
}

const wex_user& user_of(const wex_pid* rec) {
  const wex_user* const user = wex_user_of(rec);
  fuzz::expect(user != nullptr, "a registration that counts has a user");
  fuzz::expect(user->group_count >= 0 && user->group_count <= kUserGroupsMax,
               "a user has so many groups at most");
  return *user;
}

bool is_same(const wex_user& one, const wex_user& other) {
  return one.uid == other.uid && one.gid == other.gid && one.group_count == other.group_count &&
         memcmp(one.groups, other.groups, static_cast<size_t>(one.group_count) * sizeof one.groups[0]) == 0;
}

// What was kept, which others may have written to the database file of.
void judge_kept(const std::string& kept, const std::string& command, uid_t owner) {
  fuzz::write_file(g_kept_file.c_str(), kept);
  const registration first(command, 0, false);
  if (!wex_judge_lost_file(first.rec, file_of(owner, 0777))) {
    return;
  }
  const wex_user user = user_of(first.rec);
  fuzz::expect(owner == 0 || owner == user.uid, "nobody's file speaks for another user");
  fuzz::expect(strnlen(first.rec->process, sizeof first.rec->process) < sizeof first.rec->process,
               "a command is terminated");
  wex_keep_user(first.rec);
  const registration next(command, 0, false);
  fuzz::expect(wex_judge_lost_file(next.rec, file_of(owner, 0777)), "what was kept anew is understood");
  fuzz::expect(is_same(user, user_of(next.rec)), "what was kept anew names the same user");
  fuzz::expect(
      next.rec->start_time == first.rec->start_time && strcmp(next.rec->process, first.rec->process) == 0,
      "what was kept anew is of the same process");
}

// Nothing was kept: whose the file is counts, if the list names him.
void judge_owner(const std::string& list, uid_t owner) {
  fuzz::write_file(kUserList, list);
  unlink(g_kept_file.c_str());
  const registration lost("/usr/bin/lost", 0, false);
  if (!wex_judge_lost_file(lost.rec, file_of(owner, 0700))) {
    fuzz::expect(owner != 0, "root needs no list");
    return;
  }
  const wex_user& user = user_of(lost.rec);
  fuzz::expect(user.uid == owner && user.group_count == 0, "it is the owner's, without further groups");
  fuzz::expect(owner == 0 || (list.find(std::to_string(owner)) != std::string::npos &&
                              list.find(std::to_string(user.gid)) != std::string::npos),
               "a user and his group stand in the list");
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  fuzz::private_directory("/run");
  char path[kPathSize];
  snprintf(path, sizeof path, kUserFileFmt, fuzz::kNobody);
  g_kept_file = path;
  strict_settings settings;
  settings.on = true;
  wex_set_strict(settings);
  wex_begin_users();
  return access(kUsersDir, W_OK);
}

// The owner, a line with the command, and a text that is taken for both files.
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const uid_t owner = in.number<uint16_t>();
  const std::string command = in.line();
  const std::string text = in.rest();
  judge_kept(text, command, owner);
  judge_owner(text, owner);
  return 0;
}

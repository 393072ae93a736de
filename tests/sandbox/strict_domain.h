// A domain of a device in strict mode: one that is set up, and whose directories are open to all, but sticky.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "strict_world.h"

namespace strict_world {

inline constexpr char kFlags[] = "/tmp/vsd/5/wex/";
inline constexpr char kRunOfDomain[] = "/data/var/run/vsd/5";

struct StrictDomain : Strict {
  void SetUp() override {
    Strict::SetUp();
    for (const char* path : {kFlags, "/tmp/vsd/5/wex/db", kRunOfDomain}) {
      make_dirs(path);
      ASSERT_EQ(0, chmod(path, 01777));
    }
  }
  static std::string flag_of(pid_t pid) { return kFlags + text(pid); }
  static uid_t owner_of(const std::string& path) {
    struct stat facts = {};
    return lstat(path.c_str(), &facts) == 0 ? facts.st_uid : ~uid_t{0};
  }
  // An actor's words as this user, with the group of the domain.
  static words words_of_domain(const words& program, uid_t user) {
    words all = {"setpriv", "--reuid=" + text(user), "--regid=" + text(user), "--groups=3500"};
    all.insert(all.end(), program.begin(), program.end());
    return all;
  }
};

}  // namespace strict_world

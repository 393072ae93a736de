// wex_core_executed: whether an executed process has ended before it was looked at, by which all others are.
#include "wex_core_executed.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "forked.h"
#include "wex_test.h"

namespace {

using namespace wex_test;

constexpr uid_t kUser = 1234;

// Programs of other users cannot be seen without it.
bool drop_ptrace() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[2] = {};
  if (syscall(SYS_capget, &header, sets) != 0) {
    return false;
  }
  sets[0].effective &= ~(1U << CAP_SYS_PTRACE);
  sets[0].permitted = sets[0].effective;
  return syscall(SYS_capset, &header, sets) == 0;
}

bool is_hidden(pid_t pid) {
  char first = 0;
  return readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), &first, 1) < 0 && errno == EACCES;
}

}  // namespace

TEST(Executed, AProcessThatHasEndedIsNotTheLastOne) {
  const child zombie;
  EXPECT_TRUE(wex_register_executed(zombie.pid()));
  zombie.kill_only();
  EXPECT_TRUE(eventually([&] { return !wex_register_executed(zombie.pid()); }));
  EXPECT_FALSE(wex_register_executed(child::reaped()));
}

// Each command of a user's would have all processes looked at.
TEST(Executed, AProcessWhoseProgramMayNotBeSeenHasNotEnded) {
  const child users([] { return setresuid(kUser, kUser, kUser) == 0; });
  ASSERT_TRUE(users.ready());
  EXPECT_EQ(0, forked::in_child([&] {
              if (!drop_ptrace() || !is_hidden(users.pid())) {
                return 2;
              }
              return wex_register_executed(users.pid()) ? 0 : 1;
            }));
}

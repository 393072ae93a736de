// Start-up steps that cannot be made to fail from outside; main() is called in a forked child.
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "wex_chain.h"
#include "wex_paths.h"
#include "wex_test.h"

int wex_main(int argc, char** argv);

extern "C" int __wrap_wex_rebuild_chains(wex_chains_t* /*chain*/) {
  return -1;
}

namespace {

using namespace wex_test;

struct Core : WexWorld {};

bool holds_lock_file() {
  for (const std::string& open : open_descriptors()) {
    if (open.find(kLockFile) != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace

TEST_F(Core, ARegistryThatCannotBeRebuiltEndsTheStartWithTheLockGivenBack) {
  mark_console();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    char name[] = "wex";
    char* argv[] = {name, nullptr};
    const int result = wex_main(1, argv);
    _exit(result == -1 && !holds_lock_file() ? 42 : 1);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << status;
  EXPECT_TRUE(exists(kLockFile)) << "the lock was taken before";
  EXPECT_TRUE(console_says("]fail to rebuild chains\n"));
}

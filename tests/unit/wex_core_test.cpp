// Start-up steps that cannot be made to fail from outside; main() is called in a forked child.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "chain_lock.h"
#include "waiting.h"
#include "wex_chain.h"
#include "wex_core_fork.h"
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

// A restart puts the database file in its place while it holds the registry.
TEST_F(Core, TheSeventhFailureEndsTheDaemonNotBeforeTheRestartThatIsUnderWay) {
  make_dirs(kRunDir);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    pthread_t watcher;
    if (wex_init_chains(&wex_chains) != 0) {
      _exit(2);
    }
    pthread_mutex_lock(&wex_chains.mutex);
    if (pthread_create(&watcher, nullptr, wex_inotify_fork_error, nullptr) != 0) {
      _exit(3);
    }
    eventually(
        [] {
          write_file(kForkFile, "");
          write_file(kForkFile, "wwwwwww");
          return false;
        },
        500ms);
    write_file("/tmp/wex/put_back", "");
    pthread_mutex_unlock(&wex_chains.mutex);
    wex_sleep_ms(20000);
    _exit(4);
  }
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(1, WEXITSTATUS(status));
  EXPECT_TRUE(exists("/tmp/wex/put_back"));
}

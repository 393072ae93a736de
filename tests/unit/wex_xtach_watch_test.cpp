// wex_xtach: the watch of a process over its own descriptors.
#include <sys/resource.h>

#include "control_peer.h"
#include "failing_calls.h"

using namespace control;

namespace {

// A child of its own for every case: the watch ends the process, and its strikes are counted per process.
class filled_table {
 public:
  filled_table() {
    const rlimit limit = {kLimit, kLimit};
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = 3; fd < 256; ++fd) {
      close(fd);
    }
    fill();
  }
  // All but one descriptor: the look itself needs that one, and so sees the limit reached.
  void fill() {
    while ((last_ = open("/dev/null", O_RDONLY)) >= 0 && last_ < kLimit - 2) {
    }
  }
  void release_one() { close(last_); }

 private:
  static constexpr int kLimit = 24;
  int last_ = -1;
};

}  // namespace

TEST(DescriptorWatch, FourLooksInARowAtTheLimitEndTheProcessWithStatusOne) {
  const control::printed out;
  EXPECT_EQ(1, in_child([] {
              const filled_table table;
              for (int look = 0; look < 4; ++look) {
                wex_client_watch_process_fd(getpid());
              }
              return 50;
            }));
  EXPECT_EQ(4U, occurrences(out.text(), ": open files exceed the system upper limit.\n"));
}

TEST(DescriptorWatch, ALookBelowTheLimitForgetsTheStrikes) {
  const int status = in_child([] {
    filled_table table;
    for (int round = 0; round < 3; ++round) {
      for (int look = 0; look < 3; ++look) {
        wex_client_watch_process_fd(getpid());
      }
      table.release_one();
      wex_client_watch_process_fd(getpid());
      table.fill();
    }
    return 50;
  });
  EXPECT_EQ(50, status);
}

TEST(DescriptorWatch, NamesTheProcessItLookedAt) {
  const control::printed out;
  EXPECT_EQ(0, in_child([] {
              const filled_table table;
              wex_client_watch_process_fd(getpid());
              return 0;
            }));
  EXPECT_TRUE(out.has("]process /"));
}

TEST(DescriptorWatch, KnowsAProcessWithoutACommandLineByItsNumber) {
  const control::printed out;
  EXPECT_EQ(0, run_failing({"readlink,readlinkat:error=EACCES"}, [] {
              const filled_table table;
              wex_client_watch_process_fd(getpid());
              return 0;
            }));
  const std::string text = out.text();
  const size_t at = text.find("]process ");
  ASSERT_NE(std::string::npos, at) << text;
  int pid = 0;
  int length = 0;
  sscanf(text.c_str() + at, "]process %d open files exceed the system upper limit.\n%n", &pid, &length);
  EXPECT_GT(pid, 1) << text;
  EXPECT_EQ(text.size(), at + static_cast<size_t>(length)) << text;
}

TEST(DescriptorWatch, CountsNothingWhenTheLookFails) {
  const control::printed out;
  EXPECT_EQ(0, in_child([] {
              for (int look = 0; look < 8; ++look) {
                wex_client_watch_process_fd(0x7fffffff);
              }
              return 0;
            }));
  EXPECT_EQ(8U, occurrences(out.text(), "]wex_client_watch_process_fd: "));
  EXPECT_FALSE(out.has("exceed"));
}

TEST(DescriptorWatch, CountsNothingWhenTheLimitCannotBeRead) {
  const control::printed out;
  EXPECT_EQ(50, run_failing({"prlimit64:error=EPERM:when=2+"}, [] {
              const filled_table table;  // its own limit is set by the first of these calls
              for (int look = 0; look < 5; ++look) {
                wex_client_watch_process_fd(getpid());
              }
              return 50;
            }));
  EXPECT_EQ(5U, occurrences(out.text(), "]get_resource_limit: Operation not permitted\n"));
  EXPECT_FALSE(out.has("exceed"));
}

// No kernel lets a limit be set that is negative in 32 bits, so strace answers the fourth look with one.
TEST(DescriptorWatch, ANegativeLimitLeavesTheStrikesAsTheyAre) {
  const control::printed out;
  EXPECT_EQ(1,
            run_failing({"prlimit64:retval=0:poke_exit=@arg4=0000008000000000ffffffffffffffff:when=5"}, [] {
              const filled_table table;
              for (int look = 0; look < 5; ++look) {
                wex_client_watch_process_fd(getpid());
              }
              return 50;
            }));
  EXPECT_EQ(4U, occurrences(out.text(), ": open files exceed the system upper limit.\n"));
}

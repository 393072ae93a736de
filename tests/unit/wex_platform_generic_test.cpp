// The generic port's system log: the lines of syslog(3), without its wait for a log that does not read.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "linked_name.h"
#include "unique_fd.h"
#include "wex_clock.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_test.h"

namespace {

using namespace wex_test;
using clock = std::chrono::steady_clock;

int32_t g_now = 1000;

int g_patient_lines = 0;     // those that may have waited,
timeval g_patience = {};     // each at most so long
bool g_wait_longer = false;  // than a machine takes that has much else to do

}  // namespace

extern "C" int32_t wex_clock_now(void) {
  return g_now;
}

extern "C" {
int LINKED_SETSOCKOPT(__real)(int fd, int level, int name, const void* value, socklen_t size);
int LINKED_SETSOCKOPT(__wrap)(int fd, int level, int name, const void* value, socklen_t size);
ssize_t __real_sendto(int fd, const void* line, size_t length, int flags, const sockaddr* to, socklen_t size);
ssize_t __wrap_sendto(int fd, const void* line, size_t length, int flags, const sockaddr* to, socklen_t size);
}

// The emulator of a processor cannot be asked for it afterwards.
int LINKED_SETSOCKOPT(__wrap)(int fd, int level, int name, const void* value, socklen_t size) {
  if (name == SO_SNDTIMEO && size == sizeof g_patience) {
    memcpy(&g_patience, value, sizeof g_patience);
  }
  return LINKED_SETSOCKOPT(__real)(fd, level, name, value, size);
}

ssize_t __wrap_sendto(int fd, const void* line, size_t length, int flags, const sockaddr* to,
                      socklen_t size) {
  if ((flags & MSG_DONTWAIT) != 0) {
    return __real_sendto(fd, line, length, flags, to, size);
  }
  ++g_patient_lines;
  const timeval limit = g_wait_longer ? timeval{60, 0} : g_patience;
  LINKED_SETSOCKOPT(__real)(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const ssize_t sent = __real_sendto(fd, line, length, flags, to, size);
  const int cause = errno;
  LINKED_SETSOCKOPT(__real)(fd, SOL_SOCKET, SO_SNDTIMEO, &g_patience, sizeof g_patience);
  errno = cause;
  return sent;
}

namespace {

struct GenericPort : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    unlink(kSystemLog);
    g_patient_lines = 0;
  }
  void TearDown() override {
    closelog();
    unlink(kSystemLog);
    WexWorld::TearDown();
  }
};

// A log whose lines are taken only when the test says so.
class idle_log {
 public:
  idle_log() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un at = address();
    EXPECT_EQ(0, bind(socket_.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at)) << strerror(errno);
  }
  void fill() const {
    const unique_fd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un at = address();
    while (sendto(sender.get(), "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&at), sizeof at) ==
           1) {
    }
    ASSERT_EQ(EAGAIN, errno);
  }
  // The next line, or "" when there is none.
  std::string take() const {
    char line[16384];
    const ssize_t length = recv(socket_.get(), line, sizeof line, MSG_DONTWAIT);
    return std::string(line, length > 0 ? static_cast<size_t>(length) : 0);
  }

 private:
  static sockaddr_un address() {
    sockaddr_un at = {};
    at.sun_family = AF_UNIX;
    strncpy(at.sun_path, kSystemLog, sizeof at.sun_path - 1);
    return at;
  }
  unique_fd socket_;
};

}  // namespace

TEST_F(GenericPort, ItsLinesAreThoseOfSyslog) {
  const idle_log log;
  for (const int priority : {LOG_INFO, LOG_ERR, LOG_NOTICE | LOG_DAEMON}) {
    std::string theirs;
    std::string ours;
    EXPECT_TRUE(eventually([&] {  // the second may end between the two
      syslog(priority, "Task: %s/%d\n", "app", 7);
      qx_syslog(priority, "Task: %s/%d\n", "app", 7);
      theirs = log.take();
      ours = log.take();
      return !theirs.empty() && theirs == ours;
    })) << theirs
        << ours;
  }
}

TEST_F(GenericPort, ARestartIsALineWithFacilitySeverityAndMnemonic) {
  const idle_log log;
  printk_syslog_ext(5, "HA", "HA_SELF_CHECK", 1, "Task: %s/%d\n", "app", 7);
  const std::string line = log.take();
  EXPECT_EQ(0U, line.find("<13>")) << line;
  EXPECT_NE(std::string::npos, line.find(": %HA-5-HA_SELF_CHECK: Task: app/7\n")) << line;
}

TEST_F(GenericPort, AWholeCommandLineFits) {
  const idle_log log;
  const std::string command(4095, 'c');
  qx_syslog(6, "process: %s\n", command.c_str());
  EXPECT_NE(std::string::npos, log.take().find(": process: " + command + "\n"));
}

TEST_F(GenericPort, AFormatInATextIsNoFormat) {
  const idle_log log;
  qx_syslog(6, "%s", "100%n %s");
  EXPECT_NE(std::string::npos, log.take().find(": 100%n %s"));
}

TEST_F(GenericPort, ALogThatDoesNotReadCostsAMomentOnceAndIsUsedAgainLater) {
  const idle_log log;
  log.fill();
  qx_syslog(6, "first");
  EXPECT_EQ(1, g_patient_lines);
  EXPECT_EQ(0, g_patience.tv_sec) << "syslog(3) would wait for ever";
  EXPECT_EQ(100000, g_patience.tv_usec);
  for (int line = 0; line < 100; ++line) {
    printk_syslog_ext(5, "HA", "HA_SELF_CHECK", 1, "line %d", line);
  }
  EXPECT_EQ(1, g_patient_lines) << "each line waits";
  while (!log.take().empty()) {
  }
  qx_syslog(6, "it reads again");
  EXPECT_NE(std::string::npos, log.take().find("it reads again"));
  EXPECT_EQ(1, g_patient_lines);
  qx_syslog(6, "and is waited for again");
  EXPECT_EQ(2, g_patient_lines);
}

TEST_F(GenericPort, ADumpReachesALogThatReadsMoreSlowlyThanItIsWritten) {
  constexpr int kLines = 1000;
  const idle_log log;
  log.fill();
  while (!log.take().empty()) {
  }
  g_wait_longer = true;
  int taken = 0;
  std::thread reader([&] {
    const auto end = clock::now() + 30s;
    while (taken < kLines && clock::now() < end) {
      taken += log.take().empty() ? 0 : 1;
      std::this_thread::sleep_for(1ms);
    }
  });
  for (int line = 0; line < kLines; ++line) {
    qx_syslog(6, "line %d", line);
  }
  reader.join();
  g_wait_longer = false;
  EXPECT_EQ(kLines, taken);
  EXPECT_EQ(kLines, g_patient_lines);
}

TEST_F(GenericPort, WithoutALogNothingHappensAndErrnoStays) {
  errno = EDOM;
  qx_syslog(6, "nobody");
  printk_syslog_ext(5, "HA", "HA_SELF_CHECK", 1, "nobody");
  EXPECT_EQ(EDOM, errno);
  EXPECT_EQ(0, fs_set_vsd_envs(1, 0));
}

// --watch on a terminal: redrawn in place, and the terminal given back as it was.
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>

#include "send_signal.h"
#include "unique_fd.h"
#include "wexstat_world.h"

using namespace wexstat_test;

namespace {

// A terminal with wexstat --watch on it.
class terminal {
 public:
  terminal() : own_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    grantpt(own_.get());
    unlockpt(own_.get());
    other_ = unique_fd(open(ptsname(own_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const winsize size = {24, 100, 0, 0};
    ioctl(other_.get(), TIOCSWINSZ, &size);
    tcgetattr(other_.get(), &before_);
  }
  ~terminal() {
    if (pid_ > 0) {
      wex_test::send_signal(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  terminal(const terminal&) = delete;
  terminal& operator=(const terminal&) = delete;

  void start(const std::string& arguments = "--watch 1", const char* no_color = "") {
    const std::string command = "exec " + binary() + " " + arguments;
    pid_ = fork();
    if (pid_ == 0) {
      setsid();
      ioctl(other_.get(), TIOCSCTTY, 0);
      for (int fd = 0; fd < 3; ++fd) {
        dup2(other_.get(), fd);
      }
      setenv("TERM", "linux", 1);
      setenv("NO_COLOR", no_color, 1);
      execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
  }

  // Everything it has written so far.
  const std::string& screen() {
    int waiting = 0;
    while (ioctl(own_.get(), FIONREAD, &waiting) == 0 && waiting > 0) {
      char buffer[4096];
      const ssize_t got = read(own_.get(), buffer, sizeof buffer);
      if (got <= 0) {
        break;
      }
      screen_.append(buffer, static_cast<size_t>(got));
    }
    return screen_;
  }
  void type(char key) { ASSERT_EQ(1, write(own_.get(), &key, 1)); }
  bool echoes() const {
    termios now;
    return tcgetattr(other_.get(), &now) == 0 && (now.c_lflag & ECHO) != 0;
  }
  bool is_as_before() const {
    termios now;
    return tcgetattr(other_.get(), &now) == 0 && now.c_lflag == before_.c_lflag &&
           memcmp(now.c_cc, before_.c_cc, sizeof now.c_cc) == 0;
  }
  // Exit status once it has ended; -1 when it does not.
  int wait() {
    int status = 0;
    const bool ended = eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 20s);
    if (ended) {
      pid_ = -1;
    }
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  unique_fd own_;
  unique_fd other_;
  termios before_ = {};
  pid_t pid_ = -1;
  std::string screen_;
};

using WexstatWatch = WexstatWorld;

}  // namespace

TEST_F(WexstatWatch, ATerminalHasColoursUnlessNoColorIsSet) {
  status_table table;
  put_text(table.add("app", WEX_STATUS_DOWN).command, std::string(200, 'x'));
  table.save();
  for (const char* no_color : {"", "1"}) {
    terminal one;
    one.start("app", no_color);
    EXPECT_EQ(0, one.wait());
    // The kernel hands the last of it on a moment after the program has ended.
    const std::string cut = "  command     " + std::string(86, 'x') + "\r\n";
    EXPECT_TRUE(eventually([&] { return one.screen().find(cut) != std::string::npos; }))
        << "cut at its hundred columns: " << one.screen();
    EXPECT_NE(std::string::npos, one.screen().find("app, pid 1000: down")) << one.screen();
    EXPECT_EQ(*no_color == '\0', one.screen().find("\033[") != std::string::npos) << one.screen();
  }
}

TEST_F(WexstatWatch, ItRedrawsInPlaceAndEndsOnQOrControlC) {
  for (const char key : {'q', '\x03'}) {
    status_table table;
    table.add("before");
    table.save();
    terminal shown;
    ASSERT_NO_FATAL_FAILURE(shown.start());
    ASSERT_TRUE(eventually([&] { return shown.screen().find("before") != std::string::npos; }, 20s));
    EXPECT_FALSE(shown.echoes());
    table.add("behind", WEX_STATUS_DOWN);
    table.save();
    ASSERT_TRUE(eventually([&] { return shown.screen().find("behind") != std::string::npos; }, 20s));
    EXPECT_GE(occurrences(shown.screen(), "\033[H\033[J"), 2U);
    EXPECT_NE(std::string::npos, shown.screen().find("\033[31mbehind"));
    shown.type('x');
    shown.type(key);
    EXPECT_EQ(0, shown.wait());
    EXPECT_TRUE(shown.is_as_before());
    EXPECT_TRUE(eventually([&] { return shown.screen().rfind("\033[?25h") != std::string::npos; }))
        << "the cursor is back";
  }
}

TEST_F(WexstatWatch, WithoutATerminalItWritesOneTableAfterTheOther) {
  status_table table;
  table.add("one");
  table.save();
  const answer said = shell("timeout -s INT 2 " + binary() + " --watch=1 < /dev/null");
  EXPECT_GE(occurrences(said.text, "one "), 2U) << said.text;
  EXPECT_EQ(std::string::npos, said.text.find('\033'));
}

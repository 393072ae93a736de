// The registry over a restart of the daemon: what lived is kept, what died runs again, in every domain.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "wex_paths.h"
#include "wex_test.h"

namespace {

using namespace wex_test;
using words = std::vector<std::string>;

constexpr int kDomains = 16;

std::string text(int number) {
  return std::to_string(number);
}
std::string db_dir(int domain) {
  return "/tmp/vsd/" + text(domain) + "/wex/db";
}
std::string db_file(int domain, pid_t pid) {
  return db_dir(domain) + "/actor." + text(pid);
}

// A service of a domain: the supplementary group says which.
words service_of(int domain) {
  words options = {"--tag=" + text(domain)};
  if (domain > 0) {
    options.push_back("--group=" + text(3000 + 100 * domain));
  }
  options.insert(options.end(), {"--register=RESTART", "--ready=/tmp/ready." + text(domain), "--hold"});
  return options;
}

bool is_ready(int domain, pid_t pid) {
  return eventually([&] { return read_file("/tmp/ready." + text(domain)) == text(pid) + "\n"; }, 10s);
}

std::string content_for(pid_t pid, int action, const words& options) {
  return text(pid) + "\n" + text(action) + "\n" + actor_command(options);
}

// A pid that nothing has any more.
pid_t dead_pid() {
  Process gone;
  EXPECT_TRUE(gone.start({"true"}));
  const pid_t pid = gone.pid();
  gone.wait();
  return pid;
}

struct Registry : WexWorld {
  void SetUp() override {
    WexWorld::SetUp();
    for (int domain = 0; domain < kDomains; ++domain) {
      make_dirs(db_dir(domain));
      make_dirs("/data/var/run/vsd/" + text(domain));
      unlink(("/tmp/ready." + text(domain)).c_str());
    }
  }
};

}  // namespace

TEST_F(Registry, LivingServicesAreKeptAndDeadOnesRunAgainInAllSixteenDomains) {
  std::array<Process, kDomains> services;
  std::array<pid_t, kDomains> pids = {};
  Daemon first;
  ASSERT_TRUE(first.start());
  for (int domain = 0; domain < kDomains; ++domain) {
    Process& service = services[static_cast<size_t>(domain)];
    ASSERT_TRUE(service.start(actor_words(service_of(domain))));
    ASSERT_TRUE(is_ready(domain, service.pid())) << "domain " << domain << "\n" << read_console();
    pids[static_cast<size_t>(domain)] = service.pid();
  }
  ASSERT_TRUE(ended_by(first.kill_now(), SIGKILL));
  for (int domain = 1; domain < kDomains; domain += 2) {
    services[static_cast<size_t>(domain)].kill_now();
  }
  mark_console();
  Daemon second;
  ASSERT_TRUE(second.start());
  for (int domain = 0; domain < kDomains; ++domain) {
    const size_t at = static_cast<size_t>(domain);
    SCOPED_TRACE("domain " + text(domain));
    if (domain % 2 == 0) {
      EXPECT_TRUE(services[at].running());
    } else {
      const pid_t next = wait_for_actor(service_of(domain), pids[at]);
      ASSERT_GT(next, 0) << read_console();
      EXPECT_TRUE(console_says("]pid (" + text(pids[at]) + ") is not exist\n"));
      EXPECT_TRUE(console_says("]pid (" + text(next) + ") restart ret = " + text(next) + "\n"));
      EXPECT_TRUE(is_ready(domain, next));
      EXPECT_NE(std::string::npos, status_field(next, "Groups").find(text(3000 + 100 * domain)));
      pids[at] = next;
    }
    EXPECT_EQ(words{"actor." + text(pids[at])}, list_dir(db_dir(domain)));
  }
  // All are supervised: kept ones and restarted ones.
  for (const int domain : {0, 1, 14, 15}) {
    const size_t at = static_cast<size_t>(domain);
    if (services[at].running()) {
      services[at].kill_now();
    } else {
      send_signal(pids[at], SIGKILL);
    }
    EXPECT_GT(wait_for_actor(service_of(domain), pids[at]), 0) << "domain " << domain << "\n"
                                                               << read_console();
  }
  second.stop();
}

TEST_F(Registry, ServiceSurvivesADaemonThatIsKilledAgainAndAgain) {
  Process service;
  pid_t pid = 0;
  for (int life = 0; life < 5; ++life) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start());
    if (life == 0) {
      ASSERT_TRUE(service.start(actor_words(service_of(0))));
      pid = service.pid();
    } else {
      const pid_t next = wait_for_actor(service_of(0), pid);
      ASSERT_GT(next, 0) << "life " << life << "\n" << read_console();
      pid = next;
    }
    ASSERT_TRUE(is_ready(0, pid));
    EXPECT_EQ(words{"actor." + text(pid)}, list_dir(db_dir(0)));
    daemon.kill_now();
    life == 0 ? static_cast<void>(service.kill_now()) : static_cast<void>(send_signal(pid, SIGKILL));
    ASSERT_TRUE(eventually([&] { return !is_alive(pid); }));
  }
}

TEST_F(Registry, FileStillLockedByAnotherIsPostponedUntilTheLockIsGone) {
  const pid_t old_pid = dead_pid();
  const std::string file = db_file(0, old_pid);
  write_file(file, content_for(old_pid, 2, service_of(0)));
  const int holder = open(file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(0, fcntl(holder, F_SETLK, &whole));
  Daemon daemon;
  EXPECT_TRUE(daemon.start());
  EXPECT_TRUE(console_says("]pid (" + text(old_pid) + ") is not exist\n"));
  // The first look postpones; two more are later passes of the delay thread.
  const std::string held = "]be lock file " + file + ", ";
  EXPECT_TRUE(eventually([&] { return occurrences(read_console(), held) >= 3; }, 20s)) << read_console();
  EXPECT_EQ(std::string::npos, read_console().find("]wex_spawn--> wex_pid->process = ")) << read_console();
  EXPECT_TRUE(exists(file));
  close(holder);
  const pid_t next = wait_for_actor(service_of(0));
  EXPECT_GT(next, 0) << read_console();
  EXPECT_TRUE(is_ready(0, next));
  EXPECT_EQ(words{"actor." + text(next)}, list_dir(db_dir(0)));
  daemon.stop();
}

TEST_F(Registry, FilesThatCannotBeReadStayAndDoNotStopTheStart) {
  write_file(db_dir(0) + "/noslash.1", "812\n2\nnone");
  write_file(db_dir(0) + "/halfway.1", "81");
  write_file(db_dir(7) + "/overflow.1", "99999999999\n2\n/opt/foo");
  write_file(db_dir(15) + "/empty.1", "");
  ASSERT_EQ(0, mkfifo((db_dir(0) + "/fifo.1").c_str(), 0666));
  ASSERT_EQ(0, mkdir((db_dir(0) + "/directory.1").c_str(), 0777));
  const pid_t old_pid = dead_pid();
  write_file(db_file(15, old_pid), content_for(old_pid, 2, service_of(15)), 0755);
  write_file("/tmp/vsd/15/wex/" + text(old_pid), "");
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  for (const char* name : {"noslash.1", "halfway.1", "overflow.1", "empty.1", "fifo.1", "directory.1"}) {
    EXPECT_TRUE(console_says(std::string("]wex_read_pidfile ") + name + " fail\n")) << name;
  }
  const pid_t next = wait_for_actor(service_of(15));
  EXPECT_GT(next, 0) << read_console();
  EXPECT_TRUE(is_ready(15, next));
  EXPECT_EQ((words{"directory.1", "fifo.1", "halfway.1", "noslash.1"}), list_dir(db_dir(0)));
  EXPECT_EQ(words{"overflow.1"}, list_dir(db_dir(7)));
  EXPECT_EQ((words{"actor." + text(next), "empty.1"}), list_dir(db_dir(15)));
  EXPECT_EQ(words{text(next)}, [] {
    words flag_files;
    for (const std::string& name : list_dir("/tmp/vsd/15/wex")) {
      if (name != "db") {
        flag_files.push_back(name);
      }
    }
    return flag_files;
  }());
  daemon.stop();
}

TEST_F(Registry, ScriptServiceRunsAgainThroughTheCommandMap) {
  const words options = service_of(0);
  const pid_t old_pid = dead_pid();
  write_file("/etc/cmdmap/actor.sh", "exec " + std::string(actor_binary()) + " \"$@\"\n");
  write_file(db_file(0, old_pid), content_for(old_pid, 3, options), 0755);
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  const pid_t next = wait_for_actor(options);
  EXPECT_GT(next, 0) << read_console();
  EXPECT_TRUE(console_says("]pid (" + text(next) + ") shell restart ret = " + text(next) + "\n"));
  EXPECT_FALSE(exists(db_file(0, old_pid)));
  daemon.stop();
}

TEST_F(Registry, ServicesStartedByTheRebuildAreStartedOnce) {
  constexpr int kServices = 8;
  const auto options = [](int number) {
    return words{"--tag=many" + text(number), "--register=RESTART", "--count=/tmp/ready.many", "--hold"};
  };
  unlink("/tmp/ready.many");
  for (int number = 0; number < kServices; ++number) {
    const pid_t pid = dead_pid();
    write_file(db_file(0, pid), content_for(pid, 2, options(number)), 0755);
  }
  Daemon daemon;
  ASSERT_TRUE(daemon.start());
  std::vector<std::string> files;
  for (int number = 0; number < kServices; ++number) {
    const pid_t pid = wait_for_actor(options(number));
    ASSERT_GT(pid, 0) << read_console();
    files.push_back("actor." + text(pid));
  }
  std::sort(files.begin(), files.end());
  EXPECT_TRUE(eventually([&] { return lines_of(read_file("/tmp/ready.many")).size() == kServices; }));
  EXPECT_TRUE(eventually([&] { return list_dir(db_dir(0)) == files; }));
  // The sweep would take them for lost exits two seconds after the subscription.
  EXPECT_TRUE(never([&] { return lines_of(read_file("/tmp/ready.many")).size() > kServices; }, 3s));
  daemon.stop();
}

// Strict mode: what an ill-willed user tries, before the daemon starts and beside it. Nothing of it may reach
// root's files, root's services, the daemon or the device.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "registry_files.h"
#include "strict_world.h"
#include "unique_fd.h"
#include "wex_limits.h"

namespace {

using namespace strict_world;
using control_client::body_of;

// On each of the two disks, for a second name is on the same one.
constexpr const char* kVictims[] = {"/tmp/victim", "/dev/shm/victim"};
constexpr char kPrecious[] = "precious\n";

// Names of the daemon's in directories where a user may make files, before the first start or always.
constexpr const char* kNames[] = {kControlSocket,
                                  kLockFile,
                                  kForkFile,
                                  kEventLog1,
                                  kEventLog2,
                                  kRebootSwitch,
                                  WEX_SEM_KEY_FILE,
                                  kAliveTableFile,
                                  kStatusTable,
                                  "/tmp/vsd/0/delete_vsd",
                                  "/tmp/vsd/3/delete_vsd",
                                  "/tmp/vsd/0/wex/99999000",
                                  "/tmp/vsd/0/wex/db/actor.99999000",
                                  "/tmp/vsd/3/wex/db/actor.99999001"};

const char* victim_beside(const char* path) {
  return kVictims[strncmp(path, "/dev/shm/", 9) == 0 ? 1 : 0];
}

bool make_socket(const char* path) {
  const unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
  return bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

// Enough for the end of the daemon, were it a count of failed forks, and for a refused reboot.
bool make_file(const char* path) {
  const unique_fd file(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  return write(file.get(), "0000000000\n", 11) == 11;
}

struct plant {
  const char* kind;
  bool (*make)(const char* path);
};
constexpr plant kPlants[] = {
    {"a link to root's file", [](const char* path) { return symlink(victim_beside(path), path) == 0; }},
    {"a second name of root's file", [](const char* path) { return link(victim_beside(path), path) == 0; }},
    {"a FIFO", [](const char* path) { return mkfifo(path, 0666) == 0; }},
    {"a directory", [](const char* path) { return mkdir(path, 0777) == 0; }},
    {"a socket", make_socket},
    {"a file", make_file},
};

struct StrictAttacks : Strict {
  void SetUp() override {
    Strict::SetUp();
    prepare();
  }
  static void prepare() {
    write_file(kStrictFile, "");
    write_file(kDebugLog, "");  // so that the event logs are opened, too
    for (const char* const victim : kVictims) {
      write_file(victim, kPrecious, 0600);
    }
  }
  void TearDown() override {
    Strict::TearDown();
    unlink(kVictims[1]);
    for (const std::string& name : list_dir("/dev/shm")) {
      if (name.compare(0, 6, "aside-") == 0) {
        unlink(("/dev/shm/" + name).c_str());
      }
    }
  }
  static void expect_victims_untouched() {
    for (const char* const victim : kVictims) {
      struct stat facts = {};
      ASSERT_EQ(0, lstat(victim, &facts));
      EXPECT_EQ(kPrecious, read_file(victim));
      EXPECT_EQ(S_IFREG | 0600U, facts.st_mode);
      EXPECT_EQ(0U, facts.st_uid);
    }
  }
  // The daemon goes on, and does for root's programs what it is there for.
  void expect_root_is_served(const std::string& tag) {
    ASSERT_TRUE(daemon.running());
    Process service;
    ASSERT_TRUE(start_service(&service, {"--tag=" + tag}, 0)) << read_console();
    const pid_t old = service.pid();
    send_signal(old, SIGKILL);
    const pid_t next = wait_for_actor(service_words({"--tag=" + tag}), old, 20s);
    ASSERT_GT(next, 0) << running_log() << read_console();
    EXPECT_EQ("0 0 0 0", ids_of(next, "Uid"));
    EXPECT_FALSE(exists(kRebootLog));
  }
};

// As whoever comes before the first start can have it.
void make_open_dirs(std::string path) {
  make_dirs(path);
  for (; path.compare(0, 5, "/tmp/") == 0; path.erase(path.rfind('/'))) {
    chmod(path.c_str(), 0777);
  }
}

bool plant_everywhere(const plant& what) {
  umask(0);
  for (const char* const path : kNames) {
    make_open_dirs(std::string(path).substr(0, std::string(path).rfind('/')));
    if (!what.make(path)) {
      return false;
    }
  }
  return true;
}

ino_t inode_of(const std::string& path) {
  struct stat facts = {};
  return lstat(path.c_str(), &facts) == 0 ? facts.st_ino : 0;
}

}  // namespace

// A second name is made as root: on kernels that guard links the user could not, on older ones he can.
TEST_F(StrictAttacks, WhatAUserPlantsAtEveryNameBeforeTheStartIsNeitherFollowedNorObeyed) {
  for (const plant& what : kPlants) {
    SCOPED_TRACE(what.kind);
    clean_world();
    prepare();
    const bool second_name = what.make == kPlants[1].make;
    ASSERT_TRUE(as_user([&] { return plant_everywhere(what); }, second_name ? 0 : kUser)) << strerror(errno);
    start();
    ASSERT_NO_FATAL_FAILURE(expect_root_is_served("roots"));
    expect_victims_untouched();
    for (const char* const path : {kControlSocket, kLockFile, kAliveTableFile, kStatusTable}) {
      struct stat facts = {};
      EXPECT_TRUE(lstat(path, &facts) == 0 && facts.st_uid == 0) << path << " is not root's";
    }
    daemon.kill_now();
    for (const pid_t pid : pids_with_command(actor_command(service_words({"--tag=roots"})))) {
      send_signal(pid, SIGKILL);
    }
  }
}

TEST_F(StrictAttacks, WhatAUserPlantsBesideTheRunningDaemonIsNeitherFollowedNorObeyed) {
  start();
  ASSERT_NO_FATAL_FAILURE(expect_root_is_served("first"));  // the event log is there
  const std::vector<std::string> kept = {kControlSocket, kLockFile,        kEventLog1, kAliveTableFile,
                                         kStatusTable,   WEX_SEM_KEY_FILE, kUsersDir,  kMainDbDir};
  std::vector<ino_t> inodes;
  for (const std::string& path : kept) {
    inodes.push_back(inode_of(path));
    EXPECT_NE(0U, inodes.back()) << path;
  }
  for (const plant& what : kPlants) {
    SCOPED_TRACE(what.kind);
    ASSERT_TRUE(as_user([&] {
      umask(0);
      make_dirs("/tmp/mine");
      for (const char* const path : kNames) {
        unlink(path);
        rename(path, "/tmp/mine/taken");
        what.make(path);
        rename("/tmp/mine", path);
      }
      return true;
    }));
    ASSERT_NO_FATAL_FAILURE(expect_root_is_served(text(&what - kPlants)));
    expect_victims_untouched();
    ASSERT_TRUE(as_user([] {  // his own, so that there is room for the next kind
      for (const char* const path : kNames) {
        remove_tree(path);
      }
      return true;
    }));
  }
  for (size_t at = 0; at < kept.size(); ++at) {
    EXPECT_EQ(inodes[at], inode_of(kept[at])) << kept[at] << " was replaced";
  }
}

namespace {

// Says as whom it was started, and stays.
constexpr char kPayload[] = "/tmp/payload";
constexpr char kProofs[] = "/tmp/proofs";

std::string payload(const std::string& attempt) {
  return std::string("/bin/sh ") + kPayload + " " + attempt;
}

std::string proof_of(const std::string& attempt) {
  return read_file(std::string(kProofs) + "/" + attempt);
}

void leave_payload(int domain, const std::string& attempt, pid_t pid) {
  const std::string path = "/tmp/vsd/" + text(domain) + "/wex/db/sh." + text(pid);
  write_file(path, text(pid) + "\n2\n" + payload(attempt));
  chmod(path.c_str(), 0755);
}

}  // namespace

// What he may have started runs as him, which says that the others could have been.
TEST_F(StrictAttacks, NothingThatAUserAsksForRunsAsRoot) {
  write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nsomebody:x:1234:1235::/:/bin/sh\n");
  make_dirs(kProofs);
  ASSERT_EQ(0, chmod(kProofs, 01777));
  write_file(kPayload,
             "id -u >> " + std::string(kProofs) + "/$1\nexec " + actor_binary() + " --tag=$1 --hold\n", 0755);
  ASSERT_TRUE(as_user([] {
    make_open_dirs(kMainDbDir);
    make_open_dirs("/tmp/vsd/5/wex/db");
    leave_payload(0, "before", 99999000);
    leave_payload(5, "domain", 99999001);
    for (const pid_t pid : {1, 2}) {
      leave_payload(0, "living", pid);
    }
    return true;
  }));
  start();
  Process& roots = process();
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  Process& own = process();
  ASSERT_TRUE(own.start(
      {"setpriv", "--reuid=1234", "--regid=1235", "--clear-groups", "/bin/sh", kPayload, "message"}));
  const std::string command = actor_command({"--tag=message", "--hold"});
  ASSERT_TRUE(eventually([&] { return command_line(own.pid()) == command; }, 20s));
  EXPECT_EQ("1234\n", proof_of("message"));
  ASSERT_TRUE(as_user([&] {
    leave_payload(0, "after", 99999002);
    for (const pid_t pid : {daemon.pid(), roots.pid()}) {
      leave_payload(0, "of_root", pid);
    }
    const raw_client client;
    for (const pid_t pid : {own.pid(), roots.pid(), daemon.pid()}) {
      wex_reg_info body = body_of(pid);
      body.ppid = pid;
      if (!client.send_body(WEX_RESTART, body, payload("name")) || !client.acknowledged() ||
          !client.send_body(WEX_SHELL_RESTART, body, "../../tmp/payload") || !client.acknowledged()) {
        return false;
      }
    }
    return true;
  }));
  ASSERT_TRUE(eventually([&] { return is_registered(own.pid()); }, 20s)) << read_console();
  const pid_t old = own.pid();
  send_signal(old, SIGKILL);
  EXPECT_TRUE(eventually(
      [&] {
        const std::vector<pid_t> next = pids_with_command(command);
        return next.size() == 1 && next[0] != old && ids_of(next[0], "Uid") == "1234 1234 1234 1234";
      },
      20s))
      << read_console();
  EXPECT_TRUE(eventually([] { return proof_of("before") == "1234\n"; }, 20s)) << proof_of("before");
  daemon.kill_now();  // the next one looks at all that lies there
  start();
  EXPECT_TRUE(eventually([] { return proof_of("after") == "1234\n"; }, 20s)) << proof_of("after");
  EXPECT_FALSE(is_registered(1));
  EXPECT_FALSE(is_registered(2));
  EXPECT_EQ("", proof_of("living")) << "a process of root's is taken for his";
  send_signal(roots.pid(), SIGKILL);
  const pid_t next = wait_for_actor(service_words({"--tag=roots"}), roots.pid(), 20s);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("0 0 0 0", ids_of(next, "Uid"));
  for (const std::string& attempt : list_dir(kProofs)) {
    EXPECT_EQ(std::string::npos, ("\n" + proof_of(attempt)).find("\n0\n")) << attempt << " ran as root";
  }
}

namespace {

words crasher(const std::string& tag) {
  return {"--tag=" + tag, "--core", "--register=RESTART", "--confirm", "--first-time=/tmp/once-" + tag,
          "--crash=SEGV", "--hold"};
}

// The first life dumps core in a directory where its user can write; the second one goes on.
void crash_once(const std::string& tag, uid_t user) {
  const words all = user == 0 ? actor_words(crasher(tag)) : users_words(crasher(tag), user);
  words in_tmp = {"env", "-C", "/tmp"};
  in_tmp.insert(in_tmp.end(), all.begin(), all.end());
  Process service;
  ASSERT_TRUE(service.start(in_tmp));
  const auto status = service.wait(20s);
  ASSERT_TRUE(ended_by(status, SIGSEGV));
  ASSERT_NE(0, *status & 0x80) << "it did not dump core";
  ASSERT_GT(wait_for_actor(crasher(tag), service.pid(), 20s), 0) << read_console();
}

}  // namespace

TEST_F(StrictAttacks, CoreDumpsOfAUsersProgramsDoNotRestartTheDevice) {
  write_file(kBurstConfig, "600 2\n");
  start();
  for (const char* const tag : {"1", "2", "3"}) {
    ASSERT_NO_FATAL_FAILURE(crash_once(tag, kUser));
  }
  ASSERT_NO_FATAL_FAILURE(crash_once("roots-1", 0));
  EXPECT_FALSE(exists(kRebootLog)) << read_file(kRebootLog);
  ASSERT_NO_FATAL_FAILURE(crash_once("roots-2", 0));
  EXPECT_TRUE(eventually([] { return exists(kRebootLog); }, 20s)) << "root's do not count either";
  EXPECT_EQ(std::string::npos, read_file(kRebootLog).find("--tag=1")) << read_file(kRebootLog);
}

// As before the first start, when the directories of the switches are open to all.
TEST_F(StrictAttacks, SwitchesThatAUserHasMadeBeforeTheStartStopNeitherCountdownsNorTheDevicesRestart) {
  write_file(kBurstConfig, "600 1\n");
  ASSERT_EQ(0, chmod("/data", 0777));
  ASSERT_TRUE(as_user([] { return make_file(kKillDebug) && make_file(kRebootSwitch); }));
  start();
  EXPECT_TRUE(log_says(std::string(kKillDebug) + " does not count: its owner may not say what it says."));
  ASSERT_NO_FATAL_FAILURE(crash_once("roots", 0));
  EXPECT_TRUE(eventually([] { return exists(kRebootLog); }, 20s)) << "he has forbidden it";
  EXPECT_TRUE(log_says(std::string(kRebootSwitch) + " does not count: its owner may not say what it says."));
  EXPECT_TRUE(exists(kKillDebug) && exists(kRebootSwitch)) << "left alone";
}

namespace {

bool is_in_state(pid_t pid, wex_status_state state) {
  const auto slot = StatusReader().slot_of(pid);
  return slot.has_value() && slot->state == state;
}

// Ends a running service, whose pid is `pid`, until it is parked.
void park(const words& options, pid_t* pid) {
  for (int restart = 0; restart < 5; ++restart) {
    const pid_t old = *pid;
    send_signal(old, SIGKILL);
    ASSERT_TRUE(eventually(
        [&] {
          const pid_t next = wait_for_actor(options, old, 0ms);
          *pid = next > 0 ? next : old;
          return is_in_state(*pid, next > 0 ? WEX_STATUS_RUNNING : WEX_STATUS_PARKED);
        },
        20s))
        << read_console();
    if (*pid == old) {
      return;
    }
  }
  FAIL() << "it is not parked";
}

}  // namespace

// The second wait within 600 s: of root's program it restarts the device.
TEST_F(StrictAttacks, SelfCheckWaitsOfAUsersProgramsDoNotRestartTheDevice) {
  write_file(kDebugTime, "2\n");
  start();
  for (const uid_t user : {kUser, uid_t{0}}) {
    SCOPED_TRACE(user);
    const std::string tag = "--tag=waits-" + text(user);
    const words options = service_words({tag});
    Process& service = process();
    ASSERT_TRUE(start_service(&service, {tag}, user));
    pid_t pid = service.pid();
    for (int wait = 1; wait <= 2; ++wait) {
      ASSERT_NO_FATAL_FAILURE(park(options, &pid));
      const pid_t next = wait_for_actor(options, pid, 20s);
      ASSERT_GT(next, 0) << read_console();
      pid = next;
      ASSERT_TRUE(eventually([&] { return is_in_state(pid, WEX_STATUS_RUNNING); }, 20s));
    }
    EXPECT_EQ(text(user), uid_of(pid));
    EXPECT_EQ(user == 0, exists(kRebootLog)) << read_file(kRebootLog);
  }
}

namespace {

// A small disk at /tmp, so that a user can fill it.
struct StrictFullDisk : StrictAttacks {
  void SetUp() override {
    StrictAttacks::SetUp();
    ASSERT_EQ(0, mount("small", "/tmp", "tmpfs", 0, "size=4m,mode=1777")) << strerror(errno);
  }
  void TearDown() override {
    StrictAttacks::TearDown();
    clean_world();  // what lies in it is hidden afterwards
    umount2("/tmp", MNT_DETACH);
  }
};

bool fill(const char* path) {
  static const char block[4096] = {1};
  const unique_fd filler(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  while (write(filler.get(), block, sizeof block) > 0) {
  }
  return errno == ENOSPC;
}

}  // namespace

// What is registered meanwhile is known to this daemon only, until there is room for its file.
TEST_F(StrictFullDisk, CostsNoServiceOfRootsThatHasItsFile) {
  start();
  Process& ends = process();
  Process& stays = process();
  ASSERT_TRUE(start_service(&ends, {"--tag=ends"}, 0));
  ASSERT_TRUE(start_service(&stays, {"--tag=stays"}, 0));
  ASSERT_TRUE(as_user([] { return fill("/tmp/filler"); }));
  send_signal(ends.pid(), SIGKILL);
  EXPECT_GT(wait_for_actor(service_words({"--tag=ends"}), ends.pid(), 20s), 0) << read_console();
  ASSERT_NO_FATAL_FAILURE(expect_root_is_served("meanwhile"));
  daemon.kill_now();
  start();
  EXPECT_TRUE(is_registered(stays.pid()));
  send_signal(stays.pid(), SIGKILL);
  EXPECT_GT(wait_for_actor(service_words({"--tag=stays"}), stays.pid(), 20s), 0) << read_console();
  ASSERT_NO_FATAL_FAILURE(expect_root_is_served("next-life"));
}

// Each would be a record with its command line: 90 MB of them, and as many programs.
TEST_F(StrictAttacks, TwentyThousandPlantedRegistrationsAreHisQuotaAndCostNoMemory) {
  constexpr int kPlanted = 20000;
  write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nsomebody:x:1234:1235::/:/bin/sh\n");
  start();
  const long before = atol(status_field(daemon.pid(), "VmHWM").c_str());
  daemon.stop();
  ASSERT_TRUE(as_user([] {
    umask(022);
    const std::string command = "\n2\n" + actor_command({"--tag=planted", "--hold"}) + std::string(150, ' ');
    for (int number = 0; number < kPlanted; ++number) {
      const std::string pid = text(90000000 + number);
      const unique_fd file(open((std::string(kMainDbDir) + "/actor." + pid).c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0755));
      const std::string said = pid + command;
      if (write(file.get(), said.data(), said.size()) != static_cast<ssize_t>(said.size())) {
        return false;
      }
    }
    return true;
  }));
  ASSERT_TRUE(daemon.start_below({}));
  ASSERT_TRUE(daemon.wait_ready(60s)) << read_console();
  ASSERT_NO_FATAL_FAILURE(expect_root_is_served("roots"));
  EXPECT_GE(size_t{kUserRegistrations}, pids_with_command(actor_command({"--tag=planted", "--hold"})).size());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these keep what was given back
  const long after = atol(status_field(daemon.pid(), "VmHWM").c_str());
  EXPECT_LT(after, before + 8192) << "KiB, with " << before << " before";
#else
  EXPECT_GT(before, 0);
#endif
}

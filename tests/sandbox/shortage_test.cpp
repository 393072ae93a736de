// Disks that are full or cannot be written, directories that vanish, no memory and no process left in the
// daemon's control group: its services come back, at the latest when the shortage is over, without anybody's
// help.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "control_client.h"
#include "figures.h"
#include "leak_gate.h"
#include "restart_policy.h"
#include "unique_fd.h"

using namespace control_client;

namespace {

constexpr const char* kWritten[] = {"/tmp", "/data", "/dev/shm", "/ovix"};

struct Shortage : ControlChannel {
  void SetUp() override {
    ControlChannel::SetUp();
    for (const char* const directory : kWritten) {
      ASSERT_EQ(0, mount("small", directory, "tmpfs", 0, "size=4m,mode=1777")) << strerror(errno);
      ++mounted_;
    }
    write_file("/data/.ovix/vsd/0/qx_utils/qx_utils_dbg_cfg.txt", "g_wex_pub_dbg_level 0\n");
    write_file(kNoReboot, "");
    start();
  }
  void TearDown() override {
    daemon.kill_now();
    services.clear();
    clean_world();  // what the daemon made goes by names that are hidden afterwards
    for (; mounted_ > 0; --mounted_) {
      umount2(kWritten[mounted_ - 1], MNT_DETACH);
    }
    ControlChannel::TearDown();
  }
  void start_services(int count, const std::string& registration = "--register=RESTART") {
    for (int at = 0; at < count; ++at) {
      services.push_back(std::make_unique<policy::Service>(std::to_string(services.size()), registration));
      ASSERT_TRUE(services.back()->start()) << read_console();
    }
  }
  void end_all() {
    for (const auto& service : services) {
      service->end();
    }
  }
  // How many have not come back.
  int lost(milliseconds limit = 60s) {
    int count = 0;
    for (const auto& service : services) {
      const bool back = service->comes_back(limit);
      EXPECT_TRUE(back) << service->command();
      count += back ? 0 : 1;
    }
    return count;
  }
  // The file systems are as they should be again, and so is all the rest.
  void expect_all_as_before() {
    EXPECT_TRUE(daemon.running()) << running_log();
    EXPECT_TRUE(serves());
    daemon.kill_now();
    ASSERT_TRUE(daemon.start()) << read_console();
    policy::Service newcomer("newcomer");
    ASSERT_TRUE(newcomer.start());
    EXPECT_TRUE(newcomer.ends_and_comes_back());
  }
  void end_everything() {
    daemon.kill_now();
    for (const pid_t pid : processes_inside()) {
      if (program_of(pid) == actor_binary()) {
        ASSERT_GT(pid, 0);
        send_signal(pid, SIGKILL);
      }
    }
  }
  std::vector<std::unique_ptr<policy::Service>> services;

 private:
  size_t mounted_ = 0;
};

void fill(const std::string& directory) {
  static const char block[4096] = {1};
  const unique_fd filler(open((directory + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  while (write(filler.get(), block, sizeof block) > 0) {
  }
  EXPECT_EQ(ENOSPC, errno) << directory;
}

}  // namespace

TEST_F(Shortage, OfRoomOnAllDisksCostsNoService) {
  start_services(10);
  for (const char* const directory : kWritten) {
    fill(directory);
  }
  const stopwatch time;
  end_all();
  const int missing = lost();
  tell_figures("services die", "all disks are full", 10, missing,
               "back after " + std::to_string(time.ms()) + " ms");
  daemon.kill_now();
  ASSERT_TRUE(daemon.start()) << "on full disks\n" << read_console();
  for (const char* const directory : kWritten) {
    unlink((std::string(directory) + "/filler").c_str());
  }
  expect_all_as_before();
}

TEST_F(Shortage, DisksThatCannotBeWrittenCostNoService) {
  // Not all of /tmp, where the services themselves write.
  constexpr const char* kReadOnly[] = {"/tmp/wex", "/tmp/vsd", "/data", "/dev/shm", "/ovix"};
  start_services(10);
  for (const char* const directory : kReadOnly) {  // mounted once more: nothing in use can be made read-only
    EXPECT_EQ(0, mount(directory, directory, nullptr, MS_BIND, nullptr)) << strerror(errno);
    EXPECT_EQ(0, mount(nullptr, directory, nullptr, MS_REMOUNT | MS_RDONLY | MS_BIND, nullptr))
        << strerror(errno);
  }
  EXPECT_EQ(-1, open("/tmp/wex/probe", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(EROFS, errno);
  const stopwatch time;
  end_all();
  const int missing = lost();
  tell_figures("services die", "no disk can be written", 10, missing,
               "back after " + std::to_string(time.ms()) + " ms");
  for (const char* const directory : kReadOnly) {
    EXPECT_EQ(0, umount2(directory, MNT_DETACH)) << strerror(errno);
  }
  expect_all_as_before();
}

TEST_F(Shortage, DirectoriesThatVanishCostNoService) {
  start_services(10);
  for (const char* const directory :
       {"/tmp/wex", "/tmp/vsd", "/data/.ovix", "/data/var", "/ovix/vsd", "/etc/wex", "/etc/vsd", "/qx_cfg"}) {
    remove_tree(directory);
  }
  const stopwatch time;
  end_all();
  const int missing = lost();
  tell_figures("services die", "all directories of wex are gone", 10, missing,
               "back after " + std::to_string(time.ms()) + " ms");
  EXPECT_TRUE(daemon.running());
  daemon.kill_now();  // it has lost its socket; an operator reads so in the running log
  ASSERT_TRUE(daemon.start()) << read_console();
  expect_all_as_before();
}

// ---- Control groups ---------------------------------------------------------------------------------------

namespace {

// A control group of the daemon's own, of a hierarchy that is mounted for this case.
class group {
 public:
  group(const char* controller, pid_t pid) : mount_(std::string("/run/") + controller) {
    make_dirs(mount_);
    EXPECT_EQ(0, mount("none", mount_.c_str(), "cgroup", 0, controller))
        << controller << ": " << strerror(errno);
    path_ = mount_ + "/wex-shortage." + std::to_string(getpid());
    EXPECT_EQ(0, mkdir(path_.c_str(), 0755)) << strerror(errno);
    set("cgroup.procs", std::to_string(pid));
  }
  // Its processes are to have ended, or to be about to.
  ~group() {
    EXPECT_TRUE(eventually([this] { return rmdir(path_.c_str()) == 0; }, 20s)) << read_file(path_ + "/tasks");
    EXPECT_EQ(0, umount2(mount_.c_str(), MNT_DETACH));
    remove_tree(mount_);
  }
  group(const group&) = delete;
  group& operator=(const group&) = delete;

  // Not write_file(), which would give the file a mode.
  void set(const char* file, const std::string& value) const {
    const unique_fd target(open((path_ + "/" + file).c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(static_cast<ssize_t>(value.size()), write(target.get(), value.data(), value.size()))
        << file << ": " << strerror(errno);
  }
  std::string get(const char* file) const { return read_file(path_ + "/" + file); }

 private:
  std::string mount_, path_;
};

}  // namespace

// Restarted programs are in the daemon's group: each new life of those that need more than there is ends at
// once, until they are parked. The next wait ends when there is enough.
TEST_F(Shortage, OfMemoryEndsWithoutHelp) {
  write_file(kDebugTime, "2\n");
  const std::vector<std::string> hungry = {"--grow=40", "--tag=hungry", "--register=RESTART", "--hold"};
  start_services(3);
  Process large;
  ASSERT_TRUE(large.start(actor_words(hungry)));
  const pid_t old = large.pid();
  ASSERT_TRUE(eventually([&] { return exists(policy::db_file("actor", old)); }, 20s));
  {
    const group memory("memory", daemon.pid());
    memory.set("memory.limit_in_bytes", "25165824");
    const stopwatch time;
    end_all();
    large.kill_now();
    EXPECT_TRUE(console_says("HA_WAIT_SELF_CHECK Task: ", 30s)) << "nothing was short";
    int missing = lost();
    EXPECT_NE(0, atoi(memory.get("memory.failcnt").c_str()));
    memory.set("memory.limit_in_bytes", "-1");
    const bool back = wait_for_actor(hungry, old, 30s) > 0;
    EXPECT_TRUE(back) << read_console();
    missing += back ? 0 : 1;
    tell_figures("services die", "24 MiB for the daemon and them, where they need 40", 4, missing,
                 "small ones back at once, the large one when there is room");
    expect_all_as_before();
    end_everything();
  }
}

// A fork that fails is tried again after five seconds, with all restarts behind it.
TEST_F(Shortage, OfProcessesEndsWithoutHelp) {
  start_services(10);
  {
    const group processes("pids", daemon.pid());
    processes.set("pids.max", processes.get("pids.current"));
    end_all();
    EXPECT_TRUE(console_says("fork", 30s));
    EXPECT_TRUE(eventually([&] { return read_file(kForkFile).size() >= 1; }, 30s)) << "every fork succeeded";
    processes.set("pids.max", "max");
    const stopwatch time;
    const int missing = lost();
    tell_figures("services die", "no process can be made", 10, missing,
                 "back " + std::to_string(time.ms()) + " ms after one can");
    expect_all_as_before();
    end_everything();
  }
}

// The world of a test: refused where it would be dangerous, clean before, and nothing left over after.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "leak_gate.h"
#include "wex.h"
#include "wex_paths.h"
#include "wex_test.h"

namespace wex_test {
namespace {

constexpr char kDebugDir[] = "/data/.ovix/vsd/0";
constexpr char kAllDebugOn[] = "g_wex_pub_dbg_level 0\ng_wex_alive_dbg_level 0\ng_wex_lib_dbg_level 0\n";

// Everything wex, its services and its tests write outside their own directories.
constexpr const char* kTraces[] = {WEX_RUN,       "/tmp/vsd",       "/tmp/vsd_common", WEX_SEM_KEY_FILE,
                                   kRebootSwitch, "/tmp/wex-trace", "/ovix",           "/qx_cfg",
                                   "/data/.ovix", "/data/var",      kNotifyLog,        kNotifyCount,
                                   kRebootLog,    kHistory,         kHistoryOld,       kHung,
                                   kHungOld,      kKillDebug,       kExemptThreads,    "/data2",
                                   "/etc/wex",    kBurstConfig,     kCommandMap,       kDeviceMonitor,
                                   kDebugLog,     "/etc/vsd",       "/etc/rc.d",       kDebugTime,
                                   kNoReboot,     kDumpToConsole,   "/core",           kAliveTableFile,
                                   kStatusTable,  kUsersDir,        kLsmDevice,        kMapIpcDevice};

void remove_semaphore() {
  const key_t key = ftok(WEX_SEM_KEY_FILE, WEX_SEM_PROJECT);
  const int id = key == -1 ? -1 : semget(key, 1, 0);
  if (id >= 0) {
    semctl(id, 0, IPC_RMID);
  }
}

void remove_groups() {
  for (const std::string hierarchy : {"/memory", "/cpu"}) {
    for (const std::string& name : list_dir(hierarchy)) {
      if (name.compare(0, 4, "vsd_") == 0) {
        const std::string group = hierarchy + "/" + name;
        eventually([&] { return rmdir(group.c_str()) == 0; }, 2s);  // busy until its dead are gone
      }
    }
  }
}

void end_actors() {
  for (const pid_t pid : processes_inside()) {
    if (program_of(pid) == actor_binary()) {
      send_signal(pid, SIGKILL);
      waitpid(pid, nullptr, 0);  // in case the test started it itself; else another parent reaps it
      EXPECT_TRUE(eventually([pid] { return !is_alive(pid); })) << "actor " << pid << " does not end";
    }
  }
}

std::string tell(pid_t pid) {
  return std::to_string(pid) + ": " + command_line(pid);
}

void expect_nobody_new(const std::set<pid_t>& before) {
  std::set<pid_t> extra;
  eventually(
      [&] {
        extra.clear();
        for (const pid_t pid : processes_inside()) {
          if (before.count(pid) == 0) {
            extra.insert(pid);
          }
        }
        return extra.empty();
      },
      1s);
  for (const pid_t pid : extra) {
    ADD_FAILURE() << "a process outlived the test: " << tell(pid);
    send_signal(pid, SIGKILL);
  }
}

void expect_no_sanitizer_report() {
  const std::string console = read_console();
  for (const char* sign :
       {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error: ", "WARNING: ThreadSanitizer"}) {
    EXPECT_EQ(std::string::npos, console.find(sign)) << console.substr(console.find(sign));
  }
}

// Of all that the case had printed, whatever it looked at itself.
void tell_end_of_console() {
  constexpr size_t kLines = 40;
  const std::vector<std::string> lines = lines_of(read_file(kConsoleLog));
  printf("The end of the console:\n");
  for (size_t at = lines.size() - std::min(lines.size(), kLines); at < lines.size(); ++at) {
    printf("%s\n", lines[at].c_str());
  }
}

}  // namespace

void clean_world() {
  remove_semaphore();
  remove_groups();
  for (const char* path : kTraces) {
    remove_tree(path);
  }
  for (const char* path : {"/ovix", "/qx_cfg"}) {
    make_dirs(path);
  }
  for (const char* path : {kFlushTlb, kWexStatus, kRebootSeconds}) {
    if (exists(path)) {
      write_file(path, "");
    }
  }
  if (getenv("WEX_STRICT") != nullptr) {
    write_file(kStrictFile, "");
  }
}

void WexWorld::SetUp() {
  leaves_behind(kFiles, "/tmp/", INT_MAX, "services write what they like to a device that is thrown away");
  ASSERT_EQ(0, chdir("/"));
  setenv("DATA_OVIX_DIR", kDebugDir, 1);
  write_file(std::string(kDebugDir) + "/qx_utils/qx_utils_dbg_cfg.txt", kAllDebugOn);
  mark_console();
  before_ = processes_inside();
}

void WexWorld::TearDown() {
  end_actors();
  expect_nobody_new(before_);
  expect_no_sanitizer_report();
  EXPECT_EQ(0, chdir("/"));
  if (HasFailure()) {
    tell_end_of_console();
  }
}

}  // namespace wex_test

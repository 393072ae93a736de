#include "leak_gate.h"

#include <ftw.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "wex.h"
#include "wex_limits.h"
#include "wex_test.h"

// Weak references: a program that does not use the chains is not linked with them because of this gate.
extern "C" {
extern wex_chains_t wex_chains __attribute__((weak));
extern wex_chains_t wex_alive_chains __attribute__((weak));
extern wex_chains_t wex_chains_delay __attribute__((weak));
}

namespace wex_test {
namespace {

// Whole trees, and directories of which only the names themselves are looked at.
constexpr const char* kTrees[] = {"/tmp", "/data", "/data2", "/ovix", "/qx_cfg", "/etc/wex", "/etc/cmdmap"};
constexpr const char* kDirectories[] = {"/", "/etc", "/dev"};

struct state {
  std::set<std::string> descriptors, held_mutexes, shared_memory, segments, semaphores, mounts, files;
};

std::set<std::string>* g_found;  // nftw(3) passes nothing on

// Names near the top tell of everything below them.
int note_entry(const char* path, const struct stat*, int, FTW* place) {
  constexpr int kDeepest = 3;
  g_found->insert(path);
  return place->level < kDeepest ? FTW_CONTINUE : FTW_SKIP_SUBTREE;
}

std::set<std::string> files_now() {
  std::set<std::string> found;
  g_found = &found;
  for (const char* const tree : kTrees) {
    nftw(tree, note_entry, 16, FTW_PHYS | FTW_MOUNT | FTW_ACTIONRETVAL);
  }
  for (const std::string directory : kDirectories) {
    for (const std::string& name : list_dir(directory)) {
      found.insert((directory == "/" ? "" : directory) + "/" + name);
    }
  }
  return found;
}

template <class Lines>
std::set<std::string> set_of(const Lines& lines) {
  return {lines.begin(), lines.end()};
}

// The lines of a table of the kernel's, by their first two columns: key and number, the rest changes by
// itself.
std::set<std::string> ipc_objects(const char* table) {
  std::set<std::string> found;
  for (const std::string& line : lines_of(read_file(table))) {
    std::istringstream columns(line);
    std::string key, number;
    columns >> key >> number;
    found.insert(key + " " + number);
  }
  return found;
}

// A mutex is held when another thread cannot have it; that thread may well be the one that forgot it.
bool is_held(pthread_mutex_t& mutex) {
  bool held = false;
  std::thread other([&] {
    const int result = pthread_mutex_trylock(&mutex);
    held = result == EBUSY || result == EDEADLK;
    if (result == 0) {
      pthread_mutex_unlock(&mutex);
    }
  });
  other.join();
  return held;
}

std::set<std::string> held_mutexes() {
  const std::pair<const char*, wex_chains_t*> chains[] = {{"wex_chains", &wex_chains},
                                                          {"wex_alive_chains", &wex_alive_chains},
                                                          {"wex_chains_delay", &wex_chains_delay}};
  std::set<std::string> held;
  for (const auto& [name, chain] : chains) {
    if (chain != nullptr && is_held(chain->mutex)) {
      held.insert(name);
    }
  }
  return held;
}

// The generic port opens its socket to the system log once, at the first line. It is recognised by its
// send timeout and by having no name: another one that is left open is a leak. User-mode emulation of a
// 32-bit board answers with less than a time, and by its name alone it is recognised there.
bool is_log_socket(int fd) {
  timeval timeout = {};
  socklen_t size = sizeof timeout;
  sockaddr_un name = {};
  socklen_t name_size = sizeof name;
  return getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, &size) == 0 &&
         (size < sizeof timeout || (timeout.tv_sec == 0 && timeout.tv_usec == 1000 * kSystemLogWaitMs)) &&
         getsockname(fd, reinterpret_cast<sockaddr*>(&name), &name_size) == 0 &&
         name_size == sizeof name.sun_family;
}

std::set<std::string> kept_descriptors() {
  std::set<std::string> found = open_descriptors();
  for (auto at = found.begin(); at != found.end(); ++at) {
    if (is_log_socket(std::stoi(*at))) {
      found.erase(at);
      break;
    }
  }
  return found;
}

state look() {
  return {kept_descriptors(),
          held_mutexes(),
          set_of(list_dir("/dev/shm")),
          ipc_objects("/proc/sysvipc/shm"),
          ipc_objects("/proc/sysvipc/sem"),
          set_of(lines_of(read_file("/proc/self/mounts"))),
          files_now()};
}

std::vector<std::string> new_in(const std::set<std::string>& before, const std::set<std::string>& after) {
  std::vector<std::string> extra;
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(extra));
  return extra;
}

bool has_children() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

void end_children() {
  for (const pid_t pid : processes_inside()) {
    if (status_field(pid, "PPid") == std::to_string(getpid())) {
      send_signal(pid, SIGKILL);
    }
  }
  const auto reaped_all = [] {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    return !has_children();
  };
  EXPECT_TRUE(eventually(reaped_all)) << "a child of an earlier case does not end";
}

struct intention {
  leak kind;
  const char* what;
  int most;
};

// What is left on purpose: by all cases of the program (declared before main()), and by the present one.
std::vector<intention>& lasting_intentions() {
  static std::vector<intention> list;
  return list;
}
std::vector<intention> g_intentions;

bool is_intended(leak kind, const std::string& which) {
  for (intention& intended : g_intentions) {
    if (intended.kind == kind && which.find(intended.what) != std::string::npos && intended.most-- > 0) {
      return true;
    }
  }
  return false;
}

void report(leak kind, const std::string& what, const std::string& which) {
  if (!is_intended(kind, which)) {
    ADD_FAILURE() << what << " outlived the test: " << which;
  }
}

void report_new(leak kind, const std::string& what, const std::set<std::string>& before,
                const std::set<std::string>& after) {
  for (const std::string& one : new_in(before, after)) {
    report(kind, what, one);
  }
}

// What was there before the case and is gone counts as well, unless an earlier case left it on purpose.
void compare(leak kind, const std::string& what, const std::set<std::string>& before,
             const std::set<std::string>& after) {
  report_new(kind, "a " + what, before, after);
  for (intention& intended : g_intentions) {
    intended.most = INT_MAX;
  }
  for (const std::string& one : new_in(after, before)) {
    if (!is_intended(kind, one)) {
      ADD_FAILURE() << "the " << what << " has gone: " << one;
    }
  }
}

void check_children() {
  if (has_children()) {
    report(kChildren, "a child", "");
    end_children();
  }
}

// A new directory tells of what lies in it.
void check_files(const std::set<std::string>& before, const std::set<std::string>& after) {
  std::string last = "/";
  for (const std::string& path : new_in(before, after)) {
    if (path.compare(0, last.size() + 1, last + "/") != 0) {
      report(kFiles, "a file", path);
      remove_tree(path);
      last = path;
    }
  }
}

class leak_gate : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override {
    g_intentions = lasting_intentions();
    clean_world();
    before_ = look();
  }
  void OnTestEnd(const testing::TestInfo& info) override {
    if (info.result()->Skipped()) {
      ADD_FAILURE()
          << "A skipped case shows nothing. Where a case cannot run, a list says so, with the reason.";
    }
    check_children();
    clean_world();
    const state after = look();
    report_new(kHeldMutexes, "a held mutex", before_.held_mutexes, after.held_mutexes);
    report_new(kSharedMemory, "shared memory", before_.shared_memory, after.shared_memory);
    report_new(kSharedMemory, "a shared segment", before_.segments, after.segments);
    report_new(kSemaphores, "a semaphore", before_.semaphores, after.semaphores);
    check_files(before_.files, after.files);
    compare(kDescriptors, "descriptor", before_.descriptors, after.descriptors);
    compare(kMounts, "mount", before_.mounts, after.mounts);
  }

  state before_;
};

}  // namespace

leaves_behind::leaves_behind(leak kind, const char* what, int most, const char*) {
  const bool in_a_case = testing::UnitTest::GetInstance()->current_test_info() != nullptr;
  (in_a_case ? g_intentions : lasting_intentions()).push_back({kind, what, most});
}

void install_leak_gate() {
  testing::UnitTest::GetInstance()->listeners().Append(new leak_gate);
}

}  // namespace wex_test

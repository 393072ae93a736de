// The registry of a daemon that starts among database files of any name and content.
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>

#include "chain_check.h"
#include "dir_walk.h"
#include "wex_chain_rebuild.h"
#include "wex_paths.h"

// Programs are not started: these bytes might name anything.
extern "C" pid_t fork() noexcept {
  return fuzz::kNobody;
}
// Nobody waits for a process that never was.
extern "C" int clock_nanosleep(clockid_t, int, const timespec*, timespec*) {
  return 0;
}
extern "C" int kill(pid_t, int) noexcept {
  return 0;
}
// A program that is parked for its self-check would take the fuzzer's own alarm.
extern "C" unsigned alarm(unsigned) noexcept {
  return 0;
}

namespace {

constexpr int kFilesMax = 4;

std::string directory_of(int32_t vsd) {
  char path[kPathSize];
  snprintf(path, sizeof path, kDbDirFmt, vsd);
  return path;
}

void empty(const std::string& path) {
  dir_walk walk(path.c_str());
  while (const dirent* const entry = walk.valid() ? walk.next() : nullptr) {
    unlinkat(walk.fd(), entry->d_name, 0);
  }
}

// One line its name, one its content. Names the file system refuses are nobody's business.
int make_files(fuzz::input& in) {
  int made = 0;
  for (int file = 0; file < kFilesMax && !in.empty(); ++file) {
    const std::string directory = directory_of(in.number<uint8_t>() % 2);
    std::string name = in.line();
    std::string content = in.line();
    for (char& c : name) {
      c = c == '/' ? '_' : c;
    }
    for (char& c : content) {
      c = c == '|' ? '\n' : c;
    }
    const std::string path = directory + "/" + name.c_str();
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) {
      made += write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) ? 1 : 0;
      close(fd);
    }
  }
  return made;
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  for (const char* const path :
       {"/tmp/vsd", "/tmp/vsd/0", "/tmp/vsd/0/wex", "/tmp/vsd/1", "/tmp/vsd/1/wex", "/tmp/wex"}) {
    fuzz::make_directory(path);
  }
  fuzz::make_directory(directory_of(0).c_str());
  fuzz::make_directory(directory_of(1).c_str());
  wex_init_chains(&wex_chains);
  wex_init_chains(&wex_alive_chains);
  wex_init_chains(&wex_chains_delay);
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  empty(directory_of(0));
  empty(directory_of(1));
  fuzz::input in(data, size);
  const int files = make_files(in);
  fuzz::expect(wex_rebuild_chains(&wex_chains) == 0, "no file keeps the daemon from starting");
  fuzz::expect(wex_chains.count <= files, "a file makes one record at most");
  for (wex_chains_t* const chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
    fuzz::expect_sound(*chain);
    wex_destroy_chains(chain);
  }
  return 0;
}

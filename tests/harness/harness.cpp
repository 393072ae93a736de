// Waiting, files, and what /proc says.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "wex_test.h"

namespace wex_test {
namespace {

size_t console_mark = 0;

std::string link_target(const std::string& path) {
  char target[4096];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

bool same_file(const std::string& one, const std::string& other) {
  struct stat a, b;
  return stat(one.c_str(), &a) == 0 && stat(other.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
         a.st_ino == b.st_ino;
}

int remove_entry(const char* path, const struct stat*, int kind, struct FTW*) {
  kind == FTW_DP || kind == FTW_D ? rmdir(path) : unlink(path);
  return 0;
}

}  // namespace

bool eventually(const std::function<bool()>& cond, milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  auto pause = 1ms;
  while (!cond()) {
    if (std::chrono::steady_clock::now() >= end) {
      return cond();
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, 10ms);
  }
  return true;
}

bool never(const std::function<bool()>& cond, milliseconds span) {
  return !eventually(cond, span);
}

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void make_dirs(const std::string& path) {
  for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    mkdir(path.substr(0, at).c_str(), 0755);
  }
  mkdir(path.c_str(), 0755);
}

void write_file(const std::string& path, const std::string& text, mode_t mode) {
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    make_dirs(path.substr(0, slash));
  }
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
  EXPECT_EQ(0, fchmod(fd, mode)) << path;
  EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size())) << path;
  close(fd);
}

mode_t mode_of(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::vector<std::string> list_dir(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) {
    return names;
  }
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(!line.empty() && line.back() == '\r' ? line.substr(0, line.size() - 1) : line);
  }
  return lines;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

// Not only on one file system: in an overlay a file has another device number than its directory.
void remove_tree(const std::string& path) {
  nftw(path.c_str(), remove_entry, 16, FTW_PHYS | FTW_DEPTH);
  if (list_dir(path).size() == 1) {  // one that is deeper than any path
    run({"rm", "-rf", path});
  }
}

bool inside_sandbox() {
  const char* said = getenv("WEX_SANDBOX");
  return said != nullptr && strcmp(said, "1") == 0;
}

bool may_restart_machine() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[2] = {};
  if (syscall(SYS_capget, &header, sets) != 0 || prctl(PR_CAPBSET_READ, CAP_SYS_BOOT) != 0) {
    return true;
  }
  return ((sets[0].effective | sets[0].permitted | sets[0].inheritable) & (1U << CAP_SYS_BOOT)) != 0;
}

std::set<std::string> open_descriptors() {
  std::set<std::string> found;
  DIR* dir = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name[0] != '.' && name != std::to_string(dirfd(dir))) {
      const std::string target = link_target("/proc/self/fd/" + name);
      // Without the kernel's mark of a removed file: whoever runs the tests may remove files that we
      // inherited.
      found.insert(name + " -> " + target.substr(0, target.find(" (deleted)")));
    }
  }
  closedir(dir);
  return found;
}

size_t count_descriptors() {
  return open_descriptors().size();
}

// By mount namespace, and by root: the sandbox's own helpers share the namespace but not the root.
std::set<pid_t> processes_inside() {
  std::set<pid_t> found;
  const std::string ours = link_target("/proc/self/ns/mnt");
  for (const std::string& name : list_dir("/proc")) {
    const pid_t pid = static_cast<pid_t>(atoi(name.c_str()));
    if (pid > 0 && pid != getpid() && link_target("/proc/" + name + "/ns/mnt") == ours &&
        same_file("/proc/" + name + "/root", "/")) {
      found.insert(pid);
    }
  }
  return found;
}

bool is_alive(pid_t pid) {
  const std::string state = status_field(pid, "State");
  return !state.empty() && state[0] != 'Z' && state[0] != 'X';
}

std::string command_line(pid_t pid) {
  std::string words = read_file("/proc/" + std::to_string(pid) + "/cmdline");
  while (!words.empty() && words.back() == '\0') {
    words.pop_back();
  }
  std::replace(words.begin(), words.end(), '\0', ' ');
  return words;
}

std::string program_of(pid_t pid) {
  return link_target("/proc/" + std::to_string(pid) + "/exe");
}

std::string status_field(pid_t pid, const std::string& field) {
  for (const std::string& line : lines_of(read_file("/proc/" + std::to_string(pid) + "/status"))) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) {
      const size_t start = line.find_first_not_of(" \t", field.size() + 1);
      return start == std::string::npos ? std::string() : line.substr(start);
    }
  }
  return std::string();
}

std::vector<pid_t> pids_with_command(const std::string& command) {
  std::vector<pid_t> found;
  for (const pid_t pid : processes_inside()) {
    if (command_line(pid) == command) {
      found.push_back(pid);
    }
  }
  return found;
}

void mark_console() {
  console_mark = read_file(kConsoleLog).size();
}

std::string read_console() {
  const std::string all = read_file(kConsoleLog);
  return all.size() < console_mark ? all : all.substr(console_mark);
}

bool console_says(const std::string& text, milliseconds limit) {
  return eventually([&] { return read_console().find(text) != std::string::npos; }, limit);
}

}  // namespace wex_test

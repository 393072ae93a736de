// wex_vsd_group: control groups of the domains, and how much memory each domain uses.
//
// Other programs of the device call this through the library; the daemon itself asks only for the domain of a
// process. The counters have no lock: set_vsd_mem() has one caller at a time.
#define WEX_MODULE "wex_vsd"
#include "wex_vsd.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "dir_walk.h"
#include "guarded_file.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_number.h"
#include "text_reader.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_paths.h"

namespace {

constexpr char kResidentKey[] = "VmRSS:";
constexpr char kThreadGroupKey[] = "Tgid:";
constexpr char kMappingResident[] = "Rss";
constexpr char kHardLimit[] = "memory.limit_in_bytes";
constexpr char kSoftLimit[] = "memory.soft_limit_in_bytes";

// KiB, by domain: the sums of the measurement in progress, and the last completed one. Of the thread that
// measures: no lock.
uint64_t array_rss[WEX_DOMAINS];
uint64_t mem_use_rss[WEX_DOMAINS];

struct largest_process {
  int32_t pid;
  int32_t kib;
};

bool starts_with(const char* line, const char* key) {
  return strncmp(line, key, strlen(key)) == 0;
}

// The first group id of a list. Ids go up to 2^32 - 2; other numbers are limited, so that computing with them
// cannot overflow.
int64_t group_id(const char* text) {
  int64_t id = 0;
  scan_integer(&text, &id);
  return id > UINT32_MAX ? UINT32_MAX : id < INT32_MIN ? INT32_MIN : id;
}

// Opens a control file. The directories above it are open to everybody, hence the guarded open.
unique_fd open_control(const char* path, const char* caller) {
  unique_fd file = wex_open_file(path, O_RDWR);
  if (!file.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: fopen fail: %s\n", caller, strerror(errno));
  }
  return file;
}

// The kernel takes a control value only when it comes in one piece. 0, or -errno (printed).
int write_control(const char* path, const char* text, const char* caller) {
  const unique_fd file = open_control(path, caller);
  if (!file.valid()) {
    return -errno;
  }
  if (safe_write(file.get(), text, strlen(text)) < 0) {
    const int err = errno;
    wex_dbg(WEX_DBG_PUB, "%s: fwrite fail: %s\n", caller, strerror(err));
    return -err;
  }
  return 0;
}

void add_cgroups(const char* path, int32_t pid) {
  char text[16];
  wex_format(text, sizeof text, "%d", pid);
  write_control(path, text, __func__);
}

int set_mem_limit_group(int32_t vsd, const char* file, uint64_t kib) {
  char path[kPathSize];
  char text[32];
  wex_format(path, sizeof path, kMemoryFileFmt, vsd, file);
  wex_format(text, sizeof text, "%lluK", static_cast<unsigned long long>(kib));
  return write_control(path, text, __func__);
}

// Looked at relative to the opened directory, wherever the process has gone; what cannot be looked at counts
// as a file.
bool is_directory(const dir_walk& dir, const char* name, const char* caller, struct stat* facts) {
  *facts = {};
  if (fstatat(dir.fd(), name, facts, 0) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: stat fail: %s\n", caller, strerror(errno));
    return false;
  }
  return S_ISDIR(facts->st_mode);
}

// Moves every process that has a flag file in `dir`. False when a name is no process and the walk was given
// up.
bool move_flagged(dir_walk& dir, int32_t vsd) {
  char memory[kPathSize];
  char cpu[kPathSize];
  wex_format(memory, sizeof memory, kMemoryTasksFmt, vsd);
  wex_format(cpu, sizeof cpu, kCpuTasksFmt, vsd);
  while (const dirent* entry = dir.next()) {
    struct stat facts;
    const int32_t pid = text_to_number(entry->d_name);
    if (is_directory(dir, entry->d_name, "set_cgroups", &facts) ||
        !wex_flag_counts(dir.fd(), *entry, facts, pid)) {
      continue;
    }
    if (pid < 0) {
      // Kept: "atio", see docs/decisions.md.
      wex_dbg(WEX_DBG_PUB, "%s: atio proc: %s\n", "set_cgroups", strerror(errno));
      return false;
    }
    if (pid == 0) {
      continue;  // no number; the kernel would take it for the writer itself
    }
    add_cgroups(memory, pid);
    add_cgroups(cpu, pid);
  }
  return true;
}

void set_cgroups(int32_t vsd) {
  char flags[kPathSize];
  wex_name_flag_dir(vsd, flags);
  if (wex_chdir(flags) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: chdir fail: %s\n", __func__, strerror(errno));
    return;
  }
  dir_walk dir(open_trusted(AT_FDCWD, ".", O_RDONLY | O_DIRECTORY));  // the name may be a link by now
  if (!dir.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: open dir fail: %s\n", __func__, strerror(errno));
    return;  // the working directory stays changed, as after a name that is no number: callers use absolute
             // paths
  }
  if (move_flagged(dir, vsd) && chdir(kRootDir) != 0) {
    wex_dbg(WEX_DBG_PUB, "%s: chdir fail: %s\n", __func__, strerror(errno));
  }
}

// Resident size of a process that may be killed. False for one that is not there, for init and for ourselves,
// also when the name is that of one of our threads: anybody may have made the flag file.
bool read_candidate(int32_t pid, int32_t* kib) {
  char path[kPathSize];
  wex_format(path, sizeof path, kProcStatusFmt, pid);
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: fopen fail: %s\n", "find_max_rss", strerror(errno));
    return false;
  }
  text_reader status(file.get());
  char line[256];
  int32_t owner = 0;
  while (status.line(line, sizeof line)) {
    if (starts_with(line, kThreadGroupKey)) {
      owner = text_to_number(line + strlen(kThreadGroupKey));
    } else if (starts_with(line, kResidentKey)) {
      *kib = text_to_number(line + strlen(kResidentKey));
      return pid > 1 && owner > 1 && owner != getpid();
    }
  }
  return false;
}

// The process with a flag file that has the most resident memory; the first of equals. Pid 0 when there is
// none.
largest_process find_largest(int32_t vsd) {
  largest_process largest = {0, 0};
  char flags[kPathSize];
  wex_name_flag_dir(vsd, flags);
  dir_walk dir(open_trusted(AT_FDCWD, flags, O_RDONLY | O_DIRECTORY));
  if (!dir.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: open dir fail: %s\n", "find_max_rss", strerror(errno));
    return {-1, 0};
  }
  while (const dirent* entry = dir.next()) {
    struct stat facts;
    const int32_t pid = text_to_number(entry->d_name);
    if (is_directory(dir, entry->d_name, "find_max_rss", &facts) ||
        !wex_flag_counts(dir.fd(), *entry, facts, pid)) {
      continue;
    }
    if (pid < 0) {
      // Kept: "atio", see docs/decisions.md.
      wex_dbg(WEX_DBG_PUB, "%s: atio proc: %s\n", "find_max_rss", strerror(errno));
    }
    int32_t kib = 0;
    if (read_candidate(pid, &kib) && kib > largest.kib) {
      largest = {pid, kib};
    }
  }
  return largest;
}

// Kept: find_max_rss() signals process 0 when there is none to end, see docs/decisions.md.
void kill_largest(const largest_process& largest) {
  wex_dbg(WEX_DBG_PUB, "max_pid %d max_rss %d\n", largest.pid, largest.kib);
  kill(largest.pid, SIGKILL);
}

void measure_process(int32_t pid) {
  char path[kPathSize];
  wex_format(path, sizeof path, kProcSmapsFmt, kProcDir, pid);
  const int ret = get_vsd_mem(path, get_vsdid(pid), array_rss);
  if (ret < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: get vsd mem fail: %s\n", "poll_use_mem", strerror(-ret));
  }
}

void enforce_limit(int32_t vsd) {
  char domain[kPathSize];
  wex_format(domain, sizeof domain, kDomainDirSlashFmt, vsd);
  struct stat facts;
  const int64_t limit = stat(domain, &facts) == 0 ? get_maxmem_set(vsd) : 0;
  if (limit == 0) {
    array_rss[vsd] = 0;
  } else if (static_cast<uint64_t>(limit) < array_rss[vsd]) {
    // A domain whose flag files lead to no process loses none: signal 9 to process 0 would end our own
    // process group. The kill uses the result of this look, so that no process can vanish in between.
    const largest_process largest = find_largest(vsd);
    if (largest.pid > 0) {
      kill_largest(largest);
    }
    array_rss[vsd] = static_cast<uint64_t>(limit);  // what was killed counts as given back
  }
}

void poll_use_mem() {
  dir_walk proc(kProcDir);
  if (!proc.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: open dir fail: %s\n", __func__, strerror(errno));
    return;
  }
  while (const dirent* entry = proc.next()) {
    const int32_t pid = text_to_number(entry->d_name);
    if (pid != 0) {
      measure_process(pid);
      wex_sleep_ms(kMeasurePauseMs);
    }
  }
  for (int32_t vsd = kFirstDomain; vsd < WEX_DOMAINS; ++vsd) {  // the main system is never limited
    enforce_limit(vsd);
  }
}

}  // namespace

extern "C" {

int32_t get_vsdid(int32_t pid) {
  char path[kPathSize];
  wex_format(path, sizeof path, kProcStatusFmt, pid);
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    return -errno;
  }
  text_reader status(file.get());
  char line[256];
  int64_t group = 0;
  while (status.line(line, sizeof line)) {
    if (starts_with(line, kGroupsKey)) {
      group = group_id(line + strlen(kGroupsKey));
      break;
    }
  }
  return wex_group_domain(group);
}

int set_cgroups_all(int32_t vsd) {
  wex_make_domain_dirs(vsd, WEX_MADE_FOR_LIMITS);
  set_cgroups(vsd);
  if (errno != 0) {  // also what is left of a directory that was there: operators know the line
    wex_dbg(WEX_DBG_PUB, "%s: set mem group fail: %s\n", __func__, strerror(errno));
  }
  return 0;
}

int set_mem_group(int32_t vsd, uint64_t kib) {
  // Hard limit first, so that the soft one never stands above it, not even for a moment.
  int ret = set_mem_limit_group(vsd, kHardLimit, kib);
  if (ret < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: set_hard_mem_limit fail: %s\n", __func__, strerror(-ret));
    return ret;
  }
  ret = set_mem_limit_group(vsd, kSoftLimit, kib);
  if (ret < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: set_soft_mem_limit fail: %s\n", __func__, strerror(-ret));
  }
  return ret;
}

int set_cpu_group(int32_t vsd, int32_t tenths) {
  // Kept: the product wraps at 32 bits, see docs/decisions.md. Computed unsigned, where that is defined.
  const auto product = static_cast<int32_t>(static_cast<uint32_t>(static_cast<int64_t>(tenths) * 1024));
  char path[kPathSize];
  char text[16];
  wex_format(path, sizeof path, kCpuSharesFmt, vsd);
  wex_format(text, sizeof text, "%d", product / 10);
  return write_control(path, text, __func__);
}

int64_t get_maxmem_set(int32_t vsd) {
  if (vsd == kMainSystem) {
    return 0;
  }
  char path[kPathSize];
  wex_format(path, sizeof path, kMemoryFileFmt, vsd, kHardLimit);
  const unique_fd file = wex_open_file(path, O_RDWR);
  if (!file.valid()) {
    wex_dbg(WEX_DBG_PUB, "%s: open fail: %s\n", __func__, strerror(errno));
    return 0;
  }
  char text[257];
  const int32_t got = safe_read(file.get(), text, sizeof text - 1);
  if (got < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: read fail: %s\n", __func__, strerror(errno));
    return 0;
  }
  text[got] = '\0';
  return text_to_number(text) / 1024;  // "no limit" saturates: 2097151
}

int set_vsd_mem(void) {
  poll_use_mem();
  for (size_t vsd = 0; vsd < std::size(array_rss); ++vsd) {
    mem_use_rss[vsd] = array_rss[vsd];
    array_rss[vsd] = 0;
  }
  return 0;
}

uint64_t vsd_use_mem(int32_t vsd) {
  return vsd >= 0 && vsd < WEX_DOMAINS ? mem_use_rss[vsd] : 0;
}

// NOLINTNEXTLINE(readability-non-const-parameter): it is written to through the reference below
int get_vsd_mem(const char* path, int32_t vsd, uint64_t counters[16]) {
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    const int err = errno;
    wex_dbg(WEX_DBG_PUB, "%s: open conf file fail: %s\n", __func__, strerror(err));
    return -err;
  }
  if (vsd >= WEX_DOMAINS) {
    return 0;
  }
  uint64_t& counter = counters[wex_domain_or_main(vsd)];
  bool library = false;
  text_reader maps(file.get());
  char line[1024];
  while (maps.line(line, sizeof line)) {
    if (strstr(line, kLibraryMark) != nullptr) {
      library = true;
    }
    const char* found = strstr(line, kMappingResident);
    if (found == nullptr) {
      continue;
    }
    if (library) {
      library = false;
      continue;
    }
    found += strlen(kMappingResident);
    found += *found == '\0' ? 0 : 1;
    int64_t kib = 0;
    scan_integer(&found, &kib);
    counter += static_cast<uint64_t>(kib);
  }
  return 0;
}

void find_max_rss(int32_t vsd) {
  const largest_process largest = find_largest(vsd);
  if (largest.pid >= 0) {
    kill_largest(largest);
  }
}
}

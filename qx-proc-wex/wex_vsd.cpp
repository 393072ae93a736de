// wex_vsd: what can be done with a domain: start, one more program, show, take-down; and operators' markers.
//
// Runs in the command-line tool, which has one thread, and in whatever program of the device loads the
// library. The children set environment variables because the device's own preparation does so too; a program
// with several threads must not change its environment while it creates a domain or adds a program to one.
#define WEX_MODULE "wex_vsd"
#include "wex_vsd.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "dir_walk.h"
#include "guarded_file.h"
#include "raw_dir.h"
#include "safe_io.h"
#include "text_buffer.h"
#include "text_number.h"
#include "text_reader.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "waiting.h"
#include "wex.h"
#include "wex_child.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_flag_file.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_platform.h"
#include "wex_strict.h"
#include "wex_utils.h"
#include "wex_vsd_remove.h"

namespace {

constexpr char kDigits[] = "0123456789";

// Why a child of create or add could not go on is printed; its status only says that it could not.
constexpr int kChildFailed = 1;
constexpr int kNotStarted = 0;

struct take_down_plan {
  const char* name;  // as the diagnostics have it
  unsigned remove;
};

constexpr take_down_plan kDelete = {"delete_vsd", WEX_REMOVE_DELETE};
constexpr take_down_plan kStop = {"stop_vsd", WEX_REMOVE_STOP};
constexpr take_down_plan kReload = {"re_delete_vsd", WEX_REMOVE_RELOAD};

bool all_digits(const char* name) {
  return *name != '\0' && name[strspn(name, kDigits)] == '\0';
}

// Prints what failed and why, in the name of `caller`; keeps errno.
void tell(const char* caller, const char* what) {
  wex_dbg(WEX_DBG_PUB, "%s: %s fail: %s\n", caller, what, strerror(errno));
}

// ---- In the child -----------------------------------------------------------------------------------------

// What makes the calling process one of the domain. False, printed, when the device's own part fails.
bool enter_domain(int32_t vsd, unsigned maker, const char* caller) {
  if (enter_domain_group(vsd) == 0) {
    wex_dbg(WEX_DBG_PUB, "%s: Setgroups success\n", caller);
  }
  wex_reset_lmk(getpid());
  if (fs_set_vsd_envs(vsd, 0) < 0) {  // 0: there is no process that this one replaces
    tell(caller, "fs get vsd envs");
    return false;
  }
  chmod(kLsmDevice, kOpenDirMode);
  chmod(kMapIpcDevice, kOpenDirMode);
  wex_make_domain_dirs(vsd, maker);
  return true;
}

bool enter_run_dir(int32_t vsd, const char* caller) {
  if (wex_enter_run_dir(vsd) != 0) {
    tell(caller, "chdir");
    return false;
  }
  return true;
}

bool save_start_time(int32_t vsd, const char* caller) {
  char path[kPathSize];
  wex_format(path, sizeof path, kStartTimeFmt, vsd);
  const unique_fd file = wex_open_own_file(path, O_RDWR, kDomainFileMode);
  if (!file.valid()) {
    tell(caller, "open");
    return false;
  }
  const unique_fd uptime(open(kUptime, O_RDONLY | O_CLOEXEC));
  if (!uptime.valid()) {
    tell(caller, "open uptime");
    return false;
  }
  char text[255];
  const int32_t got = safe_read(uptime.get(), text, sizeof text);
  if (got < 0) {
    tell(caller, "read");
    return false;
  }
  if (safe_write(file.get(), text, static_cast<size_t>(got)) < 0) {
    tell(caller, "write");
    return false;
  }
  return true;
}

// Becomes `path`. Returns only when that fails.
void become(const char* path, const char* const* argv) {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    fcntl(fd, F_SETFD, 0);  // they were marked close-on-exec as all others, and a program needs these three
  }
  leave_starter();
  execvp(path, const_cast<char* const*>(argv));
}

[[noreturn]] void run_start_scripts(int32_t vsd, const char* caller) {
  if (!enter_domain(vsd, WEX_MADE_BY_CREATE, caller) || !save_start_time(vsd, caller) ||
      !enter_run_dir(vsd, caller)) {
    _exit(kChildFailed);
  }
  const char* const argv[] = {kRunParts, kStartScripts, "-a", "vsd", nullptr};
  become(kRunParts, argv);
  _exit(kNotStarted);
}

[[noreturn]] void run_program(int32_t vsd, const char* name, const char* caller) {
  if (!enter_domain(vsd, WEX_MADE_BY_ADD, caller) || !enter_run_dir(vsd, caller)) {
    _exit(kChildFailed);
  }
  char path[kPathSize];
  if (check_sbin(name) != 1 || !wex_format(path, sizeof path, kSbinFmt, name)) {
    wex_dbg(WEX_DBG_PUB, "%s: /sbin/%s is not exist.\n", caller, name);
    _exit(kNotStarted);
  }
  const pid_t program = fork();
  if (program == 0) {
    const char* const argv[] = {path, nullptr};
    become(path, argv);
    _exit(kNotStarted);
  }
  if (program > 0 && !wex_make_flag_file(vsd, program, kDomainFileMode)) {
    tell(caller, "open");
    _exit(kChildFailed);
  }
  _exit(kNotStarted);
}

// ---- In the caller ----------------------------------------------------------------------------------------

void wait_for(pid_t child) {
  int status;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
}

// Records every process of the domain that runs now.
void save_vsdinfo(int32_t vsd) {
  dir_walk proc(kProcDirSlash);
  if (!proc.valid()) {
    tell(__func__, "opendir");
    return;
  }
  while (const dirent* entry = proc.next()) {
    if (!all_digits(entry->d_name)) {
      continue;
    }
    const int32_t pid = text_to_number(entry->d_name);
    const int32_t domain = get_vsdid(pid);
    if (domain >= kFirstDomain && domain == vsd && !wex_make_flag_file(vsd, pid, kDomainFileMode)) {
      tell(__func__, "open");
      return;
    }
  }
}

// Kept: digits anywhere in the list select, a process may be signalled twice, see docs/decisions.md.
// Signals process `name` for each line of its status that names groups and holds `digits` anywhere.
void kill_if_grouped(const char* name, const char* digits, int sig) {
  char path[kPathSize];
  if (!wex_format(path, sizeof path, kProcStatusNameFmt, name)) {
    return;
  }
  const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    tell("kill_proc_by_groups", "fopen");
    return;
  }
  text_reader status(file.get());
  char line[255];
  while (status.line(line, sizeof line)) {
    const char* const found = strstr(line, kGroupsKey) == nullptr ? nullptr : strstr(line, digits);
    if (found == nullptr) {
      continue;
    }
    const int32_t group = text_to_number(found);
    if (group < 0) {
      tell("kill_proc_by_groups", "atoi");
    }
    const int32_t pid = text_to_number(name);
    if (pid <= 0) {
      wex_dbg(WEX_DBG_PUB, "%s: atoi proc: %s\n", "kill_proc_by_groups", strerror(errno));
      return;
    }
    wex_dbg(WEX_DBG_PUB, "delete vsd: supplement_id: %d pid: %d\n", group, pid);
    kill(pid, sig);
  }
}

// TERM, time to end, KILL, time to be gone. 0, or -errno (printed).
int end_processes(const take_down_plan& plan, int32_t vsd) {
  wex_print("Sending vsd: %d all processes the TERM signal...\n", vsd);
  int ret = kill_proc_by_groups(SIGTERM, wex_domain_group(vsd));
  if (ret == 0) {
    wex_print("After 5s, Sending vsd: %d all processes the KILL signal...\n", vsd);
    safe_sleep(kTermGraceSec);
    ret = kill_proc_by_groups(SIGKILL, wex_domain_group(vsd));
  }
  if (ret < 0) {
    wex_dbg(WEX_DBG_PUB, "%s: ret < 0: %s\n", plan.name, strerror(-ret));
    return ret;
  }
  wex_print("After 10s, Delete vsd: %d OK.\n", vsd);
  safe_sleep(kKillGraceSec);
  return 0;
}

// While the marker is there, no exit of any process of the device is followed by a restart.
int take_down(const take_down_plan& plan, int32_t vsd) {
  char marker[kPathSize];
  wex_take_down_marker(vsd, marker);
  if (!wex_open_own_file(marker, O_RDWR, kDomainFileMode).valid()) {
    return -errno;
  }
  const int ret = end_processes(plan, vsd);
  if (ret < 0) {
    return ret;
  }
  wex_unlink(marker);
  remove_domain_trees(vsd, plan.remove);
  return 0;
}

// 0 when the file can be opened so, else -errno.
int probe(const char* path, int flags) {
  const unique_fd file(open(path, flags | O_RDWR | O_CLOEXEC | O_NONBLOCK, kDomainFileMode));
  return file.valid() ? 0 : -errno;
}

}  // namespace

extern "C" {

int create_vsd(int32_t vsd) {
  const pid_t child = fork();
  if (child == 0) {
    run_start_scripts(vsd, __func__);
  }
  wex_dbg(WEX_DBG_PUB, "%s: parent proc: %s\n", __func__, strerror(errno));
  if (child > 0) {
    wait_for(child);
  }
  save_vsdinfo(vsd);
  return 0;
}

int create_proc_to_vsd(const char* name, int32_t vsd) {
  if (fork() == 0) {
    run_program(vsd, name, __func__);
  }
  wex_dbg(WEX_DBG_PUB, "%s: parent proc: %s\n", __func__, strerror(errno));
  return 0;
}

int delete_vsd(int32_t vsd) {
  return take_down(kDelete, vsd);
}

int stop_vsd(int32_t vsd) {
  return take_down(kStop, vsd);
}

int reload_vsd(int32_t vsd) {
  int ret = take_down(kReload, vsd);
  if (ret < 0) {
    wex_dbg(WEX_DBG_PUB, "delete %d vsd fail, error =%s\n", vsd, strerror(-ret));
    return ret;
  }
  ret = create_vsd(vsd);
  if (ret < 0) {
    wex_dbg(WEX_DBG_PUB, "create vsd fail, error = %s\n", strerror(-ret));
  }
  return ret;
}

int show_vsd(void) {
  int32_t vsd = kFirstDomain;
  for (; vsd < WEX_DOMAINS; ++vsd) {
    char path[kPathSize];
    wex_name_flag_dir(vsd, path);
    dir_walk dir(open_trusted(AT_FDCWD, path, O_RDONLY | O_DIRECTORY));
    if (!dir.valid()) {
      continue;
    }
    wex_print("Vsd_%d: %s\n", vsd, path);
    while (const dirent* entry = dir.next()) {
      wex_print("%s\n", entry->d_name);
    }
  }
  return vsd;
}

int kill_proc_by_groups(int sig, int32_t gid) {
  char digits[16];
  wex_format(digits, sizeof digits, "%d", gid);
  dir_walk proc(kProcDir);
  if (!proc.valid()) {
    const int err = errno;
    tell(__func__, "opendir");
    return -err;
  }
  while (const dirent* entry = proc.next()) {
    if (all_digits(entry->d_name)) {
      kill_if_grouped(entry->d_name, digits, sig);
    }
  }
  return 0;
}

// Without a heap: it is asked in a child of a program that may have threads.
int check_sbin(const char* name) {
  raw_dir sbin(unique_fd(open(kSbinDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (!sbin.valid()) {
    const int err = errno;
    tell(__func__, "opendir");
    return -err;
  }
  while (const char* const entry = sbin.next()) {
    if (strcmp(entry, name) == 0 && strcmp(entry, ".") != 0 && strcmp(entry, "..") != 0) {
      return 1;
    }
  }
  return 0;
}

int delete_vsd_file(int32_t vsd) {
  remove_domain_trees(vsd, WEX_REMOVE_FILES);
  return 0;
}

int dev_mon_restart(void) {
  return probe(kDeviceMonitor, O_CREAT);
}

// The restart that finds the marker removes it.
// Kept: deletes nothing, see docs/decisions.md.
int del_dev_mon_log(void) {
  return probe(kDeviceMonitor, 0);
}

int del_dev_mon_restart(void) {
  const int ret = probe(kDeviceMonitor, 0);
  if (ret == 0) {
    unlink(kDeviceMonitor);
  }
  return ret;
}

int debug_log(void) {
  const int result = probe(kDebugLog, 0);
  return result == 0 && !wex_counts(kDebugLog) ? -EPERM : result;
}
}

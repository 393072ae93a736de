// wex_flag_file: the flag files, which say which process belongs to which domain.
#include "wex_flag_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "dir_walk.h"
#include "guarded_file.h"
#include "raw_dir.h"
#include "text_buffer.h"
#include "text_number.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex.h"
#include "wex_domain.h"
#include "wex_domain_present.h"
#include "wex_limits.h"
#include "wex_paths.h"

namespace {

// Names are looked up in the opened directory: the name of the directory may be a link by now, and the
// working directory is the whole process's.
unique_fd open_flag_dir(int32_t vsd) {
  char path[kPathSize];
  wex_name_flag_dir(vsd, path);
  return open_trusted_dir(AT_FDCWD, path);
}

}  // namespace

extern "C" {

int32_t find_app(int32_t pid) {
  const uint32_t present = wex_domains_present();
  for (int32_t vsd = kFirstDomain; vsd < WEX_DOMAINS; ++vsd) {
    char path[kPathSize];
    if ((present >> vsd & 1) == 0) {
      continue;
    }
    wex_name_flag_file(vsd, pid, path);
    if (access(path, F_OK) == 0) {  // anybody may fill the directory, and the caller holds the registry
      return vsd;
    }
    wex_name_flag_dir(vsd, path);
    dir_walk flags(path);
    while (const dirent* const entry = flags.valid() ? flags.next() : nullptr) {
      if (text_to_number(entry->d_name) == pid) {
        return vsd;
      }
    }
  }
  return -1;
}

int save_proc_info(int32_t vsd, int32_t pid) {
  return wex_enter_run_dir(vsd) == 0 && wex_make_flag_file(vsd, pid, kDomainFileMode) ? 0 : -errno;
}

}  // extern "C"

void wex_name_flag_dir(int32_t vsd, char (&path)[kPathSize]) {
  wex_format(path, sizeof path, kFlagDirFmt, vsd);
}

void wex_name_flag_file(int32_t vsd, int32_t pid, char (&path)[kPathSize]) {
  wex_format(path, sizeof path, kFlagFileFmt, vsd, pid);
}

bool wex_make_flag_file(int32_t vsd, int32_t pid, mode_t mode) {
  char path[kPathSize];
  wex_name_flag_file(vsd, pid, path);
  return wex_open_file(path, O_RDWR | O_CREAT, mode).valid();
}

void wex_remove_flag_files(int32_t vsd, int32_t pid) {
  raw_dir flags(open_flag_dir(vsd));
  while (const char* const name = flags.valid() ? flags.next() : nullptr) {
    if (name[0] != '.' && text_to_number(name) == pid) {
      unlinkat(flags.fd(), name, 0);
    }
  }
}

bool wex_remove_checked_flag_file(int32_t vsd, int32_t pid, void (*refused)(const char* name)) {
  dir_walk flags(open_flag_dir(vsd));
  if (!flags.valid()) {
    return false;
  }
  while (const dirent* const entry = flags.next()) {
    if (!open_trusted(flags.fd(), entry->d_name, O_RDWR | O_NONBLOCK).valid()) {
      refused(entry->d_name);
    } else if (text_to_number(entry->d_name) == pid) {
      unlinkat(flags.fd(), entry->d_name, 0);
      break;
    }
  }
  return true;
}

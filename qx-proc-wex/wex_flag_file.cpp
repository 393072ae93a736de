// wex_flag_file: the files that tell which process belongs to which domain.
#include "wex_flag_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "dir_walk.h"
#include "raw_dir.h"
#include "text_buffer.h"
#include "text_number.h"
#include "trusted_path.h"
#include "unique_fd.h"
#include "wex.h"
#include "wex_domain.h"
#include "wex_limits.h"
#include "wex_paths.h"

extern "C" {

int32_t find_app(int32_t pid) {
  for (int32_t vsd = kFirstDomain; vsd < WEX_DOMAINS; ++vsd) {
    char path[kPathSize];
    wex_format(path, sizeof path, kFlagFileFmt, vsd, pid);
    if (access(path, F_OK) == 0) {  // anybody may fill the directory, and the caller holds the registry
      return vsd;
    }
    wex_format(path, sizeof path, kFlagDirFmt, vsd);
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
  return wex_enter_run_dir(vsd) == 0 && wex_make_flag_file(vsd, pid, kMarkerMode) ? 0 : -errno;
}

}  // extern "C"

void wex_remove_flag_files(int32_t vsd, int32_t pid) {
  char path[kPathSize];
  wex_format(path, sizeof path, kFlagDirFmt, vsd);
  raw_dir flags(open_trusted_dir(AT_FDCWD, path));
  while (const char* const name = flags.valid() ? flags.next() : nullptr) {
    if (name[0] != '.' && text_to_number(name) == pid) {
      unlinkat(flags.fd(), name, 0);
    }
  }
}

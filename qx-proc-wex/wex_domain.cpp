// wex_domain: what domain n is: its group, its directories with their variables and who makes and removes
// them, its take-down marker.
#include "wex_domain.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "guarded_file.h"
#include "text_buffer.h"
#include "wex_strict.h"

namespace {

// What the daemon makes at its start, and a domain that is created earlier needs. Only what is missing: the
// directories of the system keep their modes. A slash at the end of the path is no parent's.
void make_parents(const char* path) {
  char parent[kPathSize];
  struct stat facts;
  for (const char* slash = strchr(path + 1, '/'); slash != nullptr && slash[1] != '\0';
       slash = strchr(slash + 1, '/')) {
    wex_format(parent, sizeof parent, "%.*s", static_cast<int>(slash - path), path);
    if (stat(parent, &facts) != 0) {
      wex_make_dir(parent, wex_own_dir_mode());
    }
  }
}

template <size_t count, size_t length>
void make_dirs(const char (&paths)[count][length]) {
  for (const char* const path : paths) {
    wex_make_dir(path, wex_own_dir_mode());
  }
}

}  // namespace

bool wex_has_second_disk() {
  return access(kData2Dir, F_OK) == 0;
}

void wex_make_main_dirs() {
  make_dirs(kMainDirs);
  if (wex_has_second_disk()) {
    make_dirs(kData2Dirs);
  }
  make_dirs(kRunDirs);
  wex_set_dir_mode(kDataDir, wex_own_dir_mode());
}

void wex_make_domain_dirs(int32_t vsd, unsigned maker) {
  const bool create = maker == WEX_MADE_BY_CREATE;
  const bool second_disk = create && wex_has_second_disk();
  for (const domain_dir& dir : kDomainDirs) {
    if ((dir.made & maker) == 0 || (dir.second_disk && !second_disk)) {
      continue;
    }
    char path[kPathSize];
    wex_format(path, sizeof path, dir.format, vsd);
    if (create) {
      make_parents(path);
    }
    wex_make_dir(path, dir.for_clients ? wex_client_dir_mode() : wex_own_dir_mode());
    if (dir.variable != nullptr) {
      setenv(dir.variable, path, 1);
    }
  }
}

int wex_enter_run_dir(int32_t vsd) {
  char path[kPathSize];
  wex_format(path, sizeof path, kRunDomainFmt, vsd);
  return wex_chdir(path);
}

void wex_name_domain_dir(int32_t vsd, char (&path)[kPathSize]) {
  wex_format(path, sizeof path, kDomainDirFmt, vsd);
}

void wex_name_db_dir(int32_t vsd, char (&path)[kPathSize]) {
  wex_format(path, sizeof path, kDbDirFmt, vsd);
}

void wex_take_down_marker(int32_t vsd, char (&path)[kPathSize]) {
  wex_format(path, sizeof path, kTakeDownFmt, vsd);
}

// wex_domain: what domain n is: its group, its directories with their variables and who makes and removes
// them, its take-down marker. Its flag files are wex_flag_file's.
//
// Everything else about domains (their life, their control groups, what the daemon does while one is taken
// down) asks here. No state; any thread may call anything. Between fork and exec a child of a threaded
// program may do all but make directories: their variables are set in the environment, which takes memory.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "ras_comp_config.h"
#include "wex_limits.h"
#include "wex_paths.h"

inline constexpr int32_t kMainSystem = 0;
inline constexpr int32_t kFirstDomain = 1;

// The line of /proc/PID/status that names the supplementary groups.
inline constexpr char kGroupsKey[] = "Groups:";

// The one supplementary group of every process of the domain, and the domain that a group stands for:
// truncated, negative for a group well below the first.
constexpr int32_t wex_domain_group(int32_t vsd) {
  return static_cast<int32_t>(kDomainGroupBase + int64_t{kDomainGroupStep} * vsd);
}
constexpr int32_t wex_group_domain(int64_t group) {
  return static_cast<int32_t>((group - kDomainGroupBase) / kDomainGroupStep);
}

// The domain that a process is registered in: one that belongs to none, or could not be looked at, is of the
// main system.
constexpr int32_t wex_domain_or_main(int32_t vsd) {
  return vsd < 0 ? kMainSystem : vsd;
}

// ---- Directories ------------------------------------------------------------------------------------------

// Who makes a directory.
enum {
  WEX_MADE_AT_START = 0x1,   // the daemon, for every domain
  WEX_MADE_BY_CREATE = 0x2,  // create_vsd
  WEX_MADE_BY_ADD = 0x4,     // create_proc_to_vsd
  WEX_MADE_FOR_LIMITS = 0x8  // set_cgroups_all
};

// Which operations remove one.
enum {
  WEX_REMOVE_DELETE = 0x1,  // everything a domain has
  WEX_REMOVE_STOP = 0x2,    // run-time directories and control groups
  WEX_REMOVE_RELOAD = 0x4,  // what the next start makes anew
  WEX_REMOVE_FILES = 0x8    // run-time directories
};

struct domain_dir {
  const char* format;    // one "%d", the domain
  const char* variable;  // environment variable of the domain's programs that names it, or null
  unsigned made;
  unsigned removed;  // 0: goes with the directory that it is in
  int removal_turn;  // operators see the removals in this order
  bool second_disk;  // only on a device that has one
  bool for_clients;  // programs and clients make files in it
};

inline constexpr unsigned kMadeForPrograms = WEX_MADE_BY_CREATE | WEX_MADE_BY_ADD;
inline constexpr unsigned kEveryRemoval =
    WEX_REMOVE_DELETE | WEX_REMOVE_STOP | WEX_REMOVE_RELOAD | WEX_REMOVE_FILES;

// In the order of creation: parents before what is inside them.
inline constexpr domain_dir kDomainDirs[] = {
    {kConfigDomainFmt, "QX_CFG_DIR", kMadeForPrograms, WEX_REMOVE_DELETE, 7, false, false},
    {kOvixDomainFmt, "OVIX_DIR", kMadeForPrograms, WEX_REMOVE_DELETE, 8, false, false},
    {kDataDomainFmt, RAS_DATA_OVIX_ENV, kMadeForPrograms, WEX_REMOVE_DELETE, 4, false, false},
    {kData2DomainFmt, "DATA_OVIX_DIR2", WEX_MADE_BY_CREATE, WEX_REMOVE_DELETE, 5, true, false},
    {kData2RunFmt, nullptr, WEX_MADE_BY_CREATE, WEX_REMOVE_DELETE, 6, true, true},
    {kEtcDomainFmt, nullptr, kMadeForPrograms, kEveryRemoval, 2, false, false},
    {kDomainDirFmt, "TMPDIR", kMadeForPrograms, kEveryRemoval, 1, false, true},
    {kFlagDirFmt, nullptr, WEX_MADE_AT_START | kMadeForPrograms, 0, 0, false, true},
    {kDbDirFmt, nullptr, WEX_MADE_AT_START | WEX_MADE_BY_CREATE, 0, 0, false, true},
    {kRunDomainFmt, nullptr, kMadeForPrograms, WEX_REMOVE_DELETE | WEX_REMOVE_FILES, 3, false, true},
    {kMemoryGroupFmt, nullptr, WEX_MADE_FOR_LIMITS, WEX_REMOVE_DELETE | WEX_REMOVE_STOP, 9, false, false},
    {kCpuGroupFmt, nullptr, WEX_MADE_FOR_LIMITS, WEX_REMOVE_DELETE | WEX_REMOVE_STOP, 10, false, false},
};
inline constexpr int kDomainRemovals = 10;

constexpr bool removal_turns_are_right() {
  int removed = 0;
  for (const domain_dir& dir : kDomainDirs) {
    removed += dir.removed != 0 ? 1 : 0;
  }
  for (int turn = 1; turn <= kDomainRemovals; ++turn) {
    int dirs = 0;
    for (const domain_dir& dir : kDomainDirs) {
      dirs += dir.removal_turn == turn && dir.removed != 0 ? 1 : 0;
    }
    if (dirs != 1) {
      return false;
    }
  }
  return removed == kDomainRemovals;
}
static_assert(removal_turns_are_right(), "each directory that is removed has a turn of its own");

constexpr int count_domain_variables() {
  int count = 0;
  for (const domain_dir& dir : kDomainDirs) {
    count += dir.variable != nullptr ? 1 : 0;
  }
  return count;
}
inline constexpr int kDomainVariables = count_domain_variables();

bool wex_has_second_disk();

// Makes the directories of the main system, as far as they are missing. Failures are ignored.
void wex_make_main_dirs();

// Makes the domain's directories of this maker (one of WEX_MADE_), as far as they are missing, and sets their
// variables for the calling process, which must have no other thread where there are any. Failures are
// ignored.
void wex_make_domain_dirs(int32_t vsd, unsigned maker);

// Changes to the directory in which the domain's programs run. 0, or -1 with errno.
int wex_enter_run_dir(int32_t vsd);

// ---- Names ------------------------------------------------------------------------------------------------

// The domain's own directory, and the one of its database files.
void wex_name_domain_dir(int32_t vsd, char (&path)[kPathSize]);
void wex_name_db_dir(int32_t vsd, char (&path)[kPathSize]);

// The name of the file that exists while the domain is taken down.
void wex_take_down_marker(int32_t vsd, char (&path)[kPathSize]);

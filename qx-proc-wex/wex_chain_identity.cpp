// wex_chain_identity: is the process that has a record's pid now the record's own?
#define WEX_MODULE "wex_chain"
#include "wex_chain_identity.h"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_utils.h"

namespace {

constexpr int64_t kSecondNs = 1000000000;
constexpr int64_t kMillisecondNs = 1000000;

int64_t nanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * kSecondNs + time.tv_nsec;
}

// Of a start time; 0 when it is not known.
int64_t ticks_to_ms(uint64_t start_time) {
  const auto ticks_per_second = static_cast<uint64_t>(std::max<long>(sysconf(_SC_CLK_TCK), 1));
  return start_time > INT64_MAX / 1000 ? 0 : static_cast<int64_t>(start_time * 1000 / ticks_per_second);
}

// Before Linux 2.6.39 only this file tells the boot time, in hundredths of a second.
bool read_uptime(int64_t* now_ns) {
  char text[64];
  int seconds = 0;
  int hundredths = 0;
  if (wex_read_to_buf(kUptime, text, sizeof text) < 0 || sscanf(text, "%d.%2d", &seconds, &hundredths) != 2) {
    return false;
  }
  *now_ns = seconds * kSecondNs + hundredths * (kSecondNs / 100);
  return true;
}

// Before Linux 3.17 a process has the start time of its thread that has executed a program, from then on.
bool execution_changes_start_time() {
  utsname kernel = {};
  int version = 0;
  int patch = 0;
  const bool known = uname(&kernel) == 0 && sscanf(kernel.release, "%d.%d", &version, &patch) == 2;
  return !known || version < 3 || (version == 3 && patch < 17);
}

// Whether a process with another start time than the known one may be the one whose exit was reported then.
// If it started before, it cannot have got a pid that was free only after the exit; but about the same time
// it may have.
bool took_over(const process_look& now, uint64_t known_start, uint64_t exit_tick) {
  return exit_tick != 0 && now.start_time <= exit_tick + kStartTickSlack &&
         (known_start == 0 || execution_changes_start_time());
}

}  // namespace

exit_verdict wex_judge_exit(const process_look& now, uint64_t known_start, uint64_t exit_tick) {
  if (now.sight != process_look::seen) {
    return now.sight == process_look::gone ? exit_verdict::exited : exit_verdict::ask_again;
  }
  const bool same = known_start != 0 && now.start_time == known_start;
  if (!same && !took_over(now, known_start, exit_tick)) {
    return exit_verdict::exited;
  }
  if (wex_is_dead_state(now.state) || now.exiting) {
    // Beside a dead main thread the others either end, too, or one of them is about to take its place.
    return now.threads > 1 ? exit_verdict::ask_again : exit_verdict::exited;
  }
  return exit_verdict::runs;
}

presence wex_judge_presence(const process_look& now, uint64_t known_start) {
  if (now.sight != process_look::seen) {
    return now.sight == process_look::gone ? presence::absent : presence::unknown;
  }
  if (known_start != 0 && now.start_time != known_start) {
    return presence::absent;
  }
  return wex_is_dead_state(now.state) && now.threads <= 1 ? presence::absent : presence::present;
}

bool wex_surely_dead(const process_look& now) {
  return wex_judge_presence(now, 0) == presence::absent;
}

bool wex_is_anothers_birth(int64_t seen_ns, int64_t birth_ns) {
  return seen_ns != 0 && birth_ns > seen_ns + kReportSlackNs;
}

uint64_t wex_event_tick(uint64_t event_ns, int64_t shift_ns, int64_t boot_offset_ns, long ticks_per_second) {
  if (event_ns == 0 || event_ns > INT64_MAX / 4 || ticks_per_second < 1 || ticks_per_second > kSecondNs) {
    return 0;
  }
  const int64_t since_boot = static_cast<int64_t>(event_ns) + shift_ns + boot_offset_ns;
  return since_boot > 0 ? static_cast<uint64_t>(since_boot / (kSecondNs / ticks_per_second)) : 0;
}

int64_t wex_start_on_clock_ms(uint64_t start_time) {
  const int64_t since_boot = ticks_to_ms(start_time);
  return since_boot == 0 ? 0 : std::max<int64_t>(since_boot - wex_boot_offset_ns() / kMillisecondNs, 0);
}

bool wex_started_after(uint64_t start_time, int64_t written_ns) {
  timespec monotonic = {};
  timespec wall = {};
  clock_gettime(CLOCK_MONOTONIC, &monotonic);
  clock_gettime(CLOCK_REALTIME, &wall);
  // Since the boot, for both: the wall clock goes on while the device is suspended, the monotonic one does
  // not.
  const int64_t now_ms = (nanoseconds(monotonic) + wex_boot_offset_ns()) / kMillisecondNs;
  const int64_t written_ms = now_ms - (nanoseconds(wall) - written_ns) / kMillisecondNs;
  // By its clock a file of before the boot was written when the clock had not been set yet.
  return start_time > 0 && written_ms >= 0 && ticks_to_ms(start_time) > written_ms + kFileClockSlackMs;
}

bool wex_began_after_file(const process_look& process, const char* path) {
  struct stat file = {};
  return process.sight == process_look::seen && lstat(path, &file) == 0 &&
         wex_started_after(process.start_time,
                           int64_t{file.st_mtim.tv_sec} * kSecondNs + file.st_mtim.tv_nsec);
}

bool wex_is_other_command(const char* command, const char* registered) {
  constexpr size_t kSurelyWhole = 230;
  const size_t length = strlen(registered);
  return strncmp(command, registered, length) != 0 || (length < kSurelyWhole && command[length] != '\0');
}

int64_t wex_clock_shift(int64_t least_ns, int64_t most_ns) {
  constexpr int64_t kSlackNs = kSecondNs;
  return least_ns < kSlackNs && most_ns > -kSlackNs ? 0 : std::min(least_ns, most_ns);
}

int64_t wex_boot_offset_ns() {
  timespec monotonic = {};
  timespec boot = {};
  clock_gettime(CLOCK_MONOTONIC, &monotonic);
  int64_t since_boot = 0;
  if (clock_gettime(CLOCK_BOOTTIME, &boot) == 0) {
    since_boot = nanoseconds(boot);
  } else if (!read_uptime(&since_boot)) {
    return 0;
  }
  return since_boot - nanoseconds(monotonic);
}

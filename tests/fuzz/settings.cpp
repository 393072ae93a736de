// The debug levels, the self-check wait and the reboot switch, from files an operator edits by hand.
#include <sys/reboot.h>
#include <time.h>

#include "fuzz_support.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_utils_settings.h"

namespace {

int restarts = 0;

}  // namespace

// Only counted: beside the sandbox a second reason why this machine stays up.
extern "C" int reboot(int) noexcept {
  ++restarts;
  return -1;
}
extern "C" int clock_nanosleep(clockid_t, int, const timespec*, timespec*) {
  return 0;
}
extern "C" int fsync(int) {
  return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  fuzz::make_directory("/data");
  fuzz::make_directory("/data/qx_utils");
  setenv("DATA_OVIX_DIR", "/data", 1);
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string content(reinterpret_cast<const char*>(data), size);
  fuzz::write_file("/data/qx_utils/qx_utils_dbg_cfg.txt", content);
  fuzz::expect(wex_parse_dbg_file() == 0, "no configuration makes a start fail");
  fuzz::write_file(kDebugTime, content);
  fuzz::expect(debug_time() > 0, "a self-check takes time");
  fuzz::say(0);
  fuzz::write_file(kRebootSwitch, content);
  fuzz::write_file(kRebootLog, "");
  restarts = 0;
  wex_reboot(content.c_str(), nullptr);
  fuzz::expect(restarts == 1 || content.find('0') != std::string::npos, "only a zero refuses a restart");
  return 0;
}

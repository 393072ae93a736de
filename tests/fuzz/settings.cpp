// The debug levels and the self-check wait, from files an operator edits by hand.
#include "fuzz_support.h"
#include "wex_dbg.h"
#include "wex_paths.h"
#include "wex_utils.h"

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
  return 0;
}

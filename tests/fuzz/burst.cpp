// The configuration of the exit burst.
#include "fuzz_support.h"
#include "wex_core_crash.h"

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  int32_t window = 900;
  int32_t count = 10;
  const bool taken = wex_parse_burst(text.c_str(), &window, &count);
  fuzz::expect(taken || (window == 900 && count == 10), "a refused text changes nothing");
  return 0;
}

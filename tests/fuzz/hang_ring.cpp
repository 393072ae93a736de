// The ring of hang reports and its counter, found in any state after a power cut or an operator's visit.
#include "fuzz_support.h"
#include "wex_log.h"
#include "wex_paths.h"

// Would reach the disks of the whole machine, thousands of times a second.
extern "C" void sync() noexcept {}
extern "C" int fsync(int) {
  return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  fuzz::write_file(kNotifyCount, in.line());
  const std::string name = in.line();
  fuzz::write_file(kNotifyLog, in.rest());
  for (int report = 0; report < 3; ++report) {
    wex_log_notify_info(kNotifyLog, "detect process:[%s/%d] thread %s:%d hung.\n", name.c_str(), 1,
                        name.c_str(), 2);
  }
  const int slot = wex_log_notify_get_count(kNotifyCount);
  fuzz::expect(slot > -10 && slot < 10, "after a report the counter names a slot again");
  return 0;
}

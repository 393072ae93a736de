// Sizes of mappings, limits of domains, and the list of exempted threads.
#include <sys/syscall.h>

#include "fuzz_support.h"
#include "wex_paths.h"
#include "wex_sys_alive.h"
#include "wex_vsd.h"

namespace {

constexpr char kMaps[] = "/tmp/smaps";

void measure(const std::string& content, int32_t vsd) {
  fuzz::write_file(kMaps, content);
  auto* const counters = static_cast<uint64_t*>(calloc(16, sizeof(uint64_t)));
  const int result = get_vsd_mem(kMaps, vsd, counters);
  fuzz::expect(result == 0, "a file that is there can be measured");
  for (int32_t domain = 0; domain < 16; ++domain) {
    const bool counted = domain == (vsd < 0 ? 0 : vsd);
    fuzz::expect(counted || counters[domain] == 0, "a process counts in its own domain");
  }
  free(counters);
}

// A thread in the list reports nothing, one that is not reports by its byte of the table.
void report(const std::string& content, int32_t tid) {
  fuzz::write_file(kExemptThreads, content);
  fuzz::expect(wex_client_reset_thread_notify(getpid(), tid, 60, 1) == 0, "a report succeeds");
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  fuzz::private_directory("/memory");
  fuzz::make_directory("/memory/vsd_1");
  fuzz::private_directory("/sys/kernel");  // says that there is no daemon, so that no report waits for one
  fuzz::make_directory("/sys/kernel/qx_lowmem_killer");
  fuzz::write_file(kWexStatus, "0");
  return wex_sys_init_alive_info(1);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const auto vsd = static_cast<int32_t>(in.number<int8_t>());
  const std::string content = in.rest();
  measure(content, vsd);
  fuzz::write_file("/memory/vsd_1/memory.limit_in_bytes", content);
  get_maxmem_set(1);
  const auto tid = static_cast<int32_t>(syscall(SYS_gettid));
  wex_sys_reg_alive_info(static_cast<uint32_t>(tid));
  report(content, tid);
  return 0;
}

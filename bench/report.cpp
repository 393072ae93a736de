// The hot call of a supervised thread: one report through the alive table, without and with the file that
// exempts threads. Only inside the sandbox.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "wex.h"
#include "wex_sys_alive.h"

namespace {

constexpr char kExemptFile[] = "/data/.wex_debug_pid";

int32_t own_thread() {
  return static_cast<int32_t>(syscall(SYS_gettid));
}

void report(benchmark::State& state) {
  const int32_t pid = static_cast<int32_t>(getpid());
  const int32_t tid = own_thread();
  wex_sys_init_alive_info(0);  // as a client maps it
  wex_sys_reg_alive_info(static_cast<uint32_t>(tid));
  for (auto _ : state) {
    if (wex_client_reset_thread_notify(pid, tid, 60, 1) != 0) {
      state.SkipWithError("a report failed");
      break;
    }
  }
  wex_sys_unreg_alive_info(static_cast<uint32_t>(tid));
}

void ReportWithoutExemptFile(benchmark::State& state) {
  unlink(kExemptFile);
  report(state);
}
BENCHMARK(ReportWithoutExemptFile);

void ReportWithExemptFileOfTenLines(benchmark::State& state) {
  const int fd = open(kExemptFile, O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0644);
  const char line[] = "1234567\n";
  for (int i = 0; i < 10; ++i) {
    if (write(fd, line, sizeof line - 1) < 0) {
      state.SkipWithError("cannot write the exempt file");
    }
  }
  close(fd);
  report(state);
  unlink(kExemptFile);
}
BENCHMARK(ReportWithExemptFileOfTenLines);

void SequenceByteAlone(benchmark::State& state) {
  wex_sys_init_alive_info(0);  // as a client maps it
  wex_sys_reg_alive_info(1000);
  for (auto _ : state) {
    wex_sys_update_alive_seq(1000);
  }
  wex_sys_unreg_alive_info(1000);
}
BENCHMARK(SequenceByteAlone);

}  // namespace

BENCHMARK_MAIN();

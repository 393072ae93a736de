// The status table as wexstat finds it: anybody may have made the file, and anything may stand in it.
#include "fuzz_support.h"
#include "waiting.h"
#include "wexstat_health.h"
#include "wexstat_machines.h"
#include "wexstat_reader.h"
#include "wexstat_table.h"

// Records that seem to be written are waited for, which only takes time here.
extern "C" void __wrap_wex_sleep_ms(int /*milliseconds*/) {}

namespace {

constexpr char kTable[] = "/dev/shm/fuzzed-status";

template <typename Write>
std::string written(const Write& write) {
  char* text = nullptr;
  size_t size = 0;
  FILE* const out = open_memstream(&text, &size);
  if (out == nullptr) {
    fuzz::refuse("no memory");
  }
  write(out);
  fclose(out);
  std::string result(text, size);
  free(text);
  return result;
}

void expect_printable(const std::string& text) {
  for (const char letter : text) {
    fuzz::expect(letter == '\n' || (letter >= ' ' && letter <= '~'),
                 "nothing reaches a terminal that it obeys");
  }
}

void show(status_copy* copy, const daemon_health& daemon, const moment& at) {
  const look_and_feel look;
  expect_printable(written([&](FILE* out) {
    show_headline(*copy, daemon, at, look, out);
    show_table(copy, at, look, out);
    show_history(*copy, nullptr, 1000, look, out);
    for (const wex_status_slot& slot : copy->slots) {
      char pid[16];
      snprintf(pid, sizeof pid, "%d", static_cast<int>(slot.pid));
      show_named(*copy, pid, at, look, out);
      break;
    }
  }));
  char line[kHealthText * 4];
  const int status = judge_all(*copy, daemon, line, sizeof line);
  fuzz::expect(status >= 0 && status <= 3, "a monitor knows the status");
  expect_printable(line);
}

void tell_programs(status_copy* copy, const daemon_health& daemon, const moment& at) {
  const std::string json = written([&](FILE* out) { write_json(*copy, daemon, at, out); });
  const std::string metrics = written([&](FILE* out) { write_openmetrics(copy, daemon, at, out); });
  fuzz::expect(json.find_first_of('\n') == json.size() - 1, "JSON is one line");
  fuzz::expect(metrics.size() >= 6 && metrics.compare(metrics.size() - 6, 6, "# EOF\n") == 0,
               "the text has its end");
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::write_file(kTable, std::string(reinterpret_cast<const char*>(data), size));
  status_copy copy = read_status(kTable);
  const moment at = now();
  const daemon_health daemon = look_at_daemon(copy, at);
  judge_daemon(copy, at, 'S');
  show(&copy, daemon, at);
  tell_programs(&copy, daemon, at);
  return 0;
}

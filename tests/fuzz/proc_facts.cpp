// What /proc says about a process: names and arguments are chosen by whoever started it.
#include "fuzz_support.h"
#include "wex_utils.h"
#include "wex_vsd.h"

namespace {

constexpr int32_t kSubject = 1;  // its directory is ours here; nothing is ever sent to it

void read_command(size_t size) {
  char* const text = static_cast<char*>(malloc(size));
  const char* const command = pid_to_cmdline(kSubject, text, size);
  fuzz::expect(command == nullptr || strnlen(command, size) < size, "a command line is terminated");
  free(text);
}

void read_name(size_t size) {
  char* const text = static_cast<char*>(malloc(size));
  if (wex_get_pid_name(kSubject, text, size) == 0) {
    fuzz::expect(strnlen(text, size) < size, "a name is terminated");
  }
  free(text);
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  fuzz::private_directory("/proc/1");
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const size_t room = 1u + in.number<uint16_t>() % 5000u;
  const std::string target = in.line();
  const std::string content = in.rest();
  unlink("/proc/1/exe");
  if (symlink(target.c_str(), "/proc/1/exe") != 0) {
    errno = 0;  // an empty or endless target: the process has no executable
  }
  for (const char* const fact : {"/proc/1/cmdline", "/proc/1/status", "/proc/1/stat"}) {
    fuzz::write_file(fact, content);
  }
  read_command(room);
  read_name(room);
  wex_get_ppid_form_pid(kSubject);
  get_vsdid(kSubject);
  char state = '\0';
  uint64_t start = 0;
  wex_proc_stat(kSubject, &state, &start);
  wex_look_at(kSubject);
  wex_looks_alive(kSubject);
  wex_proc_lives(kSubject, start);
  return 0;
}

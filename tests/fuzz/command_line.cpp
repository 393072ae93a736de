// The command line of the daemon's program: whatever is typed, it does what its words say for domains that
// can be, or says what is wrong. What it would do is only noted here.
#include <getopt.h>
#include <setjmp.h>

#include "fuzz_support.h"
#include "wex_opt.h"
#include "wex_vsd.h"

namespace {

constexpr int kWordsMax = 8;
constexpr int kEnoughDomains = 100;  // `wex -c` with a huge number tries them all

jmp_buf way_out;
bool inside = false;
int domains_made = 0;

[[noreturn]] void leave(int status) {
  longjmp(way_out, status + 1);
}

}  // namespace

extern "C" {
[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);
int __wrap_create_vsd(int32_t vsd);
int __wrap_delete_vsd(int32_t vsd);
int __wrap_create_proc_to_vsd(const char* name, int32_t vsd);

void __wrap_exit(int status) {
  if (inside) {
    fuzz::expect(status == 0 || status == 1, "a command ends with a status that scripts know");
    leave(status);
  }
  __real_exit(status);
}
int __wrap_create_vsd(int32_t vsd) {
  fuzz::expect(vsd >= 1, "the main system is not created");
  if (++domains_made == kEnoughDomains) {
    leave(0);
  }
  return -1;
}
int __wrap_delete_vsd(int32_t vsd) {
  fuzz::expect(vsd >= 1, "the main system is not deleted");
  return 0;
}
int __wrap_create_proc_to_vsd(const char* name, int32_t) {
  fuzz::expect(name != nullptr, "a program has a name");
  return -1;
}
}

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  fuzz::make_directory("/tmp/vsd");
  fuzz::make_directory("/tmp/vsd/3");
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  static char words[kWordsMax][512];
  static char name[] = "wex";
  char* argv[kWordsMax + 2] = {name};
  int argc = 1;
  for (; argc <= kWordsMax && !in.empty(); ++argc) {
    snprintf(words[argc - 1], sizeof words[0], "%s", in.line().c_str());
    argv[argc] = words[argc - 1];
  }
  optind = 0;  // forget the command line before
  opterr = 0;
  domains_made = 0;
  inside = true;
  if (setjmp(way_out) == 0) {
    wex_handle_options(argc, argv);
  }
  inside = false;
  return 0;
}

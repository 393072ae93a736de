// Look-ups in the third-part list. A list that is remembered must give the answers of one that is read anew.
#include <sys/syscall.h>
#include <time.h>

#include "fuzz_support.h"
#include "wex_chain.h"
#include "wex_chain_list.h"
#include "wex_proc.h"

namespace {

constexpr time_t kOlder = 3;  // seconds: enough for the product, too few for the fuzzer's own time limits
bool settled = false;         // whether files look old, which is when they are remembered

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && clock == CLOCK_REALTIME && settled) {
    now->tv_sec += kOlder;
  }
  return static_cast<int>(result);
}

namespace {

constexpr char kList[] = "/tmp/list";

struct answers {
  int found[3];
  char text[3][300];
};

void look_up(const char* needle, answers* out) {
  memset(out, 0, sizeof *out);
  out->found[0] = wex_list_find(kList, needle, out->text[0], sizeof out->text[0]);
  out->found[1] = wex_proc_in_wexdb(kList, needle, out->text[1], sizeof out->text[1]);
  out->found[2] = wex_proc_in_wexdb2(kList, needle, out->text[2], sizeof out->text[2]);
  for (int kind = 0; kind < 3; ++kind) {
    const size_t length = strnlen(out->text[kind], sizeof out->text[kind]);
    fuzz::expect(length < sizeof out->text[kind], "an answer is terminated");
    memset(out->text[kind] + length, 0, sizeof out->text[kind] - length);
  }
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const std::string needle = in.line();
  fuzz::write_file(kList, in.rest());
  answers fresh;
  settled = false;
  look_up(needle.c_str(), &fresh);
  answers remembered;
  settled = true;
  look_up(needle.c_str(), &remembered);
  settled = false;
  fuzz::expect(memcmp(&fresh, &remembered, sizeof fresh) == 0, "a remembered list gives the same answers");
  fuzz::expect(fresh.found[0] == fresh.found[2], "both look-ups find the same line");
  return 0;
}

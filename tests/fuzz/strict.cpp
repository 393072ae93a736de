// The file that makes the daemon strict: root edits it by hand.
#include "fuzz_support.h"
#include "wex_core_strict.h"
#include "wex_paths.h"
#include "wex_strict.h"

namespace {

// Wrong lines are counted for the whole life of the daemon, which reads the file once; this one reads it
// again and again.
constexpr uint64_t kLinesMax = 1U << 30U;
uint64_t g_lines = 0;

strict_settings settings_of(const std::string& content, mode_t mode) {
  fuzz::write_file(kStrictFile, content);
  if (chmod(kStrictFile, mode) != 0) {
    fuzz::refuse(strerror(errno));
  }
  wex_set_strict({});
  wex_choose_mode();
  fuzz::expect(wex_strict().on, "whatever lies there makes the daemon strict");
  return wex_strict();
}

bool are_usual(const strict_settings& settings) {
  const strict_settings usual;
  return settings.connections == usual.connections && settings.registrations == usual.registrations &&
         settings.restart_delay == usual.restart_delay;
}

void expect_sound(const strict_settings& settings) {
  fuzz::expect(settings.connections >= 1 && settings.connections <= kUserConnectionsMax,
               "a user has some connections, and no more than there are");
  fuzz::expect(settings.registrations >= 1 && settings.registrations <= kUserRegistrationsMax,
               "a user has some registrations, and not all");
  fuzz::expect(settings.restart_delay >= 1 && settings.restart_delay <= kUserDelayMax,
               "a pause is a day at the most");
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  fuzz::make_directory("/etc/wex");
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string content(reinterpret_cast<const char*>(data), size);
  g_lines += 3 * (size + 1);
  if (g_lines > kLinesMax) {
    return 0;
  }
  const strict_settings settings = settings_of(content, 0644);
  expect_sound(settings);
  fuzz::expect(are_usual(settings) || content.find_first_of("0123456789") != std::string::npos,
               "no limit comes from a file without a number");
  fuzz::expect(settings_of(content + "\nregistrations 77\n", 0644).registrations == 77,
               "no line keeps a later one from counting");
  fuzz::expect(are_usual(settings_of(content, 0664)), "lines that others may have written do not count");
  return 0;
}

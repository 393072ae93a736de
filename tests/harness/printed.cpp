// What the process itself prints.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "wex_test.h"

namespace wex_test {

printed::printed() : before_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
  char name[] = "/tmp/printed.XXXXXX";
  file_ = mkostemp(name, O_CLOEXEC | O_APPEND);
  unlink(name);
  fflush(stdout);
  dup2(file_, STDOUT_FILENO);
}

printed::~printed() {
  fflush(stdout);
  dup2(before_, STDOUT_FILENO);
  close(before_);
  close(file_);
}

std::string printed::text() const {
  fflush(stdout);
  std::string all(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
  EXPECT_EQ(static_cast<ssize_t>(all.size()), pread(file_, all.data(), all.size(), 0));
  return all;
}

std::string printed_by(const std::function<void()>& work) {
  const printed out;
  work();
  return out.text();
}

std::string without_line_numbers(const std::string& text) {
  const std::string daemon = replace_matches(text, "(\\[WEX:[a-z_]+:)[0-9]+\\]", "$1N]");
  return replace_matches(daemon, "(\\[RAS\\]<[a-z_]+, [a-z_]+, )[0-9]+>", "$1N>");
}

}  // namespace wex_test

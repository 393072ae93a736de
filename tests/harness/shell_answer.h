// What a command answers.
#pragma once

#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace wex_test {

struct answer {
  int status;  // exit status, -1 when a signal ended it
  std::string text;
};

// The output of a command for the shell, errors included unless it leads them elsewhere.
inline answer shell(const std::string& command) {
  answer out = {-1, ""};
  FILE* const pipe = popen(("{ " + command + "; } 2>&1").c_str(), "re");
  char buffer[65536];
  size_t got;
  while (pipe != nullptr && (got = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
    out.text.append(buffer, got);
  }
  const int status = pipe != nullptr ? pclose(pipe) : -1;
  out.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

}  // namespace wex_test

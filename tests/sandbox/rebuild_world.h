// Registrations of programs that died while no daemon ran.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "wex_test.h"

namespace rebuild {

using namespace wex_test;

constexpr char kDbDir[] = "/tmp/vsd/0/wex/db";
constexpr int kNobody = 99999000;  // and all above: no kernel gives such pids

inline std::vector<std::string> options_of(int number) {
  return {"--tag=" + std::to_string(number), "--hold"};
}

inline std::string file_of(int number) {
  return std::string(kDbDir) + "/actor." + std::to_string(kNobody + number);
}

inline void register_dead(int count) {
  make_dirs(kDbDir);
  for (int i = 0; i < count; ++i) {
    write_file(file_of(i), std::to_string(kNobody + i) + "\n2\n" + actor_command(options_of(i)), 0755);
  }
}

inline size_t living(int number) {
  return pids_with_command(actor_command(options_of(number))).size();
}

}  // namespace rebuild

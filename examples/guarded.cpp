// A service in C++ with wex.hpp: two threads that beat, and an end in good order on SIGTERM.
#include <csignal>
#include <thread>

#include "wex.hpp"

namespace {

volatile std::sig_atomic_t stopping;

void stop(int) {
  stopping = 1;
}

void work() {
  wex::heartbeat heart;
  while (stopping == 0) {
    usleep(200000);  // one piece of work
    heart.beat();
  }
}

}  // namespace

int main() {
  struct sigaction action = {};
  action.sa_handler = stop;
  sigaction(SIGTERM, &action, nullptr);
  wex::registration service;
  std::thread worker(work);
  work();  // the main thread beats as well
  worker.join();
  return 0;
}

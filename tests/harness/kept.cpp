// A service in C++ with wex.hpp that takes none of the defaults: restarted by the script "revive", also after
// its end in good order, which comes once there is a file /tmp/over; its thread may be silent for twelve
// minutes.
#include "wex.hpp"

int main() {
  wex::registration service("revive");
  wex::heartbeat heart(wex::patience::twelve_minutes);
  while (access("/tmp/over", F_OK) != 0) {
    usleep(50000);
    heart.beat();
  }
  service.keep();
  return 0;
}

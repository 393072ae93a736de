// A service with a fault: it aborts half a second after each start. When it dies the fifth time within 120 s
// (after four restarts) it is parked for a self-check wait, so that a broken program cannot keep the device
// busy with nothing else.
#include <stdlib.h>
#include <unistd.h>

#include "wex.h"

int main() {
  reg_process_exit_action(0, WEX_RESTART);
  usleep(500000);
  abort();
}

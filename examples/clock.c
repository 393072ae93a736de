/* The smallest service: one call, and wex keeps it alive. */
#include <unistd.h>

#include "wex.h"

int main(void) {
  reg_process_exit_action(0, WEX_RESTART); /* 0: this process; start it again however it dies */

  for (;;) {
    sleep(1); /* the service's own work */
  }
}

/* Withdraws the registration of another process: "withdraw 812". wex keeps its hands off it from then on. In
 * strict mode only root and the process's own user may. */
#include <stdlib.h>

#include "wex.h"

int main(int argc, char** argv) {
  const int pid = argc == 2 ? atoi(argv[1]) : 0;
  return pid > 0 && wex_cancel_proc(pid) == 0 ? 0 : 1;
}

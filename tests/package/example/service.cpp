// The same from C++, with a domain call beside it, so that the other installed headers are seen too.
#include <ras_os.h>
#include <unistd.h>
#include <wex.h>
#include <wex_sys_alive.h>
#include <wex_vsd.h>

int main() {
  if (reg_process_exit_action(0, WEX_RESTART) != 0 || get_vsdid(getpid()) > 0) {
    return 1;
  }
  for (;;) {
    pause();
  }
}

/* Registers itself with what was installed, and waits to be killed. */
#include <unistd.h>

#include <wex.h>

int main(void) {
  if (reg_process_exit_action(0, WEX_RESTART) != 0) {
    return 1;
  }
  for (;;) {
    pause();
  }
}

/* A third-part program that becomes a daemon: the process that was started ends, its child goes on. */
#include <unistd.h>

int main(void) {
  if (fork() > 0) {
    sleep(1);
    return 0;
  }
  setsid();
  for (;;) {
    pause();
  }
}

/* A service with a thread that must not hang: a thread that stays silent for too long has the whole process
 * aborted with SIGABRT, and so restarted. */
#include <pthread.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "wex.h"

enum {
  PERIOD = 120, /* even: a report within every 120 s, five misses allowed */
  COUNT = 5     /* not looked at, but must not be 0 */
};

static void* work(void* unused) {
  int tid = (int)syscall(SYS_gettid);

  (void)unused;
  if (wex_client_reg_thread_notify(getpid(), tid, PERIOD, COUNT) != 0) {
    fputs("worker: hang detection is not available\n", stderr);
  }
  for (;;) {
    sleep(1); /* one piece of work */
    wex_client_reset_thread_notify(getpid(), tid, PERIOD,
                                   COUNT); /* still alive; cheap, one byte of shared memory */
  }
  return NULL;
}

int main(void) {
  pthread_t thread;

  reg_process_exit_action(0, WEX_RESTART);
  if (pthread_create(&thread, NULL, work, NULL) != 0) {
    return 1;
  }
  pthread_join(thread, NULL);
  return 0;
}

/* A service with a thread that must not hang: a thread that stays silent for too long has the whole process
 * aborted with SIGABRT, and so restarted. Every thread that registers is watched, but only in a process whose
 * main thread is registered too; so that one registers first, and reports as well. */
#include <pthread.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "wex.h"

enum {
  PERIOD = 120, /* even: a report within every 120 s, five misses allowed */
  COUNT = 5,    /* not looked at, but must not be 0 */
  PAUSE = 30    /* seconds between the main thread's reports; wex looks once a minute */
};

static void watch_me(int tid) {
  if (wex_client_reg_thread_notify(getpid(), tid, PERIOD, COUNT) != 0) {
    fputs("worker: hang detection is not available\n", stderr);
  }
}

static void still_alive(int tid) { /* cheap, one byte of shared memory */
  wex_client_reset_thread_notify(getpid(), tid, PERIOD, COUNT);
}

static void* work(void* unused) {
  int tid = (int)syscall(SYS_gettid);

  (void)unused;
  watch_me(tid);
  for (;;) {
    sleep(1); /* one piece of work */
    still_alive(tid);
  }
  return NULL;
}

int main(void) {
  pthread_t thread;

  reg_process_exit_action(0, WEX_RESTART);
  watch_me(getpid()); /* the main thread's id is the pid */
  if (pthread_create(&thread, NULL, work, NULL) != 0) {
    return 1;
  }
  for (;;) {
    sleep(PAUSE);
    still_alive(getpid());
  }
}

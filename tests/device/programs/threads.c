/* A service with two threads under hang detection. It reports every second; SIGUSR1 makes the second thread
 * fall silent, SIGUSR2 makes it withdraw. Both thread ids are in /tmp/threads.PID once registered. */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "wex.h"

enum { kPeriod = 60, kCount = 1 }; /* even: 120 s, five misses */

static volatile sig_atomic_t silent, withdrawn;
static int second_tid;
static pthread_barrier_t registered;

static void on_signal(int number) {
  if (number == SIGUSR1) {
    silent = 1;
  } else {
    withdrawn = 1;
  }
}

static int own_tid(void) {
  return (int)syscall(SYS_gettid);
}

static void* second(void* unused) {
  (void)unused;
  second_tid = own_tid();
  wex_client_reg_thread_notify(getpid(), second_tid, kPeriod, kCount);
  pthread_barrier_wait(&registered);
  while (!withdrawn) {
    if (!silent) {
      wex_client_reset_thread_notify(getpid(), second_tid, kPeriod, kCount);
    }
    usleep(200000);
  }
  wex_client_unreg_thread_notify(second_tid);
  for (;;) {
    pause();
  }
  return NULL;
}

int main(void) {
  char path[64];
  pthread_t thread;
  FILE* out;

  signal(SIGUSR1, on_signal);
  signal(SIGUSR2, on_signal);
  reg_process_exit_action(0, WEX_RESTART);
  wex_client_reg_thread_notify(getpid(), own_tid(), kPeriod, kCount);
  pthread_barrier_init(&registered, NULL, 2);
  if (pthread_create(&thread, NULL, second, NULL) != 0) {
    return 2;
  }
  pthread_barrier_wait(&registered);
  snprintf(path, sizeof path, "/tmp/threads.%d", (int)getpid());
  out = fopen(path, "w");
  if (out == NULL) {
    return 2;
  }
  fprintf(out, "%d %d\n", own_tid(), second_tid);
  fclose(out);
  for (;;) {
    wex_client_reset_thread_notify(getpid(), own_tid(), kPeriod, kCount);
    sleep(1);
  }
}

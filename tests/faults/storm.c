/* Processes that come and go as fast as they can: storm WORKERS fork|exec [COUNT]. Without COUNT until it is
 * ended; with it each worker makes as many. */
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

static void come_and_go(const char* program) {
  const pid_t child = vfork();
  if (child == 0) {
    if (program != NULL) {
      execl(program, program, "0", "end", (char*)NULL);
    }
    _exit(0);
  }
  if (child > 0) {
    waitpid(child, NULL, 0);
  }
}

static void work(const char* program, long count) {
  for (long number = 0; count == 0 || number < count; ++number) {
    come_and_go(program);
  }
}

int main(int argc, char** argv) {
  const long workers = argc > 2 ? atol(argv[1]) : 0;
  const long count = argc > 3 ? atol(argv[3]) : 0;
  cpu_set_t all;
  memset(&all, 0xff, sizeof all); /* the kernel takes those that there are */
  sched_setaffinity(0, sizeof all, &all);
  for (long worker = 0; worker < workers; ++worker) {
    if (fork() == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      work(strcmp(argv[2], "exec") == 0 ? argv[0] : NULL, count);
      _exit(0);
    }
  }
  while (wait(NULL) > 0) {
  }
  return 0;
}

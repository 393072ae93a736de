/* A program that knows nothing of the daemon and takes no arguments: it appends its process id to the file
 * that is called like itself with ".starts" behind, and lives until it is ended. SIGUSR1 lets it detach: a
 * child goes on as it did, in a session of its own, and the process ends. */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static int tell_start(const char* program) {
  char line[512];
  snprintf(line, sizeof line, "%s.starts", program);
  const int file = open(line, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  snprintf(line, sizeof line, "%d\n", (int)getpid());
  return file >= 0 && write(file, line, strlen(line)) > 0 && close(file) == 0;
}

int main(int argc, char** argv) {
  sigset_t asked;
  int number;
  (void)argc;
  sigemptyset(&asked);
  sigaddset(&asked, SIGUSR1);
  sigprocmask(SIG_BLOCK, &asked, NULL); /* one that comes early waits */
  while (tell_start(argv[0])) {
    sigwait(&asked, &number);
    if (fork() != 0) {
      return 0;
    }
    setsid();
  }
  return 1;
}

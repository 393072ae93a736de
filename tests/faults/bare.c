/* A program that knows nothing of the daemon and takes no arguments: it appends its process id to the file
 * that is called like itself with ".starts" behind, and lives until it is ended. */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char** argv) {
  char line[512];
  (void)argc;
  snprintf(line, sizeof line, "%s.starts", argv[0]);
  const int file = open(line, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  snprintf(line, sizeof line, "%d\n", (int)getpid());
  if (file < 0 || write(file, line, strlen(line)) < 0) {
    return 1;
  }
  close(file);
  for (;;) {
    pause();
  }
}

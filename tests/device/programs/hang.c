/* A service whose main thread registers and never reports. The client library offers no period below 120 s
 * and no count below four; an older program may ask for less, and so does this one, byte by byte: one
 * period of 60 s, so that the very next look of the watchdog finds it hung. */
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "wex.h"

int main(void) {
  struct {
    wex_inner_msg head;
    wex_reg_info body;
  } message;
  struct sockaddr_un to = {.sun_family = AF_UNIX, .sun_path = "/tmp/wex/.wex"};
  int fd;

  reg_process_exit_action(0, WEX_RESTART);
  memset(&message, 0, sizeof message);
  message.head.msg_type = WEX_NOTIFIER_START;
  message.head.msg_len = sizeof message.body;
  message.body.pid = message.body.ppid = getpid();
  message.body.ntfy_cnt = message.body.cur_cnt = 1;
  message.body.ntfy_time = 60;
  fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  if (fd < 0 || connect(fd, (struct sockaddr*)&to, sizeof to) != 0 ||
      send(fd, &message, sizeof message, 0) != (ssize_t)sizeof message) {
    perror("hang");
    return 2;
  }
  for (;;) {
    pause();
  }
}

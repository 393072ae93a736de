/* Asks a supervisor over its local socket, again and again. Prints requests a second and how long one took,
 * as JSON. Usage: load SOCKET CLIENTS MILLISECONDS TYPE REQUEST REPLY-LENGTH [HELLO HELLO-REPLY-LENGTH] TYPE
 * seqpacket, stream, http (the answer says how long it is) or once (a connection for each request) REQUEST,
 * HELLO  in hexadecimal digits; HELLO is sent once, at the start of a connection */
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "bench.h"

enum { MOST_CLIENTS = 64, MOST_TIMES = 1 << 20, MESSAGE_SIZE = 4096, ANSWER_SIZE = 65536 };
enum type { SEQPACKET, STREAM, HTTP, ONCE };

typedef struct {
  unsigned char bytes[MESSAGE_SIZE];
  size_t length;
  size_t reply;
} message;

typedef struct {
  pthread_t thread;
  uint64_t* times;
  size_t count;
  size_t errors;
} client;

static const char* path;
static enum type type;
static message request;
static message hello;
static uint64_t end_at;

static message message_of(const char* digits, const char* reply) {
  message made;
  unsigned byte;
  made.length = 0;
  made.reply = strtoul(reply, NULL, 10);
  for (; made.length < sizeof made.bytes && sscanf(digits, "%2x", &byte) == 1; digits += 2) {
    made.bytes[made.length++] = (unsigned char)byte;
  }
  return made;
}

/* Up to the wanted number of bytes; 0 asks for everything until the other side closes. */
static int receive(int fd, size_t wanted) {
  char bytes[ANSWER_SIZE];
  size_t got = 0;
  ssize_t length;
  while ((length = read(fd, bytes, sizeof bytes)) > 0) {
    got += (size_t)length;
    if (wanted > 0 && got >= wanted) {
      return 0;
    }
  }
  return length == 0 && wanted == 0 && got > 0 ? 0 : -1;
}

static int receive_http(int fd) {
  char text[ANSWER_SIZE];
  size_t got = 0;
  for (;;) {
    const ssize_t length = read(fd, text + got, sizeof text - 1 - got);
    const char* body;
    const char* said;
    if (length <= 0) {
      return -1;
    }
    got += (size_t)length;
    text[got] = '\0';
    body = strstr(text, "\r\n\r\n");
    said = strcasestr(text, "content-length:");
    if (body != NULL && said != NULL && got >= (size_t)(body + 4 - text) + strtoul(said + 15, NULL, 10)) {
      return strncmp(text + 8, " 200", 4) == 0 ? 0 : -1;
    }
  }
}

static int exchange(int fd, const message* sent) {
  if (send(fd, sent->bytes, sent->length, MSG_NOSIGNAL) != (ssize_t)sent->length) {
    return -1;
  }
  return type == HTTP ? receive_http(fd) : receive(fd, sent->reply);
}

static int dial(void) {
  const struct timeval limit = {5, 0};
  const int fd = socket(AF_UNIX, (type == SEQPACKET ? SOCK_SEQPACKET : SOCK_STREAM) | SOCK_CLOEXEC, 0);
  struct sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  if (fd >= 0 && connect(fd, (const struct sockaddr*)&address, sizeof address) == 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (hello.length == 0 || exchange(fd, &hello) == 0) {
      return fd;
    }
  }
  if (fd >= 0) {
    close(fd);
  }
  return -1;
}

static void* ask(void* given) {
  client* self = given;
  int fd = -1;
  uint64_t begin;
  while ((begin = bench_now()) < end_at) {
    const int answered = (fd >= 0 || (fd = dial()) >= 0) && exchange(fd, &request) == 0;
    if (answered && self->count < MOST_TIMES) {
      self->times[self->count++] = bench_now() - begin;
    }
    self->errors += !answered;
    if (fd >= 0 && (!answered || type == ONCE)) {
      close(fd);
      fd = -1;
    }
    if (!answered) {
      usleep(1000);
    }
  }
  if (fd >= 0) {
    close(fd);
  }
  return NULL;
}

static void print(client* clients, size_t number, double seconds) {
  uint64_t* all = malloc(number * MOST_TIMES * sizeof *all);
  size_t count = 0;
  size_t errors = 0;
  size_t i;
  for (i = 0; all != NULL && i < number; ++i) {
    memcpy(all + count, clients[i].times, clients[i].count * sizeof *all);
    count += clients[i].count;
    errors += clients[i].errors;
  }
  if (count > 0) {
    qsort(all, count, sizeof *all, bench_by_size);
  }
  printf("{\"per_second\": %.0f, \"errors\": %zu, \"median_us\": %.1f, \"p99_us\": %.1f, \"max_us\": %.1f}\n",
         (double)count / seconds, errors, bench_quantile(all, count, 50), bench_quantile(all, count, 99),
         bench_quantile(all, count, 100));
  free(all);
}

int main(int argc, char** argv) {
  static client clients[MOST_CLIENTS];
  const char* const names[] = {"seqpacket", "stream", "http", "once"};
  size_t number;
  uint64_t begin;
  size_t i;
  if (argc < 7 || (number = strtoul(argv[2], NULL, 10)) == 0 || number > MOST_CLIENTS) {
    return 1;
  }
  path = argv[1];
  while (type < ONCE && strcmp(names[type], argv[4]) != 0) {
    ++type;
  }
  request = message_of(argv[5], argv[6]);
  if (argc == 9) {
    hello = message_of(argv[7], argv[8]);
  }
  signal(SIGPIPE, SIG_IGN);
  begin = bench_now();
  end_at = begin + strtoull(argv[3], NULL, 10) * 1000000u;
  for (i = 0; i < number; ++i) {
    clients[i].times = malloc(MOST_TIMES * sizeof(uint64_t));
    if (clients[i].times == NULL || pthread_create(&clients[i].thread, NULL, ask, &clients[i]) != 0) {
      return 1;
    }
  }
  for (i = 0; i < number; ++i) {
    pthread_join(clients[i].thread, NULL);
  }
  print(clients, number, (double)(bench_now() - begin) / 1e9);
  return 0;
}

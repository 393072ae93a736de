// What programs say to wexrun --notify, and what anybody else may send there. The whole minder is taken in,
// for its class is its own; what it would start, signal and report is only counted.
#include "wexrun_minder.cpp"

#include <cstdarg>

#include "fuzz_support.h"

namespace {

int aborts = 0;
int beats = 0;
int logged = 0;

}  // namespace

// The minder's program is no process, and nothing is sent to one.
pid_t start_child(char** /*program*/, const char* /*notify_address*/, const sigset_t& /*mask*/) {
  return fuzz::kNobody;
}
extern "C" int kill(pid_t pid, int number) noexcept {
  fuzz::expect(pid == fuzz::kNobody, "signals go to the program alone");
  fuzz::expect(number == SIGABRT || number == SIGCONT,
               "a message can have the program aborted, and nothing else");
  aborts += number == SIGABRT ? 1 : 0;
  return 0;
}
void heartbeat::beat() noexcept {
  ++beats;
}
void end_as(int /*status*/) {
  abort();
}
int give_up(const char* /*name*/, int /*cause*/, registration& /*own*/) {
  abort();
}
void qx_syslog(int /*priority*/, const char* format, ...) {
  char line[1024];
  va_list values;
  va_start(values, format);
  const int length = vsnprintf(line, sizeof line, format, values);
  va_end(values);
  ++logged;
  fuzz::expect(length > 0 && length < static_cast<int>(sizeof line), "a line of the log is short");
  for (const char* at = line; *at != '\0'; ++at) {
    fuzz::expect(static_cast<unsigned char>(*at) >= ' ' && *at != 0x7f, "a line of the log is one line");
  }
}

namespace {

// As it is received: at most so many bytes, and a zero behind them.
void take(minder* it, pid_t sender, const std::string& message) {
  const size_t size = message.size() < kNotifySize ? message.size() : kNotifySize;
  char* const text = static_cast<char*>(malloc(size + 1));
  memcpy(text, message.data(), size);
  text[size] = '\0';
  it->take(sender, text);
  free(text);
}

void begin(minder* it) {
  static char name[] = "/usr/bin/program";  // the minder keeps it
  char* words[] = {name, nullptr};
  fuzz::expect(it->start(words), "the program seems to run");
  aborts = beats = logged = 0;
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string message(reinterpret_cast<const char*>(data), size);
  minder own;
  begin(&own);
  take(&own, getpid(), message);
  fuzz::expect(beats == 0 || message.find("WATCHDOG=1") != std::string::npos, "only a sign of life is one");
  fuzz::expect(aborts == 0 || message.find("WATCHDOG=trigger") != std::string::npos,
               "a program is aborted when it asks for it");
  beats = 0;
  take(&own, getpid(), "WATCHDOG=1");
  fuzz::expect(beats == 1, "a sign of life counts, whatever was said before");

  minder other;
  begin(&other);
  take(&other, 1, message);
  fuzz::expect(beats == 0 && aborts == 0 && logged == 1, "nobody else speaks for the program");
  return 0;
}

// From SIGKILL of one of 100 services to the first instruction of its replacement's main(): wex beside the
// least program that can do it, in the same run. Prints both medians and their ratio. Only inside the
// sandbox.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr int kServices = 100;
constexpr char kFifo[] = "/tmp/bench.fifo";
constexpr int kDeadlineMs = 10000;

struct started {
  int64_t number;
  int64_t pid;
  int64_t at;
};

[[noreturn]] void give_up(const char* what) {
  perror(what);
  exit(1);
}

int64_t now_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

pid_t run(const std::vector<std::string>& words) {
  std::vector<char*> argv;
  for (const std::string& word : words) {
    argv.push_back(const_cast<char*>(word.c_str()));
  }
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

started next_start(int fifo) {
  pollfd input = {fifo, POLLIN, 0};
  started told = {};
  if (poll(&input, 1, kDeadlineMs) != 1 || read(fifo, &told, sizeof told) != sizeof told) {
    give_up("a service did not start in time");
  }
  return told;
}

double median_us(std::vector<int64_t> times) {
  std::sort(times.begin(), times.end());
  return static_cast<double>(times[times.size() / 2]) / 1000;
}

// Kills each service once: more often, and the restart throttle would be measured.
std::vector<int64_t> measure(int fifo, const std::vector<pid_t>& pids) {
  std::vector<int64_t> times;
  for (const pid_t pid : pids) {
    usleep(20000);
    if (pid <= 1) {  // 0 would be our whole group
      give_up("a service has no pid");
    }
    const int64_t before = now_ns();
    kill(pid, SIGKILL);
    times.push_back(next_start(fifo).at - before);
  }
  return times;
}

std::vector<pid_t> gather(int fifo) {
  std::vector<pid_t> pids(kServices);
  for (int i = 0; i < kServices; ++i) {
    const started told = next_start(fifo);
    pids[static_cast<size_t>(told.number)] = static_cast<pid_t>(told.pid);
  }
  return pids;
}

std::vector<int64_t> measure_wex(int fifo, long* resident_kib) {
  const pid_t daemon = run({WEX_BINARY});
  for (int waited = 0; access("/tmp/wex/.wex", F_OK) != 0; ++waited) {
    if (waited > 500) {
      give_up("the daemon did not come up");
    }
    usleep(10000);
  }
  usleep(100000);
  std::vector<pid_t> children;
  for (int i = 0; i < kServices; ++i) {
    children.push_back(run({BENCH_SERVICE, kFifo, std::to_string(i), "register"}));
  }
  const std::vector<pid_t> pids = gather(fifo);
  usleep(300000);
  const std::vector<int64_t> times = measure(fifo, pids);
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/statm", static_cast<int>(daemon));
  FILE* const statm = fopen(path, "r");
  long total = 0;
  if (statm == nullptr || fscanf(statm, "%ld %ld", &total, resident_kib) != 2) {
    give_up(path);
  }
  fclose(statm);
  *resident_kib *= sysconf(_SC_PAGESIZE) / 1024;
  kill(daemon, SIGINT);
  waitpid(daemon, nullptr, 0);
  return times;
}

std::vector<int64_t> measure_minimal(int fifo) {
  const pid_t supervisor = run({BENCH_MINIMAL, std::to_string(kServices), BENCH_SERVICE, kFifo});
  const std::vector<pid_t> pids = gather(fifo);
  usleep(300000);
  const std::vector<int64_t> times = measure(fifo, pids);
  kill(supervisor, SIGKILL);
  waitpid(supervisor, nullptr, 0);
  return times;
}

}  // namespace

int main() {
  if (prctl(PR_CAPBSET_READ, 22) != 0 || getenv("WEX_SANDBOX") == nullptr) {
    fprintf(stderr, "run me inside tools/sandbox\n");
    return 1;
  }
  if (mkfifo(kFifo, 0600) != 0) {
    give_up(kFifo);
  }
  const int fifo = open(kFifo, O_RDWR | O_CLOEXEC);
  long resident_kib = 0;
  const double least = median_us(measure_minimal(fifo));
  const double wex = median_us(measure_wex(fifo, &resident_kib));
  printf("SIGKILL to the replacement's main(), median of %d kills of %d services:\n", kServices, kServices);
  printf("  connector + fork + exec alone  %8.0f us\n", least);
  printf("  wex                            %8.0f us   (%.2f times as long)\n", wex, wex / least);
  printf("  resident memory of wex with %d services: %ld KiB\n", kServices, resident_kib);
  return 0;
}
